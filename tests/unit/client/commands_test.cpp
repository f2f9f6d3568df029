// Each command: what it sends, byte by byte, and what it makes of every kind of reply.
#include "tests/unit/client/scripted_daemon.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace zuTest;
using namespace zuGevClient;
using namespace zuIPCPipe;
using testing::ElementsAre;
using testing::HasSubstr;

struct ClientCommandTest : testing::Test {
    ScriptedDaemon daemon;
    Connection connection;

    ClientCommandTest() { daemon.clearSeen(); }

    Bytes onlyRequest()
    {
        const auto seen = daemon.seen();
        return seen.size() == 1 ? seen[0].bytes : Bytes();
    }
    template <typename TAction>
    std::string cameraError(std::int32_t status, TAction action)
    {
        try {
            action();
        } catch (const CameraError& error) {
            EXPECT_EQ(error.status(), status) << error.what();
            return error.what();
        } catch (const std::exception& error) {
            ADD_FAILURE() << "another exception: " << error.what();
            return {};
        }
        ADD_FAILURE() << "no exception";
        return {};
    }
};

TEST_F(ClientCommandTest, readRegisterSendsAddressAndSwap)
{
    daemon.setRegister(0x0A00, 0xDEADBEEF);
    EXPECT_EQ(connection.readRegister(0x0A00), 0xDEADBEEF);
    const Bytes expected{7,    0,    0, 0,                               // CmdReadReg
                         0x14, 0,    0, 0, 0, 0, 0, 0, 5,    0, 0,    4, // TagAddress, 8 bytes
                         0,    0x0A, 0, 0, 0, 0, 0, 0,                   //
                         0x0D, 0,    0, 0, 0, 0, 0, 0, 0x0C, 0, 0x80, 0, // TagSwapBytes, 1 byte
                         1,                                              //
                         0,    0,    0, 0, 0, 0, 0, 0};
    EXPECT_EQ(onlyRequest(), expected);
}

TEST_F(ClientCommandTest, writeRegisterSendsAddressValueAndSwap)
{
    connection.writeRegister(0xA0500004, 0x01020304);
    EXPECT_EQ(daemon.getRegister(0xA0500004), 0x01020304u);
    const Bytes expected{8,    0, 0,    0,                                  // CmdWriteReg
                         0x14, 0, 0,    0,    0, 0, 0, 0, 5,    0, 0,    4, // TagAddress
                         4,    0, 0x50, 0xA0, 0, 0, 0, 0,                   //
                         0x10, 0, 0,    0,    0, 0, 0, 0, 9,    0, 0,    2, // TagRegValue, 4 bytes
                         4,    3, 2,    1,                                  //
                         0x0D, 0, 0,    0,    0, 0, 0, 0, 0x0C, 0, 0x80, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(onlyRequest(), expected);
}

TEST_F(ClientCommandTest, aRefusalCarriesStatusAndText)
{
    daemon.on(CmdReadReg, [](Message& m, std::size_t& length, const auto&) {
        refuse(m, length, -1005);
        return true;
    });
    daemon.on(CmdWriteReg, [](Message& m, std::size_t& length, const auto&) {
        m.ClearTags();
        refuse(m, length, -10009);
        return true;
    });
    EXPECT_EQ(cameraError(Status::accessDenied, [&] { connection.readRegister(0x0A00); }),
              "Reading register 0x0A00: access denied (status -1005)");
    EXPECT_EQ(cameraError(Status::writeProtect, [&] { connection.writeRegister(0xA0000000, 1); }),
              "Writing register 0xA0000000: the address is write protected (status -10009)");
}

TEST_F(ClientCommandTest, noSuccessWithoutStatusIsAnError)
{
    const auto fault = [](Message& m, std::size_t& length, const auto&) {
        faultInside(m, length);
        return true;
    };
    for (const Command command : {CmdReadReg, CmdWriteReg, CmdReadMem, CmdWriteMem})
        daemon.on(command, fault);
    std::uint32_t word = 0;
    EXPECT_THROW(connection.readRegister(4), DaemonError);
    EXPECT_THROW(connection.writeRegister(4, 1), DaemonError);
    EXPECT_THROW(connection.readMemory(0, &word, 4), DaemonError);
    EXPECT_THROW(connection.writeMemory(0, &word, 4), DaemonError);
}

TEST_F(ClientCommandTest, aReplyWithoutAnyTagIsAnError)
{
    daemon.on(CmdWriteReg, [](Message& m, std::size_t& length, const auto&) {
        m.ClearTags();
        m.SetCommand(m.Command() | replyFlag);
        length = m.UsedLength();
        return true;
    });
    EXPECT_THROW(connection.writeRegister(4, 1), DaemonError);
}

TEST_F(ClientCommandTest, aReplyWithoutItsValueIsAnError)
{
    daemon.on(CmdReadReg, [](Message& m, std::size_t& length, const auto&) {
        const std::int32_t status = 0;
        const std::uint8_t success = 1;
        const std::uint16_t narrow = 7;
        m.SetCommand(m.Command() | replyFlag);
        m.AddBinary(TagRegValue, &narrow, sizeof narrow);
        m.AddBinary(TagStatus, &status, sizeof status);
        m.AddBinary(TagSuccess, &success, sizeof success);
        length = m.UsedLength();
        return true;
    });
    EXPECT_THROW(connection.readRegister(4), DaemonError);
}

TEST_F(ClientCommandTest, aRequestThatComesBackUnansweredIsAnError)
{
    daemon.on(CmdSetDestination, [](Message& m, std::size_t& length, const auto&) {
        length = m.Size();
        return true;
    });
    EXPECT_THROW(connection.setDestination({0x7F000F01, 3956}), DaemonError);
}

TEST_F(ClientCommandTest, linkModes)
{
    for (const auto& [mode, value] : {std::pair{LinkMode::monitor(), 0u},
                                      {LinkMode::control(), 3u},
                                      {LinkMode::exclusive(), 4u},
                                      {LinkMode::switchover(0x1234), 0x11234u}}) {
        daemon.clearSeen();
        EXPECT_TRUE(connection.link(mode));
        Bytes expected{1, 0, 0, 0, 0x10, 0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
        setNumber(expected, 16, 4, value);
        EXPECT_EQ(onlyRequest(), expected);
    }
}

TEST_F(ClientCommandTest, linkThatDoesNotReadBackIsNotConfirmed)
{
    daemon.on(CmdLink, [](Message& m, std::size_t& length, const auto&) {
        const std::uint8_t no = 0, yes = 1;
        m.SetCommand(m.Command() | replyFlag);
        m.AddBinary(TagLinkState, &no, 1);
        m.AddBinary(TagSuccess, &yes, 1);
        length = m.UsedLength();
        return true;
    });
    EXPECT_FALSE(connection.link(LinkMode::switchover(7)));
    EXPECT_EQ(daemon.commands(), std::vector<std::uint32_t>{CmdLink});
}

bool refuseLinking(Message& m, std::size_t& length, const boost::function<void(unsigned)>&)
{
    const std::uint8_t no = 0;
    m.SetCommand(m.Command() | replyFlag);
    m.AddBinary(TagLinkState, &no, 1);
    m.AddBinary(TagSuccess, &no, 1);
    length = m.UsedLength();
    return true;
}

TEST_F(ClientCommandTest, aRefusedLinkSaysWhyAndIsGivenBack)
{
    daemon.on(CmdLink, refuseLinking);
    daemon.setRegister(0x0A00, 2);
    EXPECT_THAT(cameraError(Status::accessDenied, [&] { connection.link(LinkMode::control()); }),
                HasSubstr("privilege register reads 0x0002"));
    EXPECT_THAT(daemon.commands(), ElementsAre(CmdLink, CmdReadReg, CmdUnlink));

    daemon.setRegister(0x0A00, 0);
    cameraError(Status::generalFailure, [&] { connection.link(LinkMode::control()); });

    daemon.on(CmdReadReg, [](Message& m, std::size_t& length, const auto&) {
        refuse(m, length, Status::timeout);
        return true;
    });
    EXPECT_THAT(cameraError(Status::timeout, [&] { connection.link(LinkMode::exclusive()); }),
                HasSubstr("the camera does not answer"));
}

TEST_F(ClientCommandTest, aRefusedMonitorLinkHasNothingToGiveBack)
{
    daemon.on(CmdLink, refuseLinking);
    cameraError(Status::generalFailure, [&] { connection.link(LinkMode::monitor()); });
    EXPECT_THAT(daemon.commands(), ElementsAre(CmdLink, CmdReadReg));
}

TEST_F(ClientCommandTest, unlinkAndCheck)
{
    connection.link(LinkMode::control());
    EXPECT_TRUE(connection.checkLink());
    daemon.setRegister(0x0A00, 0);
    EXPECT_FALSE(connection.checkLink());
    connection.unlink();
    EXPECT_EQ(daemon.commands().back(), static_cast<std::uint32_t>(CmdUnlink));
    EXPECT_TRUE(connection.checkLink());
}

TEST_F(ClientCommandTest, bindIsCheckedAfterwards)
{
    connection.bind({0x7F000F02, 0});
    EXPECT_THAT(daemon.commands(), ElementsAre(CmdBindSocket, CmdGetLocalAddress));
    EXPECT_EQ(connection.localAddress(), (Endpoint{0x7F000F02, 40123}));

    // A refused bind is acknowledged all the same; the socket then has no port.
    daemon.on(CmdGetLocalAddress, [](Message& m, std::size_t& length, const auto&) {
        const std::uint32_t ip = 0;
        const std::uint16_t port = 0;
        const std::uint8_t success = 1;
        m.SetCommand(m.Command() | replyFlag);
        m.AddBinary(TagLocalIp, &ip, 4);
        m.AddBinary(TagLocalPort, &port, 2);
        m.AddBinary(TagSuccess, &success, 1);
        length = m.UsedLength();
        return true;
    });
    EXPECT_THROW(connection.bind({0x01020304, 0}), DaemonError);
}

TEST_F(ClientCommandTest, destination)
{
    connection.setDestination({0x7F000F01, 3956});
    const Bytes expected{0x0A, 0, 0, 0, 0x10, 0, 0, 0,    0, 0, 0, 0,    2,    0, 0, 2, 0x01, 0x0F, 0, 0x7F, 0x0E,
                         0,    0, 0, 0, 0,    0, 0, 0x03, 0, 0, 1, 0x74, 0x0F, 0, 0, 0, 0,    0,    0, 0,    0};
    EXPECT_EQ(onlyRequest(), expected);
    for (const Endpoint bad : {Endpoint{0, 3956}, {0xFFFFFFFF, 3956}, {0x7F000F01, 0}})
        EXPECT_THROW(connection.setDestination(bad), std::invalid_argument);
    EXPECT_EQ(daemon.count(CmdSetDestination), 1u);
}

TEST_F(ClientCommandTest, timeoutsAreWholeThoughRepliesHoldTheLowByte)
{
    EXPECT_EQ(connection.ackTimeout(), Milliseconds(300));
    EXPECT_EQ(connection.retries(), 3u);
    connection.setAckTimeout(Milliseconds(70000));
    connection.setRetries(1000);
    EXPECT_EQ(connection.ackTimeout(), Milliseconds(70000));
    EXPECT_EQ(connection.retries(), 1000u);
    EXPECT_THROW(connection.setAckTimeout(Milliseconds(0)), std::invalid_argument);
    EXPECT_THROW(connection.setAckTimeout(Milliseconds(std::int64_t{1} << 32)), std::invalid_argument);
    EXPECT_THROW(connection.setRetries(0), std::invalid_argument);
}

TEST_F(ClientCommandTest, aTimeoutThatIsNotTheOneSetIsAnError)
{
    daemon.on(CmdGetRetries, [](Message& m, std::size_t& length, const auto&) {
        acknowledge(m, length);
        const std::uint8_t other = 9;
        m.AddBinary(TagRetries, &other, 1);
        length = m.UsedLength();
        return true;
    });
    EXPECT_THROW(connection.retries(), DaemonError);
}

TEST_F(ClientCommandTest, heartbeatNeedsAPrivilege)
{
    EXPECT_THROW(connection.setHeartbeat(Milliseconds(5000)), Error);
    connection.link(LinkMode::monitor());
    EXPECT_THROW(connection.setHeartbeat(Milliseconds(5000)), Error);
    EXPECT_EQ(daemon.count(CmdSetHeartbeat), 0u);
    connection.link(LinkMode::control());
    EXPECT_EQ(connection.setHeartbeat(Milliseconds(5000)).timeout, Milliseconds(5000));
    connection.unlink();
    EXPECT_THROW(connection.setHeartbeat(Milliseconds(5000)), Error);
}

TEST_F(ClientCommandTest, heartbeatTellsWhatIsInForce)
{
    connection.link(LinkMode::control());
    const Heartbeat before = connection.heartbeat();
    EXPECT_EQ(before.timeout, Milliseconds(3000));
    EXPECT_EQ(before.margin, Milliseconds(2400));
    EXPECT_EQ(connection.setHeartbeat(Milliseconds(100)).timeout, Milliseconds(1500)); // the least
    EXPECT_EQ(connection.setHeartbeat(Milliseconds(0)).timeout, Milliseconds(0));
}

TEST_F(ClientCommandTest, aHeartbeatThatTheCameraDidNotTakeIsAnError)
{
    connection.link(LinkMode::control());
    daemon.on(CmdSetHeartbeat, [](Message& m, std::size_t& length, const auto&) {
        acknowledge(m, length);
        return true;
    });
    EXPECT_THAT(cameraError(Status::generalFailure, [&] { connection.setHeartbeat(Milliseconds(5000)); }),
                HasSubstr("stayed at 3000 ms"));
}

TEST_F(ClientCommandTest, anEarlierHeartbeatReplyIsNotBelieved)
{
    connection.link(LinkMode::control());
    // As when the daemon's own read failed, and the client's buffer still holds the reply of another time.
    daemon.on(CmdGetHeartbeat, [](Message& m, std::size_t& length, const auto&) {
        m.ClearTags();
        m.SetCommand(m.Command() | replyFlag);
        const std::uint32_t timeout = 9999, margin = 1;
        const std::uint8_t success = 1;
        m.AddBinary(TagHeartbeatTimeout, &timeout, 4);
        m.AddBinary(TagHeartbeatMargin, &margin, 4);
        m.AddBinary(TagSuccess, &success, 1);
        length = m.UsedLength();
        return true;
    });
    EXPECT_THROW(connection.heartbeat(), DaemonError);
}

TEST_F(ClientCommandTest, closedAndMovedFrom)
{
    Connection other = std::move(connection);
    EXPECT_TRUE(other.isOpen());
    EXPECT_FALSE(connection.isOpen()); // NOLINT(bugprone-use-after-move)
    EXPECT_THROW(connection.readRegister(0), ClosedError);
    EXPECT_EQ(other.readRegister(0x0938), 3000u);
    other.close();
    EXPECT_FALSE(other.isOpen());
    EXPECT_THROW(other.readRegister(0), ClosedError);
    EXPECT_THROW(other.ping(), ClosedError);
    other.close();
    connection = std::move(other);
    EXPECT_FALSE(connection.isOpen());
    EXPECT_TRUE(daemon.server().waitForDisconnects(1));
}

} // namespace
