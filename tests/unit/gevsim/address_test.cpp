// How a camera gets its address: FORCEIP, the persistent one, and what it keeps without power.
#include "tests/unit/gevsim/client.h"

#include "tools/gevsim/camera.h"

using namespace gevsimTest;
using gevsim::Camera;
using gevsim::Command;
using gevsim::Config;
using gevsim::Endpoint;
namespace reg = gevsim::reg;
namespace feature = gevsim::feature;

namespace {

constexpr std::uint64_t mac = 0x0211223344EE;

Config config()
{
    Config made;
    made.endpoint = {"127.0.13.1", 0};
    made.heartbeatTimeoutMs = 60000;
    made.mac = mac;
    made.writesNeedControl = false;
    return made;
}

Bytes forceIp(const std::string& to, std::uint64_t forMac = mac, const std::string& mask = "255.255.0.0",
              const std::string& gateway = "127.0.13.254", std::uint8_t flags = 1)
{
    Bytes payload(56);
    gevsim::wire::put16(&payload[2], static_cast<std::uint32_t>(forMac >> 32));
    gevsim::wire::put32(&payload[4], static_cast<std::uint32_t>(forMac));
    gevsim::wire::put32(&payload[20], Endpoint(to, 0).ip);
    gevsim::wire::put32(&payload[36], Endpoint(mask, 0).ip);
    gevsim::wire::put32(&payload[52], Endpoint(gateway, 0).ip);
    return command(Command::forceIp, 9, payload, flags);
}

/// A client that takes answers from anywhere.
class Anyone {
public:
    Anyone()
    {
        socket_ = zuPlatform::DatagramSocket::open();
        EXPECT_EQ(socket_->setBroadcast(), 0);
        EXPECT_EQ(socket_->bind(zuPlatform::loopbackAt(0)), 0);
    }
    void send(const Bytes& data, const Endpoint& to)
    {
        EXPECT_EQ(socket_
                      ->sendTo(data.data(), data.size(),
                               {zuPlatform::hostToNetwork32(to.ip), zuPlatform::hostToNetwork16(to.port)})
                      .count,
                  static_cast<std::ptrdiff_t>(data.size()));
    }
    Bytes receive(Endpoint& from)
    {
        Bytes buffer(2000);
        zuPlatform::SocketAddress peer;
        const auto result = socket_->receive(buffer.data(), buffer.size(), Client::patience, &peer);
        EXPECT_EQ(result.kind, zuPlatform::ReceiveResult::Kind::received);
        buffer.resize(static_cast<std::size_t>(result.count));
        from = {zuPlatform::networkToHost32(peer.address), zuPlatform::networkToHost16(peer.port)};
        return buffer;
    }
    bool silent()
    {
        Bytes buffer(2000);
        return socket_->receive(buffer.data(), buffer.size(), Client::shortly, nullptr).kind ==
               zuPlatform::ReceiveResult::Kind::timeout;
    }

private:
    zuPlatform::SocketPtr socket_;
};

} // namespace

TEST(Address, ForceIpMovesTheCamera)
{
    Camera camera(config());
    const Endpoint before = camera.endpoint();
    Anyone client;
    client.send(forceIp("127.0.13.201"), before);
    Endpoint from{0, 0};
    EXPECT_EQ(text(client.receive(from)), "00 00 00 05 00 00 00 09");
    EXPECT_EQ(from, Endpoint("127.0.13.201", before.port)) << "the answer comes from the new address";
    EXPECT_EQ(camera.endpoint(), from);
    EXPECT_EQ(camera.readRegister(reg::currentIp), 0x7F000DC9U);
    EXPECT_EQ(camera.readRegister(reg::currentSubnetMask), 0xFFFF0000U);
    EXPECT_EQ(camera.readRegister(reg::currentGateway), 0x7F000DFEU);
    EXPECT_EQ(camera.readRegister(reg::persistentIp), before.ip) << "for now only";
    client.send(readReg(reg::currentIp, 4), from);
    EXPECT_EQ(valueOf(client.receive(from)), 0x7F000DC9U);
    client.send(readReg(reg::currentIp, 4), before);
    EXPECT_TRUE(client.silent()) << "nobody listens there any more";
    Camera other(before);
    camera.powerCycle();
    EXPECT_EQ(camera.endpoint().ip, 0x7F000DC9U) << "its home is taken";
}

TEST(Address, APowerCycleBringsItHome)
{
    Camera camera(config());
    const Endpoint before = camera.endpoint();
    Anyone client;
    Endpoint from{0, 0};
    client.send(forceIp("127.0.13.202"), before);
    client.receive(from);
    camera.powerCycle();
    EXPECT_EQ(camera.endpoint(), before);
    client.send(readReg(reg::currentIp), before);
    EXPECT_EQ(valueOf(client.receive(from)), before.ip);
    EXPECT_EQ(camera.readRegister(reg::currentSubnetMask), 0xFF000000U);
    EXPECT_EQ(camera.readRegister(reg::currentGateway), 0U);
}

TEST(Address, AnAddressOfZeroAsksForAnotherAttempt)
{
    Camera camera(config());
    const Endpoint before = camera.endpoint();
    Anyone client;
    Endpoint from{0, 0};
    client.send(forceIp("127.0.13.203"), before);
    client.receive(from);
    client.send(forceIp("0.0.0.0"), from);
    EXPECT_TRUE(client.silent());
    EXPECT_EQ(camera.endpoint(), before);
}

TEST(Address, ForceIpForAnotherCameraIsLeftAlone)
{
    Camera camera(config());
    Anyone client;
    client.send(forceIp("127.0.13.204", mac + 1), camera.endpoint());
    client.send(forceIp("127.0.13.204", mac + 0x010000000000), camera.endpoint());
    EXPECT_TRUE(client.silent());
    EXPECT_EQ(camera.ip(), 0x7F000D01U);
}

TEST(Address, ForceIpIsRefusedWhileTheCameraIsHeldAndWhereItCannotBe)
{
    Camera camera(config());
    Client client(camera.endpoint());
    EXPECT_EQ(client.status(forceIp("192.0.2.77")), 0x8008) << "no address of this machine";
    EXPECT_EQ(camera.readRegister(reg::currentIp), 0x7F000D01U);
    EXPECT_EQ(camera.readRegister(reg::currentSubnetMask), 0xFF000000U);
    client.status(writeReg(reg::ccp, 2));
    EXPECT_EQ(text(client.ask(forceIp("127.0.13.205"))), "80 06 00 05 00 00 00 09");
    EXPECT_EQ(client.status(command(Command::forceIp, 9, Bytes(52, 0))), 0x8002);
    EXPECT_EQ(camera.ip(), 0x7F000D01U);
}

TEST(Address, ForceIpWithoutAnAcknowledge)
{
    Camera camera(config());
    Anyone client;
    client.send(forceIp("127.0.13.206", mac, "255.0.0.0", "0.0.0.0", 0), camera.endpoint());
    EXPECT_TRUE(camera.waitFor([&] { return camera.ip() == 0x7F000DCEU; }));
    EXPECT_TRUE(client.silent());
}

TEST(Address, ForceIpIsHeardByBroadcastBeforeAndBehindAMove)
{
    Config made = config();
    made.broadcastDiscovery = true;
    Camera camera(made);
    Anyone client;
    Endpoint from{0, 0};
    client.send(forceIp("127.0.13.207", mac, "255.255.255.0"), Endpoint("127.255.255.255", camera.port()));
    EXPECT_EQ(statusOf(client.receive(from)), 0);
    EXPECT_EQ(from.ip, 0x7F000DCFU);
    // Its net is another one now, with another address for everybody.
    client.send(forceIp("127.0.13.208", mac, "255.0.0.0"), Endpoint("127.0.13.255", camera.port()));
    EXPECT_EQ(statusOf(client.receive(from)), 0);
    EXPECT_EQ(from.ip, 0x7F000DD0U);
}

TEST(Address, ThePersistentAddressHoldsFromTheNextPowerUp)
{
    Camera camera(config());
    const Endpoint before = camera.endpoint();
    Client client(before);
    EXPECT_EQ(client.status(writeReg(reg::persistentIp, Endpoint("127.0.13.210", 0).ip)), 0);
    EXPECT_EQ(client.status(writeReg(reg::persistentSubnetMask, 0xFFFFFF00)), 0);
    EXPECT_EQ(client.status(writeReg(reg::persistentGateway, 0x7F000D01)), 0);
    EXPECT_EQ(client.status(writeReg(reg::currentIpConfiguration, 0x3)), 0);
    EXPECT_EQ(camera.readRegister(reg::currentIpConfiguration), 7U) << "link-local is always on";
    EXPECT_EQ(camera.endpoint(), before);
    camera.powerCycle();
    EXPECT_EQ(camera.endpoint(), Endpoint("127.0.13.210", before.port));
    EXPECT_EQ(camera.readRegister(reg::currentSubnetMask), 0xFFFFFF00U);
    EXPECT_EQ(camera.readRegister(reg::currentGateway), 0x7F000D01U);
    Client there(camera.endpoint());
    EXPECT_EQ(there.status(writeReg(reg::currentIpConfiguration, 0x2)), 0);
    EXPECT_EQ(camera.readRegister(reg::currentIpConfiguration), 6U);
    camera.powerCycle();
    EXPECT_EQ(camera.endpoint(), before) << "the one that it was given";
    EXPECT_EQ(camera.readRegister(reg::persistentIp), Endpoint("127.0.13.210", 0).ip) << "kept all the same";
}

TEST(Address, APersistentAddressThatCannotBeHadIsNoHindrance)
{
    Camera camera(config());
    camera.writeRegister(reg::persistentIp, Endpoint("192.0.2.77", 0).ip);
    camera.powerCycle();
    EXPECT_EQ(camera.ip(), 0x7F000D01U);
}

TEST(Address, TheNameIsKeptWithoutPowerAndOtherThingsAreNot)
{
    Camera camera(config());
    Client client(camera.endpoint());
    Bytes name(16);
    name[0] = 'x';
    EXPECT_EQ(client.status(writeMem(reg::userDefinedName, name)), 0);
    client.status(writeReg(feature::testValue, 3));
    client.status(writeReg(reg::heartbeatTimeout, 12345));
    camera.powerCycle();
    EXPECT_EQ(camera.readMemory(reg::userDefinedName, 16), name);
    EXPECT_EQ(camera.readRegister(feature::testValue), 0U);
    EXPECT_EQ(camera.readRegister(reg::heartbeatTimeout), 60000U);
    EXPECT_EQ(client.ask(bytes("42 01 00 02 00 00 00 21")).at(8 + 0xE8), 'x') << "discovery tells it";
}

TEST(Address, PicturesComeFromTheNewAddress)
{
    Camera camera(config());
    Anyone client;
    Endpoint from{0, 0};
    client.send(forceIp("127.0.13.211"), camera.endpoint());
    client.receive(from);
    const zuPlatform::SocketPtr stream = zuPlatform::DatagramSocket::open();
    ASSERT_EQ(stream->bind(zuPlatform::loopbackAt(0)), 0);
    zuPlatform::SocketAddress local, sender;
    ASSERT_EQ(stream->getLocalAddress(local), 0);
    camera.writeRegister(reg::streamDestination, 0x7F000001);
    camera.writeRegister(reg::streamPort, zuPlatform::networkToHost16(local.port));
    camera.writeRegister(reg::streamPacketSize, 0x80000000 | 1000);
    Bytes buffer(2000);
    EXPECT_EQ(stream->receive(buffer.data(), buffer.size(), Client::patience, &sender).count, 972);
    EXPECT_EQ(zuPlatform::networkToHost32(sender.address), 0x7F000DD3U);
    EXPECT_EQ(zuPlatform::networkToHost16(sender.port), camera.readRegister(reg::streamSourcePort));
}
