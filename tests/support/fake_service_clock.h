// A scripted clock in the place of the platform's: a sleep ends at once and advances it. Any thread may call.
#pragma once

#include <cstdint>
#include <vector>

namespace zuTest::FakeClock {

/// Sets the clock, in milliseconds, and forgets the sleeps.
void reset(std::uint32_t now);
void advance(std::uint32_t ms);
std::uint32_t now();

/// The sleeps since `reset`, in milliseconds.
std::vector<std::uint32_t> sleeps();

} // namespace zuTest::FakeClock
