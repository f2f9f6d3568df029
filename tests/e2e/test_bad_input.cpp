// Bad input to every port of the daemon: it serves another client all the same.
#include "bench/raw_pipe.h"
#include "client/GevClient.h"
#include "daemon_under_test.h"
#include "tools/gevsim/camera.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include <unistd.h>

#include <arpa/inet.h>

using namespace zuTest;

namespace {

constexpr std::size_t longest = 2048;
constexpr std::uint32_t flagControl = 0x08, flagTerminate = 0x10, flagPing = 0x80, flagDispatcher = 0x100;

/// The ports of a dispatcher of the daemon, announced for and not connected.
struct Announced {
    std::uint16_t command = 0;
    std::uint16_t acknowledge = 0;
    explicit Announced(zuBench::Udp& from)
    {
        struct {
            std::uint32_t status, pid;
            std::uint16_t cmdPort, ackPort, rmtCmdPort, rmtAckPort;
        } datagram{0, static_cast<std::uint32_t>(::getpid()), htons(from.port()), htons(from.port()), 0, 0};
        from.send(&datagram, sizeof datagram, zuBench::daemonPort());
        // Answers to what was sent before may stand in front.
        do {
            datagram.status = 0;
        } while (from.receive(&datagram, sizeof datagram) < sizeof datagram || datagram.status != 10000 ||
                 datagram.rmtCmdPort == 0);
        command = ntohs(datagram.rmtCmdPort);
        acknowledge = ntohs(datagram.rmtAckPort);
    }
};

void drain(zuBench::Udp& socket)
{
    socket.receiveWithin(1);
    std::vector<std::uint8_t> buffer(65536);
    try {
        for (;;)
            socket.receive(buffer.data(), buffer.size());
    } catch (const std::exception&) {
        // Silence, at last.
    }
    socket.receiveWithin(20000);
}

/// Random bytes, without the flags whose consequences are the end of a dispatcher or of the daemon.
class Noise {
public:
    explicit Noise(unsigned seed) : random_(seed) {}
    std::size_t fill(std::vector<std::uint8_t>& buffer)
    {
        const std::size_t size = random_() % (longest + 1);
        for (std::size_t i = 0; i + 4 <= size; i += 4) {
            const auto word = static_cast<std::uint32_t>(random_());
            std::memcpy(&buffer[i], &word, 4);
        }
        if (size > 15 && random_() % 2 == 0)
            std::memset(buffer.data() + 12, 0, 4); // a plain command
        if (size > 23 && random_() % 2 == 0)
            std::memset(buffer.data() + 20, 0, 4); // for an instance that is there
        if (size > 15)
            harmless(buffer);
        return size;
    }
    static void harmless(std::vector<std::uint8_t>& buffer)
    {
        std::uint32_t flags = 0;
        std::memcpy(&flags, &buffer[12], 4);
        flags &= ~(flagTerminate | ((flags & flagDispatcher) != 0 ? flagPing : 0u));
        std::memcpy(&buffer[12], &flags, 4);
    }

private:
    std::mt19937 random_;
};

struct BadInput : testing::Test {
    DaemonUnderTest daemon;
    gevsim::Camera camera{"127.0.17.3", 0};
    zuBench::Udp attacker;

    void expectService()
    {
        drain(attacker);
        zuGevClient::Connection client;
        client.setDestination({camera.ip(), camera.port()});
        EXPECT_TRUE(client.link(zuGevClient::LinkMode::control()));
        EXPECT_EQ(client.readRegister(gevsim::reg::heartbeatTimeout), 3000u);
    }
};

} // namespace

TEST_F(BadInput, EveryLengthToTheManager)
{
    std::vector<std::uint8_t> bytes(longest + 64, 0xA5);
    for (std::size_t size = 0; size <= bytes.size(); ++size) {
        attacker.send(bytes.data(), size, zuBench::daemonPort());
        if (size % 16 == 0)
            drain(attacker);
    }
    expectService();
}

TEST_F(BadInput, EveryLengthToADispatcher)
{
    const Announced ports(attacker);
    std::vector<std::uint8_t> bytes(longest + 64);
    for (const std::uint8_t filling : {std::uint8_t{0}, std::uint8_t{1}, std::uint8_t{0x5A}, std::uint8_t{0xFF}}) {
        std::fill(bytes.begin(), bytes.end(), filling);
        Noise::harmless(bytes);
        for (std::size_t size = 0; size <= bytes.size(); ++size) {
            attacker.send(bytes.data(), size, ports.command);
            attacker.send(bytes.data(), size, ports.acknowledge);
        }
    }
    expectService();
}

TEST_F(BadInput, NoiseToAllPorts)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(seed);
    const char* const count = std::getenv("ZU_NOISE_DATAGRAMS");
    const int datagrams = count != nullptr ? std::atoi(count) : 100000;
    Noise noise(seed);
    std::vector<std::uint8_t> buffer(longest + 4);
    zuBench::RawPipe connected(zuBench::daemonPort());
    const Announced ports(attacker);
    for (int i = 0; i < datagrams; ++i) {
        const std::size_t size = noise.fill(buffer);
        switch (i % 4) {
        case 0:
            // Not an announce, or each would make a dispatcher with two threads.
            buffer[0] |= 1;
            attacker.send(buffer.data(), size, zuBench::daemonPort());
            break;
        case 1:
            attacker.send(buffer.data(), size, ports.acknowledge);
            break;
        default:
            if (size > 15) {
                // Without connects, for the same reason.
                buffer[12] &= static_cast<std::uint8_t>(~0x02u);
            }
            attacker.send(buffer.data(), size, ports.command);
            break;
        }
    }
    expectService();
}

TEST_F(BadInput, NoiseToAConnectedInstance)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const Announced ports(attacker);
    struct {
        std::uint64_t headerSize = 24;
        std::uint32_t seq = 0, flags = 0x102, timeout = 0, index = 0;
    } header;
    attacker.send(&header, sizeof header, ports.command);
    std::vector<std::uint8_t> buffer(longest);
    attacker.receive(buffer.data(), buffer.size());
    for (int i = 0; i < 20000; ++i) {
        header.flags = random() % 8 == 0 ? flagControl : 0;
        std::memcpy(buffer.data(), &header, sizeof header);
        for (std::size_t at = sizeof header; at + 4 <= buffer.size(); at += 4) {
            const auto word = static_cast<std::uint32_t>(random() % 3 == 0 ? random() % 32 : random());
            std::memcpy(&buffer[at], &word, 4);
        }
        buffer[24] = static_cast<std::uint8_t>(random() % 26);
        buffer[25] = buffer[26] = buffer[27] = 0;
        if (buffer[24] == 1 || buffer[24] == 2 || buffer[24] == 3)
            buffer[24] = 16; // those wait for a camera, or run as long as the length says
        attacker.send(buffer.data(), sizeof header + random() % (longest - sizeof header), ports.command);
    }
    expectService();
}

TEST_F(BadInput, RequestThatIsNoneComesBackUnchanged)
{
    const std::uint8_t request[16] = {7, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    attacker.send(request, sizeof request, zuBench::daemonPort());
    std::uint8_t answer[32] = {};
    ASSERT_EQ(attacker.receive(answer, sizeof answer), sizeof request);
    EXPECT_EQ(std::memcmp(answer, request, sizeof request), 0);
}

TEST_F(BadInput, DispatcherPingIsAnsweredOnceAndEndsTheDaemon)
{
    const Announced ports(attacker);
    struct {
        std::uint64_t headerSize = 24;
        std::uint32_t seq = 5, flags = flagDispatcher | flagPing, timeout = 0, index = 9;
    } ping;
    attacker.send(&ping, sizeof ping, ports.command);
    std::uint8_t answer[64] = {};
    ASSERT_EQ(attacker.receive(answer, sizeof answer), 24u);
    ping.flags |= 0x20;
    EXPECT_EQ(std::memcmp(answer, &ping, 24), 0);
    const auto end = daemon.process.wait();
    EXPECT_FALSE(end.exited);
    EXPECT_EQ(end.status, SIGSEGV);
    DaemonUnderTest next;
    EXPECT_TRUE(zuGevClient::Daemon::isRunning()) << "another one starts over what it left";
}

TEST_F(BadInput, DispatcherTerminateWithInstancesAliveLeavesTheDaemonGoing)
{
    const Announced ports(attacker);
    struct {
        std::uint64_t headerSize = 24;
        std::uint32_t seq = 0, flags = 0x102, timeout = 0, index = 0;
    } header;
    std::uint8_t answer[2048] = {};
    for (std::uint32_t index = 0; index < 3; ++index) {
        header.index = index;
        attacker.send(&header, sizeof header, ports.command);
        attacker.receive(answer, sizeof answer);
    }
    header.flags = flagDispatcher | flagTerminate;
    attacker.send(&header, sizeof header, ports.command);
    attacker.receive(answer, sizeof answer);
    expectService();
    EXPECT_EQ(daemon.instances(), 1u) << "the three went when the next client came";
}
