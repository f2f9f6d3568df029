// What all commands share, and the two register commands.
#include "gvcp_fixture.h"

#include <boost/bind/bind.hpp>

#include <thread>

using namespace GEV;
using namespace gevTest;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

const std::string timeoutText = "Timeout receiving GVCP Ack";
const std::string resyncLine = "warn GVCP.# Resync protocol stack";

} // namespace

// --- Requests on the connection

TEST_F(Gvcp, DestinationAndBindingAreForwarded)
{
    gvcp.SetDestination(0x7F000C01, 3956);
    EXPECT_EQ(std::make_pair(std::uint32_t{0x7F000C01}, std::uint16_t{3956}), connection.destination);
    gvcp.BindLocal({0x7F000C02, 4000});
    EXPECT_EQ(std::make_pair(std::uint32_t{0x7F000C02}, std::uint16_t{4000}), connection.local);
    gvcp.BindAny(0x7F000C03, 0);
    EXPECT_EQ(std::make_pair(std::uint32_t{0x7F000C03}, std::uint16_t{0}), connection.local);
}

TEST_F(Gvcp, ARefusedDestinationOrBindingThrows)
{
    connection.destinationResult = -1003;
    connection.bindResult = -1003;
    const GevException destination = failureOf([&] { gvcp.SetDestination(1, 2); });
    EXPECT_EQ(-1001, destination.Code());
    EXPECT_STREQ("Unable to set destination address", destination.what());
    const GevException local = failureOf([&] { gvcp.BindLocal({1, 2}); });
    EXPECT_EQ(-1001, local.Code());
    EXPECT_STREQ("Unable to bind socket", local.what());
    try {
        gvcp.BindAny(1, 2);
        FAIL() << "nothing was thrown";
    } catch (const GevException&) {
        FAIL() << "BindAny throws no GevException";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ("Unable to bind socket", e.what());
    }
}

TEST_F(Gvcp, NamesOfCommands)
{
    const std::pair<std::uint16_t, const char*> names[] = {{0x80, "ReadReg Cmd"},
                                                           {0x81, "ReadReg Cmd"},
                                                           {0x82, "WriteReg Cmd"},
                                                           {0x83, "WriteReg Cmd"},
                                                           {0x84, "ReadMem Cmd"},
                                                           {0x85, "ReadMem Cmd"},
                                                           {0x86, "WriteMem Cmd"},
                                                           {0x87, "WriteMem Cmd"},
                                                           {0x88, "Cmd"},
                                                           {0x89, "Cmd"},
                                                           {0, "Cmd"}};
    for (const auto& [code, name] : names)
        EXPECT_EQ(name, gvcp.CommandName(code)) << code;
}

TEST_F(Gvcp, StartsWithThreeRetriesAnd300Milliseconds)
{
    EXPECT_EQ(3u, gvcp.retries);
    EXPECT_EQ(300u, gvcp.ackTimeout);
    EXPECT_TRUE(gvcp.byteSwap);
    EXPECT_FALSE(gvcp.hasCcp);
}

TEST_F(Gvcp, WithoutAConnectionACommandFailsByItsRetries)
{
    gvcp.SetConnection(nullptr);
    const GevException e = failureOf([&] { gvcp.WriteReg(1, 2, true, None()); });
    EXPECT_STREQ("Unable to send GVCP WriteReg", e.what());
    EXPECT_EQ(-1001, e.Code());
}

TEST_F(Gvcp, EachReceiveHasRoomFor576Bytes)
{
    connection.push(readRegAck(1, 9));
    readReg(0x10);
    EXPECT_THAT(connection.receiveSizes(), ElementsAre(576)) << "a command";
    connection.forget();
    connection.push(pendingAck(2, 5));
    connection.push(readRegAck(2, 9));
    readReg(0x10);
    EXPECT_THAT(connection.receiveSizes(), ElementsAre(576, 576)) << "behind a PENDING_ACK";
    connection.forget();
    connection.push(readRegAck(1, 8));
    connection.push(readRegAck(3, 9));
    readReg(0x10);
    EXPECT_THAT(connection.timeouts(), ElementsAre(300, 100, 100));
    EXPECT_THAT(connection.receiveSizes(), ElementsAre(576, 576, 576)) << "the drain";
}

// --- Request ids

TEST_F(Gvcp, IdsStartAtOneAndWrapFromFfffToOne)
{
    connection.push(readRegAck(1, 0));
    readReg(0);
    gvcp.requestId = 0xFFFE;
    connection.push(readRegAck(0xFFFF, 0));
    connection.push(readRegAck(1, 0));
    readReg(0);
    readReg(0);
    const std::vector<Bytes> sent = connection.sent();
    ASSERT_THAT(sent, SizeIs(3));
    EXPECT_EQ(1, big16(sent[0], 6));
    EXPECT_EQ(0xFFFF, big16(sent[1], 6));
    EXPECT_EQ(1, big16(sent[2], 6));
}

TEST_F(Gvcp, AResendIsTheSameDatagramWithTheSameId)
{
    connection.pushTimeout();
    connection.pushTimeout();
    connection.push(writeRegAck(1));
    gvcp.WriteReg(0x0A00, 2, true, None());
    const std::vector<Bytes> sent = connection.sent();
    ASSERT_THAT(sent, SizeIs(3));
    EXPECT_THAT(sent, Each(sent[0]));
}

// --- WriteReg

TEST_F(Gvcp, WriteRegBytesAndLog)
{
    connection.push(writeRegAck(1));
    gvcp.WriteReg(0x1234567800000A00, 0x01020304, true, None());
    EXPECT_THAT(connection.sent(), ElementsAre(Bytes{0x42, 0x01, 0x00, 0x82, 0x00, 0x08, 0x00, 0x01, 0x00, 0x00, 0x0A,
                                                     0x00, 0x01, 0x02, 0x03, 0x04}));
    EXPECT_THAT(connection.timeouts(), ElementsAre(300));
    EXPECT_THAT(gvcpLines(),
                ElementsAre("info GVCP.# Successful WriteReg to addr 0x1234567800000a00 : Value  16909060"));
    EXPECT_THAT(gvcp.wakes, ElementsAre(0, 0));
}

TEST_F(Gvcp, ValueOrderFollowsEitherOfTheTwoSwaps)
{
    const std::uint32_t value = 0x01020304;
    for (const bool object : {false, true}) {
        for (const bool call : {false, true}) {
            connection.forget();
            gvcp.requestId = 0;
            gvcp.SetByteSwap(object);
            connection.push(writeRegAck(1));
            gvcp.WriteReg(0x11223344, value, call, None());
            const Bytes sent = connection.sent().at(0);
            EXPECT_EQ(0x11223344u, big32(sent, 8));
            std::uint32_t raw = 0;
            std::memcpy(&raw, sent.data() + 12, sizeof raw);
            if (object || call)
                EXPECT_EQ(value, big32(sent, 12));
            else
                EXPECT_EQ(value, raw);
        }
    }
}

TEST_F(Gvcp, WriteRegLogsEachFailedAttemptAndTheLast)
{
    const GevException e = failureOf([&] { gvcp.WriteReg(0x10, 5, true, None()); });
    EXPECT_EQ(-1011, e.Code());
    EXPECT_STREQ("Unable to send GVCP WriteReg", e.what());
    const std::string tail = " Value: 5 @ Addr: 16\n\tDevice 0.0.0.0\n\tDescription " + timeoutText;
    EXPECT_THAT(gvcpLines(), ElementsAre("warn GVCP.# WriteReg Error, Try: 0" + tail, "warn GVCP.# WriteReg resend",
                                         "warn GVCP.# WriteReg Error, Try: 1" + tail, "warn GVCP.# WriteReg resend",
                                         "warn GVCP.# WriteReg Error, Try: 2" + tail,
                                         "warn GVCP.# WriteReg final failed  Value: 5 @ Addr: 16\n\tDevice 0.0.0.0"));
    EXPECT_THAT(connection.sent(), SizeIs(3));
    EXPECT_THAT(gvcp.wakes, IsEmpty()) << "no sign of life, no wake";
}

TEST_F(Gvcp, WriteRegWithoutRetriesThrowsAtOnceAndSendsNothing)
{
    gvcp.retries = 0;
    const GevException e = failureOf([&] { gvcp.WriteReg(0x10, 5, true, None()); });
    EXPECT_EQ(-10012, e.Code());
    EXPECT_STREQ("Unable to send GVCP WriteReg", e.what());
    EXPECT_THAT(connection.sent(), IsEmpty());
    EXPECT_THAT(gvcpLines(), ElementsAre("warn GVCP.# WriteReg final failed  Value: 5 @ Addr: 16\n\tDevice 0.0.0.0"));
}

TEST_F(Gvcp, WriteRegSendFails)
{
    gvcp.retries = 1;
    connection.respond([](FakeConnection&, const Bytes&) { return -1001; });
    const GevException e = failureOf([&] { gvcp.WriteReg(0x10, 5, true, None()); });
    EXPECT_EQ(-1001, e.Code());
    EXPECT_THAT(gvcpLines(), ElementsAre("warn GVCP.# Unable to send datagram",
                                         "warn GVCP.# WriteReg Error, Try: 0 Value: 5 @ Addr: 16\n\tDevice 0.0.0.0"
                                         "\n\tDescription Unable to send datagram",
                                         "warn GVCP.# WriteReg final failed  Value: 5 @ Addr: 16\n\tDevice 0.0.0.0"));
    EXPECT_THAT(connection.timeouts(), IsEmpty()) << "nothing is awaited after a failed send";
}

TEST_F(Gvcp, WriteRegStatusErrorIsResent)
{
    connection.push(ack(0x8006, 0x83, 1));
    connection.push(writeRegAck(1));
    gvcp.WriteReg(0x10, 5, true, None());
    EXPECT_THAT(gvcp.wakes, ElementsAre(0, 0, 0)) << "the refusal is a sign of life too";
    EXPECT_THAT(gvcpLines(),
                ElementsAre("warn GVCP Status returned 0x8006 => Access Denied",
                            "warn GVCP.# Validate WriteReg Ack returned error 5 @ 16",
                            "warn GVCP.# WriteReg Error, Try: 0 Value: 5 @ Addr: 16\n\tDevice 0.0.0.0"
                            "\n\tDescription Invalid WriteReg Ack",
                            "warn GVCP.# WriteReg resend", "info GVCP.# Successful WriteReg to addr 0x10 : Value  5"));
}

TEST_F(Gvcp, WriteRegKeepsTheLastCode)
{
    connection.push(ack(0x8006, 0x83, 1));
    connection.pushTimeout();
    connection.push(ack(0x8007, 0x83, 1));
    EXPECT_EQ(-1004, failureOf([&] { gvcp.WriteReg(0x10, 5, true, None()); }).Code());
}

TEST_F(Gvcp, WriteRegTakesAnAcknowledgeOfTheHeaderAlone)
{
    connection.push(ack(0, 0x83, 1));
    gvcp.WriteReg(0x10, 5, true, None());
    EXPECT_THAT(connection.sent(), SizeIs(1));
}

// --- ReadReg

TEST_F(Gvcp, ReadRegBytesAndLog)
{
    connection.push(readRegAck(1, 0x01020304));
    EXPECT_EQ(0x01020304u, readReg(0x0A00));
    EXPECT_THAT(connection.sent(),
                ElementsAre(Bytes{0x42, 0x01, 0x00, 0x80, 0x00, 0x04, 0x00, 0x01, 0x00, 0x00, 0x0A, 0x00}));
    EXPECT_THAT(gvcpLines(), ElementsAre("info GVCP.# Successful ReadReg a00 : Value  16909060",
                                         "info GVCP.# Successful ReadReg from addr 2560"));
    EXPECT_THAT(gvcp.wakes, ElementsAre(0, 0));
}

TEST_F(Gvcp, ReadRegWithoutAnySwapGivesTheWireBytes)
{
    gvcp.SetByteSwap(false);
    connection.push(readRegAck(1, 0x01020304));
    const std::uint32_t value = readReg(0, false);
    std::uint8_t raw[4];
    std::memcpy(raw, &value, sizeof raw);
    EXPECT_THAT(raw, ElementsAre(1, 2, 3, 4));
    connection.push(readRegAck(2, 0x01020304));
    EXPECT_EQ(0x01020304u, readReg(0, true));
}

TEST_F(Gvcp, ReadRegLogsEachFailedAttempt)
{
    std::uint32_t value = 77;
    const GevException e = failureOf([&] { gvcp.ReadReg(0x10, value, true, None()); });
    EXPECT_EQ(-1011, e.Code());
    EXPECT_STREQ("ReadReg returned error", e.what());
    EXPECT_EQ(77u, value);
    const std::string failed = "err GVCP.# ReadReg Error : 16 -> 77 " + timeoutText;
    EXPECT_THAT(gvcpLines(),
                ElementsAre(failed, "warn GVCP.# ReadReg resend", failed, "warn GVCP.# ReadReg resend", failed));
    EXPECT_THAT(connection.sent(), SizeIs(3));
}

TEST_F(Gvcp, ReadRegWithoutRetriesThrowsAtOnce)
{
    gvcp.retries = 0;
    EXPECT_EQ(-10012, failureOf([&] { readReg(0x10); }).Code());
    EXPECT_THAT(connection.sent(), IsEmpty());
    EXPECT_THAT(gvcpLines(), IsEmpty());
}

TEST_F(Gvcp, ReadRegSendFailsAndLogsNothingAtThatPoint)
{
    gvcp.retries = 1;
    connection.respond([](FakeConnection&, const Bytes&) { return -1001; });
    EXPECT_EQ(-1001, failureOf([&] { readReg(0x10); }).Code());
    EXPECT_THAT(gvcpLines(), ElementsAre("err GVCP.# ReadReg Error : 16 -> 0 Error sending datagram"));
}

TEST_F(Gvcp, ReadRegStatusErrorIsResent)
{
    connection.push(ack(0x8003, 0x81, 1, {0, 0, 0, 9}));
    connection.push(readRegAck(1, 4));
    EXPECT_EQ(4u, readReg(0x10));
    EXPECT_THAT(gvcpLines(), ElementsAre("warn GVCP Status returned 0x8003 => Invalid Address",
                                         "err GVCP.# ReadReg Error : 16 -> 0 Ack returned error",
                                         "warn GVCP.# ReadReg resend", "info GVCP.# Successful ReadReg 10 : Value  4",
                                         "info GVCP.# Successful ReadReg from addr 16"));
}

TEST_F(Gvcp, ReadRegDoesNotTestTheLength)
{
    connection.push(readRegAck(1, 0xFFFFFFFF));
    readReg(0x10);
    connection.push(ack(0, 0x81, 2));
    EXPECT_EQ(0u, readReg(0x10)) << "and takes nothing over from an earlier answer";
}

// --- PENDING_ACK

TEST_F(Gvcp, PendingAckTellsTheCallbackAndWaitsThatLong)
{
    connection.push(pendingAck(1, 5000));
    connection.push(pendingAck(1, 0xFFFF));
    connection.push(writeRegAck(1));
    std::vector<std::uint32_t> told;
    gvcp.WriteReg(0x10, 5, true, [&](std::uint32_t milliseconds) { told.push_back(milliseconds); });
    EXPECT_THAT(told, ElementsAre(5000, 0xFFFF));
    EXPECT_THAT(connection.timeouts(), ElementsAre(300, 5000, 0xFFFF));
    EXPECT_THAT(gvcp.wakes, ElementsAre(5000, 0xFFFF, 0, 0));
    EXPECT_THAT(connection.sent(), SizeIs(1));
}

TEST_F(Gvcp, PendingAckWithoutACallback)
{
    connection.push(pendingAck(1, 20));
    connection.push(readRegAck(1, 3));
    EXPECT_EQ(3u, readReg(0));
    EXPECT_THAT(connection.timeouts(), ElementsAre(300, 20));
}

TEST_F(Gvcp, PendingAckHasNoLimit)
{
    for (int i = 0; i < 1000; ++i)
        connection.push(pendingAck(1, 1));
    connection.push(readRegAck(1, 3));
    EXPECT_EQ(3u, readReg(0));
}

TEST_F(Gvcp, PendingAckOfZeroPolls)
{
    gvcp.retries = 1;
    connection.push(pendingAck(1, 0));
    EXPECT_EQ(-1011, failureOf([&] { readReg(0); }).Code());
    EXPECT_THAT(connection.timeouts(), ElementsAre(300, 0));
    EXPECT_THAT(gvcp.wakes, ElementsAre(0));
}

TEST_F(Gvcp, PendingAckThatExpiresIsResent)
{
    connection.push(pendingAck(1, 40));
    connection.pushTimeout();
    connection.push(readRegAck(1, 3));
    EXPECT_EQ(3u, readReg(0));
    EXPECT_THAT(connection.timeouts(), ElementsAre(300, 40, 300));
}

struct BadPendingAck {
    const char* name;
    Bytes data;
    const char* text;
};

void PrintTo(const BadPendingAck& value, std::ostream* out) { *out << value.name; }

class BadPendingAcks : public Gvcp, public testing::WithParamInterface<BadPendingAck> {};

TEST_P(BadPendingAcks, AreResent)
{
    connection.push(GetParam().data);
    connection.push(readRegAck(1, 3));
    bool told = false;
    std::uint32_t value = 0;
    gvcp.ReadReg(0x10, value, true, [&](std::uint32_t) { told = true; });
    EXPECT_EQ(3u, value);
    EXPECT_FALSE(told);
    EXPECT_EQ(std::string("err GVCP.# ReadReg Error : 16 -> 0 ") + GetParam().text, gvcpLines().at(0));
    gvcp.retries = 1;
    connection.push(GetParam().data);
    gvcp.requestId = 0;
    EXPECT_EQ(-1001, failureOf([&] { readReg(0x10); }).Code());
}

INSTANTIATE_TEST_SUITE_P(
    All, BadPendingAcks,
    testing::Values(BadPendingAck{"id", pendingAck(2, 100), "Pending Ack with invalid Req ID"},
                    BadPendingAck{"length", ack(0, 0x89, 1, {0, 0, 0}), "Pending Ack with invalid Length field"},
                    BadPendingAck{"status", ack(0x8000, 0x89, 1, {0, 0, 0, 9}), "Pending Ack returned error status"},
                    BadPendingAck{"id before length", ack(0x8000, 0x89, 2, {}), "Pending Ack with invalid Req ID"},
                    BadPendingAck{"length before status", ack(0x8000, 0x89, 1, {}),
                                  "Pending Ack with invalid Length field"},
                    BadPendingAck{"cut behind the command", {0, 0, 0, 0x89}, "Pending Ack with invalid Req ID"}),
    [](const auto& param) {
        std::string name = param.param.name;
        std::replace(name.begin(), name.end(), ' ', '_');
        return name;
    });

TEST_F(Gvcp, PendingAckOnlyBit15OfTheStatusCounts)
{
    connection.push(ack(0x7FFF, 0x89, 1, {0, 0, 0, 9}));
    connection.push(readRegAck(1, 3));
    EXPECT_EQ(3u, readReg(0));
    EXPECT_THAT(connection.timeouts(), ElementsAre(300, 9));
}

TEST_F(Gvcp, WhatTheCallbackThrowsLeavesTheCommand)
{
    connection.push(pendingAck(1, 5));
    EXPECT_THROW(gvcp.WriteReg(1, 2, true, [](std::uint32_t) { throw std::logic_error("mine"); }), std::logic_error);
    EXPECT_THAT(connection.sent(), SizeIs(1));
    bool taken = false;
    std::thread([&] { // this thread could take it once more though it were held
        taken = gvcp.commandMutex.try_lock();
        if (taken)
            gvcp.commandMutex.unlock();
    })
        .join();
    EXPECT_TRUE(taken) << "still held";
}

// --- Out of step

TEST_F(Gvcp, LateAcknowledgeAndTheRightOneBehindIt)
{
    connection.push(readRegAck(0, 8)); // to an earlier command
    connection.push(readRegAck(1, 9));
    EXPECT_EQ(9u, readReg(0x10));
    EXPECT_THAT(connection.sent(), SizeIs(1));
    EXPECT_THAT(connection.timeouts(), ElementsAre(300, 100, 100));
    EXPECT_THAT(gvcpLines(),
                ElementsAre("err GVCP Mismatch between CMD and ACK 0=1 - 129=129-> flushing stack for this socket",
                            resyncLine, "info GVCP.# Successful ReadReg 10 : Value  9",
                            "info GVCP.# Successful ReadReg from addr 16"));
}

TEST_F(Gvcp, AForeignDatagramAloneFailsTheAttemptAndIsResent)
{
    connection.push(ack(0, 0x80, 1)); // no acknowledge at all
    connection.pushTimeout();
    connection.push(readRegAck(1, 9));
    EXPECT_EQ(9u, readReg(0x10));
    const std::string parity = "err GVCP Mismatch between CMD Type and ACK Type, flushing stack for this socket";
    EXPECT_THAT(gvcpLines(),
                ElementsAre(parity, resyncLine, parity, "err GVCP.# ReadReg Error : 16 -> 0 Ack returned error",
                            "warn GVCP.# ReadReg resend", "info GVCP.# Successful ReadReg 10 : Value  9",
                            "info GVCP.# Successful ReadReg from addr 16"));
}

TEST_F(Gvcp, TheDrainTakesAllAndJudgesTheLast)
{
    connection.push(readRegAck(9, 1));
    connection.push(readRegAck(1, 2)); // the right one, but not the last
    connection.push(readRegAck(8, 3));
    connection.pushTimeout();
    connection.push(readRegAck(1, 4));
    EXPECT_EQ(4u, readReg(0x10));
    EXPECT_THAT(connection.timeouts(), ElementsAre(300, 100, 100, 100, 300));
}

TEST_F(Gvcp, ADeviceThatReportsAMismatchIsOutOfStepToo)
{
    connection.push(ack(0x8009, 0x81, 1));
    connection.push(readRegAck(1, 5));
    EXPECT_EQ(5u, readReg(0x10));
    EXPECT_THAT(connection.sent(), SizeIs(1));
    EXPECT_EQ("warn GVCP Status returned 0x8009 => Ack doesn't match MSG", gvcpLines().at(0));
    EXPECT_EQ(resyncLine, gvcpLines().at(1));
}

TEST_F(Gvcp, MismatchWithoutEndThrowsItsCode)
{
    connection.respond([](FakeConnection& c, const Bytes&) {
        c.push(readRegAck(0x4444, 0));
        return 0;
    });
    EXPECT_EQ(-10017, failureOf([&] { readReg(0x10); }).Code());
    EXPECT_THAT(connection.sent(), SizeIs(3));
}

namespace {

/// A connection whose silence is broken by an exception.
class ThrowingConnection : public FakeConnection {
public:
    template <typename... Args>
    std::int32_t Receive(void* buffer, std::uint32_t size, std::uint32_t timeoutMs, Args&&... args)
    {
        if (timeoutMs == 100 && inResync)
            inResync();
        return FakeConnection::Receive(buffer, size, timeoutMs, std::forward<Args>(args)...);
    }
    std::function<void()> inResync;
};

class ResyncFailure : public testing::Test {
protected:
    ResyncFailure()
    {
        gvcp.SetConnection(connection);
        connection->respond([](FakeConnection& c, const Bytes&) {
            c.push(readRegAck(0x4444, 0));
            return 0;
        });
    }

    zuTest::LogRecorder log;
    CGVCP<ThrowingConnection> gvcp;
    std::shared_ptr<ThrowingConnection> connection = std::make_shared<ThrowingConnection>();
};

} // namespace

TEST_F(ResyncFailure, AGevExceptionIsLoggedAndResent)
{
    connection->inResync = [] { throw GevException(-1234, "drain broke"); };
    std::uint32_t value = 0;
    try {
        gvcp.ReadReg(0x10, value, true, PendingAckCallback());
        FAIL() << "nothing was thrown";
    } catch (const GevException& e) {
        EXPECT_EQ(-1234, e.Code());
        EXPECT_STREQ("ReadReg returned error", e.what());
    }
    EXPECT_THAT(connection->sent(), SizeIs(3));
    EXPECT_EQ("err GVCP.# drain broke", lines(log).at(2));
    EXPECT_EQ("err GVCP.# ReadReg Error : 16 -> 0 drain broke", lines(log).at(3));
}

TEST_F(ResyncFailure, AnotherExceptionLeavesTheCommandAsAPlainOne)
{
    connection->inResync = [] { throw std::out_of_range("drain broke"); };
    try {
        gvcp.WriteReg(0x10, 0, true, PendingAckCallback());
        FAIL() << "nothing was thrown";
    } catch (const std::logic_error&) {
        FAIL() << "its class is not kept";
    } catch (const std::runtime_error&) {
        FAIL() << "it is a plain std::exception";
    } catch (const std::exception& e) {
        EXPECT_STREQ("drain broke", e.what());
    }
    EXPECT_THAT(connection->sent(), SizeIs(1));
    EXPECT_EQ("err GVCP.# drain broke", lines(log).back());
}

TEST_F(ResyncFailure, LeavesWriteMemWithTheOuterLine)
{
    connection->inResync = [] { throw std::out_of_range("drain broke"); };
    struct Holder : CGVCP<ThrowingConnection> {
        using CGVCP::hasCcp;
    } holder;
    holder.SetConnection(connection);
    holder.hasCcp = true;
    const std::uint8_t data[4] = {};
    EXPECT_THROW(holder.WriteMem(0x20, 4, data, PendingAckCallback()), PlainException);
    EXPECT_EQ("err GVCP.# Error writing 4 bytes to 32drain broke", lines(log).back());
}

namespace {

/// Each of the four commands with what became of it, as "3 sent, -1234 words", "1 sent, plain words" or "1 sent".
class OutOfStep : public ResyncFailure {
protected:
    using Commands = CGVCP<ThrowingConnection>;
    struct Holder : Commands {
        using Commands::hasCcp;
    };

    OutOfStep()
    {
        holder.SetConnection(connection);
        holder.hasCcp = true;
    }
    std::string outcomeOf(const std::function<void()>& command)
    {
        const std::size_t before = connection->sent().size();
        std::string end;
        try {
            command();
        } catch (const GevException& e) {
            end = ", " + std::to_string(e.Code()) + ' ' + e.what();
        } catch (const PlainException& e) {
            end = std::string(", plain ") + e.what();
        }
        return std::to_string(connection->sent().size() - before) + " sent" + end;
    }
    std::string writeReg()
    {
        return outcomeOf([&] { holder.WriteReg(0x10, 1, true, PendingAckCallback()); });
    }
    std::string readReg()
    {
        std::uint32_t value = 0;
        return outcomeOf([&] { holder.ReadReg(0x10, value, true, PendingAckCallback()); });
    }
    std::string readMem()
    {
        return outcomeOf([&] { holder.ReadMem(0x10, sizeof bytes, bytes, PendingAckCallback()); });
    }
    std::string writeMem()
    {
        return outcomeOf([&] { holder.WriteMem(0x10, sizeof bytes, bytes, PendingAckCallback()); });
    }

    Holder holder;
    std::uint8_t bytes[4] = {};
};

} // namespace

TEST_F(OutOfStep, ADrainThatThrowsAGevExceptionCostsAnAttempt)
{
    connection->inResync = [] { throw GevException(-1234, "drain broke"); };
    EXPECT_EQ("3 sent, -1234 Unable to send GVCP WriteReg", writeReg());
    EXPECT_EQ("3 sent, -1234 ReadReg returned error", readReg());
    EXPECT_EQ("3 sent, 0 ReadReg returned error", readMem()) << "the result of the last send";
    EXPECT_EQ("3 sent", writeMem()) << "as if no answer had come";
}

TEST_F(OutOfStep, ADrainThatThrowsAnythingElseEndsTheCommand)
{
    connection->inResync = [] { throw std::out_of_range("drain broke"); };
    for (const std::string& outcome : {writeReg(), readReg(), readMem(), writeMem()})
        EXPECT_EQ("1 sent, plain drain broke", outcome);
}

TEST_F(OutOfStep, AMismatchThatStaysIsResentButForWriteMem)
{
    EXPECT_EQ("3 sent, -10017 Unable to send GVCP WriteReg", writeReg());
    EXPECT_EQ("3 sent, -10017 ReadReg returned error", readReg());
    EXPECT_EQ("3 sent, -10017 ReadReg returned error", readMem());
    EXPECT_EQ("1 sent, -10017 Error executing WriteMem", writeMem());
    connection->respond([](FakeConnection& c, const Bytes& sent) {
        c.push(ack(0, big16(sent, 2), big16(sent, 6))); // the command's code is no acknowledge's
        return 0;
    });
    EXPECT_EQ("3 sent, -10013 Unable to send GVCP WriteReg", writeReg());
    EXPECT_EQ("3 sent, -10013 ReadReg returned error", readReg());
    EXPECT_EQ("3 sent, -10013 ReadReg returned error", readMem());
    EXPECT_EQ("1 sent, -10013 Error executing WriteMem", writeMem());
}

// --- Truncation and garbage

TEST_F(Gvcp, RegisterAcknowledgesCutAtEveryByte)
{
    const Bytes whole = readRegAck(1, 0x01020304);
    for (std::size_t size = 1; size <= whole.size(); ++size) {
        SCOPED_TRACE(size);
        connection.forget();
        gvcp.requestId = 0;
        gvcp.retries = 1;
        std::memset(gvcp.rxBuffer.get(), 0xEE, 64); // what an earlier datagram may have left
        connection.push(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
        if (size < 8) { // the id is not whole
            const std::int32_t code = failureOf([&] { readReg(0x10); }).Code();
            EXPECT_EQ(size < 4 ? -10013 : -10017, code);
        } else {
            const std::size_t missing = 8 * (12 - size);
            EXPECT_EQ(std::uint64_t{0x01020304} >> missing << missing, readReg(0x10));
        }
    }
}

TEST_F(Gvcp, PendingAcksCutAtEveryByte)
{
    const Bytes whole = pendingAck(1, 0x0102);
    for (std::size_t size = 1; size <= whole.size(); ++size) {
        SCOPED_TRACE(size);
        connection.forget();
        gvcp.requestId = 0;
        gvcp.retries = 1;
        std::memset(gvcp.rxBuffer.get(), 0xEE, 64);
        connection.push(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
        connection.push(readRegAck(1, 3));
        if (size < 8) { // below 4 it is no PENDING_ACK: it is drained, and the right answer behind it counts
            if (size < 4)
                EXPECT_EQ(3u, readReg(0x10));
            else
                EXPECT_EQ(-1001, failureOf([&] { readReg(0x10); }).Code());
        } else {
            EXPECT_EQ(3u, readReg(0x10));
            const std::uint32_t wait = size <= 10 ? 0 : size == 11 ? 0x0100 : 0x0102;
            EXPECT_THAT(connection.timeouts(), ElementsAre(300, wait));
        }
    }
}
