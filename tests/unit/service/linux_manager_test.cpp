// The operations as they fail without a manager to talk to, and in a build that has none.
#include "platform/service_manager.h"
#include "platform/service_notify.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>

namespace zuPlatform {
namespace {

/// Nothing listens at the system bus for this process.
struct NoBus {
    NoBus()
    {
        ::unsetenv("NOTIFY_SOCKET");
        ::unsetenv("SYSTEMD_EXEC_PID");
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    }
    ~NoBus() { ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS"); }
};

TEST(NoServiceManager, OpeningFailsAndSaysWhy)
{
    const NoBus noBus;
    EXPECT_EQ(openServiceManager(0xF003F), 0u);
#ifdef ZU_NO_SERVICE_CONTROL
    EXPECT_EQ(serviceError(), static_cast<std::uint32_t>(ENOTSUP));
#else
    EXPECT_EQ(serviceError(), static_cast<std::uint32_t>(ENOENT));
#endif
}

TEST(NoServiceManager, NothingSucceedsOnAHandleThatIsNotOpen)
{
    const NoBus noBus;
    ServiceStatus status;
    for (const ServiceHandle handle : {ServiceHandle{0}, ServiceHandle{12345}}) {
        EXPECT_EQ(openService(handle, "zuGevSvc", 0xF01FF), 0u);
        EXPECT_EQ(createService(handle, "zuGevSvc", "name", 0xF01FF, 0x10, 2, 1, "/usr/bin/true -s "), 0u);
        EXPECT_FALSE(deleteService(handle));
        EXPECT_FALSE(startService(handle));
        EXPECT_FALSE(queryServiceStatus(handle, status));
        EXPECT_FALSE(controlService(handle, serviceControlStop, status));
        EXPECT_NE(serviceError(), 0u);
        closeServiceHandle(handle);
    }
}

#ifndef ZU_NO_SERVICE_CONTROL
TEST(NoServiceManager, ServiceProcessOpensItWithoutTheBusAndFailsWhenItAsks)
{
    const NoBus noBus;
    ::setenv("NOTIFY_SOCKET", "/nonexistent/notify", 1);
    const ServiceHandle manager = openServiceManager(0xF003F);
    EXPECT_NE(manager, 0u);
    EXPECT_EQ(openService(manager, "zuGevSvc", 0x2C), 0u);
    EXPECT_EQ(serviceError(), static_cast<std::uint32_t>(ENOENT));
    ServiceStatus status;
    EXPECT_FALSE(queryServiceStatus(manager, status)) << "the manager is no service";
    closeServiceHandle(manager);
    EXPECT_EQ(openService(manager, "zuGevSvc", 0x2C), 0u) << "closed";
    ::unsetenv("NOTIFY_SOCKET");
}
#else
TEST(NoServiceManager, EveryOperationSaysNotSupported)
{
    const auto unsupported = static_cast<std::uint32_t>(ENOTSUP);
    EXPECT_FALSE(startServiceDispatcher("zuGevSvc", [](std::uint32_t, char**) { ADD_FAILURE() << "the body ran"; }));
    EXPECT_EQ(serviceError(), unsupported);
    EXPECT_EQ(registerServiceControlHandler("zuGevSvc", [](std::uint32_t) {}), 0u);
    ServiceStatus status;
    EXPECT_FALSE(setServiceStatus(1, status));
    EXPECT_FALSE(startedByServiceManager());
    EXPECT_FALSE(notifyServiceReady("Running"));
    EXPECT_FALSE(notifyServiceStopping("Stopping"));
    EXPECT_FALSE(notifyServiceStatus("Stopping"));
}
#endif

} // namespace
} // namespace zuPlatform
