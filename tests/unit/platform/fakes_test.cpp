// The scripted fakes do as their scripts say, in the place of the system.
#include "platform/process.h"
#include "platform/shared_memory.h"
#include "platform/socket.h"
#include "platform/socket_library.h"
#include "tests/support/fake_process_exists.h"
#include "tests/support/fake_shared_memory.h"
#include "tests/support/fake_socket.h"
#include "tests/support/fake_socket_library.h"

#include <boost/interprocess/mapped_region.hpp>
#include <cerrno>
#include <cstring>
#include <gmock/gmock.h>
#include <thread>

using namespace zuPlatform;
using namespace zuTest;
using testing::ElementsAre;
using Kind = ReceiveResult::Kind;

class FakeSocketTest : public testing::Test {
protected:
    FakeSocketTest()
    {
        FakeSockets::reset();
        socket = DatagramSocket::open(error);
    }
    int error = -1;
    SocketPtr socket;
    char buffer[8] = {};
};

TEST_F(FakeSocketTest, FailuresComeWhenTheScriptSays)
{
    EXPECT_EQ(error, 0);
    FakeSockets::fail(FakeSockets::Call::bind, EADDRINUSE, 2, 1);
    EXPECT_EQ(socket->bind({}), 0);
    EXPECT_EQ(socket->bind({}), EADDRINUSE);
    EXPECT_EQ(socket->bind({}), EADDRINUSE);
    EXPECT_EQ(socket->bind({}), 0);
    FakeSockets::fail(FakeSockets::Call::open, EMFILE);
    EXPECT_EQ(DatagramSocket::open(error), nullptr);
    EXPECT_EQ(error, EMFILE);
    EXPECT_NE(DatagramSocket::open(error), nullptr);
    FakeSockets::fail(FakeSockets::Call::sendTo, ENETUNREACH);
    EXPECT_EQ(socket->sendTo("a", 1, {}).error, ENETUNREACH);
    EXPECT_TRUE(FakeSockets::sent().empty());
}

TEST_F(FakeSocketTest, NotesCallsAndDatagrams)
{
    socket->bind(loopbackAt(hostToNetwork16(3956)));
    socket->setDontFragment(true);
    bool value = false;
    EXPECT_EQ(socket->getDontFragment(value), 0);
    EXPECT_TRUE(value);
    EXPECT_EQ(socket->sendTo("abc", 3, loopbackAt(hostToNetwork16(7))).count, 3);
    socket->close();
    EXPECT_THAT(FakeSockets::calls(), ElementsAre("0 open", "0 bind 127.0.0.1:3956", "0 setDontFragment 1",
                                                  "0 getDontFragment", "0 sendTo 127.0.0.1:7", "0 close"));
    ASSERT_EQ(FakeSockets::sent().size(), 1u);
    EXPECT_THAT(FakeSockets::sent()[0].data, ElementsAre('a', 'b', 'c'));
    EXPECT_EQ(socket->bind({}), EBADF);
}

TEST_F(FakeSocketTest, AnswersInOrderToTheirSocket)
{
    const SocketPtr other = DatagramSocket::open(error);
    FakeSockets::pushDatagram({1, 2}, loopbackAt(5), 1);
    FakeSockets::pushDatagram({3}, loopbackAt(6), 0);
    ReceiveResult failed;
    failed.kind = Kind::notReady;
    FakeSockets::pushReceive(failed, 0);
    FakeSockets::pushDatagram(std::vector<std::uint8_t>(9), {}, 0);
    std::size_t pending = 0;
    EXPECT_EQ(other->getPendingBytes(pending), 0);
    EXPECT_EQ(pending, 2u);

    SocketAddress from;
    ReceiveResult result = socket->receive(buffer, sizeof buffer, 1000, &from);
    EXPECT_EQ(result.kind, Kind::received);
    EXPECT_EQ(result.count, 1);
    EXPECT_EQ(buffer[0], 3);
    EXPECT_EQ(from, loopbackAt(6));
    EXPECT_EQ(socket->receive(buffer, sizeof buffer, 1000, nullptr).kind, Kind::notReady);
    result = socket->receive(buffer, sizeof buffer, 1000, nullptr);
    EXPECT_EQ(result.kind, Kind::receiveFailed);
    EXPECT_EQ(result.error, messageSizeError);
    EXPECT_EQ(socket->receive(buffer, sizeof buffer, 0, nullptr).kind, Kind::timeout);
    EXPECT_EQ(other->receive(buffer, sizeof buffer, 0, nullptr).count, 2);
}

TEST_F(FakeSocketTest, TimeoutsAreRealUnlessInstant)
{
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(socket->receive(buffer, sizeof buffer, 30, nullptr).kind, Kind::timeout);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
    FakeSockets::setInstantTimeouts(true);
    EXPECT_EQ(socket->receive(buffer, sizeof buffer, 4000000, nullptr).kind, Kind::timeout);
    EXPECT_EQ(FakeSockets::countCalls("0 receive 4000000"), 1u);
}

TEST_F(FakeSocketTest, CloseAndAnswersWakeAWaiter)
{
    ReceiveResult result;
    std::thread waiter([&] { result = socket->receive(buffer, sizeof buffer, 60000, nullptr); });
    EXPECT_TRUE(FakeSockets::waitForCall("0 receive 60000"));
    FakeSockets::pushDatagram({1});
    waiter.join();
    EXPECT_EQ(result.kind, Kind::received);

    std::thread closed([&] { result = socket->receive(buffer, sizeof buffer, 60000, nullptr); });
    EXPECT_TRUE(FakeSockets::waitForCall("0 receive 60000", 2));
    socket->close();
    closed.join();
    EXPECT_EQ(result.kind, Kind::waitFailed);
    EXPECT_EQ(result.error, EBADF);
}

TEST_F(FakeSocketTest, AResponderDecidesAndAnswers)
{
    FakeSockets::onSend([](const SentDatagram& datagram) {
        FakeSockets::pushDatagram(datagram.data, datagram.to, datagram.socket);
        return SendResult{-1, wouldBlockError};
    });
    EXPECT_EQ(socket->sendTo("xy", 2, {}).error, wouldBlockError);
    EXPECT_EQ(socket->receive(buffer, sizeof buffer, 0, nullptr).count, 2);
}

TEST_F(FakeSocketTest, CountsSockets)
{
    const std::size_t before = FakeSockets::alive();
    {
        const SocketPtr other = DatagramSocket::open(error);
        EXPECT_EQ(FakeSockets::alive(), before + 1);
    }
    EXPECT_EQ(FakeSockets::alive(), before);
    EXPECT_EQ(FakeSockets::opened(), 2u);
}

TEST(FakeSharedMemoryTest, KeepsObjectsAndFailsAsScripted)
{
    FakeSharedMemory::reset();
    int error = 0;
    using Access = SharedMemory::Access;
    EXPECT_EQ(SharedMemory::open("a", Access::readOnly, error), nullptr);
    EXPECT_EQ(error, ENOENT);
    const auto made = SharedMemory::create("a", 4, error);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(SharedMemory::create("a", 4, error), nullptr);
    EXPECT_EQ(error, EEXIST);
    std::memcpy(made->map(4), "wxyz", 4);
    EXPECT_THAT(FakeSharedMemory::content("a"), ElementsAre('w', 'x', 'y', 'z'));

    const auto reader = SharedMemory::open("a", Access::readOnly, error);
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(reader->map(5), nullptr);
    const boost::interprocess::mapped_region region(*reader, boost::interprocess::read_only, 0, 4);
    EXPECT_EQ(std::memcmp(region.get_address(), "wxyz", 4), 0);
    FakeSharedMemory::fail(FakeSharedMemory::Call::map, ENOMEM);
    EXPECT_EQ(reader->map(4), nullptr);
    FakeSharedMemory::fail(FakeSharedMemory::Call::open, EACCES);
    EXPECT_EQ(SharedMemory::open("a", Access::readWrite, error), nullptr);
    EXPECT_EQ(error, EACCES);
    FakeSharedMemory::put("b", {7});
    EXPECT_TRUE(SharedMemory::remove("b"));
    EXPECT_FALSE(SharedMemory::remove("b"));
    EXPECT_FALSE(FakeSharedMemory::exists("b"));
}

TEST(FakeProcessesTest, AreGoneWhenToldSo)
{
    FakeProcesses::reset();
    EXPECT_FALSE(processExists(0));
    EXPECT_TRUE(processExists(0xFFFFFFFF));
    FakeProcesses::setGone(5);
    EXPECT_FALSE(processExists(5));
    FakeProcesses::setGone(5, false);
    EXPECT_TRUE(processExists(5));
    EXPECT_EQ(FakeProcesses::asked(5), 2u);
    EXPECT_TRUE(FakeProcesses::waitForAsked(5, 2));
}

TEST(FakeSocketLibraryTest, CountsAndRefuses)
{
    FakeSocketLibrary::reset();
    std::uint16_t obtained = 0;
    EXPECT_EQ(startSocketLibrary(0x202, obtained), 0);
    EXPECT_EQ(obtained, 0x202);
    FakeSocketLibrary::setObtained(0x101);
    EXPECT_EQ(startSocketLibrary(0x202, obtained), 0);
    EXPECT_EQ(obtained, 0x101);
    FakeSocketLibrary::setError(10091);
    EXPECT_EQ(startSocketLibrary(0x202, obtained), 10091);
    stopSocketLibrary();
    EXPECT_EQ(FakeSocketLibrary::starts(), 2u);
    EXPECT_EQ(FakeSocketLibrary::tries(), 3u);
    EXPECT_EQ(FakeSocketLibrary::stops(), 1u);
    EXPECT_EQ(FakeSocketLibrary::requested(), 0x202);
}
