// Ends that meet: disconnects against commands, shutdowns against everything, and last shares that are dropped on the
// pipe's own threads. What counts here is that everything ends, nothing ends twice, and others are served on.
#include "tests/unit/IPCPipe/pipe_support.h"

#include "tests/support/recording_target.h"

#include <atomic>
#include <thread>

namespace zuTest {
namespace {

using namespace zuIPCPipe;

bool answers(IMsgSrc& source, std::uint8_t value, std::uint32_t timeout = 20000)
{
    Bytes data{value};
    Bytes reply{0};
    std::size_t length = 1;
    source.Send(data.data(), 1, reply.data(), length, timeout);
    return reply[0] == value;
}

/// Everything ended, and a new client is served.
void expectServing(Server& server)
{
    const auto client = MakeClientManager();
    const auto source = Connect(*client, 20000);
    EXPECT_TRUE(answers(*source, 77));
    EXPECT_TRUE(server.instance());
}

TEST(Lifecycle, FortyInstancesLiveOnOneDispatcher)
{
    Server server;
    RawPeer peer(server.port());
    for (std::uint32_t i = 0; i < 40; ++i)
        ASSERT_EQ(peer.connect(i), i);
    for (std::uint32_t i = 0; i < 40; ++i) {
        peer.command(message(0, i, i));
        const Bytes reply = peer.ack.receive().value();
        EXPECT_EQ(number(reply, 20, 4), i);
    }
    peer.command(message(kMsgDispatcher | kMsgTerminate, 0));
    EXPECT_TRUE(server.waitForDisconnects(40));
    server.dropInstances();
    EXPECT_TRUE(eventually([&] { return !MgrProbe::dispatcher(server.manager(), 0); }));
    expectServing(server);
}

TEST(Lifecycle, FortyConnectionsOfOneClientSpreadOverTwoDispatchers)
{
    Server server;
    const auto client = MakeClientManager();
    std::vector<std::shared_ptr<IMsgSrc>> sources;
    for (int i = 0; i < 40; ++i)
        sources.push_back(Connect(*client, 20000));
    EXPECT_EQ(MgrProbe::dispatcherSlots(*client), 2u);
    for (std::size_t i = 0; i < sources.size(); ++i)
        EXPECT_TRUE(answers(*sources[i], static_cast<std::uint8_t>(i)));
    client->Stop();
}

TEST(Lifecycle, ADispatcherEndsOnItsOwnThreadByATerminateWithInstancesAlive)
{
    // The instances are its only owners, and give it up one by one while it goes through them.
    Server server;
    RawPeer peer(server.port());
    peer.connect();
    peer.connect();
    peer.command(message(kMsgDispatcher | kMsgTerminate, 0));
    ASSERT_TRUE(peer.ack.receive());
    EXPECT_TRUE(eventually([&] { return !MgrProbe::dispatcher(server.manager(), 0); }));
    EXPECT_EQ(server.disconnects(), 2u);
    EXPECT_FALSE(server.instance(1)->IsConnected());
    expectServing(server);
}

TEST(Lifecycle, ADispatcherEndsInTheConnectThatNobodyTakes)
{
    LogRecorder logs;
    const OwnNames names;
    std::atomic<int> connects{0};
    const auto manager = std::make_shared<CMgrServer>([&](auto) { ++connects; });
    for (int i = 1; i <= 3; ++i) {
        RawPeer peer(MgrProbe::serverPort(*manager));
        peer.command(message(kMsgDispatcher | kMsgConnect, 0));
        EXPECT_TRUE(peer.ack.receive());
        EXPECT_TRUE(logs.waitFor("Dispatcher CmdThread Terminated", static_cast<std::size_t>(i)));
        EXPECT_TRUE(logs.waitFor("Dispatcher AckThread Terminated", static_cast<std::size_t>(i)));
        EXPECT_FALSE(MgrProbe::dispatcher(*manager, 0));
    }
    EXPECT_EQ(connects, 3);
}

TEST(Lifecycle, AnInstanceMayBeDroppedByItsOwnHandler)
{
    LogRecorder logs;
    Server server([&](const std::shared_ptr<IMsgSrc>& source) {
        source->SetMsgHandler([&](void*, std::size_t, std::size_t& length, auto) {
            length = 0;
            server.dropInstances();
        });
    });
    RawPeer peer(server.port());
    peer.connect();
    ASSERT_TRUE(server.instance());
    peer.command(message(0, 0, 1));
    // The acknowledge of the command, then the disconnect that the destructor sends.
    EXPECT_EQ(number(peer.ack.receive().value(), 12, 4), kMsgAck);
    EXPECT_EQ(number(peer.cmd.receive().value(), 12, 4), kMsgControl | kMsgTerminate);
    peer.acknowledge(message(0x38, 0));
    EXPECT_TRUE(logs.waitFor("Waiting for instance thread terminated"));
    EXPECT_TRUE(logs.waitFor("Instance Thread terminated"));
    EXPECT_TRUE(eventually([&] { return !MgrProbe::dispatcher(server.manager(), 0); }));
    RawPeer next(server.port());
    EXPECT_EQ(next.connect(), 0u);
}

TEST(Lifecycle, AnInstanceMayBeDisconnectedByItsOwnHandler)
{
    Server server([&](const std::shared_ptr<IMsgSrc>& source) {
        source->SetMsgHandler([weak = std::weak_ptr<IMsgSrc>(source)](void*, std::size_t, std::size_t& length, auto) {
            length = 0;
            if (const auto self = weak.lock())
                self->Disconnect();
        });
    });
    RawPeer peer(server.port());
    peer.connect();
    peer.command(message(0, 0, 1));
    EXPECT_EQ(number(peer.cmd.receive().value(), 12, 4), kMsgControl | kMsgTerminate);
    peer.acknowledge(message(0x38, 0));
    EXPECT_TRUE(eventually([&] { return !server.instance()->IsConnected(); }));
    server.dropInstances();
    EXPECT_TRUE(eventually([&] { return !MgrProbe::dispatcher(server.manager(), 0); }));
}

TEST(Lifecycle, AnInstanceMayBeAbortedByItsOwnHandler)
{
    LogRecorder logs;
    Server server([&](const std::shared_ptr<IMsgSrc>& source) {
        source->SetMsgHandler([weak = std::weak_ptr<IMsgSrc>(source)](void*, std::size_t, std::size_t&, auto) {
            if (const auto self = weak.lock())
                DispatcherProbe::dispatcherOf(*self)->Shutdown();
        });
    });
    RawPeer peer(server.port());
    peer.connect();
    peer.command(message(0, 0, 1));
    EXPECT_TRUE(server.waitForDisconnects(1));
    EXPECT_TRUE(logs.waitFor("Failure sending WriteAck: Invalid instance index"));
    EXPECT_TRUE(logs.waitFor("Instance Thread terminated"));
    server.dropInstances();
    EXPECT_TRUE(eventually([&] { return !MgrProbe::dispatcher(server.manager(), 0); }));
}

TEST(Lifecycle, AnInstanceMayBeDroppedByItsDisconnectHandler)
{
    const OwnNames names;
    std::mutex mutex;
    std::shared_ptr<IMsgSrc> kept;
    std::atomic<int> gone{0};
    const auto manager = std::make_shared<CMgrServer>([&](std::shared_ptr<IMsgSrc> source) {
        source->SetDisconnectHandler([&] {
            ++gone;
            std::shared_ptr<IMsgSrc> dropped;
            const std::lock_guard<std::mutex> lock(mutex);
            dropped.swap(kept);
        });
        const std::lock_guard<std::mutex> lock(mutex);
        kept = std::move(source);
    });
    for (int i = 1; i <= 3; ++i) {
        RawPeer peer(MgrProbe::serverPort(*manager));
        peer.connect();
        if (i == 2)
            peer.command(message(kMsgDispatcher | kMsgTerminate, 0)); // by way of Abort, on the command thread
        else
            peer.command(message(kMsgControl | kMsgTerminate, 0)); // by way of Release, on its own
        EXPECT_TRUE(peer.ack.receive());
        EXPECT_TRUE(eventually([&] { return gone == i; }));
        EXPECT_TRUE(eventually([&] { return !MgrProbe::dispatcher(*manager, 0); }));
    }
}

TEST(Lifecycle, ADisconnectMeetsACommandInFlight)
{
    Server server;
    const auto client = MakeClientManager();
    const auto anchor = Connect(*client, 20000);
    for (int i = 0; i < 40; ++i) {
        auto source = Connect(*client, 20000);
        std::thread sender([source] {
            const std::string words = thrown([&] { answers(*source, 1, 100); });
            EXPECT_TRUE(words.empty() || words.find("IPC") == 0) << words;
        });
        if (i % 2 == 0)
            std::this_thread::yield();
        source->Disconnect();
        EXPECT_FALSE(source->IsConnected());
        sender.join();
    }
    EXPECT_TRUE(answers(*anchor, 5));
}

TEST(Lifecycle, BothSidesDisconnectAtOnce)
{
    Server server;
    const auto client = MakeClientManager();
    const auto other = MakeClientManager();
    const auto keeper = Connect(*client, 20000);
    const auto witness = Connect(*other, 20000);
    for (std::size_t i = 3; i < 9; ++i) {
        const auto source = Connect(*client, 20000);
        const auto remote = server.instance(i);
        ASSERT_TRUE(remote);
        std::thread disconnecting([&] { remote->Disconnect(); });
        source->Disconnect();
        disconnecting.join();
        EXPECT_FALSE(source->IsConnected());
        EXPECT_FALSE(remote->IsConnected());
    }
    // Not over the keeper: its dispatcher has counted each source out twice, so its pool may be dry until it connects.
    EXPECT_TRUE(answers(*witness, 5));
    EXPECT_TRUE(answers(*Connect(*client, 20000), 6));
}

TEST(Lifecycle, AShutdownMeetsTheTerminateOfThePeerAndTellsEachHandlerOnce)
{
    for (int round = 0; round < 20; ++round) {
        Server server;
        RawPeer peer(server.port());
        constexpr std::size_t count = 8;
        for (std::uint32_t i = 0; i < count; ++i)
            peer.connect(i);
        const auto dispatcher = MgrProbe::dispatcher(server.manager(), 0);
        std::thread first([&] { dispatcher->Shutdown(); });
        std::thread second([&] { dispatcher->Shutdown(); });
        for (std::uint32_t i = 0; i < count; ++i)
            peer.command(message(kMsgControl | kMsgTerminate, i));
        first.join();
        second.join();
        EXPECT_TRUE(server.waitForDisconnects(count));
        for (std::size_t i = 1; i <= count; ++i)
            EXPECT_TRUE(eventually([&] { return !DispatcherProbe::dispatcherOf(*server.instance(i)); }));
        EXPECT_EQ(server.disconnects(), count);
        EXPECT_EQ(dispatcher->InstanceCount(), 0u);
    }
}

TEST(Lifecycle, AShutdownMeetsConnectsAndLeavesNoInstanceBehind)
{
    for (int round = 0; round < 20; ++round) {
        Server server;
        RawPeer peer(server.port());
        peer.connect();
        const auto dispatcher = MgrProbe::dispatcher(server.manager(), 0);
        std::thread other([&] {
            for (int i = 0; i < 20; ++i)
                peer.command(message(kMsgDispatcher | kMsgConnect, 1));
        });
        dispatcher->Shutdown();
        other.join();
        DispatcherProbe::join(*dispatcher);
        EXPECT_EQ(dispatcher->InstanceCount(), 0u);
        EXPECT_EQ(server.disconnects(), server.instances());
        for (std::size_t i = 1; i <= server.instances(); ++i)
            EXPECT_FALSE(server.instance(i)->IsConnected());
    }
}

TEST(Lifecycle, AStopMeetsEverything)
{
    for (int round = 0; round < 8; ++round) {
        Server server;
        const auto client = MakeClientManager();
        std::atomic<bool> stop{false};
        std::vector<std::thread> threads;
        for (int i = 0; i < 3; ++i) {
            threads.emplace_back([&] {
                while (!stop) {
                    const std::string words = thrown([&] {
                        const auto source = Connect(*client, 200);
                        for (int n = 0; n < 20 && !stop; ++n) {
                            Bytes data{1};
                            std::size_t length = 1;
                            source->Send(data.data(), 1, data.data(), length, 200);
                        }
                    });
                    EXPECT_TRUE(words.empty() || words.find("IPC") == 0) << words;
                }
            });
        }
        // One that only announces, and one that dies.
        threads.emplace_back([&] {
            RawSocket socket;
            Bytes announce(16);
            setNumber(announce, 4, 4, 0x7FFFFFF0);
            setNumber(announce, 8, 2, socket.port());
            setNumber(announce, 10, 2, socket.port());
            while (!stop) {
                socket.send(announce, server.port());
                socket.receive(20);
            }
        });
        ASSERT_TRUE(server.instance());
        server.manager().Stop();
        stop = true;
        for (std::thread& thread : threads)
            thread.join();
        server.end();
        EXPECT_EQ(server.disconnects(), server.instances());
    }
}

TEST(Lifecycle, SeveralThreadsConnectAtOnceAndEachGetsItsOwnConnection)
{
    Server server;
    const auto client = MakeClientManager();
    constexpr int threads = 8;
    std::vector<std::future<bool>> results;
    for (int t = 0; t < threads; ++t) {
        results.push_back(std::async(std::launch::async, [&, t] {
            bool good = true;
            for (int i = 0; i < 4; ++i) {
                const auto source = Connect(*client, 20000);
                for (int n = 0; n < 10; ++n)
                    good = good && answers(*source, static_cast<std::uint8_t>(16 * t + n));
            }
            return good;
        }));
    }
    for (auto& result : results)
        EXPECT_TRUE(result.get());
    EXPECT_TRUE(server.waitForDisconnects(4 * threads));
}

TEST(Lifecycle, ManyConnectionsLeaveNoDispatcherBehind)
{
    Server server;
    const auto client = MakeClientManager();
    for (int i = 0; i < 200; ++i) {
        const auto source = Connect(*client, 20000);
        ASSERT_TRUE(answers(*source, static_cast<std::uint8_t>(i)));
    }
    EXPECT_TRUE(server.waitForDisconnects(200));
    server.dropInstances();
    EXPECT_TRUE(eventually([&] {
        for (std::size_t i = 0; i < MgrProbe::dispatcherSlots(server.manager()); ++i)
            if (MgrProbe::dispatcher(server.manager(), i))
                return false;
        return true;
    }));
    EXPECT_LE(MgrProbe::dispatcherSlots(server.manager()), 5u) << "entries of dead ones are used again";
}

} // namespace
} // namespace zuTest
