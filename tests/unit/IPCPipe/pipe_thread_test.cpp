// Threads that are used again: one body after the other, each as if the thread were its own.
#include "GevTLBase/IPCPipe/PipeThread.h"
#include "GevTLBase/IPCPipe/ThreadEnd.h"
#include "platform/thread.h"
#include "tests/unit/IPCPipe/pipe_support.h"

#include <set>

namespace zuTest {
namespace {

using zuIPCPipe::PipeThread;
using Kind = PipeThread::Kind;

std::uint64_t idOf(Kind kind)
{
    std::uint64_t id = 0;
    PipeThread::Start(kind, [&] { id = zuPlatform::currentThreadId(); })->Join();
    return id;
}

/// The threads of more bodies at once than ever wait for one: whoever waits is among them. `inBody` runs on each.
std::set<std::uint64_t> idsOfMany(Kind kind, const std::function<void()>& inBody = {})
{
    std::promise<void> go;
    const auto gone = go.get_future().share();
    std::mutex mutex;
    std::set<std::uint64_t> ids;
    std::vector<std::unique_ptr<PipeThread>> threads;
    for (std::size_t i = 0; i < PipeThread::maxParked + 4; ++i)
        threads.push_back(PipeThread::Start(kind, [&] {
            {
                const std::lock_guard<std::mutex> lock(mutex);
                ids.insert(zuPlatform::currentThreadId());
                if (inBody)
                    inBody();
            }
            gone.wait();
        }));
    go.set_value();
    for (const auto& thread : threads)
        thread->Join();
    return ids;
}

TEST(PipeThread, JoinWaitsForTheBodyAndItsEnd)
{
    const auto owned = std::make_shared<int>(0);
    std::promise<void> go;
    const auto thread = PipeThread::Start(Kind::instance, [owned, gone = go.get_future().share()] {
        gone.wait();
        *owned = 1;
    });
    EXPECT_FALSE(thread->IsCurrent());
    EXPECT_EQ(*owned, 0);
    go.set_value();
    thread->Join();
    EXPECT_EQ(*owned, 1);
    EXPECT_EQ(owned.use_count(), 1) << "the body is destroyed";
    thread->Join();
}

/// Tells when the thread that made it has run its last code.
struct LastCode {
    ~LastCode()
    {
        if (ended)
            *ended = true;
    }
    std::atomic<bool>* ended = nullptr;
};
thread_local LastCode lastCode;

TEST(PipeThread, WithoutAKeeperJoinWaitsForTheThreadItself)
{
    for (int i = 0; i < 300; ++i) {
        std::atomic<bool> ended{false};
        PipeThread::Start(Kind::instance, [&] { lastCode.ended = &ended; })->Join();
        ASSERT_TRUE(ended);
    }
}

TEST(PipeThread, RunsTheNextBodyOnAThreadThatWaits)
{
    const PipeThread::Keeper keeper;
    const std::uint64_t id = idOf(Kind::instance);
    EXPECT_NE(id, zuPlatform::currentThreadId());
    EXPECT_TRUE(eventually([&] { return idsOfMany(Kind::instance).count(id) != 0; }));
    EXPECT_EQ(idsOfMany(Kind::commandReceiver).count(id), 0u) << "a thread keeps its name and priority";
}

TEST(PipeThread, GivesEachOfSeveralBodiesAThread)
{
    const PipeThread::Keeper keeper;
    for (int round = 0; round < 3; ++round)
        EXPECT_EQ(idsOfMany(Kind::instance).size(), PipeThread::maxParked + 4);
}

TEST(PipeThread, KnowsItsOwnBodyAndIsNotWaitedForThere)
{
    const PipeThread::Keeper keeper;
    for (int round = 0; round < 2; ++round) {
        std::promise<PipeThread*> handle;
        std::promise<bool> current;
        std::unique_ptr<PipeThread> thread = PipeThread::Start(Kind::instance, [&] {
            PipeThread* const own = handle.get_future().get();
            current.set_value(own->IsCurrent());
            zuIPCPipe::EndThread(std::unique_ptr<PipeThread>(own));
        });
        handle.set_value(thread.release());
        EXPECT_TRUE(current.get_future().get());
    }
}

TEST(PipeThread, TheLastKeeperEndsThoseThatWait)
{
    std::set<std::uint64_t> before;
    {
        const PipeThread::Keeper keeper;
        before = idsOfMany(Kind::acknowledgeReceiver);
        EXPECT_TRUE(eventually([&] { return before.count(idOf(Kind::acknowledgeReceiver)) != 0; }));
    }
    for (const std::uint64_t id : idsOfMany(Kind::acknowledgeReceiver))
        EXPECT_EQ(before.count(id), 0u);
}

TEST(PipeThread, StartsAndEndsFromManyThreadsAtOnce)
{
    std::atomic<int> ran{0};
    std::vector<std::thread> users;
    for (int user = 0; user < 4; ++user)
        users.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                const PipeThread::Keeper keeper;
                PipeThread::Start(Kind::instance, [&] { ++ran; })->Join();
                PipeThread::Start(Kind::instance, [&] { ++ran; })->Join();
            }
        });
    for (std::thread& user : users)
        user.join();
    EXPECT_EQ(ran, 1600);
}

} // namespace
} // namespace zuTest
