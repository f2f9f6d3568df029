// The manager in both roles over real sockets and a real shared object: rendezvous, announces, ownership of
// dispatchers, and the process-wide factory.
#include "tests/unit/IPCPipe/pipe_support.h"

#include "GevTLBase/IPCPipe/MgrFactory.h"
#include "GevTLBase/IPCPipe/SharedObjectView.h"
#include "platform/process.h"
#include "platform/shared_memory.h"

#include <atomic>
#include <cstring>
#include <set>

namespace zuTest {
namespace {

using namespace zuIPCPipe;
using zuPlatform::SharedMemory;

TEST(SharedObject, HasNoPortUntilItsServerPutsOneThere)
{
    // What a client finds in the object of a server that is gone, while the next one starts.
    Bytes left(16, 0xA5);
    WriteHeader(*reinterpret_cast<SharedObject*>(left.data()));
    EXPECT_EQ(left, (Bytes{1, 0, 0, 0, 16, 0, 0, 0, 0, 0, 0xA5, 0xA5, 0, 0, 0, 0}));
}

Bytes sharedObject(std::size_t bytes = 2048)
{
    int error = 0;
    const auto object = SharedMemory::open(kSharedObjectName, SharedMemory::Access::readOnly, error);
    if (!object)
        return {};
    EXPECT_EQ(object->size(), 2048u);
    const auto* view = static_cast<const std::uint8_t*>(object->map(bytes));
    return view ? Bytes(view, view + bytes) : Bytes();
}

TEST(SharedObject, ReadsItsConstantsAndThePortThenZeros)
{
    Server server;
    Bytes expected(2048);
    setNumber(expected, 0, 4, 1);
    setNumber(expected, 4, 4, 16);
    setNumber(expected, 8, 2, server.port());
    EXPECT_EQ(sharedObject(), expected);
    EXPECT_NE(server.port(), 0);
    EXPECT_EQ(server.manager().GetSharedObject()->port, server.port());
    EXPECT_TRUE(server.manager().IsServer());
}

TEST(SharedObject, IsRewrittenByTheNextServerButForItsReservedBytes)
{
    const OwnNames names;
    int error = 0;
    {
        const auto left = SharedMemory::create(kSharedObjectName, 2048, error);
        ASSERT_TRUE(left);
        std::memset(left->map(2048), 0xA5, 2048);
    }
    const auto server = std::make_shared<CMgrServer>([](auto) {});
    Bytes expected(2048, 0xA5);
    setNumber(expected, 0, 4, 1);
    setNumber(expected, 4, 4, 16);
    setNumber(expected, 8, 2, MgrProbe::serverPort(*server));
    setNumber(expected, 12, 4, 0);
    EXPECT_EQ(sharedObject(), expected);
}

TEST(SharedObject, KeepsTheDeadServersPortUntilTheNextOne)
{
    const OwnNames names;
    std::uint16_t first = 0;
    {
        const auto server = std::make_shared<CMgrServer>([](auto) {});
        first = MgrProbe::serverPort(*server);
    }
    EXPECT_EQ(number(sharedObject(), 8, 2), first) << "nothing in it says that a server is alive";
    const auto client = MakeClientManager();
    EXPECT_EQ(MgrProbe::serverPort(*client), first);
    EXPECT_EQ(thrown([&] { Connect(*client, 20000); }), "IPCException: Socket recv failed");
    const auto server = std::make_shared<CMgrServer>([](auto) {});
    EXPECT_EQ(number(sharedObject(), 8, 2), MgrProbe::serverPort(*server));
}

TEST(Announce, IsAnsweredWithTheSameBytesAndThePortsOfANewDispatcher)
{
    Server server;
    RawPeer peer(server.port(), 4321);
    const auto dispatcher = MgrProbe::dispatcher(server.manager(), 0);
    ASSERT_TRUE(dispatcher);
    Bytes expected = peer.announce;
    setNumber(expected, 0, 4, 10000);
    setNumber(expected, 12, 2, dispatcher->CmdPort());
    setNumber(expected, 14, 2, dispatcher->AckPort());
    EXPECT_EQ(peer.reply, expected);
    EXPECT_EQ(dispatcher->Pid(), 4321u);
    EXPECT_NE(dispatcher->CmdPort(), dispatcher->AckPort());
}

TEST(Announce, MakesADispatcherEachTimeForOneProcess)
{
    Server server;
    RawPeer first(server.port());
    RawPeer second(server.port());
    const std::set<std::uint16_t> ports{first.rmtCmdPort, first.rmtAckPort, second.rmtCmdPort, second.rmtAckPort};
    EXPECT_EQ(ports.size(), 4u);
    EXPECT_EQ(MgrProbe::pending(server.manager()), 2u);
    EXPECT_EQ(first.connect(), 0u);
    EXPECT_EQ(MgrProbe::pending(server.manager()), 1u) << "the instance owns it now";
    EXPECT_EQ(second.connect(), 0u);
    EXPECT_EQ(MgrProbe::pending(server.manager()), 0u);
}

TEST(Announce, ComesBackUnchangedWithAStatusOfItsOwn)
{
    Server server;
    RawSocket client;
    for (const std::uint32_t status : {1u, 10000u, 0xFFFFFFFFu}) {
        Bytes data(16, 0x5A);
        setNumber(data, 0, 4, status);
        client.send(data, server.port());
        EXPECT_EQ(client.receive().value(), data);
    }
    EXPECT_EQ(MgrProbe::pending(server.manager()), 0u);
}

TEST(Announce, OfFewerThanFourBytesIsEchoedWithoutEffect)
{
    Server server;
    RawSocket client;
    Bytes buffer(16);
    setNumber(buffer, 0, 4, 10000);
    buffer[0] = 0x33;
    client.send({0x33}, server.port());
    EXPECT_EQ(client.receive().value(), buffer) << "what it does not reach is what stood there";
    buffer[0] = 0x44;
    buffer[1] = 0x55;
    buffer[2] = 0x66;
    client.send({0x44, 0x55, 0x66}, server.port());
    EXPECT_EQ(client.receive().value(), buffer);
    EXPECT_EQ(MgrProbe::pending(server.manager()), 0u);
}

TEST(Announce, ThatIsEmptyGetsNoAnswer)
{
    Server server;
    RawSocket client;
    client.send({}, server.port());
    Bytes data(16, 1);
    client.send(data, server.port());
    EXPECT_EQ(client.receive().value(), data) << "the first answer is the second datagram's";
}

TEST(Announce, ThatIsTooLongCountsByItsStart)
{
    Server server;
    RawSocket client;
    Bytes data(2000, 7);
    client.send(data, server.port());
    EXPECT_EQ(client.receive().value(), Bytes(16, 7));
    setNumber(data, 0, 4, 0);
    client.send(data, server.port());
    EXPECT_EQ(number(client.receive().value(), 0, 4), 10000u);
    EXPECT_EQ(MgrProbe::pending(server.manager()), 1u);
}

TEST(Announce, TakesTheRestOfAShortRequestFromTheLastOne)
{
    Server server;
    RawPeer peer(server.port(), 4321);
    RawSocket client;
    client.send({0, 0, 0, 0}, server.port());
    const Bytes reply = client.receive().value();
    EXPECT_EQ(Bytes(reply.begin(), reply.begin() + 12), Bytes(peer.reply.begin(), peer.reply.begin() + 12));
    EXPECT_EQ(MgrProbe::dispatcher(server.manager(), 1)->Pid(), 4321u);
}

TEST(Announce, ReusesTheManagersEntryOfADispatcherThatIsGone)
{
    Server server;
    {
        RawPeer peer(server.port());
        peer.connect();
        peer.command(message(kMsgControl | kMsgTerminate, 0));
        ASSERT_TRUE(peer.ack.receive());
    }
    server.dropInstances();
    ASSERT_TRUE(eventually([&] { return !MgrProbe::dispatcher(server.manager(), 0); }));
    RawPeer next(server.port());
    EXPECT_EQ(MgrProbe::dispatcherSlots(server.manager()), 1u);
    RawPeer another(server.port());
    EXPECT_EQ(MgrProbe::dispatcherSlots(server.manager()), 2u);
}

TEST(ServerManager, RefusesToAnnounceADispatcher)
{
    Server server;
    std::shared_ptr<CDispatcher> dispatcher;
    EXPECT_EQ(thrown([&] { server.manager().AnnounceDispatcher(dispatcher); }),
              "IPCException: Announce dispatcher called while running server");
}

TEST(ServerManager, HandsOutANewDispatcherEachTime)
{
    Server server;
    std::shared_ptr<CDispatcher> first;
    std::shared_ptr<CDispatcher> second;
    server.manager().GetDispatcher(first, 5);
    server.manager().GetDispatcher(second, 5);
    EXPECT_NE(first, second);
    EXPECT_EQ(first->Pid(), 5u);
}

TEST(ServerManager, KeepsAndForgetsDispatchersInItsPendingList)
{
    Server server;
    std::shared_ptr<CDispatcher> dispatcher;
    CMgrServer& manager = server.manager();
    manager.GetDispatcher(dispatcher, zuPlatform::currentProcessId());
    EXPECT_EQ(MgrProbe::pending(manager), 0u);
    manager.KeepDispatcher(dispatcher);
    manager.KeepDispatcher(dispatcher);
    EXPECT_EQ(MgrProbe::pending(manager), 1u);
    manager.ForgetDispatcher(dispatcher);
    manager.ForgetDispatcher(dispatcher);
    EXPECT_EQ(MgrProbe::pending(manager), 0u);
}

TEST(ServerManager, IsReachedByItsDispatchersForAsLongAsItLives)
{
    const OwnNames names;
    auto manager = std::make_shared<CMgrServer>([](auto) {});
    std::shared_ptr<CDispatcher> dispatcher;
    manager->GetDispatcher(dispatcher, zuPlatform::currentProcessId());
    const auto& keep = DispatcherProbe::keep(*dispatcher);
    const auto& forget = DispatcherProbe::forget(*dispatcher);
    keep(dispatcher);
    keep(dispatcher);
    EXPECT_EQ(MgrProbe::pending(*manager), 1u);
    forget(dispatcher);
    EXPECT_EQ(MgrProbe::pending(*manager), 0u);
    manager.reset();
    keep(dispatcher);
    EXPECT_EQ(dispatcher.use_count(), 1);
    forget(dispatcher);
}

TEST(ServerManager, StopsWhileANewInstanceCallbackWaitsForADispatcher)
{
    std::promise<void> entered;
    std::promise<void> go;
    std::shared_ptr<CDispatcher> another;
    Server server([&](const std::shared_ptr<IMsgSrc>&) {
        entered.set_value();
        go.get_future().wait();
        server.manager().GetDispatcher(another, 5);
    });
    RawPeer peer(server.port());
    peer.command(message(kMsgDispatcher | kMsgConnect, 0));
    entered.get_future().wait();
    auto dispatcher = MgrProbe::dispatcher(server.manager(), 0);
    {
        const EndsInTime stop([&] { server.manager().Stop(); });
        EXPECT_TRUE(eventually([&] { return !DispatcherProbe::running(*dispatcher); }));
        dispatcher.reset();
        go.set_value();
    }
    ASSERT_TRUE(eventually([&] { return MgrProbe::dispatcherSlots(server.manager()) == 1; }));
    another.reset();
}

TEST(ServerManager, ShutsAllDispatchersDownInStopAndAnswersAnnouncesAfterIt)
{
    Server server;
    RawPeer connected(server.port());
    connected.connect();
    RawPeer waiting(server.port());
    server.manager().Stop();
    EXPECT_EQ(server.disconnects(), 1u);
    EXPECT_EQ(MgrProbe::pending(server.manager()), 0u);
    EXPECT_EQ(MgrProbe::dispatcherSlots(server.manager()), 0u);
    EXPECT_FALSE(server.instance()->IsConnected());
    RawPeer late(server.port());
    EXPECT_EQ(number(late.reply, 0, 4), 10000u);
    EXPECT_EQ(late.connect(), 0u);
}

TEST(ServerManager, EndsItsInstancesWhenItEnds)
{
    Server server;
    RawPeer peer(server.port());
    peer.connect();
    server.end();
    EXPECT_EQ(server.disconnects(), 1u);
    EXPECT_FALSE(server.instance()->IsConnected());
}

TEST(ServerManager, ShutsDownADispatcherWhoseProcessIsGone)
{
    Server server;
    RawPeer living(server.port());
    living.connect();
    RawPeer dead(server.port(), 0x7FFFFFF0);
    dead.connect();
    EXPECT_TRUE(server.waitForDisconnects(1));
    ASSERT_TRUE(server.instance(2));
    EXPECT_TRUE(eventually([&] { return !server.instance(2)->IsConnected(); }));
    EXPECT_TRUE(server.instance(1)->IsConnected());
    living.command(message(0, 0, 1));
    EXPECT_TRUE(living.ack.receive());
}

TEST(ServerManager, IsNotMadeWithoutItsThreads)
{
    const OwnNames names;
    const NoMoreThreads none;
    EXPECT_THROW(std::make_shared<CMgrServer>([](auto) {}), boost::thread_resource_error);
}

TEST(ServerManager, LosesItsServerThreadToADispatcherWithoutThreads)
{
    Server server;
    RawSocket client;
    client.send(Bytes(16, 1), server.port());
    ASSERT_TRUE(client.receive());
    {
        const NoMoreThreads none;
        client.send(Bytes(16), server.port());
        EXPECT_FALSE(client.receive(500));
    }
    client.send(Bytes(16, 1), server.port());
    EXPECT_FALSE(client.receive(500)) << "more than one of its passes";
    EXPECT_EQ(MgrProbe::pending(server.manager()), 0u);
}

TEST(MgrFactory, MakesOneManagerAndIgnoresALaterCallback)
{
    const OwnNames names;
    std::atomic<int> first{0};
    std::atomic<int> second{0};
    const auto factory = GetMgrFactory();
    EXPECT_EQ(GetMgrFactory(), factory);
    std::shared_ptr<CMgr> manager;
    std::shared_ptr<CMgr> same;
    factory->GetManager(manager, 0, [&](auto) { ++first; });
    factory->GetManager(same, 5, [&](auto) { ++second; });
    EXPECT_EQ(manager, same);
    EXPECT_TRUE(manager->IsServer());
    RawPeer peer(MgrProbe::serverPort(*manager));
    peer.connect();
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 0);
    same.reset();
    ResetMgrFactory();
    EXPECT_NE(GetMgrFactory(), factory) << "and a new one is made on the next use";
    ResetMgrFactory();
}

TEST(MgrFactory, StopsItsManagerWhenItGoes)
{
    const OwnNames names;
    std::atomic<int> gone{0};
    std::shared_ptr<CMgr> manager;
    std::shared_ptr<IMsgSrc> instance;
    GetMgrFactory()->GetManager(manager, 0, [&](std::shared_ptr<IMsgSrc> source) {
        source->SetDisconnectHandler([&] { ++gone; });
        instance = std::move(source);
    });
    RawPeer peer(MgrProbe::serverPort(*manager));
    peer.connect();
    ResetMgrFactory();
    EXPECT_EQ(gone, 1);
    EXPECT_EQ(manager.use_count(), 1);
    const std::uint16_t port = MgrProbe::serverPort(*manager);
    manager.reset();
    RawSocket late;
    late.send(Bytes(16, 1), port);
    EXPECT_FALSE(late.receive(50));
}

} // namespace
} // namespace zuTest
