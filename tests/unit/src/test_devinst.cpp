// The commands of a client against a simulated camera: replies as bytes, what reaches the camera, log lines.
#include "scripted_client.h"
#include "tests/support/pointer_text.h"
#include "tests/support/recording_target.h"
#include "tools/gevsim/camera.h"

#include "GevTLBase/GevException.h"
#include "logging/logstate.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

using namespace zuTest;
using gevsim::Command;
using gevsim::Fault;

namespace {

struct DevInstTest : testing::Test {
    LogRecorder log;
    gevsim::Camera camera{"127.0.16.1", 0};
    std::shared_ptr<ScriptedClient> client = std::make_shared<ScriptedClient>();
    std::vector<zuGevDaemon::CDevInst*> gone, destroyed;
    std::unique_ptr<zuGevDaemon::CDevInst> instance = std::make_unique<zuGevDaemon::CDevInst>(
        client, [this](zuGevDaemon::CDevInst* i) { gone.push_back(i); },
        [this](zuGevDaemon::CDevInst* i) { destroyed.push_back(i); });

    Bytes run(const Build& request) { return client->command(request); }
    static Bytes ack(std::uint32_t command) { return Build(command | replyFlag).u8(TagSuccess, 1).done(); }

    void aim()
    {
        ASSERT_EQ(run(Build(CmdBindSocket).u32(TagLocalIp, 0x7F001001).u16(TagLocalPort, 0)), ack(CmdBindSocket));
        ASSERT_EQ(run(Build(CmdSetDestination).u32(TagDestIp, camera.ip()).u16(TagDestPort, camera.port())),
                  ack(CmdSetDestination));
    }
    void link()
    {
        aim();
        ASSERT_EQ(run(Build(CmdLink).u32(TagLinkMode, 3)),
                  Build(CmdLink | replyFlag).u32(TagLinkMode, 3).u8(TagLinkState, 1).u8(TagSuccess, 1).done());
        camera.clearLog();
        log.clear();
    }
    /// Waits for the camera are short where the test lets it fall silent.
    void quick()
    {
        ASSERT_EQ(run(Build(CmdSetAckTimeout).u32(TagAckTimeout, 20)), ack(CmdSetAckTimeout));
        ASSERT_EQ(run(Build(CmdSetRetries).u32(TagRetries, 1)), ack(CmdSetRetries));
    }
};

} // namespace

TEST_F(DevInstTest, BindAndDestinationAreLoggedAndAcknowledged)
{
    aim();
    EXPECT_TRUE(log.contains("Bind socket to IP 0x7f001001 on port 0"));
    std::ostringstream text;
    text << "Set Destination for socket to0x" << std::hex << camera.ip() << std::dec << " ,port " << camera.port();
    EXPECT_TRUE(log.contains(text.str())) << text.str();
    const std::vector<std::string> lines = log.texts();
    const auto place = [&](const std::string& start) {
        return std::find_if(lines.begin(), lines.end(), [&](const std::string& l) { return l.rfind(start, 0) == 0; });
    };
    EXPECT_LT(place("Bind socket to IP"), place("Bind sock to IP")) << "announced, and then done";
    EXPECT_LT(place("Set destination to"), place("Set Destination for socket to")) << "done, and then told";
    ASSERT_NE(place("Set Destination for socket to"), lines.end());
    EXPECT_TRUE(log.contains(" Devinst " + pointerText(instance.get()) + " got cmd 9"));
    EXPECT_TRUE(log.contains("IPC Cmd Done " + pointerText(instance.get())));
}

TEST_F(DevInstTest, LinkTakesControl)
{
    aim();
    EXPECT_EQ(run(Build(CmdLink).u32(TagLinkMode, 3)),
              Build(CmdLink | replyFlag).u32(TagLinkMode, 3).u8(TagLinkState, 1).u8(TagSuccess, 1).done());
    EXPECT_EQ(camera.writesTo(gevsim::reg::ccp), (std::vector<std::uint32_t>{2, 2}));
    EXPECT_TRUE(log.contains("Pipe : Link"));
    EXPECT_TRUE(camera.control().held());
    EXPECT_EQ(run(Build(CmdCheckLink)), ack(CmdCheckLink));
    EXPECT_EQ(run(Build(CmdUnlink)), ack(CmdUnlink));
    EXPECT_FALSE(camera.control().held());
    EXPECT_EQ(run(Build(CmdCheckLink)), ack(CmdCheckLink)) << "nothing was written, and nothing is there";
}

TEST_F(DevInstTest, FailedLinkStillAsksForControl)
{
    aim();
    quick();
    camera.inject(Fault::denied(2).only(Command::writeReg));
    EXPECT_EQ(run(Build(CmdLink).u32(TagLinkMode, 3)),
              Build(CmdLink | replyFlag).u32(TagLinkMode, 3).u8(TagLinkState, 0).u8(TagSuccess, 0).done());
    EXPECT_EQ(camera.commands(Command::readReg, gevsim::reg::ccp).size(), 1u);
}

TEST_F(DevInstTest, LinkToNobodyFailsTwice)
{
    EXPECT_EQ(run(Build(CmdLink).u32(TagLinkMode, 3)),
              Build(CmdLink | replyFlag).u32(TagLinkMode, 3).u8(TagLinkState, 0).u8(TagSuccess, 0).done());
}

TEST_F(DevInstTest, ReadReg)
{
    link();
    camera.writeRegister(gevsim::feature::testValue, 0x11223344);
    EXPECT_EQ(run(Build(CmdReadReg).u64(TagAddress, gevsim::feature::testValue).u8(TagSwapBytes, 1)),
              Build(CmdReadReg | replyFlag)
                  .u64(TagAddress, gevsim::feature::testValue)
                  .u8(TagSwapBytes, 1)
                  .u32(TagRegValue, 0x11223344)
                  .u32(TagLength, 4)
                  .u32(TagStatus, 0)
                  .u8(TagSuccess, 1)
                  .done());
    EXPECT_EQ(run(Build(CmdReadReg).u64(TagAddress, gevsim::feature::testValue)),
              Build(CmdReadReg | replyFlag)
                  .u64(TagAddress, gevsim::feature::testValue)
                  .u32(TagRegValue, 0x44332211)
                  .u32(TagLength, 4)
                  .u32(TagStatus, 0)
                  .u8(TagSuccess, 1)
                  .done())
        << "after a link the bytes pass as they are on the wire";
    EXPECT_FALSE(log.contains(" Devinst " + pointerText(instance.get()) + " got cmd 7"));
    EXPECT_EQ(log.count("IPC Cmd Done " + pointerText(instance.get())), 2u);
}

TEST_F(DevInstTest, ReadRegWithoutAddressReadsZero)
{
    aim();
    run(Build(CmdReadReg).u8(TagSwapBytes, 1));
    EXPECT_EQ(camera.commands(Command::readReg, 0).size(), 1u);
    run(Build(CmdReadReg).u32(TagAddress, 0x0934));
    EXPECT_EQ(camera.commands(Command::readReg, 0).size(), 2u) << "an address of the wrong width is none";
}

TEST_F(DevInstTest, ReadRegRefused)
{
    aim();
    quick();
    camera.inject(Fault::status(gevsim::Status::invalidAddress, 1));
    EXPECT_EQ(run(Build(CmdReadReg).u64(TagAddress, 0x1234)), Build(CmdReadReg | replyFlag)
                                                                  .u64(TagAddress, 0x1234)
                                                                  .u32(TagStatus, static_cast<std::uint32_t>(-1015))
                                                                  .u8(TagSuccess, 0)
                                                                  .done());
    const auto records = log.records();
    const auto found = std::find_if(records.begin(), records.end(), [](const Record& r) {
        return r.text == "Pipe ReadReg from addr0x1234 caused exception: ReadReg returned error";
    });
    ASSERT_NE(found, records.end());
    EXPECT_EQ(found->level, zuLogging::log_err);
    EXPECT_EQ(found->logger.substr(0, 7), "DevIns.");
    EXPECT_NE(found->location.find("src/DevInstCommands.cpp("), std::string::npos);
}

TEST_F(DevInstTest, WriteReg)
{
    link();
    EXPECT_EQ(run(Build(CmdWriteReg)
                      .u64(TagAddress, gevsim::feature::testValue)
                      .u32(TagRegValue, 0xA1B2C3D4)
                      .u8(TagSwapBytes, 1)),
              Build(CmdWriteReg | replyFlag).u32(TagStatus, 0).u8(TagSuccess, 1).done());
    EXPECT_EQ(camera.readRegister(gevsim::feature::testValue), 0xA1B2C3D4u);
    run(Build(CmdWriteReg).u64(TagAddress, gevsim::feature::testValue).u32(TagRegValue, 0xA1B2C3D4));
    EXPECT_EQ(camera.readRegister(gevsim::feature::testValue), 0xD4C3B2A1u);
}

TEST_F(DevInstTest, WriteRegRefusedHasItsPrefixTwice)
{
    link();
    quick();
    camera.inject(Fault::status(gevsim::Status::writeProtect, 1).only(Command::writeReg));
    EXPECT_EQ(
        run(Build(CmdWriteReg).u64(TagAddress, 0x4).u32(TagRegValue, 1)),
        Build(CmdWriteReg | replyFlag).u32(TagStatus, static_cast<std::uint32_t>(-10009)).u8(TagSuccess, 0).done());
    EXPECT_TRUE(log.contains("WriteReg to addr 0x0x4 caused exception: Unable to send GVCP WriteReg"));
}

TEST_F(DevInstTest, TimeoutsAndRetriesComeBackAsOneByte)
{
    EXPECT_EQ(run(Build(CmdGetAckTimeout)),
              Build(CmdGetAckTimeout | replyFlag).u8(TagSuccess, 1).u8(TagAckTimeout, 300 & 0xFF).done());
    EXPECT_EQ(run(Build(CmdGetRetries)), Build(CmdGetRetries | replyFlag).u8(TagSuccess, 1).u8(TagRetries, 3).done());
    EXPECT_EQ(run(Build(CmdSetAckTimeout).u32(TagAckTimeout, 0x1234)), ack(CmdSetAckTimeout));
    EXPECT_EQ(run(Build(CmdSetRetries).u32(TagRetries, 7)), ack(CmdSetRetries));
    EXPECT_EQ(run(Build(CmdGetAckTimeout)),
              Build(CmdGetAckTimeout | replyFlag).u8(TagSuccess, 1).u8(TagAckTimeout, 0x34).done());
    EXPECT_EQ(run(Build(CmdGetRetries)), Build(CmdGetRetries | replyFlag).u8(TagSuccess, 1).u8(TagRetries, 7).done());
    EXPECT_EQ(run(Build(CmdSetAckTimeout).u8(TagAckTimeout, 1)), ack(CmdSetAckTimeout))
        << "no valid value: none is set";
    EXPECT_EQ(run(Build(CmdGetAckTimeout)),
              Build(CmdGetAckTimeout | replyFlag).u8(TagSuccess, 1).u8(TagAckTimeout, 0x34).done());
}

TEST_F(DevInstTest, LocalAddress)
{
    EXPECT_EQ(run(Build(CmdGetLocalAddress)),
              Build(CmdGetLocalAddress | replyFlag).u32(TagLocalIp, 0).u16(TagLocalPort, 0).u8(TagSuccess, 1).done());
    EXPECT_EQ(instance->GetId(), "0.0.0.0");
    aim();
    const Bytes reply = run(Build(CmdGetLocalAddress));
    ASSERT_EQ(reply.size(), 4u + 16 + 14 + 13 + 8);
    std::uint16_t port = 0;
    std::memcpy(&port, &reply[32], sizeof port);
    EXPECT_NE(port, 0);
    EXPECT_EQ(instance->GetId(), "127.0.16.1:" + std::to_string(port));
}

TEST_F(DevInstTest, Heartbeat)
{
    link();
    EXPECT_EQ(run(Build(CmdGetHeartbeat)), Build(CmdGetHeartbeat | replyFlag)
                                               .u32(TagHeartbeatTimeout, 3000)
                                               .u32(TagHeartbeatMargin, 2400)
                                               .u8(TagSuccess, 1)
                                               .done());
    EXPECT_EQ(run(Build(CmdSetHeartbeat).u32(TagHeartbeatTimeout, 1000).u32(TagHeartbeatMargin, 5)),
              ack(CmdSetHeartbeat));
    EXPECT_EQ(camera.readRegister(gevsim::reg::heartbeatTimeout), 1500u);
    EXPECT_EQ(run(Build(CmdSetHeartbeat)), ack(CmdSetHeartbeat));
    EXPECT_EQ(camera.readRegister(gevsim::reg::heartbeatTimeout), 0u);
}

TEST_F(DevInstTest, InvalidCommandsGetNoReply)
{
    for (const std::uint32_t command : {0u, 5u, 6u, 17u, 18u, 19u, 23u, 24u, 1000u, 7u | replyFlag, ~0u}) {
        log.clear();
        EXPECT_EQ(run(Build(command)), Bytes()) << command;
        EXPECT_TRUE(log.contains("Invalid pipe command")) << command;
        EXPECT_FALSE(log.contains("IPC Cmd Done " + pointerText(instance.get()))) << command;
    }
}

TEST_F(DevInstTest, LinkShutdownHasNoReplyAndALaterLinkWorks)
{
    link();
    EXPECT_EQ(run(Build(CmdLinkShutdown)), Bytes());
    EXPECT_TRUE(log.contains("Link Shutdown on " + pointerText(instance.get())));
    EXPECT_FALSE(camera.control().held());
    EXPECT_EQ(run(Build(CmdLinkShutdown)), Bytes());
    EXPECT_EQ(camera.writesTo(gevsim::reg::ccp), std::vector<std::uint32_t>{0}) << "the second shutdown does nothing";
    link();
    EXPECT_TRUE(camera.control().held());
}

TEST_F(DevInstTest, LinkOfAClientThatHasGoneIsGivenBack)
{
    link();
    client->disconnectHandler();
    EXPECT_FALSE(camera.control().held());
    run(Build(CmdLink).u32(TagLinkMode, 3));
    EXPECT_EQ(camera.writesTo(gevsim::reg::ccp).back(), 0u);
    EXPECT_FALSE(camera.control().held());
}

TEST_F(DevInstTest, UnguardedCommandThrows)
{
    aim();
    quick();
    camera.silence(std::chrono::milliseconds::max());
    Build request(CmdGetHeartbeat);
    EXPECT_THROW(client->command(request), GEV::GevException);
    EXPECT_EQ(run(Build(CmdCheckLink)), Build(CmdCheckLink | replyFlag).u8(TagSuccess, 0).done());
    EXPECT_TRUE(log.contains("CheckLink failed : ReadReg returned error"));
}

TEST_F(DevInstTest, PendingAckExtendsTheClientsWait)
{
    link();
    camera.inject(Fault::pendingAck(std::chrono::milliseconds(700)).every(std::chrono::milliseconds(1)));
    run(Build(CmdReadReg).u64(TagAddress, gevsim::feature::testValue));
    ASSERT_EQ(client->extensions.size(), 1u);
    EXPECT_EQ(client->extensions[0], std::make_pair(std::uint32_t{0}, std::uint32_t{1200}));
}
