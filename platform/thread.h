// Priorities, names and ids of threads, and the clock they sleep by.
#pragma once

#include <cstdint>

#include <boost/thread/thread.hpp>

namespace zuPlatform {

enum class ThreadPriority { belowNormal, timeCritical };

/// Changes the calling thread's priority. False if the system refuses; the thread then runs on as it was. On Linux
/// `belowNormal` stands just under the process's class, and is refused while that was not granted: neither the thread
/// nor those that it starts could ever come back up.
bool setCurrentThreadPriority(ThreadPriority priority);

/// Asks for the highest priority that the system has, for a thread that this process has started. False if refused.
bool setHighestPriority(boost::thread::native_handle_type thread);

/// The name that a debugger shows, at most 15 characters. A thread that names itself without having asked for a
/// priority also takes the level of the process's class: on Linux it starts with the level of the thread that made it.
void nameCurrentThread(const char* name);

/// The system's id of the calling thread.
std::uint64_t currentThreadId();

/// Gives the processor to another thread that is ready, if there is one.
void yieldThread();

/// Sleeps for `ms` milliseconds; signals do not cut it short.
void sleepMs(std::uint32_t ms);

/// As `sleepMs`, for microseconds; about a tenth of a millisecond more where the system's timers are coarse.
void sleepUs(std::uint32_t us);

/// Milliseconds of a steady clock with an arbitrary start; wraps.
std::uint32_t tickCount();

/// Nanoseconds of a steady clock with an arbitrary start.
std::uint64_t steadyNanoseconds();

} // namespace zuPlatform
