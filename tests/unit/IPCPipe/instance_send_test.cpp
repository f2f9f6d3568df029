// What an instance sends to a peer of bare sockets, and how long it waits.
#include "tests/unit/IPCPipe/instance_support.h"

#include "tests/support/log_lines.h"

#include <algorithm>

namespace zuTest {
namespace {

using namespace zuIPCPipe;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

TEST(InstanceSend, SendsTheHeaderWithARunningNumberAndTakesTheReply)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    for (std::uint32_t seq = 1; seq <= 2; ++seq) {
        PendingSend send(*instance, {10, 11, 12}, 2);
        EXPECT_EQ(bench.cmd.receive().value(), message(0, 7, seq, 0, {10, 11, 12}));
        bench.acknowledge(message(kMsgAck, 0, seq, 0, {21, 22, 23}));
        EXPECT_EQ(send.words.get(), "");
        EXPECT_EQ(send.reply, (Bytes{21, 22}));
        EXPECT_EQ(send.replyLength, 2u);
    }
}

TEST(InstanceSend, SendsExactly2024BytesWholeAndOneMoreNotAtAll)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    Bytes data(2024);
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<std::uint8_t>(i * 7);
    {
        PendingSend send(*instance, data, 0);
        EXPECT_EQ(bench.cmd.receive().value(), message(0, 7, 1, 0, data));
        bench.acknowledge(message(kMsgAck, 0));
        EXPECT_EQ(send.words.get(), "");
    }
    data.push_back(1);
    PendingSend send(*instance, data, 0);
    EXPECT_EQ(bench.cmd.receive().value(), message(0, 7, 2)) << "the header alone";
    EXPECT_EQ(send.words.wait_for(50ms), std::future_status::timeout) << "and the wait all the same";
    bench.acknowledge(message(kMsgAck, 0));
    EXPECT_EQ(send.words.get(), "");
}

TEST(InstanceSend, TakesTheNextAcknowledgeWhateverItsNumber)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    PendingSend send(*instance, {1}, 1);
    ASSERT_TRUE(bench.cmd.receive());
    bench.acknowledge(message(kMsgAck, 0, 999, 0, {5}));
    EXPECT_EQ(send.words.get(), "");
    EXPECT_EQ(send.reply, Bytes{5});
}

TEST(InstanceSend, CopiesNothingIntoANullReply)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    std::size_t length = 55;
    auto done = std::async(std::launch::async, [&] { instance->Send(nullptr, 0, nullptr, length, 20000); });
    EXPECT_EQ(bench.cmd.receive().value(), message(0, 7, 1));
    bench.acknowledge(message(kMsgAck, 0, 1, 0, {5}));
    done.get();
    EXPECT_EQ(length, 55u);
}

TEST(InstanceSend, CapsAReplyLengthAt2024)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    PendingSend send(*instance, {1}, 4000);
    ASSERT_TRUE(bench.cmd.receive());
    bench.acknowledge(message(kMsgAck, 0, 1, 0, {5, 6}));
    EXPECT_EQ(send.words.get(), "");
    EXPECT_EQ(send.replyLength, 2024u);
    EXPECT_EQ(send.reply[0], 5);
    EXPECT_EQ(send.reply[1], 6);
    EXPECT_EQ(send.reply[2024], 0xEE) << "nothing behind the cap is touched";
}

TEST(InstanceSend, TakesTheBytesThatALongerAcknowledgeLeftInTheBuffer)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    ASSERT_TRUE(bench.poolBecomes(3));
    // With an empty pool the acknowledge thread's one buffer comes round at once.
    while (DispatcherProbe::takeFromPool(*bench.dispatcher)) {
    }
    {
        PendingSend send(*instance, {1}, 0);
        ASSERT_TRUE(bench.cmd.receive());
        bench.acknowledge(message(kMsgAck, 0, 1, 0, Bytes(100, 0x77)));
        ASSERT_EQ(send.words.get(), "");
    }
    PendingSend send(*instance, {1}, 103);
    ASSERT_TRUE(bench.cmd.receive());
    bench.acknowledge(message(kMsgAck, 0, 2, 0, {5, 6}));
    ASSERT_EQ(send.words.get(), "");
    Bytes expected(100, 0x77);
    expected[0] = 5;
    expected[1] = 6;
    expected.resize(103, 0);
    EXPECT_EQ(send.replyLength, 103u) << "the caller's value, whatever came";
    EXPECT_EQ(send.reply, expected);
}

TEST(InstanceSend, FailsWithoutAnAcknowledge)
{
    LogRecorder logs;
    Bench bench;
    const auto instance = bench.addInstance(7);
    const auto start = Clock::now();
    PendingSend send(*instance, {1}, 1, 150);
    EXPECT_EQ(send.words.get(), "IPCTimeoutException: Wait for Ack failed");
    EXPECT_GE(Clock::now() - start, 150ms);
    EXPECT_EQ(send.reply, Bytes{0xEE});
    expectLines(logs, "Wait for Ack failed", zuLogging::log_err, "IPCINST");
}

TEST(InstanceSend, WaitsAnewForAsLongAsAnExtensionSays)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    ASSERT_TRUE(bench.poolBecomes(3));
    const auto start = Clock::now();
    PendingSend send(*instance, {1}, 1, 15000);
    ASSERT_TRUE(bench.cmd.receive());
    bench.acknowledge(message(kMsgExtend, 0, 1, 100));
    EXPECT_EQ(send.words.get(), "IPCTimeoutException: Wait for Ack failed");
    EXPECT_GE(Clock::now() - start, 100ms);
    EXPECT_LT(Clock::now() - start, 14s) << "the shorter wait has taken the place of the first";
    EXPECT_TRUE(bench.poolBecomes(3));

    PendingSend again(*instance, {1}, 1, 10000);
    ASSERT_TRUE(bench.cmd.receive());
    for (int i = 0; i < 3; ++i) {
        bench.acknowledge(message(kMsgExtend, 0, 1, 60000));
        ASSERT_TRUE(eventually([&] { return !DispatcherProbe::slot(*bench.dispatcher, 0)->ackPending; }));
        EXPECT_EQ(again.words.wait_for(0ms), std::future_status::timeout);
    }
    bench.acknowledge(message(kMsgAck, 0, 1));
    EXPECT_EQ(again.words.get(), "");
}

TEST(InstanceSend, WaitsAnewAtEachExtension)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    ASSERT_TRUE(bench.poolBecomes(3));
    // With an empty pool the second one is not received before the first has been dealt with.
    while (DispatcherProbe::takeFromPool(*bench.dispatcher)) {
    }
    PendingSend send(*instance, {1}, 1, 60000);
    ASSERT_TRUE(bench.cmd.receive());
    bench.acknowledge(message(kMsgExtend, 0, 1, 60000));
    const auto second = Clock::now();
    bench.acknowledge(message(kMsgExtend, 0, 1, 100));
    EXPECT_EQ(send.words.get(), "IPCTimeoutException: Wait for Ack failed");
    EXPECT_GE(Clock::now() - second, 100ms);
    EXPECT_LT(Clock::now() - second, 40s) << "the second extension's time, and not the first's";
}

TEST(InstanceAwaitReply, GoesOnAfterAnExtensionThatIsOver)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    Bytes reply(1);
    std::size_t length = 1;
    for (int round = 1; round <= 2; ++round) {
        PendingSend send(*instance, {1}, 1);
        ASSERT_TRUE(bench.cmd.receive());
        bench.acknowledge(message(kMsgExtend, 0, 1, 1));
        EXPECT_EQ(send.words.get(), "IPCTimeoutException: Wait for Ack failed");
    }
    // A reply that is there already, and an extension that is over as well.
    bench.acknowledge(message(kMsgExtend, 0, 2, 1));
    EXPECT_EQ(thrown([&] { instance->AwaitReply(reply.data(), length, 20000); }),
              "IPCTimeoutException: Wait for Ack failed");
    bench.acknowledge(message(kMsgAck, 0, 2, 0, {5}));
    ASSERT_TRUE(eventually([&] { return DispatcherProbe::slot(*bench.dispatcher, 0)->ackPending.load(); }));
    EXPECT_TRUE(instance->AwaitReply(reply.data(), length, 1));
    EXPECT_EQ(reply, Bytes{5});
    EXPECT_FALSE(bench.cmd.receive(0)) << "nothing is sent for it";
}

TEST(InstanceAwaitReply, DoesNotGoOnAfterAWaitOfItsOwn)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    Bytes reply(1);
    std::size_t length = 1;
    const auto send = [&](std::uint32_t timeout) {
        return thrown([&] { instance->Send(reply.data(), 1, reply.data(), length, timeout); });
    };
    EXPECT_FALSE(instance->AwaitReply(reply.data(), length, 20000)) << "nothing was sent";
    EXPECT_EQ(send(1), "IPCTimeoutException: Wait for Ack failed");
    EXPECT_FALSE(instance->AwaitReply(reply.data(), length, 20000));

    ASSERT_TRUE(bench.cmd.receive());
    PendingSend extended(*instance, {1}, 1);
    ASSERT_TRUE(bench.cmd.receive());
    bench.acknowledge(message(kMsgExtend, 0, 2, 1));
    EXPECT_EQ(extended.words.get(), "IPCTimeoutException: Wait for Ack failed");
    EXPECT_EQ(thrown([&] { instance->AwaitReply(reply.data(), length, 1); }),
              "IPCTimeoutException: Wait for Ack failed");
    EXPECT_FALSE(instance->AwaitReply(reply.data(), length, 20000));
}

TEST(InstanceAwaitReply, DoesNotGoOnOnceDisconnected)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    {
        PendingSend send(*instance, {1}, 1);
        ASSERT_TRUE(bench.cmd.receive());
        bench.acknowledge(message(kMsgExtend, 0, 1, 1));
        EXPECT_EQ(send.words.get(), "IPCTimeoutException: Wait for Ack failed");
    }
    bench.command(message(kMsgControl | kMsgTerminate, 0));
    EXPECT_TRUE(eventually([&] { return !instance->IsConnected(); }));
    std::size_t length = 0;
    EXPECT_FALSE(instance->AwaitReply(nullptr, length, 20000));
}

TEST(InstanceSend, DropsWhatIsNeitherAnExtensionNorAnAcknowledge)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    ASSERT_TRUE(bench.poolBecomes(3));
    PendingSend send(*instance, {1}, 1);
    ASSERT_TRUE(bench.cmd.receive());
    bench.acknowledge(message(0, 0, 1, 0, {1}));
    EXPECT_TRUE(bench.poolBecomes(2)) << "dropped, not returned";
    EXPECT_TRUE(eventually([&] { return !DispatcherProbe::slot(*bench.dispatcher, 0)->ackPending; }));
    bench.acknowledge(message(kMsgAck, 0, 1, 0, {2}));
    EXPECT_EQ(send.words.get(), "");
    EXPECT_EQ(send.reply, Bytes{2});
    EXPECT_TRUE(bench.poolBecomes(2));
}

TEST(InstanceSend, PrefersTheExtensionInAMessageThatIsBoth)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    PendingSend send(*instance, {1}, 1);
    ASSERT_TRUE(bench.cmd.receive());
    bench.acknowledge(message(kMsgAck | kMsgExtend, 0, 1, 50));
    EXPECT_EQ(send.words.get(), "IPCTimeoutException: Wait for Ack failed");
}

TEST(InstanceSend, DoesNothingOnceDisconnected)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    bench.command(message(kMsgControl | kMsgTerminate, 0));
    ASSERT_TRUE(bench.ack.receive());
    EXPECT_TRUE(eventually([&] { return !DispatcherProbe::dispatcherOf(*instance); }));
    EXPECT_FALSE(instance->IsConnected());
    Bytes reply{1, 2};
    std::size_t length = 2;
    instance->Send(reply.data(), 2, reply.data(), length, 20000);
    EXPECT_EQ(reply, (Bytes{1, 2}));
    EXPECT_EQ(length, 2u);
    EXPECT_FALSE(instance->Post(reply.data(), 2));
    instance->SendFlags(kMsgControl);
    EXPECT_TRUE(instance->Ping()) << "nothing was sent, so nothing failed";
    EXPECT_FALSE(bench.cmd.receive(0));
}

TEST(InstancePost, SendsWithoutWaiting)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    Bytes data{3, 4};
    EXPECT_TRUE(instance->Post(data.data(), data.size()));
    EXPECT_EQ(bench.cmd.receive().value(), message(kMsgNoAck, 7, 1, 0, data));
    Bytes large(2025);
    EXPECT_TRUE(instance->Post(large.data(), large.size()));
    EXPECT_EQ(bench.cmd.receive().value(), message(kMsgNoAck, 7, 2));
    PendingSend send(*instance, {1}, 0);
    EXPECT_EQ(bench.cmd.receive().value(), message(0, 7, 3, 0, {1})) << "one running number for both";
    bench.acknowledge(message(kMsgAck, 0));
    EXPECT_EQ(send.words.get(), "");
}

TEST(InstancePing, FailsAfterHalfASecond)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    const auto start = Clock::now();
    EXPECT_FALSE(instance->Ping());
    EXPECT_GE(Clock::now() - start, 500ms);
    EXPECT_EQ(bench.cmd.receive().value(), message(0x88, 7));
    EXPECT_LT(quickest(750ms, [&] { EXPECT_FALSE(instance->Ping()); }), 750ms);
}

TEST(InstancePing, SucceedsIfAPeerAnswers)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    auto result = std::async(std::launch::async, [&] { return instance->Ping(); });
    EXPECT_EQ(bench.cmd.receive().value(), message(0x88, 7));
    bench.acknowledge(message(0xA8, 0));
    EXPECT_TRUE(result.get());
}

TEST(InstanceSendFlags, TakesNoTimeFromAnExtension)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    // A wait begun anew would last its own half second in each round. Without one a round takes as long only if the
    // extension itself was late, and then it tells nothing.
    constexpr int rounds = 20;
    constexpr auto limit = 400ms;
    Clock::duration shortest = Clock::duration::max();
    for (int round = 0; round < rounds && shortest >= limit; ++round) {
        std::string words;
        auto took = std::async(std::launch::async, [&] {
            const auto start = Clock::now();
            words = thrown([&] { instance->SendFlags(kMsgControl | 0x1000); });
            return Clock::now() - start;
        });
        EXPECT_EQ(bench.cmd.receive().value(), message(0x1008, 7));
        bench.acknowledge(message(kMsgExtend, 0, 0, 60000));
        const Clock::duration time = took.get();
        EXPECT_EQ(words, "IPCTimeoutException: Wait for Ack failed");
        ASSERT_LT(time, 30s);
        shortest = std::min(shortest, time);
    }
    EXPECT_LT(shortest, limit);
}

TEST(InstanceExtendTimeout, SendsTheNumberItIsGivenToTheAcknowledgePort)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    instance->ExtendTimeout(0xAABBCCDD, 1234);
    EXPECT_EQ(bench.ack.receive().value(), message(kMsgExtend, 7, 0xAABBCCDD, 1234));
}

} // namespace
} // namespace zuTest
