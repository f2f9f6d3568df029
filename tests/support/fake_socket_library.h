// A socket library that can refuse to start: link zu_fake_socket_library into a test. Any thread may call.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zuTest::FakeSocketLibrary {

/// Each start succeeds again with the version asked for, and the counts are 0.
void reset();

/// From now on each start returns `error`; 0 lets them succeed.
void setError(int error);

/// From now on each start that succeeds obtains this version.
void setObtained(std::uint16_t version);

/// Starts that succeeded, starts tried, stops, and the version last asked for.
std::size_t starts();
std::size_t tries();
std::size_t stops();
std::uint16_t requested();

} // namespace zuTest::FakeSocketLibrary
