#include "platform/clock.h"

#include <time.h>

#include <cerrno>

namespace zuPlatform {

namespace {

void sleepNs(std::uint64_t ns)
{
    constexpr long second = 1000000000;
    timespec end{};
    ::clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += static_cast<time_t>(ns / second);
    end.tv_nsec += static_cast<long>(ns % second);
    if (end.tv_nsec >= second) {
        ++end.tv_sec;
        end.tv_nsec -= second;
    }
    while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
    }
}

} // namespace

void sleepMs(std::uint32_t ms) { sleepNs(std::uint64_t{ms} * 1000000); }
void sleepUs(std::uint32_t us) { sleepNs(std::uint64_t{us} * 1000); }

std::uint64_t steadyNanoseconds()
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000000u + static_cast<std::uint64_t>(now.tv_nsec);
}

std::uint32_t tickCount() { return static_cast<std::uint32_t>(steadyNanoseconds() / 1000000u); }

} // namespace zuPlatform
