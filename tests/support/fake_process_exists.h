// A scripted answer to whether a process runs: link zu_fake_process_exists into a test. Any thread may call.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace zuTest::FakeProcesses {

/// All processes run again, but for id 0.
void reset();

/// From now on this process is gone, or there again.
void setGone(std::uint32_t pid, bool gone = true);

/// How often it was asked for, and a wait until it was asked for `count` times; false after `deadline`.
std::size_t asked(std::uint32_t pid);
bool waitForAsked(std::uint32_t pid, std::size_t count, std::chrono::milliseconds deadline = std::chrono::seconds(20));

} // namespace zuTest::FakeProcesses
