// A connection that follows its daemon: loss without a command, calls in the meantime, and what the next daemon is
// told.
#include "client/Follower.h"
#include "tests/unit/client/scripted_daemon.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <list>
#include <thread>

namespace {

using namespace zuTest;
using namespace zuGevClient;
using namespace zuIPCPipe;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using Clock = std::chrono::steady_clock;

constexpr auto often = 20ms;
const Endpoint local{0x7F000F02, 40001};
const Endpoint camera{0x7F000F01, 3956};

struct FollowingTest : testing::Test {
    ScriptedDaemon daemon;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Event> events;
    Connection connection; // goes first: its threads use the above

    FollowingTest()
    {
        connection.setEventHandler([this](Event event) { note(event); });
    }

    void note(Event event)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        events.push_back(event);
        changed.notify_all();
    }
    std::vector<Event> waitFor(std::size_t count)
    {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait_for(lock, 30s, [&] { return events.size() >= count; });
        return events;
    }

    /// What a call says while the daemon is away. It must say so at once.
    std::string complaint()
    {
        const auto start = Clock::now();
        try {
            connection.readRegister(4);
        } catch (const DaemonLostError& error) {
            EXPECT_LT(Clock::now() - start, 500ms);
            return error.what();
        }
        return "none";
    }

    void loseDaemon()
    {
        daemon.die();
        ASSERT_THAT(waitFor(1), ElementsAre(Event::daemonLost));
        daemon.clearSeen();
    }
    void regainDaemon()
    {
        daemon.restart();
        ASSERT_THAT(waitFor(2), ElementsAre(Event::daemonLost, Event::daemonReturned));
    }

    template <typename TValue>
    std::vector<TValue> told(Command command, Tag tag)
    {
        std::vector<TValue> values;
        for (Seen& one : daemon.seen()) {
            if (one.command != command)
                continue;
            one.bytes.resize(kMsgPayloadSize);
            Message message(one.bytes.data(), one.bytes.size(), one.bytes.size());
            values.push_back(valueOf<TValue>(message, tag));
        }
        return values;
    }
};

TEST_F(FollowingTest, theNextDaemonIsToldWhatTheProgramHadSet)
{
    daemon.setRegister(4, 44);
    connection.followDaemon(often);
    connection.bind(local);
    connection.setAckTimeout(250ms);
    connection.setRetries(4);
    connection.setDestination(camera);
    connection.link(LinkMode::switchover(0x1234));
    connection.setHeartbeat(5s);
    loseDaemon();
    daemon.setRegister(0x0938, 3000);
    regainDaemon();
    EXPECT_THAT(daemon.commands(),
                ElementsAre(CmdBindSocket, CmdGetLocalAddress, CmdSetAckTimeout, CmdSetRetries, CmdSetDestination,
                            CmdLink, CmdReadReg, CmdSetHeartbeat, CmdReadReg, CmdGetHeartbeat));
    EXPECT_THAT(told<std::uint32_t>(CmdBindSocket, TagLocalIp), ElementsAre(local.address));
    EXPECT_THAT(told<std::uint16_t>(CmdBindSocket, TagLocalPort), ElementsAre(local.port));
    EXPECT_THAT(told<std::uint32_t>(CmdSetAckTimeout, TagAckTimeout), ElementsAre(250u));
    EXPECT_THAT(told<std::uint32_t>(CmdSetRetries, TagRetries), ElementsAre(4u));
    EXPECT_THAT(told<std::uint32_t>(CmdSetDestination, TagDestIp), ElementsAre(camera.address));
    EXPECT_THAT(told<std::uint16_t>(CmdSetDestination, TagDestPort), ElementsAre(camera.port));
    EXPECT_THAT(told<std::uint32_t>(CmdLink, TagLinkMode), ElementsAre(0x11234u));
    EXPECT_THAT(told<std::uint32_t>(CmdSetHeartbeat, TagHeartbeatTimeout), ElementsAre(5000u));
    EXPECT_EQ(connection.readRegister(4), 44u);
    EXPECT_EQ(connection.heartbeat().timeout, 5000ms);
    EXPECT_EQ(connection.localAddress(), local);
    EXPECT_EQ(connection.ackTimeout(), 250ms);
    connection.setHeartbeat(4s); // as with a link of this connection
}

TEST_F(FollowingTest, whatWasNotSetIsNotTold)
{
    connection.followDaemon(often);
    loseDaemon();
    regainDaemon();
    EXPECT_THAT(daemon.commands(), IsEmpty());
    connection.ping();
}

TEST_F(FollowingTest, whatNoLongerHoldsIsNotTold)
{
    connection.followDaemon(often);
    connection.setDestination(camera);
    connection.link(LinkMode::control());
    connection.setHeartbeat(5s);
    connection.setDestination({camera.address + 1, camera.port}); // whose heartbeat nobody has set
    connection.link(LinkMode::exclusive());
    loseDaemon();
    regainDaemon();
    EXPECT_THAT(daemon.commands(), ElementsAre(CmdSetDestination, CmdLink));
    EXPECT_THAT(told<std::uint32_t>(CmdLink, TagLinkMode), ElementsAre(4u));
}

TEST_F(FollowingTest, aLinkThatWasGivenBackStaysSo)
{
    connection.followDaemon(often);
    connection.setDestination(camera);
    connection.link(LinkMode::control());
    connection.setHeartbeat(5s);
    connection.unlink();
    loseDaemon();
    regainDaemon();
    EXPECT_THAT(daemon.commands(), ElementsAre(CmdSetDestination));
}

TEST_F(FollowingTest, aLinkThatFailedIsNotTriedLater)
{
    connection.followDaemon(often);
    connection.setDestination(camera);
    connection.link(LinkMode::control());
    daemon.on(CmdLink, [](Message& message, std::size_t& length, const auto&) {
        acknowledge(message, length, 0);
        return true;
    });
    EXPECT_THROW(connection.link(LinkMode::exclusive()), CameraError);
    daemon.settle();
    loseDaemon();
    regainDaemon();
    EXPECT_THAT(daemon.commands(), ElementsAre(CmdSetDestination));
}

TEST_F(FollowingTest, aMonitorsLinkHasNoHeartbeat)
{
    connection.followDaemon(often);
    connection.setDestination(camera);
    connection.link(LinkMode::control());
    connection.setHeartbeat(5s);
    connection.unlink();
    connection.link(LinkMode::monitor());
    loseDaemon();
    regainDaemon();
    EXPECT_THAT(daemon.commands(), ElementsAre(CmdSetDestination, CmdLink));
    EXPECT_THAT(told<std::uint32_t>(CmdLink, TagLinkMode), ElementsAre(0u));
}

TEST_F(FollowingTest, everyCallInTheMeantimeFailsAtOnce)
{
    connection.followDaemon(often);
    connection.setDestination(camera);
    loseDaemon();
    const auto start = Clock::now();
    std::uint32_t word = 0;
    EXPECT_THROW(connection.bind(local), DaemonLostError);
    EXPECT_THROW(connection.setDestination(camera), DaemonLostError);
    EXPECT_THROW(connection.localAddress(), DaemonLostError);
    EXPECT_THROW(connection.link(LinkMode::control()), DaemonLostError);
    EXPECT_THROW(connection.unlink(), DaemonLostError);
    EXPECT_THROW(connection.checkLink(), DaemonLostError);
    EXPECT_THROW(connection.readRegister(4), DaemonLostError);
    EXPECT_THROW(connection.writeRegister(4, 1), DaemonLostError);
    EXPECT_THROW(connection.readMemory(4, &word, 4), DaemonLostError);
    EXPECT_THROW(connection.writeMemory(4, &word, 4), DaemonLostError);
    EXPECT_THROW(connection.writeMemory(5, &word, 1), DaemonLostError);
    EXPECT_THROW(connection.setAckTimeout(1ms), DaemonLostError);
    EXPECT_THROW(connection.ackTimeout(), DaemonLostError);
    EXPECT_THROW(connection.setRetries(1), DaemonLostError);
    EXPECT_THROW(connection.retries(), DaemonLostError);
    EXPECT_THROW(connection.setHeartbeat(1s), DaemonLostError);
    EXPECT_THROW(connection.heartbeat(), DaemonLostError);
    EXPECT_THROW(connection.ping(), DaemonLostError);
    EXPECT_LT(Clock::now() - start, 500ms);
    EXPECT_TRUE(connection.isOpen());
    EXPECT_EQ(complaint(), "The daemon is gone: its port is free; waiting for it to come back");
    regainDaemon();
    EXPECT_THAT(daemon.commands(), ElementsAre(CmdSetDestination)); // nothing of the calls that failed
}

TEST_F(FollowingTest, aLinkThatIsStillHeldIsTriedAgain)
{
    connection.followDaemon(often);
    connection.setDestination(camera);
    connection.link(LinkMode::control());
    loseDaemon();
    std::atomic<int> refusals{0};
    std::atomic<bool> held{true};
    daemon.on(CmdLink, [&](Message& message, std::size_t& length, const auto&) {
        if (!held)
            return false;
        ++refusals;
        acknowledge(message, length, 0);
        return true;
    });
    daemon.on(CmdUnlink, [](Message& message, std::size_t& length, const auto&) {
        acknowledge(message, length); // of another holder's privilege nothing changes
        return true;
    });
    daemon.restart();
    EXPECT_TRUE(eventually([&] { return refusals >= 3; }));
    EXPECT_THAT(complaint(), HasSubstr("The daemon is back, but not the link, which is tried again: "
                                       "The camera could not be linked: access denied"));
    EXPECT_THAT(waitFor(1), ElementsAre(Event::daemonLost));
    held = false;
    ASSERT_THAT(waitFor(2), ElementsAre(Event::daemonLost, Event::daemonReturned));
    EXPECT_EQ(daemon.count(CmdSetDestination), 1u);
    daemon.settle();
}

TEST_F(FollowingTest, aDaemonThatGoesAgainBeforeTheLinkIsNoReturn)
{
    daemon.setRegister(4, 44);
    connection.followDaemon(often);
    connection.setAckTimeout(1ms);
    connection.setRetries(1);
    connection.setDestination(camera);
    connection.link(LinkMode::control());
    loseDaemon();
    std::atomic<int> refusals{0};
    daemon.on(CmdLink, [&](Message& message, std::size_t& length, const auto&) {
        ++refusals;
        acknowledge(message, length, 0);
        return true;
    });
    daemon.restart();
    EXPECT_TRUE(eventually([&] { return refusals >= 1; }));
    daemon.die();
    daemon.settle();
    daemon.clearSeen();
    regainDaemon();
    EXPECT_THAT(daemon.commands(), ElementsAre(CmdSetAckTimeout, CmdSetRetries, CmdSetDestination, CmdLink));
    EXPECT_EQ(connection.readRegister(4), 44u);
}

TEST_F(FollowingTest, again)
{
    connection.followDaemon(often);
    connection.setDestination(camera);
    connection.link(LinkMode::control());
    for (std::size_t round = 1; round <= 3; ++round) {
        daemon.die();
        ASSERT_EQ(waitFor(2 * round - 1).size(), 2 * round - 1);
        daemon.restart();
        ASSERT_EQ(waitFor(2 * round).size(), 2 * round);
        connection.writeRegister(4, static_cast<std::uint32_t>(round));
        EXPECT_EQ(daemon.getRegister(4), round);
    }
    EXPECT_THAT(waitFor(6), ElementsAre(Event::daemonLost, Event::daemonReturned, Event::daemonLost,
                                        Event::daemonReturned, Event::daemonLost, Event::daemonReturned));
}

TEST_F(FollowingTest, aCommandThatFindsTheLossDoesNotWaitForTheNextLook)
{
    connection.setAckTimeout(1ms);
    connection.setRetries(1);
    daemon.setRegister(4, 44);
    connection.followDaemon(600s);
    EXPECT_EQ(connection.readRegister(4), 44u);
    daemon.die();
    EXPECT_EQ(complaint(), "The daemon is gone: its port is free; waiting for it to come back");
    daemon.restart();
    EXPECT_THAT(waitFor(1), ElementsAre(Event::daemonLost));
    connection.followDaemon(often); // only now is the next look soon
    EXPECT_THAT(waitFor(2), ElementsAre(Event::daemonLost, Event::daemonReturned));
    EXPECT_EQ(connection.readRegister(4), 44u);
}

TEST_F(FollowingTest, aLossOfBeforeIsMadeGood)
{
    connection.setAckTimeout(1ms);
    connection.setRetries(1);
    connection.setDestination(camera);
    connection.link(LinkMode::control());
    daemon.die();
    EXPECT_THROW(connection.readRegister(4), DaemonLostError);
    EXPECT_THAT(waitFor(1), ElementsAre(Event::daemonLost));
    daemon.clearSeen();
    daemon.restart();
    EXPECT_THROW(connection.readRegister(4), DaemonLostError);
    connection.followDaemon(often);
    EXPECT_THAT(waitFor(2), ElementsAre(Event::daemonLost, Event::daemonReturned));
    EXPECT_THAT(daemon.commands(), ElementsAre(CmdSetAckTimeout, CmdSetRetries, CmdSetDestination, CmdLink));
}

TEST_F(FollowingTest, aDaemonThatDoesNotKnowTheConnectionIsAnother)
{
    daemon.setRegister(4, 44);
    connection.setDestination(camera);
    std::promise<void> release;
    auto released = release.get_future().share();
    std::atomic<bool> first{true};
    // As if the daemon had come back at its old port: it answers, but not to this connection.
    daemon.on(CmdGetLocalAddress, [&, released](Message&, std::size_t&, const auto&) {
        if (first.exchange(false))
            released.wait_for(60s);
        return false;
    });
    connection.followDaemon(often);
    EXPECT_THAT(waitFor(1), ElementsAre(Event::daemonLost));
    EXPECT_THAT(waitFor(2), ElementsAre(Event::daemonLost, Event::daemonReturned));
    EXPECT_EQ(connection.readRegister(4), 44u);
    release.set_value();
    daemon.settle();
}

TEST_F(FollowingTest, oneThatStaysBehindIsLost)
{
    connection.setDestination(camera);
    connection.followDaemon(often);
    loseDaemon();
    connection.stopFollowing();
    daemon.restart();
    {
        Connection other; // the daemon is there
        other.ping();
    }
    EXPECT_EQ(complaint(), "The daemon is gone, and this connection has ceased to follow it");
    EXPECT_THAT(daemon.count(CmdSetDestination), 0u);
    connection.followDaemon(often);
    EXPECT_THAT(waitFor(2), ElementsAre(Event::daemonLost, Event::daemonReturned));
    connection.stopFollowing();
    connection.ping();
}

TEST_F(FollowingTest, theHandlerMayUseTheConnectionAtItsReturn)
{
    std::promise<void> done;
    connection.setEventHandler([&](Event event) {
        note(event);
        if (event != Event::daemonReturned)
            return;
        connection.writeRegister(4, 7); // what the daemon can't know
        done.set_value();
    });
    connection.followDaemon(often);
    loseDaemon();
    daemon.restart();
    EXPECT_EQ(done.get_future().wait_for(30s), std::future_status::ready);
    EXPECT_EQ(daemon.getRegister(4), 7u);
}

TEST_F(FollowingTest, theHandlerMayEndTheConnection)
{
    for (const Event last : {Event::daemonLost, Event::daemonReturned}) {
        auto own = std::make_unique<Connection>();
        std::promise<void> done;
        own->setEventHandler([&](Event event) {
            if (event != last)
                return;
            own.reset();
            done.set_value();
        });
        own->followDaemon(often);
        daemon.die();
        daemon.restart();
        EXPECT_EQ(done.get_future().wait_for(30s), std::future_status::ready);
    }
}

TEST_F(FollowingTest, closingEndsTheSearch)
{
    connection.followDaemon(often);
    loseDaemon();
    connection.close();
    EXPECT_THROW(connection.readRegister(4), ClosedError);
    EXPECT_THROW(connection.followDaemon(often), ClosedError);
    daemon.restart();
    Connection().ping();
    EXPECT_THAT(waitFor(1), ElementsAre(Event::daemonLost));
}

TEST_F(FollowingTest, manyConnectionsOfOneProcess)
{
    std::list<Connection> connections;
    std::atomic<int> returned{0};
    for (std::uint32_t i = 0; i < 8; ++i) {
        connections.emplace_back();
        connections.back().setDestination({camera.address + i, camera.port});
        connections.back().setEventHandler([&](Event event) { returned += event == Event::daemonReturned ? 1 : 0; });
        connections.back().followDaemon(often);
    }
    daemon.die();
    daemon.restart();
    EXPECT_TRUE(eventually([&] { return returned == 8; }));
    for (Connection& one : connections)
        one.ping();
    EXPECT_EQ(daemon.count(CmdSetDestination), 16u);
    connections.clear();
}

TEST_F(FollowingTest, aPauseIsNeeded)
{
    EXPECT_THROW(connection.followDaemon(0ms), std::invalid_argument);
    EXPECT_THROW(connection.followDaemon(-1ms), std::invalid_argument);
}

TEST(FollowerTest, roundsComeUntilItIsStopped)
{
    std::atomic<int> rounds{0};
    Follower follower([&] {
        ++rounds;
        throw 1; // of no consequence
    });
    EXPECT_FALSE(follower.isOn());
    follower.start(1ms);
    EXPECT_TRUE(follower.isOn());
    EXPECT_TRUE(eventually([&] { return rounds >= 3; }));
    follower.stop();
    EXPECT_FALSE(follower.isOn());
    const int sofar = rounds;
    follower.stop();
    follower.start(600s); // the first comes at once
    EXPECT_TRUE(eventually([&] { return rounds == sofar + 1; }));
    follower.hurry();
    EXPECT_TRUE(eventually([&] { return rounds == sofar + 2; }));
}

} // namespace
