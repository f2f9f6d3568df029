// Control of the camera: CCP, who may read and write, switchover, and the heartbeat. Times are handed to the device, so
// nothing here waits for a clock.
#include "tests/unit/gevsim/client.h"
#include "tests/unit/gevsim/orders.h"

#include "tools/gevsim/config.h"
#include "tools/gevsim/device.h"

using namespace gevsimTest;
using gevsim::Command;
using gevsim::Config;
using gevsim::Device;
using gevsim::Endpoint;
using std::chrono::milliseconds;
namespace reg = gevsim::reg;
namespace feature = gevsim::feature;
namespace region = gevsim::region;

namespace {

class Privilege : public testing::Test {
protected:
    Bytes ask(const Endpoint& from, const Bytes& data)
    {
        Bytes reply(Device::replySize);
        reply.resize(device.handle(data.data(), data.size(), from, time, reply.data()));
        return reply;
    }
    std::uint16_t status(const Endpoint& from, const Bytes& data) { return statusOf(ask(from, data)); }
    std::uint32_t ccp(const Endpoint& from) { return valueOf(ask(from, readReg(reg::ccp))); }

    const Endpoint holder{"127.0.13.2", 4000};
    const Endpoint other{"127.0.13.3", 4000};
    const Endpoint samePlace{"127.0.13.2", 4001};
    Config config;
    Device::Time time{milliseconds(1000000)};
    RecordedOrders orders;
    Device device{config, time, orders};
};

} // namespace

TEST_F(Privilege, NobodyWritesAFreeCamera)
{
    EXPECT_EQ(status(other, writeReg(feature::testValue, 1)), 0x8006);
    EXPECT_EQ(status(other, writeMem(region::memory, Bytes(4, 1))), 0x8006);
    EXPECT_EQ(status(other, readReg(feature::testValue)), 0);
    EXPECT_EQ(device.getRegister(feature::testValue), 0U);
}

TEST_F(Privilege, EverybodyWritesAFreeCameraWhereThatIsAllowed)
{
    config.writesNeedControl = false;
    Device open(config, time, orders);
    Bytes reply(Device::replySize);
    const Bytes write = writeReg(feature::testValue, 1);
    const Bytes control = writeReg(reg::ccp, 2);
    open.handle(write.data(), write.size(), other, time, reply.data());
    EXPECT_EQ(statusOf(reply), 0);
    open.handle(control.data(), control.size(), holder, time, reply.data());
    open.handle(write.data(), write.size(), other, time, reply.data());
    EXPECT_EQ(statusOf(reply), 0x8006) << "held after all";
}

TEST_F(Privilege, UnderControlOthersReadButDoNotWrite)
{
    EXPECT_EQ(text(ask(holder, writeReg(reg::ccp, 2, 5))), "00 00 00 83 00 04 00 05 00 00 00 01");
    EXPECT_EQ(status(holder, writeReg(feature::testValue, 1)), 0);
    for (const Endpoint& stranger : {other, samePlace}) {
        EXPECT_EQ(status(stranger, readReg(feature::testValue)), 0);
        EXPECT_EQ(status(stranger, readMem(region::memory, 4)), 0);
        EXPECT_EQ(text(ask(stranger, writeReg(feature::testValue, 9, 6))), "80 06 00 83 00 04 00 06 00 00 00 00");
        EXPECT_EQ(status(stranger, writeMem(region::memory, Bytes(4, 1))), 0x8006);
        EXPECT_EQ(status(stranger, writeReg(reg::ccp, 2)), 0x8006);
        EXPECT_EQ(status(stranger, writeReg(reg::ccp, 0)), 0x8006);
        EXPECT_EQ(ccp(stranger), 2U);
    }
    EXPECT_EQ(device.getRegister(feature::testValue), 1U);
}

TEST_F(Privilege, UnderExclusiveControlOthersDoNotEvenRead)
{
    EXPECT_EQ(status(holder, writeReg(reg::ccp, 1)), 0);
    EXPECT_EQ(ccp(holder), 1U);
    EXPECT_EQ(status(holder, readMem(region::memory, 4)), 0);
    EXPECT_EQ(text(ask(other, readReg(reg::ccp, 3))), "80 06 00 81 00 00 00 03");
    EXPECT_EQ(text(ask(other, readMem(region::memory, 4, 4))), "80 06 00 85 00 00 00 04");
    EXPECT_EQ(status(other, writeReg(reg::ccp, 2)), 0x8006);
    EXPECT_EQ(status(other, command(Command::discovery, 1, {})), 0) << "it is found all the same";
}

TEST_F(Privilege, TheHolderTakesControlTwiceAndGivesItBack)
{
    EXPECT_EQ(status(holder, writeReg(reg::ccp, 2)), 0);
    EXPECT_EQ(status(holder, writeReg(reg::ccp, 2)), 0);
    EXPECT_EQ(device.getRegister(reg::primaryIp), holder.ip);
    EXPECT_EQ(device.getRegister(reg::primaryPort), holder.port);
    EXPECT_EQ(status(holder, writeReg(reg::ccp, 0)), 0);
    EXPECT_EQ(ccp(other), 0U);
    EXPECT_EQ(device.getRegister(reg::primaryIp), 0U);
    EXPECT_EQ(status(other, writeReg(reg::ccp, 1)), 0);
    EXPECT_EQ(device.control().holder, other);
}

TEST_F(Privilege, TheHolderChangesBetweenControlAndExclusive)
{
    EXPECT_EQ(status(holder, writeReg(reg::ccp, 2)), 0);
    EXPECT_EQ(status(holder, writeReg(reg::ccp, 1)), 0);
    EXPECT_EQ(status(other, readReg(reg::ccp)), 0x8006);
    EXPECT_EQ(status(holder, writeReg(reg::ccp, 2)), 0);
    EXPECT_EQ(ccp(other), 2U);
}

TEST_F(Privilege, WritingNoAccessToAFreeCameraChangesNothing)
{
    EXPECT_EQ(status(other, writeReg(reg::ccp, 0)), 0);
    EXPECT_EQ(status(other, writeReg(reg::ccp, 0x12340004)), 0);
    EXPECT_FALSE(device.control().held());
    EXPECT_EQ(device.getRegister(reg::ccp), 0U);
}

TEST_F(Privilege, SwitchoverWithTheKeyThatWasWrittenToCcp)
{
    EXPECT_EQ(status(holder, bytes("42 01 00 82 00 08 00 01 00 00 0a 00 34 12 00 06")), 0);
    EXPECT_EQ(ccp(other), 6U) << "the key does not show";
    EXPECT_EQ(status(other, writeReg(reg::ccp, 0x34130006)), 0x8006);
    EXPECT_EQ(status(other, writeReg(reg::ccp, 0x34120000)), 0x8006) << "asks for nothing";
    EXPECT_EQ(device.control().holder, holder);
    EXPECT_EQ(status(other, writeReg(reg::ccp, 0x34120006)), 0);
    EXPECT_EQ(device.control().holder, other);
    EXPECT_EQ(status(holder, writeReg(feature::testValue, 1)), 0x8006);
    EXPECT_EQ(status(other, writeReg(feature::testValue, 1)), 0);
    EXPECT_EQ(status(holder, writeReg(reg::ccp, 0x34120002)), 0) << "and back, without switchover from now on";
    EXPECT_EQ(status(other, writeReg(reg::ccp, 0x34120006)), 0x8006);
}

TEST_F(Privilege, SwitchoverWithTheKeyRegister)
{
    EXPECT_EQ(status(holder, writeReg(reg::ccp, 6)), 0);
    EXPECT_EQ(status(other, writeReg(reg::switchoverKey, 0x5678)), 0x8006);
    EXPECT_EQ(status(holder, writeReg(reg::switchoverKey, 0x5678)), 0);
    EXPECT_EQ(valueOf(ask(holder, readReg(reg::switchoverKey))), 0U);
    EXPECT_EQ(status(other, writeReg(reg::ccp, 0x00000002)), 0x8006);
    EXPECT_EQ(status(other, writeReg(reg::ccp, 0x56780001)), 0);
    EXPECT_TRUE(device.control().exclusive());
    EXPECT_FALSE(device.control().switchover());
}

TEST_F(Privilege, TheKeyIsForgottenWithControl)
{
    EXPECT_EQ(status(holder, writeReg(reg::ccp, 0x34120006)), 0);
    EXPECT_EQ(status(holder, writeReg(reg::ccp, 0)), 0);
    EXPECT_EQ(status(holder, writeReg(reg::ccp, 6)), 0);
    EXPECT_EQ(status(other, writeReg(reg::ccp, 0x34120006)), 0x8006);
    EXPECT_EQ(status(other, writeReg(reg::ccp, 6)), 0) << "no key is key 0";
}

TEST_F(Privilege, ControlEndsWithTheHeartbeatTimeout)
{
    EXPECT_EQ(status(holder, writeReg(reg::ccp, 2)), 0);
    time += milliseconds(2999);
    EXPECT_FALSE(device.expire(time));
    EXPECT_EQ(ccp(other), 2U) << "others do not keep it alive";
    time += milliseconds(1);
    EXPECT_TRUE(device.expire(time));
    EXPECT_FALSE(device.expire(time)) << "once";
    EXPECT_EQ(ccp(holder), 0U);
    EXPECT_EQ(status(holder, writeReg(feature::testValue, 1)), 0x8006);
}

TEST_F(Privilege, EveryCommandOfTheHolderRestartsTheHeartbeat)
{
    EXPECT_EQ(status(holder, writeReg(reg::ccp, 2)), 0);
    for (const Bytes& alive : {readReg(reg::ccp), writeReg(feature::testValue, 1), readMem(region::memory, 4),
                               writeMem(region::memory, Bytes(4, 1)), readReg(0xFFFFFFF0), writeReg(reg::ccp, 2)}) {
        time += milliseconds(2999);
        ask(holder, alive);
        EXPECT_EQ(device.controlDeadline(), time + milliseconds(3000)) << text(alive);
    }
    time += milliseconds(3000);
    EXPECT_EQ(status(holder, readReg(reg::ccp)), 0);
    EXPECT_FALSE(device.control().held()) << "a command that comes too late does not bring it back";
}

TEST_F(Privilege, TheHeartbeatTimeoutIsARegister)
{
    EXPECT_EQ(status(holder, writeReg(reg::ccp, 2)), 0);
    EXPECT_EQ(status(holder, writeReg(reg::heartbeatTimeout, 500)), 0);
    EXPECT_EQ(device.controlDeadline(), time + milliseconds(500));
    EXPECT_EQ(status(holder, writeReg(reg::heartbeatTimeout, 0)), 0);
    EXPECT_EQ(device.controlDeadline(), Device::Time::max());
    time += std::chrono::hours(24);
    EXPECT_EQ(ccp(other), 2U) << "0 disables it";
}

TEST_F(Privilege, TheHeartbeatCanBeDisabled)
{
    EXPECT_EQ(status(holder, writeReg(reg::ccp, 2)), 0);
    EXPECT_EQ(status(holder, writeReg(reg::gvcpConfiguration, 1)), 0);
    time += milliseconds(100000);
    EXPECT_EQ(ccp(other), 2U);
    EXPECT_EQ(status(holder, writeReg(reg::gvcpConfiguration, 0)), 0);
    time += milliseconds(3000);
    EXPECT_EQ(ccp(other), 0U);
}

TEST_F(Privilege, ControlThatATestGivesAwayIsNotWatched)
{
    device.setRegister(reg::ccp, 2, time);
    time += milliseconds(100000);
    EXPECT_EQ(status(holder, writeReg(reg::ccp, 2)), 0x8006);
    device.setRegister(reg::ccp, 0, time);
    EXPECT_EQ(status(holder, writeReg(reg::ccp, 2)), 0);
}

TEST_F(Privilege, PowerCycleForgetsEverything)
{
    EXPECT_EQ(status(holder, writeReg(reg::ccp, 2)), 0);
    EXPECT_EQ(status(holder, writeReg(feature::testValue, 1)), 0);
    EXPECT_EQ(status(holder, writeReg(reg::heartbeatTimeout, 77)), 0);
    EXPECT_EQ(status(holder, writeMem(region::memory, Bytes(4, 1))), 0);
    device.powerCycle(time);
    EXPECT_EQ(ccp(other), 0U);
    EXPECT_EQ(device.getRegister(reg::heartbeatTimeout), 3000U);
    EXPECT_EQ(device.getRegister(feature::testValue), 0U);
    EXPECT_EQ(device.getRegister(region::memory), 0U);
    EXPECT_EQ(status(other, writeReg(reg::ccp, 1)), 0);
}
