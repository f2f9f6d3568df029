// The daemon's absence, silence, slowness and death; many connections; many threads.
#include "client/Rendezvous.h"
#include "tests/unit/client/scripted_daemon.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <list>
#include <thread>

namespace {

using namespace zuTest;
using namespace zuGevClient;
using namespace zuIPCPipe;
using namespace std::chrono_literals;

using Clock = std::chrono::steady_clock;

/// Waits of the library are short where a test lets them run out.
void quick(Connection& connection)
{
    connection.setAckTimeout(1ms);
    connection.setRetries(1);
}

TEST(NoDaemonTest, nothingPublished)
{
    const OwnNames names;
    EXPECT_EQ(Daemon::port(), 0);
    EXPECT_FALSE(Daemon::isRunning());
    EXPECT_THROW(Connection{}, NoDaemonError);
}

TEST(NoDaemonTest, publishedByADaemonThatIsDead)
{
    ScriptedDaemon daemon;
    EXPECT_NE(Daemon::port(), 0);
    EXPECT_TRUE(Daemon::isRunning());
    daemon.die();
    EXPECT_NE(Daemon::port(), 0);
    EXPECT_FALSE(Daemon::isRunning(400ms));
    try {
        Connection connection;
        FAIL();
    } catch (const NoDaemonError& error) {
        EXPECT_THAT(error.what(), testing::HasSubstr("nothing answers at the published port"));
    }
}

TEST(NoDaemonTest, aPortThatIsTakenIsWaitedForUntilItIsFree)
{
    ScriptedDaemon daemon;
    const auto port = zuPlatform::loopbackAt(zuPlatform::hostToNetwork16(Daemon::port()));
    daemon.die();
    auto silent = zuPlatform::DatagramSocket::open();
    ASSERT_EQ(silent->bind(port), 0);
    auto newcomer = std::async(std::launch::async, [] { EXPECT_THROW(Connection{}, NoDaemonError); });
    EXPECT_EQ(newcomer.wait_for(2500ms), std::future_status::timeout) << "it may be a daemon that is busy";
    silent.reset();
    EXPECT_EQ(newcomer.wait_for(20s), std::future_status::ready) << "and here it has died";
}

TEST(DaemonTest, theQuestionForLifeLeavesNothingBehind)
{
    ScriptedDaemon daemon;
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(Daemon::isRunning());
    EXPECT_EQ(MgrProbe::dispatcherSlots(daemon.server().manager()), 0u);
    EXPECT_EQ(MgrProbe::pending(daemon.server().manager()), 0u);
}

TEST(DaemonTest, theGoodbyeOfTheLastConnectionWaitsForAMessageInItsHandler)
{
    ScriptedDaemon daemon;
    Attachment attachment = attach();
    std::promise<void> entered;
    std::promise<void> release;
    listen(attachment, [&, released = release.get_future().share()](void*, std::size_t, std::size_t&, const auto&) {
        entered.set_value();
        released.wait();
    });
    auto told = std::async(std::launch::async, [&] { return daemon.tell(EvtReconnected, 20000); });
    entered.get_future().wait();
    const std::weak_ptr<CMgr> manager = attachment.manager;
    const std::weak_ptr<IMsgSrc> source = attachment.source;
    auto gone = std::async(std::launch::async, [&] { detach(attachment); });
    while (source.use_count() > 1) // the pipe's thread keeps its share
        std::this_thread::yield();
    EXPECT_EQ(gone.wait_for(0s), std::future_status::timeout);
    release.set_value();
    gone.wait();
    EXPECT_TRUE(daemon.server().waitForDisconnects(1)) << "the daemon would hold the camera for this process";
    EXPECT_TRUE(manager.expired());
}

TEST(DaemonTest, aReplyThatComesTooLateIsNotTakenForTheNext)
{
    ScriptedDaemon daemon;
    daemon.setRegister(4, 44);
    daemon.setRegister(8, 88);
    Connection connection;
    quick(connection);
    std::atomic<int> calls{0};
    daemon.on(CmdWriteReg, [&](Message&, std::size_t&, const auto&) {
        if (++calls == 1)
            std::this_thread::sleep_for(2s); // longer than the client waits, shorter than it takes to give up
        return false;
    });
    EXPECT_THROW(connection.writeRegister(0x10, 1), TimeoutError);
    EXPECT_EQ(connection.readRegister(4), 44u);
    EXPECT_EQ(connection.readRegister(8), 88u);
    connection.writeRegister(0x10, 2);
    EXPECT_EQ(daemon.getRegister(0x10), 2u);
    daemon.settle();
    EXPECT_EQ(calls, 2);
}

TEST(DaemonTest, aReadIsRepeatedOnce)
{
    ScriptedDaemon daemon;
    daemon.setRegister(4, 44);
    Connection connection;
    quick(connection);
    std::atomic<int> calls{0};
    daemon.on(CmdReadReg, [&](Message&, std::size_t&, const auto&) {
        if (++calls == 1)
            std::this_thread::sleep_for(2s);
        return false;
    });
    EXPECT_EQ(connection.readRegister(4), 44u);
    daemon.settle();
    EXPECT_EQ(calls, 2);
}

TEST(DaemonTest, aReplyToAnotherAddressIsNotBelieved)
{
    ScriptedDaemon daemon;
    Connection connection;
    daemon.on(CmdReadReg, [&](Message& m, std::size_t&, const auto&) {
        const std::uint64_t other = 0x77;
        const std::uint8_t swap = 1;
        m.ClearTags();
        m.AddBinary(TagAddress, &other, sizeof other);
        m.AddBinary(TagSwapBytes, &swap, sizeof swap);
        return false;
    });
    EXPECT_THROW(connection.readRegister(4), DaemonError);
}

TEST(DaemonTest, theDaemonMayAskForMoreTime)
{
    ScriptedDaemon daemon;
    Connection connection;
    quick(connection);
    daemon.on(CmdWriteReg, [&](Message&, std::size_t&, const boost::function<void(unsigned)>& extend) {
        extend(20000);
        std::this_thread::sleep_for(2s); // the camera's time; more than the client would wait by itself
        return false;
    });
    connection.writeRegister(0x10, 5);
    EXPECT_EQ(daemon.getRegister(0x10), 5u);
    EXPECT_EQ(daemon.count(CmdWriteReg), 1u);
}

TEST(DaemonTest, anExtensionDoesNotShortenTheWait)
{
    ScriptedDaemon daemon;
    Connection connection;
    quick(connection);
    daemon.on(CmdWriteReg, [&](Message&, std::size_t&, const boost::function<void(unsigned)>& extend) {
        for (int i = 0; i < 3; ++i) {
            extend(1);
            std::this_thread::sleep_for(300ms);
        }
        return false;
    });
    connection.writeRegister(0x10, 5);
    EXPECT_EQ(daemon.count(CmdWriteReg), 1u);
    connection.writeRegister(0x14, 6);
    EXPECT_EQ(daemon.getRegister(0x10), 5u);
    EXPECT_EQ(daemon.getRegister(0x14), 6u);
    EXPECT_EQ(connection.readRegister(0x10), 5u);
}

TEST(DaemonTest, anExtendedReadIsNotRepeated)
{
    ScriptedDaemon daemon;
    daemon.setRegister(4, 44);
    daemon.setRegister(8, 88);
    Connection connection;
    quick(connection);
    daemon.on(CmdReadReg, [&](Message& m, std::size_t&, const boost::function<void(unsigned)>& extend) {
        if (valueOf<std::uint64_t>(m, TagAddress) == 4) {
            extend(1);
            std::this_thread::sleep_for(300ms);
        }
        return false;
    });
    EXPECT_EQ(connection.readRegister(4), 44u);
    EXPECT_EQ(connection.readRegister(8), 88u);
    EXPECT_EQ(daemon.count(CmdReadReg), 2u);
}

TEST(DaemonTest, anExtensionThatIsNotKeptEnds)
{
    ScriptedDaemon daemon;
    daemon.setRegister(4, 44);
    Connection connection;
    quick(connection);
    std::promise<void> finish;
    auto finished = finish.get_future().share();
    daemon.on(CmdWriteReg, [&](Message&, std::size_t&, const boost::function<void(unsigned)>& extend) {
        extend(1);
        finished.wait_for(20s);
        return false;
    });
    EXPECT_THROW(connection.writeRegister(0x10, 5), TimeoutError);
    finish.set_value();
    EXPECT_EQ(connection.readRegister(4), 44u);
    daemon.settle();
}

TEST(DaemonTest, aDaemonThatDiesIsNoticedAndTold)
{
    ScriptedDaemon daemon;
    Connection connection;
    quick(connection);
    std::promise<Event> told;
    connection.setEventHandler([&](Event event) { told.set_value(event); });
    daemon.die();
    EXPECT_THROW(connection.readRegister(4), DaemonLostError);
    auto event = told.get_future();
    ASSERT_EQ(event.wait_for(20s), std::future_status::ready);
    EXPECT_EQ(event.get(), Event::daemonLost);
    const auto start = Clock::now();
    EXPECT_THROW(connection.writeRegister(4, 1), DaemonLostError);
    EXPECT_THROW(connection.ping(), DaemonLostError);
    EXPECT_LT(Clock::now() - start, 1s); // known by now
}

TEST(DaemonTest, pingNoticesAnIdleDaemonsDeath)
{
    ScriptedDaemon daemon;
    Connection connection;
    connection.ping();
    daemon.die();
    EXPECT_THROW(connection.ping(), DaemonLostError);
}

TEST(DaemonTest, aNewDaemonServesNewConnections)
{
    ScriptedDaemon daemon;
    daemon.setRegister(4, 2);
    Connection old;
    quick(old);
    daemon.die();
    daemon.restart();
    Connection fresh;
    EXPECT_EQ(fresh.readRegister(4), 2u);
    try {
        old.readRegister(4);
        FAIL();
    } catch (const DaemonLostError& error) {
        EXPECT_THAT(error.what(), testing::HasSubstr("The daemon is gone"));
    }
    EXPECT_EQ(fresh.readRegister(4), 2u);
    old.close();
    EXPECT_EQ(Connection().readRegister(4), 2u);
}

TEST(DaemonTest, closingTellsTheDaemon)
{
    ScriptedDaemon daemon;
    {
        Connection connection;
        connection.ping();
    }
    EXPECT_TRUE(daemon.server().waitForDisconnects(1));
}

TEST(DaemonTest, fortyConnectionsInOneProcess)
{
    ScriptedDaemon daemon;
    std::list<Connection> connections;
    for (std::uint32_t i = 0; i < 40; ++i) {
        connections.emplace_back();
        connections.back().writeRegister(0x1000 + 4 * i, i);
    }
    EXPECT_EQ(daemon.server().instances(), 40u);
    EXPECT_EQ(MgrProbe::dispatcherSlots(daemon.server().manager()), 2u); // 30 each
    std::uint32_t i = 0;
    for (Connection& connection : connections) {
        EXPECT_EQ(connection.readRegister(0x1000 + 4 * i), i);
        ++i;
    }
    std::vector<std::thread> closers;
    for (Connection& connection : connections)
        closers.emplace_back([&connection] { connection.close(); });
    for (std::thread& closer : closers)
        closer.join();
    EXPECT_TRUE(daemon.server().waitForDisconnects(40));
    EXPECT_EQ(Connection().readRegister(0x1000 + 4 * 39), 39u);
}

TEST(DaemonTest, manyThreadsOnOneConnection)
{
    ScriptedDaemon daemon;
    Connection connection;
    std::vector<std::thread> threads;
    for (std::uint32_t i = 0; i < 8; ++i)
        threads.emplace_back([&, i] {
            for (std::uint32_t round = 0; round < 50; ++round) {
                connection.writeRegister(0x1000 + 4 * i, round);
                ASSERT_EQ(connection.readRegister(0x1000 + 4 * i), round);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(daemon.count(CmdReadReg), 400u);
}

TEST(DaemonTest, connectingAndClosingFromManyThreads)
{
    ScriptedDaemon daemon;
    std::vector<std::thread> threads;
    for (std::uint32_t i = 0; i < 4; ++i)
        threads.emplace_back([&, i] {
            for (std::uint32_t round = 0; round < 5; ++round) {
                const auto start = Clock::now();
                Connection connection;
                // Not over a road whose other end has just gone, which would show after three seconds.
                EXPECT_LT(Clock::now() - start, 2900ms);
                connection.writeRegister(0x1000 + 4 * i, round);
                ASSERT_EQ(connection.readRegister(0x1000 + 4 * i), round);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_TRUE(daemon.server().waitForDisconnects(20));
}

TEST(DaemonTest, closeWaitsForTheCommandInFlight)
{
    ScriptedDaemon daemon;
    Connection connection;
    std::promise<void> begun, finish;
    auto finished = finish.get_future().share();
    daemon.on(CmdWriteReg, [&](Message&, std::size_t&, const auto&) {
        begun.set_value();
        finished.wait_for(20s);
        return false;
    });
    std::thread writer([&] { EXPECT_NO_THROW(connection.writeRegister(4, 1)); });
    ASSERT_EQ(begun.get_future().wait_for(20s), std::future_status::ready);
    std::thread closer([&] { connection.close(); });
    finish.set_value();
    writer.join();
    closer.join();
    daemon.settle();
    EXPECT_EQ(daemon.getRegister(4), 1u);
    EXPECT_THROW(connection.readRegister(4), ClosedError);
}

} // namespace
