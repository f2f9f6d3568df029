// What a camera keeps: its addresses, the way to them, and its name. Which registers are written, in which order.
#include "client/GevDiscovery.h"
#include "tests/unit/client/scripted_daemon.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace zuTest;
using namespace zuGevClient;
using namespace zuIPCPipe;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

constexpr std::uint32_t options = 0x0010;
constexpr std::uint32_t current = 0x0014;
constexpr std::uint32_t keptAddress = 0x064C;
constexpr std::uint32_t keptMask = 0x065C;
constexpr std::uint32_t keptGateway = 0x066C;
constexpr std::uint32_t nameAt = 0x00E8;

const IpAddress address{0xC0A80714, 0xFFFFFF00, 0xC0A807FE};

/// A reply as if the camera had taken what was written.
bool takeForDone(Message& message, std::size_t& length)
{
    const std::int32_t status = 0;
    const std::uint8_t success = 1;
    message.ClearTags();
    message.SetCommand(message.Command() | replyFlag);
    message.AddBinary(TagStatus, &status, sizeof status);
    message.AddBinary(TagSuccess, &success, sizeof success);
    length = message.UsedLength();
    return true;
}

struct CameraSettingsTest : testing::Test {
    ScriptedDaemon daemon;
    Connection connection;

    CameraSettingsTest()
    {
        daemon.setRegister(options, 0xC0000007);
        daemon.setRegister(current, 0x80000006);
    }

    std::vector<std::pair<std::uint32_t, std::uint32_t>> writes()
    {
        std::vector<std::pair<std::uint32_t, std::uint32_t>> result;
        for (Seen& one : daemon.seen()) {
            if (one.command != CmdWriteReg)
                continue;
            one.bytes.resize(kMsgPayloadSize);
            Message message(one.bytes.data(), one.bytes.size(), one.bytes.size());
            result.emplace_back(static_cast<std::uint32_t>(valueOf<std::uint64_t>(message, TagAddress)),
                                valueOf<std::uint32_t>(message, TagRegValue));
        }
        return result;
    }

    /// The camera takes no write to this register, and says that it did.
    void freeze(std::uint32_t address32)
    {
        daemon.on(CmdWriteReg, [address32](Message& message, std::size_t& length, const auto&) {
            if (valueOf<std::uint64_t>(message, TagAddress) != address32)
                return false;
            return takeForDone(message, length);
        });
    }

    template <typename TAction>
    std::pair<std::int32_t, std::string> failure(TAction action)
    {
        try {
            action();
        } catch (const CameraError& error) {
            return {error.status(), error.what()};
        }
        return {0, "none"};
    }
};

TEST_F(CameraSettingsTest, persistentAddressIsStoredBeforeItIsTurnedOn)
{
    setPersistentIp(connection, address);
    EXPECT_THAT(writes(), ElementsAre(Pair(keptAddress, 0xC0A80714), Pair(keptMask, 0xFFFFFF00),
                                      Pair(keptGateway, 0xC0A807FE), Pair(current, 0x80000007)));
    EXPECT_EQ(persistentIp(connection), address);
    EXPECT_EQ(ipMethods(connection), 7u);
}

TEST_F(CameraSettingsTest, anAddressThatCantBeIsNotWritten)
{
    EXPECT_THROW(setPersistentIp(connection, {0xC0A80700, 0xFFFFFF00, 0}), std::invalid_argument);
    EXPECT_THAT(writes(), IsEmpty());
}

TEST_F(CameraSettingsTest, theWayToTheAddress)
{
    setIpMethods(connection, IpMethod::linkLocal);
    EXPECT_EQ(ipMethods(connection), 4u);
    setIpMethods(connection, IpMethod::dhcp); // link-local stays
    setIpMethods(connection, IpMethod::persistent);
    EXPECT_THAT(writes(), ElementsAre(Pair(current, 0x80000004), Pair(current, 0x80000006), Pair(current, 0x80000005)));
    EXPECT_THROW(setIpMethods(connection, 8), std::invalid_argument);
}

TEST_F(CameraSettingsTest, whatTheCameraCantIsNotTried)
{
    daemon.setRegister(options, 0xC0000004);
    EXPECT_THAT(failure([&] { setPersistentIp(connection, address); }),
                Pair(Status::notImplemented, HasSubstr("can't keep an address")));
    EXPECT_THAT(failure([&] { setIpMethods(connection, IpMethod::dhcp); }),
                Pair(Status::notImplemented, HasSubstr("can't get its address by DHCP")));
    EXPECT_THAT(writes(), IsEmpty());
    setIpMethods(connection, 0);
    EXPECT_THAT(writes(), ElementsAre(Pair(current, 0x80000004)));
}

TEST_F(CameraSettingsTest, aCameraThatDidNotTakeItIsNoticed)
{
    for (const std::uint32_t frozen : {keptAddress, keptMask, keptGateway}) {
        daemon.clearSeen();
        daemon.setRegister(frozen, 0);
        freeze(frozen);
        EXPECT_THAT(failure([&] { setPersistentIp(connection, address); }),
                    Pair(Status::generalFailure, HasSubstr("persistent address does not read back")));
        EXPECT_EQ(writes().size(), 3u) << "an address that isn't there must not be turned on";
        daemon.setRegister(frozen, 0);
    }
    freeze(current);
    EXPECT_THAT(failure([&] { setIpMethods(connection, IpMethod::persistent); }),
                Pair(Status::generalFailure, HasSubstr("IP configuration does not read back")));
}

TEST_F(CameraSettingsTest, name)
{
    daemon.setMemory(nameAt, Bytes{'O', 'l', 'd', ' ', 'n', 'a', 'm', 'e', 0, 'x', 'x', 'x', 'x', 'x', 'x', 'x'});
    daemon.setMemory(nameAt + 16, Bytes{0x55});
    EXPECT_EQ(userName(connection), "Old name");
    setUserName(connection, "Left");
    EXPECT_EQ(daemon.memory(nameAt, 17), (Bytes{'L', 'e', 'f', 't', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x55}));
    EXPECT_EQ(userName(connection), "Left");
    setUserName(connection, "sixteen letters!");
    EXPECT_EQ(userName(connection), "sixteen letters!");
    setUserName(connection, "");
    EXPECT_EQ(daemon.memory(nameAt, 16), Bytes(16));
}

TEST_F(CameraSettingsTest, aNameThatCantBeIsNotWritten)
{
    for (const std::string& bad :
         {std::string("seventeen letters"), std::string("a\nb"), std::string("a\xFF"), std::string("a\0b", 3)})
        EXPECT_THROW(setUserName(connection, bad), std::invalid_argument) << bad;
    EXPECT_EQ(daemon.count(CmdWriteMem), 0u);
}

TEST_F(CameraSettingsTest, aNameThatTheCameraDidNotTakeIsNoticed)
{
    daemon.on(CmdWriteMem,
              [](Message& message, std::size_t& length, const auto&) { return takeForDone(message, length); });
    EXPECT_THAT(failure([&] { setUserName(connection, "Left"); }),
                Pair(Status::generalFailure, HasSubstr("name does not read back")));
}

TEST_F(CameraSettingsTest, infoThroughTheDaemon)
{
    daemon.setRegister(0x0000, 0x00020001);
    daemon.setRegister(0x0004, 0x80000001);
    daemon.setRegister(0x0008, 0x00000011);
    daemon.setRegister(0x000C, 0x22AABBCC);
    daemon.setRegister(0x0024, 0xC0A80714);
    daemon.setRegister(0x0034, 0xFFFFFF00);
    daemon.setRegister(0x0044, 0xC0A807FE);
    daemon.setMemory(0x0048, Bytes{'M', 'a', 'k', 'e', 'r', 0});
    daemon.setMemory(nameAt, Bytes{'L', 'e', 'f', 't', 0});
    const CameraInfo info = readCameraInfo(connection);
    EXPECT_EQ(info.versionMajor, 2);
    EXPECT_EQ(info.versionMinor, 1);
    EXPECT_EQ(info.deviceMode, 0x80000001u);
    EXPECT_EQ(toString(info.mac), "00:11:22:AA:BB:CC");
    EXPECT_EQ(info.ip, address);
    EXPECT_EQ(info.ipOptions, 0xC0000007u);
    EXPECT_EQ(info.ipCurrent, 0x80000006u);
    EXPECT_EQ(info.manufacturer, "Maker");
    EXPECT_EQ(info.userName, "Left");
}

} // namespace
