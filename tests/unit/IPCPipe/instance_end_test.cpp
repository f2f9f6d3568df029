// The ends of an instance: by this side, by its dispatcher, by its peer.
#include "tests/unit/IPCPipe/instance_support.h"

#include "tests/support/log_lines.h"

#include <atomic>

namespace zuTest {
namespace {

using namespace zuIPCPipe;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

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
    expectLines(logs, expected[0], zuLogging::log_info, "IPCINST");
    expectLines(logs, expected[1], zuLogging::log_info, "IPCINST");
    expectLines(logs, "Waiting for instance thread to terminate ", zuLogging::log_warn, "IPCINST");
    expectLines(logs, "Waiting for instance thread terminated", zuLogging::log_warn, "IPCINST");
    expectLines(logs, "Instance Thread terminated", zuLogging::log_info, "IPCINST");
}

TEST(InstanceDisconnect, GoesOnWithoutAnAnswerAfterHalfASecond)
{
    LogRecorder logs;
    Bench bench;
    const auto instance = bench.addInstance(7);
    const auto start = Clock::now();
    instance->Disconnect();
    EXPECT_GE(Clock::now() - start, 500ms);
    expectLines(logs, "Wait for Ack failed", zuLogging::log_err, "IPCINST");
    expectLines(logs, "SendFlags failed: Wait for Ack failed", zuLogging::log_warn, "IPCINST");
    const auto again = [&] { bench.addInstance(7)->Disconnect(); };
    EXPECT_LT(quickest(800ms, again), 800ms);
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

TEST(InstanceAbort, LeavesTheDestructorNothingToRelease)
{
    Bench bench;
    auto aborted = bench.addInstance(7);
    const auto other = bench.addInstance(8);
    aborted->Abort();
    EXPECT_EQ(bench.dispatcher->InstanceCount(), 1u);
    const auto younger = bench.addInstance(9);
    ASSERT_EQ(DispatcherProbe::indexOf(*younger), 0u);
    aborted.reset();
    EXPECT_EQ(bench.dispatcher->InstanceCount(), 2u);
    EXPECT_TRUE(DispatcherProbe::slot(*bench.dispatcher, 0)) << "the younger one keeps the place";
    EXPECT_FALSE(bench.cmd.receive(0)) << "nor is the peer told";
}

TEST(InstanceAbort, AfterADisconnectTouchesNoYoungerInstance)
{
    Bench bench;
    const auto first = bench.addInstance(7);
    const auto other = bench.addInstance(8);
    auto gone = std::async(std::launch::async, [&] { first->Disconnect(); });
    ASSERT_TRUE(bench.cmd.receive());
    bench.acknowledge(message(0x38, 0));
    gone.get();
    const auto younger = bench.addInstance(9);
    ASSERT_EQ(DispatcherProbe::indexOf(*younger), 0u);
    first->Abort();
    EXPECT_EQ(DispatcherProbe::slot(*bench.dispatcher, 0)->aborted, 0u);
    EXPECT_EQ(bench.dispatcher->InstanceCount(), 2u);
    PendingSend send(*younger, {1}, 1);
    EXPECT_EQ(bench.cmd.receive().value(), message(0, 9, 1, 0, {1}));
    bench.acknowledge(message(kMsgAck, 0, 1, 0, {5}));
    EXPECT_EQ(send.words.get(), "");
    EXPECT_EQ(send.reply, Bytes{5});
}

TEST(InstanceRelease, LeavesTheDestructorNothingToRelease)
{
    Bench bench;
    auto released = bench.addInstance(7);
    const auto other = bench.addInstance(8);
    const std::weak_ptr<CInstance> thread = released; // which shares in the instance up to its end
    bench.command(message(kMsgControl | kMsgTerminate, 0));
    ASSERT_TRUE(bench.ack.receive());
    ASSERT_TRUE(eventually([&] { return bench.dispatcher->InstanceCount() == 1; }));
    const auto younger = bench.addInstance(9);
    ASSERT_EQ(DispatcherProbe::indexOf(*younger), 0u);
    released.reset();
    ASSERT_TRUE(eventually([&] { return thread.expired(); }));
    EXPECT_EQ(bench.dispatcher->InstanceCount(), 2u);
    EXPECT_TRUE(DispatcherProbe::slot(*bench.dispatcher, 0));
    EXPECT_FALSE(bench.cmd.receive(0));
}

TEST(InstanceTerminate, LeavesTheThreadWithoutItsClosingLine)
{
    LogRecorder logs;
    Bench bench;
    auto instance = bench.addInstance(7);
    ASSERT_TRUE(logs.waitFor("zuIPCPipe::CInstance::ThreadProc " + pointerText(instance.get())));
    const std::weak_ptr<CInstance> thread = instance; // which shares in the instance up to its end
    bench.command(message(kMsgControl | kMsgTerminate, 0));
    ASSERT_TRUE(bench.ack.receive());
    ASSERT_TRUE(eventually([&] { return !DispatcherProbe::dispatcherOf(*instance); }));
    instance.reset();
    ASSERT_TRUE(eventually([&] { return thread.expired(); }));
    EXPECT_FALSE(logs.contains("Instance Thread terminated"));
}

TEST(InstanceTerminate, TellsTheHandlerBeforeThePeer)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    std::promise<bool> answered;
    std::atomic<bool> connected{true};
    instance->SetDisconnectHandler([&] {
        connected = instance->IsConnected();
        answered.set_value(bench.ack.receive(0).has_value()); // what was sent before is here already
    });
    bench.command(message(kMsgControl | kMsgTerminate, 0));
    EXPECT_FALSE(answered.get_future().get());
    EXPECT_FALSE(connected);
    EXPECT_EQ(bench.ack.receive().value(), message(0x38, 7));
}

TEST(InstanceTerminate, EndsTheThreadByAnAcknowledgeThatCannotBeSent)
{
    LogRecorder logs;
    Bench bench;
    const auto instance = bench.addInstance(7);
    std::atomic<int> gone{0};
    instance->SetDisconnectHandler([&] { ++gone; });
    bench.dispatcher->SetRemotePorts(bench.cmd.port(), 0); // nothing can be sent to port 0
    bench.command(message(kMsgControl | kMsgTerminate, 0));
    ASSERT_TRUE(logs.waitFor("Instance Thread terminated"));
    expectLines(logs, "Instance Thread caught std::excepton: Socket sendto failed", zuLogging::log_warn, "IPCINST");
    EXPECT_EQ(gone, 1);
    EXPECT_FALSE(instance->IsConnected());
    EXPECT_TRUE(DispatcherProbe::slot(*bench.dispatcher, 0)) << "the later steps are left out";
    EXPECT_EQ(bench.dispatcher->InstanceCount(), 1u);
    bench.dispatcher->Shutdown();
    EXPECT_EQ(gone, 1);
    EXPECT_EQ(bench.dispatcher->InstanceCount(), 0u);
}

TEST(InstanceAbort, EndsASendThatWaits)
{
    Bench bench;
    const auto instance = bench.addInstance(7);
    const auto info = DispatcherProbe::slot(*bench.dispatcher, 0);
    info->ackNotices = 1000; // wake-ups for nothing that the sender lets pass
    const auto start = Clock::now();
    PendingSend send(*instance, {1}, 1, 60000);
    ASSERT_TRUE(bench.cmd.receive());
    // A mark without a message is taken back by the sender under the mutex, which it then keeps until its wait.
    info->ackPending = true;
    ASSERT_TRUE(eventually([&] {
        info->ackCond.notify_all();
        return !info->ackPending;
    }));
    bench.dispatcher->Shutdown();
    EXPECT_EQ(send.words.get(), "IPCTimeoutException: Wait for Ack failed");
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
