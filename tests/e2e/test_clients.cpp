// Clients, the daemon and cameras as they meet in real processes.
#include "client/GevClient.h"
#include "daemon_under_test.h"
#include "tools/gevsim/camera.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <numeric>

using namespace zuTest;
using namespace zuGevClient;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

/// Events of a connection, in order.
class Events {
public:
    EventHandler handler()
    {
        return [this](Event event) {
            const std::lock_guard lock(mutex_);
            events_.push_back(event);
            changed_.notify_all();
        };
    }
    bool waitFor(Event event)
    {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, seconds(30),
                                 [&] { return std::find(events_.begin(), events_.end(), event) != events_.end(); });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Event> events_;
};

zuGevClient::Endpoint at(const gevsim::Camera& camera) { return {camera.ip(), camera.port()}; }

void link(Connection& connection, const gevsim::Camera& camera)
{
    connection.setDestination(at(camera));
    ASSERT_TRUE(connection.link(LinkMode::control()));
}

/// A process of its own that links and then waits to be killed.
std::unique_ptr<ChildProcess> linkedProcess(const gevsim::Camera& camera)
{
    auto process = std::make_unique<ChildProcess>(std::vector<std::string>{
        builtProgram("e2e_client"), std::to_string(camera.ip()), std::to_string(camera.port())});
    if (!process->waitForOutput("linked"))
        throw std::runtime_error("the client did not link: " + process->output());
    return process;
}

struct Clients : testing::Test {
    DaemonUnderTest daemon;
    gevsim::Camera camera{"127.0.17.1", 0};
};

} // namespace

TEST_F(Clients, RegistersAndMemoryOfALinkedCamera)
{
    Connection connection;
    link(connection, camera);
    connection.writeRegister(gevsim::feature::testValue, 0x12345678);
    EXPECT_EQ(connection.readRegister(gevsim::feature::testValue), 0x12345678u);
    std::vector<std::uint8_t> data(10007);
    std::iota(data.begin(), data.end(), std::uint8_t{1});
    connection.writeMemory(gevsim::region::memory + 3, data.data(), data.size());
    EXPECT_EQ(connection.readMemory(gevsim::region::memory + 3, data.size()), data);
    EXPECT_EQ(camera.readMemory(gevsim::region::memory + 3, data.size()), data);
    connection.unlink();
    EXPECT_FALSE(camera.control().held());
}

TEST_F(Clients, TwoClientsOneCamera)
{
    Connection first;
    link(first, camera);
    Connection second;
    second.setDestination(at(camera));
    EXPECT_THROW(second.link(LinkMode::control()), CameraError);
    EXPECT_EQ(second.readRegister(gevsim::reg::heartbeatTimeout), 3000u) << "others may read";
    EXPECT_TRUE(first.checkLink());
    first.unlink();
    EXPECT_TRUE(second.link(LinkMode::control()));
}

TEST_F(Clients, OneClientTwoCameras)
{
    gevsim::Camera other{"127.0.17.2", 0};
    Connection one;
    Connection two;
    link(one, camera);
    link(two, other);
    one.writeRegister(gevsim::feature::testValue, 1);
    two.writeRegister(gevsim::feature::testValue, 2);
    EXPECT_EQ(camera.readRegister(gevsim::feature::testValue), 1u);
    EXPECT_EQ(other.readRegister(gevsim::feature::testValue), 2u);
}

TEST_F(Clients, KilledClientsCameraIsFree)
{
    auto client = linkedProcess(camera);
    ASSERT_TRUE(camera.control().held());
    camera.clearLog();
    const auto killed = std::chrono::steady_clock::now();
    client->signal(SIGKILL);
    client->wait();
    ASSERT_TRUE(camera.waitForWrite(gevsim::reg::ccp));
    EXPECT_EQ(camera.writesTo(gevsim::reg::ccp), std::vector<std::uint32_t>{0});
    EXPECT_LT(std::chrono::steady_clock::now() - killed, seconds(10)) << "about two seconds on a machine at rest";
    EXPECT_FALSE(camera.control().held());
    EXPECT_EQ(daemon.instances(), 1u) << "it waits for the next client";
    Connection next;
    link(next, camera);
    EXPECT_EQ(daemon.instances(), 1u);
}

TEST_F(Clients, RestartedCameraIsRegained)
{
    Events events;
    Connection connection;
    connection.setEventHandler(events.handler());
    connection.setAckTimeout(milliseconds(50));
    link(connection, camera);
    connection.setHeartbeat(milliseconds(500));
    camera.powerCycle();
    EXPECT_TRUE(events.waitFor(Event::controlLost));
    EXPECT_TRUE(events.waitFor(Event::reconnected));
    EXPECT_TRUE(camera.waitFor([&] { return camera.control().held(); }));
    EXPECT_TRUE(connection.checkLink());
}

TEST_F(Clients, SilentCameraIsReportedAndReturns)
{
    Events events;
    Connection connection;
    connection.setEventHandler(events.handler());
    connection.setAckTimeout(milliseconds(50));
    link(connection, camera);
    connection.setHeartbeat(milliseconds(500));
    camera.silence(milliseconds::max());
    EXPECT_TRUE(events.waitFor(Event::connectionLost));
    EXPECT_THROW(connection.readRegister(gevsim::reg::version), CameraError);
    camera.endSilence();
    EXPECT_EQ(connection.readRegister(gevsim::reg::deviceMode), camera.readRegister(gevsim::reg::deviceMode));
}

TEST_F(Clients, StopWhileLinkedGivesTheCameraBack)
{
    Connection connection;
    link(connection, camera);
    camera.clearLog();
    daemon.process.signal(SIGTERM);
    EXPECT_EQ(daemon.process.wait().status, 0);
    EXPECT_EQ(camera.writesTo(gevsim::reg::ccp), std::vector<std::uint32_t>{0});
}

TEST_F(Clients, KilledDaemonsSuccessorRegainsTheCamera)
{
    Events events;
    Connection connection;
    connection.setEventHandler(events.handler());
    connection.followDaemon(milliseconds(50));
    connection.setDestination(at(camera));
    ASSERT_TRUE(connection.link(LinkMode::exclusive()));
    connection.setHeartbeat(seconds(2));
    camera.clearLog();
    daemon.process.signal(SIGKILL);
    ASSERT_TRUE(events.waitFor(Event::daemonLost));
    EXPECT_THROW(connection.readRegister(gevsim::reg::ccp), DaemonLostError);
    EXPECT_EQ(camera.readRegister(gevsim::reg::ccp), gevsim::ccpValue::exclusive); // still the dead daemon's
    ChildProcess successor({builtProgram("zuGevSvc"), "--execute"});
    ASSERT_TRUE(events.waitFor(Event::daemonReturned)) << successor.output();
    EXPECT_EQ(connection.readRegister(gevsim::reg::ccp), gevsim::ccpValue::exclusive);
    EXPECT_EQ(camera.readRegister(gevsim::reg::heartbeatTimeout), 2000u);
    EXPECT_TRUE(connection.checkLink());
    connection.close();
    EXPECT_EQ(camera.readRegister(gevsim::reg::ccp), 0u);
    successor.signal(SIGTERM);
    EXPECT_EQ(successor.wait().status, 0) << successor.output();
}

TEST_F(Clients, InstancesAreDeletedByTheNextClient)
{
    {
        Connection one;
        Connection two;
    }
    EXPECT_EQ(daemon.instances(), 2u);
    Connection third;
    third.ping();
    EXPECT_EQ(daemon.instances(), 1u);
}

TEST_F(Clients, FortyConnectionsInOneProcess)
{
    std::vector<Connection> connections(40);
    for (Connection& connection : connections)
        connection.setDestination(at(camera));
    for (Connection& connection : connections)
        EXPECT_EQ(connection.readRegister(gevsim::reg::heartbeatTimeout), 3000u);
    EXPECT_EQ(daemon.instances(), 40u);
}

TEST_F(Clients, ThreeHundredClientProcesses)
{
    constexpr std::size_t count = 300;
    ChildProcess crowd(
        {builtProgram("e2e_crowd"), std::to_string(count), std::to_string(camera.ip()), std::to_string(camera.port())});
    ASSERT_TRUE(crowd.waitForOutput("all have read", seconds(100))) << crowd.output();
    EXPECT_EQ(daemon.instances(), count);
    crowd.write("\n");
    EXPECT_EQ(crowd.wait(seconds(100)).status, 0) << crowd.output();
    Connection after;
    after.setDestination(at(camera));
    EXPECT_EQ(after.readRegister(gevsim::reg::heartbeatTimeout), 3000u);
}
