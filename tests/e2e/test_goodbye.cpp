// How a camera is given back whose client has gone or whose daemon is stopped, when the camera doesn't make it easy:
// the link's own attempts and waits hold, whoever waits for them.
#include "client/GevClient.h"
#include "daemon_under_test.h"
#include "tools/gevsim/camera.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

using namespace zuTest;
using namespace zuGevClient;
using gevsim::Command;
using gevsim::Fault;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::Each;
using testing::ElementsAre;
using testing::SizeIs;

namespace {

zuGevClient::Endpoint at(const gevsim::Camera& camera) { return {camera.ip(), camera.port()}; }

struct Goodbye : testing::Test {
    /// With these settings and control of the camera.
    std::unique_ptr<Connection> linked(milliseconds ackTimeout, std::uint32_t retries)
    {
        auto connection = std::make_unique<Connection>();
        connection->setAckTimeout(ackTimeout);
        connection->setRetries(retries);
        connection->setDestination(at(camera));
        EXPECT_TRUE(connection->link(LinkMode::control()));
        camera.clearLog();
        return connection;
    }
    /// The same in a process of its own.
    std::unique_ptr<ChildProcess> linkedProcess(std::vector<std::string> words)
    {
        words.insert(words.begin(),
                     {builtProgram("e2e_client"), std::to_string(camera.ip()), std::to_string(camera.port())});
        auto client = std::make_unique<ChildProcess>(words);
        EXPECT_TRUE(client->waitForOutput("linked")) << client->output();
        camera.clearLog();
        return client;
    }
    static void kill(ChildProcess& client)
    {
        client.signal(SIGKILL);
        client.wait();
    }
    bool waitUntilFree() const
    {
        return camera.waitFor([&] { return !camera.control().held(); }, seconds(60));
    }
    /// Behind it nothing is sent any more.
    void stop()
    {
        daemon.process.signal(SIGTERM);
        const auto end = daemon.process.wait(seconds(60));
        EXPECT_TRUE(end.exited) << "ended by signal " << end.status;
        EXPECT_EQ(end.status, 0);
    }
    /// Acknowledges that the camera has sent to writes of registers.
    std::size_t answeredWrites() const
    {
        return camera.select([](const gevsim::Datagram& d) { return d.isAckOf(Command::writeReg); }).size();
    }
    void expectOneCommandOf(std::size_t datagrams)
    {
        const auto sent = camera.commands(Command::writeReg, gevsim::reg::ccp);
        ASSERT_THAT(sent, SizeIs(datagrams));
        for (const auto& datagram : sent) {
            EXPECT_EQ(datagram.value(), 0u);
            EXPECT_EQ(datagram.id(), sent[0].id()) << "the same command";
        }
        EXPECT_FALSE(camera.control().held());
    }

    DaemonUnderTest daemon;
    gevsim::Camera camera{"127.0.17.20", 0};
};

} // namespace

TEST_F(Goodbye, FiveLostWritesOfEightAttemptsLeaveTheCameraFree)
{
    const auto client = linked(milliseconds(300), 8);
    camera.inject(Fault::drop(5).only(Command::writeReg));
    client->close();
    EXPECT_TRUE(waitUntilFree());
    stop();
    expectOneCommandOf(6);
}

TEST_F(Goodbye, ACameraThatAsksForTimeIsWrittenToOnce)
{
    const auto client = linked(milliseconds(300), 3);
    camera.inject(Fault::pendingAck(milliseconds(900)).every(milliseconds(450)).only(Command::writeReg));
    client->close();
    EXPECT_TRUE(camera.waitFor([&] { return answeredWrites() != 0; }));
    stop();
    expectOneCommandOf(1);
}

TEST_F(Goodbye, ALateAnswerWithinALongAckTimeoutIsWaitedFor)
{
    const auto client = linked(milliseconds(2000), 3);
    camera.inject(Fault::delay(milliseconds(700)).only(Command::writeReg));
    client->close();
    EXPECT_TRUE(camera.waitFor([&] { return answeredWrites() != 0; }));
    stop();
    expectOneCommandOf(1);
}

TEST_F(Goodbye, AKilledClientsAttemptsAreAllMade)
{
    const auto client = linkedProcess({"retries=8"});
    camera.inject(Fault::drop(5).only(Command::writeReg));
    kill(*client);
    EXPECT_TRUE(waitUntilFree());
    stop();
    expectOneCommandOf(6);
}

TEST_F(Goodbye, AKilledClientsCommandInFlightIsNotSentAgain)
{
    const auto client = linkedProcess({"write=" + std::to_string(gevsim::feature::testValue)});
    camera.inject(Fault::pendingAck(milliseconds(6000)).every(milliseconds(4500)).only(Command::writeReg));
    client->write("\n");
    ASSERT_TRUE(camera.waitForWrite(gevsim::feature::testValue));
    kill(*client);
    ASSERT_TRUE(camera.waitForWrite(gevsim::reg::ccp));
    stop();
    EXPECT_THAT(camera.commands(Command::writeReg, gevsim::feature::testValue), SizeIs(1));
    expectOneCommandOf(1);
    const auto answers = camera.select([](const gevsim::Datagram& d) { return d.isAckOf(Command::writeReg); });
    const auto ccp = camera.commands(Command::writeReg, gevsim::reg::ccp);
    ASSERT_THAT(answers, SizeIs(2));
    EXPECT_LE(answers[0].time, ccp.at(0).time) << "control goes behind the answer";
}

TEST_F(Goodbye, AStopMakesAllAttemptsToo)
{
    const auto client = linked(milliseconds(300), 8);
    camera.inject(Fault::drop(5).only(Command::writeReg));
    stop();
    expectOneCommandOf(6);
}

TEST_F(Goodbye, NewcomersWaitWhileADeadClientsCameraIsGivenBack)
{
    gevsim::Camera other{"127.0.17.21", 0};
    const auto client = linkedProcess({"ack=9000", "retries=1"});
    camera.inject(Fault::drop(1).only(Command::writeReg));
    kill(*client);
    ASSERT_TRUE(camera.waitForWrite(gevsim::reg::ccp));
    const auto start = std::chrono::steady_clock::now();
    const auto come = [&](bool privileged) {
        Connection newcomer;
        newcomer.setDestination(at(other));
        EXPECT_TRUE(newcomer.link(privileged ? LinkMode::control() : LinkMode::monitor()) || !privileged);
        return std::chrono::steady_clock::now() - start;
    };
    auto first = std::async(std::launch::async, come, true);
    auto second = std::async(std::launch::async, come, false);
    EXPECT_GT(first.get(), seconds(5)) << "the daemon lets nobody in meanwhile";
    EXPECT_GT(second.get(), seconds(5));
    EXPECT_THAT(camera.writesTo(gevsim::reg::ccp), ElementsAre(0));
}
