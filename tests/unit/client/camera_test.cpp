// The library, the daemon's own instances and a simulated camera, in one process: what arrives at the camera, and what
// comes back when it refuses, falls silent or restarts.
#include "client/GevClient.h"
#include "src/InstanceBook.h"
#include "tests/unit/IPCPipe/pipe_support.h"
#include "tools/gevsim/camera.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <numeric>

namespace {

using namespace zuTest;
using namespace zuGevClient;
using namespace std::chrono_literals;
using gevsim::Fault;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::uint32_t memoryBase = gevsim::region::memory;

gevsim::Config cameraConfig()
{
    gevsim::Config config;
    config.endpoint = gevsim::Endpoint("127.0.15.1", 0);
    config.strictWriteMem = true;
    return config;
}

struct ClientCameraTest : testing::Test {
    gevsim::Camera camera{cameraConfig()};
    OwnNames names;
    std::shared_ptr<zuIPCPipe::CMgrServer> manager =
        std::make_shared<zuIPCPipe::CMgrServer>(&zuGevDaemon::OnClientConnect);
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Event> events;
    std::unique_ptr<Connection> connection = std::make_unique<Connection>();

    ClientCameraTest()
    {
        connection->setEventHandler([this](Event event) {
            const std::lock_guard<std::mutex> lock(mutex);
            events.push_back(event);
            changed.notify_all();
        });
        connection->bind({0x7F000F02, 0});
        connection->setDestination({camera.ip(), camera.port()});
    }
    ~ClientCameraTest() override
    {
        connection.reset();
        manager.reset();
        zuGevDaemon::CollectGarbage();
    }

    bool waitFor(Event event)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, 30s,
                                [&] { return std::find(events.begin(), events.end(), event) != events.end(); });
    }
    std::int32_t statusOf(const std::function<void()>& action)
    {
        try {
            action();
        } catch (const CameraError& error) {
            return error.status();
        } catch (const std::exception& error) {
            ADD_FAILURE() << error.what();
        }
        return 0;
    }
};

TEST_F(ClientCameraTest, linkReadWriteUnlink)
{
    EXPECT_TRUE(connection->link(LinkMode::control()));
    EXPECT_EQ(camera.readRegister(gevsim::reg::ccp), gevsim::ccpValue::control);
    EXPECT_TRUE(connection->checkLink());
    const auto model = connection->readMemory(gevsim::reg::modelName, 6);
    EXPECT_EQ(std::string(model.begin(), model.end()), "gevsim");
    connection->writeRegister(gevsim::feature::testValue, 0x12345678);
    EXPECT_EQ(camera.readRegister(gevsim::feature::testValue), 0x12345678u);
    EXPECT_EQ(connection->readRegister(gevsim::feature::testValue), 0x12345678u);
    EXPECT_EQ(connection->localAddress(), (Endpoint{camera.lastPeer().ip, camera.lastPeer().port}));
    connection->unlink();
    EXPECT_EQ(camera.readRegister(gevsim::reg::ccp), 0u);
    EXPECT_EQ(statusOf([&] { connection->writeRegister(gevsim::feature::testValue, 1); }), Status::accessDenied);
}

TEST_F(ClientCameraTest, valuesAreInHostOrderWithoutALinkToo)
{
    const std::uint32_t version = camera.readRegister(gevsim::reg::version);
    EXPECT_EQ(connection->readRegister(gevsim::reg::version), version);
    connection->link(LinkMode::monitor());
    EXPECT_EQ(connection->readRegister(gevsim::reg::version), version);
    EXPECT_EQ(camera.readRegister(gevsim::reg::ccp), 0u);
}

TEST_F(ClientCameraTest, exclusiveAndSwitchover)
{
    EXPECT_TRUE(connection->link(LinkMode::exclusive()));
    EXPECT_EQ(camera.readRegister(gevsim::reg::ccp), gevsim::ccpValue::exclusive);
    connection->unlink();
    connection->link(LinkMode::switchover(0));
    EXPECT_EQ(camera.readRegister(gevsim::reg::ccp) & 7u, gevsim::ccpValue::control | gevsim::ccpValue::switchover);
}

TEST_F(ClientCameraTest, aCameraThatAnotherHoldsIsRefused)
{
    camera.writeRegister(gevsim::reg::ccp, gevsim::ccpValue::control);
    try {
        connection->link(LinkMode::control());
        FAIL();
    } catch (const CameraError& error) {
        EXPECT_EQ(error.status(), Status::accessDenied);
        EXPECT_THAT(error.what(), HasSubstr("another application may hold it"));
    }
    EXPECT_EQ(camera.readRegister(gevsim::reg::ccp), gevsim::ccpValue::control);
    EXPECT_FALSE(connection->checkLink());
    camera.writeRegister(gevsim::reg::ccp, 0);
    EXPECT_TRUE(connection->link(LinkMode::control()));
}

TEST_F(ClientCameraTest, noCameraThere)
{
    camera.silence(gevsim::Camera::Milliseconds::max());
    connection->setAckTimeout(20ms);
    EXPECT_EQ(statusOf([&] { connection->readRegister(0); }), Status::timeout);
    EXPECT_EQ(statusOf([&] { connection->link(LinkMode::control()); }), Status::timeout);
    EXPECT_EQ(statusOf([&] { connection->link(LinkMode::monitor()); }), Status::timeout);
    EXPECT_EQ(statusOf([&] { connection->readMemory(memoryBase, 4); }), Status::timeout);
    EXPECT_EQ(statusOf([&] { connection->heartbeat(); }), Status::timeout);
    EXPECT_FALSE(connection->checkLink());
}

TEST_F(ClientCameraTest, memoryOfAnyLengthAtAnyAddress)
{
    connection->link(LinkMode::control());
    std::vector<std::uint8_t> pattern(20000);
    std::iota(pattern.begin(), pattern.end(), std::uint8_t{7});
    camera.writeMemory(memoryBase, pattern);
    for (const std::size_t start : {0u, 1u, 2u, 3u, 510u, 1663u})
        for (const std::size_t size : {1u, 2u, 3u, 4u, 5u, 575u, 577u, 1664u, 1665u, 5003u}) {
            const auto at = memoryBase + static_cast<std::uint32_t>(start);
            const auto begin = pattern.begin() + static_cast<std::ptrdiff_t>(start);
            std::vector<std::uint8_t> data(begin, begin + static_cast<std::ptrdiff_t>(size));
            ASSERT_EQ(connection->readMemory(at, size), data) << start << " " << size;
            for (std::uint8_t& byte : data)
                byte = static_cast<std::uint8_t>(byte * 5 + size);
            connection->writeMemory(at, data.data(), size);
            std::copy(data.begin(), data.end(), begin);
            ASSERT_EQ(camera.readMemory(memoryBase, pattern.size()), pattern) << start << " " << size;
        }
}

TEST_F(ClientCameraTest, oneCommandMakesTheFewestCameraCommands)
{
    connection->link(LinkMode::control());
    camera.clearLog();
    connection->readMemory(memoryBase, 1664);
    std::vector<std::size_t> sizes;
    for (const auto& datagram : camera.received())
        if (datagram.code() == 0x0084)
            sizes.push_back(datagram.bytes.at(14) * 256u + datagram.bytes.at(15));
    EXPECT_THAT(sizes, ElementsAre(512, 64, 512, 64, 512));
}

TEST_F(ClientCameraTest, memoryNeedsControlToBeWritten)
{
    const std::uint32_t word = 1;
    try {
        connection->writeMemory(memoryBase, &word, 4);
        FAIL();
    } catch (const CameraError& error) {
        EXPECT_EQ(error.status(), Status::generalFailure);
        EXPECT_THAT(error.what(), HasSubstr("holds control"));
    }
    EXPECT_EQ(statusOf([&] { connection->readMemory(0x0F000000, 4); }), Status::invalidAddress);
}

TEST_F(ClientCameraTest, aMemoryWriteIntoSilenceIsNotCalledASuccess)
{
    connection->link(LinkMode::control());
    connection->setAckTimeout(50ms);
    const std::vector<std::uint8_t> data(64, 0x5A);
    camera.inject(Fault::drop(Fault::always).only(gevsim::Command::writeMem));
    EXPECT_EQ(statusOf([&] { connection->writeMemory(memoryBase, data.data(), data.size()); }), Status::timeout);
    camera.clearFaults();
    connection->writeMemory(memoryBase, data.data(), data.size());
    EXPECT_EQ(camera.readMemory(memoryBase, 64), data);
}

TEST_F(ClientCameraTest, statusCodesOfTheCamera)
{
    connection->link(LinkMode::control());
    for (const auto& [wire, status] : {std::pair<std::uint16_t, std::int32_t>{0x8001, Status::notImplemented},
                                       {0x8002, Status::invalidParameter},
                                       {0x8003, Status::invalidAddress},
                                       {0x8004, Status::writeProtect},
                                       {0x8005, Status::badAlignment},
                                       {0x8006, Status::accessDenied},
                                       {0x8007, Status::busy},
                                       {0x8008, Status::localProblem},
                                       {0x800D, Status::memoryOverrun},
                                       {0x8FFF, Status::generalFailure}}) {
        camera.inject(Fault::status(wire, 3).only(gevsim::Command::readReg));
        EXPECT_EQ(statusOf([&] { connection->readRegister(gevsim::feature::testValue); }), status) << wire;
        camera.clearFaults();
    }
}

TEST_F(ClientCameraTest, aCameraThatAsksForTimeIsWaitedFor)
{
    connection->link(LinkMode::control());
    connection->setAckTimeout(20ms);
    connection->setRetries(1);
    // Without the extension the wait of this command would be over after 1.34 seconds.
    camera.inject(Fault::pendingAck(2000ms, 3).only(gevsim::Command::writeReg));
    const auto start = std::chrono::steady_clock::now();
    connection->writeRegister(gevsim::feature::testValue, 99);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 2s);
    EXPECT_EQ(camera.readRegister(gevsim::feature::testValue), 99u);
    EXPECT_EQ(camera.writesTo(gevsim::feature::testValue).size(), 1u);
}

TEST_F(ClientCameraTest, aCameraThatAsksForLittleTimeGetsAllAttempts)
{
    connection->link(LinkMode::control());
    connection->setAckTimeout(1000ms);
    // The extension alone would end the wait after 550 ms, in the second attempt.
    camera.inject(Fault::pendingAck(50ms).withoutAnswer().only(gevsim::Command::writeReg));
    camera.inject(Fault::drop().only(gevsim::Command::writeReg));
    camera.clearLog();
    connection->writeRegister(gevsim::feature::testValue, 99);
    EXPECT_EQ(camera.received(gevsim::Command::writeReg), 3u);
    EXPECT_EQ(connection->readRegister(gevsim::feature::testValue), 99u);
}

TEST_F(ClientCameraTest, heartbeatReachesTheCamera)
{
    connection->link(LinkMode::control());
    const Heartbeat now = connection->setHeartbeat(5000ms);
    EXPECT_EQ(camera.readRegister(gevsim::reg::heartbeatTimeout), 5000u);
    EXPECT_EQ(now.timeout, 5000ms);
    EXPECT_EQ(now.margin, 4000ms);
    EXPECT_EQ(connection->setHeartbeat(0ms).timeout, 0ms);
    EXPECT_EQ(camera.readRegister(gevsim::reg::heartbeatTimeout), 0u);
    camera.inject(Fault::denied(Fault::always).only(gevsim::Command::writeReg));
    EXPECT_NE(statusOf([&] { connection->setHeartbeat(7000ms); }), 0);
}

TEST_F(ClientCameraTest, aRestartedCameraIsRegained)
{
    connection->link(LinkMode::control());
    camera.powerCycle();
    EXPECT_TRUE(waitFor(Event::controlLost));
    EXPECT_TRUE(waitFor(Event::reconnected));
    EXPECT_TRUE(camera.waitFor([&] { return camera.readRegister(gevsim::reg::ccp) == gevsim::ccpValue::control; }));
    connection->writeRegister(gevsim::feature::testValue, 3);
}

TEST_F(ClientCameraTest, aSilentCameraIsTold)
{
    connection->link(LinkMode::control());
    camera.silence(gevsim::Camera::Milliseconds::max());
    EXPECT_TRUE(waitFor(Event::connectionLost));
    camera.endSilence();
    const std::uint32_t version = camera.readRegister(gevsim::reg::version);
    EXPECT_EQ(connection->readRegister(gevsim::reg::version), version);
}

TEST_F(ClientCameraTest, closingGivesTheCameraBack)
{
    connection->link(LinkMode::exclusive());
    connection.reset();
    EXPECT_TRUE(camera.waitFor([&] { return camera.readRegister(gevsim::reg::ccp) == 0; }));
}

TEST_F(ClientCameraTest, anUnusableLocalAddressIsAnError)
{
    EXPECT_THROW(connection->bind({0xC0000201, 0}), DaemonError); // no address of this machine
}

TEST_F(ClientCameraTest, aLossyCameraIsStillRight)
{
    connection->link(LinkMode::control());
    connection->setAckTimeout(30ms);
    connection->setRetries(50);
    camera.setLoss(0.1, 15);
    std::vector<std::uint8_t> data(6000);
    std::iota(data.begin(), data.end(), std::uint8_t{1});
    connection->writeMemory(memoryBase + 1, data.data(), data.size());
    EXPECT_EQ(connection->readMemory(memoryBase + 1, data.size()), data);
    camera.clearFaults();
    EXPECT_EQ(camera.readMemory(memoryBase + 1, data.size()), data);
}

TEST_F(ClientCameraTest, aDaemonThatIsStartedAnewTakesTheCameraAgain)
{
    connection->followDaemon(20ms);
    connection->link(LinkMode::exclusive());
    connection->setHeartbeat(4s);
    connection->writeRegister(gevsim::feature::testValue, 7);
    manager.reset(); // which gives the camera back
    zuGevDaemon::CollectGarbage();
    EXPECT_TRUE(waitFor(Event::daemonLost));
    EXPECT_EQ(camera.readRegister(gevsim::reg::ccp), 0u);
    EXPECT_THROW(connection->readRegister(gevsim::feature::testValue), DaemonLostError);
    camera.writeRegister(gevsim::reg::heartbeatTimeout, 3000);
    manager = std::make_shared<zuIPCPipe::CMgrServer>(&zuGevDaemon::OnClientConnect);
    ASSERT_TRUE(waitFor(Event::daemonReturned));
    EXPECT_EQ(camera.readRegister(gevsim::reg::ccp), gevsim::ccpValue::exclusive);
    EXPECT_EQ(camera.readRegister(gevsim::reg::heartbeatTimeout), 4000u);
    EXPECT_EQ(connection->readRegister(gevsim::feature::testValue), 7u);
    EXPECT_TRUE(connection->checkLink());
    EXPECT_EQ(camera.lastPeer().ip, 0x7F000F02u); // bound as before
}

} // namespace
