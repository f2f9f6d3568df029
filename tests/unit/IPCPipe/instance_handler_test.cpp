// An instance's own thread against a peer of bare sockets: handlers, their acknowledges, and what they can do to it.
#include "tests/unit/IPCPipe/instance_support.h"

#include "GevTLBase/IPCPipe/TagMsg.h"
#include "tests/support/log_lines.h"

#include <atomic>

namespace zuTest {
namespace {

using namespace zuIPCPipe;

TEST(InstanceHandler, GetsPayloadCapacityStaleLengthAndAnExtensionBoundToTheCommand)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    std::atomic<std::size_t> capacity{0};
    std::atomic<std::size_t> entryLength{99};
    instance->SetMsgHandler(
        [&](void* data, std::size_t size, std::size_t& length, boost::function<void(unsigned)> extend) {
            capacity = size;
            entryLength = length;
            extend(777);
            auto* bytes = static_cast<std::uint8_t*>(data);
            bytes[0] = static_cast<std::uint8_t>(bytes[0] + 1);
            length = 1;
        });
    bench.command(message(0x400, 0, 31, 0, {4, 5}));
    EXPECT_EQ(bench.ack.receive().value(), message(kMsgExtend, 7, 31, 777));
    EXPECT_EQ(bench.ack.receive().value(), message(0x400 | kMsgAck, 7, 31, 0, {5}));
    EXPECT_EQ(capacity, 2024u);
    EXPECT_EQ(entryLength, 0u) << "the buffer's last use was none";
}

TEST(InstanceHandler, IsAcknowledgedThoughItThrew)
{
    LogRecorder logs;
    Bench bench;
    const auto instance = bench.addInstance(7);
    instance->SetMsgHandler([](void*, std::size_t, std::size_t& length, auto) {
        length = 3;
        throw std::runtime_error("out of order");
    });
    bench.command(message(0, 0, 1, 0, {4, 5, 6, 7}));
    EXPECT_EQ(bench.ack.receive().value(), message(kMsgAck, 7, 1, 0, {4, 5, 6}));
    expectLines(logs, "Deliver caused exception: out of order", zuLogging::log_err, "IPCINST");
}

TEST(InstanceHandler, MayBeMissing)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    bench.command(message(0, 0, 1, 0, {4, 5}));
    EXPECT_EQ(bench.ack.receive().value(), message(kMsgAck, 7, 1));
}

TEST(InstanceHandler, EndsTheThreadByAReplyOver2024BytesAndLeavesTheInstanceDeaf)
{
    LogRecorder logs;
    Bench bench;
    const auto instance = bench.addInstance(7);
    instance->SetMsgHandler([](void*, std::size_t, std::size_t& length, auto) { length = 2025; });
    bench.command(message(0, 0, 1));
    EXPECT_TRUE(logs.waitFor("Instance Thread caught std::excepton: Buffer overflow"));
    EXPECT_TRUE(logs.waitFor("Instance Thread terminated"));
    EXPECT_FALSE(bench.ack.receive(0));
    EXPECT_TRUE(instance->IsConnected());
    expectLines(logs, "Instance Thread caught std::excepton: Buffer overflow", zuLogging::log_warn, "IPCINST");
    expectLines(logs, "Instance Thread terminated", zuLogging::log_info, "IPCINST");
}

TEST(InstanceHandler, LetsAnInterruptionThroughToTheThread)
{
    LogRecorder logs;
    Bench bench;
    const auto instance = bench.addInstance(7);
    instance->SetMsgHandler([](void*, std::size_t, std::size_t&, auto) { throw boost::thread_interrupted(); });
    bench.command(message(0, 0, 1));
    EXPECT_TRUE(logs.waitFor("Instance Thread caught boost::thread interrupted"));
    EXPECT_TRUE(logs.waitFor("Instance Thread terminated"));
    expectLines(logs, "Instance Thread caught boost::thread interrupted", zuLogging::log_warn, "IPCINST");
    EXPECT_FALSE(bench.ack.receive(0));
}

TEST(InstanceHandler, LogsAnAcknowledgeThatCannotBeSentAndGoesOn)
{
    LogRecorder logs;
    Bench bench;
    const auto instance = bench.addInstance(7);
    bench.dispatcher->SetRemotePorts(bench.cmd.port(), 0);
    bench.command(message(0, 0, 1));
    EXPECT_TRUE(logs.waitFor("Failure sending WriteAck: Socket sendto failed"));
    expectLines(logs, "Failure sending WriteAck: Socket sendto failed", zuLogging::log_err, "IPCINST");
    bench.dispatcher->SetRemotePorts(bench.cmd.port(), bench.ack.port());
    bench.command(message(0, 0, 2));
    EXPECT_EQ(number(bench.ack.receive().value(), 8, 4), 2u);
}

TEST(InstanceHandler, StaysConnectedBesideASecondOneUntilTheLatestIsCleared)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    std::atomic<int> first{0};
    std::atomic<int> second{0};
    instance->SetMsgHandler([&](void*, std::size_t, std::size_t&, auto) { ++first; });
    instance->SetMsgHandler([&](void*, std::size_t, std::size_t&, auto) { ++second; });
    bench.command(message(0, 0, 1));
    ASSERT_TRUE(bench.ack.receive());
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 1);
    instance->ClearMsgHandler();
    bench.command(message(0, 0, 1));
    ASSERT_TRUE(bench.ack.receive());
    EXPECT_EQ(first, 2) << "the earlier one cannot be reached any more";
    EXPECT_EQ(second, 1);
    std::atomic<int> gone{0};
    instance->SetDisconnectHandler([&] { gone += 1; });
    instance->SetDisconnectHandler([&] { gone += 10; });
    instance->ClearDisconnectHandler();
    bench.dispatcher->Shutdown();
    EXPECT_EQ(gone, 1);
}

TEST(InstanceHandler, MaySendOnItsOwnInstance)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    instance->SetMsgHandler([&](void* data, std::size_t, std::size_t& length, auto) {
        Bytes question{9};
        length = 1;
        instance->Send(question.data(), 1, data, length, 20000);
    });
    bench.command(message(0, 0, 5, 0, {1}));
    EXPECT_EQ(bench.cmd.receive().value(), message(0, 7, 1, 0, {9}));
    bench.acknowledge(message(kMsgAck, 0, 1, 0, {8}));
    EXPECT_EQ(bench.ack.receive().value(), message(kMsgAck, 7, 5, 0, {8}));
}

TEST(InstanceThread, AReplyThatGrowsPastThePayloadStaysWithinTheBuffersStorage)
{
    LogRecorder logs;
    Bench bench;
    const auto instance = bench.addInstance(7);
    std::promise<std::uint64_t> used;
    instance->SetMsgHandler([&](void* data, std::size_t capacity, std::size_t& length, auto) {
        CTagMsg<std::uint32_t> reply(data, capacity, length);
        reply.ClearTags();
        const Bytes filler(2012, 0xAB);
        EXPECT_TRUE(reply.AddBinary(0x40000001, filler.data(), filler.size()));
        EXPECT_TRUE(reply.AddBinary(0x40000002, filler.data(), 12));
        length = static_cast<std::size_t>(reply.UsedLength());
        used.set_value(length);
    });
    bench.command(message(0, 0, 5));
    EXPECT_EQ(used.get_future().get(), TagLayout::storage);
    EXPECT_TRUE(logs.waitFor("Instance Thread caught std::excepton: Buffer overflow"));
}

} // namespace
} // namespace zuTest
