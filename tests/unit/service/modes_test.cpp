// The modes that hold the machine's one place, over a scripted mutex: what they log, print, take and give back.
#include "platform/named_mutex.h"
#include "platform/shared_memory.h"
#include "src/Modes.h"
#include "src/ServiceLoop.h"
#include "tests/support/recording_target.h"

#include <gmock/gmock.h>

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

} // namespace zuPlatform

namespace zuGevDaemon {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using WaitResult = NamedMutex::WaitResult;

constexpr const char* createCall = "create Global\\ZuGevSvc_Instance";
constexpr const char* runningWords = "An instance of this application / service is already running on this system.";

class InstanceModes : public testing::Test {
protected:
    InstanceModes()
    {
        script = &scripted;
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

    Script scripted;
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
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    RunService();
    ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    EXPECT_THAT(log.texts(), ElementsAre("Enter service"));
    EXPECT_EQ(printed(), "");
    EXPECT_THAT(scripted.calls, ElementsAre(createCall, "wait 500")) << "the end of the process lets it go";
}

} // namespace
} // namespace zuGevDaemon
