// Waiting for what is sure to come.
#pragma once

#include <chrono>
#include <thread>

namespace zuTest {

/// How long a test waits for something that is sure to come, however busy the machine.
inline constexpr std::chrono::seconds patience{60};

/// Looks every millisecond until `condition` holds; false after the deadline.
template <typename Condition>
bool eventually(const Condition& condition, std::chrono::milliseconds deadline = patience)
{
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace zuTest
