// The system's service manager: registering, starting, stopping and inquiring a service, and being one.
// Any thread may call, except where told. Calls to the manager block until it has answered, at most about 25 seconds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace zuPlatform {

/// An open manager or service; 0 is none. It stays open until it is closed or the process ends.
using ServiceHandle = std::uintptr_t;
/// The connection over which a service process reports its state; 0 is none.
using ServiceStatusHandle = std::uintptr_t;

constexpr std::uint32_t serviceOwnProcess = 0x10; ///< the one type of service here

/// States of a service.
constexpr std::uint32_t serviceStopped = 1;
constexpr std::uint32_t serviceStartPending = 2;
constexpr std::uint32_t serviceStopPending = 3;
constexpr std::uint32_t serviceRunning = 4;

constexpr std::uint32_t serviceAcceptsStopAndShutdown = 5;

/// A service's state, as a service reports it and as a query gives it.
struct ServiceStatus {
    std::uint32_t type = 0;
    std::uint32_t state = 0; ///< `serviceStopped` to `serviceRunning`
    std::uint32_t controlsAccepted = 0;
    std::uint32_t exitCode = 0;
    std::uint32_t serviceExitCode = 0;
    std::uint32_t checkpoint = 0; ///< grows as a pending start or stop makes progress
    std::uint32_t waitHint = 0;   ///< milliseconds until a pending operation ought to have made progress
    std::uint32_t processId = 0;
    std::uint32_t flags = 0;
};
static_assert(sizeof(ServiceStatus) == 0x24);

/// Control codes. The manager may send others; a service takes them as unknown.
constexpr std::uint32_t serviceControlStop = 1;
constexpr std::uint32_t serviceControlPause = 2;
constexpr std::uint32_t serviceControlInterrogate = 4;
constexpr std::uint32_t serviceControlShutdown = 5;
constexpr std::uint32_t serviceControlReload = 6;

/// The system's code for why the last of these calls failed on this thread.
std::uint32_t serviceError();

/// Opens the manager of the local machine. 0 if there is none, or it refuses.
ServiceHandle openServiceManager(std::uint32_t access);

/// Opens a registered service. 0 if there is none of this name, or the manager refuses.
ServiceHandle openService(ServiceHandle manager, const std::string& name, std::uint32_t access);

/// Registers a service that starts with the machine and runs `commandLine`: the path of the program, which may hold
/// blanks and is not quoted, and its arguments. 0 if one of this name is registered, or the manager refuses.
ServiceHandle createService(ServiceHandle manager, const std::string& name, const std::string& displayName,
                            std::uint32_t access, std::uint32_t type, std::uint32_t startType,
                            std::uint32_t errorControl, const std::string& commandLine);

/// Takes the service off the register. One that runs goes on until it is stopped.
bool deleteService(ServiceHandle service);

/// Has the service started. True means that the manager has taken this up; `queryServiceStatus` tells what came of it.
/// False also for a service that runs already.
bool startService(ServiceHandle service);

bool queryServiceStatus(ServiceHandle service, ServiceStatus& status);

/// Sends a control to the running service and gives the state after it. Does not wait for what the control leads to.
bool controlService(ServiceHandle service, std::uint32_t control, ServiceStatus& status);

void closeServiceHandle(ServiceHandle handle);

/// Body of a service, with the arguments of its start.
using ServiceMainFunction = void (*)(std::uint32_t count, char** arguments);
using ServiceControlFunction = void (*)(std::uint32_t control);

/// Makes this process the service `name`: runs `body` on a thread of its own and passes controls to the registered
/// handler, on the calling thread. Returns when the body has returned; false at once if the process was not started by
/// the manager. An exception out of the body or the handler ends the process abnormally.
bool startServiceDispatcher(const std::string& name, ServiceMainFunction body);

/// Called by the body first of all. Controls wait until the body has also reported its first state.
ServiceStatusHandle registerServiceControlHandler(const std::string& name, ServiceControlFunction handler);

bool setServiceStatus(ServiceStatusHandle handle, const ServiceStatus& status);

/// The volume that a program's absolute path begins with, which is always the beginning of the text: a drive and its
/// colon where drives have letters; elsewhere the whole path, as any directory of it may be a file system of its own.
/// What follows are its arguments. Empty for a text that does not begin with an absolute path.
std::string volumeOfPath(const std::string& commandLine);

/// What a drive is called by its letter: the first two characters if the second is a colon, otherwise empty.
/// For systems with drive letters, and for tests that play one.
inline std::string driveLetterVolume(const std::string& commandLine)
{
    return commandLine.size() >= 2 && commandLine[1] == ':' ? commandLine.substr(0, 2) : std::string();
}

constexpr std::uint32_t volumeUnknown = 0;
constexpr std::uint32_t volumeMissing = 1;
constexpr std::uint32_t volumeFixed = 3; ///< in this machine
constexpr std::uint32_t volumeRemote = 4;

std::uint32_t volumeType(const std::string& volume);

/// Writes the name of the device behind the volume, a terminated text of at most `size` bytes with its terminator. A
/// volume that stands for a directory of another one gives that directory after "\??\". False, and an empty text, if
/// there is no such name; systems without such volumes always do that.
bool queryVolumeDevice(const std::string& volume, char* buffer, std::size_t size);

} // namespace zuPlatform
