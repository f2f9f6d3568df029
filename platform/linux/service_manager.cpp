// The service manager's operations over systemd: a service is a unit of its name, registered by a unit file in the
// administrator's directory, or by the package's. Calls from several threads take turns.
#include "platform/service_manager.h"

#include "platform/linux/service_bus.h"
#include "platform/linux/service_error.h"
#include "platform/linux/service_state.h"
#include "platform/linux/service_unit.h"
#include "platform/service_notify.h"
#include "platform/thread.h"

#include <fcntl.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <memory>
#include <mutex>

namespace zuPlatform {

namespace {

constexpr const char* unitDirectory = "/etc/systemd/system/";
constexpr const char* serviceAccount = "zugevsvc";
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

/// Puts the unit file in its place whole or not at all, and never over another. An errno value.
int writeUnitFile(const std::string& path, const std::string& text)
{
    std::string temporary = path + ".XXXXXX";
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0)
        return errno;
    int error = 0;
    for (std::size_t done = 0; done < text.size() && error == 0;) {
        const ssize_t written = ::write(fd, text.data() + done, text.size() - done);
        if (written >= 0)
            done += static_cast<std::size_t>(written);
        else if (errno != EINTR)
            error = errno;
    }
    if (error == 0 && (::fchmod(fd, 0644) != 0 || ::fsync(fd) != 0))
        error = errno;
    ::close(fd);
    if (error == 0 && ::link(temporary.c_str(), path.c_str()) != 0)
        error = errno;
    ::unlink(temporary.c_str());
    return error;
}

/// The account of the service, made if it is missing; false if there is none.
bool haveServiceAccount()
{
    if (::getpwnam(serviceAccount))
        return true;
    const std::string line = std::string("u ") + serviceAccount + " - \"GigE Vision service\"";
    const char* const arguments[] = {"systemd-sysusers", "--inline", line.c_str(), nullptr};
    const char* const environment[] = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", nullptr};
    pid_t child = 0;
    if (::posix_spawnp(&child, arguments[0], nullptr, nullptr, const_cast<char* const*>(arguments),
                       const_cast<char* const*>(environment)) != 0)
        return false;
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return ::getpwnam(serviceAccount) != nullptr;
}

/// Registers the unit: the installed file if it runs this very program, otherwise one of our own. An errno value.
int registerUnit(ServiceBus& bus, const std::string& unit, const std::string& displayName,
                 const std::string& commandLine)
{
    UnitFacts facts;
    if (const int error = bus.facts(unit, facts))
        return error;
    if (facts.loadState == "masked") {
        // That is what became of an installed unit when it was deleted.
        if (const int error = bus.unmaskUnit(unit))
            return error;
        if (const int error = bus.reload())
            return error;
        if (const int error = bus.facts(unit, facts))
            return error;
    }

    ServiceUnit wanted;
    wanted.displayName = displayName;
    wanted.command = splitServiceCommand(commandLine);
    if (wanted.command.program.empty())
        return EINVAL;
    const std::string file = unitDirectory + unit;
    const bool useInstalled = facts.isLoaded() && facts.program == wanted.command.program;
    if (facts.isLoaded() && facts.fileState != "disabled")
        return EEXIST;
    if (!useInstalled) {
        if (executableByAll(wanted.command.program) && haveServiceAccount())
            wanted.user = serviceAccount;
        if (const int error = writeUnitFile(file, serviceUnitText(wanted)))
            return error;
    } else if (::access(file.c_str(), F_OK) == 0) {
        return EEXIST;
    }

    int error = bus.reload();
    if (error == 0)
        error = bus.enableUnit(unit);
    if (error == 0)
        error = bus.reload();
    if (error != 0 && !useInstalled) {
        ::unlink(file.c_str());
        bus.reload();
    }
    return error;
}

/// An errno value.
int unregisterUnit(ServiceBus& bus, const std::string& unit)
{
    UnitFacts facts;
    if (const int error = bus.facts(unit, facts))
        return error;
    if (!facts.isLoaded())
        return ENOENT;
    if (const int error = bus.disableUnit(unit))
        return error;
    if (::unlink((unitDirectory + unit).c_str()) != 0 && errno != ENOENT)
        return errno;
    if (const int error = bus.reload())
        return error;
    // A unit file that a package brought is the package's to remove. Masked, it counts as deleted.
    if (const int error = bus.facts(unit, facts))
        return error;
    if (facts.isLoaded() && !facts.fileState.empty()) {
        if (const int error = bus.maskUnit(unit))
            return error;
        return bus.reload();
    }
    return 0;
}

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
    if (!facts.isLoaded() && !facts.isActive()) {
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
