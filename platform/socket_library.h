// Start and end of the process's use of the socket library, counted by the system where it needs that.
#pragma once

#include <cstdint>

namespace zuPlatform {

/// Starts the library for `version` (high byte minor, low byte major, 0x202 is 2.2); writes the version obtained.
/// Returns 0 or the system's error code. Each success wants one `stopSocketLibrary`.
int startSocketLibrary(std::uint16_t version, std::uint16_t& obtained);
void stopSocketLibrary();

} // namespace zuPlatform
