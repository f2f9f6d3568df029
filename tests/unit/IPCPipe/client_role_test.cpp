// The client role against servers of bare sockets: the manager that announces, the dispatcher that connects.
#include "tests/unit/IPCPipe/pipe_support.h"

#include "platform/process.h"
#include "platform/shared_memory.h"

#include <cstring>

namespace zuTest {
namespace {

using namespace zuIPCPipe;
using namespace std::chrono_literals;
using zuPlatform::SharedMemory;

TEST(ClientManager, NeedsAnObject)
{
    const OwnNames names;
    EXPECT_EQ(thrown([] { MakeClientManager(); }), "IPCException: Unable to create shared object");
    int error = 0;
    const auto object = SharedMemory::create(kSharedObjectName, 2048, error);
    ASSERT_TRUE(object);
    static_cast<std::uint8_t*>(object->map(2048))[8] = 1;
    const auto client = MakeClientManager();
    EXPECT_FALSE(client->IsServer());
    EXPECT_EQ(MgrProbe::serverPort(*client), 1);
}

TEST(ClientManager, CannotAnnounceWhileThereIsNoPort)
{
    const OwnNames names;
    int error = 0;
    const auto object = SharedMemory::create(kSharedObjectName, 2048, error);
    ASSERT_TRUE(object);
    const auto client = MakeClientManager();
    EXPECT_EQ(MgrProbe::serverPort(*client), 0);
    EXPECT_EQ(thrown([&] { Connect(*client, 20000); }), "IPCTimeoutException: Socket sendto failed");
}

TEST(ClientManager, IsNotHeldUpByAnObjectThatIsTooShort)
{
    const OwnNames names;
    int error = 0;
    const auto object = SharedMemory::create(kSharedObjectName, 8, error);
    ASSERT_TRUE(object);
    EXPECT_EQ(thrown([] { MakeClientManager(); }), "IPCException: Unable to create shared object");
}

TEST(ClientManager, AnnouncesADispatcherAndTakesItsPortsOver)
{
    Server server;
    const auto client = MakeClientManager();
    std::shared_ptr<CDispatcher> dispatcher;
    client->GetDispatcher(dispatcher, 77);
    ASSERT_TRUE(dispatcher);
    EXPECT_EQ(dispatcher->Pid(), zuPlatform::currentProcessId()) << "whatever was asked for";
    const auto remote = MgrProbe::dispatcher(server.manager(), 0);
    EXPECT_EQ(remote->Pid(), zuPlatform::currentProcessId());
    instance_msg out;
    out.header().flags = kMsgDispatcher;
    EXPECT_EQ(thrown([&] { dispatcher->WriteCmd(out, CDispatcher::kNoIndex); }), "");
    EXPECT_EQ(MgrProbe::pending(*client), 0u);
}

TEST(ClientManager, FindsALiveDispatcherThatHasRoom)
{
    Server server;
    const auto client = MakeClientManager();
    std::shared_ptr<CDispatcher> first;
    client->GetDispatcher(first, 0);
    std::shared_ptr<CDispatcher> found;
    client->GetDispatcher(found, 0);
    EXPECT_EQ(found, first);
    client->GetDispatcher(found, zuPlatform::currentProcessId());
    EXPECT_EQ(found, first);
    client->GetDispatcher(found, 1);
    EXPECT_NE(found, first) << "another process's";
    found.reset();
    std::vector<std::shared_ptr<CDispatcher::InstanceInfo>> infos(30);
    for (auto& info : infos)
        first->AddInstance(info);
    client->GetDispatcher(found, 0);
    EXPECT_NE(found, first) << "thirty instances are its limit";
}

TEST(ClientManager, FailsWithoutAnAnswerToItsRequest)
{
    const OwnNames names;
    RawSocket nobody;
    int error = 0;
    const auto object = SharedMemory::create(kSharedObjectName, 2048, error);
    auto* bytes = static_cast<std::uint8_t*>(object->map(2048));
    const std::uint16_t port = nobody.port();
    std::memcpy(bytes + 8, &port, 2);
    const auto client = MakeClientManager();
    std::shared_ptr<CDispatcher> dispatcher;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(thrown([&] { client->GetDispatcher(dispatcher, 0); }), "IPCException: Socket recv failed");
    EXPECT_GE(std::chrono::steady_clock::now() - start, 300ms);
    EXPECT_FALSE(dispatcher);
    EXPECT_EQ(MgrProbe::dispatcherSlots(*client), 0u);

    const Bytes request = nobody.receive().value();
    ASSERT_EQ(request.size(), 16u);
    EXPECT_EQ(number(request, 0, 4), 0u);
    EXPECT_EQ(number(request, 4, 4), zuPlatform::currentProcessId());
    EXPECT_NE(number(request, 8, 2), 0u);
    EXPECT_NE(number(request, 10, 2), 0u);
    EXPECT_EQ(number(request, 12, 4), 0u);

    // The late answer to the first request is not taken for the answer to a second one.
    Bytes late = request;
    setNumber(late, 12, 4, 0x11111111);
    zuPlatform::SocketAddress address;
    MgrProbe::socket(*client)->getLocalAddress(address);
    nobody.send(late, address.port);
    const auto again = [&] {
        EXPECT_EQ(thrown([&] { client->GetDispatcher(dispatcher, 0); }), "IPCException: Socket recv failed");
    };
    again();
    EXPECT_LT(quickest(500ms, again), 500ms);
}

TEST(ClientDispatcher, EndsBothSidesByTerminate)
{
    Server server;
    const auto client = MakeClientManager();
    const auto source = Connect(*client, 20000);
    const auto dispatcher = DispatcherProbe::dispatcherOf(*source);
    EXPECT_TRUE(dispatcher->Client().Terminate(20000));
    EXPECT_FALSE(source->IsConnected());
    EXPECT_TRUE(server.waitForDisconnects(1));
    server.dropInstances();
    EXPECT_TRUE(eventually([&] { return !MgrProbe::dispatcher(server.manager(), 0); }));
    EXPECT_FALSE(dispatcher->Client().Terminate(0));
}

TEST(ClientDispatcher, TakesOnlyTheAcknowledgeOfItsOwnRequest)
{
    Bench bench;
    auto source = std::async(std::launch::async, [&] { return bench.dispatcher->Client().Connect(20000); });
    const Bytes request = bench.cmd.receive().value();
    EXPECT_EQ(request, message(0x102, 0, 1));
    bench.acknowledge(message(0x130, 50, 1)); // of a terminate
    bench.acknowledge(message(0x102, 50, 1)); // no acknowledge
    bench.acknowledge(message(0x122, 50, 9)); // of another request
    bench.acknowledge(message(0x122, 33, 1));
    const auto instance = source.get();
    ASSERT_TRUE(instance);
    EXPECT_EQ(DispatcherProbe::slot(*bench.dispatcher, 0)->remoteIndex, 33u);
    Bytes data{1};
    instance->Post(data.data(), 1);
    EXPECT_EQ(bench.cmd.receive().value(), message(kMsgNoAck, 33, 1, 0, {1}));
    bench.dispatcher->Shutdown();
}

TEST(ClientDispatcher, GivesItsSlotBackWhenNobodyAnswersAndSendsNothingMore)
{
    Bench bench;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(thrown([&] { bench.dispatcher->Client().Connect(150); }), "IPCTimeoutException: Wait for Ack failed");
    EXPECT_GE(std::chrono::steady_clock::now() - start, 150ms);
    EXPECT_EQ(bench.dispatcher->InstanceCount(), 0u);
    EXPECT_EQ(bench.cmd.receive().value(), message(0x102, 0, 1));
    EXPECT_FALSE(bench.cmd.receive(0)) << "the peer's index is not known: an end sent to it could hit another";
    EXPECT_FALSE(bench.dispatcher->Client().Connect(20000)) << "without a connection the peer's dispatcher is gone";
    EXPECT_FALSE(bench.cmd.receive(0));
}

TEST(ClientDispatcher, StaysInUseBesideALiveConnectionAndIgnoresALateAnswer)
{
    Bench bench;
    const auto connect = [&] {
        return std::async(std::launch::async, [&] { return bench.dispatcher->Client().Connect(20000); });
    };
    auto first = connect();
    EXPECT_EQ(bench.cmd.receive().value(), message(0x102, 0, 1));
    bench.acknowledge(message(0x122, 5, 1));
    const auto anchor = first.get();
    ASSERT_TRUE(anchor);
    EXPECT_EQ(thrown([&] { bench.dispatcher->Client().Connect(50); }), "IPCTimeoutException: Wait for Ack failed");
    EXPECT_EQ(bench.cmd.receive().value(), message(0x102, 1, 2));
    auto third = connect();
    EXPECT_EQ(bench.cmd.receive().value(), message(0x102, 1, 3));
    bench.acknowledge(message(0x122, 6, 2)); // comes too late for the second
    bench.acknowledge(message(0x122, 7, 3));
    EXPECT_TRUE(third.get());
    EXPECT_EQ(DispatcherProbe::slot(*bench.dispatcher, 1), nullptr) << "the connection was dropped at once";
    bench.dispatcher->Shutdown();
    EXPECT_FALSE(bench.dispatcher->Client().Connect(20000));
}

} // namespace
} // namespace zuTest
