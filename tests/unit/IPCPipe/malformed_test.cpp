// Datagrams of every length, and random ones, at all three ports of a server that serves another client meanwhile.
#include "tests/unit/IPCPipe/pipe_support.h"

#include "tests/support/recording_target.h"

#include <cstdlib>
#include <iostream>
#include <random>

namespace zuTest {
namespace {

using namespace zuIPCPipe;

/// A client that must be served all the time.
struct Witness {
    explicit Witness(Server& server) : client(MakeClientManager()), source(Connect(*client, 20000))
    {
        static_cast<void>(server);
    }
    bool served()
    {
        Bytes data{1, 2, 3};
        Bytes reply(3);
        std::size_t length = 3;
        source->Send(data.data(), 3, reply.data(), length, 20000);
        return reply == data;
    }
    std::shared_ptr<CMgr> client;
    std::shared_ptr<IMsgSrc> source;
};

/// Takes the marks of a dispatcher message away, whose consequences are stated: instances without end, or the end.
void disarm(Bytes& data)
{
    if (data.size() > 13)
        data[13] = static_cast<std::uint8_t>(data[13] & ~1u);
    // One that ends in the middle of the flags meets the mark that an earlier message has left in the buffer.
    if (data.size() == 13)
        data[12] = static_cast<std::uint8_t>(data[12] & ~(kMsgConnect | kMsgTerminate | kMsgPing));
}

/// Returns once the server's command thread has come through all that was sent to it; false if it does not.
bool cameThrough(RawPeer& peer)
{
    static std::uint32_t mark = 0x5EA10000;
    // An index that no instance has: a shorter datagram after it takes it over.
    peer.command(message(kMsgDispatcher, 0xFFFFFFFF, ++mark));
    for (;;) {
        const auto reply = peer.ack.receive();
        if (!reply)
            return false;
        if (reply->size() >= 24 && number(*reply, 8, 4) == mark && number(*reply, 12, 4) == kMsgDispatcher)
            return true;
    }
}

TEST(Malformed, EveryLengthAtTheManagersPort)
{
    Server server;
    Witness witness(server);
    RawSocket attacker;
    for (std::size_t length = 0; length <= 2049; ++length) {
        Bytes data(length);
        for (std::size_t i = 0; i < length; ++i)
            data[i] = static_cast<std::uint8_t>(length + i + 1);
        if (length >= 4)
            data[0] = 1;
        attacker.send(data, server.port());
        if (length != 0) {
            ASSERT_TRUE(attacker.receive()) << length;
        }
    }
    EXPECT_TRUE(witness.served());
}

TEST(Malformed, EveryLengthAtTheCommandPort)
{
    LogRecorder logs(zuLogging::log_warn | zuLogging::log_err);
    Server server;
    Witness witness(server);
    RawPeer attacker(server.port());
    attacker.connect();
    for (const std::uint8_t fill : {0x00, 0x01, 0x40, 0xFE}) {
        for (std::size_t length = 0; length <= 2049; ++length) {
            Bytes data(length, fill);
            disarm(data);
            attacker.command(data);
            // No more than the sockets hold, replies of full length included.
            if (length % 16 == 15 || length == 2049) {
                ASSERT_TRUE(cameThrough(attacker)) << length << " of " << int{fill};
            }
        }
    }
    EXPECT_TRUE(logs.waitFor("recvfrom failed with " + std::to_string(zuPlatform::messageSizeError)));
    EXPECT_TRUE(witness.served());
}

TEST(Malformed, EveryLengthAtTheAcknowledgePort)
{
    Server server;
    Witness witness(server);
    RawPeer attacker(server.port());
    attacker.connect();
    for (std::size_t length = 0; length <= 2049; ++length) {
        Bytes data(length, static_cast<std::uint8_t>(length));
        disarm(data);
        // Each of these that has no taker costs a buffer, and without one the thread spins: index 0 has a taker.
        for (std::size_t i = 20; i < std::min<std::size_t>(length, 24); ++i)
            data[i] = 0;
        attacker.acknowledge(data);
    }
    EXPECT_TRUE(witness.served());
    EXPECT_TRUE(cameThrough(attacker));
}

TEST(Malformed, RandomBytesAtAllPorts)
{
    const char* given = std::getenv("ZU_TEST_SEED");
    const unsigned seed = given ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : std::random_device{}();
    std::cout << "ZU_TEST_SEED=" << seed << '\n';
    std::mt19937 random(seed);
    Server server;
    Witness witness(server);
    RawPeer attacker(server.port());
    attacker.connect();
    for (int i = 0; i < 20000; ++i) {
        Bytes data(random() % 2100);
        for (auto& byte : data)
            byte = static_cast<std::uint8_t>(random());
        disarm(data);
        if (data.size() > 4 && i % 3 == 2)
            data[0] = static_cast<std::uint8_t>(data[0] | 1); // no announce
        if (data.size() > 24 && i % 2 == 0)
            setNumber(data, 20, 4, random() % 3);
        if (i % 3 == 0)
            attacker.command(data);
        else if (i % 3 == 1)
            attacker.acknowledge(data);
        else if (data.size() > 4)
            attacker.ack.send(data, server.port());
        if (i % 64 == 0) {
            while (attacker.ack.receive(0)) {
            }
        }
        if (i % 2000 == 0) {
            ASSERT_TRUE(witness.served());
        }
    }
    EXPECT_TRUE(witness.served());
}

} // namespace
} // namespace zuTest
