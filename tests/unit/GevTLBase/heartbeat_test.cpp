// The heartbeat thread: when it reads, what it does about a loss, and how it ends.
#include "control_fixture.h"

#include <atomic>
#include <future>
#include <thread>

using namespace GEV;
using namespace gevTest;
using std::chrono::milliseconds;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

namespace {

const std::string reconnectLine = "warn GEVCTRL.# HeartBeatThread reconnect";
const std::string lostLine = "err GEVCTRL.# Heartbeat Timeout / CCP lost";
const std::string interruptLine = "warn GEVCTRL.# Heartbeat thread interrupt exception";
const std::string exitLine = "info GEVCTRL.# Exit heartbeat thread";

/// A door that a thread waits at until it is opened.
class Gate {
public:
    void open() { promise.set_value(); }
    bool waitUntilOpen() { return future.wait_for(hardDeadline) == std::future_status::ready; }

private:
    std::promise<void> promise;
    std::shared_future<void> future{promise.get_future().share()};
};

class Heartbeat : public Control {
protected:
    /// Links with a period of `period` milliseconds.
    void link(std::uint32_t period)
    {
        device.set(timeoutRegister, period * 5);
        control->Link(3);
    }
    /// Makes the commands that a client would.
    void command()
    {
        std::uint32_t value = 0;
        control->ReadReg(0x100, value, true, PendingAckCallback());
    }
    bool isWaiting()
    {
        const boost::lock_guard<boost::recursive_timed_mutex> lock(fields().heartbeatMutex());
        return fields().waiting();
    }
    void waitUntilWaiting()
    {
        const TimePoint end = std::chrono::steady_clock::now() + hardDeadline;
        while (!isWaiting()) {
            ASSERT_LT(std::chrono::steady_clock::now(), end);
            std::this_thread::yield();
        }
    }
    bool waitUntilStopIsAsked()
    {
        const TimePoint end = std::chrono::steady_clock::now() + hardDeadline;
        while (fields().runFlag() != 0 && std::chrono::steady_clock::now() < end)
            std::this_thread::yield();
        return fields().runFlag() == 0;
    }
    /// Begins an Unlink on another thread, and returns when that waits for the heartbeat thread, which is in a
    /// callback.
    std::thread unlinkThatJoins()
    {
        std::thread client;
        {
            const boost::lock_guard<boost::recursive_timed_mutex> lock(fields().heartbeatMutex());
            client = std::thread([this] { control->Unlink(); });
            EXPECT_TRUE(waitUntilStopIsAsked());
            fields().runFlag() = 1; // the client is held up by the mutex, and asks again under the lock of its join
        }
        EXPECT_TRUE(waitUntilStopIsAsked());
        return client;
    }
    std::vector<TimePoint> ccpReadTimes() const
    {
        std::vector<TimePoint> result;
        for (const FakeConnection::Sent& datagram : fake().sentWithTimes()) {
            if (isCommand(datagram.data, 0x80, ccpRegister))
                result.push_back(datagram.at);
        }
        return result;
    }
};

} // namespace

// --- The wait

TEST_F(Heartbeat, ReadsCcpOncePerPeriod)
{
    link(120);
    ASSERT_TRUE(waitForCcpReads(10));
    const std::vector<TimePoint> reads = ccpReadTimes();
    auto smallest = TimePoint::duration::max();
    for (std::size_t i = 1; i < reads.size(); ++i)
        smallest = std::min(smallest, reads[i] - reads[i - 1]);
    EXPECT_GE(smallest, milliseconds(120));
    EXPECT_LT(smallest, milliseconds(240)) << "the machine can't have held up each of them";
    // Not one datagram but these.
    for (const FakeConnection::Sent& datagram : fake().sentWithTimes())
        EXPECT_TRUE(datagram.at < reads[0] || isCommand(datagram.data, 0x80, ccpRegister));
}

TEST_F(Heartbeat, TheFirstWaitOfTheFirstLinkIsThreeSecondsUntilACommandRestartsIt)
{
    device.setFault([](FakeConnection&, const Bytes& data) {
        return big32(data, 8) != ccpRegister; // none of the commands behind the start of the thread succeeds
    });
    const TimePoint start = std::chrono::steady_clock::now();
    control->Link(3);
    ASSERT_TRUE(waitForCcpReads(1));
    EXPECT_GE(ccpReadTimes()[0] - start, milliseconds(3000));
}

TEST_F(Heartbeat, CommandsThatFollowEachOtherCloselyLeaveNoRoomForARead)
{
    link(100);
    const TimePoint end = std::chrono::steady_clock::now() + milliseconds(1500);
    while (std::chrono::steady_clock::now() < end) {
        command();
        std::this_thread::sleep_for(milliseconds(5));
    }
    // The machine may have held the client up: then, and only then, there was a whole period of silence for a read.
    TimePoint previous{};
    bool silence = true;
    for (const FakeConnection::Sent& datagram : fake().sentWithTimes()) {
        silence = silence || datagram.at - previous >= milliseconds(100);
        previous = datagram.at;
        if (isCommand(datagram.data, 0x80, ccpRegister)) {
            EXPECT_TRUE(silence);
            silence = false;
        } else if (isCommand(datagram.data, 0x82, ccpRegister)) {
            silence = false; // the link: from here on it counts
        }
    }
    ASSERT_TRUE(waitForCcpReads(ccpReads() + 1)) << "and it goes on when the client is done";
}

TEST_F(Heartbeat, ABusyClientDoesNotWakeTheThread)
{
    link(60000);
    waitUntilWaiting();
    auto sleepUntil = [this] {
        const boost::lock_guard<boost::recursive_timed_mutex> lock(fields().heartbeatMutex());
        return fields().sleepUntil();
    };
    control->RestartHeartbeatWait(1);
    ASSERT_TRUE(waitForCcpReads(1));
    waitUntilWaiting(); // for a whole period, behind the read
    const auto before = sleepUntil();
    for (int i = 0; i < 1000; ++i)
        command();
    EXPECT_EQ(before, sleepUntil()) << "it would look anew on each wake";
    control->RestartHeartbeatWait(1);
    ASSERT_TRUE(waitForCcpReads(2)) << "and an earlier end does wake it";
}

TEST_F(Heartbeat, AWakeStandsUntilTheThreadHasTakenIt)
{
    link(60000);
    waitUntilWaiting();
    {
        const boost::lock_guard<boost::recursive_timed_mutex> lock(fields().heartbeatMutex());
        control->RestartHeartbeatWait(1);
        EXPECT_TRUE(fields().wakeSignalled());
    }
    ASSERT_TRUE(waitForCcpReads(1));
    waitUntilWaiting();
    const boost::lock_guard<boost::recursive_timed_mutex> lock(fields().heartbeatMutex());
    EXPECT_FALSE(fields().wakeSignalled());
}

TEST_F(Heartbeat, APendingAckPutsTheReadOffByItsTimeAlone)
{
    constexpr milliseconds period{1000};
    constexpr milliseconds pendingTime{1200};
    link(static_cast<std::uint32_t>(period.count()));
    control->SetRetries(1);
    // The command fails behind the PENDING_ACK, so that no later wake shortens the wait.
    TimePoint pendingAt{};
    std::size_t readsBefore = 0;
    device.setFault([&](FakeConnection& c, const Bytes& data) {
        if (big32(data, 8) != 0x200)
            return false;
        readsBefore = ccpReads();
        pendingAt = std::chrono::steady_clock::now();
        c.push(pendingAck(big16(data, 6), static_cast<std::uint16_t>(pendingTime.count())));
        return true;
    });
    for (int attempt = 0;; ++attempt) {
        ASSERT_LT(attempt, 5) << "each read came within a period of its PENDING_ACK, or a period later than told";
        waitUntilWaiting();
        std::uint32_t value = 0;
        EXPECT_THROW(control->ReadReg(0x200, value, true, PendingAckCallback()), GevException);
        ASSERT_TRUE(waitForCcpReads(readsBefore + 1));
        const auto delay = ccpReadTimes().at(readsBefore) - pendingAt;
        if (delay < period)
            continue; // the machine held this thread up for a period, and the read was due already
        EXPECT_GE(delay, pendingTime);
        if (delay < pendingTime + period) // else the machine may have held the heartbeat up
            break;
    }
}

TEST_F(Heartbeat, ALaterWakeShortensThePendingTime)
{
    link(50);
    waitUntilWaiting();
    control->RestartHeartbeatWait(10u * 60 * 1000);
    command();
    ASSERT_TRUE(waitForCcpReads(1)) << "ten minutes were asked for, and taken back";
}

TEST_F(Heartbeat, AfterAnExpiryThePeriodCounts)
{
    fields().heartbeatPeriod() = 600000;
    // The device's timeout comes when the thread has begun its first wait, with the period of before.
    device.setFault([this](FakeConnection&, const Bytes& data) {
        if (isCommand(data, 0x80, timeoutRegister))
            waitUntilWaiting();
        return false;
    });
    link(30);
    ASSERT_TRUE(waitForCcpReads(3));
}

TEST_F(Heartbeat, ACommandWithoutAnAcknowledgeDoesNotRestartTheWait)
{
    link(300);
    device.setFault(silenceOn(0x300));
    std::atomic<bool> done{false};
    std::thread client([&] {
        while (!done) {
            std::uint32_t value = 0;
            EXPECT_THROW(control->ReadReg(0x300, value, true, PendingAckCallback()), GevException);
            std::this_thread::sleep_for(milliseconds(1));
        }
    });
    EXPECT_TRUE(waitForCcpReads(2)) << "these failures must not count as signs of life";
    done = true;
    client.join();
}

TEST_F(Heartbeat, APeriodOfZeroReadsWithoutPauseAndLetsClientsThrough)
{
    link(0);
    EXPECT_EQ(0u, fields().heartbeatPeriod());
    ASSERT_TRUE(waitForCcpReads(50));
    const std::vector<TimePoint> reads = ccpReadTimes();
    auto smallest = TimePoint::duration::max();
    for (std::size_t i = 1; i < reads.size(); ++i)
        smallest = std::min(smallest, reads[i] - reads[i - 1]);
    EXPECT_LT(smallest, milliseconds(100));
    for (int i = 0; i < 100; ++i)
        command();
    control->Unlink();
    EXPECT_FALSE(control->IsLinked());
}

TEST_F(Heartbeat, WithoutACcpValueNothingIsEverRead)
{
    fields().hasCcp() = true;
    control->SetAckTimeout(1);
    control->SetHeartbeatTimeout(5, 0); // a period of one millisecond
    EXPECT_FALSE(waitForCcpReads(1, milliseconds(300)));
    fields().ccpValue() = 2;
    EXPECT_TRUE(waitForCcpReads(2)) << "the thread was there all the time";
}

// --- The check

TEST_F(Heartbeat, EitherAccessBitIsEnough)
{
    std::atomic<int> lost{0};
    make([&lost] { ++lost; });
    link(10);
    for (const std::uint32_t value : {1u, 2u, 3u, 0xFFFF0001u}) {
        device.set(ccpRegister, value);
        ASSERT_TRUE(waitForCcpReads(ccpReads() + 2));
    }
    EXPECT_EQ(0, lost);
    EXPECT_THAT(controlLines(), Not(Contains(lostLine)));
}

TEST_F(Heartbeat, ControlLostIsToldOnceAndTakenAgain)
{
    std::atomic<int> lost{0};
    std::atomic<int> gone{0};
    std::promise<void> regained;
    std::atomic<int> regains{0};
    make([&] { ++lost; }, [&] { ++gone; },
         [&] {
             if (++regains == 1)
                 regained.set_value();
         });
    link(10);
    ASSERT_TRUE(waitForCcpReads(1));
    control->SetByteSwap(false);
    device.set(timeoutRegister, 100);
    device.set(capabilityRegister, 0x99);
    log.clear();
    fake().forget();
    device.set(ccpRegister, 0);
    ASSERT_EQ(std::future_status::ready, regained.get_future().wait_for(hardDeadline));
    ASSERT_TRUE(log.waitFor("Heartbeat Timeout 100"));
    control->Unlink();
    EXPECT_EQ(1, lost);
    EXPECT_EQ(0, gone);
    EXPECT_EQ(1, regains);
    EXPECT_EQ(20u, fields().heartbeatPeriod());
    EXPECT_EQ(0x99u, fields().gvcpCapability());
    EXPECT_FALSE(fields().byteSwap()) << "not restored by it";
    const std::vector<std::string> all = controlLines();
    const auto start = std::find(all.begin(), all.end(), lostLine);
    ASSERT_GE(all.end() - start, 4);
    EXPECT_EQ(reconnectLine, start[1]);
    EXPECT_EQ("info GEVCTRL.# CCP Value: 2", start[2]);
    EXPECT_EQ("info GEVCTRL.# Heartbeat Timeout 100", start[3]);
    // What the reconnect sent: CCP once, and what follows.
    std::vector<std::string> sent = commands();
    const auto write = std::find(sent.begin(), sent.end(), "W 0a00 00000002");
    ASSERT_GE(sent.end() - write, 5);
    EXPECT_THAT(std::vector<std::string>(write, write + 5),
                ElementsAre("W 0a00 00000002", "R 0a00", "R 0938", "R 0934", "R 0a00"));
}

TEST_F(Heartbeat, ACcpLostCallbackThatThrowsIsToldAgain)
{
    std::atomic<int> told{0};
    make([&told] {
        ++told;
        throw std::runtime_error("client is gone");
    });
    link(10);
    device.set(ccpRegister, 0);
    ASSERT_TRUE(log.waitFor("Failure in Connection Lost notification: client is gone", 3));
    EXPECT_TRUE(fields().hasCcp());
    EXPECT_GE(told, 3);
    EXPECT_THAT(controlLines(), Contains("warn GEVCTRL.# Failure in Connection Lost notification: client is gone"));
    EXPECT_THAT(controlLines(), Not(Contains(reconnectLine)));
}

TEST_F(Heartbeat, ASilentDeviceIsToldAgainAndAgain)
{
    std::atomic<int> lost{0};
    std::atomic<int> gone{0};
    make([&] { ++lost; }, [&] { ++gone; });
    link(10);
    device.setFault(silenceOn(ccpRegister));
    const std::string words = "Exception in ReadReg -> Connection lost: ReadReg returned error";
    ASSERT_TRUE(log.waitFor(words, 3));
    EXPECT_GE(gone, 2);
    EXPECT_EQ(0, lost);
    EXPECT_TRUE(fields().hasCcp());
    EXPECT_THAT(controlLines(), Contains("warn GEVCTRL.# " + words));
    EXPECT_THAT(controlLines(), Not(Contains(reconnectLine)));
    // It comes back with its control: nothing more is said.
    device.setFault({});
    control->SetRetries(3);
    ASSERT_TRUE(waitForCcpReads(ccpReads() + 8));
    log.clear();
    ASSERT_TRUE(waitForCcpReads(ccpReads() + 2));
    EXPECT_THAT(controlLines(), testing::IsEmpty());
}

TEST_F(Heartbeat, AConnectionLostCallbackThatThrowsIsAWarning)
{
    make({}, [] { throw std::runtime_error("no answer"); });
    link(10);
    device.setFault(refuse(0x80, ccpRegister, 0x8006));
    ASSERT_TRUE(log.waitFor("Failure in CCP Lost notification: no answer", 2));
    EXPECT_THAT(controlLines(), Contains("warn GEVCTRL.# Failure in CCP Lost notification: no answer"));
}

namespace {

/// A connection over which ReadReg can end with an exception that isn't a GevException.
class BrokenConnection : public FakeConnection {
public:
    std::int32_t Receive(void* buffer, std::uint32_t size, std::uint32_t timeoutMs, std::uint32_t* ip,
                         std::uint16_t* port, std::int32_t& count)
    {
        if (broken.load())
            throw std::runtime_error("out of order");
        return FakeConnection::Receive(buffer, size, timeoutMs, ip, port, count);
    }
    std::atomic<bool> broken{false};
};

} // namespace

TEST(HeartbeatOverABrokenConnection, AnotherExceptionIsToldWithTwoLinesAndItsFailureAtInfo)
{
    const zuTest::LogRecorder log;
    FakeDevice device;
    device.set(timeoutRegister, 50);
    CGevControl<BrokenConnection> control({}, [] { throw std::runtime_error("no answer"); }, {});
    const std::shared_ptr<BrokenConnection> connection = control.GetConnection();
    connection->respond(device.responder());
    control.Link(3);
    connection->broken = true;
    ASSERT_TRUE(log.waitFor("Failure in CCP Lost notification: no answer", 2));
    connection->broken = false;
    control.Unlink();
    const std::vector<std::string> all = lines(log, "GEVCTRL");
    const auto first = std::find(all.begin(), all.end(), "warn GEVCTRL.# Exception in ReadReg: out of order");
    ASSERT_GE(all.end() - first, 3);
    EXPECT_EQ("warn GEVCTRL.# Exception in ReadReg -> Connection lost: out of order", first[1]);
    EXPECT_EQ("info GEVCTRL.# Failure in CCP Lost notification: no answer", first[2]);
}

TEST_F(Heartbeat, ClientsGetThroughWhileACallbackRuns)
{
    enum Kind { ccpLost, connectionLost, reconnected, kinds };
    std::promise<bool> through[kinds];
    std::atomic<bool> tried[kinds] = {};
    std::future<void> others[kinds]; // each may end behind its callback
    const auto tries = [&](Kind kind) {
        return [&, kind] {
            if (tried[kind].exchange(true))
                return;
            others[kind] = std::async(std::launch::async, [this] { command(); }); // wakes the heartbeat as well
            through[kind].set_value(others[kind].wait_for(hardDeadline / 6) == std::future_status::ready);
        };
    };
    make(tries(ccpLost), tries(connectionLost), tries(reconnected));
    link(10);
    device.setFault(silenceOn(ccpRegister));
    EXPECT_TRUE(through[connectionLost].get_future().get());
    device.set(ccpRegister, 0);
    device.setFault({});
    EXPECT_TRUE(through[ccpLost].get_future().get());
    EXPECT_TRUE(through[reconnected].get_future().get());
}

// --- The reconnect

TEST_F(Heartbeat, ARefusedReconnectIsTriedAtEachExpiry)
{
    std::atomic<int> lost{0};
    make([&lost] { ++lost; });
    link(10);
    device.setFault(refuse(0x82, ccpRegister, 0x8006));
    device.set(ccpRegister, 0);
    const std::string failed = "HeartBeatThread reconnect: Unable to write CCP: Unable to send GVCP WriteReg";
    ASSERT_TRUE(log.waitFor(failed, 3));
    EXPECT_EQ(1, lost);
    EXPECT_FALSE(fields().hasCcp());
    EXPECT_THAT(controlLines(), Contains("warn GEVCTRL.# " + failed));
    device.setFault({});
    ASSERT_TRUE(log.waitFor("CCP Value: 2"));
    EXPECT_EQ(1, lost);
}

TEST_F(Heartbeat, AReconnectedCallbackThatThrowsIsLoggedAndTheCheckGoesOn)
{
    make({}, {}, [] { throw std::runtime_error("client is gone"); });
    link(10);
    device.set(ccpRegister, 0);
    ASSERT_TRUE(log.waitFor("HeartBeatThread reconnect: Unable to write CCP: client is gone"));
    EXPECT_TRUE(fields().hasCcp());
    const std::size_t before = ccpReads();
    ASSERT_TRUE(waitForCcpReads(before + 2));
    EXPECT_EQ(1u, log.count("HeartBeatThread reconnect"));
}

TEST_F(Heartbeat, AReconnectWithoutAHeartbeatTimeoutGoesOn)
{
    std::promise<void> regained;
    make({}, {}, [&regained] { regained.set_value(); });
    link(10);
    device.setFault(silenceOn(timeoutRegister));
    device.set(ccpRegister, 0);
    ASSERT_EQ(std::future_status::ready, regained.get_future().wait_for(hardDeadline));
    EXPECT_THAT(controlLines(),
                Contains("warn GEVCTRL.# Unable to establish link with camera : ReadReg returned error"));
    EXPECT_EQ(10u, fields().heartbeatPeriod());
}

TEST_F(Heartbeat, AMonitorLinkWithAHeartbeatTriesToReconnect)
{
    control->Link(0);
    control->SetAckTimeout(2);
    control->SetHeartbeatTimeout(1, 0);
    ASSERT_TRUE(log.waitFor("HeartBeatThread reconnect"));
    ASSERT_TRUE(fake().waitFor(
        [](const std::vector<FakeConnection::Sent>& sent) { return countOf(sent, 0x82, ccpRegister) >= 1; }));
    control->Unlink();
    EXPECT_THAT(commands(), Contains("W 0a00 00000000")) << "with the stored value, which is none";
}

TEST_F(Heartbeat, UnlinkWaitsForAReconnectToFinish)
{
    Gate inReconnect;
    Gate release;
    make({}, {}, [&] {
        inReconnect.open();
        release.waitUntilOpen();
    });
    link(10);
    device.set(ccpRegister, 0);
    ASSERT_TRUE(inReconnect.waitUntilOpen());
    std::atomic<bool> unlinked{false};
    std::thread client([&] {
        control->Unlink();
        unlinked = true;
    });
    EXPECT_TRUE(waitUntilStopIsAsked());
    EXPECT_FALSE(unlinked);
    EXPECT_EQ(2u, device.get(ccpRegister)) << "nothing is given back meanwhile";
    release.open();
    client.join();
    EXPECT_EQ(0u, device.get(ccpRegister));
    const std::vector<std::string> sent = commands();
    ASSERT_GE(sent.size(), 2u);
    EXPECT_EQ("R 0a00", sent[sent.size() - 2]) << "the last step of the reconnect";
    EXPECT_EQ("W 0a00 00000000", sent.back());
}

// --- Its end

TEST_F(Heartbeat, UnlinkEndsALongWaitAtOnce)
{
    link(100u * 60 * 1000);
    waitUntilWaiting();
    const TimePoint start = std::chrono::steady_clock::now();
    control->Unlink();
    EXPECT_LT(std::chrono::steady_clock::now() - start, hardDeadline);
    EXPECT_EQ(1u, log.count("Exit heartbeat thread"));
}

TEST_F(Heartbeat, ATimeoutOfZeroEndsAWaitAtOnceWithTheInterruptWarning)
{
    link(100u * 60 * 1000);
    waitUntilWaiting();
    const TimePoint start = std::chrono::steady_clock::now();
    control->SetHeartbeatTimeout(0, 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, hardDeadline);
    const std::vector<std::string> all = controlLines();
    const auto interrupted = std::find(all.begin(), all.end(), interruptLine);
    ASSERT_GE(all.end() - interrupted, 2);
    EXPECT_EQ(exitLine, interrupted[1]);
}

TEST_F(Heartbeat, AnInterruptionPassesThroughACallback)
{
    Gate inCallback;
    make([&] {
        inCallback.open();
        boost::this_thread::sleep_for(boost::chrono::minutes(100)); // an interruption point
    });
    link(10);
    device.set(ccpRegister, 0);
    ASSERT_TRUE(inCallback.waitUntilOpen());
    control->SetHeartbeatTimeout(0, 0);
    EXPECT_THAT(controlLines(), Contains(interruptLine));
    EXPECT_THAT(controlLines(), Not(Contains(testing::HasSubstr("notification"))));
}

TEST_F(Heartbeat, ACallbackThatSwallowsTheInterruptionCantHangTheClient)
{
    Gate inCallback;
    std::atomic<bool> swallowed{false};
    make([&] {
        if (swallowed)
            return;
        inCallback.open();
        try {
            boost::this_thread::sleep_for(boost::chrono::minutes(100));
        } catch (const boost::thread_interrupted&) {
            swallowed = true;
        }
    });
    link(10);
    device.set(ccpRegister, 0);
    ASSERT_TRUE(inCallback.waitUntilOpen());
    control->SetHeartbeatTimeout(0, 0);
    EXPECT_TRUE(swallowed);
    EXPECT_THAT(controlLines(), Contains(interruptLine));
}

TEST_F(Heartbeat, UnlinkOnTheThreadItselfIsRefusedAndDoesNotHang)
{
    std::promise<std::string> refused;
    std::atomic<bool> once{false};
    make([&] {
        if (once.exchange(true))
            return;
        try {
            control->Unlink();
            refused.set_value("not refused");
        } catch (const boost::thread_resource_error& e) {
            refused.set_value("refused");
        }
    });
    link(10);
    device.set(ccpRegister, 0);
    std::future<std::string> result = refused.get_future();
    ASSERT_EQ(std::future_status::ready, result.wait_for(hardDeadline));
    EXPECT_EQ("refused", result.get());
    ASSERT_TRUE(log.waitFor("Exit heartbeat thread"));
}

TEST_F(Heartbeat, UnlinkOnTheThreadItselfWhileAnotherUnlinksDoesNotHang)
{
    Gate inCallback;
    Gate release;
    std::atomic<bool> once{false};
    make([&] {
        if (once.exchange(true))
            return;
        inCallback.open();
        release.waitUntilOpen();
        EXPECT_THROW(control->Unlink(), boost::thread_resource_error);
    });
    link(10);
    device.set(ccpRegister, 0);
    ASSERT_TRUE(inCallback.waitUntilOpen());
    std::thread client = unlinkThatJoins();
    release.open();
    client.join();
    EXPECT_FALSE(control->IsLinked());
}

TEST_F(Heartbeat, StartingItOnTheThreadItselfWhileAnotherUnlinksDoesNotHang)
{
    const std::function<void()> starts[] = {[this] { control->Link(3); }, [this] { control->Link(4); },
                                            [this] { control->Link(0x11234); },
                                            [this] { control->SetHeartbeatTimeout(3000, 0); }};
    for (const std::function<void()>& start : starts) {
        Gate inCallback;
        Gate release;
        std::atomic<bool> once{false};
        make([&] {
            if (once.exchange(true))
                return;
            inCallback.open();
            release.waitUntilOpen();
            start();
        });
        log.clear();
        link(10);
        device.set(ccpRegister, 0);
        ASSERT_TRUE(inCallback.waitUntilOpen());
        std::thread client = unlinkThatJoins();
        release.open();
        client.join();
        EXPECT_FALSE(control->IsLinked());
        EXPECT_EQ(1u, log.count("Link device : create heartbeat thread"));
        EXPECT_EQ(1u, log.count("Exit heartbeat thread"));
    }
}

TEST_F(Heartbeat, DisablingItOnTheThreadItselfIsRefusedAndEndsItAtItsNextWait)
{
    make([this] { control->SetHeartbeatTimeout(0, 0); });
    link(10);
    device.set(ccpRegister, 0);
    ASSERT_TRUE(log.waitFor("Exit heartbeat thread"));
    const std::vector<std::string> all = controlLines();
    const auto start = std::find(all.begin(), all.end(), lostLine);
    ASSERT_EQ(4, all.end() - start);
    EXPECT_THAT(start[1], testing::StartsWith("info GEVCTRL.# Set HBTimeout failed: "));
    EXPECT_EQ(interruptLine, start[2]);
    EXPECT_EQ(exitLine, start[3]);
    EXPECT_EQ(10u, fields().heartbeatPeriod());
    EXPECT_THAT(commands(), Not(Contains("W 0938 00000000"))) << "the refusal ended the request";
    EXPECT_EQ(1u, fields().runFlag());

    // Only that thread was meant.
    control->Unlink();
    log.clear();
    const std::size_t before = ccpReads();
    link(10);
    ASSERT_TRUE(waitForCcpReads(before + 2));
    EXPECT_THAT(controlLines(), Not(Contains(interruptLine)));
}

TEST_F(Heartbeat, AnExceptionOfNoKnownKindEndsTheThreadAlone)
{
    make([] { throw 5; });
    link(10);
    device.set(ccpRegister, 0);
    ASSERT_TRUE(log.waitFor("Exit heartbeat thread"));
    control->Unlink();
    EXPECT_EQ(0u, device.get(ccpRegister));
}

// --- Against everything else

TEST_F(Heartbeat, CommandsLinksAndUnlinksFromSeveralThreads)
{
    make([] {}, [] {}, [] {});
    device.set(timeoutRegister, 5); // a period of one millisecond
    control->SetAckTimeout(1);
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            while (!done) {
                command();
                std::uint32_t timeout = 0;
                std::uint32_t margin = 0;
                control->GetHeartbeatTimeout(timeout, margin);
                control->IsLinked();
            }
        });
        threads.emplace_back([&, i] {
            for (int round = 0; round < 40; ++round) {
                control->Link(i == 0 ? 3 : 4);
                if (round % 4 == 1)
                    control->SetHeartbeatTimeout(0, 0);
                if (round % 4 == 2)
                    control->SetHeartbeatTimeout(5, 0);
                if (round % 4 == 3)
                    device.set(ccpRegister, 0);
                control->BindAny(0x7F000C01, 0);
                control->Unlink();
            }
        });
    }
    threads[1].join();
    threads[3].join();
    done = true;
    threads[0].join();
    threads[2].join();
    control->Unlink();
    EXPECT_FALSE(control->IsLinked());
}
