// DISCOVERY, FORCEIP and the head of the bootstrap map, byte by byte, and the arithmetic of addresses.
#include "client/Bootstrap.h"
#include "client/DiscoveryPackets.h"
#include "tests/support/child_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <map>

namespace {

using namespace zuGevClient;
using testing::HasSubstr;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint16_t id = 0x1234;
const MacAddress mac{{0x00, 0x11, 0x22, 0xAA, 0xBB, 0xCC}};
const IpAddress address{0xC0A80714, 0xFFFFFF00, 0xC0A807FE};

template <typename TArray>
Bytes bytesOf(const TArray& array)
{
    return {array.begin(), array.end()};
}

Bytes acknowledge()
{
    Bytes bytes(8 + 248);
    const Bytes head{0, 0, 0, 3, 0, 248, 0x12, 0x34, 0, 2, 0, 1, 0x80, 0, 0, 1, 0, 0, 0, 0x11, 0x22, 0x33, 0x44, 0x55};
    std::copy(head.begin(), head.end(), bytes.begin());
    const auto put = [&](std::size_t offset, const Bytes& value) {
        std::copy(value.begin(), value.end(), bytes.begin() + 8 + static_cast<std::ptrdiff_t>(offset));
    };
    const auto text = [&](std::size_t offset, const char* value) {
        std::memcpy(bytes.data() + 8 + offset, value, std::strlen(value));
    };
    put(16, {0x80, 0, 0, 7});
    put(20, {0, 0, 0, 4});
    put(36, {127, 0, 15, 1});
    put(52, {255, 0, 0, 0});
    put(68, {127, 0, 15, 254});
    text(72, "Maker");
    text(104, "Model with thirty-two characters");
    text(136, "1.2");
    text(168, "info");
    text(216, "SN\x01\xFF");
    text(232, "Left \xC3\xA9");
    return bytes;
}

TEST(DiscoveryPacketsTest, question)
{
    EXPECT_EQ(bytesOf(encodeDiscovery(id, Answer::direct)), (Bytes{0x42, 0x01, 0x00, 0x02, 0, 0, 0x12, 0x34}));
    EXPECT_EQ(bytesOf(encodeDiscovery(id, Answer::orBroadcast)), (Bytes{0x42, 0x11, 0x00, 0x02, 0, 0, 0x12, 0x34}));
}

TEST(DiscoveryPacketsTest, answer)
{
    const Bytes bytes = acknowledge();
    const auto info = decodeDiscoveryAck(bytes.data(), bytes.size(), id);
    ASSERT_TRUE(info);
    EXPECT_EQ(info->versionMajor, 2);
    EXPECT_EQ(info->versionMinor, 1);
    EXPECT_EQ(info->deviceMode, 0x80000001u);
    EXPECT_EQ(toString(info->mac), "00:11:22:33:44:55");
    EXPECT_EQ(info->ipOptions, 0x80000007u);
    EXPECT_EQ(info->ipCurrent, 4u);
    EXPECT_EQ(info->ip, (IpAddress{0x7F000F01, 0xFF000000, 0x7F000FFE}));
    EXPECT_EQ(info->manufacturer, "Maker");
    EXPECT_EQ(info->model, "Model with thirty-two characters"); // no room for a NUL
    EXPECT_EQ(info->deviceVersion, "1.2");
    EXPECT_EQ(info->manufacturerInfo, "info");
    EXPECT_EQ(info->serialNumber, "SN??");
    EXPECT_EQ(info->userName, "Left \xC3\xA9");
}

TEST(DiscoveryPacketsTest, nothingElseIsAnAnswer)
{
    const Bytes whole = acknowledge();
    for (std::size_t size = 0; size < whole.size(); ++size) {
        const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        EXPECT_FALSE(decodeDiscoveryAck(cut.data(), cut.size(), id)) << size;
    }
    EXPECT_FALSE(decodeDiscoveryAck(whole.data(), whole.size(), 0x1235));
    for (const std::size_t at : {0u, 1u, 2u, 3u, 6u, 7u}) {
        Bytes other = whole;
        other[at] ^= 0x80;
        EXPECT_FALSE(decodeDiscoveryAck(other.data(), other.size(), id)) << at;
    }
}

Bytes forceIpBytes(std::uint8_t flags)
{
    Bytes bytes{0x42, flags, 0x00, 0x04, 0x00, 0x38, 0x12, 0x34};
    bytes.resize(8 + 56);
    const auto put = [&](std::size_t offset, const Bytes& value) {
        std::copy(value.begin(), value.end(), bytes.begin() + 8 + static_cast<std::ptrdiff_t>(offset));
    };
    put(2, {0x00, 0x11, 0x22, 0xAA, 0xBB, 0xCC});
    put(20, {192, 168, 7, 20});
    put(36, {255, 255, 255, 0});
    put(52, {192, 168, 7, 254});
    return bytes;
}

TEST(DiscoveryPacketsTest, forceIp)
{
    EXPECT_EQ(bytesOf(encodeForceIp(id, Answer::direct, mac, address)), forceIpBytes(0x01));
    EXPECT_EQ(bytesOf(encodeForceIp(id, Answer::orBroadcast, mac, address)), forceIpBytes(0x11));
}

TEST(DiscoveryPacketsTest, answerToForceIp)
{
    const Bytes good{0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x12, 0x34};
    EXPECT_EQ(decodeForceIpAck(good.data(), good.size(), id), 0);
    const Bytes refused{0x80, 0x06, 0x00, 0x05, 0x00, 0x00, 0x12, 0x34};
    EXPECT_EQ(decodeForceIpAck(refused.data(), refused.size(), id), 0x8006);
    for (std::size_t size = 0; size < good.size(); ++size) {
        const Bytes cut(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size));
        EXPECT_FALSE(decodeForceIpAck(cut.data(), cut.size(), id)) << size;
    }
    for (const std::size_t at : {2u, 3u, 6u, 7u}) {
        Bytes other = good;
        other[at] ^= 0x80;
        EXPECT_FALSE(decodeForceIpAck(other.data(), other.size(), id)) << at;
    }
}

TEST(DiscoveryPacketsTest, statusesOnTheWire)
{
    const std::map<std::uint16_t, std::int32_t> expected{
        {0x0000, 0},      {0x8001, -1003},  {0x8002, -1009},  {0x8003, -1015},  {0x8004, -10009}, {0x8005, -10014},
        {0x8006, -1005},  {0x8007, -1004},  {0x8008, -10016}, {0x8009, -10017}, {0x800A, -10018}, {0x800B, -10012},
        {0x800C, -10019}, {0x800D, -10011}, {0x800E, -10015}, {0x8FFF, -1001},  {0x8123, -1003},
    };
    for (const auto& [wire, status] : expected)
        EXPECT_EQ(statusOfWire(wire), status) << std::hex << wire;
}

/// A capture of one UDP datagram over IPv4, to the port of GVCP.
Bytes captureOf(const Bytes& datagram)
{
    constexpr std::uint8_t rawIpv4 = 228;
    Bytes file{0xD4, 0xC3, 0xB2, 0xA1, 2, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0, 0, rawIpv4, 0, 0, 0};
    const auto udp = static_cast<std::uint8_t>(8 + datagram.size());
    const auto packet = static_cast<std::uint8_t>(20 + udp);
    const Bytes record{0, 0, 0, 0, 0, 0, 0, 0, packet, 0, 0, 0, packet, 0, 0, 0};
    const Bytes ip{0x45, 0, 0, packet, 0, 0, 0, 0, 64, 17, 0, 0, 192, 168, 7, 1, 255, 255, 255, 255};
    const Bytes ports{0xC0, 0x00, 0x0F, 0x74, 0, udp, 0, 0};
    for (const Bytes& part : {record, ip, ports, datagram})
        file.insert(file.end(), part.begin(), part.end());
    return file;
}

std::string dissected(const Bytes& datagram, const std::vector<std::string>& fields)
{
    const std::string file =
        testing::TempDir() + "zugev-packets-" + testing::UnitTest::GetInstance()->current_test_info()->name() + ".pcap";
    const Bytes bytes = captureOf(datagram);
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    std::vector<std::string> command{"tshark", "-r", file, "-T", "fields", "-E", "separator=,"};
    for (const std::string& field : fields)
        command.insert(command.end(), {"-e", field});
    const std::string output = zuTest::runCommand(command).output;
    std::remove(file.c_str());
    return output;
}

TEST(DiscoveryPacketsTest, anIndependentReaderSeesTheSame)
{
    if (!zuTest::isInstalled("tshark"))
        GTEST_SKIP() << "tshark is not installed (apt-get install tshark)";
    const std::vector<std::string> head{"gvcp.cmd.command", "gvcp.cmd.flag.acq_required",
                                        "gvcp.cmd.flag.allowbroadcastacq", "gvcp.cmd.req_id", "_ws.malformed"};
    EXPECT_THAT(dissected(bytesOf(encodeDiscovery(id, Answer::direct)), head), HasSubstr("0x0002,1,0,0x1234,\n"));
    EXPECT_THAT(dissected(bytesOf(encodeDiscovery(id, Answer::orBroadcast)), head), HasSubstr("0x0002,1,1,0x1234,\n"));
    EXPECT_THAT(dissected(bytesOf(encodeForceIp(id, Answer::direct, mac, address)), head),
                HasSubstr("0x0004,1,0,0x1234,\n"));
    EXPECT_THAT(dissected(bytesOf(encodeForceIp(id, Answer::direct, mac, address)),
                          {"gvcp.cmd.forceip.macaddress", "gvcp.cmd.forceip.ip", "gvcp.cmd.forceip.subnetmask",
                           "gvcp.cmd.forceip.defaultgateway"}),
                HasSubstr("00:11:22:aa:bb:cc,192.168.7.20,255.255.255.0,192.168.7.254\n"));
}

TEST(MacAddressTest, textBothWays)
{
    EXPECT_EQ(toString(mac), "00:11:22:AA:BB:CC");
    for (const char* const good : {"00:11:22:AA:BB:CC", "00-11-22-aa-bb-cc", "001122aAbBcC"})
        EXPECT_EQ(parseMacAddress(good), mac) << good;
    for (const char* const bad : {"", "00:11:22:AA:BB", "00:11:22:AA:BB:CC:", "00:11:22:AA:BB:CG", "00:11-22:AA:BB:CC",
                                  "00.11.22.AA.BB.CC", "00:11:22:AA:BB: C", "0011:22AA:BB:CC:", "00x11x22xAAxBBxCC"})
        EXPECT_EQ(parseMacAddress(bad), std::nullopt) << bad;
}

TEST(IpAddressTest, whatACameraCanHave)
{
    EXPECT_NO_THROW(requireUsable(address));
    EXPECT_NO_THROW(requireUsable({0xC0A80714, 0xFFFFFF00, 0}));
    EXPECT_NO_THROW(requireUsable({0xA9FE0101, 0xFFFF0000, 0}));
    EXPECT_NO_THROW(requireUsable({0x7F000F01, 0xFF000000, 0}));
    EXPECT_NO_THROW(requireUsable({0xC0A80714, 0xFFFFFFFE, 0})); // a subnet of two
    const auto complaint = [](const IpAddress& ip) -> std::string {
        try {
            requireUsable(ip);
        } catch (const std::invalid_argument& error) {
            return error.what();
        }
        return "none";
    };
    EXPECT_EQ(complaint({0xC0A80714, 0, 0}), "0.0.0.0 is no subnet mask");
    EXPECT_EQ(complaint({0xC0A80714, 0xFFFF00FF, 0}), "255.255.0.255 is no subnet mask");
    EXPECT_EQ(complaint({0x00000014, 0xFFFFFF00, 0}), "0.0.0.20 is no address for a camera");
    EXPECT_EQ(complaint({0xE0000001, 0xFFFFFF00, 0}), "224.0.0.1 is no address for a camera");
    EXPECT_EQ(complaint({0xC0A80700, 0xFFFFFF00, 0}),
              "192.168.7.0 is the address of the subnet itself, by the subnet mask 255.255.255.0");
    EXPECT_EQ(complaint({0xC0A807FF, 0xFFFFFF00, 0}),
              "192.168.7.255 is the broadcast address of its subnet, by the subnet mask 255.255.255.0");
    EXPECT_EQ(complaint({0xC0A80714, 0xFFFFFF00, 0xC0A80801}),
              "The gateway 192.168.8.1 is no neighbour of 192.168.7.20, by the subnet mask 255.255.255.0");
    EXPECT_THAT(complaint({0xC0A80714, 0xFFFFFF00, 0xC0A80714}), HasSubstr("is no neighbour"));
}

TEST(IpAddressTest, fitsWhereEachSideSeesTheOther)
{
    const LocalInterface local{"eth1", 0xC0A80701, 0xFFFFFF00, false};
    EXPECT_TRUE(fits({0xC0A80714, 0xFFFFFF00, 0}, local));
    EXPECT_TRUE(fits({0xC0A80714, 0xFFFF0000, 0}, local));
    EXPECT_TRUE(fits({0xC0A80714, 0, 0}, local)); // the camera doesn't tell
    EXPECT_FALSE(fits({0xC0A80814, 0xFFFF0000, 0}, local));
    EXPECT_FALSE(fits({0xA9FE0714, 0xFFFF0000, 0}, local));
    EXPECT_FALSE(fits({0xC0A80714, 0xFFFFFFF0, 0}, local)); // the camera would ask its gateway
    EXPECT_FALSE(fits({0, 0, 0}, {"any", 0, 0, false}));
    FoundCamera routed;
    routed.info.ip = {0xC0A80814, 0xFFFFFF00, 0};
    EXPECT_TRUE(routed.fits());
    routed.seenOn = local;
    EXPECT_FALSE(routed.fits());
}

FoundCamera cameraAt(std::uint32_t ip, std::uint8_t number, const LocalInterface& local)
{
    FoundCamera camera;
    camera.info.ip.address = ip;
    camera.info.mac.bytes[5] = number;
    camera.seenOn = local;
    return camera;
}

TEST(IpAddressTest, proposesAFreeOne)
{
    const LocalInterface local{"eth1", 0xC0A80714, 0xFFFFFF00, false};
    std::vector<FoundCamera> found{cameraAt(0xA9FE1122, 1, local)};
    EXPECT_EQ(proposeAddress(found[0], found), 0xC0A80722u);
    found.push_back(cameraAt(0xC0A80722, 2, local));
    EXPECT_EQ(proposeAddress(found[0], found), 0xC0A80723u); // another camera has .34
    found[0].info.ip.address = 0xA9FE1114;
    EXPECT_EQ(proposeAddress(found[0], found), 0xC0A80715u); // the interface has .20
    found[0].info.ip.address = 0xA9FE11FF;
    EXPECT_EQ(proposeAddress(found[0], found), 0xC0A80701u); // neither broadcast nor the subnet's own
    const LocalInterface narrow{"eth2", 0xC0A80701, 0xFFFFFFFC, false};
    found = {cameraAt(0xA9FE1122, 1, narrow)};
    EXPECT_EQ(proposeAddress(found[0], found), 0xC0A80702u);
    found.push_back(cameraAt(0xC0A80702, 2, narrow));
    EXPECT_EQ(proposeAddress(found[0], found), std::nullopt);
    found = {cameraAt(0xA9FE1122, 1, {"tun0", 0xC0A80701, 0xFFFFFFFF, false})};
    EXPECT_EQ(proposeAddress(found[0], found), std::nullopt);
}

} // namespace
