// Mutexes that processes share by name.
#include "platform/named_mutex.h"
#include "platform/shared_memory.h"
#include "platform/thread.h"
#include "tests/contract/contract_support.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace zuPlatform;
using namespace zuTest;
using Result = NamedMutex::WaitResult;

class NamedMutexTest : public testing::Test {
protected:
    ~NamedMutexTest() override { SharedMemory::remove(name); }

    std::unique_ptr<NamedMutex> open() const
    {
        int error = -1;
        auto mutex = NamedMutex::create(name, error);
        EXPECT_NE(mutex, nullptr);
        EXPECT_EQ(error, 0);
        return mutex;
    }

    /// A process that takes the mutex and holds it until it is told to end, and then lets go if `release` is set.
    struct Owner {
        explicit Owner(const NamedMutexTest& test, bool release)
            : child([&test, release, this] {
                  const auto mutex = test.open();
                  if (mutex->wait(10000) != Result::signalled)
                      return 1;
                  holds.send("h");
                  if (goOn.read(1).empty())
                      return 2;
                  if (release)
                      mutex->release();
                  return 0;
              })
        {
            EXPECT_EQ(holds.read(1), "h");
        }
        Pipe holds;
        Pipe goOn;
        ForkedChild child;
    };

    /// Waits for the mutex on a thread of its own, and calls `meanwhile` once that wait is under way.
    Result waitWhile(const std::function<void()>& meanwhile) const
    {
        const auto mutex = open();
        std::atomic<std::uint64_t> waiter{0};
        Result result = Result::failed;
        std::thread thread([&] {
            waiter = currentThreadId();
            result = mutex->wait(60000);
        });
        EXPECT_TRUE(untilAsleep(waiter));
        meanwhile();
        thread.join();
        return result;
    }

    const std::string stem = uniqueName("mutex");
    const std::string name = "Global\\" + stem;
};

TEST_F(NamedMutexTest, IsTakenReleasedAndTakenAgain)
{
    const auto first = open();
    const auto second = open();
    EXPECT_EQ(first->wait(0), Result::signalled);
    EXPECT_EQ(second->wait(0), Result::timeout);
    first->release();
    EXPECT_EQ(second->wait(0), Result::signalled);
    EXPECT_EQ(first->wait(0), Result::timeout);
    second->release();
}

TEST_F(NamedMutexTest, MakingAHandleDoesNotTakeIt)
{
    const auto first = open();
    const auto second = open();
    EXPECT_EQ(second->wait(0), Result::signalled);
}

TEST_F(NamedMutexTest, ItsOwnerMayTakeItAgain)
{
    const auto first = open();
    const auto second = open();
    EXPECT_EQ(first->wait(0), Result::signalled);
    EXPECT_EQ(first->wait(0), Result::signalled);
    first->release();
    EXPECT_EQ(second->wait(0), Result::timeout);
    first->release();
    EXPECT_EQ(second->wait(0), Result::signalled);
}

TEST_F(NamedMutexTest, ReleaseByOneWhoDoesNotHoldItChangesNothing)
{
    const auto first = open();
    const auto second = open();
    EXPECT_EQ(first->wait(0), Result::signalled);
    second->release();
    EXPECT_EQ(second->wait(0), Result::timeout);
}

TEST_F(NamedMutexTest, TheWaitLastsItsTime)
{
    const Owner owner(*this, true);
    const auto mutex = open();
    for (const std::uint32_t ms : {0, 1, 25, 500}) {
        const Stopwatch watch;
        EXPECT_EQ(mutex->wait(ms), Result::timeout);
        EXPECT_GE(watch.elapsed(), std::chrono::milliseconds(ms));
        EXPECT_LT(watch.elapsed(), std::chrono::milliseconds(ms) + 5s);
    }
}

TEST_F(NamedMutexTest, AWaiterGetsItWhenItsOwnerLetsGo)
{
    Owner owner(*this, true);
    EXPECT_EQ(waitWhile([&] { owner.goOn.send("g"); }), Result::signalled);
    EXPECT_EQ(owner.child.exitCode(), 0);
}

TEST_F(NamedMutexTest, AWaiterIsToldThatTheOwnerWasKilled)
{
    Owner owner(*this, true);
    EXPECT_EQ(waitWhile([&] { owner.child.kill(SIGKILL); }), Result::abandoned);
    EXPECT_EQ(owner.child.exitCode(), 256 + SIGKILL);
}

TEST_F(NamedMutexTest, AWaiterIsToldThatTheOwnerEndedWithoutRelease)
{
    Owner owner(*this, false);
    EXPECT_EQ(waitWhile([&] { owner.goOn.send("g"); }), Result::abandoned);
    EXPECT_EQ(owner.child.exitCode(), 0);
}

TEST_F(NamedMutexTest, AbandonedMeansOwned)
{
    Owner owner(*this, false);
    const auto mutex = open();
    std::atomic<std::uint64_t> waiter{0};
    std::thread thread([&] {
        waiter = currentThreadId();
        EXPECT_EQ(mutex->wait(60000), Result::abandoned);
    });
    EXPECT_TRUE(untilAsleep(waiter));
    owner.child.kill(SIGKILL);
    thread.join();
    const auto other = open();
    EXPECT_EQ(other->wait(0), Result::timeout);
    mutex->release();
    EXPECT_EQ(other->wait(0), Result::signalled) << "and a release makes it a mutex like any";
}

TEST_F(NamedMutexTest, OneThatIsFoundFreeIsSignalledHoweverItBecameSo)
{
    Owner owner(*this, false);
    owner.child.kill(SIGKILL);
    EXPECT_EQ(owner.child.exitCode(), 256 + SIGKILL);
    const auto mutex = open();
    EXPECT_EQ(mutex->wait(60000), Result::signalled);
}

TEST_F(NamedMutexTest, ClosingTheHandleAbandonsToo)
{
    auto owner = open();
    EXPECT_EQ(owner->wait(0), Result::signalled);
    EXPECT_EQ(waitWhile([&] { owner.reset(); }), Result::abandoned);
}

TEST_F(NamedMutexTest, AChildThatRunsAnotherProgramDoesNotKeepIt)
{
    auto owner = open();
    EXPECT_EQ(owner->wait(0), Result::signalled);
    const ForkedChild child([] { return ::execl("/bin/sleep", "sleep", "60", nullptr); });
    ASSERT_TRUE(eventually([&] {
        char path[256] = {};
        const std::string link = "/proc/" + std::to_string(child.pid()) + "/exe";
        return ::readlink(link.c_str(), path, sizeof path - 1) > 0 &&
               std::string(path).find("test_contract") == std::string::npos;
    }));
    owner.reset();
    EXPECT_EQ(open()->wait(0), Result::signalled);
}

TEST_F(NamedMutexTest, EveryUserMayTakeItWhateverTheUmask)
{
    const mode_t before = ::umask(077);
    open();
    ::umask(before);
    struct stat status {};
    ASSERT_EQ(::stat(("/dev/shm/Global." + stem).c_str(), &status), 0) << "it stays when nobody has it open";
    EXPECT_EQ(status.st_mode & 07777, 0666u);
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can become another user";
    EXPECT_EQ(inChild([&] {
                  if (::setuid(65534) != 0)
                      return 1;
                  const auto mutex = open();
                  return mutex && mutex->wait(0) == Result::signalled ? 0 : 2;
              }),
              0);
}

TEST_F(NamedMutexTest, OneMadeByAnotherUserOpensForRoot)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can become another user";
    EXPECT_EQ(inChild([&] { return ::setuid(65534) == 0 && open() ? 0 : 1; }), 0);
    EXPECT_EQ(open()->wait(0), Result::signalled);
}

TEST_F(NamedMutexTest, NamesThatCannotBeAreRefused)
{
    int error = 0;
    EXPECT_EQ(NamedMutex::create("", error), nullptr);
    EXPECT_NE(error, 0);
    EXPECT_EQ(NamedMutex::create("../" + stem, error), nullptr);
    EXPECT_NE(error, 0);
}

TEST_F(NamedMutexTest, KeepsProcessesOutOfEachOthersWay)
{
    int error = 0;
    const std::string counterName = uniqueName("counter");
    const auto memory = SharedMemory::create(counterName, sizeof(int), error);
    ASSERT_NE(memory, nullptr);
    auto* const counter = static_cast<volatile int*>(memory->map(sizeof(int)));
    const auto work = [&] {
        const auto mutex = open();
        for (int i = 0; i < 20; ++i) {
            if (mutex->wait(60000) != Result::signalled)
                return 1;
            const int value = *counter;
            std::this_thread::sleep_for(200us); // makes an overlap show
            *counter = value + 1;
            mutex->release();
        }
        return 0;
    };
    {
        ForkedChild first(work);
        ForkedChild second(work);
        EXPECT_EQ(work(), 0);
        EXPECT_EQ(first.exitCode(), 0);
        EXPECT_EQ(second.exitCode(), 0);
    }
    EXPECT_EQ(*counter, 60);
    SharedMemory::remove(counterName);
}
