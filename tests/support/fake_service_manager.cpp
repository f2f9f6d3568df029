#include "tests/support/fake_service_manager.h"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

namespace zuTest {

struct FakeServiceManager::State {
    mutable std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> calls;
    std::vector<zuPlatform::ServiceStatus> reported;
    std::map<std::uintptr_t, std::string> handles;
    std::uintptr_t nextHandle = 0x100;
    std::size_t queries = 0;
    zuPlatform::ServiceControlFunction handler = nullptr;

    void note(const std::string& call)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        calls.push_back(call);
    }

    zuPlatform::ServiceHandle open(const std::string& what)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        handles[++nextHandle] = what;
        return nextHandle;
    }
};

namespace {

FakeServiceManager* manager = nullptr;

std::string hex(std::uint32_t value)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", value);
    return text;
}

/// Notes a call; true if it is the one that fails.
bool refuses(const std::string& name, const std::string& arguments)
{
    manager->state().note(name + "(" + arguments + ")");
    if (manager->onCall)
        manager->onCall(name);
    return manager->refused == name;
}

/// What the handle stands for, as part of a call's text; a handle that isn't open shows as such.
std::string named(zuPlatform::ServiceHandle handle)
{
    const std::lock_guard<std::mutex> lock(manager->state().mutex);
    const auto found = manager->state().handles.find(handle);
    return found == manager->state().handles.end() ? "not open" : found->second;
}

} // namespace

zuPlatform::ServiceStatus serviceStatus(std::uint32_t state, std::uint32_t checkpoint, std::uint32_t waitHint)
{
    zuPlatform::ServiceStatus status;
    status.type = 0x10;
    status.state = state;
    status.checkpoint = checkpoint;
    status.waitHint = waitHint;
    return status;
}

FakeServiceManager::FakeServiceManager() : state_(std::make_unique<State>()) { manager = this; }
FakeServiceManager::~FakeServiceManager() { manager = nullptr; }

std::vector<std::string> FakeServiceManager::calls() const
{
    const std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->calls;
}

std::vector<zuPlatform::ServiceStatus> FakeServiceManager::reported() const
{
    const std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->reported;
}

std::vector<std::string> FakeServiceManager::openHandles() const
{
    const std::lock_guard<std::mutex> lock(state_->mutex);
    std::vector<std::string> open;
    for (const auto& handle : state_->handles)
        open.push_back(handle.second);
    return open;
}

} // namespace zuTest

namespace zuPlatform {

using zuTest::hex;
using zuTest::manager;
using zuTest::named;
using zuTest::refuses;

std::uint32_t serviceError() { return manager->error; }

ServiceHandle openServiceManager(std::uint32_t access)
{
    return refuses("OpenSCManager", hex(access)) ? 0 : manager->state().open("manager");
}

ServiceHandle openService(ServiceHandle handle, const std::string& name, std::uint32_t access)
{
    return refuses("OpenService", named(handle) + "," + name + "," + hex(access)) ? 0
                                                                                  : manager->state().open("service");
}

ServiceHandle createService(ServiceHandle handle, const std::string& name, const std::string& displayName,
                            std::uint32_t access, std::uint32_t type, std::uint32_t startType,
                            std::uint32_t errorControl, const std::string& commandLine)
{
    std::ostringstream text;
    text << named(handle) << "," << name << "," << displayName << "," << hex(access) << "," << hex(type) << ","
         << startType << "," << errorControl << ",[" << commandLine << "]";
    return refuses("CreateService", text.str()) ? 0 : manager->state().open("service");
}

bool deleteService(ServiceHandle handle) { return !refuses("DeleteService", named(handle)); }
bool startService(ServiceHandle handle) { return !refuses("StartService", named(handle)); }

bool queryServiceStatus(ServiceHandle handle, ServiceStatus& status)
{
    if (refuses("QueryServiceStatus", named(handle)) || manager->statuses.empty())
        return false;
    auto& state = manager->state();
    const std::lock_guard<std::mutex> lock(state.mutex);
    const auto& answer = manager->statuses[std::min(state.queries++, manager->statuses.size() - 1)];
    if (!answer)
        return false;
    status = *answer;
    return true;
}

bool controlService(ServiceHandle handle, std::uint32_t control, ServiceStatus& status)
{
    if (refuses("ControlService", named(handle) + "," + std::to_string(control)))
        return false;
    status = manager->statusAfterControl;
    return true;
}

void closeServiceHandle(ServiceHandle handle)
{
    manager->state().note("CloseServiceHandle(" + named(handle) + ")");
    const std::lock_guard<std::mutex> lock(manager->state().mutex);
    manager->state().handles.erase(handle);
}

bool startServiceDispatcher(const std::string& name, ServiceMainFunction body)
{
    if (refuses("StartServiceCtrlDispatcher", name))
        return false;
    auto& state = manager->state();
    bool ended = false;
    std::thread thread([body, &state, &ended] {
        body(0, nullptr);
        const std::lock_guard<std::mutex> lock(state.mutex);
        ended = true;
        state.changed.notify_all();
    });
    ServiceControlFunction handler = nullptr;
    {
        std::unique_lock<std::mutex> lock(state.mutex);
        state.changed.wait(lock, [&state, &ended] { return ended || !state.reported.empty(); });
        handler = state.handler;
    }
    if (manager->controls && handler)
        manager->controls(handler);
    thread.join();
    return true;
}

ServiceStatusHandle registerServiceControlHandler(const std::string& name, ServiceControlFunction handler)
{
    if (refuses("RegisterServiceCtrlHandler", name))
        return 0;
    const std::lock_guard<std::mutex> lock(manager->state().mutex);
    manager->state().handler = handler;
    return 0x77;
}

bool setServiceStatus(ServiceStatusHandle handle, const ServiceStatus& status)
{
    if (refuses("SetServiceStatus", hex(static_cast<std::uint32_t>(handle)) + "," + std::to_string(status.state)))
        return false;
    const std::lock_guard<std::mutex> lock(manager->state().mutex);
    manager->state().reported.push_back(status);
    manager->state().changed.notify_all();
    return true;
}

std::string volumeOfPath(const std::string& commandLine) { return driveLetterVolume(commandLine); }

std::uint32_t volumeType(const std::string& volume)
{
    manager->state().note("GetDriveType(" + volume + ")");
    return manager->driveType;
}

bool queryVolumeDevice(const std::string& volume, char* buffer, std::size_t size)
{
    manager->state().note("QueryDosDevice(" + volume + "," + hex(static_cast<std::uint32_t>(size)) + ")");
    std::snprintf(buffer, size, "%s", manager->device.c_str());
    return !manager->device.empty();
}

} // namespace zuPlatform
