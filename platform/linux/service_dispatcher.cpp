// Being a service under systemd: SIGTERM is the stop control, SIGHUP a reload. The dispatcher runs on its caller's
// thread, the body on one of its own; the signal handlers run on any and do no more than wake the dispatcher.
#include "platform/linux/service_error.h"
#include "platform/service_manager.h"
#include "platform/service_notify.h"
#include "platform/thread.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <thread>

namespace zuPlatform {

namespace {

constexpr ServiceStatusHandle ownStatusHandle = 1;

std::atomic<bool> stopRequested{false};
std::atomic<bool> reloadRequested{false};
std::atomic<int> wakeDescriptor{-1}; // made once and never closed: a late signal may still write to it
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

void wake()
{
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(wakeDescriptor.load(), &one, sizeof one);
}

void onSignal(int number)
{
    const int error = errno;
    (number == SIGTERM ? stopRequested : reloadRequested).store(true);
    wake();
    errno = error;
}

bool catchSignal(int number)
{
    struct sigaction action {};
    action.sa_handler = onSignal;
    action.sa_flags = SA_RESTART;
    ::sigemptyset(&action.sa_mask);
    return ::sigaction(number, &action, nullptr) == 0;
}

/// A leaf lock: nothing is called under it.
std::mutex mutex;
std::string dispatchedName;               // empty while there is no dispatcher
ServiceControlFunction handler = nullptr; // guarded by `mutex`, like the two beside it
bool reported = false;

/// The handler to which controls may go, or null as long as the body has not come so far.
ServiceControlFunction readyHandler()
{
    const std::lock_guard<std::mutex> lock(mutex);
    return reported ? handler : nullptr;
}

// An exception out of these ends the process.
void deliver(ServiceControlFunction function, std::uint32_t control) noexcept { function(control); }

void deliverControls()
{
    const ServiceControlFunction function = readyHandler();
    if (!function)
        return;
    if (reloadRequested.exchange(false))
        deliver(function, serviceControlReload);
    if (stopRequested.exchange(false))
        deliver(function, serviceControlStop);
}

} // namespace

bool startServiceDispatcher(const std::string& name, ServiceMainFunction body)
{
    if (!startedByServiceManager()) {
        setServiceError(ENOTCONN);
        return false;
    }
    if (wakeDescriptor.load() < 0)
        wakeDescriptor.store(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (wakeDescriptor.load() < 0 || !dispatchedName.empty() || name.empty()) {
            setServiceError(EBUSY);
            return false;
        }
        dispatchedName = name;
        handler = nullptr;
        reported = false;
    }
    catchSignal(SIGTERM);
    catchSignal(SIGHUP);

    std::atomic<bool> ended{false};
    std::thread thread([body, &ended, text = name]() mutable {
        nameCurrentThread("zu-service");
        char* arguments[] = {text.data(), nullptr};
        body(1, arguments);
        ended.store(true);
        wake();
    });
    while (!ended.load()) {
        pollfd descriptor{wakeDescriptor.load(), POLLIN, 0};
        ::poll(&descriptor, 1, -1);
        std::uint64_t count = 0;
        [[maybe_unused]] const ssize_t got = ::read(descriptor.fd, &count, sizeof count);
        deliverControls();
    }
    thread.join();

    const std::lock_guard<std::mutex> lock(mutex);
    dispatchedName.clear();
    handler = nullptr;
    return true;
}

ServiceStatusHandle registerServiceControlHandler(const std::string& name, ServiceControlFunction function)
{
    const std::lock_guard<std::mutex> lock(mutex);
    if (name != dispatchedName || name.empty() || !function) {
        setServiceError(EINVAL);
        return 0;
    }
    handler = function;
    return ownStatusHandle;
}

bool setServiceStatus(ServiceStatusHandle handle, const ServiceStatus& status)
{
    if (handle != ownStatusHandle) {
        setServiceError(EBADF);
        return false;
    }
    bool told = true;
    switch (status.state) {
    case serviceRunning:
        told = notifyServiceReady("Running");
        break;
    case serviceStopPending:
        told = notifyServiceStopping("Stopping");
        break;
    case serviceStopped:
        told = notifyServiceStopping("Stopped");
        break;
    default: // starting: that is what the manager takes it for until it is told otherwise
        break;
    }
    if (!told) {
        setServiceError(ENOTCONN);
        return false;
    }
    {
        const std::lock_guard<std::mutex> lock(mutex);
        reported = true;
    }
    wake();
    return true;
}

} // namespace zuPlatform
