// The priority class of the process and priorities of its threads, each in a process of its own.
#include "platform/process.h"
#include "platform/thread.h"
#include "tests/contract/contract_support.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

using namespace zuPlatform;
using namespace zuTest;

namespace {

constexpr int skipped = 77;

/// The nice level of the calling thread.
int nice() { return ::getpriority(PRIO_PROCESS, 0); }

int niceOnThread(const std::function<void()>& body)
{
    int result = -100;
    std::thread thread([&] {
        body();
        result = nice();
    });
    thread.join();
    return result;
}

bool giveUpPrivilege()
{
    const rlimit none{0, 0};
    return ::setrlimit(RLIMIT_NICE, &none) == 0 && ::setrlimit(RLIMIT_RTPRIO, &none) == 0 &&
           (::geteuid() != 0 || ::setuid(65534) == 0);
}

} // namespace

TEST(Priority, TheClassAndItsThreadsRunBeforeOthers)
{
    const int code = inChild([] {
        const int before = nice();
        if (!setRealtimePriorityClass())
            return nice() == before ? skipped : 1;
        const int level = nice();
        if (level >= before)
            return 2;
        if (!setCurrentThreadPriority(ThreadPriority::belowNormal))
            return 3;
        const int below = nice();
        if (below <= level || below >= before)
            return 4;
        // A fresh thread has its maker's level until it says its name; then it has the class's.
        if (niceOnThread([] {}) != below || niceOnThread([] { nameCurrentThread("zu-test"); }) != level)
            return 5;
        const int critical = niceOnThread([] {
            if (!setCurrentThreadPriority(ThreadPriority::timeCritical))
                return;
            nameCurrentThread("zu-test"); // takes nothing back
        });
        if (critical >= level)
            return 6;
        int child = 0;
        niceOnThread([&] {
            setCurrentThreadPriority(ThreadPriority::timeCritical);
            child = niceOnThread([] { nameCurrentThread("zu-test"); });
        });
        if (child != level)
            return 7;
        nameCurrentThread("zu-main");
        return nice() == below && ::sched_getscheduler(0) == SCHED_OTHER ? 0 : 8;
    });
    if (code == skipped)
        GTEST_SKIP() << "the class is not granted here";
    EXPECT_EQ(code, 0);
}

TEST(Priority, RefusalChangesNothing)
{
    EXPECT_EQ(inChild([] {
                  if (!giveUpPrivilege())
                      return 1;
                  const int before = nice();
                  if (setRealtimePriorityClass() || nice() != before)
                      return 2;
                  if (setCurrentThreadPriority(ThreadPriority::timeCritical) || nice() != before)
                      return 3;
                  // Without the class there is no way back up from a lower level.
                  if (setCurrentThreadPriority(ThreadPriority::belowNormal) || nice() != before)
                      return 4;
                  if (niceOnThread([] { nameCurrentThread("zu-test"); }) != before)
                      return 5;
                  if (setHighestPriority(::pthread_self()))
                      return 6;
                  return ::sched_getscheduler(0) == SCHED_OTHER ? 0 : 7;
              }),
              0);
}

TEST(Priority, TheHighestIsOfTheRealTimeKind)
{
    const int code = inChild([] {
        std::atomic<bool> end{false};
        std::thread thread([&] { eventually([&] { return end.load(); }); });
        const bool granted = setHighestPriority(thread.native_handle());
        int policy = -1;
        sched_param parameters{};
        ::pthread_getschedparam(thread.native_handle(), &policy, &parameters);
        end = true;
        thread.join();
        if (::sched_getscheduler(0) != SCHED_OTHER)
            return 1;
        if (!granted)
            return policy == SCHED_OTHER ? skipped : 2;
        return policy == SCHED_RR && parameters.sched_priority == ::sched_get_priority_max(SCHED_RR) ? 0 : 3;
    });
    if (code == skipped)
        GTEST_SKIP() << "real time is not granted here";
    EXPECT_EQ(code, 0);
}
