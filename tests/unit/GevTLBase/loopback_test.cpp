// CSockConnection, and the camera link over it, with real sockets on the loopback interface.
#include "platform/thread.h"
#include "src/SockControl.h"
#include "tests/support/recording_target.h"

#include "fake_connection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>

using namespace GEV;
using namespace gevTest;
using std::chrono::milliseconds;

namespace {

constexpr std::uint32_t cameraIp = 0x7F000C01; // 127.0.12.1
constexpr std::uint32_t localIp = 0x7F000C02;

class Loopback : public testing::Test {
protected:
    Loopback()
    {
        camera = zuPlatform::DatagramSocket::open();
        EXPECT_TRUE(camera);
        EXPECT_EQ(0, camera->bind({zuPlatform::hostToNetwork32(cameraIp), 0}));
        EXPECT_EQ(0, camera->getLocalAddress(cameraAddress));
        cameraPort = zuPlatform::networkToHost16(cameraAddress.port);
    }

    zuPlatform::SocketAddress addressOf(CSockConnection& connection)
    {
        std::uint32_t ip = 0;
        std::uint16_t port = 0;
        connection.GetLocalAddress(ip, port);
        return {zuPlatform::hostToNetwork32(ip), zuPlatform::hostToNetwork16(port)};
    }
    void sendFromCamera(CSockConnection& connection, const Bytes& data)
    {
        ASSERT_EQ(static_cast<std::ptrdiff_t>(data.size()),
                  camera->sendTo(data.data(), data.size(), addressOf(connection)).count);
    }

    zuPlatform::SocketPtr camera;
    zuPlatform::SocketAddress cameraAddress;
    std::uint16_t cameraPort = 0;
};

/// A camera that answers on its own thread, until it is destroyed.
class Camera {
public:
    explicit Camera(zuPlatform::SocketPtr socket) : socket_(std::move(socket)), thread_([this] { run(); }) {}
    ~Camera()
    {
        socket_->close();
        thread_.join();
    }
    void set(std::uint32_t address, std::uint32_t value)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        registers_[address] = value;
    }
    std::uint32_t get(std::uint32_t address)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return registers_[address];
    }
    std::atomic<int> ccpReads{0};

private:
    void run()
    {
        for (;;) {
            Bytes data(1024);
            zuPlatform::SocketAddress from;
            const zuPlatform::ReceiveResult got = socket_->receive(data.data(), data.size(), 60000, &from);
            if (got.kind == zuPlatform::ReceiveResult::Kind::waitFailed)
                return;
            if (got.kind != zuPlatform::ReceiveResult::Kind::received || got.count < 12)
                continue;
            data.resize(static_cast<std::size_t>(got.count));
            const Bytes answer = answerTo(data);
            socket_->sendTo(answer.data(), answer.size(), from);
        }
    }
    Bytes answerTo(const Bytes& data)
    {
        const std::uint16_t id = big16(data, 6);
        const std::uint32_t address = big32(data, 8);
        switch (big16(data, 2)) {
        case 0x80:
            if (address == 0x0A00)
                ++ccpReads;
            return readRegAck(id, get(address));
        case 0x82:
            set(address, big32(data, 12));
            return writeRegAck(id);
        case 0x84:
            return readMemAck(id, Bytes(big16(data, 14), static_cast<std::uint8_t>(address >> 8)));
        default:
            return writeMemAck(id);
        }
    }

    zuPlatform::SocketPtr socket_;
    std::mutex mutex_;
    std::map<std::uint32_t, std::uint32_t> registers_;
    std::thread thread_;
};

} // namespace

TEST_F(Loopback, ThereAndBack)
{
    CSockConnection connection;
    connection.Bind(localIp, 0);
    connection.SetDestination(cameraIp, cameraPort);
    const Bytes data{1, 2, 3, 4, 5};
    std::int32_t count = 0;
    ASSERT_EQ(0, connection.Send(data.data(), 5, count));
    EXPECT_EQ(5, count);
    Bytes got(100);
    zuPlatform::SocketAddress from;
    const zuPlatform::ReceiveResult received = camera->receive(got.data(), got.size(), 60000, &from);
    ASSERT_EQ(zuPlatform::ReceiveResult::Kind::received, received.kind);
    EXPECT_EQ(addressOf(connection), from);
    EXPECT_NE(0, from.port) << "the port that the system chose";

    sendFromCamera(connection, {9, 8});
    std::uint32_t ip = 0;
    std::uint16_t port = 0;
    EXPECT_EQ(0, connection.Receive(got.data(), 576, 60000, &ip, &port, count));
    EXPECT_EQ(2, count);
    EXPECT_EQ(cameraIp, ip);
    EXPECT_EQ(cameraPort, port);
}

TEST_F(Loopback, ATimeoutIsNeitherEarlyNorLate)
{
    CSockConnection connection;
    connection.Bind(localIp, 0);
    std::uint8_t buffer[576];
    for (const std::uint32_t timeout : {0u, 20u, 120u, 1500u}) {
        auto least = TimePoint::duration::max();
        for (int attempt = 0; attempt < 5 && least >= milliseconds(timeout + 200); ++attempt) {
            std::int32_t count = 99;
            const TimePoint start = std::chrono::steady_clock::now();
            EXPECT_EQ(-10012, connection.Receive(buffer, sizeof buffer, timeout, nullptr, nullptr, count));
            least = std::min(least, std::chrono::steady_clock::now() - start);
            EXPECT_EQ(0, count);
        }
        EXPECT_GE(least, milliseconds(timeout));
        EXPECT_LT(least, milliseconds(timeout + 200)) << "the machine can't have held up each of them";
    }
}

TEST_F(Loopback, AnEmptyDatagramReadsAsClosed)
{
    CSockConnection connection;
    connection.Bind(localIp, 0);
    sendFromCamera(connection, {});
    std::uint8_t buffer[576];
    std::int32_t count = 99;
    EXPECT_EQ(-10004, connection.Receive(buffer, sizeof buffer, 60000, nullptr, nullptr, count));
    EXPECT_EQ(0, count);
}

TEST_F(Loopback, ADatagramLargerThanTheBufferIsAFailedReceive)
{
    CSockConnection connection;
    connection.Bind(localIp, 0);
    sendFromCamera(connection, Bytes(577, 1));
    Bytes buffer(576);
    std::int32_t count = 99;
    EXPECT_EQ(-10012, connection.Receive(buffer.data(), 576, 60000, nullptr, nullptr, count));
    EXPECT_EQ(-1, count);
}

TEST_F(Loopback, FlushDropsAllThatIsQueued)
{
    CSockConnection connection;
    connection.Bind(localIp, 0);
    for (int i = 0; i < 50; ++i)
        sendFromCamera(connection, Bytes(1 + static_cast<std::size_t>(i) * 20));
    EXPECT_EQ(0, connection.FlushInput());
    std::uint8_t buffer[576];
    std::int32_t count = 0;
    EXPECT_EQ(-10012, connection.Receive(buffer, sizeof buffer, 0, nullptr, nullptr, count));
}

TEST_F(Loopback, RebindDropsWhatIsQueuedAndTheOldPort)
{
    CSockConnection connection;
    connection.Bind(localIp, 0);
    const zuPlatform::SocketAddress before = addressOf(connection);
    connection.Bind(localIp, 0);
    EXPECT_EQ(before, addressOf(connection)) << "bound to it already";
    sendFromCamera(connection, {1});
    connection.Bind(0x7F000C03, 0);
    EXPECT_NE(before.address, addressOf(connection).address);
    std::uint8_t buffer[576];
    std::int32_t count = 0;
    EXPECT_EQ(-10012, connection.Receive(buffer, sizeof buffer, 0, nullptr, nullptr, count));
}

TEST_F(Loopback, DontFragmentFollowsTheSocket)
{
    CSockConnection connection;
    bool value = true;
    connection.GetDontFragment(value);
    EXPECT_FALSE(value);
    connection.SetDontFragment(true);
    connection.Bind(localIp, 0);
    connection.GetDontFragment(value);
    EXPECT_TRUE(value);
    connection.SetDontFragment(false);
    connection.GetDontFragment(value);
    EXPECT_FALSE(value);
}

TEST_F(Loopback, ABindWakesTheReceiverOfTheOldSocket)
{
    const zuTest::LogRecorder log;
    CSockConnection connection;
    connection.Bind(localIp, 0);
    std::atomic<bool> started{false};
    std::int32_t result = 0;
    std::int32_t count = 0;
    std::thread receiver([&] {
        std::uint8_t buffer[576];
        started = true;
        result = connection.Receive(buffer, sizeof buffer, 100u * 60 * 1000, nullptr, nullptr, count);
    });
    // Whether it waits already or is about to: bind until it comes back.
    std::atomic<bool> ended{false};
    std::thread binder([&] {
        while (!started)
            std::this_thread::yield();
        std::uint32_t ip = 0x7F000C04;
        do {
            connection.Bind(ip, 0);
            ip ^= 1;
            std::this_thread::yield();
        } while (!ended);
    });
    receiver.join();
    ended = true;
    binder.join();
    EXPECT_EQ(-10012, result);
    EXPECT_EQ(-1, count);
}

/// Whether a thread of this process sleeps in the system.
bool sleeps(std::uint64_t threadId)
{
    std::ifstream file("/proc/self/task/" + std::to_string(threadId) + "/stat");
    std::string line;
    std::getline(file, line);
    const std::size_t state = line.rfind(") ");
    return state != std::string::npos && line.size() > state + 2 && line[state + 2] == 'S';
}

TEST_F(Loopback, ARebindGetsThePortThatAReceiverStillHolds)
{
    const zuTest::LogRecorder log;
    CSockConnection connection;
    connection.Bind(localIp, 0);
    const std::uint16_t port = zuPlatform::networkToHost16(addressOf(connection).port);
    std::atomic<std::uint64_t> receiverId{0};
    std::atomic<bool> ended{false};
    std::thread receiver([&] {
        receiverId = zuPlatform::currentThreadId();
        std::uint8_t buffer[576];
        std::int32_t count = 0;
        while (!ended)
            connection.Receive(buffer, sizeof buffer, 60000, nullptr, nullptr, count);
    });
    for (int i = 0; i < 20; ++i) {
        while (receiverId == 0 || !sleeps(receiverId))
            std::this_thread::yield();
        std::uint32_t ip = 0;
        std::uint16_t bound = 0;
        connection.Bind(i % 2 == 0 ? 0 : localIp, port);
        connection.GetLocalAddress(ip, bound);
        EXPECT_EQ(port, bound);
    }
    ended = true;
    connection.Bind(0, 0);
    receiver.join();
    EXPECT_FALSE(log.contains("Unable to bind")) << "in use by the thread that receives";
}

// --- The whole link

TEST_F(Loopback, ALinkOverRealSockets)
{
    const zuTest::LogRecorder log;
    Camera device(camera);
    device.set(0x0938, 100); // a period of 20 ms
    CGevControl<CSockConnection> control({}, {}, {});
    control.BindAny(localIp, 0);
    control.SetDestination(cameraIp, cameraPort);
    control.SetAckTimeout(20000); // a loaded machine is no silent camera
    control.Link(3);
    EXPECT_EQ(2u, device.get(0x0A00));
    EXPECT_TRUE(control.HasCcp());

    control.WriteReg(0x1000, 0xCAFE, true, PendingAckCallback());
    EXPECT_EQ(0xCAFEu, device.get(0x1000));
    std::uint32_t value = 0;
    control.ReadReg(0x1000, value, true, PendingAckCallback());
    EXPECT_EQ(0xCAFEu, value);
    Bytes memory(1500);
    control.ReadMem(0, memory.size(), memory.data(), PendingAckCallback());
    EXPECT_EQ(4, memory.at(1499)) << "the third block starts at 0x400";
    control.WriteMem(0x2000, static_cast<std::uint32_t>(memory.size()), memory.data(), PendingAckCallback());

    const int before = device.ccpReads;
    const TimePoint end = std::chrono::steady_clock::now() + hardDeadline;
    while (device.ccpReads < before + 3 && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(milliseconds(1));
    EXPECT_GE(device.ccpReads, before + 3) << "the heartbeat";
    control.Unlink();
    EXPECT_EQ(0u, device.get(0x0A00));
}

TEST_F(Loopback, APeriodOfZeroLetsClientsThrough)
{
    Camera device(camera);
    CGevControl<CSockConnection> control({}, {}, {});
    control.BindAny(localIp, 0);
    control.SetDestination(cameraIp, cameraPort);
    control.SetAckTimeout(20000);
    control.Link(3); // its heartbeat timeout reads 0
    const TimePoint start = std::chrono::steady_clock::now();
    while (device.ccpReads < 20 && std::chrono::steady_clock::now() < start + hardDeadline)
        std::this_thread::yield();
    EXPECT_GE(device.ccpReads, 20);
    for (int i = 0; i < 300; ++i) {
        std::uint32_t value = 0;
        control.ReadReg(0x1000, value, true, PendingAckCallback());
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, hardDeadline);
    control.Unlink();
}

TEST_F(Loopback, RebindsUnderALinkInUse)
{
    Camera device(camera);
    device.set(0x0938, 5);
    CGevControl<CSockConnection> control({}, {}, {});
    control.BindAny(localIp, 0);
    control.SetDestination(cameraIp, cameraPort);
    control.Link(3);
    control.SetAckTimeout(50);
    std::atomic<bool> done{false};
    std::atomic<int> commands{0};
    std::thread client([&] {
        while (!done) {
            ++commands;
            try {
                std::uint32_t value = 0;
                control.ReadReg(0x1000, value, true, PendingAckCallback());
            } catch (const GevException&) {
                // The answer went to the old socket.
            }
        }
    });
    for (int i = 0; i < 200 || commands < 30; ++i)
        control.BindAny(0, 0);
    done = true;
    client.join();
    control.SetAckTimeout(20000);
    std::uint32_t value = 1;
    control.ReadReg(0x1000, value, true, PendingAckCallback());
    EXPECT_EQ(0u, value);
}
