// A dispatcher's threads against a peer of bare sockets: what each kind of message does, and where the buffers go.
#include "tests/unit/IPCPipe/server_bench.h"

#include "tests/support/recording_target.h"

#include <atomic>

namespace zuTest {
namespace {

using namespace zuIPCPipe;

TEST(Dispatcher, HasTwoMessagesInCirculationAndThreeMoreForEachInstance)
{
    ServerBench bench;
    EXPECT_TRUE(bench.poolBecomes(0)) << "each thread holds one of the two";
    for (std::uint32_t i = 0; i < 4; ++i) {
        EXPECT_EQ(bench.connect(i), i);
        EXPECT_TRUE(bench.poolBecomes(3 * (i + 1)));
    }
    // 14 made. Trimmed to four for each of the instances left: 12, 8, 4, none.
    const std::size_t left[] = {12, 8, 4, 0};
    for (std::uint32_t i = 0; i < 4; ++i) {
        bench.terminate(i);
        EXPECT_EQ(bench.dispatcher->InstanceCount(), 3 - i);
        EXPECT_TRUE(bench.poolBecomes(left[i])) << DispatcherProbe::poolSize(*bench.dispatcher) << " after " << i;
    }
}

TEST(Dispatcher, AnswersConnectWithTheSameHeaderAndItsOwnIndex)
{
    ServerBench bench;
    bench.command(message(kMsgDispatcher | kMsgConnect, 77, 5, 9));
    EXPECT_EQ(bench.ack.receive().value(), message(0x122, 0, 5, 9));
    bench.command(message(kMsgDispatcher | kMsgConnect, 78));
    EXPECT_EQ(bench.ack.receive().value(), message(0x122, 1));
    EXPECT_EQ(DispatcherProbe::slot(*bench.dispatcher, 0)->remoteIndex, 77u);
    EXPECT_EQ(DispatcherProbe::slot(*bench.dispatcher, 1)->remoteIndex, 78u);
    EXPECT_EQ(bench.forgotten, 2) << "each Connect makes the manager let go";
    const std::lock_guard<std::mutex> lock(bench.mutex);
    ASSERT_EQ(bench.instances.size(), 2u);
    EXPECT_TRUE(bench.instances[0]->IsConnected());
}

TEST(Dispatcher, HandsACommandToItsInstanceAndItsReplyToThePeersAcknowledgePort)
{
    ServerBench bench;
    bench.connect(40);
    const Bytes payload{1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    bench.command(message(0, 0, 123, 0, payload));
    EXPECT_EQ(bench.ack.receive().value(), message(kMsgAck, 40, 123, 0, {1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_FALSE(bench.cmd.receive(0)) << "nothing goes to the command port";
}

TEST(Dispatcher, SendsAcknowledgesFromItsAcknowledgeSocket)
{
    ServerBench bench;
    bench.command(message(kMsgDispatcher, 1));
    Bytes buffer(64);
    zuPlatform::SocketAddress from;
    ASSERT_EQ(bench.ack.socket->receive(buffer.data(), buffer.size(), 20000, &from).count, 24);
    EXPECT_EQ(from, zuPlatform::loopbackAt(bench.dispatcher->AckPort()));
}

TEST(Dispatcher, GivesNoAnswerToAPostedCommand)
{
    ServerBench bench;
    bench.connect(40);
    bench.command(message(kMsgNoAck, 0, 1));
    bench.command(message(kMsgDispatcher, 0, 99));
    EXPECT_EQ(number(bench.ack.receive().value(), 8, 4), 99u) << "the only answer is the other message's";
    EXPECT_TRUE(bench.poolBecomes(3));
}

TEST(Dispatcher, AnswersADisconnectWithTheHeaderAlone)
{
    ServerBench bench;
    bench.connect(41);
    bench.command(message(kMsgControl | kMsgTerminate, 0, 0, 0, {9, 9, 9}));
    EXPECT_EQ(bench.ack.receive().value(), message(0x38, 41));
    EXPECT_TRUE(eventually([&] { return !DispatcherProbe::slot(*bench.dispatcher, 0); }));
}

TEST(Dispatcher, GivesNoAnswerToAnInstancePingAndLosesItsBuffer)
{
    ServerBench bench;
    bench.connect(41);
    ASSERT_TRUE(bench.poolBecomes(3));
    bench.command(message(kMsgControl | kMsgPing, 0));
    EXPECT_TRUE(bench.poolBecomes(2));
    EXPECT_TRUE(eventually([&] { return !DispatcherProbe::slot(*bench.dispatcher, 0)->cmdPending; }));
    bench.command(message(0, 0, 7));
    EXPECT_EQ(number(bench.ack.receive().value(), 8, 4), 7u);
    EXPECT_TRUE(bench.poolBecomes(2));
}

TEST(Dispatcher, EchoesAnyOtherDispatcherMessageUnchanged)
{
    ServerBench bench;
    // The length is the one that the buffer had before; the bytes behind a header are what stands in it.
    bench.command(message(kMsgDispatcher, 12345, 6, 7));
    EXPECT_EQ(bench.ack.receive().value(), message(kMsgDispatcher, 12345, 6, 7));
}

TEST(Dispatcher, WorksOnTheRestOfTheOldBufferWhenADatagramIsShorterThanAHeader)
{
    ServerBench bench;
    // With an empty pool the command thread's one buffer comes round at once.
    ASSERT_TRUE(bench.poolBecomes(0));
    bench.command(message(kMsgDispatcher, 12345, 6, 7));
    EXPECT_EQ(bench.ack.receive().value(), message(kMsgDispatcher, 12345, 6, 7));
    Bytes start = message(kMsgDispatcher, 0, 99, 0);
    start.resize(12); // up to the number
    bench.command(start);
    EXPECT_EQ(bench.ack.receive().value(), message(kMsgDispatcher, 12345, 99, 7));
    bench.command({});
    EXPECT_EQ(bench.ack.receive().value(), message(kMsgDispatcher, 12345, 99, 7)) << "an empty one is one too";
    bench.command({});
    EXPECT_EQ(bench.ack.receive().value(), message(kMsgDispatcher, 12345, 99, 7));
}

TEST(Dispatcher, LetsTheManagerForgetItBeforeTheCallbackAndAnswersAfterIt)
{
    std::atomic<Bench*> callersBench{nullptr};
    std::promise<void> returned;
    int forgottenBefore = -1;
    std::size_t poolBefore = 99;
    bool answeredBefore = true;
    Bench bench([&](std::shared_ptr<IMsgSrc>) {
        Bench& own = *callersBench;
        forgottenBefore = own.forgotten;
        poolBefore = DispatcherProbe::poolSize(*own.dispatcher);
        answeredBefore = own.ack.receive(0).has_value(); // what was sent before is here already
        returned.set_value();
    });
    callersBench = &bench;
    ASSERT_TRUE(bench.poolBecomes(0));
    bench.command(message(kMsgDispatcher | kMsgConnect, 5));
    returned.get_future().wait();
    EXPECT_EQ(number(bench.ack.receive().value(), 12, 4), 0x122u);
    EXPECT_EQ(forgottenBefore, 1);
    EXPECT_EQ(poolBefore, 0u) << "the instance's buffers come after the callback";
    EXPECT_FALSE(answeredBefore);
}

TEST(Dispatcher, KeepsTheStaleSendLengthInAnEchoAndInAConnectReply)
{
    ServerBench bench;
    ASSERT_TRUE(bench.poolBecomes(0));
    auto stale = std::make_shared<instance_msg>();
    stale->SetPayloadSize(6);
    stale->payload()[5] = 0xAB;
    DispatcherProbe::putToPool(*bench.dispatcher, stale);
    // The thread's own buffer goes round once; then comes the one with a length of its own.
    bench.command(message(kMsgDispatcher, 1));
    EXPECT_EQ(bench.ack.receive().value().size(), 24u);
    bench.command(message(kMsgDispatcher, 1));
    EXPECT_EQ(bench.ack.receive().value(), message(kMsgDispatcher, 1, 0, 0, {0, 0, 0, 0, 0, 0xAB}));
    bench.command(message(kMsgDispatcher, 1));
    EXPECT_EQ(bench.ack.receive().value().size(), 24u);
    bench.command(message(kMsgDispatcher | kMsgConnect, 1));
    EXPECT_EQ(bench.ack.receive().value(), message(0x122, 0, 0, 0, {0, 0, 0, 0, 0, 0xAB}));
}

TEST(Dispatcher, LetsTerminateDecideBeforePingAndConnect)
{
    ServerBench bench;
    bench.command(message(kMsgDispatcher | kMsgTerminate | kMsgPing | kMsgConnect, 3, 4, 5, {1}));
    EXPECT_EQ(bench.ack.receive().value(), message(0x1B2, 3, 4, 5));
    EXPECT_TRUE(eventually([&] { return !DispatcherProbe::running(*bench.dispatcher); }));
    EXPECT_TRUE(DispatcherProbe::stopped(*bench.dispatcher));
    EXPECT_EQ(bench.dispatcher->SlotCount(), 0u);
}

TEST(Dispatcher, LogsItsLifeAndATermination)
{
    LogRecorder logs;
    {
        ServerBench bench;
        EXPECT_FALSE(DispatcherProbe::stopped(*bench.dispatcher));
        bench.command(message(kMsgDispatcher | kMsgTerminate, 0));
        EXPECT_EQ(bench.ack.receive().value(), message(0x130, 0));
        DispatcherProbe::join(*bench.dispatcher);
    }
    const auto texts = logs.texts("IPCDIS");
    ASSERT_EQ(texts.size(), 4u);
    EXPECT_EQ(texts[0], "CTOR Dispatcher\n");
    EXPECT_EQ(texts[1], "Got Instance Terminate");
    EXPECT_TRUE(logs.contains("Dispatcher CmdThread Terminated"));
    EXPECT_TRUE(logs.contains("Dispatcher AckThread Terminated"));
    for (const Record& record : logs.records())
        EXPECT_EQ(record.level, zuLogging::log_info) << record.text;
}

TEST(Dispatcher, ReplacesACommandThatWasNotYetRead)
{
    ServerBench bench;
    bench.connect(40);
    std::promise<void> go;
    std::shared_future<void> gone = go.get_future().share();
    std::promise<void> entered;
    std::atomic<int> calls{0};
    {
        const std::lock_guard<std::mutex> lock(bench.mutex);
        bench.instances[0]->SetMsgHandler([&, gone](void*, std::size_t, std::size_t&, auto) {
            if (++calls == 1) {
                entered.set_value();
                gone.wait();
            }
        });
    }
    bench.command(message(0, 0, 1));
    entered.get_future().wait();
    ASSERT_TRUE(bench.poolBecomes(2));
    bench.command(message(0, 0, 2));
    ASSERT_TRUE(bench.poolBecomes(1));
    bench.command(message(0, 0, 3));
    // A message for the dispatcher passes through the same thread behind them.
    bench.command(message(kMsgDispatcher, 0, 50));
    EXPECT_EQ(number(bench.ack.receive().value(), 8, 4), 50u);
    go.set_value();
    EXPECT_EQ(number(bench.ack.receive().value(), 8, 4), 1u);
    EXPECT_EQ(number(bench.ack.receive().value(), 8, 4), 3u) << "the second gets no acknowledge";
    EXPECT_FALSE(bench.ack.receive(50));
    EXPECT_EQ(calls, 2);
    EXPECT_TRUE(bench.poolBecomes(3)) << "the replaced one went back";
}

TEST(Dispatcher, DropsACommandForAFreedSlotAndWithItABuffer)
{
    ServerBench bench;
    bench.connect(40);
    bench.connect(41);
    ASSERT_TRUE(bench.poolBecomes(6));
    bench.terminate(0);
    ASSERT_TRUE(bench.poolBecomes(4));
    bench.command(message(0, 0, 1));
    EXPECT_TRUE(bench.poolBecomes(3));
    // Past the end of the table the buffer is kept.
    bench.command(message(0, 2, 1));
    bench.command(message(0, 0xFFFFFFFF, 1));
    bench.command(message(kMsgDispatcher, 0, 51));
    EXPECT_EQ(number(bench.ack.receive().value(), 8, 4), 51u);
    EXPECT_TRUE(bench.poolBecomes(3));
}

TEST(Dispatcher, DropsAnAcknowledgeWithoutATakerAndWithItABuffer)
{
    ServerBench bench;
    bench.connect(40);
    ASSERT_TRUE(bench.poolBecomes(3));
    bench.acknowledge(message(kMsgAck, 5));
    EXPECT_TRUE(bench.poolBecomes(2));
    // One that replaces an unread one does not.
    bench.acknowledge(message(kMsgAck, 0, 1));
    EXPECT_TRUE(bench.poolBecomes(1));
    bench.acknowledge(message(kMsgAck, 0, 2));
    const auto info = DispatcherProbe::slot(*bench.dispatcher, 0);
    EXPECT_TRUE(eventually([&] {
        const boost::lock_guard<boost::mutex> lock(info->ackMutex);
        return info->ackMsg && info->ackMsg->header().seq == 2;
    }));
    EXPECT_TRUE(bench.poolBecomes(1));
}

TEST(Dispatcher, DropsAnUnreadDispatcherAcknowledgeWhenTheNextOneComes)
{
    ServerBench bench;
    bench.connect(40);
    ASSERT_TRUE(bench.poolBecomes(3));
    bench.acknowledge(message(kMsgDispatcher | kMsgAck, 0, 1));
    EXPECT_TRUE(bench.poolBecomes(2));
    bench.acknowledge(message(kMsgDispatcher | kMsgAck, 0, 2));
    EXPECT_TRUE(bench.poolBecomes(1)) << "released, and not returned";
}

TEST(Dispatcher, WaitsWithoutABufferUntilOneIsReturned)
{
    ServerBench bench;
    bench.connect(40);
    ASSERT_TRUE(bench.poolBecomes(3));
    std::vector<std::shared_ptr<instance_msg>> taken;
    for (int i = 0; i < 3; ++i)
        taken.push_back(DispatcherProbe::takeFromPool(*bench.dispatcher));
    bench.command(message(kMsgControl | kMsgPing, 0)); // takes the command thread's buffer out of circulation
    bench.command(message(kMsgDispatcher, 0, 60));
    EXPECT_FALSE(bench.ack.receive(100));
    DispatcherProbe::putToPool(*bench.dispatcher, taken.back());
    EXPECT_EQ(number(bench.ack.receive().value(), 8, 4), 60u);
}

TEST(Dispatcher, ShutsDownRepeatedlyAndFiresNothingTheSecondTime)
{
    ServerBench bench;
    bench.connect(40);
    std::atomic<int> disconnects{0};
    {
        const std::lock_guard<std::mutex> lock(bench.mutex);
        bench.instances[0]->SetDisconnectHandler([&] { ++disconnects; });
    }
    bench.dispatcher->Shutdown();
    EXPECT_EQ(disconnects, 1);
    EXPECT_FALSE(DispatcherProbe::slot(*bench.dispatcher, 0));
    bench.dispatcher->Shutdown();
    EXPECT_EQ(disconnects, 1);
    instance_msg late;
    EXPECT_EQ(thrown([&] { bench.dispatcher->WriteAck(late, CDispatcher::kNoIndex); }),
              "IPCSocketException: Socket sendto failed");
}

TEST(Dispatcher, DoesNotEnforceItsLimitOfInstances)
{
    ServerBench bench;
    for (std::uint32_t i = 0; i < 40; ++i)
        EXPECT_EQ(bench.connect(i + 100), i);
    EXPECT_EQ(bench.dispatcher->InstanceCount(), 40u);
    EXPECT_EQ(bench.dispatcher->MaxInstances(), 30u);
    for (std::uint32_t i = 0; i < 40; ++i) {
        bench.command(message(0, i, i));
        EXPECT_EQ(bench.ack.receive().value().at(20), i + 100);
    }
}

} // namespace
} // namespace zuTest
