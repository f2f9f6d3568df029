// A device instance on a real end of the pipe, whose peer is two bare sockets.
#include "devinst_support.h"
#include "tests/unit/IPCPipe/pipe_support.h"

#include <gtest/gtest.h>

using namespace zuTest;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

namespace {

struct DevInstOnThePipe : testing::Test {
    LogRecorder log;
    gevsim::Camera camera{"127.0.16.6", 0};
    Bench bench;
    std::unique_ptr<zuGevDaemon::CDevInst> instance = std::make_unique<zuGevDaemon::CDevInst>(
        bench.addInstance(7), [](zuGevDaemon::CDevInst*) {}, [](zuGevDaemon::CDevInst*) {});

    /// Payload of the reply.
    Bytes run(const Build& request)
    {
        bench.command(message(0, 0, ++seq, 0, request.done()));
        const auto reply = bench.ack.receive();
        return reply ? Bytes(reply->begin() + 24, reply->end()) : Bytes();
    }
    std::uint32_t seq = 0;
};

} // namespace

TEST_F(DevInstOnThePipe, ALossOfControlIsWaitedForASecondAndToldAgain)
{
    const std::string unanswered = "Failure in Connection Lost notification: Wait for Ack failed";
    run(Build(CmdSetDestination).u32(TagDestIp, camera.ip()).u16(TagDestPort, camera.port()));
    run(Build(CmdLink).u32(TagLinkMode, 3));
    run(Build(CmdSetAckTimeout).u32(TagAckTimeout, 50));
    run(Build(CmdSetHeartbeat).u32(TagHeartbeatTimeout, 500));
    const auto lost = Clock::now();
    camera.powerCycle();
    EXPECT_EQ(bench.cmd.receive(), message(0, 7, 1, 0, Build(EvtCcpLost).done()));
    const auto told = Clock::now();
    ASSERT_TRUE(log.waitFor(unanswered));
    const auto given = Clock::now();
    EXPECT_GE(given - lost, milliseconds(1000));
    EXPECT_LT(given - told, milliseconds(3000));
    EXPECT_EQ(run(Build(CmdGetRetries)), Build(CmdGetRetries | replyFlag).u8(TagSuccess, 1).u8(TagRetries, 3).done())
        << "the instance lives on";
    EXPECT_EQ(bench.cmd.receive(), message(0, 7, 2, 0, Build(EvtCcpLost).done())) << "at the next read";
    bench.acknowledge(message(kMsgAck, 0, 2, 0, Build(EvtCcpLost | replyFlag).u8(TagSuccess, 1).done()));
    EXPECT_EQ(bench.cmd.receive(), message(0, 7, 3, 0, Build(EvtReconnected).done()));
    bench.acknowledge(message(kMsgAck, 0, 3, 0, Build(EvtReconnected | replyFlag).u8(TagSuccess, 1).done()));
    EXPECT_TRUE(camera.waitFor([&] { return camera.control().held(); }));
    EXPECT_EQ(log.count(unanswered), 1u);
}
