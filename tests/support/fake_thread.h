// The thread services and the clock with a record: link zu_fake_thread into a test. Sleeps, yields and the clock are
// real; priorities are granted as a test says, and change nothing. Any thread may call.
#pragma once

#include "platform/thread.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zuTest::FakeThreads {

struct Named {
    std::string name;
    std::vector<zuPlatform::ThreadPriority> priorities; ///< asked for on this thread, in order
    std::size_t yields = 0;                             ///< how often it gave the processor to another
};

/// Forgets the record, and grants priorities. Threads of before stay outside the record.
void reset();

/// Whether priorities are granted from now on.
void setGranted(bool granted);

/// The threads that have named themselves.
std::vector<Named> named();

/// How often a thread slept for exactly this time.
std::size_t countSleeps(std::uint32_t ms);

} // namespace zuTest::FakeThreads
