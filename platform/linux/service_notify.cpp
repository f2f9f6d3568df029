// Tells systemd of the service's state over the socket that it named in the environment.
#include "platform/service_notify.h"

#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace zuPlatform {

namespace {

bool notify(const std::string& change, const char* status)
{
    return startedByServiceManager() && ::sd_notify(0, (change + "STATUS=" + status).c_str()) > 0;
}

} // namespace

bool startedByServiceManager()
{
    const char* const socket = std::getenv("NOTIFY_SOCKET");
    if (!socket || !*socket)
        return false;
    // Children inherit both; only the process that was started finds its own id. Older managers don't tell it.
    const char* const started = std::getenv("SYSTEMD_EXEC_PID");
    return !started || std::to_string(::getpid()) == started;
}

bool notifyServiceReady(const char* status) { return notify("READY=1\n", status); }
bool notifyServiceStopping(const char* status) { return notify("STOPPING=1\n", status); }

bool notifyServiceStatus(const char* status) { return notify("", status); }

} // namespace zuPlatform
