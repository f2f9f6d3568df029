#include "tests/support/fake_service_clock.h"

#include "platform/clock.h"

#include <mutex>

namespace {

struct Clock {
    std::mutex mutex;
    std::uint32_t now = 0;
    std::vector<std::uint32_t> sleeps;
};

Clock& fakeClock()
{
    static Clock& instance = *new Clock;
    return instance;
}

} // namespace

namespace zuTest::FakeClock {

void reset(std::uint32_t now)
{
    const std::lock_guard<std::mutex> lock(fakeClock().mutex);
    fakeClock().now = now;
    fakeClock().sleeps.clear();
}

void advance(std::uint32_t ms)
{
    const std::lock_guard<std::mutex> lock(fakeClock().mutex);
    fakeClock().now += ms;
}

std::uint32_t now()
{
    const std::lock_guard<std::mutex> lock(fakeClock().mutex);
    return fakeClock().now;
}

std::vector<std::uint32_t> sleeps()
{
    const std::lock_guard<std::mutex> lock(fakeClock().mutex);
    return fakeClock().sleeps;
}

} // namespace zuTest::FakeClock

namespace zuPlatform {

void sleepMs(std::uint32_t ms)
{
    const std::lock_guard<std::mutex> lock(fakeClock().mutex);
    fakeClock().now += ms;
    fakeClock().sleeps.push_back(ms);
}

std::uint32_t tickCount() { return zuTest::FakeClock::now(); }
std::uint64_t steadyNanoseconds() { return std::uint64_t{zuTest::FakeClock::now()} * 1000000; }

} // namespace zuPlatform
