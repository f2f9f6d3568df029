// What the contract tests look at a process with, and its copies and terminals.
#pragma once

#include "tests/support/eventually.h"
#include "tests/support/forked_child.h"
#include "tests/support/terminal.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <set>
#include <string>

namespace zuTest {

using namespace std::chrono_literals;

class Stopwatch {
public:
    std::chrono::nanoseconds elapsed() const { return std::chrono::steady_clock::now() - start_; }

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

/// A name that no other test and no other process uses.
std::string uniqueName(const std::string& stem);

/// The numbers of this process's open descriptors.
std::set<int> openDescriptors();

/// Waits until the thread with the id in `thread` (0: it is not known yet), or a process of one thread, sleeps in a
/// system call.
bool untilAsleep(const std::atomic<std::uint64_t>& thread);

} // namespace zuTest
