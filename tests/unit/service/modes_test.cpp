// The modes over a scripted service manager and a scripted mutex: what they log, print, take and give back.
#include "platform/console_keys.h"
#include "platform/named_mutex.h"
#include "platform/shared_memory.h"
#include "src/Modes.h"
#include "src/ServiceLoop.h"
#include "tests/support/fake_service_manager.h"
#include "tests/support/recording_target.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

namespace {

using zuPlatform::NamedMutex;

/// The script of the next mutex, and what was done to it.
struct Script {
    int error = 0; ///< of its making; 0 makes one
    NamedMutex::WaitResult result = NamedMutex::WaitResult::signalled;
    std::vector<std::string> calls;
};
Script* script = nullptr;

std::size_t consolesOpened = 0;

} // namespace

// In the place of the platform's.
namespace zuPlatform {

struct NamedMutex::State {};

NamedMutex::NamedMutex(std::unique_ptr<State> state) : state_(std::move(state)) {}
NamedMutex::~NamedMutex() { script->calls.push_back("close"); }

std::unique_ptr<NamedMutex> NamedMutex::create(const std::string& name, int& error)
{
    script->calls.push_back("create " + name);
    error = script->error;
    return error != 0 ? nullptr : std::unique_ptr<NamedMutex>(new NamedMutex(std::make_unique<State>()));
}

NamedMutex::WaitResult NamedMutex::wait(std::uint32_t timeoutMs)
{
    script->calls.push_back("wait " + std::to_string(timeoutMs));
    return script->result;
}

void NamedMutex::release() { script->calls.push_back("release"); }

struct ConsoleKeys::State {};
ConsoleKeys::ConsoleKeys() { ++consolesOpened; }
ConsoleKeys::~ConsoleKeys() = default;
bool ConsoleKeys::available() { return false; }
int ConsoleKeys::read() { return -1; }
bool isTerminal(int) { return false; }

} // namespace zuPlatform

namespace zuGevDaemon {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using WaitResult = NamedMutex::WaitResult;

constexpr const char* createCall = "create Global\\ZuGevSvc_Instance";
constexpr const char* runningWords = "An instance of this application / service is already running on this system.";

class InstanceModes : public testing::Test {
protected:
    InstanceModes()
    {
        script = &scripted;
        consolesOpened = 0;
        TerminateFlag.store(0);
        ::unsetenv("NOTIFY_SOCKET");
        const std::string prefix = "zu-modes-" + std::to_string(::getpid()) + "-";
        zuPlatform::setObjectNamePrefixForTesting(prefix);
        object_ = "/" + prefix + "Global.zuGevSvc";
        previous_ = std::cout.rdbuf(printed_.rdbuf());
    }
    ~InstanceModes() override
    {
        CloseInstanceMutex();
        std::cout.rdbuf(previous_);
        zuPlatform::setObjectNamePrefixForTesting("");
        ::shm_unlink(object_.c_str());
        TerminateFlag.store(0);
        script = nullptr;
    }

    std::string printed() const { return printed_.str(); }

    /// What has been printed since the last call, behind the banner that it must begin with.
    std::string printedBehindBanner()
    {
        std::ostringstream banner;
        PrintBanner(banner);
        const std::string text = printed_.str();
        printed_.str("");
        EXPECT_THAT(text, StartsWith(banner.str()));
        return text.substr(std::min(text.size(), banner.str().size()));
    }

    Script scripted;
    zuTest::FakeServiceManager manager;
    zuTest::LogRecorder log;

private:
    std::ostringstream printed_;
    std::streambuf* previous_;
    std::string object_;
};

TEST_F(InstanceModes, OnlyAMutexThatWasLetGoIsTaken)
{
    EXPECT_TRUE(AcquireInstanceMutex());
    EXPECT_THAT(scripted.calls, ElementsAre(createCall, "wait 500"));
    CloseInstanceMutex();
    for (const WaitResult result : {WaitResult::abandoned, WaitResult::timeout, WaitResult::failed}) {
        scripted = {0, result, {}};
        EXPECT_FALSE(AcquireInstanceMutex());
        EXPECT_THAT(scripted.calls, ElementsAre(createCall, "wait 500")) << "the handle stays open";
        CloseInstanceMutex();
        EXPECT_EQ(scripted.calls.back(), "close");
    }
    EXPECT_EQ(printed(), "");
}

TEST_F(InstanceModes, MutexThatCannotBeMadeIsPrintedAsAServiceThatCannotBeOpened)
{
    scripted.error = 13;
    EXPECT_FALSE(AcquireInstanceMutex());
    EXPECT_EQ(printed(), "OpenService failed (13)\n");
    EXPECT_THAT(scripted.calls, ElementsAre(createCall));
    CloseInstanceMutex();
}

TEST_F(InstanceModes, ApplicationSaysSoAndHoldsTheMutexThroughItsLoop)
{
    RequestTermination();
    RunExecute();
    ASSERT_FALSE(log.records().empty());
    const zuTest::Record first = log.records().front();
    EXPECT_EQ(first.text, "Running as GevSvc as Application");
    EXPECT_EQ(first.level, zuLogging::log_info);
    EXPECT_EQ(first.logger, "main");
    EXPECT_TRUE(log.contains("Starting service loop"));
    EXPECT_THAT(scripted.calls, ElementsAre(createCall, "wait 500", "release", "close"));
    EXPECT_THAT(printed(), HasSubstr("BuildDate"));
    EXPECT_THAT(printed(), Not(HasSubstr(runningWords)));
    EXPECT_EQ(consolesOpened, 1u);
}

TEST_F(InstanceModes, SecondApplicationSaysThatThereIsOne)
{
    scripted.result = WaitResult::timeout;
    RunExecute();
    EXPECT_THAT(printed(), testing::EndsWith("\n\n\n" + std::string(runningWords) + "\n\n"));
    EXPECT_THAT(log.texts(), IsEmpty());
    EXPECT_THAT(scripted.calls, ElementsAre(createCall, "wait 500", "close"));
}

TEST_F(InstanceModes, SecondServiceWarnsInTheLogOnly)
{
    scripted.result = WaitResult::timeout;
    RunService();
    const auto records = log.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].text, "Enter service");
    EXPECT_EQ(records[0].level, zuLogging::log_info);
    EXPECT_EQ(records[0].logger, "main");
    EXPECT_EQ(records[1].text, runningWords);
    EXPECT_EQ(records[1].level, zuLogging::log_warn);
    EXPECT_EQ(records[1].logger, "main");
    EXPECT_EQ(printed(), "");
    EXPECT_THAT(scripted.calls, ElementsAre(createCall, "wait 500", "close"));
}

TEST_F(InstanceModes, ServiceThatNoManagerStartedEndsWithoutAWord)
{
    manager.refused = "StartServiceCtrlDispatcher";
    RunService();
    EXPECT_THAT(log.texts(), ElementsAre("Enter service"));
    EXPECT_EQ(printed(), "");
    EXPECT_THAT(scripted.calls, ElementsAre(createCall, "wait 500")) << "the end of the process lets it go";
}

TEST_F(InstanceModes, ServiceWithoutAManagerEndsWithoutAWord)
{
    manager.refused = "OpenSCManager";
    RunService();
    EXPECT_THAT(manager.calls(), ElementsAre("OpenSCManager(0xf003f)"));
    EXPECT_THAT(log.texts(), ElementsAre("Enter service"));
    EXPECT_EQ(printed(), "");
}

TEST_F(InstanceModes, ServiceRunsTheLoopWithoutKeysUntilItIsStopped)
{
    manager.controls = [](zuPlatform::ServiceControlFunction handler) { handler(zuPlatform::serviceControlStop); };
    RunService();
    EXPECT_THAT(manager.calls(),
                ElementsAre("OpenSCManager(0xf003f)", "StartServiceCtrlDispatcher(zuGevSvc)",
                            "RegisterServiceCtrlHandler(zuGevSvc)", "SetServiceStatus(0x77,4)",
                            "SetServiceStatus(0x77,3)", "SetServiceStatus(0x77,1)", "CloseServiceHandle(manager)"));
    EXPECT_EQ(log.texts("main"), std::vector<std::string>{"Enter service"});
    EXPECT_THAT(log.texts("Svc"), ElementsAre("Service loop starting", "Starting service loop",
                                              "Service loop terminating, shutdown Mgr", "Service loop terminated"));
    EXPECT_EQ(consolesOpened, 0u);
    EXPECT_EQ(TerminateFlag.load(), 1u);
    EXPECT_EQ(printed(), "");
    EXPECT_THAT(scripted.calls, ElementsAre(createCall, "wait 500", "release", "close"));
}

TEST_F(InstanceModes, InstallRegistersThePathWithItsOption)
{
    RunInstall("C:\\a b\\zuGevSvc.exe");
    EXPECT_EQ(printedBehindBanner(), "Install Service successful\n");
    EXPECT_THAT(manager.calls(), testing::Contains("CreateService(manager,zuGevSvc,ORTOLAN GigE Vision Service,"
                                                   "0xf01ff,0x10,2,1,[C:\\a b\\zuGevSvc.exe -s ])"));
    EXPECT_THAT(manager.openHandles(), IsEmpty());
    manager.refused = "CreateService";
    RunInstall("C:\\zuGevSvc.exe");
    EXPECT_EQ(printedBehindBanner(), "Install Service failed\n");
    manager.refused = "OpenSCManager";
    RunInstall("C:\\zuGevSvc.exe");
    EXPECT_EQ(printedBehindBanner(), "Install Service failed\n");
    RunInstall("");
    EXPECT_EQ(printedBehindBanner(), "Install Service failed\n");
    manager.refused = "";
    manager.onCall = [](const std::string&) { throw 5; };
    RunInstall("C:\\zuGevSvc.exe");
    EXPECT_EQ(printedBehindBanner(), "Install Service failed\n") << "whatever it is that was thrown";
    EXPECT_THAT(scripted.calls, IsEmpty());
}

/// Runs a mode that succeeds, and then one in which `call` is refused.
struct ControlMode {
    void (*run)();
    const char* call;
    const char* success;
    const char* failure;
};

TEST_F(InstanceModes, DeleteStartAndStopSayHowItWent)
{
    const ControlMode modes[] = {
        {&RunDelete, "DeleteService", "Delete Service successful\n", "Delete Service failed\n"},
        {&RunStart, "StartService", "Start Service successful\n", "Start Service failed\n"},
        {&RunStop, "ControlService", "Stop Service successful\n", "Stop Service failed\n"},
    };
    manager.statuses = {zuTest::serviceStatus(zuPlatform::serviceRunning)};
    manager.statusAfterControl = zuTest::serviceStatus(zuPlatform::serviceStopped);
    for (const ControlMode& mode : modes) {
        manager.refused = "";
        mode.run();
        EXPECT_EQ(printedBehindBanner(), mode.success);
        EXPECT_THAT(manager.openHandles(), Not(testing::Contains("manager")));
        EXPECT_THAT(manager.calls(), testing::Contains(StartsWith(mode.call)));
        manager.refused = mode.call;
        mode.run();
        EXPECT_EQ(printedBehindBanner(), mode.failure);
        manager.refused = "OpenSCManager";
        mode.run();
        EXPECT_EQ(printedBehindBanner(), mode.failure);
    }
    EXPECT_THAT(scripted.calls, IsEmpty()) << "none of them takes the machine's one place";
    EXPECT_THAT(log.texts(), IsEmpty());
}

} // namespace
} // namespace zuGevDaemon
