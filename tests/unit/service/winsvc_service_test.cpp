// The service process: dispatcher, states, controls.
#include "tests/support/line_hook.h"
#include "tests/support/recording_target.h"
#include "tests/unit/service/winsvc_fixture.h"

#include <atomic>
#include <future>
#include <thread>

#include <boost/function/function_base.hpp>

namespace zuTest {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::uint32_t> states(const FakeServiceManager& fake)
{
    std::vector<std::uint32_t> result;
    for (const auto& status : fake.reported())
        result.push_back(status.state);
    return result;
}

void nothing() {}
void failToStart() { throw std::runtime_error("no shared object"); }

/// A service whose body waits, as the daemon's loop does, until it is told to stop.
class WinSvcServiceTest : public WinSvcTest {
protected:
    void run()
    {
        service.Run(
            [this] {
                bodyThread = std::this_thread::get_id();
                stopRequest.get_future().wait();
            },
            [this] {
                stopThread = std::this_thread::get_id();
                if (++stops == 1)
                    stopRequest.set_value();
            });
    }

    LogRecorder log;
    OpenWinSvc service;
    std::promise<void> stopRequest;
    std::atomic<int> stops{0};
    std::thread::id bodyThread;
    std::thread::id stopThread;
};

TEST_F(WinSvcServiceTest, StopControlIsReportedAndTurnedIntoACall)
{
    fake.controls = [](zuPlatform::ServiceControlFunction handler) { handler(1); };
    run();
    EXPECT_THAT(states(fake), ElementsAre(4, 3, 1));
    EXPECT_EQ(stops, 1);
    EXPECT_EQ(stopThread, std::this_thread::get_id());
    EXPECT_NE(bodyThread, std::this_thread::get_id());
    EXPECT_THAT(fake.calls(),
                ElementsAre("StartServiceCtrlDispatcher(zuGevSvc)", "RegisterServiceCtrlHandler(zuGevSvc)",
                            "SetServiceStatus(0x77,4)", "SetServiceStatus(0x77,3)", "SetServiceStatus(0x77,1)"));
    EXPECT_EQ(printed(), "");
}

TEST_F(WinSvcServiceTest, ShutdownEndsItToo)
{
    fake.controls = [](zuPlatform::ServiceControlFunction handler) { handler(5); };
    run();
    EXPECT_THAT(states(fake), ElementsAre(4, 3, 1));
    EXPECT_EQ(stops, 1);
}

TEST_F(WinSvcServiceTest, OtherControlsReportRunningAndDoNothing)
{
    fake.controls = [this](zuPlatform::ServiceControlFunction handler) {
        for (const std::uint32_t control : {2u, 3u, 4u, 6u, 0u, 128u, 0xFFFFFFFFu})
            handler(control);
        EXPECT_EQ(stops, 0);
        handler(1);
    };
    run();
    EXPECT_THAT(states(fake), ElementsAre(4, 4, 4, 4, 4, 4, 4, 4, 3, 1));
}

TEST_F(WinSvcServiceTest, InterrogationWhileStoppingReportsRunning)
{
    std::promise<void> go;
    fake.controls = [&go](zuPlatform::ServiceControlFunction handler) {
        handler(1);
        handler(4);
        go.set_value();
    };
    service.Run([&go] { go.get_future().wait(); }, [] {});
    EXPECT_THAT(states(fake), ElementsAre(4, 3, 4, 1));
}

TEST_F(WinSvcServiceTest, StatusIsFilledInWhole)
{
    fake.controls = [](zuPlatform::ServiceControlFunction handler) { handler(1); };
    run();
    ASSERT_EQ(fake.reported().size(), 3u);
    for (const auto& status : fake.reported()) {
        EXPECT_EQ(status.type, 0x10u);
        EXPECT_EQ(status.controlsAccepted, 5u);
        EXPECT_EQ(status.exitCode, 0u);
        EXPECT_EQ(status.serviceExitCode, 0u);
        EXPECT_EQ(status.checkpoint, 0u);
        EXPECT_EQ(status.waitHint, 0u);
    }
}

TEST_F(WinSvcServiceTest, PendingStartAcceptsNoControls)
{
    service.SetStatus(2);
    ASSERT_EQ(fake.reported().size(), 1u);
    EXPECT_EQ(fake.reported()[0].state, 2u);
    EXPECT_EQ(fake.reported()[0].controlsAccepted, 0u);
}

TEST_F(WinSvcServiceTest, LogsTheLoopAndReportsRunningBeforeAnyWork)
{
    std::vector<std::uint32_t> statesInBody;
    std::vector<std::string> textsInBody;
    service.Run(
        [&] {
            statesInBody = states(fake);
            textsInBody = log.texts("Svc");
        },
        [] {});
    EXPECT_THAT(statesInBody, ElementsAre(4));
    EXPECT_THAT(textsInBody, ElementsAre("Service loop starting"));
    EXPECT_THAT(log.texts("Svc"), ElementsAre("Service loop starting", "Service loop terminated"));
    for (const Record& record : log.records())
        EXPECT_EQ(record.level, zuLogging::log_info);
    EXPECT_THAT(states(fake), ElementsAre(4, 1));
}

TEST_F(WinSvcServiceTest, EachStepOfTheServiceInItsOrder)
{
    std::vector<std::string> steps;
    std::size_t seen = 0;
    const auto addCalls = [&] {
        const auto calls = fake.calls();
        steps.insert(steps.end(), calls.begin() + static_cast<std::ptrdiff_t>(seen), calls.end());
        seen = calls.size();
    };
    const auto add = [&](const std::string& step) {
        addCalls();
        steps.push_back(step);
    };
    onLogLine(add);
    service.Run([&] { add("the body"); }, [] {});
    addCalls();
    EXPECT_THAT(steps, ElementsAre("StartServiceCtrlDispatcher(zuGevSvc)", "RegisterServiceCtrlHandler(zuGevSvc)",
                                   "Service loop starting", "SetServiceStatus(0x77,4)", "the body",
                                   "Service loop terminated", "SetServiceStatus(0x77,1)"));
}

TEST_F(WinSvcServiceTest, RefusedDispatcher)
{
    fake.refused = "StartServiceCtrlDispatcher";
    EXPECT_EQ(failure([&] { run(); }), "StartServiceCtrlDispatcher failed");
    EXPECT_EQ(printed(), "");
    EXPECT_TRUE(service.runCallback) << "the callbacks are stored before";
    EXPECT_TRUE(service.stopCallback);
    EXPECT_THAT(fake.reported(), IsEmpty());
    service.verbose = true;
    EXPECT_EQ(failure([&] { run(); }), "StartServiceCtrlDispatcher failed");
    EXPECT_EQ(printed(), "StartServiceCtrlDispatcher failed");
}

TEST_F(WinSvcServiceTest, VerboseDispatcher)
{
    service.verbose = true;
    service.Run([] {}, [] {});
    EXPECT_EQ(printed(), "StartServiceCtrlDispatcher succeeded");
}

TEST_F(WinSvcServiceTest, RefusedStatusThrowsItsWordsAsTheyAreSpelt)
{
    fake.refused = "SetServiceStatus";
    EXPECT_EQ(failure([&] { service.SetStatus(4); }), "SerServiceStatus failed");
    EXPECT_EQ(printed(), "");
    service.verbose = true;
    EXPECT_EQ(failure([&] { service.SetStatus(4); }), "SerServiceStatus failed");
    EXPECT_EQ(printed(), "SerServiceStatus failed\n");
}

TEST_F(WinSvcServiceTest, RefusedHandlerIsNotNoticedUntilAStateIsReported)
{
    fake.refused = "RegisterServiceCtrlHandler";
    service.runCallback = &nothing;
    service.ServiceMain(0, nullptr);
    EXPECT_THAT(fake.calls(), ElementsAre("RegisterServiceCtrlHandler(zuGevSvc)", "SetServiceStatus(0x0,4)",
                                          "SetServiceStatus(0x0,1)"));
}

TEST_F(WinSvcServiceTest, EmptyCallbacksThrow)
{
    EXPECT_THROW(service.ServiceMain(0, nullptr), boost::bad_function_call);
    EXPECT_THROW(service.ControlHandler(1), boost::bad_function_call);
    EXPECT_THAT(states(fake), ElementsAre(4, 3)) << "reported before the call";
}

TEST_F(WinSvcServiceTest, ExceptionOfTheBodyIsNotTurnedIntoAStatus)
{
    service.runCallback = &failToStart;
    EXPECT_THROW(service.ServiceMain(0, nullptr), std::runtime_error);
    EXPECT_THAT(states(fake), ElementsAre(4));
    EXPECT_THAT(log.texts("Svc"), ElementsAre("Service loop starting"));
}

TEST_F(WinSvcServiceTest, EntriesFindNoObjectOnceItHasEnded)
{
    int runs = 0;
    const auto count = [&runs] { ++runs; };
    {
        OpenWinSvc latest;
        latest.Run(count, [] {});
        EXPECT_EQ(runs, 1);
    }
    service.Run(count, [] {});
    EXPECT_EQ(runs, 1) << "the way from the dispatcher led to the latest object only";
}

} // namespace
} // namespace zuTest
