// What a command costs while nothing is recorded: no allocation. The counting allocator needs a program of its own.
#include "tests/unit/gevsim/allocations.h"

#include "tools/gevsim/camera.h"

#include "platform/socket.h"

#include <gtest/gtest.h>

#include <array>

namespace {

/// Allocations during `rounds` exchanges of a command of each kind.
std::uint64_t exchange(const gevsim::Camera& camera, int rounds)
{
    constexpr std::size_t largest = 12 + 512;
    std::array<std::array<std::uint8_t, largest>, 4> commands{};
    const std::array<std::size_t, 4> sizes = {12, 16, 16, largest};
    const std::array<gevsim::Command, 4> codes = {gevsim::Command::readReg, gevsim::Command::writeReg,
                                                  gevsim::Command::readMem, gevsim::Command::writeMem};
    for (std::size_t i = 0; i < commands.size(); ++i) {
        std::uint8_t* bytes = commands[i].data();
        bytes[0] = gevsim::wire::commandKey;
        bytes[1] = gevsim::wire::flagAckRequired;
        gevsim::wire::put16(bytes + 2, static_cast<std::uint16_t>(codes[i]));
        gevsim::wire::put16(bytes + 4, static_cast<std::uint32_t>(sizes[i] - 8));
        gevsim::wire::put16(bytes + 6, 1);
        gevsim::wire::put32(bytes + 8, gevsim::region::memory);
        if (codes[i] == gevsim::Command::readMem)
            gevsim::wire::put32(bytes + 12, 512);
    }
    const zuPlatform::SocketPtr socket = zuPlatform::DatagramSocket::open();
    EXPECT_EQ(socket->bind(zuPlatform::loopbackAt(0)), 0);
    const zuPlatform::SocketAddress to{zuPlatform::hostToNetwork32(camera.ip()),
                                       zuPlatform::hostToNetwork16(camera.port())};
    std::array<std::uint8_t, 2048> answer{};
    int good = 0;
    const std::uint64_t before = gevsimTest::allocations();
    for (int i = 0; i < rounds; ++i) {
        for (std::size_t c = 0; c < commands.size(); ++c) {
            socket->sendTo(commands[c].data(), sizes[c], to);
            const auto result = socket->receive(answer.data(), answer.size(), 20000, nullptr);
            good += result.kind == zuPlatform::ReceiveResult::Kind::received &&
                    gevsim::wire::get16(answer.data()) == 0 &&
                    gevsim::wire::get16(answer.data() + 2) == static_cast<std::uint16_t>(codes[c]) + 1;
        }
    }
    const std::uint64_t after = gevsimTest::allocations();
    EXPECT_EQ(good, rounds * static_cast<int>(commands.size()));
    return after - before;
}

gevsim::Config config(bool recording)
{
    gevsim::Config made;
    made.endpoint = {"127.0.13.1", 0};
    made.writesNeedControl = false;
    made.recording = recording;
    return made;
}

} // namespace

TEST(Steady, NoAllocationWithoutARecording)
{
    gevsim::Camera camera(config(false));
    exchange(camera, 10);
    EXPECT_EQ(exchange(camera, 500), 0U);
}

namespace {

/// Allocations while so many pictures come and packets of them are asked for again.
std::uint64_t pictures(gevsim::Camera& camera, const zuPlatform::SocketPtr& socket, int count)
{
    std::array<std::uint8_t, 9000> packet{};
    std::array<std::uint8_t, 20> request{0x42, 0, 0, 0x40, 0, 12, 0, 1};
    const zuPlatform::SocketAddress to{zuPlatform::hostToNetwork32(camera.ip()),
                                       zuPlatform::hostToNetwork16(camera.port())};
    const std::uint64_t before = gevsimTest::allocations();
    for (int trailers = 0; trailers < count;) {
        const auto result = socket->receive(packet.data(), packet.size(), 20000, nullptr);
        if (result.kind != zuPlatform::ReceiveResult::Kind::received) {
            ADD_FAILURE() << "no packet";
            return 0;
        }
        if (packet[4] != 2 || gevsim::wire::get16(&packet[6]) == 0)
            continue;
        ++trailers;
        gevsim::wire::put16(&request[10], gevsim::wire::get16(&packet[2]));
        gevsim::wire::put32(&request[12], 1);
        gevsim::wire::put32(&request[16], 3);
        socket->sendTo(request.data(), request.size(), to);
    }
    return gevsimTest::allocations() - before;
}

} // namespace

TEST(Steady, NoAllocationForAPicture)
{
    gevsim::Config made = config(false);
    made.heartbeatTimeoutMs = 0;
    made.resendFrames = 4;
    gevsim::Camera camera(made);
    const zuPlatform::SocketPtr socket = zuPlatform::DatagramSocket::open();
    ASSERT_EQ(socket->bind(zuPlatform::loopbackAt(0)), 0);
    zuPlatform::SocketAddress local;
    ASSERT_EQ(socket->getLocalAddress(local), 0);
    camera.writeRegister(gevsim::feature::height, 64);
    camera.writeRegister(gevsim::feature::chunkMode, 1);
    camera.writeRegister(gevsim::feature::frameRate, 0x43480000); // 200
    camera.writeRegister(gevsim::reg::streamDestination, 0x7F000001);
    camera.writeRegister(gevsim::reg::streamPort, zuPlatform::networkToHost16(local.port));
    camera.writeRegister(gevsim::feature::acquisitionStart, 1);
    pictures(camera, socket, 10);
    EXPECT_EQ(pictures(camera, socket, 60), 0U);
    EXPECT_GT(camera.streamCounters().resent, 0U);
}

TEST(Steady, TheCountingCounts)
{
    gevsim::Camera camera(config(true));
    EXPECT_GE(exchange(camera, 10), 80U);
}
