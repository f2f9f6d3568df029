// Starting: the polling, its bounds, and when it gives up.
#include "tests/unit/service/winsvc_fixture.h"

namespace zuTest {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class WinSvcStartTest : public WinSvcTest {
protected:
    WinSvcStartTest() { service.OpenManager(); }

    OpenWinSvc service;
};

TEST_F(WinSvcStartTest, ServiceThatRunsAtOnce)
{
    fake.statuses = {serviceStatus(4)};
    service.Start();
    EXPECT_THAT(fake.calls(),
                ElementsAre("OpenSCManager(0xf003f)", "OpenService(manager,zuGevSvc,0xf01ff)", "StartService(service)",
                            "QueryServiceStatus(service)", "CloseServiceHandle(service)"));
    EXPECT_THAT(FakeClock::sleeps(), IsEmpty());
    EXPECT_EQ(printed(), "");
}

TEST_F(WinSvcStartTest, WaitHintOfZeroPollsEverySecond)
{
    // Without progress a hint of 0 is exceeded after the first poll, so the checkpoint grows.
    fake.statuses = {serviceStatus(2, 0, 0), serviceStatus(2, 1, 0), serviceStatus(2, 2, 0), serviceStatus(4)};
    service.Start();
    EXPECT_THAT(FakeClock::sleeps(), ElementsAre(1000, 1000, 1000));
}

TEST_F(WinSvcStartTest, LargeWaitHintPollsEveryTenSeconds)
{
    fake.statuses = {serviceStatus(2, 0, 300000), serviceStatus(2, 0, 300000), serviceStatus(4)};
    service.Start();
    EXPECT_THAT(FakeClock::sleeps(), ElementsAre(10000, 10000));
}

TEST_F(WinSvcStartTest, PollsAtATenthOfTheHint)
{
    fake.statuses = {serviceStatus(2, 0, 9999),  serviceStatus(2, 0, 10010),  serviceStatus(2, 0, 54321),
                     serviceStatus(2, 0, 99999), serviceStatus(2, 0, 100010), serviceStatus(4)};
    service.Start();
    EXPECT_THAT(FakeClock::sleeps(), ElementsAre(1000, 1001, 5432, 9999, 10000));
}

TEST_F(WinSvcStartTest, StalledStartIsGivenUpOnceTheHintIsExceeded)
{
    fake.statuses = {serviceStatus(2, 7, 3000)};
    EXPECT_EQ(failure([&] { service.Start(); }), "Service not running");
    EXPECT_THAT(FakeClock::sleeps(), ElementsAre(1000, 1000, 1000, 1000)) << "3000 ms is not yet more than the hint";
    EXPECT_THAT(fake.openHandles(), ElementsAre("manager"));
}

TEST_F(WinSvcStartTest, TheHintCountsFromTheFirstAnswer)
{
    // An answer takes two seconds, of which the first is none of the wait.
    fake.onCall = [](const std::string& name) {
        if (name == "QueryServiceStatus")
            FakeClock::advance(2000);
    };
    fake.statuses = {serviceStatus(2, 7, 3000)};
    EXPECT_EQ(failure([&] { service.Start(); }), "Service not running");
    EXPECT_THAT(FakeClock::sleeps(), ElementsAre(1000, 1000))
        << "3000 ms after the first poll, 6000 ms after the second";
}

TEST_F(WinSvcStartTest, StalledStartWithHintZeroIsGivenUpAfterOnePoll)
{
    fake.statuses = {serviceStatus(2)};
    EXPECT_EQ(failure([&] { service.Start(); }), "Service not running");
    EXPECT_THAT(FakeClock::sleeps(), ElementsAre(1000));
}

TEST_F(WinSvcStartTest, GrowingCheckpointStartsTheWaitAnew)
{
    // Three polls of a second stay within the hint of 2500 ms only because the second saw progress.
    fake.statuses = {serviceStatus(2, 1, 2500), serviceStatus(2, 1, 2500), serviceStatus(2, 2, 2500),
                     serviceStatus(2, 2, 2500), serviceStatus(2, 2, 2500), serviceStatus(4)};
    service.Start();
    EXPECT_EQ(FakeClock::sleeps().size(), 5u);
}

TEST_F(WinSvcStartTest, CheckpointThatFallsIsNoProgress)
{
    fake.statuses = {serviceStatus(2, 5, 1500), serviceStatus(2, 4, 1500), serviceStatus(2, 5, 1500), serviceStatus(4)};
    EXPECT_EQ(failure([&] { service.Start(); }), "Service not running");
    EXPECT_THAT(FakeClock::sleeps(), ElementsAre(1000, 1000));
}

TEST_F(WinSvcStartTest, RunningIsSeenEvenWhenTheHintIsExceeded)
{
    fake.statuses = {serviceStatus(2, 0, 0), serviceStatus(4, 0, 0)};
    service.Start();
    EXPECT_THAT(FakeClock::sleeps(), ElementsAre(1000));
}

TEST_F(WinSvcStartTest, ServiceThatStopsWhileStarting)
{
    fake.statuses = {serviceStatus(2, 0, 20000), serviceStatus(1)};
    EXPECT_EQ(failure([&] { service.Start(); }), "Service not running");
    EXPECT_THAT(FakeClock::sleeps(), ElementsAre(2000));
    EXPECT_THAT(fake.openHandles(), ElementsAre("manager"));
}

TEST_F(WinSvcStartTest, RefusedOpening)
{
    fake.refused = "OpenService";
    EXPECT_EQ(failure([&] { service.Start(); }), "Unable to open service");
    EXPECT_EQ(printed(), "");
    service.verbose = true;
    EXPECT_EQ(failure([&] { service.Start(); }), "Unable to open service");
    EXPECT_EQ(printed(), "Unable to open service\n");
}

TEST_F(WinSvcStartTest, RefusedStartLeavesTheHandleOpen)
{
    fake.refused = "StartService";
    EXPECT_EQ(failure([&] { service.Start(); }), "Unable to start service");
    EXPECT_THAT(fake.openHandles(), ElementsAre("manager", "service"));
    EXPECT_EQ(printed(), "");
    service.verbose = true;
    EXPECT_EQ(failure([&] { service.Start(); }), "Unable to start service");
    EXPECT_EQ(printed(), "Unable to start service\n");
}

TEST_F(WinSvcStartTest, RefusedFirstQueryLeavesTheHandleOpen)
{
    fake.statuses = {std::nullopt};
    EXPECT_EQ(failure([&] { service.Start(); }), "Unable to inquire service ");
    EXPECT_THAT(fake.openHandles(), ElementsAre("manager", "service"));
    EXPECT_EQ(printed(), "");
    service.verbose = true;
    EXPECT_EQ(failure([&] { service.Start(); }), "Unable to inquire service ");
    EXPECT_EQ(printed(), "Service start pending.\nUnable to inquire service status\n");
}

TEST_F(WinSvcStartTest, RefusedLaterQueryEndsWithTheLastState)
{
    fake.statuses = {serviceStatus(2, 0, 60000), std::nullopt, serviceStatus(4)};
    EXPECT_EQ(failure([&] { service.Start(); }), "Service not running");
    EXPECT_THAT(FakeClock::sleeps(), ElementsAre(6000));
    EXPECT_THAT(fake.openHandles(), ElementsAre("manager"));
}

TEST_F(WinSvcStartTest, VerboseLines)
{
    service.verbose = true;
    fake.statuses = {serviceStatus(4)};
    service.Start();
    EXPECT_EQ(printed(), "Service start pending.\nStartService SUCCESS.\n");
}

TEST_F(WinSvcStartTest, VerboseFailureSaysNoMoreThanThatItStarted)
{
    service.verbose = true;
    fake.statuses = {serviceStatus(1)};
    EXPECT_EQ(failure([&] { service.Start(); }), "Service not running");
    EXPECT_EQ(printed(), "Service start pending.\n");
}

} // namespace
} // namespace zuTest
