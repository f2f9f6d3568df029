// What a word to wait on promises on every system.
#include "platform/clock.h"
#include "platform/wake.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

using zuPlatform::steadyNanoseconds;
using zuPlatform::WakeWord;

constexpr std::uint64_t ms = 1000000;
constexpr std::uint64_t hardDeadline = 60000 * ms;

TEST(WakeWord, ATimeoutIsNotEarly)
{
    WakeWord word;
    for (const std::uint64_t wait : {std::uint64_t{0}, 30 * ms, 1200 * ms}) {
        const std::uint64_t start = steadyNanoseconds();
        EXPECT_FALSE(word.waitUntil(word.count(), start + wait));
        EXPECT_GE(steadyNanoseconds() - start, wait);
    }
}

TEST(WakeWord, ADeadlineThatIsOverStillReportsANotification)
{
    WakeWord word;
    const std::uint32_t seen = word.count();
    word.notify_all();
    EXPECT_TRUE(word.waitUntil(seen, 0));
    EXPECT_FALSE(word.waitUntil(word.count(), 0));
}

TEST(WakeWord, AWakeWithoutACountEndsNoWait)
{
    WakeWord word;
    std::atomic<bool> over{false};
    const std::uint32_t seen = word.count();
    const std::uint64_t start = steadyNanoseconds();
    std::thread waker([&] {
        while (!over)
            word.wake();
    });
    EXPECT_FALSE(word.waitUntil(seen, start + 100 * ms));
    EXPECT_GE(steadyNanoseconds() - start, 100 * ms);
    over = true;
    waker.join();
}

TEST(WakeWord, WakesAllWhoWait)
{
    WakeWord word;
    const std::uint32_t seen = word.count();
    std::atomic<int> woken{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 8; ++i)
        waiters.emplace_back([&] { woken += word.waitUntil(seen, steadyNanoseconds() + hardDeadline) ? 1 : 0; });
    word.notify_all();
    for (std::thread& waiter : waiters)
        waiter.join();
    EXPECT_EQ(woken, 8);
}

TEST(WakeWord, LosesNoNotificationAndPublishesWhatWasWritten)
{
    constexpr int rounds = 20000;
    WakeWord there;
    WakeWord back;
    int value = 0;
    std::thread other([&] {
        std::uint32_t seen = 0;
        for (int i = 0; i < rounds; ++i) {
            ASSERT_TRUE(there.waitUntil(seen++, steadyNanoseconds() + hardDeadline));
            ++value;
            back.notify_all();
        }
    });
    std::uint32_t seen = 0;
    for (int i = 0; i < rounds; ++i) {
        value += 10;
        there.notify_all();
        ASSERT_TRUE(back.waitUntil(seen++, steadyNanoseconds() + hardDeadline));
        ASSERT_EQ(value, 11 * (i + 1));
    }
    other.join();
}

} // namespace
