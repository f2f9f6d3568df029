// Bad input to every port of the daemon: it takes all of it, and serves another client all the same.
#include "bench/raw_pipe.h"
#include "client/GevClient.h"
#include "daemon_under_test.h"
#include "hostile.h"
#include "tools/gevsim/camera.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <random>

using namespace zuTest;

namespace {

constexpr std::size_t longest = 2048;
constexpr std::size_t lengths = longest + 65; ///< from 0 to a few that are too long

/// Takes out of a datagram for a command port what ends a dispatcher or the daemon, or costs a buffer or a new
/// instance, however a shorter one mixes with what the buffer held.
void makeHarmlessCommand(Bytes& data, std::size_t size)
{
    constexpr auto consequences =
        static_cast<std::uint8_t>(flag::connect | flag::control | flag::terminate | flag::ping);
    const bool forDispatcher = size == 13 || (size > 13 && (data[13] & 1) != 0);
    if (size > 12)
        data[12] &= static_cast<std::uint8_t>(~(forDispatcher ? consequences : flag::control));
}

/// The same for an acknowledge port, where a message without a taker costs a buffer: all are for the one instance.
void makeHarmlessAcknowledge(Bytes& data, std::size_t size)
{
    if (size > 13)
        data[13] &= 0xFE;
    for (std::size_t at = 20; at < std::min<std::size_t>(size, 24); ++at)
        data[at] = 0;
}

/// Not an announce: each would make a dispatcher with two threads.
void makeHarmlessRequest(Bytes& data, std::size_t) { data[0] |= 1; }

struct BadInput : testing::Test {
    DaemonUnderTest daemon;
    gevsim::Camera camera{"127.0.17.3", 0};
    zuBench::Udp attacker;

    void expectService()
    {
        zuGevClient::Connection client;
        client.setDestination({camera.ip(), camera.port()});
        EXPECT_TRUE(client.link(zuGevClient::LinkMode::control()));
        EXPECT_EQ(client.readRegister(gevsim::reg::heartbeatTimeout), 3000u);
    }
};

/// Random bytes of random length.
struct BadInputAtRandom : BadInput {
    BadInputAtRandom() { std::cout << "ZU_TEST_SEED=" << seed << std::endl; }

    template <typename Edit>
    void noise(Port& port, int count, Edit edit)
    {
        for (int i = 0; i < count; ++i) {
            const std::size_t size = random() % (longest + 1);
            for (std::size_t at = 0; at < size; at += 4) {
                const auto word = static_cast<std::uint32_t>(random());
                std::memcpy(&buffer[at], &word, 4);
            }
            if (random() % 2 == 0)
                std::memset(buffer.data() + 12, 0, 4); // a plain command
            if (random() % 2 == 0)
                std::memset(buffer.data() + 20, 0, 4); // for the instance that is there
            edit(buffer, size);
            port.send(buffer.data(), size);
        }
    }
    static long number(const char* name, long otherwise)
    {
        const char* const text = std::getenv(name);
        return text != nullptr ? std::atol(text) : otherwise;
    }

    const unsigned seed = static_cast<unsigned>(number("ZU_TEST_SEED", std::random_device{}()));
    std::mt19937 random{seed};
    Bytes buffer = Bytes(longest + 4);
};

} // namespace

TEST_F(BadInput, EveryLengthToTheManager)
{
    Port manager(attacker, zuBench::daemonPort());
    Bytes bytes(lengths, 0xA5);
    for (std::size_t size = 0; size < lengths; ++size)
        manager.send(bytes.data(), size);
    EXPECT_EQ(manager.taken(), lengths);
    expectService();
}

TEST_F(BadInput, EveryLengthToADispatcher)
{
    for (const std::uint8_t filling : {std::uint8_t{0}, std::uint8_t{1}, std::uint8_t{0x5A}, std::uint8_t{0xFF}}) {
        Target target;
        for (std::size_t size = 0; size < lengths; ++size) {
            Bytes bytes(lengths, filling);
            makeHarmlessCommand(bytes, size);
            target.command.send(bytes.data(), size);
        }
        EXPECT_EQ(target.command.taken(), lengths + 1) << "the first was the connect";
        Target other;
        for (std::size_t size = 0; size < lengths; ++size) {
            Bytes bytes(lengths, filling);
            makeHarmlessAcknowledge(bytes, size);
            other.acknowledge.send(bytes.data(), size);
        }
        EXPECT_EQ(other.acknowledge.taken(), lengths);
    }
    expectService();
}

TEST_F(BadInputAtRandom, NoiseToAllPorts)
{
    const long wanted = number("ZU_NOISE_DATAGRAMS", ZU_NOISE_DATAGRAMS);
    constexpr int round = 5000;
    Port manager(attacker, zuBench::daemonPort());
    long taken = 0;
    for (long rounds = 0; taken < wanted; ++rounds) {
        ASSERT_LE(rounds * 4 * round, 2 * wanted + 4 * round) << taken << " were taken";
        const std::size_t before = manager.taken();
        noise(manager, round, makeHarmlessRequest);
        taken += static_cast<long>(manager.taken() - before);
        Target commands;
        noise(commands.command, 2 * round, makeHarmlessCommand);
        taken += static_cast<long>(commands.command.taken());
        Target acknowledges;
        noise(acknowledges.acknowledge, round, makeHarmlessAcknowledge);
        taken += static_cast<long>(acknowledges.acknowledge.taken());
    }
    std::cout << taken << " datagrams were taken" << std::endl;
    expectService();
}

TEST_F(BadInputAtRandom, NoiseToAConnectedInstance)
{
    auto target = std::make_unique<Target>();
    constexpr int commands = 20000;
    int deaf = 0;
    Bytes payload(longest - sizeof(Header));
    for (int i = 0; i < commands; ++i) {
        for (std::size_t at = 0; at + 4 <= payload.size(); at += 4) {
            const auto word = static_cast<std::uint32_t>(random() % 3 == 0 ? random() % 32 : random());
            std::memcpy(&payload[at], &word, 4);
        }
        payload[0] = static_cast<std::uint8_t>(random() % 26);
        payload[1] = payload[2] = payload[3] = 0;
        target->ask(payload.data(), 4 + random() % (payload.size() - 3));
        // Each is dealt with before the next: a second one would take the place of the first.
        const auto answer = target->reply(2000);
        if (answer) {
            Header header;
            std::memcpy(&header, answer->data(), sizeof header);
            ASSERT_EQ(header.seq, target->asked()) << i;
        } else {
            ASSERT_LT(++deaf, 10) << i;
            target = std::make_unique<Target>(); // a reply that was too long has made that one deaf
        }
    }
    expectService();
}

TEST_F(BadInput, DispatcherWithoutBuffersLeavesTheOthersServed)
{
    Target target;
    Header ping;
    ping.flags = flag::control | flag::ping;
    // Each that the instance reads costs one of five buffers; without one the dispatcher takes nothing any more.
    zuIPCPipe::CTagMsg<zuIPCPipe::TGevSvrTag> question;
    question.SetCommand(zuIPCPipe::CmdGetRetries);
    int pings = 0;
    do {
        ASSERT_LT(++pings, 1000);
        attacker.send(&ping, sizeof ping, target.command.number());
        target.ask(question);
    } while (target.reply(5000));
    EXPECT_GE(pings, 3) << "the threads of the dispatcher hold two";
    expectService();
    EXPECT_FALSE(target.reply(1));
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
    Target target;
    Header ping;
    ping.seq = 5;
    ping.flags = flag::dispatcher | flag::ping;
    ping.index = 9;
    target.command.send(&ping, sizeof ping);
    const Bytes answer = target.receive();
    ping.flags |= flag::acknowledge;
    ASSERT_EQ(answer.size(), sizeof ping);
    EXPECT_EQ(std::memcmp(answer.data(), &ping, sizeof ping), 0);
    const auto end = daemon.process.wait();
    EXPECT_FALSE(end.exited);
    EXPECT_EQ(end.status, SIGSEGV);
    DaemonUnderTest next;
    EXPECT_TRUE(zuGevClient::Daemon::isRunning()) << "another one starts over what it left";
}

TEST_F(BadInput, DispatcherTerminateWithInstancesAliveLeavesTheDaemonGoing)
{
    Target target;
    target.connect();
    target.connect();
    Header terminate;
    terminate.flags = flag::dispatcher | flag::terminate;
    target.command.send(&terminate, sizeof terminate);
    target.receive();
    // The answer comes before the instances end, so the first client after it may be too early to see them deleted.
    std::size_t left = 0;
    for (int attempt = 0; attempt < 20 && left != 1; ++attempt) {
        expectService();
        left = daemon.instances();
    }
    EXPECT_EQ(left, 1u) << "the two go when a client comes";
}
