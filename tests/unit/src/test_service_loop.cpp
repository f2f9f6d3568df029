// The service loop in this process, pass by pass, with keys from a script.
#include "src/ServiceLoop.h"

#include "platform/console_keys.h"
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
        std::ostringstream out;
        std::streambuf* const previous = std::cout.rdbuf(out.rdbuf());
        ServiceLoop(false);
        std::cout.rdbuf(previous);
        EXPECT_TRUE(console.keys.empty()) << keys;
        EXPECT_EQ(TerminateFlag, 1u) << "which stays set";
        return out.str();
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
    std::ostringstream out;
    std::streambuf* const previous = std::cout.rdbuf(out.rdbuf());
    auto loop = std::async(std::launch::async, [] { ServiceLoop(true); });
    EXPECT_TRUE(log.waitFor("Starting service loop"));
    EXPECT_EQ(loop.wait_for(1200ms), std::future_status::timeout) << "two passes, and the keys have not ended it";
    RequestTermination();
    EXPECT_EQ(loop.wait_for(20s), std::future_status::ready);
    loop.get();
    std::cout.rdbuf(previous);
    EXPECT_EQ(console.opened, 0u);
    EXPECT_EQ(console.looks.size(), 0u);
    EXPECT_EQ(console.reads, 0u);
    EXPECT_EQ(console.keys.size(), 4u);
    EXPECT_EQ(out.str(), "");
}
