// Tells systemd of the service's state over the socket that it named in the environment.
#include "platform/service_notify.h"

#include <systemd/sd-daemon.h>

#include <cstdlib>
#include <string>

namespace zuPlatform {

namespace {

bool notify(const std::string& change, const char* status)
{
    return ::sd_notify(0, (change + "\nSTATUS=" + status).c_str()) > 0;
}

} // namespace

bool startedByServiceManager()
{
    const char* const socket = std::getenv("NOTIFY_SOCKET");
    return socket && *socket;
}

bool notifyServiceReady(const char* status) { return notify("READY=1", status); }
bool notifyServiceStopping(const char* status) { return notify("STOPPING=1", status); }

} // namespace zuPlatform
