// The camera as a tool of tests: log, counts, waiting, hooks, discovery, several threads.
#include "tests/unit/gevsim/client.h"

#include "tools/gevsim/camera.h"

#include <atomic>
#include <mutex>
#include <thread>

using namespace gevsimTest;
using namespace std::chrono_literals;
using gevsim::Camera;
using gevsim::Command;
using gevsim::Config;
using gevsim::Datagram;
using gevsim::Endpoint;
using gevsim::Fault;
using Clock = std::chrono::steady_clock;
namespace reg = gevsim::reg;
namespace region = gevsim::region;
namespace feature = gevsim::feature;

namespace {

const char* const cameraIp = "127.0.13.1";

Config config()
{
    Config made;
    made.endpoint = {cameraIp, 0};
    made.heartbeatTimeoutMs = 60000;
    return made;
}

} // namespace

TEST(CameraApi, ListensWhereItSays)
{
    Camera camera(cameraIp, 0);
    EXPECT_EQ(camera.ip(), 0x7F000D01U);
    EXPECT_NE(camera.port(), 0);
    EXPECT_EQ(camera.readRegister(reg::currentIp), 0x7F000D01U);
    const Endpoint where = camera.endpoint();
    {
        Client client(where);
        EXPECT_EQ(client.status(readReg(0)), 0);
    }
    EXPECT_EQ(Camera("127.0.13.77").port(), 3956) << "the standard's port";
}

TEST(CameraApi, ItsAddressIsFreeAfterItsEnd)
{
    Endpoint where{cameraIp, 0};
    {
        Camera camera(where);
        where = camera.endpoint();
    }
    Camera again(where);
    EXPECT_EQ(again.endpoint(), where);
    Client client(where);
    EXPECT_EQ(client.status(readReg(0)), 0);
}

TEST(CameraApi, TheLogHasCommandAndAnswerInOrder)
{
    Camera camera(config());
    Client client(camera.endpoint());
    const auto begin = Clock::now();
    const Bytes first = writeReg(reg::ccp, 2, 1), second = readReg(reg::ccp, 2);
    const Bytes firstAck = client.ask(first), secondAck = client.ask(second);
    const std::vector<Datagram> log = camera.log();
    ASSERT_EQ(log.size(), 4U);
    EXPECT_EQ(log[0].bytes, first);
    EXPECT_EQ(log[1].bytes, firstAck);
    EXPECT_EQ(log[2].bytes, second);
    EXPECT_EQ(log[3].bytes, secondAck);
    auto last = begin;
    for (const Datagram& datagram : log) {
        EXPECT_EQ(datagram.peer, client.endpoint());
        EXPECT_GE(datagram.time, last);
        last = datagram.time;
    }
    EXPECT_LE(last, Clock::now());
    EXPECT_TRUE(log[0].is(Command::writeReg));
    EXPECT_FALSE(log[0].is(Command::readReg));
    EXPECT_TRUE(log[1].isAckOf(Command::writeReg));
    EXPECT_EQ(log[0].address(), reg::ccp);
    EXPECT_EQ(log[0].value(), 2U);
    EXPECT_EQ(log[0].id(), 1);
    EXPECT_EQ(camera.lastPeer(), client.endpoint());
}

TEST(CameraApi, QuestionsToTheLog)
{
    Camera camera(config());
    Client client(camera.endpoint());
    client.ask(writeReg(reg::ccp, 2));
    client.ask(writeReg(reg::ccp, 2));
    client.ask(readReg(reg::ccp));
    client.ask(writeReg(feature::testValue, 9));
    client.ask(writeReg(reg::ccp, 0));
    EXPECT_EQ(camera.writesTo(reg::ccp), (std::vector<std::uint32_t>{2, 2, 0}));
    EXPECT_EQ(camera.commands(Command::writeReg, feature::testValue).size(), 1U);
    EXPECT_EQ(camera.commands(Command::readReg, reg::ccp).size(), 1U);
    EXPECT_EQ(camera.received(Command::writeReg), 4U);
    EXPECT_EQ(camera.received(Command::readMem), 0U);
    EXPECT_EQ(camera.counters().received, 5U);
    EXPECT_EQ(camera.counters().sent, 5U);
    camera.clearLog();
    EXPECT_TRUE(camera.log().empty());
    EXPECT_EQ(camera.counters().received, 0U);
    EXPECT_EQ(camera.received(Command::writeReg), 0U);
}

TEST(CameraApi, CountsGoOnWithoutARecording)
{
    Camera camera(config());
    Client client(camera.endpoint());
    camera.setRecording(false);
    client.ask(readReg(0));
    EXPECT_TRUE(camera.log().empty());
    EXPECT_EQ(camera.received(Command::readReg), 1U);
    camera.setRecording(true);
    client.ask(readReg(0));
    EXPECT_EQ(camera.log().size(), 2U);
}

TEST(CameraApi, TheLogForgetsTheOldest)
{
    Config made = config();
    made.recordLimit = 4;
    Camera camera(made);
    Client client(camera.endpoint());
    for (std::uint16_t id = 1; id <= 5; ++id)
        client.ask(readReg(0, id));
    const std::vector<Datagram> log = camera.log();
    ASSERT_EQ(log.size(), 4U);
    EXPECT_EQ(log[0].id(), 4);
    EXPECT_EQ(log[3].id(), 5);
}

TEST(CameraApi, WaitsForCommands)
{
    Camera camera(config());
    Client client(camera.endpoint());
    EXPECT_FALSE(camera.waitForReceived(Command::readReg, 1, 0ms));
    std::thread other([&] {
        client.ask(readReg(0));
        client.ask(writeReg(reg::ccp, 2));
        client.ask(writeReg(reg::ccp, 2));
    });
    EXPECT_TRUE(camera.waitForReceived(Command::readReg));
    EXPECT_TRUE(camera.waitForWrite(reg::ccp, 2));
    EXPECT_TRUE(camera.waitFor([&] { return camera.control().held(); }));
    other.join();
}

TEST(CameraApi, WaitingEndsAtTheDeadline)
{
    Camera camera(cameraIp, 0);
    const auto begin = Clock::now();
    int looks = 0;
    EXPECT_FALSE(camera.waitFor([&] { return ++looks < 0; }, 100ms));
    EXPECT_GE(Clock::now() - begin, 100ms);
    EXPECT_GE(looks, 2);
    EXPECT_THROW(camera.waitFor([]() -> bool { throw std::logic_error("x"); }), std::logic_error);
}

TEST(CameraApi, ControlOfASilentHolderEnds)
{
    Config made = config();
    made.heartbeatTimeoutMs = 100;
    Camera camera(made);
    Client client(camera.endpoint());
    const auto begin = Clock::now();
    EXPECT_EQ(client.status(writeReg(reg::ccp, 2)), 0);
    EXPECT_TRUE(camera.waitFor([&] { return !camera.control().held(); }));
    EXPECT_GE(Clock::now() - begin, 100ms);
    EXPECT_EQ(camera.readRegister(reg::ccp), 0U);
    EXPECT_EQ(camera.counters().controlLost, 1U);
}

TEST(CameraApi, ControlFromATest)
{
    Camera camera(config());
    Client client(camera.endpoint());
    camera.writeRegister(reg::ccp, 2);
    EXPECT_EQ(client.status(writeReg(reg::ccp, 2)), 0x8006);
    camera.setControl({2, client.endpoint()});
    EXPECT_EQ(client.status(writeReg(feature::testValue, 2)), 0);
    camera.writeRegister(reg::ccp, 0);
    EXPECT_EQ(client.status(writeReg(feature::testValue, 2)), 0x8006);
}

TEST(CameraApi, MemoryFromATest)
{
    Camera camera(cameraIp, 0);
    camera.writeMemory(region::memory + 3, bytes("01 02"));
    EXPECT_EQ(text(camera.readMemory(region::memory, 8)), "00 00 00 01 02 00 00 00");
    EXPECT_THROW(camera.readMemory(0x0F000000, 1), std::out_of_range);
    EXPECT_THROW(camera.writeMemory(region::memory + 1024 * 1024 - 1, Bytes(2, 0)), std::out_of_range);
    EXPECT_THROW(camera.writeRegister(0x0F000000, 1), std::out_of_range);
}

TEST(CameraApi, TheHookSeesACommandBeforeItIsCarriedOut)
{
    Config made = config();
    made.writesNeedControl = false;
    Camera camera(made);
    Client client(camera.endpoint());
    std::atomic<std::uint32_t> before{99}, seen{0};
    camera.onCommand([&](const Datagram& datagram) {
        before = camera.readRegister(feature::testValue);
        seen = datagram.value();
    });
    EXPECT_EQ(client.status(writeReg(feature::testValue, 7)), 0);
    EXPECT_EQ(before, 0U);
    EXPECT_EQ(seen, 7U);
    camera.onCommand({});
    EXPECT_EQ(client.status(writeReg(feature::testValue, 8)), 0);
    EXPECT_EQ(seen, 7U);
}

TEST(CameraApi, SendsWhatNobodyAskedFor)
{
    Camera camera(config());
    Client client(camera.endpoint());
    camera.send(bytes("00 00 00 81 00 04 00 01 00 00 00 00"), client.endpoint());
    EXPECT_EQ(text(client.receive()), "00 00 00 81 00 04 00 01 00 00 00 00");
    EXPECT_EQ(camera.sent().size(), 1U);
}

TEST(CameraApi, TracesEveryDatagram)
{
    Camera camera(config());
    Client client(camera.endpoint());
    std::mutex mutex;
    std::vector<std::string> lines;
    camera.setTrace([&](const std::string& line) {
        const std::lock_guard<std::mutex> lock(mutex);
        lines.push_back(line);
    });
    camera.inject(Fault::drop().only(Command::readMem));
    client.send(readMem(region::memory, 8, 4));
    client.ask(writeReg(reg::ccp, 2, 5));
    camera.setTrace({});
    client.ask(readReg(0));
    const std::string peer = client.endpoint().text();
    EXPECT_EQ(lines, (std::vector<std::string>{"<- " + peer + " READMEM id=4 [0x00010000] 8 bytes (lost)",
                                               "<- " + peer + " WRITEREG id=5 [0x00000A00]=0x00000002",
                                               "-> " + peer + " WRITEREG_ACK id=5"}));
}

TEST(CameraApi, AnswersDiscoveryToTheBroadcastAddressOnlyIfAskedTo)
{
    Config made = config();
    made.broadcastDiscovery = true;
    Camera camera(made);
    const zuPlatform::SocketPtr socket = zuPlatform::DatagramSocket::open();
    ASSERT_TRUE(socket);
    ASSERT_EQ(socket->setBroadcast(), 0);
    ASSERT_EQ(socket->bind(zuPlatform::loopbackAt(0)), 0);
    const zuPlatform::SocketAddress everybody{zuPlatform::hostToNetwork32(0x7FFFFFFF),
                                              zuPlatform::hostToNetwork16(camera.port())};
    const auto broadcast = [&](const Bytes& data) {
        EXPECT_EQ(socket->sendTo(data.data(), data.size(), everybody).count, static_cast<std::ptrdiff_t>(data.size()));
    };
    broadcast(readReg(0, 3)); // for other cameras, and not answered
    broadcast(bytes("42 11 00 02 00 00 ff ff"));
    Bytes ack(1000);
    zuPlatform::SocketAddress from;
    const auto result = socket->receive(ack.data(), ack.size(), Client::patience, &from);
    ASSERT_EQ(result.kind, zuPlatform::ReceiveResult::Kind::received);
    EXPECT_EQ(result.count, 256);
    EXPECT_EQ(idOf(ack), 0xFFFF);
    EXPECT_EQ(from.address, zuPlatform::hostToNetwork32(camera.ip())) << "from its own address";
    EXPECT_EQ(from.port, zuPlatform::hostToNetwork16(camera.port()));
}

TEST(CameraApi, ServesSeveralThreadsAndIsAskedByOthers)
{
    Config made = config();
    made.writesNeedControl = false;
    Camera camera(made);
    constexpr int rounds = 200;
    std::vector<std::thread> threads;
    std::atomic<int> answered{0};
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&, t] {
            Client client(camera.endpoint());
            for (int i = 0; i < rounds; ++i) {
                const auto id = static_cast<std::uint16_t>(i + 1);
                const Bytes ack =
                    client.ask(t == 0 ? writeReg(feature::testValue, id, id) : readReg(feature::testValue, id));
                answered += idOf(ack) == id && statusOf(ack) == 0;
            }
        });
    }
    threads.emplace_back([&] {
        for (int i = 0; i < rounds; ++i) {
            camera.readRegister(feature::testValue);
            camera.writeMemory(region::memory, Bytes(64, static_cast<std::uint8_t>(i)));
            camera.inject(Fault::duplicate().only(Command::action));
            camera.log();
            camera.counters();
        }
        camera.clearFaults();
    });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(answered, 3 * rounds);
    EXPECT_EQ(camera.received(Command::writeReg), static_cast<std::uint64_t>(rounds));
}

TEST(CameraApi, EndsWithAnswersStillWaiting)
{
    auto camera = std::make_unique<Camera>(config());
    Client client(camera->endpoint());
    camera->inject(Fault::delay(60s));
    camera->inject(Fault::hold());
    camera->inject(Fault::reorder(9, 60s));
    for (std::uint16_t id = 1; id <= 3; ++id)
        client.send(readReg(0, id));
    ASSERT_TRUE(camera->waitForReceived(Command::readReg, 3));
    const auto begin = Clock::now();
    camera.reset();
    EXPECT_LT(Clock::now() - begin, 10s);
}
