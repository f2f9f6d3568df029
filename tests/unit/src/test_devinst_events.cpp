// Life of a device instance, and what it tells its client unasked.
#include "devinst_support.h"

#include "GevTLBase/GevException.h"
#include "logging/logstate.h"

#include <gtest/gtest.h>

#include <thread>

using namespace zuTest;
using gevsim::Command;
using gevsim::Fault;
using std::chrono::milliseconds;

namespace {

Bytes consent() { return Build(EvtCcpLost | replyFlag).u8(TagSuccess, 1).done(); }

struct DevInstEvents : testing::Test {
    LogRecorder log;
    gevsim::Camera camera{"127.0.16.3", 0};
    std::shared_ptr<ScriptedClient> client = std::make_shared<ScriptedClient>();
    std::vector<zuGevDaemon::CDevInst*> gone, destroyed;
    bool heldWhenGone = true;
    long sharesWhenDestroyed = 0;
    std::unique_ptr<zuGevDaemon::CDevInst> instance = std::make_unique<zuGevDaemon::CDevInst>(
        client,
        [this](zuGevDaemon::CDevInst* i) {
            gone.push_back(i);
            heldWhenGone = camera.control().held();
        },
        [this](zuGevDaemon::CDevInst* i) {
            destroyed.push_back(i);
            sharesWhenDestroyed = client.use_count();
        });

    Bytes run(const Build& request) { return client->command(request); }
    /// Links with short waits, so that a loss is noticed soon.
    void link()
    {
        run(Build(CmdSetDestination).u32(TagDestIp, camera.ip()).u16(TagDestPort, camera.port()));
        run(Build(CmdSetAckTimeout).u32(TagAckTimeout, 50));
        run(Build(CmdLink).u32(TagLinkMode, 3));
        run(Build(CmdSetHeartbeat).u32(TagHeartbeatTimeout, 500));
    }
};

} // namespace

TEST_F(DevInstEvents, ConstructionIsLogged)
{
    const auto records = log.records();
    const std::string text =
        "New DevInst created 0x" + hexDigits(instance.get()) + " connected to IPC 0x" + hexDigits(client.get());
    const auto found = std::find_if(records.begin(), records.end(), [&](const Record& r) { return r.text == text; });
    ASSERT_NE(found, records.end());
    EXPECT_EQ(found->level, zuLogging::log_info);
    EXPECT_EQ(found->logger.substr(0, 7), "DevIns.");
}

TEST_F(DevInstEvents, DestructionUnlinksAndTells)
{
    link();
    auto* const address = instance.get();
    instance.reset();
    EXPECT_FALSE(camera.control().held());
    EXPECT_EQ(destroyed, std::vector{address});
    EXPECT_EQ(sharesWhenDestroyed, 1) << "the test's own: the client is let go before";
    EXPECT_TRUE(gone.empty());
    EXPECT_TRUE(
        log.contains("DevInst DTOR 0x" + hexDigits(address) + " connected to IPC 0x" + hexDigits(client.get())));
    EXPECT_EQ(client.use_count(), 1);
}

TEST_F(DevInstEvents, HandlersThatComeAfterDestructionDoNothing)
{
    const auto message = client->msgHandler;
    const auto disconnect = client->disconnectHandler;
    instance.reset();
    Bytes storage(TagLayout::storage, 0);
    std::size_t length = 5;
    message(storage.data(), 2024, length, [](unsigned) {});
    EXPECT_EQ(length, 5u);
    disconnect();
    EXPECT_TRUE(gone.empty());
}

TEST_F(DevInstEvents, EmptyFunctionObjectsThrow)
{
    auto lonely = std::make_shared<ScriptedClient>();
    zuGevDaemon::CDevInst other(lonely, {}, [](zuGevDaemon::CDevInst*) {});
    EXPECT_THROW(lonely->disconnectHandler(), boost::bad_function_call);

    auto* const unknown = new zuGevDaemon::CDevInst(lonely, {}, {});
    lonely->command(Build(CmdSetDestination).u32(TagDestIp, camera.ip()).u16(TagDestPort, camera.port()));
    lonely->command(Build(CmdLink).u32(TagLinkMode, 3));
    EXPECT_TRUE(camera.control().held());
    EXPECT_THROW(delete unknown, boost::bad_function_call);
    EXPECT_FALSE(camera.control().held());
    EXPECT_TRUE(log.contains("Exit heartbeat thread"));
}

TEST_F(DevInstEvents, DisconnectWithoutLinkDoesNotUnlink)
{
    client->disconnectHandler();
    EXPECT_EQ(gone, std::vector{instance.get()});
    for (const std::string& text : log.texts("GEVCTRL"))
        EXPECT_EQ(text.find("Unlink"), std::string::npos);
    EXPECT_TRUE(camera.received().empty());
}

TEST_F(DevInstEvents, DisconnectGivesTheCameraBack)
{
    link();
    EXPECT_TRUE(camera.control().held());
    client->disconnectHandler();
    EXPECT_FALSE(camera.control().held());
    EXPECT_EQ(gone, std::vector{instance.get()});
    EXPECT_FALSE(heldWhenGone) << "given back first";
}

TEST_F(DevInstEvents, MessagesAreTakenBeforeADisconnectIs)
{
    struct Client : ScriptedClient {
        void SetDisconnectHandler(DisconnectHandler handler) override
        {
            takesMessages = static_cast<bool>(msgHandler);
            ScriptedClient::SetDisconnectHandler(std::move(handler));
        }
        bool takesMessages = false;
    };
    const auto other = std::make_shared<Client>();
    zuGevDaemon::CDevInst made(other, {}, [](zuGevDaemon::CDevInst*) {});
    EXPECT_TRUE(other->takesMessages);
    EXPECT_TRUE(other->disconnectHandler);
}

namespace {

/// A linked camera without a heartbeat, and what a disconnect then writes to it.
struct DevInstGoodbye : DevInstEvents {
    void linkWith(std::uint32_t ackTimeout, std::uint32_t retries)
    {
        link();
        run(Build(CmdSetHeartbeat).u32(TagHeartbeatTimeout, 0));
        run(Build(CmdSetAckTimeout).u32(TagAckTimeout, ackTimeout));
        run(Build(CmdSetRetries).u32(TagRetries, retries));
        camera.clearLog();
    }
    void expectFreedBy(std::size_t datagrams)
    {
        const auto writes = camera.commands(Command::writeReg, gevsim::reg::ccp);
        EXPECT_EQ(writes.size(), datagrams);
        for (const auto& datagram : writes) {
            EXPECT_EQ(datagram.value(), 0u);
            EXPECT_EQ(datagram.id(), writes[0].id()) << "the same command";
        }
        EXPECT_FALSE(camera.control().held());
        EXPECT_EQ(gone, std::vector{instance.get()});
    }
};

} // namespace

TEST_F(DevInstGoodbye, MakesAllAttemptsOfItsLink)
{
    linkWith(30, 8);
    camera.inject(Fault::drop(5).only(Command::writeReg));
    client->disconnectHandler();
    expectFreedBy(6);
}

TEST_F(DevInstGoodbye, WaitsAsLongAsTheCameraAsks)
{
    linkWith(300, 3);
    camera.inject(Fault::pendingAck(milliseconds(900)).every(milliseconds(450)).only(Command::writeReg));
    client->disconnectHandler();
    expectFreedBy(1);
}

TEST_F(DevInstGoodbye, WaitsTheLinksAckTimeout)
{
    linkWith(2000, 3);
    camera.inject(Fault::delay(milliseconds(700)).only(Command::writeReg));
    client->disconnectHandler();
    expectFreedBy(1);
}

TEST_F(DevInstGoodbye, ACommandInFlightEndsByItsOwnRules)
{
    linkWith(300, 4);
    camera.inject(Fault::drop(2).only(Command::readReg));
    camera.inject(Fault::pendingAck(milliseconds(2000)).every(milliseconds(800)).only(Command::readReg));
    Bytes reply;
    std::thread command([&] { reply = run(Build(CmdReadReg).u64(TagAddress, 0x0934)); });
    ASSERT_TRUE(camera.waitFor([&] { return !camera.commands(Command::readReg, 0x0934).empty(); }));
    client->disconnectHandler();
    command.join();
    EXPECT_EQ(camera.commands(Command::readReg, 0x0934).size(), 3u);
    Bytes success(reply);
    Message answer(success.data(), success.size(), success.size());
    std::uint8_t succeeded = 0;
    EXPECT_TRUE(answer.GetScalar(TagSuccess, succeeded));
    EXPECT_EQ(succeeded, 1);
    expectFreedBy(1);
}

TEST_F(DevInstGoodbye, NoFurtherStepOfAMemoryAccessBegins)
{
    linkWith(2000, 3);
    camera.inject(Fault::hold(1).only(Command::readMem));
    constexpr std::uint64_t length = 0x240 + 2; // a step of two commands, and the tail
    std::thread command([&] { run(Build(CmdReadMem).u64(TagAddress, gevsim::region::memory).u64(TagLength, length)); });
    ASSERT_TRUE(camera.waitFor([&] { return camera.heldAnswers() == 1; }));
    std::thread end([&] { client->disconnectHandler(); });
    while (!DevInstProbe::clientGone(*instance))
        std::this_thread::yield();
    camera.release();
    end.join();
    command.join();
    EXPECT_EQ(camera.received(Command::readMem), 2u) << "the step under way, and not the tail";
    EXPECT_TRUE(log.contains("Pipe ReadMem from addr0x10240 caused std::exception: client disconnected"));
    expectFreedBy(1);
}

TEST_F(DevInstEvents, EventsAsBytes)
{
    client->onEvent = [](std::uint32_t) { return std::optional(consent()); };
    instance->NotifyConnectionLost();
    instance->NotifyCcpLost();
    instance->NotifyReconnected();
    ASSERT_EQ(client->sent.size(), 3u);
    EXPECT_EQ(client->sent[0], (Bytes{18, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(client->sent[1], (Bytes{19, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(client->sent[2], (Bytes{23, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(client->timeouts, (std::vector<std::uint32_t>{1000, 1000, 1000}));
}

TEST_F(DevInstEvents, OnlySuccessIsConsent)
{
    const auto refused = [&](std::function<std::optional<Bytes>(std::uint32_t)> answer) {
        client->onEvent = std::move(answer);
        try {
            instance->NotifyCcpLost();
        } catch (const GEV::GevException& failure) {
            EXPECT_STREQ(failure.what(), "Link failed");
            EXPECT_EQ(failure.Code(), -10004);
            return true;
        }
        return false;
    };
    EXPECT_TRUE(refused(nullptr)) << "a client that is gone";
    EXPECT_TRUE(refused([](std::uint32_t) { return Build(19).done(); })) << "no success tag";
    EXPECT_TRUE(refused([](std::uint32_t) { return Build(19).u8(TagSuccess, 0).done(); }));
    EXPECT_TRUE(refused([](std::uint32_t) { return Build(19).u32(TagSuccess, 1).done(); })) << "of the wrong width";
    EXPECT_FALSE(refused([](std::uint32_t) { return Build(19).u8(TagSuccess, 5).done(); }));
    client->onEvent = [](std::uint32_t) { return std::optional<Bytes>(); };
    EXPECT_THROW(instance->NotifyCcpLost(), std::runtime_error) << "what Send throws comes through";
}

TEST_F(DevInstEvents, RestartedCameraIsLostAndRegained)
{
    client->onEvent = [](std::uint32_t) { return std::optional(consent()); };
    link();
    camera.powerCycle();
    ASSERT_TRUE(client->waitForEvents(2));
    EXPECT_EQ(client->sent[0][0], EvtCcpLost);
    EXPECT_EQ(client->sent[1][0], EvtReconnected);
    EXPECT_TRUE(camera.waitFor([&] { return camera.control().held(); }));
}

TEST_F(DevInstEvents, SilentCameraIsReported)
{
    client->onEvent = [](std::uint32_t) { return std::optional(consent()); };
    link();
    camera.silence(std::chrono::milliseconds::max());
    ASSERT_TRUE(client->waitForEvents(1));
    EXPECT_EQ(client->sent[0][0], EvtConnectionLost);
}

TEST_F(DevInstEvents, UnansweredEventIsLoggedAndTheInstanceLivesOn)
{
    client->onEvent = [](std::uint32_t) { return std::optional<Bytes>(); };
    link();
    camera.powerCycle();
    ASSERT_TRUE(log.waitFor("Failure in Connection Lost notification: Wait for Ack failed"));
    EXPECT_EQ(run(Build(CmdGetRetries)), Build(CmdGetRetries | replyFlag).u8(TagSuccess, 1).u8(TagRetries, 3).done());
}

TEST_F(DevInstEvents, UnlinkThatFailsIsNoMatter)
{
    link();
    camera.silence(std::chrono::milliseconds::max());
    instance->LinkShutdown();
    EXPECT_TRUE(log.contains("Unable to unlink with camera"));
    instance->LinkShutdown();
    EXPECT_EQ(log.count("Unable to unlink with camera"), 1u);
}

TEST_F(DevInstEvents, InstanceIsRetiredOnlyWhenNoCallIsInside)
{
    bool duringEvent = true;
    client->onEvent = [&](std::uint32_t) {
        duringEvent = instance->TryRetire();
        return std::optional(consent());
    };
    link();
    camera.powerCycle();
    ASSERT_TRUE(log.waitFor("HeartBeatThread reconnect"));
    ASSERT_TRUE(client->waitForEvents(2));
    run(Build(CmdUnlink));
    EXPECT_FALSE(duringEvent);
    EXPECT_TRUE(instance->TryRetire());
}
