// Counts what the whole process allocates with operator new. Any thread.
#pragma once

#include <cstdint>

namespace gevsimTest {

/// Allocations since the start of the process.
std::uint64_t allocations();

} // namespace gevsimTest
