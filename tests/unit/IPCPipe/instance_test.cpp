// An instance against a peer of bare sockets: what it sends, how long it waits, and what its handlers can do to it.
#include "GevTLBase/IPCPipe/TagMsg.h"
#include "tests/unit/IPCPipe/pipe_support.h"

#include "tests/support/recording_target.h"

#include <atomic>
#include <cstring>
#include <sstream>
#include <thread>

namespace zuTest {
namespace {

using namespace zuIPCPipe;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

std::string pointerText(const void* pointer)
{
    std::ostringstream text;
    text << pointer;
    return text.str();
}

/// A Send on a thread of its own.
struct PendingSend {
    PendingSend(CInstance& instance, Bytes data, std::size_t room, std::uint32_t timeout = 20000)
        : payload(std::move(data)), reply(room, 0xEE), replyLength(room),
          words(std::async(std::launch::async, [this, &instance, timeout] {
              return thrown([&] { instance.Send(payload.data(), payload.size(), reply.data(), replyLength, timeout); });
          }))
    {
    }
    Bytes payload;
    Bytes reply;
    std::size_t replyLength;
    std::future<std::string> words;
};

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

TEST(InstanceSend, CapsAReplyLengthAt2024WithStaleBytesBehindTheReply)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    // The one buffer that the acknowledge thread will use next but one.
    PendingSend send(*instance, {1}, 4000);
    ASSERT_TRUE(bench.cmd.receive());
    bench.acknowledge(message(kMsgAck, 0, 1, 0, {5, 6}));
    EXPECT_EQ(send.words.get(), "");
    EXPECT_EQ(send.replyLength, 2024u);
    EXPECT_EQ(send.reply[0], 5);
    EXPECT_EQ(send.reply[1], 6);
    EXPECT_EQ(send.reply[2], 0) << "what the buffer held";
    EXPECT_EQ(send.reply[2024], 0xEE) << "nothing behind the cap is touched";
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
    ASSERT_EQ(logs.count("Wait for Ack failed"), 1u);
    for (const Record& record : logs.records()) {
        if (record.text == "Wait for Ack failed") {
            EXPECT_EQ(record.level, zuLogging::log_err);
            EXPECT_EQ(record.logger.substr(0, 7), "IPCINST");
            EXPECT_NE(record.location, "");
        }
    }
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
    const auto start = Clock::now();
    auto words =
        std::async(std::launch::async, [&] { return thrown([&] { instance->SendFlags(kMsgControl | 0x1000); }); });
    EXPECT_EQ(bench.cmd.receive().value(), message(0x1008, 7));
    bench.acknowledge(message(kMsgExtend, 0, 0, 60000));
    EXPECT_EQ(words.get(), "IPCTimeoutException: Wait for Ack failed");
    EXPECT_LT(Clock::now() - start, 30s);
}

TEST(InstanceExtendTimeout, SendsTheNumberItIsGivenToTheAcknowledgePort)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    instance->ExtendTimeout(0xAABBCCDD, 1234);
    EXPECT_EQ(bench.ack.receive().value(), message(kMsgExtend, 7, 0xAABBCCDD, 1234));
}

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
    EXPECT_EQ(logs.count("Deliver caused exception: out of order"), 1u);
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
    for (const Record& record : logs.records()) {
        if (record.text == "Instance Thread caught std::excepton: Buffer overflow") {
            EXPECT_EQ(record.level, zuLogging::log_warn);
        }
    }
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
    EXPECT_FALSE(bench.ack.receive(0));
}

TEST(InstanceHandler, EndsOnAnInterruptionWhileItWaitsForACommand)
{
    LogRecorder logs;
    Bench bench;
    const auto instance = bench.addInstance(7);
    DispatcherProbe::interruptInstance(*instance);
    EXPECT_TRUE(logs.waitFor("Instance Thread caught boost::thread interrupted"));
}

TEST(InstanceHandler, LogsAnAcknowledgeThatCannotBeSentAndGoesOn)
{
    LogRecorder logs;
    Bench bench;
    const auto instance = bench.addInstance(7);
    bench.dispatcher->SetRemotePorts(bench.cmd.port(), 0);
    bench.command(message(0, 0, 1));
    EXPECT_TRUE(logs.waitFor("Failure sending WriteAck: Socket sendto failed"));
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

TEST(InstanceDisconnect, TellsThePeerAndLogsItsSteps)
{
    LogRecorder logs;
    Bench bench;
    auto instance = bench.addInstance(7);
    const std::string name = pointerText(instance.get());
    ASSERT_TRUE(logs.waitFor("zuIPCPipe::CInstance::ThreadProc " + name));
    std::atomic<int> gone{0};
    instance->SetDisconnectHandler([&] { ++gone; });
    auto done = std::async(std::launch::async, [&] { instance->Disconnect(); });
    EXPECT_EQ(bench.cmd.receive().value(), message(0x18, 7));
    bench.acknowledge(message(0x38, 0));
    done.get();
    EXPECT_FALSE(instance->IsConnected());
    EXPECT_EQ(gone, 0) << "who disconnects is not told";
    EXPECT_FALSE(DispatcherProbe::slot(*bench.dispatcher, 0));
    const std::vector<std::string> expected{"zuIPCPipe::CInstance::ThreadProc " + name,
                                            "zuIPCPipe::CInstance::Disconnect " + name,
                                            "Waiting for instance thread to terminate ", "Instance Thread terminated",
                                            "Waiting for instance thread terminated"};
    EXPECT_EQ(logs.texts("IPCINST"), expected);
}

TEST(InstanceDisconnect, GoesOnWithoutAnAnswerAfterHalfASecond)
{
    LogRecorder logs;
    Bench bench;
    const auto instance = bench.addInstance(7);
    const auto start = Clock::now();
    instance->Disconnect();
    EXPECT_GE(Clock::now() - start, 500ms);
    EXPECT_EQ(logs.count("SendFlags failed: Wait for Ack failed"), 1u);
}

TEST(InstanceDisconnect, ReleasesAgainWhenCalledTwiceAndHitsAYoungerInstance)
{
    Bench bench;
    auto first = bench.addInstance(7);
    const auto other = bench.addInstance(8);
    bench.acknowledge(message(0x38, 0));
    first->Disconnect();
    EXPECT_EQ(bench.dispatcher->InstanceCount(), 1u);
    const auto younger = bench.addInstance(9);
    ASSERT_EQ(DispatcherProbe::indexOf(*younger), 0u);
    EXPECT_TRUE(DispatcherProbe::slot(*bench.dispatcher, 0));
    while (bench.cmd.receive(0)) {
    }
    first->Disconnect();
    EXPECT_FALSE(bench.cmd.receive(0)) << "nothing is sent a second time";
    EXPECT_EQ(bench.dispatcher->InstanceCount(), 1u);
    EXPECT_FALSE(DispatcherProbe::slot(*bench.dispatcher, 0)) << "and the younger one has lost its place";
    EXPECT_TRUE(younger->IsConnected());
    first.reset();
    EXPECT_EQ(bench.dispatcher->InstanceCount(), 0u) << "the destructor did the same once more";
    std::size_t length = 0;
    EXPECT_EQ(thrown([&] { younger->Send(nullptr, 0, nullptr, length, 10); }),
              "IPCException: Invalid instance vector id");
}

TEST(InstanceAbort, TellsTheHandlerOnceAndGivesUpSlotAndDispatcher)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    std::atomic<int> gone{0};
    instance->SetDisconnectHandler([&] { ++gone; });
    instance->Abort();
    EXPECT_EQ(gone, 1);
    EXPECT_FALSE(instance->IsConnected());
    EXPECT_FALSE(DispatcherProbe::dispatcherOf(*instance));
    EXPECT_EQ(bench.dispatcher->InstanceCount(), 0u);
    instance->Abort();
    instance->Release();
    EXPECT_EQ(gone, 1);
    EXPECT_EQ(bench.dispatcher->InstanceCount(), 0u);
}

TEST(InstanceAbort, EndsASendThatWaits)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    const auto start = Clock::now();
    PendingSend send(*instance, {1}, 1, 60000);
    ASSERT_TRUE(bench.cmd.receive());
    bench.dispatcher->Shutdown();
    EXPECT_NE(send.words.get(), "");
    EXPECT_LT(Clock::now() - start, 50s);
}

TEST(InstanceAbort, CallsAHandlerThatFailedAgain)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    const auto other = bench.addInstance(8);
    std::atomic<int> gone{0};
    std::atomic<int> otherGone{0};
    instance->SetDisconnectHandler([&] {
        if (++gone == 1)
            throw std::runtime_error("not yet");
    });
    other->SetDisconnectHandler([&] { ++otherGone; });
    EXPECT_EQ(thrown([&] { bench.dispatcher->Shutdown(); }), "std::exception: not yet");
    EXPECT_EQ(otherGone, 1) << "the instances behind it are ended all the same";
    EXPECT_EQ(thrown([&] { bench.dispatcher->Shutdown(); }), "");
    EXPECT_EQ(gone, 2);
    EXPECT_EQ(otherGone, 1);
}

} // namespace
} // namespace zuTest
