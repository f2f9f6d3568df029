// Priorities, names and ids of threads.
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

} // namespace zuPlatform
