// A build without the service manager's library: every service operation fails as not supported.
#include "platform/linux/service_error.h"
#include "platform/service_manager.h"
#include "platform/service_notify.h"

#include <cerrno>

namespace zuPlatform {

namespace {

template <class T>
T unsupported(T failure)
{
    setServiceError(ENOTSUP);
    return failure;
}

} // namespace

ServiceHandle openServiceManager(std::uint32_t) { return unsupported<ServiceHandle>(0); }
ServiceHandle openService(ServiceHandle, const std::string&, std::uint32_t) { return unsupported<ServiceHandle>(0); }
ServiceHandle createService(ServiceHandle, const std::string&, const std::string&, std::uint32_t, std::uint32_t,
                            std::uint32_t, std::uint32_t, const std::string&)
{
    return unsupported<ServiceHandle>(0);
}
bool deleteService(ServiceHandle) { return unsupported(false); }
bool startService(ServiceHandle) { return unsupported(false); }
bool queryServiceStatus(ServiceHandle, ServiceStatus&) { return unsupported(false); }
bool controlService(ServiceHandle, std::uint32_t, ServiceStatus&) { return unsupported(false); }
void closeServiceHandle(ServiceHandle) {}
bool startServiceDispatcher(const std::string&, ServiceMainFunction) { return unsupported(false); }
ServiceStatusHandle registerServiceControlHandler(const std::string&, ServiceControlFunction)
{
    return unsupported<ServiceStatusHandle>(0);
}
bool setServiceStatus(ServiceStatusHandle, const ServiceStatus&) { return unsupported(false); }

bool startedByServiceManager() { return false; }
bool notifyServiceReady(const char*) { return false; }
bool notifyServiceStopping(const char*) { return false; }
bool notifyServiceStatus(const char*) { return false; }

} // namespace zuPlatform
