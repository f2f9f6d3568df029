// The service loop in this process, pass by pass, with keys from a script.
#include "src/ServiceLoop.h"

#include "GevTLBase/IPCPipe/IPCException.h"
#include "GevTLBase/IPCPipe/MgrFactory.h"
#include "nameless_instance.h"
#include "platform/console_keys.h"
#include "platform/shared_memory.h"
#include "src/InstanceBook.h"
#include "tests/support/log_lines.h"
#include "tests/unit/IPCPipe/pipe_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <future>
#include <iostream>
#include <mutex>
#include <sstream>
#include <vector>

using namespace zuTest;
using namespace zuGevDaemon;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

/// What stands in the place of the console.
struct Console {
    std::mutex mutex;
    std::deque<char> keys;
    std::vector<Clock::time_point> looks; ///< when the loop asked for a key
    std::size_t opened = 0;
    std::size_t reads = 0;

    static Console& instance()
    {
        static Console console;
        return console;
    }
    void type(const std::string& text)
    {
        const std::lock_guard lock(mutex);
        keys.assign(text.begin(), text.end());
        looks.clear();
        opened = reads = 0;
    }
    std::size_t count()
    {
        const std::lock_guard lock(mutex);
        return looks.size();
    }
};

/// What is written to std::cout meanwhile.
class Printed {
public:
    Printed() : previous_(std::cout.rdbuf(text_.rdbuf())) {}
    ~Printed() { std::cout.rdbuf(previous_); }
    std::string text() const { return text_.str(); }

private:
    std::ostringstream text_;
    std::streambuf* previous_;
};

constexpr const char* report = ".... Status:\nInstances: 0\n\n";

struct ServiceLoopTest : testing::Test {
    ServiceLoopTest()
    {
        TerminateFlag = 0;
        console.type("");
    }
    ~ServiceLoopTest() override { TerminateFlag = 0; }

    /// What a console daemon prints on these keys, of which one ends it.
    std::string printed(const std::string& keys)
    {
        TerminateFlag = 0;
        console.type(keys);
        const Printed out;
        ServiceLoop(false);
        EXPECT_TRUE(console.keys.empty()) << keys;
        EXPECT_EQ(TerminateFlag, 1u) << "which stays set";
        return out.text();
    }

    OwnNames names;
    LogRecorder log;
    Console& console = Console::instance();
};

} // namespace

namespace zuPlatform {

struct ConsoleKeys::State {};
ConsoleKeys::ConsoleKeys()
{
    const std::lock_guard lock(Console::instance().mutex);
    ++Console::instance().opened;
}
ConsoleKeys::~ConsoleKeys() = default;
bool ConsoleKeys::available()
{
    Console& console = Console::instance();
    const std::lock_guard lock(console.mutex);
    console.looks.push_back(Clock::now());
    return !console.keys.empty();
}
int ConsoleKeys::read()
{
    Console& console = Console::instance();
    const std::lock_guard lock(console.mutex);
    ++console.reads;
    if (console.keys.empty())
        return -1;
    const int key = static_cast<unsigned char>(console.keys.front());
    console.keys.pop_front();
    return key;
}
bool isTerminal(int) { return false; }

} // namespace zuPlatform

TEST_F(ServiceLoopTest, BothCasesOfAKeyWorkAlike)
{
    EXPECT_EQ(printed("Sx"), report);
    EXPECT_EQ(printed("sX"), report);
}

TEST_F(ServiceLoopTest, OtherKeysAreIgnored)
{
    EXPECT_EQ(printed("q\x1bx"), "");
    EXPECT_EQ(console.reads, 3u) << "one key a pass";
    EXPECT_EQ(console.looks.size(), 3u);
}

TEST_F(ServiceLoopTest, TellsOfItsStartAndItsEnd)
{
    printed("x");
    expectLines(log, "Starting service loop", zuLogging::log_info, "Svc");
    expectLines(log, "Service loop terminating, shutdown Mgr", zuLogging::log_info, "Svc");
    EXPECT_EQ(log.texts("Svc"),
              (std::vector<std::string>{"Starting service loop", "Service loop terminating, shutdown Mgr"}));
}

TEST_F(ServiceLoopTest, LooksForAKeyEveryHalfSecondAndSleepsAlsoAfterTheLast)
{
    const auto end = std::async(std::launch::async, [&] {
                         printed("qqqqx");
                         return Clock::now();
                     }).get();
    ASSERT_EQ(console.looks.size(), 5u);
    auto shortest = Clock::duration::max();
    for (std::size_t i = 1; i < console.looks.size(); ++i)
        shortest = std::min(shortest, console.looks[i] - console.looks[i - 1]);
    EXPECT_GE(shortest, 500ms);
    EXPECT_LT(shortest, 950ms) << "of four, one is not held up";
    EXPECT_GE(end - console.looks.back(), 500ms);
}

TEST_F(ServiceLoopTest, TerminationDuringASleepTakesEffectAtItsEnd)
{
    auto loop = std::async(std::launch::async, [] {
        ServiceLoop(false);
        return Clock::now();
    });
    ASSERT_TRUE(eventually([&] { return console.count() != 0; }));
    RequestTermination();
    const std::size_t soFar = console.count();
    const auto set = Clock::now();
    ASSERT_EQ(loop.wait_for(20s), std::future_status::ready);
    const auto end = loop.get();
    EXPECT_LE(console.count(), soFar + 1) << "no pass after the next";
    EXPECT_GE(end - console.looks.back(), 500ms) << "nothing wakes the sleep early";
    EXPECT_LT(end - set, 10s);
}

TEST_F(ServiceLoopTest, TheServiceNeverReadsAKey)
{
    console.type("xXsS");
    const Printed out;
    auto loop = std::async(std::launch::async, [] { ServiceLoop(true); });
    EXPECT_TRUE(log.waitFor("Starting service loop"));
    EXPECT_EQ(loop.wait_for(1200ms), std::future_status::timeout) << "two passes, and the keys have not ended it";
    RequestTermination();
    EXPECT_EQ(loop.wait_for(20s), std::future_status::ready);
    loop.get();
    EXPECT_EQ(console.opened, 0u);
    EXPECT_EQ(console.looks.size(), 0u);
    EXPECT_EQ(console.reads, 0u);
    EXPECT_EQ(console.keys.size(), 4u);
    EXPECT_EQ(out.text(), "");
}

TEST_F(ServiceLoopTest, APipeThatCannotBeBroughtUpEndsItBeforeItHasBegun)
{
    RequestTermination(); // a loop that began in spite of it would end
    zuPlatform::setObjectNamePrefixForTesting("no/such/folder/");
    EXPECT_THROW(ServiceLoop(true), zuIPCPipe::IPCException);
    EXPECT_THROW(ServiceLoop(false), zuIPCPipe::IPCException);
    EXPECT_FALSE(log.contains("Starting service loop"));
    zuIPCPipe::ResetMgrFactory();
}

TEST_F(ServiceLoopTest, AReportThatFailsEndsIt)
{
    const auto client = connectNameless(log);
    console.type("sx");
    {
        const Printed out;
        EXPECT_THROW(ServiceLoop(false), std::runtime_error);
    }
    EXPECT_EQ(console.keys.size(), 1u);
    zuIPCPipe::ResetMgrFactory();
    client->disconnectHandler();
    CollectGarbage();
}

TEST_F(ServiceLoopTest, LetsTheManagerGoAndDeletesNoInstance)
{
    const auto client = std::make_shared<ScriptedClient>();
    OnClientConnect(client);
    client->disconnectHandler();
    const std::weak_ptr<zuIPCPipe::CMgrFactory<int>> factory = zuIPCPipe::GetMgrFactory();
    log.clear();
    RequestTermination();
    ServiceLoop(true);
    EXPECT_TRUE(factory.expired());
    EXPECT_EQ(InstanceCount(), 1u) << "what waits is left to the end of the process";
    EXPECT_EQ(log.texts("Svc"),
              (std::vector<std::string>{"Starting service loop", "Service loop terminating, shutdown Mgr"}));
    CollectGarbage();
    EXPECT_EQ(InstanceCount(), 0u);
}
