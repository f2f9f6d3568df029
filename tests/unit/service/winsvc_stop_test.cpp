// Stopping: the waits, the deadline of ten seconds, and the handles that stay open.
#include "tests/unit/service/winsvc_fixture.h"

#include <numeric>

namespace zuTest {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class WinSvcStopTest : public WinSvcTest {
protected:
    WinSvcStopTest() { service.OpenManager(); }

    OpenWinSvc service;
};

TEST_F(WinSvcStopTest, StoppedServiceNeedsNoControl)
{
    fake.statuses = {serviceStatus(1)};
    service.Stop();
    EXPECT_THAT(fake.calls(), ElementsAre("OpenSCManager(0xf003f)", "OpenService(manager,zuGevSvc,0x2c)",
                                          "QueryServiceStatus(service)"));
    EXPECT_THAT(fake.openHandles(), ElementsAre("manager", "service")) << "the handle stays open here";
    EXPECT_THAT(FakeClock::sleeps(), IsEmpty());
}

TEST_F(WinSvcStopTest, RunningServiceIsToldToStopAndWaitedFor)
{
    fake.statuses = {serviceStatus(4, 0, 999), serviceStatus(3, 1, 300), serviceStatus(3, 1, 200), serviceStatus(1)};
    fake.statusAfterControl = serviceStatus(3, 0, 100);
    service.Stop();
    EXPECT_THAT(fake.calls(), ElementsAre("OpenSCManager(0xf003f)", "OpenService(manager,zuGevSvc,0x2c)",
                                          "QueryServiceStatus(service)", "ControlService(service,1)",
                                          "QueryServiceStatus(service)", "QueryServiceStatus(service)",
                                          "QueryServiceStatus(service)", "CloseServiceHandle(service)"));
    EXPECT_THAT(FakeClock::sleeps(), ElementsAre(100, 300, 200)) << "the first wait is the control's answer";
    EXPECT_THAT(fake.openHandles(), ElementsAre("manager"));
    EXPECT_EQ(printed(), "");
}

TEST_F(WinSvcStopTest, ServiceStoppedByTheTimeTheControlReturns)
{
    fake.statuses = {serviceStatus(4)};
    fake.statusAfterControl = serviceStatus(1);
    service.Stop();
    EXPECT_THAT(FakeClock::sleeps(), IsEmpty());
    EXPECT_THAT(fake.openHandles(), ElementsAre("manager"));
}

TEST_F(WinSvcStopTest, StartingServiceIsToldToStop)
{
    fake.statuses = {serviceStatus(2, 0, 5000), serviceStatus(1)};
    fake.statusAfterControl = serviceStatus(3, 0, 50);
    service.Stop();
    EXPECT_THAT(fake.calls(), Contains("ControlService(service,1)"));
    EXPECT_THAT(FakeClock::sleeps(), ElementsAre(50));
}

TEST_F(WinSvcStopTest, StoppingServiceIsWaitedForWithoutAControl)
{
    fake.statuses = {serviceStatus(3, 0, 2000), serviceStatus(3, 0, 50), serviceStatus(1)};
    service.Stop();
    EXPECT_THAT(FakeClock::sleeps(), ElementsAre(2000, 50)) << "the hint without bounds";
    EXPECT_THAT(fake.calls(), Not(Contains(HasSubstr("ControlService"))));
    EXPECT_THAT(fake.openHandles(), ElementsAre("manager", "service"));
}

TEST_F(WinSvcStopTest, TheDeadlineCountsFromBeforeTheFirstQuery)
{
    fake.onCall = [](const std::string& name) {
        if (name == "QueryServiceStatus")
            FakeClock::advance(4600);
    };
    fake.statuses = {serviceStatus(3, 0, 1000)};
    EXPECT_EQ(failure([&] { service.Stop(); }), "Timeout");
    EXPECT_THAT(FakeClock::sleeps(), ElementsAre(1000)) << "two answers and a second are 10200 ms";
}

TEST_F(WinSvcStopTest, StoppingServiceRunsIntoTheDeadline)
{
    fake.statuses = {serviceStatus(3, 0, 2500)};
    EXPECT_EQ(failure([&] { service.Stop(); }), "Timeout");
    EXPECT_THAT(FakeClock::sleeps(), ElementsAre(2500, 2500, 2500, 2500, 2500)) << "10000 ms is not yet more";
    EXPECT_THAT(fake.calls(), Not(Contains(HasSubstr("ControlService"))));
    EXPECT_THAT(fake.openHandles(), ElementsAre("manager", "service"));
    EXPECT_EQ(printed(), "");
}

TEST_F(WinSvcStopTest, StoppedAfterTheDeadlineIsStillStopped)
{
    fake.statuses = {serviceStatus(3, 0, 30000), serviceStatus(1)};
    service.Stop();
    EXPECT_THAT(FakeClock::sleeps(), ElementsAre(30000));
    EXPECT_THAT(fake.openHandles(), ElementsAre("manager", "service"));
}

TEST_F(WinSvcStopTest, ServiceThatRunsAgainIsToldToStop)
{
    fake.statuses = {serviceStatus(3, 0, 10), serviceStatus(4, 0, 10), serviceStatus(1)};
    fake.statusAfterControl = serviceStatus(3, 0, 20);
    service.Stop();
    EXPECT_THAT(FakeClock::sleeps(), ElementsAre(10, 20));
    EXPECT_THAT(fake.calls(), Contains("ControlService(service,1)"));
}

TEST_F(WinSvcStopTest, OneDeadlineCountsFromTheBeginning)
{
    fake.statuses = {serviceStatus(3, 0, 6000), serviceStatus(4), serviceStatus(3, 0, 3000), serviceStatus(3, 0, 3000)};
    fake.statusAfterControl = serviceStatus(3, 0, 3000);
    EXPECT_EQ(failure([&] { service.Stop(); }), "Timeout");
    EXPECT_THAT(FakeClock::sleeps(), ElementsAre(6000, 3000, 3000));
    EXPECT_THAT(fake.openHandles(), ElementsAre("manager", "service"));
}

TEST_F(WinSvcStopTest, DeadlineIsNotReachedAtTenSecondsSharp)
{
    fake.statuses = {serviceStatus(4), serviceStatus(3, 0, 1), serviceStatus(3, 0, 1)};
    fake.statusAfterControl = serviceStatus(3, 0, 10000);
    EXPECT_EQ(failure([&] { service.Stop(); }), "Timeout");
    EXPECT_THAT(FakeClock::sleeps(), ElementsAre(10000, 1));
    EXPECT_THAT(fake.openHandles(), ElementsAre("manager", "service"));
}

TEST_F(WinSvcStopTest, TimeoutIsPrintedWhenVerbose)
{
    service.verbose = true;
    fake.statuses = {serviceStatus(3, 0, 20000)};
    EXPECT_EQ(failure([&] { service.Stop(); }), "Timeout");
    EXPECT_EQ(printed(), "Timeout\n");
    EXPECT_THAT(fake.openHandles(), ElementsAre("manager", "service"));
}

TEST_F(WinSvcStopTest, TimeoutAfterTheControlIsPrintedWhenVerbose)
{
    service.verbose = true;
    fake.statuses = {serviceStatus(4), serviceStatus(3, 0, 20000)};
    fake.statusAfterControl = serviceStatus(3, 0, 20000);
    EXPECT_EQ(failure([&] { service.Stop(); }), "Timeout");
    EXPECT_THAT(fake.calls(), Contains("ControlService(service,1)"));
    EXPECT_EQ(printed(), "Timeout\n");
    EXPECT_THAT(fake.openHandles(), ElementsAre("manager", "service"));
}

TEST_F(WinSvcStopTest, RefusedOpening)
{
    fake.refused = "OpenService";
    EXPECT_EQ(failure([&] { service.Stop(); }), "Unable to open service");
    EXPECT_EQ(printed(), "");
    service.verbose = true;
    EXPECT_EQ(failure([&] { service.Stop(); }), "Unable to open service");
    EXPECT_EQ(printed(), "Unable to open service\n");
}

TEST_F(WinSvcStopTest, RefusedFirstQuery)
{
    fake.statuses = {std::nullopt};
    EXPECT_EQ(failure([&] { service.Stop(); }), "Unable to query service ");
    EXPECT_EQ(printed(), "");
    service.verbose = true;
    EXPECT_EQ(failure([&] { service.Stop(); }), "Unable to query service ");
    EXPECT_EQ(printed(), "Unable to query service status\n");
    EXPECT_THAT(fake.openHandles(), ElementsAre("manager", "service", "service")) << "one of each call";
}

TEST_F(WinSvcStopTest, RefusedQueryWhileStopping)
{
    service.verbose = true;
    fake.statuses = {serviceStatus(3), std::nullopt};
    EXPECT_EQ(failure([&] { service.Stop(); }), "Unable to query service ");
    EXPECT_EQ(printed(), "Unable to query service status\n");
    EXPECT_THAT(FakeClock::sleeps(), ElementsAre(0));
    EXPECT_THAT(fake.openHandles(), ElementsAre("manager", "service"));
}

TEST_F(WinSvcStopTest, RefusedControl)
{
    fake.statuses = {serviceStatus(4)};
    fake.refused = "ControlService";
    EXPECT_EQ(failure([&] { service.Stop(); }), "ControlService(SERVICE_CONTROL_STOP) failed");
    EXPECT_EQ(printed(), "");
    service.verbose = true;
    EXPECT_EQ(failure([&] { service.Stop(); }), "ControlService(SERVICE_CONTROL_STOP) failed");
    EXPECT_EQ(printed(), "ControlService(SERVICE_CONTROL_STOP) failed\n");
    EXPECT_THAT(fake.openHandles(), ElementsAre("manager", "service", "service")) << "one of each call";
}

TEST_F(WinSvcStopTest, RefusedQueryAfterTheControl)
{
    fake.statuses = {serviceStatus(4), std::nullopt};
    fake.statusAfterControl = serviceStatus(3, 0, 40);
    service.verbose = true;
    EXPECT_EQ(failure([&] { service.Stop(); }), "QueryServiceStatusEx failed");
    EXPECT_EQ(printed(), "QueryServiceStatusEx failed\n");
    EXPECT_THAT(FakeClock::sleeps(), ElementsAre(40));
    EXPECT_THAT(fake.openHandles(), ElementsAre("manager", "service"));
}

} // namespace
} // namespace zuTest
