// A dispatcher when the system refuses it a socket, a port, a send or a receive, by scripted sockets.
#include "tests/unit/IPCPipe/pipe_support.h"

#include "tests/support/fake_socket.h"
#include "tests/support/fake_thread.h"
#include "tests/support/log_lines.h"

#include <algorithm>
#include <cerrno>

namespace zuTest {
namespace {

using namespace zuIPCPipe;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using FakeSockets::Call;
using Kind = zuPlatform::ReceiveResult::Kind;

constexpr const char* toCommands = "0 sendTo 127.0.0.1:7001"; // from the acknowledge socket, which is opened first
constexpr const char* toAcknowledges = "0 sendTo 127.0.0.1:7002";

struct DispatcherRefused : testing::Test {
    DispatcherRefused()
    {
        FakeSockets::reset();
        FakeThreads::reset();
    }
    ~DispatcherRefused() override
    {
        if (dispatcher) {
            dispatcher->Shutdown();
            DispatcherProbe::join(*dispatcher);
        }
    }
    void make()
    {
        dispatcher = CDispatcher::Make({}, {}, 1);
        dispatcher->SetRemotePorts(zuPlatform::hostToNetwork16(7001), zuPlatform::hostToNetwork16(7002));
    }
    std::string refusal()
    {
        return thrown([&] { make(); });
    }

    LogRecorder logs;
    std::shared_ptr<CDispatcher> dispatcher;
    instance_msg out;
};

TEST_F(DispatcherRefused, NeedsAnAddressForItsFirstSocket)
{
    FakeSockets::fail(Call::bind, EADDRINUSE);
    EXPECT_EQ(refusal(), "IPCException: Socket bind failed");
    EXPECT_EQ(FakeSockets::opened(), 2u) << "both sockets are made before either is bound";
}

TEST_F(DispatcherRefused, NeedsToKnowThePortOfItsFirstSocket)
{
    FakeSockets::fail(Call::getLocalAddress, ENOBUFS);
    EXPECT_EQ(refusal(), "IPCException: Socket getsockname failed");
}

TEST_F(DispatcherRefused, DoesNotNoticeThatItsSecondSocketHasNoAddress)
{
    FakeSockets::fail(Call::bind, EADDRINUSE, 1, 1);
    ASSERT_EQ(refusal(), "");
    EXPECT_EQ(dispatcher->AckPort(), zuPlatform::hostToNetwork16(50000));
    EXPECT_EQ(dispatcher->CmdPort(), 0) << "what the unbound socket reports";
    EXPECT_EQ(FakeSockets::countCalls("1 getLocalAddress"), 1u);
    dispatcher->WriteCmd(out, CDispatcher::kNoIndex);
    EXPECT_EQ(FakeSockets::countCalls(toCommands), 1u);
    EXPECT_EQ(logs.texts("IPCDIS"), std::vector<std::string>{"CTOR Dispatcher\n"});
}

TEST_F(DispatcherRefused, DoesNotNoticeThatThePortOfItsSecondSocketIsUnknown)
{
    FakeSockets::fail(Call::getLocalAddress, ENOBUFS, 1, 1);
    ASSERT_EQ(refusal(), "");
    EXPECT_NE(dispatcher->AckPort(), 0);
    EXPECT_EQ(dispatcher->CmdPort(), 0);
    EXPECT_EQ(logs.texts("IPCDIS"), std::vector<std::string>{"CTOR Dispatcher\n"});
}

TEST_F(DispatcherRefused, LogsASocketThatCannotBeMadeAndGoesOn)
{
    FakeSockets::fail(Call::open, EMFILE, 1, 1);
    ASSERT_EQ(refusal(), "");
    expectLines(logs, "Failure creating socket", zuLogging::log_warn, "IPCDIS");
    expectLines(logs, "Unable to set socket to non blocking", zuLogging::log_warn, "IPCDIS");
    dispatcher->WriteAck(out, CDispatcher::kNoIndex);
    EXPECT_EQ(FakeSockets::countCalls(toAcknowledges), 1u);
    EXPECT_TRUE(eventually([&] { return FakeThreads::countSleeps(250) != 0; })) << "its thread does not spin";
}

TEST_F(DispatcherRefused, FailsAtTheBindOfAFirstSocketThatCouldNotBeMade)
{
    FakeSockets::fail(Call::open, EMFILE);
    EXPECT_EQ(refusal(), "IPCException: Socket bind failed");
    expectLines(logs, "Failure creating socket", zuLogging::log_warn, "IPCDIS");
}

TEST_F(DispatcherRefused, LogsEachSocketThatStaysBlockingAndGoesOn)
{
    FakeSockets::fail(Call::setNonBlocking, EINVAL, 2);
    ASSERT_EQ(refusal(), "");
    expectLines(logs, "Unable to set socket to non blocking", zuLogging::log_warn, "IPCDIS", 2);
    EXPECT_FALSE(logs.contains("Failure creating socket"));
    EXPECT_NE(dispatcher->CmdPort(), 0);
}

TEST_F(DispatcherRefused, TriesADatagramSevenTimesOverTwelveMilliseconds)
{
    make();
    const std::string words = "sendto returned error " + std::to_string(zuPlatform::wouldBlockError);
    FakeSockets::fail(Call::sendTo, zuPlatform::wouldBlockError, 7);
    auto start = Clock::now();
    EXPECT_EQ(thrown([&] { dispatcher->WriteCmd(out, CDispatcher::kNoIndex); }),
              "IPCSocketException: Socket sendto failed");
    EXPECT_GE(Clock::now() - start, 12ms);
    EXPECT_EQ(FakeSockets::countCalls(toCommands), 7u);
    expectLines(logs, words, zuLogging::log_warn, "IPCDIS", 7);

    EXPECT_EQ(FakeThreads::countSleeps(2), 6u) << "and none behind the last try";

    FakeSockets::fail(Call::sendTo, zuPlatform::wouldBlockError, 7);
    start = Clock::now();
    EXPECT_EQ(thrown([&] { dispatcher->WriteAck(out, CDispatcher::kNoIndex); }),
              "IPCSocketException: Socket sendto failed");
    EXPECT_GE(Clock::now() - start, 12ms);
    EXPECT_EQ(FakeSockets::countCalls(toAcknowledges), 7u);
    EXPECT_EQ(FakeThreads::countSleeps(2), 12u);
    expectLines(logs, words, zuLogging::log_warn, "IPCDIS", 14);
    EXPECT_TRUE(FakeSockets::sent().empty());
}

TEST_F(DispatcherRefused, SendsADatagramAtTheSeventhTry)
{
    make();
    FakeSockets::fail(Call::sendTo, zuPlatform::wouldBlockError, 6);
    EXPECT_EQ(thrown([&] { dispatcher->WriteCmd(out, CDispatcher::kNoIndex); }), "");
    EXPECT_EQ(FakeSockets::countCalls(toCommands), 7u);
    EXPECT_EQ(FakeSockets::sent().size(), 1u);
    EXPECT_EQ(FakeThreads::countSleeps(2), 6u);
    expectLines(logs, "sendto returned error " + std::to_string(zuPlatform::wouldBlockError), zuLogging::log_warn,
                "IPCDIS", 6);
}

TEST_F(DispatcherRefused, DoesNotTryAgainAfterAnyOtherError)
{
    make();
    FakeSockets::fail(Call::sendTo, ENETUNREACH);
    EXPECT_EQ(thrown([&] { dispatcher->WriteAck(out, CDispatcher::kNoIndex); }),
              "IPCSocketException: Socket sendto failed");
    EXPECT_EQ(FakeSockets::countCalls(toAcknowledges), 1u);
    expectLines(logs, "sendto returned error " + std::to_string(ENETUNREACH), zuLogging::log_warn, "IPCDIS");

    FakeSockets::fail(Call::sendTo, zuPlatform::wouldBlockError);
    FakeSockets::fail(Call::sendTo, ENETUNREACH);
    EXPECT_EQ(thrown([&] { dispatcher->WriteCmd(out, CDispatcher::kNoIndex); }),
              "IPCSocketException: Socket sendto failed");
    EXPECT_EQ(FakeSockets::countCalls(toCommands), 2u);
}

TEST_F(DispatcherRefused, AsksForTimeCriticalReceiversAndGoesOnWithout)
{
    const std::vector<zuPlatform::ThreadPriority> critical{zuPlatform::ThreadPriority::timeCritical};
    for (const bool granted : {true, false}) {
        FakeThreads::reset();
        FakeThreads::setGranted(granted);
        make();
        ASSERT_TRUE(eventually([] { return FakeThreads::named().size() == 2; }));
        auto threads = FakeThreads::named();
        std::sort(threads.begin(), threads.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
        EXPECT_EQ(threads[0].name, "zu-ack");
        EXPECT_EQ(threads[0].priorities, critical);
        EXPECT_EQ(threads[1].name, "zu-cmd");
        EXPECT_EQ(threads[1].priorities, critical);
        const std::size_t cmdSocket = FakeSockets::opened() - 1;
        FakeSockets::pushDatagram(message(kMsgDispatcher, 0), {}, cmdSocket);
        EXPECT_TRUE(FakeSockets::waitForSent(granted ? 1 : 2));
        std::shared_ptr<CDispatcher::InstanceInfo> info;
        const auto instance = CInstance::Make(dispatcher, dispatcher->AddInstance(info));
        instance->Start();
        ASSERT_TRUE(eventually([] { return FakeThreads::named().size() == 3; }));
        EXPECT_EQ(FakeThreads::named()[2].name, "zu-inst");
        EXPECT_TRUE(FakeThreads::named()[2].priorities.empty());
        instance->Abort();
        dispatcher->Shutdown();
        DispatcherProbe::join(*dispatcher);
    }
}

TEST_F(DispatcherRefused, LooksFourTimesASecondWhetherItStillRuns)
{
    make();
    EXPECT_TRUE(FakeSockets::waitForCall("0 receive 250", 2));
    EXPECT_TRUE(FakeSockets::waitForCall("1 receive 250", 2));
    for (const std::string& call : FakeSockets::calls())
        EXPECT_TRUE(call.find("receive") == std::string::npos || call.find("receive 250") == 2) << call;
}

TEST_F(DispatcherRefused, LeavesItsSpinForABufferWhenItIsShutDown)
{
    make();
    ASSERT_TRUE(eventually([&] { return DispatcherProbe::poolSize(*dispatcher) == 0; }));
    std::shared_ptr<CDispatcher::InstanceInfo> info;
    const std::uint64_t index = dispatcher->AddInstance(info);
    dispatcher->ReleaseInstance(index);
    // Each costs its thread the buffer, so that neither can leave one to the other at the end.
    FakeSockets::pushDatagram(message(kMsgAck, 0), {}, 0);
    FakeSockets::pushDatagram(message(0, 0), {}, 1);
    ASSERT_TRUE(eventually([] {
        const auto threads = FakeThreads::named();
        return std::count_if(threads.begin(), threads.end(), [](const auto& one) { return one.yields > 50; }) == 2;
    }));
    const EndsInTime end([&] {
        dispatcher->Shutdown();
        DispatcherProbe::join(*dispatcher);
    });
}

TEST_F(DispatcherRefused, TellsAFailedWaitFromAFailedReceive)
{
    make();
    const auto socket = zuPlatform::DatagramSocket::open();
    const std::size_t number = FakeSockets::opened() - 1;
    FakeSockets::pushReceive({Kind::waitFailed, -1, ENOMEM}, number);
    EXPECT_EQ(thrown([&] { dispatcher->ReceiveMsg(socket, out, 1); }), "IPCException: Socket select failed");
    EXPECT_EQ(logs.texts("IPCDIS"), std::vector<std::string>{"CTOR Dispatcher\n"}) << "which is not logged";
    FakeSockets::pushReceive({Kind::receiveFailed, -1, ECONNRESET}, number);
    EXPECT_EQ(thrown([&] { dispatcher->ReceiveMsg(socket, out, 1); }), "IPCException: Socket recvfrom failed");
    expectLines(logs, "recvfrom failed with " + std::to_string(ECONNRESET), zuLogging::log_err, "IPCDIS");
    FakeSockets::pushReceive({Kind::notReady, 0, 0}, number);
    EXPECT_FALSE(dispatcher->ReceiveMsg(socket, out, 1));
    EXPECT_FALSE(dispatcher->ReceiveMsg(socket, out, 1)) << "nothing came";
    FakeSockets::pushDatagram({}, {}, number);
    EXPECT_TRUE(dispatcher->ReceiveMsg(socket, out, 1)) << "an empty datagram counts";
}

} // namespace
} // namespace zuTest
