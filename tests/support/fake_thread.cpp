#include "tests/support/fake_thread.h"

#include "platform/clock.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <thread>

namespace {

struct Record {
    std::mutex mutex;
    bool granted = true;
    std::vector<std::shared_ptr<zuTest::FakeThreads::Named>> threads;
    std::vector<std::uint32_t> sleeps;
};

Record& record()
{
    static Record& instance = *new Record;
    return instance;
}

/// The calling thread's part of the record; under its mutex.
zuTest::FakeThreads::Named& own()
{
    thread_local const auto part = [] {
        auto made = std::make_shared<zuTest::FakeThreads::Named>();
        record().threads.push_back(made);
        return made;
    }();
    return *part;
}

} // namespace

namespace zuTest::FakeThreads {

void reset()
{
    const std::lock_guard<std::mutex> lock(record().mutex);
    record().granted = true;
    record().threads.clear();
    record().sleeps.clear();
}

void setGranted(bool granted)
{
    const std::lock_guard<std::mutex> lock(record().mutex);
    record().granted = granted;
}

std::vector<Named> named()
{
    const std::lock_guard<std::mutex> lock(record().mutex);
    std::vector<Named> found;
    for (const auto& thread : record().threads)
        if (!thread->name.empty())
            found.push_back(*thread);
    return found;
}

std::size_t countSleeps(std::uint32_t ms)
{
    const std::lock_guard<std::mutex> lock(record().mutex);
    return static_cast<std::size_t>(std::count(record().sleeps.begin(), record().sleeps.end(), ms));
}

} // namespace zuTest::FakeThreads

namespace zuPlatform {

bool setCurrentThreadPriority(ThreadPriority priority)
{
    const std::lock_guard<std::mutex> lock(record().mutex);
    own().priorities.push_back(priority);
    return record().granted;
}

bool setHighestPriority(boost::thread::native_handle_type)
{
    const std::lock_guard<std::mutex> lock(record().mutex);
    return record().granted;
}

void nameCurrentThread(const char* name)
{
    const std::lock_guard<std::mutex> lock(record().mutex);
    own().name = name;
}

std::uint64_t currentThreadId() { return std::hash<std::thread::id>()(std::this_thread::get_id()); }

void yieldThread()
{
    {
        const std::lock_guard<std::mutex> lock(record().mutex);
        ++own().yields;
    }
    std::this_thread::yield();
}

void sleepMs(std::uint32_t ms)
{
    {
        const std::lock_guard<std::mutex> lock(record().mutex);
        record().sleeps.push_back(ms);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

std::uint32_t tickCount() { return static_cast<std::uint32_t>(steadyNanoseconds() / 1000000); }

std::uint64_t steadyNanoseconds()
{
    return static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
}

} // namespace zuPlatform
