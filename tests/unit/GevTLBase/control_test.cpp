// Linking, unlinking, and what is set and asked of a link.
#include "control_fixture.h"

#include <atomic>
#include <future>
#include <thread>

using namespace GEV;
using namespace gevTest;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace {

const std::string createLine = "info GEVCTRL.# Link device : create heartbeat thread";
const std::string writeLine = "info GEVCTRL.# Link device : write ccp";
const std::string exitLine = "info GEVCTRL.# Exit heartbeat thread";
const std::string priorityLine = "err GEVCTRL.# Heartbeat Thread is not running TimeCritical";
const std::string className = "info GEVCTRL.# GEV::CGevControl<class GEV::CSockConnection>::";

/// Without the line on the thread's priority, which depends on the system's permission.
std::vector<std::string> withoutPriority(std::vector<std::string> all)
{
    all.erase(std::remove(all.begin(), all.end(), priorityLine), all.end());
    return all;
}

/// Links to a device whose timeout leaves the heartbeat thread no reason for a read while a test runs.
class QuietControl : public Control {
protected:
    QuietControl()
    {
        device.set(timeoutRegister, 3000000);
        fields().heartbeatPeriod() = 500000; // for the first wait
    }
};

} // namespace

// --- Link

TEST_F(QuietControl, LinkForControlWritesTwiceAndReadsWhatItNeeds)
{
    control->Link(3);
    EXPECT_THAT(commands(), ElementsAre("W 0a00 00000002", "W 0a00 00000002", "R 0938", "R 0934", "R 0004"));
    const std::vector<Bytes> sent = fake().sent();
    EXPECT_EQ(1, big16(sent[0], 6));
    EXPECT_EQ(2, big16(sent[1], 6));
    EXPECT_THAT(withoutPriority(controlLines()), ElementsAre(className + "Link " + addressOf(*control), writeLine,
                                                             createLine, "info GEVCTRL.# Heartbeat Timeout 3000000"));
    EXPECT_TRUE(control->IsLinked());
    EXPECT_TRUE(fields().hasCcp());
    EXPECT_FALSE(fields().byteSwap());
    EXPECT_EQ(600000u, fields().heartbeatPeriod());
    EXPECT_EQ(0x11u, fields().gvcpCapability());
}

TEST_F(QuietControl, ALinkThatIsUndoneMeanwhileTakesNoControlAfterwards)
{
    std::thread other;
    device.setFault([&](FakeConnection&, const Bytes& data) {
        if (isCommand(data, 0x82, ccpRegister) && !other.joinable()) {
            other = std::thread([&] { control->Unlink(); });
            while (control->IsLinked())
                std::this_thread::yield();
        }
        return false;
    });
    control->Link(3);
    other.join();
    const std::vector<std::string> sent = commands();
    EXPECT_EQ(1, std::count(sent.begin(), sent.end(), "W 0a00 00000002"));
    EXPECT_EQ(2, std::count(sent.begin(), sent.end(), "W 0a00 00000000"));
    EXPECT_EQ(0u, device.get(ccpRegister));
}

TEST_F(Control, LinkForExclusiveAccess)
{
    control->Link(4);
    EXPECT_EQ("W 0a00 00000001", commands().at(0));
    EXPECT_EQ("W 0a00 00000001", commands().at(1));
}

TEST_F(Control, LinkWithASwitchoverKeySendsItLowByteFirst)
{
    for (const std::uint32_t mode : {0x11234u, 0x21234u, 0x31234u, 0xFFF51234u}) {
        make();
        control->Link(mode);
        const Bytes sent = fake().sent().at(0);
        EXPECT_EQ((Bytes{0x34, 0x12, 0x00, 0x06}), Bytes(sent.begin() + 12, sent.end()));
        EXPECT_TRUE(control->IsLinked());
    }
}

TEST_F(Control, LinkWithoutAModeWritesNothingAndStartsNoThread)
{
    for (const std::uint32_t mode : {0u, 1u, 2u, 5u, 0x40003u}) {
        make();
        log.clear();
        control->Link(mode);
        EXPECT_THAT(commands(), ElementsAre("R 0004"));
        EXPECT_THAT(controlLines(), ElementsAre(className + "Link " + addressOf(*control)));
        EXPECT_FALSE(control->IsLinked());
        EXPECT_FALSE(fields().byteSwap());
    }
}

TEST_F(Control, LinkRefusedLosesTheCodeAndKeepsTheText)
{
    device.setFault(refuse(0x82, ccpRegister, 0x8006));
    try {
        control->Link(3);
        FAIL() << "nothing was thrown";
    } catch (const std::runtime_error&) {
        FAIL() << "it is a plain std::exception";
    } catch (const std::exception& e) {
        EXPECT_STREQ("Unable to send GVCP WriteReg", e.what());
    }
    EXPECT_THAT(commands(), ElementsAre("W 0a00 00000002", "W 0a00 00000002", "W 0a00 00000002"));
    EXPECT_EQ("err GEVCTRL.# Privilege request WriteReg failed: Unable to send GVCP WriteReg", controlLines().back());
    EXPECT_FALSE(fields().hasCcp());
    EXPECT_TRUE(fields().byteSwap());
    EXPECT_TRUE(control->IsLinked()) << "what was to be written stays";

    // So the destructor gives back what it may hold.
    device.setFault({});
    const std::string address = addressOf(*control);
    log.clear();
    device.set(ccpRegister, 2);
    control.reset();
    EXPECT_EQ(0u, device.get(ccpRegister));
    EXPECT_THAT(controlLines(), ElementsAre(className + "~CGevControl " + address, className + "Unlink " + address));
}

TEST_F(Control, LinkWithoutAHeartbeatTimeoutStandsWithThePreviousPeriod)
{
    device.setFault(silenceOn(timeoutRegister));
    control->Link(3);
    EXPECT_TRUE(control->IsLinked());
    EXPECT_EQ(3000u, fields().heartbeatPeriod());
    EXPECT_EQ(0u, fields().gvcpCapability());
    EXPECT_FALSE(fields().byteSwap()) << "the rest of the link is made";
    EXPECT_THAT(controlLines(),
                Contains("warn GEVCTRL.# Unable to establish link with camera: ReadReg returned error"));
}

TEST_F(Control, LinkWithoutACapabilityKeepsThePeriodItRead)
{
    device.setFault(silenceOn(capabilityRegister));
    control->Link(3);
    EXPECT_EQ(600u, fields().heartbeatPeriod());
    EXPECT_THAT(controlLines(),
                Contains("warn GEVCTRL.# Unable to establish link with camera: ReadReg returned error"));
}

TEST_F(Control, LinkWithoutADeviceModeKeepsTheByteSwap)
{
    device.setFault(silenceOn(modeRegister));
    control->Link(3);
    EXPECT_TRUE(fields().byteSwap());
    EXPECT_EQ("err GEVCTRL.# Error reading device endianess: ReadReg returned error", controlLines().back());
}

TEST_F(QuietControl, LinkTwiceWritesAgainAndKeepsTheThread)
{
    control->Link(3);
    fake().forget();
    log.clear();
    control->Link(4);
    EXPECT_THAT(commands(), ElementsAre("W 0a00 00000001", "W 0a00 00000001", "R 0938", "R 0934", "R 0004"));
    EXPECT_THAT(controlLines(), Not(Contains(createLine)));
}

TEST_F(Control, LinkDividesByTheRetriesAndTwo)
{
    control->SetRetries(8);
    control->Link(3);
    EXPECT_EQ(300u, fields().heartbeatPeriod());
}

TEST_F(Control, NoNumberOfRetriesDividesByZero)
{
    control->SetRetries(0xFFFFFFFE);
    control->Link(3);
    EXPECT_EQ(3000u, fields().heartbeatPeriod());
    control->SetHeartbeatTimeout(4000, 0);
    EXPECT_EQ(4000u, fields().heartbeatPeriod());
}

// --- Unlink

TEST_F(QuietControl, UnlinkEndsTheThreadAndWritesZero)
{
    control->Link(3);
    fake().forget();
    log.clear();
    control->Unlink();
    EXPECT_THAT(commands(), ElementsAre("W 0a00 00000000"));
    EXPECT_THAT(controlLines(), ElementsAre(className + "Unlink " + addressOf(*control), exitLine));
    EXPECT_FALSE(control->IsLinked());
    EXPECT_TRUE(fields().hasCcp()) << "not its business";
}

TEST_F(Control, UnlinkOfAMonitorWritesNothing)
{
    control->Link(0);
    fake().forget();
    log.clear();
    control->Unlink();
    EXPECT_THAT(commands(), IsEmpty());
    EXPECT_THAT(controlLines(), ElementsAre(className + "Unlink " + addressOf(*control),
                                            "warn GEVCTRL.# Application has no privilege"));
}

TEST_F(QuietControl, UnlinkWhileTheDeviceIsGoneSpendsAllResendsAndReturns)
{
    control->Link(3);
    device.setFault(silenceOn(ccpRegister));
    fake().forget();
    control->Unlink();
    EXPECT_THAT(commands(), ElementsAre("W 0a00 00000000", "W 0a00 00000000", "W 0a00 00000000"));
    EXPECT_EQ("err GEVCTRL.# Unable to unlink with camera", controlLines().back());
    EXPECT_FALSE(control->IsLinked());
}

TEST_F(QuietControl, DisconnectIsUnlink)
{
    control->Link(3);
    fake().forget();
    control->Disconnect();
    EXPECT_THAT(commands(), ElementsAre("W 0a00 00000000"));
}

TEST_F(Control, LinkAgainAfterUnlinkHasAHeartbeatAgain)
{
    for (int i = 0; i < 3; ++i) {
        log.clear();
        control->Link(3);
        EXPECT_THAT(controlLines(), Contains(createLine));
        control->Unlink();
        EXPECT_THAT(controlLines(), Contains(exitLine));
    }
}

TEST_F(Control, DestructionOfALinkUnlinks)
{
    control->Link(3);
    fake().forget();
    const std::string address = addressOf(*control);
    const std::shared_ptr<FakeConnection> connection = control->GetConnection();
    log.clear();
    control.reset();
    EXPECT_EQ(0u, device.get(ccpRegister));
    EXPECT_THAT(controlLines(),
                ElementsAre(className + "~CGevControl " + address, exitLine, className + "Unlink " + address));
    EXPECT_EQ(1, connection.use_count()) << "the object let go of it";
}

TEST_F(Control, DestructionWithoutALinkSendsNothing)
{
    const std::string address = addressOf(*control);
    const std::shared_ptr<FakeConnection> connection = control->GetConnection();
    control.reset();
    EXPECT_THAT(connection->sent(), IsEmpty());
    EXPECT_THAT(controlLines(), ElementsAre(className + "~CGevControl " + address));
}

TEST_F(Control, DestructionOutlivesADeviceThatIsGone)
{
    control->Link(3);
    device.setFault(silenceOn(ccpRegister));
    control.reset();
    EXPECT_EQ("err GEVCTRL.# Unable to unlink with camera", controlLines().back());
}

TEST_F(Control, AnInterruptionOfWhoDestroysItWaits)
{
    std::promise<void> inCallback;
    std::promise<void> release;
    std::atomic<bool> once{false};
    make([&] {
        if (once.exchange(true))
            return;
        inCallback.set_value();
        release.get_future().wait_for(hardDeadline);
        std::this_thread::sleep_for(std::chrono::milliseconds(50)); // so that the destructor has to wait
    });
    device.set(timeoutRegister, 50);
    control->Link(3);
    device.set(ccpRegister, 0);
    ASSERT_EQ(std::future_status::ready, inCallback.get_future().wait_for(hardDeadline));

    const std::string address = addressOf(*control);
    bool interruptedAfterwards = false;
    boost::thread destroyer([&] {
        // Asked for before the destruction begins, so that its first wait would be cut short.
        while (!boost::this_thread::interruption_requested())
            boost::this_thread::yield();
        control.reset();
        try {
            boost::this_thread::interruption_point();
        } catch (const boost::thread_interrupted&) {
            interruptedAfterwards = true;
        }
    });
    destroyer.interrupt();
    EXPECT_TRUE(log.waitFor("GEV::CGevControl<class GEV::CSockConnection>::~CGevControl " + address));
    release.set_value();
    destroyer.join();
    EXPECT_TRUE(interruptedAfterwards);
    EXPECT_EQ(exitLine, controlLines().at(controlLines().size() - 2)) << "the thread was awaited";
    EXPECT_EQ(0u, device.get(ccpRegister));
}

// --- Questions and settings

TEST_F(Control, HasCcpComparesTheWholeValue)
{
    control->Link(3);
    EXPECT_TRUE(control->HasCcp());
    device.set(ccpRegister, 3);
    EXPECT_FALSE(control->HasCcp());
    device.set(ccpRegister, 0x00010002);
    EXPECT_FALSE(control->HasCcp());
}

TEST_F(Control, HasCcpThrowsWhatReadRegThrows)
{
    device.setFault(silenceOn(ccpRegister));
    try {
        control->HasCcp();
        FAIL() << "nothing was thrown";
    } catch (const GevException& e) {
        EXPECT_EQ(-1011, e.Code());
    }
}

TEST_F(Control, TimeoutsRetriesAndAddress)
{
    std::uint32_t value = 0;
    control->GetAckTimeout(value);
    EXPECT_EQ(300u, value);
    control->SetAckTimeout(1234);
    control->GetAckTimeout(value);
    EXPECT_EQ(1234u, value);
    control->GetRetries(value);
    EXPECT_EQ(3u, value);
    control->SetRetries(7);
    control->GetRetries(value);
    EXPECT_EQ(7u, value);
    control->BindAny(0x7F000C05, 4711);
    std::uint16_t port = 0;
    control->GetLocalAddress(value, port);
    EXPECT_EQ(0x7F000C05u, value);
    EXPECT_EQ(4711, port);
}

TEST_F(Control, TheNewTimeoutAndRetriesAreUsed)
{
    control->SetAckTimeout(1234);
    control->SetRetries(2);
    device.setFault(silenceOn(0x10));
    std::uint32_t value = 0;
    EXPECT_THROW(control->ReadReg(0x10, value, true, PendingAckCallback()), GevException);
    EXPECT_THAT(fake().timeouts(), ElementsAre(1234, 1234));
}

TEST_F(Control, HeartbeatBelowTheMinimumWritesTheMinimum)
{
    control->SetHeartbeatTimeout(1000, 77);
    EXPECT_EQ("W 0938 000005dc", commands().at(0));
    EXPECT_EQ(300u, fields().heartbeatPeriod());
    EXPECT_EQ("info GEVCTRL.# Set default hb timeout, Set heartbeat timeout to 1500 and Margin to 1200",
              controlLines().at(0));
    EXPECT_EQ(createLine, controlLines().at(1));
}

TEST_F(Control, HeartbeatOfTheMinimumIsOrdinary)
{
    control->SetHeartbeatTimeout(1500, 0);
    EXPECT_EQ("W 0938 000005dc", commands().at(0));
    EXPECT_EQ(300u, fields().heartbeatPeriod());
    EXPECT_EQ("info GEVCTRL.# Set heartbeat timeout to 1500 and Margin to 1200", controlLines().at(0));
}

TEST_F(Control, HeartbeatAboveTheMinimum)
{
    control->SetHeartbeatTimeout(10000, 0);
    EXPECT_EQ("W 0938 00002710", commands().at(0));
    EXPECT_EQ(2000u, fields().heartbeatPeriod());
    EXPECT_EQ("info GEVCTRL.# Set heartbeat timeout to 10000 and Margin to 8000", controlLines().at(0));
}

TEST_F(Control, HeartbeatOfARunningThreadStartsNoOther)
{
    control->Link(3);
    log.clear();
    control->SetHeartbeatTimeout(10000, 0);
    EXPECT_THAT(controlLines(), ElementsAre("info GEVCTRL.# Set heartbeat timeout to 10000 and Margin to 8000"));
}

TEST_F(Control, HeartbeatThatCannotBeWrittenLeavesThePeriodAndStartsNoThread)
{
    device.setFault(silenceOn(timeoutRegister));
    control->SetHeartbeatTimeout(10000, 0);
    EXPECT_EQ(2000u, fields().heartbeatPeriod());
    EXPECT_THAT(controlLines(), ElementsAre("info GEVCTRL.# Set HBTimeout failed: Unable to send GVCP WriteReg"));
}

TEST_F(QuietControl, HeartbeatOfZeroWritesZeroWhenTheThreadHasEnded)
{
    control->Link(3);
    fake().forget();
    log.clear();
    control->SetHeartbeatTimeout(0, 5);
    EXPECT_THAT(commands(), ElementsAre("W 0938 00000000"));
    EXPECT_EQ(0u, fields().heartbeatPeriod());
    EXPECT_THAT(controlLines(), ElementsAre("warn GEVCTRL.# Heartbeat thread interrupt exception", exitLine,
                                            "info GEVCTRL.# Disable hb timeout, set heartbeat timeout to 0, Margin to "
                                            "0, terminating Heartbeat thread"));
    const std::vector<std::string> all = lines(log);
    const auto ended = std::find(all.begin(), all.end(), exitLine);
    const auto written = std::find(all.begin(), all.end(), "info GVCP.# Successful WriteReg to addr 0x938 : Value  0");
    ASSERT_NE(all.end(), written);
    EXPECT_LT(ended, written);
    EXPECT_EQ(1u, fields().runFlag()) << "left as it was";
    EXPECT_TRUE(control->IsLinked());
    EXPECT_TRUE(fields().hasCcp());
}

TEST_F(Control, HeartbeatOfZeroWithoutAThread)
{
    control->SetHeartbeatTimeout(0, 0);
    EXPECT_THAT(commands(), ElementsAre("W 0938 00000000"));
}

TEST_F(Control, HeartbeatIsStartedAgainAfterItWasDisabled)
{
    control->Link(3);
    control->SetHeartbeatTimeout(0, 0);
    log.clear();
    control->SetHeartbeatTimeout(3000, 0);
    EXPECT_THAT(controlLines(), Contains(createLine));
}

TEST_F(Control, GetHeartbeatDerivesTheMargin)
{
    control->Link(3);
    std::uint32_t timeout = 0;
    std::uint32_t margin = 0;
    control->GetHeartbeatTimeout(timeout, margin);
    EXPECT_EQ(3000u, timeout);
    EXPECT_EQ(2400u, margin);
    EXPECT_EQ("info GEVCTRL.# Inquire heart beat timeout 3000 and Margin 2400", controlLines().back());
    device.setFault(silenceOn(timeoutRegister));
    EXPECT_THROW(control->GetHeartbeatTimeout(timeout, margin), GevException);
}
