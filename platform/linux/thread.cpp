// Priorities, names and ids of threads. Any thread may call.
#include "platform/thread.h"

#include "platform/linux/priority.h"

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>

namespace zuPlatform {

namespace {

thread_local bool priorityChosen = false;

// With id 0 the call reaches the calling thread only.
bool setOwnNice(int level) { return ::setpriority(PRIO_PROCESS, 0, level) == 0; }

} // namespace

bool setCurrentThreadPriority(ThreadPriority priority)
{
    const int base = classNice.load();
    // Without the class, a thread that went below normal could never come back, nor could the threads that it starts.
    if (priority == ThreadPriority::belowNormal && base == 0)
        return false;
    if (!setOwnNice(priority == ThreadPriority::timeCritical ? timeCriticalNice : base + belowNormalStep))
        return false;
    priorityChosen = true;
    return true;
}

bool setHighestPriority(boost::thread::native_handle_type thread)
{
    sched_param parameters{};
    parameters.sched_priority = ::sched_get_priority_max(SCHED_RR);
    return ::pthread_setschedparam(thread, SCHED_RR, &parameters) == 0;
}

void nameCurrentThread(const char* name)
{
    char shortName[16];
    std::snprintf(shortName, sizeof shortName, "%s", name);
    ::pthread_setname_np(::pthread_self(), shortName);
    if (const int base = classNice.load(); base != 0 && !priorityChosen)
        setOwnNice(base);
}

std::uint64_t currentThreadId() { return static_cast<std::uint64_t>(::gettid()); }

void yieldThread() { ::sched_yield(); }

} // namespace zuPlatform
