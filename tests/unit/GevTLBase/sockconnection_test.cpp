// CSockConnection over scripted sockets: each call to the system, each refusal, each result and line.
#include "GevTLBase/GevHelper.h"
#include "src/SockConnection.h"
#include "tests/support/fake_socket.h"

#include "tests/support/log_lines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Fake = zuTest::FakeSockets;

using namespace GEV;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using zuPlatform::ReceiveResult;
using zuTest::lines;

namespace {

constexpr std::uint32_t cameraIp = 0x7F000C01;
constexpr std::uint32_t localIp = 0x7F000C02;

zuPlatform::SocketAddress at(std::uint32_t ip, std::uint16_t port)
{
    return {zuPlatform::hostToNetwork32(ip), zuPlatform::hostToNetwork16(port)};
}

ReceiveResult outcome(ReceiveResult::Kind kind, std::ptrdiff_t count = 0, int error = 0)
{
    ReceiveResult result;
    result.kind = kind;
    result.count = count;
    result.error = error;
    return result;
}

class SockConnection : public testing::Test {
protected:
    SockConnection()
    {
        Fake::reset();
        Fake::setInstantTimeouts(true);
    }
    ~SockConnection() override { Fake::reset(); }

    void make() { connection = std::make_unique<CSockConnection>(); }

    struct Received {
        std::int32_t result;
        std::int32_t count;
        std::uint32_t ip;
        std::uint16_t port;
    };
    Received receive(std::uint32_t timeoutMs = 300, std::uint32_t size = 576)
    {
        Received got{0, 99, 0, 0};
        std::vector<std::uint8_t> buffer(size);
        got.result = connection->Receive(buffer.data(), size, timeoutMs, &got.ip, &got.port, got.count);
        return got;
    }
    std::int32_t send(std::int32_t& count)
    {
        const std::uint8_t data[] = {1, 2, 3};
        return connection->Send(data, sizeof data, count);
    }

    zuTest::LogRecorder log;
    std::unique_ptr<CSockConnection> connection;
};

} // namespace

// --- The socket

TEST_F(SockConnection, ConstructionOpensAndSetsUp)
{
    make();
    EXPECT_THAT(Fake::calls(),
                ElementsAre("0 open", "0 setReceiveBuffer 1048576", "0 setSendBuffer 1048576", "0 setDontFragment 0"));
    EXPECT_THAT(lines(log), ElementsAre("trace Conn.# Create Connection"));
    std::uint32_t ip = 1;
    std::uint16_t port = 1;
    EXPECT_EQ(0, connection->GetLocalAddress(ip, port));
    EXPECT_EQ(0u, ip);
    EXPECT_EQ(0, port);
    EXPECT_EQ(0, connection->GetDestination(ip, port));
    EXPECT_EQ(0xFFFFFFFFu, ip);
    EXPECT_EQ(3956, port);
    EXPECT_EQ(0, connection->Reserved());
}

TEST_F(SockConnection, ConstructionRegistersBothGroups)
{
    make();
    std::vector<std::string> names;
    for (std::uint64_t id = 1; id != 0; id <<= 1) {
        try {
            names.push_back(zuLogging::group_name(id));
        } catch (const std::invalid_argument&) {
            continue; // not registered
        }
    }
    EXPECT_THAT(names, testing::IsSupersetOf({"BufferHandling", "IPConnection"}));
}

TEST_F(SockConnection, DestructionClosesWithoutShutdown)
{
    make();
    connection.reset();
    EXPECT_EQ("0 close", Fake::calls().back());
    EXPECT_EQ(0u, Fake::countCalls("0 shutdownSend"));
    EXPECT_EQ(0u, Fake::alive());
}

TEST_F(SockConnection, RefusedBufferSizesAreWarningsOfTheirGroup)
{
    Fake::fail(Fake::Call::setReceiveBuffer, 105);
    Fake::fail(Fake::Call::setSendBuffer, 106);
    make();
    EXPECT_THAT(lines(log), ElementsAre("trace Conn.# Create Connection",
                                        "warn Conn.# [IPConnection] Unable to set receive buffer size: 105",
                                        "warn Conn.# [IPConnection] Unable to set send buffer size: 106"));
    EXPECT_EQ(1u, Fake::countCalls("0 setDontFragment 0")) << "the rest is done";
}

TEST_F(SockConnection, WithoutASocketEverythingFailsAndNothingCrashes)
{
    Fake::fail(Fake::Call::open, 24);
    make();
    EXPECT_THAT(lines(log),
                ElementsAre("trace Conn.# Create Connection", "warn Conn.# Unable to create UDP socket (error 24)"));
    log.clear();
    connection->SetDestination(cameraIp, 3956);
    std::int32_t count = 99;
    EXPECT_EQ(-1001, send(count));
    EXPECT_EQ(0, count);
    const Received got = receive();
    EXPECT_EQ(-10012, got.result);
    EXPECT_EQ(-1, got.count);
    EXPECT_EQ(0, connection->FlushInput());
    connection->SetDontFragment(true);
    bool value = true;
    connection->GetDontFragment(value);
    EXPECT_FALSE(value);
    EXPECT_THAT(lines(log),
                ElementsAre("trace Conn.# Set destination to 127.0.12.1:3956", "err Conn.# Error in sendto (error 9)",
                            "warn Conn.# select returned error ( error 9 )\b"));
    // The next binding makes a socket, with what was set meanwhile.
    EXPECT_EQ(0, connection->Bind(localIp, 0));
    EXPECT_EQ(1u, Fake::countCalls("0 setDontFragment 1"));
}

// --- Bind

TEST_F(SockConnection, BindMakesANewSocket)
{
    make();
    log.clear();
    EXPECT_EQ(0, connection->Bind(localIp, 0));
    EXPECT_THAT(Fake::calls(), ElementsAre("0 open", "0 setReceiveBuffer 1048576", "0 setSendBuffer 1048576",
                                           "0 setDontFragment 0", "0 shutdownSend", "0 close", "1 open",
                                           "1 setReceiveBuffer 1048576", "1 setSendBuffer 1048576",
                                           "1 setDontFragment 0", "1 bind 127.0.12.2", "1 getLocalAddress"));
    EXPECT_THAT(lines(log), ElementsAre("trace Conn.# Bind sock to IP 127.0.12.2",
                                        "trace Conn.# Bind sock to IP 127.0.12.2:50000"));
    std::uint32_t ip = 0;
    std::uint16_t port = 0;
    connection->GetLocalAddress(ip, port);
    EXPECT_EQ(localIp, ip);
    EXPECT_EQ(50000, port);
}

TEST_F(SockConnection, BindToTheSameAddressAndPortTwiceRecreatesOnce)
{
    make();
    connection->Bind(localIp, 4000);
    log.clear();
    EXPECT_EQ(0, connection->Bind(localIp, 4000));
    EXPECT_EQ(2u, Fake::opened());
    EXPECT_THAT(lines(log), IsEmpty());
    connection->Bind(localIp, 4001);
    EXPECT_EQ(3u, Fake::opened());
    connection->Bind(cameraIp, 4001);
    EXPECT_EQ(4u, Fake::opened());
}

TEST_F(SockConnection, BindToTheSameAddressWithPortZeroKeepsTheChosenPort)
{
    make();
    connection->Bind(localIp, 0);
    EXPECT_EQ(0, connection->Bind(localIp, 0));
    EXPECT_EQ(2u, Fake::opened());
    std::uint32_t ip = 0;
    std::uint16_t port = 0;
    connection->GetLocalAddress(ip, port);
    EXPECT_EQ(50000, port);
}

TEST_F(SockConnection, BindToAddressZeroRecreatesEachTime)
{
    make();
    connection->Bind(0, 0);
    connection->Bind(0, 0);
    connection->Bind(0, 0);
    EXPECT_EQ(4u, Fake::opened());
}

TEST_F(SockConnection, BindThatIsRefusedIsOnlyAWarning)
{
    make();
    log.clear();
    Fake::fail(Fake::Call::bind, 98);
    EXPECT_EQ(0, connection->Bind(localIp, 4000));
    EXPECT_THAT(lines(log), ElementsAre("trace Conn.# Bind sock to IP 127.0.12.2:4000",
                                        "warn Conn.# Unable to bind UDP socket ( error 98 )",
                                        "trace Conn.# Bind sock to IP 0.0.0.0"));
    std::uint32_t ip = 1;
    std::uint16_t port = 1;
    connection->GetLocalAddress(ip, port);
    EXPECT_EQ(0u, ip) << "what the system reports";
}

TEST_F(SockConnection, BindWithoutALocalAddressKeepsWhatWasAskedFor)
{
    make();
    log.clear();
    Fake::fail(Fake::Call::getLocalAddress, 22);
    EXPECT_EQ(0, connection->Bind(localIp, 4000));
    EXPECT_THAT(lines(log), ElementsAre("trace Conn.# Bind sock to IP 127.0.12.2:4000",
                                        "warn Conn.# Unable to get socket port  ( error 22 )"));
    std::uint32_t ip = 0;
    std::uint16_t port = 0;
    connection->GetLocalAddress(ip, port);
    EXPECT_EQ(localIp, ip);
    EXPECT_EQ(4000, port);
}

TEST_F(SockConnection, BindWithoutASocketWarnsOfBoth)
{
    make();
    log.clear();
    Fake::fail(Fake::Call::open, 24);
    EXPECT_EQ(0, connection->Bind(localIp, 4000));
    EXPECT_THAT(lines(log), ElementsAre("trace Conn.# Bind sock to IP 127.0.12.2:4000",
                                        "warn Conn.# Unable to create UDP socket (error 24)",
                                        "warn Conn.# Unable to bind UDP socket ( error 9 )",
                                        "warn Conn.# Unable to get socket port  ( error 9 )"));
}

TEST_F(SockConnection, DestinationAndDontFragmentSurviveARebind)
{
    make();
    connection->SetDestination(cameraIp, 4711);
    connection->SetDontFragment(true);
    EXPECT_EQ("0 setDontFragment 1", Fake::calls().back());
    connection->Bind(localIp, 0);
    EXPECT_EQ(1u, Fake::countCalls("1 setDontFragment 1"));
    bool value = false;
    connection->GetDontFragment(value);
    EXPECT_TRUE(value);
    std::uint32_t ip = 0;
    std::uint16_t port = 0;
    connection->GetDestination(ip, port);
    EXPECT_EQ(cameraIp, ip);
    EXPECT_EQ(4711, port);
}

TEST_F(SockConnection, DontFragmentIsStoredThoughRefused)
{
    make();
    Fake::fail(Fake::Call::setDontFragment, 22);
    connection->SetDontFragment(true);
    bool value = true;
    connection->GetDontFragment(value);
    EXPECT_FALSE(value) << "the socket's";
    connection->Bind(localIp, 0);
    connection->GetDontFragment(value);
    EXPECT_TRUE(value);
    EXPECT_THAT(log.texts(), testing::Not(testing::Contains(testing::HasSubstr("rror"))));
}

// --- Send

TEST_F(SockConnection, SendWithoutADestinationGoesNowhere)
{
    make();
    log.clear();
    std::int32_t count = 99;
    EXPECT_EQ(-1001, send(count));
    EXPECT_EQ(99, count) << "left alone";
    EXPECT_THAT(Fake::sent(), IsEmpty());
    EXPECT_THAT(lines(log),
                ElementsAre("warn Conn.# [IPConnection] No destination for SendTo. Connection not bound\n\b"));
}

TEST_F(SockConnection, SendGoesToTheDestination)
{
    make();
    log.clear();
    connection->SetDestination(cameraIp, 3956);
    EXPECT_THAT(lines(log), ElementsAre("trace Conn.# Set destination to 127.0.12.1:3956"));
    std::int32_t count = 0;
    EXPECT_EQ(0, send(count));
    EXPECT_EQ(3, count);
    ASSERT_THAT(Fake::sent(), SizeIs(1));
    EXPECT_THAT(Fake::sent()[0].data, ElementsAre(1, 2, 3));
    EXPECT_EQ(at(cameraIp, 3956), Fake::sent()[0].to);
}

TEST_F(SockConnection, AShortSendIsASuccess)
{
    make();
    connection->SetDestination(cameraIp, 3956);
    Fake::onSend([](const zuTest::SentDatagram&) { return zuPlatform::SendResult{1, 0}; });
    std::int32_t count = 0;
    EXPECT_EQ(0, send(count));
    EXPECT_EQ(1, count);
}

TEST_F(SockConnection, AFailedSendIsAnErrorAndTheNextTriesAgain)
{
    make();
    connection->SetDestination(cameraIp, 3956);
    log.clear();
    Fake::fail(Fake::Call::sendTo, 101);
    std::int32_t count = 99;
    EXPECT_EQ(-1001, send(count));
    EXPECT_EQ(0, count);
    EXPECT_THAT(lines(log), ElementsAre("err Conn.# Error in sendto (error 101)"));
    EXPECT_EQ(0, send(count));
}

TEST_F(SockConnection, SendBroadcastNeedsNoDestination)
{
    make();
    log.clear();
    const std::uint8_t data[] = {7, 8};
    std::int32_t count = 0;
    EXPECT_EQ(0, connection->SendBroadcast(data, 3956, sizeof data, count));
    EXPECT_EQ(2, count);
    ASSERT_THAT(Fake::sent(), SizeIs(1));
    EXPECT_EQ(at(0xFFFFFFFF, 3956), Fake::sent()[0].to);
    Fake::fail(Fake::Call::sendTo, 13);
    EXPECT_EQ(-1001, connection->SendBroadcast(data, 3956, sizeof data, count));
    EXPECT_EQ(-1, count) << "the system's result";
    EXPECT_THAT(lines(log), ElementsAre("err Conn.# Error in sendto ( error 13 )"));
}

// --- Receive

TEST_F(SockConnection, ReceiveTellsSenderAndSize)
{
    make();
    log.clear();
    Fake::pushDatagram({1, 2, 3, 4}, at(cameraIp, 3956));
    const Received got = receive(1500);
    EXPECT_EQ(0, got.result);
    EXPECT_EQ(4, got.count);
    EXPECT_EQ(cameraIp, got.ip);
    EXPECT_EQ(3956, got.port);
    EXPECT_EQ("0 receive 1500", Fake::calls().back());
    EXPECT_THAT(lines(log), IsEmpty());
}

TEST_F(SockConnection, ReceiveTakesADatagramOfAnySender)
{
    make();
    connection->SetDestination(cameraIp, 3956);
    Fake::pushDatagram({1}, at(localIp, 1));
    const Received got = receive();
    EXPECT_EQ(0, got.result);
    EXPECT_EQ(localIp, got.ip);
}

TEST_F(SockConnection, ReceiveWithoutInterestInTheSender)
{
    make();
    Fake::pushDatagram({1, 2}, at(cameraIp, 3956));
    std::uint8_t buffer[4];
    std::int32_t count = 0;
    EXPECT_EQ(0, connection->Receive(buffer, sizeof buffer, 0, nullptr, nullptr, count));
    EXPECT_EQ(2, count);
}

TEST_F(SockConnection, AWaitOfAnyLengthIsOneReceive)
{
    make();
    for (const std::uint32_t timeoutMs : {0u, 1500u, 600000u, ~0u}) {
        const std::size_t before = Fake::calls().size();
        EXPECT_EQ(-10012, receive(timeoutMs).result);
        const std::vector<std::string> all = Fake::calls();
        ASSERT_EQ(before + 1, all.size());
        EXPECT_EQ("0 receive " + std::to_string(timeoutMs), all.back());
    }
}

TEST_F(SockConnection, ReceiveThatTimesOut)
{
    make();
    log.clear();
    const Received got = receive(1);
    EXPECT_EQ(-10012, got.result);
    EXPECT_EQ(0, got.count);
    EXPECT_THAT(lines(log), IsEmpty());
}

TEST_F(SockConnection, ReceiveWhoseWaitFails)
{
    make();
    log.clear();
    Fake::pushReceive(outcome(ReceiveResult::Kind::waitFailed, 0, 4711));
    const Received got = receive();
    EXPECT_EQ(-10012, got.result);
    EXPECT_EQ(-1, got.count);
    EXPECT_THAT(lines(log), ElementsAre("warn Conn.# select returned error ( error 4711 )\b"));
}

TEST_F(SockConnection, ReceiveWhoseWaitEndsForAnotherSocket)
{
    make();
    log.clear();
    Fake::pushReceive(outcome(ReceiveResult::Kind::notReady));
    const Received got = receive();
    EXPECT_EQ(-10012, got.result);
    EXPECT_EQ(1, got.count);
    EXPECT_THAT(lines(log), IsEmpty());
}

TEST_F(SockConnection, ReceiveThatFails)
{
    make();
    log.clear();
    Fake::pushReceive(outcome(ReceiveResult::Kind::receiveFailed, 576, 90));
    const Received got = receive();
    EXPECT_EQ(-10012, got.result);
    EXPECT_EQ(-1, got.count);
    EXPECT_EQ(0u, got.ip);
    EXPECT_THAT(lines(log), ElementsAre("err Conn.# Socket read error 90"));
}

TEST_F(SockConnection, AnEmptyDatagramReadsAsAClosedSocket)
{
    make();
    log.clear();
    Fake::pushDatagram({}, at(cameraIp, 3956));
    const Received got = receive();
    EXPECT_EQ(-10004, got.result);
    EXPECT_EQ(0, got.count);
    EXPECT_EQ(0u, got.ip) << "no sender is told";
    EXPECT_THAT(lines(log), ElementsAre("warn Conn.# Socket unexpected closed"));
}

// --- FlushInput

TEST_F(SockConnection, FlushReadsWhatIsPending)
{
    make();
    Fake::pushDatagram({1, 2, 3});
    Fake::pushDatagram({4, 5});
    EXPECT_EQ(0, connection->FlushInput());
    EXPECT_EQ(2u, Fake::countCalls("0 receive 0")) << "the total is reached";
    EXPECT_EQ(-10012, receive(0).result);
}

TEST_F(SockConnection, FlushEndsWhenAReceiveFails)
{
    make();
    Fake::setPendingBytes(1000000); // more than comes
    Fake::pushDatagram({1, 2, 3});
    EXPECT_EQ(0, connection->FlushInput());
    EXPECT_EQ(2u, Fake::countCalls("0 receive 0"));
}

TEST_F(SockConnection, FlushOfNothingReadsNothing)
{
    make();
    EXPECT_EQ(0, connection->FlushInput());
    Fake::pushDatagram({1, 2, 3});
    Fake::fail(Fake::Call::getPendingBytes, 22);
    EXPECT_EQ(0, connection->FlushInput());
    EXPECT_EQ(0u, Fake::countCalls("0 receive 0"));
}

TEST_F(SockConnection, FlushTakesDatagramsOfAnySize)
{
    make();
    log.clear();
    Fake::pushDatagram(std::vector<std::uint8_t>(65507));
    EXPECT_EQ(0, connection->FlushInput());
    EXPECT_THAT(lines(log), IsEmpty()) << "it would be an error if the buffer were too small";
}
