// Named shared objects of the process's own in the place of the system's: link zu_fake_shared_memory into a test. Names
// are used as they are given, without the system's form or a test's prefix. Any thread may call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zuTest::FakeSharedMemory {

enum class Call { open, create, map };

/// Forgets objects, failures and calls. Handles of before keep what they have.
void reset();

/// Of the calls of this kind from now on, the first `after` pass, and the `times` that follow fail: `open` and `create`
/// with `error`, `map` with null.
void fail(Call call, int error, std::size_t times = 1, std::size_t after = 0);

/// Makes an object with this content, or replaces the one of that name.
void put(const std::string& name, const std::vector<std::uint8_t>& content);

/// An object's content; empty if there is none.
std::vector<std::uint8_t> content(const std::string& name);
bool exists(const std::string& name);

/// The calls so far, such as "open read Global\name", "open write Global\name", "create 2048 Global\name", "map 2048",
/// "unmap", "remove Global\name".
std::vector<std::string> calls();

} // namespace zuTest::FakeSharedMemory
