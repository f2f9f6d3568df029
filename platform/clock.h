// The steady clock, and sleeping by it. Any thread.
#pragma once

#include <cstdint>

namespace zuPlatform {

/// Sleeps for `ms` milliseconds; signals do not cut it short.
void sleepMs(std::uint32_t ms);

/// As `sleepMs`, for microseconds; about a tenth of a millisecond more where the system's timers are coarse.
void sleepUs(std::uint32_t us);

/// Milliseconds of a steady clock with an arbitrary start; wraps.
std::uint32_t tickCount();

/// Nanoseconds of a steady clock with an arbitrary start.
std::uint64_t steadyNanoseconds();

} // namespace zuPlatform
