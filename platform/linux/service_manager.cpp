// The service manager's operations over systemd: a service is a unit of its name. Calls from several threads take
// turns.
#include "platform/service_manager.h"

#include "platform/clock.h"
#include "platform/linux/service_bus.h"
#include "platform/linux/service_error.h"
#include "platform/linux/service_register.h"
#include "platform/linux/service_state.h"
#include "platform/service_notify.h"

#include <cerrno>
#include <map>
#include <memory>
#include <mutex>

namespace zuPlatform {

namespace {

constexpr std::uint32_t startSettleMs = 1000;
constexpr std::uint32_t startPollMs = 20;

struct Opened {
    std::shared_ptr<ServiceBus> bus;
    std::string unit; ///< empty for the manager
};

/// What the system keeps for a process: what is never closed is freed with it.
struct Handles {
    std::mutex mutex; ///< held through a whole operation; nothing else is locked under it
    std::map<ServiceHandle, Opened> open;
    ServiceHandle last = 0;

    ServiceHandle add(Opened object)
    {
        open.emplace(++last, std::move(object));
        return last;
    }
};

Handles& handles()
{
    static Handles& instance = *new Handles;
    return instance;
}

bool failed(int error)
{
    if (error != 0)
        setServiceError(error);
    return error != 0;
}

/// The opened object, or null with the error set.
Opened* find(ServiceHandle handle, bool service)
{
    const auto found = handles().open.find(handle);
    if (found == handles().open.end() || found->second.unit.empty() == service) {
        setServiceError(EBADF);
        return nullptr;
    }
    return &found->second;
}

std::string unitOf(const std::string& service) { return service + ".service"; }

} // namespace

ServiceHandle openServiceManager(std::uint32_t)
{
    auto bus = std::make_shared<ServiceBus>();
    // A process that the manager has started knows that there is one, and mostly has nothing to ask of it.
    if (!startedByServiceManager() && failed(bus->connect()))
        return 0;
    const std::lock_guard<std::mutex> lock(handles().mutex);
    return handles().add({std::move(bus), {}});
}

ServiceHandle openService(ServiceHandle manager, const std::string& name, std::uint32_t)
{
    const std::lock_guard<std::mutex> lock(handles().mutex);
    const Opened* const opened = find(manager, false);
    if (!opened)
        return 0;
    Opened service{opened->bus, unitOf(name)};
    UnitFacts facts;
    if (failed(service.bus->facts(service.unit, facts)))
        return 0;
    // A service that was deleted while it ran is there until it ends.
    if (!isRegistered(service.unit, facts) && !facts.isActive()) {
        setServiceError(ENOENT);
        return 0;
    }
    return handles().add(std::move(service));
}

ServiceHandle createService(ServiceHandle manager, const std::string& name, const std::string& displayName,
                            std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t, const std::string& commandLine)
{
    const std::lock_guard<std::mutex> lock(handles().mutex);
    const Opened* const opened = find(manager, false);
    if (!opened)
        return 0;
    Opened service{opened->bus, unitOf(name)};
    if (failed(registerUnit(*service.bus, service.unit, displayName, commandLine)))
        return 0;
    return handles().add(std::move(service));
}

bool deleteService(ServiceHandle service)
{
    const std::lock_guard<std::mutex> lock(handles().mutex);
    const Opened* const opened = find(service, true);
    return opened && !failed(unregisterUnit(*opened->bus, opened->unit));
}

bool startService(ServiceHandle service)
{
    const std::lock_guard<std::mutex> lock(handles().mutex);
    const Opened* const opened = find(service, true);
    if (!opened)
        return false;
    UnitFacts facts;
    if (failed(opened->bus->facts(opened->unit, facts)))
        return false;
    if (facts.isActive()) {
        setServiceError(EALREADY);
        return false;
    }
    // Whoever asks for a start means it, whatever has failed, and however often, before.
    opened->bus->resetFailedUnit(opened->unit);
    if (failed(opened->bus->startUnit(opened->unit)))
        return false;
    // The process is made before this returns, and most services run by then.
    const std::uint32_t start = tickCount();
    do {
        sleepMs(startPollMs);
        if (opened->bus->facts(opened->unit, facts) != 0)
            break;
    } while (!facts.jobType.empty() && tickCount() - start < startSettleMs);
    return true;
}

bool queryServiceStatus(ServiceHandle service, ServiceStatus& status)
{
    const std::lock_guard<std::mutex> lock(handles().mutex);
    const Opened* const opened = find(service, true);
    UnitFacts facts;
    if (!opened || failed(opened->bus->facts(opened->unit, facts)))
        return false;
    status = serviceStatusOfUnit(facts.activeState, facts.subState, facts.jobType);
    status.processId = facts.mainPid;
    return true;
}

bool controlService(ServiceHandle service, std::uint32_t control, ServiceStatus& status)
{
    const std::lock_guard<std::mutex> lock(handles().mutex);
    const Opened* const opened = find(service, true);
    UnitFacts facts;
    if (!opened || failed(opened->bus->facts(opened->unit, facts)))
        return false;
    if (control == serviceControlStop) {
        if (!facts.isActive() && facts.jobType.empty()) {
            setServiceError(ESRCH);
            return false;
        }
        if (failed(opened->bus->stopUnit(opened->unit)) || failed(opened->bus->facts(opened->unit, facts)))
            return false;
    } else if (control != serviceControlInterrogate) {
        setServiceError(EINVAL);
        return false;
    }
    status = serviceStatusOfUnit(facts.activeState, facts.subState, facts.jobType);
    status.processId = facts.mainPid;
    return true;
}

void closeServiceHandle(ServiceHandle handle)
{
    const std::lock_guard<std::mutex> lock(handles().mutex);
    handles().open.erase(handle);
}

} // namespace zuPlatform
