// The system's codes of failures, and its words for them.
#pragma once

#include <cstdint>
#include <string>

namespace zuPlatform {

/// The code of the last failure on this thread.
std::uint32_t lastError();

/// The system's words for a code; empty if it has none.
std::string errorText(std::uint32_t code);

} // namespace zuPlatform
