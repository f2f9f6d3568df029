// Sockets: addresses, options, sending, receiving, closing. Waiting has a file of its own.
#include "platform/socket.h"
#include "tests/contract/contract_support.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

using namespace zuPlatform;
using namespace zuTest;
using Kind = ReceiveResult::Kind;

namespace {

std::uint32_t ip(const char* text)
{
    std::uint32_t address = 0;
    EXPECT_TRUE(parseIpv4(text, address));
    return address;
}

SocketPtr makeSocket()
{
    int error = -1;
    SocketPtr socket = DatagramSocket::open(error);
    EXPECT_EQ(error, 0);
    return socket;
}

} // namespace

class SocketTest : public testing::Test {
protected:
    SocketTest()
    {
        EXPECT_EQ(receiver->bind({ip("127.0.10.1"), 0}), 0);
        EXPECT_EQ(receiver->getLocalAddress(address), 0);
    }
    void send(const std::string& text)
    {
        const SendResult sent = sender->sendTo(text.data(), text.size(), address);
        EXPECT_EQ(sent.count, std::ptrdiff_t(text.size()));
        EXPECT_EQ(sent.error, 0);
    }
    std::size_t pending()
    {
        std::size_t bytes = 0;
        EXPECT_EQ(receiver->getPendingBytes(bytes), 0);
        return bytes;
    }

    SocketPtr receiver = makeSocket();
    SocketPtr sender = makeSocket();
    SocketAddress address;
    char buffer[2048] = {};
};

TEST_F(SocketTest, ByteOrder)
{
    EXPECT_EQ(hostToNetwork16(0x1234), 0x3412);
    EXPECT_EQ(hostToNetwork32(0x12345678), 0x78563412u);
    EXPECT_EQ(loopbackAt(hostToNetwork16(3956)).address, ip("127.0.0.1"));
}

TEST_F(SocketTest, TellsItsAddress)
{
    EXPECT_EQ(address.address, ip("127.0.10.1"));
    EXPECT_NE(address.port, 0);
    SocketAddress unbound{1, 1};
    EXPECT_EQ(sender->getLocalAddress(unbound), 0);
    EXPECT_EQ(unbound, SocketAddress());
}

TEST_F(SocketTest, BindToATakenOrForeignAddressIsRefused)
{
    EXPECT_EQ(sender->bind(address), EADDRINUSE);
    EXPECT_EQ(sender->bind({ip("192.0.2.1"), 0}), EADDRNOTAVAIL);
    EXPECT_EQ(receiver->bind({ip("127.0.10.1"), 0}), EINVAL) << "bound already";
}

TEST_F(SocketTest, ReuseAddressLetsTwoBind)
{
    const SocketPtr first = makeSocket();
    const SocketPtr second = makeSocket();
    EXPECT_EQ(first->setReuseAddress(), 0);
    EXPECT_EQ(second->setReuseAddress(), 0);
    EXPECT_EQ(first->bind({ip("127.0.10.2"), 0}), 0);
    SocketAddress shared;
    EXPECT_EQ(first->getLocalAddress(shared), 0);
    EXPECT_EQ(second->bind(shared), 0);
}

TEST_F(SocketTest, CarriesDatagramsAndTheirSender)
{
    EXPECT_EQ(sender->bind({ip("127.0.10.3"), 0}), 0);
    SocketAddress local;
    EXPECT_EQ(sender->getLocalAddress(local), 0);
    send("first");
    send("");
    send("third!");
    for (const std::size_t size : {5u, 0u, 6u}) {
        SocketAddress from;
        const ReceiveResult result = receiver->receive(buffer, sizeof buffer, 10000, &from);
        EXPECT_EQ(result.kind, Kind::received);
        EXPECT_EQ(result.count, std::ptrdiff_t(size));
        EXPECT_EQ(result.error, 0);
        EXPECT_EQ(from, local);
    }
    EXPECT_EQ(std::memcmp(buffer, "third!", 6), 0);
}

TEST_F(SocketTest, CarriesTheLargestDatagramAndRefusesALargerOne)
{
    std::string large(65507, 'x');
    send(large);
    std::vector<char> room(70000);
    EXPECT_EQ(receiver->receive(room.data(), room.size(), 10000, nullptr).count, 65507);
    large += 'y';
    const SendResult sent = sender->sendTo(large.data(), large.size(), address);
    EXPECT_EQ(sent.count, -1);
    EXPECT_EQ(sent.error, messageSizeError);
}

TEST_F(SocketTest, SendsABatchInOrderAndEachDatagramWhole)
{
    std::vector<std::string> heads, bodies;
    std::vector<OutgoingDatagram> batch;
    constexpr std::size_t count = 150; // more than one system call takes
    for (std::size_t i = 0; i < count; ++i) {
        heads.push_back("head" + std::to_string(i));
        bodies.push_back(i % 3 == 0 ? std::string() : std::string(i, 'b'));
    }
    for (std::size_t i = 0; i < count; ++i)
        batch.push_back(
            {heads[i].data(), heads[i].size(), bodies[i].empty() ? nullptr : bodies[i].data(), bodies[i].size()});
    batch.push_back({nullptr, 0, nullptr, 0});
    EXPECT_EQ(receiver->setReceiveBuffer(4 * 1024 * 1024), 0);
    const BatchResult sent = sender->sendBatch(batch.data(), batch.size(), address);
    EXPECT_EQ(sent.count, count + 1);
    EXPECT_EQ(sent.error, 0);
    for (std::size_t i = 0; i < count; ++i) {
        const ReceiveResult result = receiver->receive(buffer, sizeof buffer, 10000, nullptr);
        ASSERT_EQ(result.kind, Kind::received) << i;
        EXPECT_EQ(std::string(buffer, static_cast<std::size_t>(result.count)), heads[i] + bodies[i]);
    }
    EXPECT_EQ(receiver->receive(buffer, sizeof buffer, 10000, nullptr).count, 0) << "an empty one is one, too";
    EXPECT_EQ(sender->sendBatch(nullptr, 0, address).count, 0U);
}

TEST_F(SocketTest, ABatchStopsAtWhatCannotBeSent)
{
    const std::string large(65508, 'x');
    const OutgoingDatagram batch[] = {{"a", 1, nullptr, 0}, {"b", 1, large.data(), large.size()}, {"c", 1, nullptr, 0}};
    const BatchResult sent = sender->sendBatch(batch, 3, address);
    EXPECT_EQ(sent.count, 1U);
    EXPECT_EQ(sent.error, messageSizeError);
    EXPECT_EQ(receiver->receive(buffer, sizeof buffer, 10000, nullptr).count, 1);
    EXPECT_EQ(receiver->receive(buffer, sizeof buffer, 0, nullptr).kind, Kind::timeout);
    sender->close();
    const BatchResult closed = sender->sendBatch(batch, 1, address);
    EXPECT_EQ(closed.count, 0U);
    EXPECT_EQ(closed.error, EBADF);
}

TEST_F(SocketTest, MulticastLeavesByTheInterfaceOfTheSendersAddress)
{
    const SocketPtr member = makeSocket();
    const SocketAddress group{ip("239.255.10.1"), hostToNetwork16(20210)};
    ASSERT_EQ(member->joinGroup(group, ip("127.0.0.1")), 0);
    ASSERT_EQ(sender->bind({ip("127.0.10.4"), 0}), 0);
    EXPECT_EQ(sender->sendTo("hello", 5, group).count, 5);
    SocketAddress from;
    EXPECT_EQ(member->receive(buffer, sizeof buffer, 10000, &from).count, 5);
    EXPECT_EQ(from.address, ip("127.0.10.4"));
}

TEST_F(SocketTest, ADatagramThatDoesNotFitIsAnError)
{
    for (const std::uint32_t timeout : {0u, 10000u}) {
        send("0123456789");
        send("next");
        std::memset(buffer, '#', sizeof buffer);
        SocketAddress from;
        const ReceiveResult cut = receiver->receive(buffer, 4, timeout, &from);
        EXPECT_EQ(cut.kind, Kind::receiveFailed);
        EXPECT_EQ(cut.error, messageSizeError);
        EXPECT_EQ(std::string(buffer, 6), "0123##") << "buffer filled, and nothing behind it";
        EXPECT_EQ(from.address, ip("127.0.0.1"));
        EXPECT_EQ(receiver->receive(buffer, 4, timeout, nullptr).count, 4) << "one that just fits";
    }
}

TEST_F(SocketTest, SenderIsLeftAloneWhenNothingWasRead)
{
    SocketAddress from{1, 2};
    EXPECT_EQ(receiver->receive(buffer, sizeof buffer, 0, &from).kind, Kind::timeout);
    EXPECT_EQ(receiver->receive(buffer, sizeof buffer, 1, &from).kind, Kind::timeout);
    EXPECT_EQ(from, (SocketAddress{1, 2}));
}

TEST_F(SocketTest, PendingBytesCoverAllQueuedDatagrams)
{
    EXPECT_EQ(pending(), 0u);
    send("");
    EXPECT_GT(pending(), 0u) << "an empty datagram is one too";
    EXPECT_EQ(receiver->receive(buffer, sizeof buffer, 10000, nullptr).count, 0);
    EXPECT_EQ(pending(), 0u);

    for (const std::size_t size : {10u, 1000u, 500u})
        send(std::string(size, 'x'));
    EXPECT_GE(pending(), 1510u);
    receiver->receive(buffer, sizeof buffer, 10000, nullptr);
    EXPECT_GE(pending(), 1500u);
    receiver->receive(buffer, sizeof buffer, 10000, nullptr);
    EXPECT_GE(pending(), 500u);
    receiver->receive(buffer, sizeof buffer, 10000, nullptr);
    EXPECT_EQ(pending(), 0u);
}

TEST_F(SocketTest, ReceiveBufferBoundsWhatIsQueued)
{
    const auto queued = [&](int bytes) {
        EXPECT_EQ(receiver->setReceiveBuffer(bytes), 0);
        for (int i = 0; i < 100; ++i)
            send(std::string(1000, 'x'));
        int count = 0;
        while (receiver->receive(buffer, sizeof buffer, 0, nullptr).kind == Kind::received)
            ++count;
        return count;
    };
    const int small = queued(4096);
    EXPECT_LT(small, 20);
    EXPECT_GT(queued(100000), small);
}

TEST_F(SocketTest, SendBufferIsSet)
{
    const std::set<int> before = openDescriptors();
    const SocketPtr socket = makeSocket();
    for (const int bytes : {20000, 100000}) {
        EXPECT_EQ(socket->setSendBuffer(bytes), 0);
        for (const int fd : openDescriptors()) {
            int value = 0;
            socklen_t size = sizeof value;
            if (!before.count(fd)) {
                EXPECT_EQ(::getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &value, &size), 0);
                EXPECT_TRUE(value == bytes || value == 2 * bytes) << value;
            }
        }
    }
}

TEST_F(SocketTest, BroadcastWantsItsOption)
{
    const SocketAddress all{ip("127.255.255.255"), address.port};
    EXPECT_EQ(sender->sendTo("x", 1, all).error, EACCES);
    EXPECT_EQ(sender->setBroadcast(), 0);
    EXPECT_EQ(sender->sendTo("x", 1, all).count, 1);
}

TEST_F(SocketTest, DontFragmentFollowsWhatWasSet)
{
    bool value = true;
    EXPECT_EQ(sender->setDontFragment(false), 0);
    EXPECT_EQ(sender->getDontFragment(value), 0);
    EXPECT_FALSE(value);
    EXPECT_EQ(sender->setDontFragment(true), 0);
    EXPECT_EQ(sender->getDontFragment(value), 0);
    EXPECT_TRUE(value);
    EXPECT_EQ(sender->setDontFragment(false), 0);
    EXPECT_EQ(sender->getDontFragment(value), 0);
    EXPECT_FALSE(value);
}

TEST_F(SocketTest, ShutdownSendRefusesSendsOnly)
{
    send("queued");
    EXPECT_EQ(receiver->shutdownSend(), 0);
    const SendResult refused = receiver->sendTo("x", 1, address);
    EXPECT_EQ(refused.count, -1);
    EXPECT_EQ(refused.error, EPIPE);
    EXPECT_EQ(receiver->receive(buffer, sizeof buffer, 10000, nullptr).count, 6);
    send("later");
    EXPECT_EQ(receiver->receive(buffer, sizeof buffer, 10000, nullptr).count, 5);
    EXPECT_EQ(receiver->receive(buffer, sizeof buffer, 20, nullptr).kind, Kind::timeout);
}

TEST_F(SocketTest, SendsToAPortWithoutAReceiverSucceed)
{
    const SocketAddress nobody{ip("127.0.10.4"), hostToNetwork16(3956)};
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(sender->sendTo("x", 1, nobody).count, 1);
    EXPECT_EQ(sender->receive(buffer, sizeof buffer, 20, nullptr).kind, Kind::timeout);
}

TEST_F(SocketTest, EveryCallAfterCloseFails)
{
    send("queued");
    receiver->close();
    receiver->close();
    bool flag = false;
    std::size_t bytes = 0;
    EXPECT_EQ(receiver->bind({}), EBADF);
    EXPECT_EQ(receiver->getLocalAddress(address), EBADF);
    EXPECT_EQ(receiver->setNonBlocking(), EBADF);
    EXPECT_EQ(receiver->setReceiveBuffer(4096), EBADF);
    EXPECT_EQ(receiver->setSendBuffer(4096), EBADF);
    EXPECT_EQ(receiver->setBroadcast(), EBADF);
    EXPECT_EQ(receiver->setReuseAddress(), EBADF);
    EXPECT_EQ(receiver->setDontFragment(true), EBADF);
    EXPECT_EQ(receiver->getDontFragment(flag), EBADF);
    EXPECT_EQ(receiver->getPendingBytes(bytes), EBADF);
    EXPECT_EQ(receiver->shutdownSend(), EBADF);
    EXPECT_EQ(receiver->sendTo("x", 1, address).count, -1);
    EXPECT_EQ(receiver->sendTo("x", 1, address).error, EBADF);
    for (const std::uint32_t timeout : {0u, 10000u}) {
        const ReceiveResult result = receiver->receive(buffer, sizeof buffer, timeout, nullptr);
        EXPECT_EQ(result.kind, Kind::waitFailed);
        EXPECT_EQ(result.error, EBADF);
    }
}

TEST_F(SocketTest, DescriptorsAreGivenBackAndNotInherited)
{
    const std::set<int> before = openDescriptors();
    {
        const SocketPtr socket = makeSocket();
        std::set<int> added = openDescriptors();
        for (const int number : before)
            added.erase(number);
        ASSERT_EQ(added.size(), 1u);
        EXPECT_TRUE(::fcntl(*added.begin(), F_GETFD) & FD_CLOEXEC);
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(SocketTest, RefusalToOpenTellsItsError)
{
    EXPECT_EQ(inChild([] {
                  const rlimit none{0, 0};
                  ::setrlimit(RLIMIT_NOFILE, &none);
                  int error = 0;
                  return DatagramSocket::open(error) ? 1 : error;
              }),
              EMFILE);
}

TEST_F(SocketTest, DescriptorsAbove1023Work)
{
    std::vector<int> fill;
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    rlimit raised = before;
    raised.rlim_cur = before.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &raised);
    if (raised.rlim_cur < 1200)
        GTEST_SKIP() << "this process may not hold that many descriptors";
    do
        fill.push_back(::dup(0));
    while (fill.back() >= 0 && fill.back() < 1100);
    ASSERT_GE(fill.back(), 1100);
    receiver = makeSocket();
    EXPECT_GT(*openDescriptors().rbegin(), 1100);
    EXPECT_EQ(receiver->bind({ip("127.0.10.1"), 0}), 0);
    EXPECT_EQ(receiver->getLocalAddress(address), 0);
    const Stopwatch watch;
    EXPECT_EQ(receiver->receive(buffer, sizeof buffer, 30, nullptr).kind, Kind::timeout);
    EXPECT_GE(watch.elapsed(), 30ms);
    send("high");
    EXPECT_EQ(receiver->receive(buffer, sizeof buffer, 10000, nullptr).count, 4);
    for (const int fd : fill)
        ::close(fd);
    ::setrlimit(RLIMIT_NOFILE, &before);
}

TEST(SocketAddressText, Parses)
{
    std::uint32_t address = 7;
    EXPECT_TRUE(parseIpv4("1.2.3.4", address));
    EXPECT_EQ(address, hostToNetwork32(0x01020304));
    EXPECT_TRUE(parseIpv4("255.255.255.255", address));
    EXPECT_EQ(address, 0xFFFFFFFFu);
    address = 7;
    for (const char* text :
         {"", "1.2.3", "1.2.3.4.5", "256.1.1.1", "1.2.3.4 ", " 1.2.3.4", "a.b.c.d", "1.2.3.4:5", "::1"})
        EXPECT_FALSE(parseIpv4(text, address)) << text;
    EXPECT_FALSE(parseIpv4(nullptr, address));
    EXPECT_EQ(address, 7u);
}

TEST(SocketAddressText, Formats)
{
    char text[50];
    EXPECT_TRUE(formatSocketAddress({hostToNetwork32(0xC0A80001), hostToNetwork16(3956)}, text, sizeof text));
    EXPECT_STREQ(text, "192.168.0.1:3956");
    EXPECT_TRUE(formatSocketAddress({hostToNetwork32(0xFFFFFFFF), hostToNetwork16(65535)}, text, sizeof text));
    EXPECT_STREQ(text, "255.255.255.255:65535");
    EXPECT_TRUE(formatSocketAddress({}, text, sizeof text));
    EXPECT_STREQ(text, "0.0.0.0");
    EXPECT_TRUE(formatSocketAddress({}, text, 8));
    EXPECT_FALSE(formatSocketAddress({}, text, 7));
    EXPECT_FALSE(formatSocketAddress({}, text, 0));
    EXPECT_FALSE(formatSocketAddress({}, nullptr, 50));
}
