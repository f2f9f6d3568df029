// Slots, buffers and the four transfer operations, called as instances call them.
#include "tests/unit/IPCPipe/pipe_support.h"

#include "tests/support/log_lines.h"

#include <atomic>
#include <thread>

namespace zuTest {
namespace {

using namespace zuIPCPipe;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Info = CDispatcher::InstanceInfo;

/// Notifies until the other thread is through, as it can't be seen whether it waits already.
template <typename Result, typename Condition>
Result notifying(std::future<Result> result, Condition& condition)
{
    while (result.wait_for(1ms) != std::future_status::ready)
        condition.notify_all();
    return result.get();
}

/// The mutex of a slot, from the moment at which the reader that was started after `pending` was set waits. A mark
/// without a message is taken back by the reader under the mutex, which it then keeps until its wait.
template <typename Mutex>
std::unique_lock<Mutex> lockWhileTheReaderWaits(Mutex& mutex, const std::atomic<bool>& pending)
{
    EXPECT_TRUE(eventually([&] { return !pending; }));
    return std::unique_lock<Mutex>(mutex);
}

TEST(Slots, AreReusedFromTheLowestAndTheVectorNeverShrinks)
{
    Bench bench;
    std::shared_ptr<Info> info;
    std::shared_ptr<Info> second;
    EXPECT_EQ(bench.dispatcher->AddInstance(info), 0u);
    EXPECT_EQ(bench.dispatcher->AddInstance(second), 1u);
    EXPECT_EQ(bench.dispatcher->AddInstance(info), 2u);
    EXPECT_EQ(bench.dispatcher->InstanceCount(), 3u);
    EXPECT_EQ(DispatcherProbe::slot(*bench.dispatcher, 1), second);
    bench.dispatcher->ReleaseInstance(1);
    bench.dispatcher->ReleaseInstance(0);
    EXPECT_EQ(bench.dispatcher->InstanceCount(), 1u);
    EXPECT_EQ(bench.dispatcher->SlotCount(), 3u);
    EXPECT_EQ(bench.dispatcher->AddInstance(info), 0u);
    EXPECT_EQ(bench.dispatcher->AddInstance(info), 1u);
    EXPECT_NE(info, second) << "a slot is new each time";
    EXPECT_EQ(bench.dispatcher->AddInstance(info), 3u);
}

TEST(Slots, TrimThePoolToFourBuffersForEachInstanceLeft)
{
    Bench bench;
    ASSERT_TRUE(bench.poolBecomes(0));
    std::shared_ptr<Info> info;
    for (int i = 0; i < 3; ++i)
        bench.dispatcher->AddInstance(info);
    std::vector<std::shared_ptr<instance_msg>> made;
    for (int i = 0; i < 20; ++i) {
        made.push_back(std::make_shared<instance_msg>());
        DispatcherProbe::putToPool(*bench.dispatcher, made.back());
    }
    bench.dispatcher->ReleaseInstance(2);
    EXPECT_EQ(DispatcherProbe::poolSize(*bench.dispatcher), 8u);
    EXPECT_EQ(DispatcherProbe::takeFromPool(*bench.dispatcher), made[12]) << "dropped from the front";
    bench.dispatcher->ReleaseInstance(1);
    EXPECT_EQ(DispatcherProbe::poolSize(*bench.dispatcher), 4u);
    bench.dispatcher->ReleaseInstance(0);
    EXPECT_EQ(DispatcherProbe::poolSize(*bench.dispatcher), 0u);
}

TEST(Slots, CountOneReleaseTooManyWithoutEndingBelowNothing)
{
    Bench bench;
    std::shared_ptr<Info> info;
    bench.dispatcher->AddInstance(info);
    bench.dispatcher->ReleaseInstance(0);
    DispatcherProbe::putToPool(*bench.dispatcher, std::make_shared<instance_msg>());
    bench.dispatcher->ReleaseInstance(0);
    EXPECT_EQ(bench.dispatcher->InstanceCount(), ~std::uint64_t{0});
    EXPECT_EQ(DispatcherProbe::poolSize(*bench.dispatcher), 1u) << "nothing exceeds four times that";
    bench.dispatcher->ReleaseInstance(1000);
}

TEST(Slots, KeepABuffersContentAndSendLengthOnItsWayThroughThePool)
{
    Bench bench;
    ASSERT_TRUE(bench.poolBecomes(0));
    auto sent = std::make_shared<instance_msg>();
    sent->SetPayloadSize(100);
    sent->payload()[99] = 42;
    const auto same = sent;
    bench.dispatcher->ReturnMsg(sent);
    EXPECT_FALSE(sent);
    EXPECT_EQ(DispatcherProbe::takeFromPool(*bench.dispatcher), same);
    EXPECT_EQ(same->sendLength, 124u);
    EXPECT_EQ(same->payload()[99], 42);
    std::shared_ptr<instance_msg> none;
    bench.dispatcher->ReturnMsg(none);
    EXPECT_EQ(DispatcherProbe::poolSize(*bench.dispatcher), 0u);
}

TEST(Slots, RefuseAnIndexAtOrPastTheEndWithTheWordsOfEachOperation)
{
    LogRecorder logs;
    Bench bench;
    CDispatcher& d = *bench.dispatcher;
    std::shared_ptr<Info> info;
    d.AddInstance(info);
    instance_msg out;
    std::shared_ptr<instance_msg> in;
    for (const std::uint64_t index : {std::uint64_t{1}, std::uint64_t{2}, std::uint64_t{0xFFFFFFFF}}) {
        EXPECT_EQ(thrown([&] { d.WriteCmd(out, index); }), "IPCException: Invalid instance vector id");
        EXPECT_EQ(thrown([&] { d.WriteAck(out, index); }), "IPCException: Invalid instance index");
        EXPECT_EQ(thrown([&] { d.ConnectAbort(index, [] {}); }), "IPCException: Invalid instance index");
        EXPECT_EQ(thrown([&] { d.AbortInstance(index, info); }), "IPCException: Invalid instance index");
        EXPECT_EQ(thrown([&] { d.ReadCmd(in, index); }), "IPCException: Instance vector invalid index id");
        EXPECT_EQ(thrown([&] { d.ReadAck(in, 0, index); }), "IPCException: Invalid ReadAck id");
    }
    EXPECT_EQ(thrown([&] { d.AbortInstance(CDispatcher::kNoIndex, info); }), "IPCException: Invalid instance index");
    expectLines(logs, "Invalid Index;", zuLogging::log_warn, "IPCDIS", 3);
    EXPECT_FALSE(bench.cmd.receive(0));
    EXPECT_FALSE(bench.ack.receive(0));
}

TEST(Slots, TakeNoIndexAsAnAddressOfItsOwn)
{
    Bench bench;
    EXPECT_EQ(thrown([&] { bench.dispatcher->ConnectAbort(CDispatcher::kNoIndex, [] {}); }), "");
    instance_msg out;
    out.header().index = 4711;
    bench.dispatcher->WriteCmd(out, CDispatcher::kNoIndex);
    EXPECT_EQ(bench.cmd.receive().value(), message(0, 4711)) << "no stamp";
    bench.dispatcher->WriteAck(out, CDispatcher::kNoIndex);
    EXPECT_EQ(bench.ack.receive().value(), message(0, 4711));
}

TEST(Slots, StampThePeersIndexOnWhatTheySend)
{
    Bench bench;
    std::shared_ptr<Info> info;
    bench.dispatcher->AddInstance(info);
    info->remoteIndex = 0x0102030405060708;
    instance_msg out;
    out.header().index = 4711;
    out.SetPayloadSize(2);
    out.payload()[1] = 5;
    bench.dispatcher->WriteCmd(out, 0);
    EXPECT_EQ(bench.cmd.receive().value(), message(0, 0x05060708, 0, 0, {0, 5}));
    bench.dispatcher->WriteAck(out, 0);
    EXPECT_EQ(bench.ack.receive().value(), message(0, 0x05060708, 0, 0, {0, 5}));
}

TEST(Slots, ForgetALateAcknowledgeWhenTheNextCommandGoesOut)
{
    Bench bench;
    std::shared_ptr<Info> info;
    bench.dispatcher->AddInstance(info);
    bench.acknowledge(message(kMsgAck, 0, 1));
    ASSERT_TRUE(eventually([&] { return info->ackPending.load(); }));
    instance_msg out;
    bench.dispatcher->WriteAck(out, 0);
    EXPECT_TRUE(info->ackPending);
    bench.dispatcher->WriteCmd(out, 0);
    EXPECT_FALSE(info->ackPending);
    std::shared_ptr<instance_msg> in;
    EXPECT_FALSE(bench.dispatcher->ReadAck(in, 0, 0));
}

TEST(Slots, RefuseAFreedOneInReadAckAndInTheWrites)
{
    LogRecorder logs;
    Bench bench;
    std::shared_ptr<Info> info;
    bench.dispatcher->AddInstance(info);
    bench.dispatcher->ReleaseInstance(0);
    std::shared_ptr<instance_msg> in;
    EXPECT_EQ(thrown([&] { bench.dispatcher->ReadAck(in, 0, 0); }), "IPCException: Invalid Instance");
    expectLines(logs, "Invalid Instance", zuLogging::log_warn, "IPCDIS");
    instance_msg out;
    EXPECT_EQ(thrown([&] { bench.dispatcher->WriteCmd(out, 0); }), "IPCException: Invalid instance vector id");
    EXPECT_EQ(thrown([&] { bench.dispatcher->WriteAck(out, 0); }), "IPCException: Invalid instance index");
}

TEST(ReadCmd, PassesItsIndexTestOnAnEmptyVectorAndFindsNothing)
{
    Bench bench;
    std::shared_ptr<instance_msg> in;
    const auto start = Clock::now();
    EXPECT_FALSE(bench.dispatcher->ReadCmd(in, 0));
    EXPECT_GE(Clock::now() - start, 300ms);
    EXPECT_FALSE(in);
    EXPECT_LT(quickest(500ms, [&] { EXPECT_FALSE(bench.dispatcher->ReadCmd(in, 0)); }), 500ms);
}

TEST(ReadCmd, WaitsThreeHundredMilliseconds)
{
    Bench bench;
    std::shared_ptr<Info> info;
    bench.dispatcher->AddInstance(info);
    std::shared_ptr<instance_msg> in;
    const auto start = Clock::now();
    EXPECT_FALSE(bench.dispatcher->ReadCmd(in, 0));
    EXPECT_GE(Clock::now() - start, 300ms);
    EXPECT_LT(quickest(500ms, [&] { EXPECT_FALSE(bench.dispatcher->ReadCmd(in, 0)); }), 500ms);
}

TEST(ReadCmd, TakesWhatIsPendingAndWhatComesMeanwhile)
{
    Bench bench;
    std::shared_ptr<Info> info;
    bench.dispatcher->AddInstance(info);
    bench.command(message(0, 0, 5));
    ASSERT_TRUE(eventually([&] { return info->cmdPending.load(); }));
    std::shared_ptr<instance_msg> in;
    ASSERT_TRUE(bench.dispatcher->ReadCmd(in, 0));
    EXPECT_EQ(in->header().seq, 5u);
    EXPECT_FALSE(info->cmdPending);
    EXPECT_FALSE(info->cmdMsg);
    bench.dispatcher->ReturnMsg(in);
    bench.command(message(0, 0, 6));
    while (!bench.dispatcher->ReadCmd(in, 0)) {
    }
    EXPECT_EQ(in->header().seq, 6u);
}

TEST(ReadCmd, CallsAWakeWithoutACommandATimeout)
{
    Bench bench;
    std::shared_ptr<Info> info;
    bench.dispatcher->AddInstance(info);
    auto words = std::async(std::launch::async, [&] {
        std::shared_ptr<instance_msg> in;
        std::string text;
        while (text.empty())
            text = thrown([&] { bench.dispatcher->ReadCmd(in, 0); });
        return text;
    });
    EXPECT_EQ(notifying(std::move(words), info->cmdCond), "IPCAbortException: Timeout waiting for command");
}

// Message and abort come in one step, to a reader that waits already.
TEST(ReadCmd, AsksForTheAbortFirst)
{
    Bench bench;
    std::shared_ptr<Info> info;
    bench.dispatcher->AddInstance(info);
    for (int round = 0; round < 5; ++round) {
        info->aborted = 0;
        info->cmdPending = true;
        auto result = std::async(std::launch::async, [&] {
            std::shared_ptr<instance_msg> in;
            return bench.dispatcher->ReadCmd(in, 0);
        });
        {
            const auto lock = lockWhileTheReaderWaits(info->cmdMutex, info->cmdPending);
            info->aborted = 1;
            info->cmdMsg = std::make_shared<instance_msg>();
            info->cmdPending = true;
            info->cmdCond.notify_all();
        }
        EXPECT_FALSE(result.get());
        EXPECT_TRUE(info->cmdPending) << "the command is left where it was";
        EXPECT_TRUE(info->cmdMsg);
        info->cmdMsg.reset();
    }
}

TEST(ReadAck, AsksForTheMessageFirst)
{
    Bench bench;
    std::shared_ptr<Info> info;
    bench.dispatcher->AddInstance(info);
    info->ackPending = true;
    std::shared_ptr<instance_msg> in;
    auto result = std::async(std::launch::async, [&] { return bench.dispatcher->ReadAck(in, 60000, 0); });
    const auto sent = std::make_shared<instance_msg>();
    {
        const auto lock = lockWhileTheReaderWaits(info->ackMutex, info->ackPending);
        info->aborted = 1;
        info->ackMsg = sent;
        info->ackPending = true;
        info->ackCond.notify_all();
    }
    EXPECT_TRUE(result.get());
    EXPECT_EQ(in, sent);
    EXPECT_FALSE(info->ackPending);
}

TEST(ReadAck, WaitsForItsTimeout)
{
    Bench bench;
    std::shared_ptr<Info> info;
    bench.dispatcher->AddInstance(info);
    std::shared_ptr<instance_msg> in;
    auto start = Clock::now();
    EXPECT_FALSE(bench.dispatcher->ReadAck(in, 120, 0));
    EXPECT_GE(Clock::now() - start, 120ms);
    EXPECT_FALSE(bench.dispatcher->ReadAck(in, 0, 0));
    bench.acknowledge(message(kMsgAck, 0, 9));
    ASSERT_TRUE(eventually([&] { return info->ackPending.load(); }));
    EXPECT_TRUE(bench.dispatcher->ReadAck(in, 0, 0)) << "what is there already is taken without a wait";
    EXPECT_EQ(in->header().seq, 9u);
}

TEST(ReadAck, CallsAWakeWithoutAnAcknowledgeATimeoutInItsOwnWords)
{
    LogRecorder logs;
    Bench bench;
    std::shared_ptr<Info> info;
    bench.dispatcher->AddInstance(info);
    auto words = std::async(std::launch::async, [&] {
        std::shared_ptr<instance_msg> in;
        return thrown([&] { bench.dispatcher->ReadAck(in, 20000, 0); });
    });
    EXPECT_EQ(notifying(std::move(words), info->ackCond), "IPCAbortException: Ack timeout");
    expectLines(logs, "Ack Timeout", zuLogging::log_warn, "IPCDIS");
}

TEST(ReadAck, ReturnsFalseWhenTheInstanceIsAborted)
{
    Bench bench;
    std::shared_ptr<Info> info;
    bench.dispatcher->AddInstance(info);
    const auto start = Clock::now();
    auto result = std::async(std::launch::async, [&] {
        std::shared_ptr<instance_msg> in;
        return bench.dispatcher->ReadAck(in, 60000, 0);
    });
    while (result.wait_for(1ms) != std::future_status::ready)
        bench.dispatcher->AbortInstance(0, info);
    EXPECT_FALSE(result.get());
    EXPECT_LT(Clock::now() - start, 30s);
}

// A notification may come after its message was taken. It must not end the next wait.
TEST(ReadAck, OutlivesABelatedNotification)
{
    Bench bench;
    std::shared_ptr<Info> info;
    bench.dispatcher->AddInstance(info);
    ++info->ackNotices;
    info->ackPending = true;
    auto result = std::async(std::launch::async, [&] {
        std::shared_ptr<instance_msg> in;
        return thrown([&] { bench.dispatcher->ReadAck(in, 300, 0); });
    });
    {
        const auto lock = lockWhileTheReaderWaits(info->ackMutex, info->ackPending);
        info->ackCond.notify_one();
    }
    EXPECT_EQ(result.get(), "");
}

TEST(Transfer, GoesOnUnderAStreamOfCommandsFromAPeerThatDoesNotWait)
{
    LogRecorder logs;
    Bench bench;
    const auto instance = bench.addInstance(0);
    std::atomic<int> handled{0};
    instance->SetMsgHandler([&](void*, std::size_t, std::size_t& length, auto) {
        length = 0;
        ++handled;
    });
    for (int i = 0; i < 3000; ++i) {
        bench.command(message(0, 0, static_cast<std::uint32_t>(i)));
        while (bench.ack.receive(0)) {
        }
    }
    EXPECT_TRUE(eventually([&] { return handled > 0; }));
    const int before = handled;
    bench.command(message(0, 0, 1));
    EXPECT_TRUE(eventually([&] { return handled > before; }));
    EXPECT_FALSE(logs.contains("Instance Thread terminated"));
}

} // namespace
} // namespace zuTest
