// The manager in both roles when the system refuses it something, and its server thread pass by pass, by scripted
// sockets and shared objects.
#include "tests/unit/IPCPipe/pipe_support.h"

#include "tests/support/fake_process_exists.h"
#include "tests/support/fake_shared_memory.h"
#include "tests/support/fake_socket.h"
#include "tests/support/log_lines.h"

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <tuple>

namespace zuTest {
namespace {

using namespace zuIPCPipe;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using FakeSockets::Call;
using Kind = zuPlatform::ReceiveResult::Kind;

constexpr std::size_t managerSocket = 0; // the first that is opened
constexpr const char* serverPass = "0 receive 300";

struct ManagerScripted : testing::Test {
    ManagerScripted()
    {
        FakeSockets::reset();
        FakeSharedMemory::reset();
        FakeProcesses::reset();
    }
    static std::shared_ptr<CMgrServer> server()
    {
        return std::make_shared<CMgrServer>([](auto) {});
    }
    static std::string refusal()
    {
        return thrown([] { server(); });
    }
    /// A request of this status, for the manager at `managerSocket`.
    static void request(std::uint32_t status, const zuPlatform::SocketAddress& from = client)
    {
        Bytes data(16, 0x5A);
        setNumber(data, 0, 4, status);
        FakeSockets::pushDatagram(data, from, managerSocket);
    }
    /// The announce of a process; the dispatcher made for it has the next two sockets, that for commands second.
    static void announce(std::uint32_t pid)
    {
        Bytes data(16);
        setNumber(data, 4, 4, pid);
        FakeSockets::pushDatagram(data, client, managerSocket);
    }
    static constexpr zuPlatform::SocketAddress client = zuPlatform::loopbackAt(zuPlatform::hostToNetwork16(7000));

    LogRecorder logs;
};

TEST_F(ManagerScripted, NeedsAnAddress)
{
    FakeSockets::fail(Call::bind, EADDRINUSE);
    EXPECT_EQ(refusal(), "IPCException: Socket bind failed");
}

TEST_F(ManagerScripted, NeedsToKnowItsPort)
{
    FakeSockets::fail(Call::getLocalAddress, ENOBUFS);
    EXPECT_EQ(refusal(), "IPCException: getsockname failed");
}

TEST_F(ManagerScripted, LooksAtNoResultBeforeTheBind)
{
    FakeSockets::fail(Call::open, EMFILE);
    EXPECT_EQ(refusal(), "IPCException: Socket bind failed");
    FakeSockets::fail(Call::setNonBlocking, EINVAL);
    EXPECT_EQ(refusal(), "");
}

TEST_F(ManagerScripted, NeedsItsSharedObject)
{
    FakeSharedMemory::fail(FakeSharedMemory::Call::create, EACCES);
    EXPECT_EQ(refusal(), "IPCException: Unable to create shared object");
    EXPECT_EQ(FakeSharedMemory::calls(),
              (std::vector<std::string>{"open write Global\\zuGevSvc", "create 2048 Global\\zuGevSvc"}));
}

TEST_F(ManagerScripted, WritesToAnObjectThatCannotBeMapped)
{
    FakeSharedMemory::fail(FakeSharedMemory::Call::map, ENOMEM);
    EXPECT_EXIT(server(), testing::KilledBySignal(SIGSEGV), "");
}

TEST_F(ManagerScripted, TellsAFailedWaitFromAFailedReceiveOfARequest)
{
    const auto manager = server();
    const auto socket = zuPlatform::DatagramSocket::open();
    const std::size_t number = FakeSockets::opened() - 1;
    MgrDatagram datagram{};
    zuPlatform::SocketAddress from;
    const auto receive = [&] { return manager->ReceiveRequest(socket, &datagram, 1, from); };
    FakeSockets::pushReceive({Kind::waitFailed, -1, ENOMEM}, number);
    EXPECT_EQ(thrown(receive), "IPCException: Socket select error");
    FakeSockets::pushReceive({Kind::receiveFailed, -1, ECONNRESET}, number);
    EXPECT_EQ(thrown(receive), "IPCException: Socket recvfrom failed");
    EXPECT_FALSE(receive()) << "nothing came";
    FakeSockets::pushDatagram({}, {}, number);
    EXPECT_FALSE(receive()) << "an empty datagram does not count";
    FakeSockets::pushDatagram({1}, client, number);
    EXPECT_TRUE(receive());
    EXPECT_EQ(from, client);
    EXPECT_EQ(logs.texts("IPCMGR"), std::vector<std::string>());
}

TEST_F(ManagerScripted, SaysAtEach32ndPassThatItsServerThreadIsAlive)
{
    constexpr std::size_t requests = 100;
    for (std::size_t i = 0; i < requests; ++i)
        request(1);
    auto manager = server();
    ASSERT_TRUE(FakeSockets::waitForSent(requests));
    manager.reset();
    // A pass without a datagram counts as well.
    const std::size_t passes = FakeSockets::countCalls(serverPass);
    EXPECT_GE(passes, requests);
    expectLines(logs, "Server thread still alive", zuLogging::log_info, "IPCMGR", passes / 32);
}

TEST_F(ManagerScripted, HandlesWhatStandsInTheBufferAfterAFailedReceive)
{
    const auto manager = server();
    FakeSockets::pushReceive({Kind::receiveFailed, -1, ECONNRESET}, managerSocket);
    ASSERT_TRUE(FakeSockets::waitForSent(1));
    Bytes initial(16);
    setNumber(initial, 0, 4, 10000);
    EXPECT_EQ(FakeSockets::sent()[0].data, initial);
    EXPECT_EQ(FakeSockets::sent()[0].to, zuPlatform::SocketAddress());
    request(77);
    ASSERT_TRUE(FakeSockets::waitForSent(2));
    FakeSockets::pushReceive({Kind::waitFailed, -1, ENOMEM}, managerSocket);
    ASSERT_TRUE(FakeSockets::waitForSent(3));
    EXPECT_EQ(FakeSockets::sent()[2].data, FakeSockets::sent()[1].data) << "once more, and to the same client";
    EXPECT_EQ(FakeSockets::sent()[2].to, client);
    EXPECT_EQ(FakeSockets::opened(), 1u) << "no dispatcher came of it";
}

/// The server thread is gone: what comes now is not taken, nor is anything asked for any more.
void expectDeaf()
{
    const std::size_t sent = FakeSockets::sent().size();
    ManagerScripted::request(1);
    EXPECT_FALSE(FakeSockets::waitForSent(sent + 1, 700ms)) << "more than two of its passes";
}

TEST_F(ManagerScripted, LosesItsServerThreadWithoutAWordToAnAnswerThatCannotBeSent)
{
    const auto manager = server();
    request(1);
    ASSERT_TRUE(FakeSockets::waitForSent(1));
    FakeSockets::fail(Call::sendTo, ENETUNREACH);
    request(1);
    ASSERT_TRUE(FakeSockets::waitForCall("0 sendTo 127.0.0.1:7000", 2));
    expectDeaf();
    EXPECT_EQ(logs.texts("IPCMGR"), std::vector<std::string>());
}

TEST_F(ManagerScripted, LosesItsServerThreadWithoutAWordToADispatcherThatCannotBind)
{
    const auto manager = server();
    request(1);
    ASSERT_TRUE(FakeSockets::waitForSent(1));
    FakeSockets::fail(Call::bind, EADDRINUSE);
    request(0);
    ASSERT_TRUE(FakeSockets::waitForCall("1 bind 127.0.0.1"));
    expectDeaf();
    EXPECT_EQ(logs.texts("IPCMGR"), std::vector<std::string>());
    EXPECT_EQ(MgrProbe::pending(*manager), 0u);
}

TEST_F(ManagerScripted, LooksForDeadProcessesEveryTwoSeconds)
{
    constexpr std::uint32_t pid = 11;
    const auto start = Clock::now();
    const auto manager = server();
    announce(pid);
    ASSERT_TRUE(FakeProcesses::waitForAsked(pid, 1));
    // From the start and not from the last one, which this thread may have noted late.
    EXPECT_GE(Clock::now() - start, 1990ms);
    std::size_t pass = 1;
    EXPECT_LT(quickest(
                  3s, [&] { ASSERT_TRUE(FakeProcesses::waitForAsked(pid, ++pass)); }, 5),
              3s);
    EXPECT_GE(Clock::now() - start, pass * 1990ms);
}

TEST_F(ManagerScripted, KeepsADeadProcessThatNeverConnectedUntilItStops)
{
    constexpr std::uint32_t pid = 11;
    FakeProcesses::setGone(pid);
    const auto manager = server();
    announce(pid);
    ASSERT_TRUE(FakeSockets::waitForSent(1));
    const std::weak_ptr<CDispatcher> dispatcher = MgrProbe::dispatcher(*manager, 0);
    ASSERT_TRUE(FakeProcesses::waitForAsked(pid, 3)) << "it is looked at in each pass";
    EXPECT_EQ(MgrProbe::pending(*manager), 1u);
    {
        const auto owned = dispatcher.lock();
        ASSERT_TRUE(owned);
        EXPECT_FALSE(DispatcherProbe::running(*owned));
    }
    EXPECT_EQ(FakeSockets::countCalls("1 close"), 1u);
    manager->Stop();
    EXPECT_EQ(MgrProbe::pending(*manager), 0u);
    EXPECT_TRUE(dispatcher.expired());
}

TEST_F(ManagerScripted, LooksAtTheOtherProcessesWhenADisconnectHandlerThrows)
{
    constexpr std::uint32_t throwing = 11;
    constexpr std::uint32_t gone = 12;
    constexpr std::uint32_t living = 13;
    // Who was told, and how often the first and the last process had been asked for by then.
    using Told = std::tuple<std::uint32_t, std::size_t, std::size_t>;
    std::mutex mutex;
    std::vector<Told> told;
    const auto tell = [&](std::uint32_t pid) {
        const std::lock_guard<std::mutex> lock(mutex);
        told.emplace_back(pid, FakeProcesses::asked(throwing), FakeProcesses::asked(living));
        return told.size();
    };
    const auto soFar = [&] {
        const std::lock_guard<std::mutex> lock(mutex);
        return told;
    };
    std::vector<std::shared_ptr<IMsgSrc>> instances;
    const auto manager = std::make_shared<CMgrServer>([&](auto source) { instances.push_back(std::move(source)); });
    std::size_t sent = 0;
    for (const std::uint32_t pid : {throwing, gone, living}) {
        announce(pid);
        ASSERT_TRUE(FakeSockets::waitForSent(++sent));
        FakeSockets::pushDatagram(message(kMsgDispatcher | kMsgConnect, 0), {}, FakeSockets::opened() - 1);
        ASSERT_TRUE(FakeSockets::waitForSent(++sent));
    }
    ASSERT_EQ(instances.size(), 3u);
    instances[0]->SetDisconnectHandler([&] {
        if (tell(throwing) > 1)
            return;
        // From here, so that no pass finds one of the two gone without the other.
        FakeProcesses::setGone(gone);
        throw std::runtime_error("once");
    });
    instances[1]->SetDisconnectHandler([&] { tell(gone); });
    FakeProcesses::setGone(throwing);

    ASSERT_TRUE(eventually([&] { return soFar().size() >= 3; }));
    const std::vector<Told> all = soFar();
    const std::size_t pass = std::get<1>(all[0]);
    const std::size_t asks = std::get<2>(all[0]);
    EXPECT_EQ(all, (std::vector<Told>{{throwing, pass, asks}, {gone, pass, asks}, {throwing, pass + 1, asks + 1}}));
    EXPECT_TRUE(FakeProcesses::waitForAsked(living, asks + 2)) << "and behind a handler that did not throw";
    EXPECT_TRUE(instances[2]->IsConnected());
}

struct ClientScripted : ManagerScripted {
    ClientScripted()
    {
        Bytes object(2048);
        setNumber(object, 8, 2, zuPlatform::hostToNetwork16(6000));
        FakeSharedMemory::put(kSharedObjectName, object);
        manager = MakeClientManager();
    }
    ~ClientScripted() override
    {
        FakeSockets::onSend({});
        if (dispatcher) {
            dispatcher->Shutdown();
            DispatcherProbe::join(*dispatcher);
        }
    }
    std::shared_ptr<CMgr> manager;
    std::shared_ptr<CDispatcher> dispatcher;
};

TEST_F(ClientScripted, FailsWhenItsRequestCannotBeSent)
{
    FakeSockets::fail(Call::sendTo, ENETUNREACH);
    EXPECT_EQ(thrown([&] { manager->GetDispatcher(dispatcher, 0); }), "IPCTimeoutException: Socket sendto failed");
    EXPECT_FALSE(dispatcher);
}

TEST_F(ClientScripted, DoesNotLookAtTheStatusOfAReply)
{
    for (const std::uint32_t status : {0u, 1u, 9999u, 0xFFFFFFFFu}) {
        FakeSockets::onSend([&](const SentDatagram& request) {
            Bytes reply = request.data;
            setNumber(reply, 0, 4, status);
            setNumber(reply, 12, 2, zuPlatform::hostToNetwork16(7001));
            setNumber(reply, 14, 2, zuPlatform::hostToNetwork16(7002));
            FakeSockets::pushDatagram(reply, request.to, managerSocket);
            return zuPlatform::SendResult{16, 0};
        });
        std::shared_ptr<CDispatcher> made;
        EXPECT_EQ(thrown([&] { manager->GetDispatcher(made, 0); }), "") << status;
        FakeSockets::onSend({});
        ASSERT_TRUE(made) << status;
        instance_msg out;
        made->WriteCmd(out, CDispatcher::kNoIndex);
        EXPECT_EQ(FakeSockets::sent().back().to, zuPlatform::loopbackAt(zuPlatform::hostToNetwork16(7001)));
        made->WriteAck(out, CDispatcher::kNoIndex);
        EXPECT_EQ(FakeSockets::sent().back().to, zuPlatform::loopbackAt(zuPlatform::hostToNetwork16(7002)));
        made->Shutdown();
        DispatcherProbe::join(*made);
    }
}

} // namespace
} // namespace zuTest
