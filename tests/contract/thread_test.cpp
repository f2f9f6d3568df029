// Names and ids of threads, their sleep, and the clock.
#include "platform/clock.h"
#include "platform/thread.h"
#include "tests/contract/contract_support.h"

#include <atomic>
#include <fstream>
#include <gmock/gmock.h>
#include <pthread.h>
#include <signal.h>
#include <thread>
#include <unistd.h>

using namespace zuPlatform;
using namespace zuTest;

namespace {

std::string nameOnNewThread(const char* name)
{
    std::string shown;
    std::thread([&] {
        nameCurrentThread(name);
        std::ifstream file("/proc/self/task/" + std::to_string(currentThreadId()) + "/comm");
        std::getline(file, shown);
    }).join();
    return shown;
}

} // namespace

TEST(Thread, CarriesItsName)
{
    EXPECT_EQ(nameOnNewThread("zu-cmd"), "zu-cmd");
    EXPECT_EQ(nameOnNewThread("fifteen-letters"), "fifteen-letters");
    EXPECT_EQ(nameOnNewThread("sixteen-letters-"), "sixteen-letters");
}

TEST(Thread, HasAnIdOfItsOwn)
{
    EXPECT_EQ(currentThreadId(), static_cast<std::uint64_t>(::getpid())) << "the first thread";
    std::uint64_t other = 0;
    std::thread([&] { other = currentThreadId(); }).join();
    EXPECT_NE(other, 0u);
    EXPECT_NE(other, currentThreadId());
}

TEST(Thread, SleepsItsTime)
{
    for (const std::uint32_t ms : {0, 1, 20, 150}) {
        const Stopwatch watch;
        sleepMs(ms);
        EXPECT_GE(watch.elapsed(), std::chrono::milliseconds(ms));
        EXPECT_LT(watch.elapsed(), std::chrono::milliseconds(ms) + 5s);
    }
}

TEST(Thread, SignalsDoNotCutTheSleepShort)
{
    static std::atomic<unsigned> signals;
    signals = 0;
    struct sigaction action {};
    struct sigaction previous {};
    action.sa_handler = [](int) { ++signals; };
    ::sigaction(SIGUSR1, &action, &previous);
    std::atomic<bool> end{false};
    std::thread storm([&, target = ::pthread_self()] {
        while (!end) {
            ::pthread_kill(target, SIGUSR1);
            std::this_thread::sleep_for(500us);
        }
    });
    const Stopwatch watch;
    sleepMs(200);
    EXPECT_GE(watch.elapsed(), 200ms);
    EXPECT_LT(watch.elapsed(), 10s);
    end = true;
    storm.join();
    EXPECT_GT(signals, 0u);
    ::sigaction(SIGUSR1, &previous, nullptr);
}

TEST(Thread, ClocksAgreeAndGoOn)
{
    const std::uint64_t start = steadyNanoseconds();
    const std::uint32_t ticks = tickCount();
    sleepMs(30);
    const std::uint32_t passed = tickCount() - ticks;
    const std::uint64_t nanoseconds = steadyNanoseconds() - start;
    EXPECT_GE(nanoseconds, 30000000u);
    EXPECT_GE(passed, 29u) << "the first reading may be just before the next tick";
    EXPECT_LE(passed, nanoseconds / 1000000 + 1);
    yieldThread();
}
