// What the heartbeat thread asks the system for: a name and the highest priority. The thread services of the platform
// are replaced here, so that the answer doesn't depend on the permissions of who runs the tests.
#include "control_fixture.h"

#include "platform/thread.h"

#include <atomic>
#include <functional>
#include <thread>

namespace {

std::atomic<bool> granted{true};
std::atomic<int> asked{0};
std::atomic<bool> askedForAThreadThatRuns{false};
std::mutex namesLock;
std::vector<std::string> names;

} // namespace

namespace zuPlatform {

bool setCurrentThreadPriority(ThreadPriority) { return true; }
bool setHighestPriority(boost::thread::native_handle_type thread)
{
    ++asked;
    askedForAThreadThatRuns = thread != boost::thread::native_handle_type{};
    return granted;
}
void nameCurrentThread(const char* name)
{
    const std::lock_guard<std::mutex> lock(namesLock);
    names.push_back(name);
}
std::uint64_t currentThreadId() { return std::hash<std::thread::id>()(std::this_thread::get_id()); }
void yieldThread() { std::this_thread::yield(); }

} // namespace zuPlatform

namespace gevTest {

const std::string refusedLine = "err GEVCTRL.# Heartbeat Thread is not running TimeCritical";

class HeartbeatPriority : public Control {
protected:
    HeartbeatPriority()
    {
        asked = 0;
        const std::lock_guard<std::mutex> lock(namesLock);
        names.clear();
    }
};

TEST_F(HeartbeatPriority, AskedForOnceAndGranted)
{
    granted = true;
    control->Link(3);
    EXPECT_EQ(1, asked);
    EXPECT_TRUE(askedForAThreadThatRuns);
    EXPECT_THAT(controlLines(), testing::Not(testing::Contains(refusedLine)));
    control->Link(3);
    EXPECT_EQ(1, asked) << "the thread ran already";
    control->Unlink();
    const std::lock_guard<std::mutex> lock(namesLock);
    EXPECT_THAT(names, testing::ElementsAre("zu-heart"));
}

TEST_F(HeartbeatPriority, RefusedIsAnErrorLineAndNothingElse)
{
    granted = false;
    device.set(timeoutRegister, 50);
    control->Link(3);
    EXPECT_THAT(controlLines(), testing::Contains(refusedLine).Times(1));
    EXPECT_TRUE(waitForCcpReads(2)) << "the thread runs on";
}

} // namespace gevTest
