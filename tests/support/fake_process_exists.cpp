#include "tests/support/fake_process_exists.h"

#include "platform/process.h"

#include <condition_variable>
#include <map>
#include <mutex>
#include <set>

namespace {

struct Processes {
    std::mutex mutex;
    std::condition_variable changed;
    std::set<std::uint32_t> gone;
    std::map<std::uint32_t, std::size_t> asked;
};

Processes& processes()
{
    static Processes& instance = *new Processes;
    return instance;
}

} // namespace

namespace zuTest::FakeProcesses {

void reset()
{
    const std::lock_guard<std::mutex> lock(processes().mutex);
    processes().gone.clear();
    processes().asked.clear();
}

void setGone(std::uint32_t pid, bool gone)
{
    const std::lock_guard<std::mutex> lock(processes().mutex);
    if (gone)
        processes().gone.insert(pid);
    else
        processes().gone.erase(pid);
}

std::size_t asked(std::uint32_t pid)
{
    const std::lock_guard<std::mutex> lock(processes().mutex);
    return processes().asked[pid];
}

bool waitForAsked(std::uint32_t pid, std::size_t count, std::chrono::milliseconds deadline)
{
    std::unique_lock<std::mutex> lock(processes().mutex);
    return processes().changed.wait_until(lock, std::chrono::steady_clock::now() + deadline,
                                          [&] { return processes().asked[pid] >= count; });
}

} // namespace zuTest::FakeProcesses

namespace zuPlatform {

bool processExists(std::uint32_t pid)
{
    const std::lock_guard<std::mutex> lock(processes().mutex);
    ++processes().asked[pid];
    processes().changed.notify_all();
    return pid != 0 && processes().gone.count(pid) == 0;
}

} // namespace zuPlatform
