// Sockets for streams: batches of datagrams, the wait for them, drops, buffers granted, groups, peers.
#include "platform/clock.h"
#include "platform/datagram_batch.h"
#include "platform/socket.h"
#include "platform/thread.h"
#include "tests/contract/contract_support.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <gmock/gmock.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <thread>
#include <vector>

using namespace zuPlatform;
using namespace zuTest;
using Kind = ReceiveResult::Kind;
using testing::ElementsAre;

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

class SocketBatchTest : public testing::Test {
protected:
    SocketBatchTest()
    {
        EXPECT_EQ(receiver->bind({ip("127.0.10.1"), 0}), 0);
        EXPECT_EQ(receiver->getLocalAddress(address), 0);
        EXPECT_EQ(sender->bind({ip("127.0.10.2"), 0}), 0);
        EXPECT_EQ(sender->getLocalAddress(senderAddress), 0);
    }
    void send(const std::string& text)
    {
        EXPECT_EQ(sender->sendTo(text.data(), text.size(), address).count, std::ptrdiff_t(text.size()));
    }
    void give(DatagramBatch& batch, std::size_t index, std::vector<MemoryPiece> pieces)
    {
        batch.setPieces(index, pieces);
    }

    SocketPtr receiver = makeSocket();
    SocketPtr sender = makeSocket();
    SocketAddress address;
    SocketAddress senderAddress;
    char memory[100] = {};
};

} // namespace

TEST_F(SocketBatchTest, ReadsWhatHasComeInOrder)
{
    DatagramBatch batch(3);
    EXPECT_EQ(batch.capacity(), 3u);
    for (std::size_t i = 0; i < 3; ++i)
        give(batch, i, {{memory + 10 * i, 10}});
    std::size_t count = 7;
    EXPECT_EQ(receiver->receiveBatch(batch, count), wouldBlockError);
    EXPECT_EQ(count, 0u);
    for (const char* text : {"first", "", "third", "fourth"})
        send(text);
    EXPECT_EQ(receiver->waitReadable(10000000000), 0);
    EXPECT_EQ(receiver->receiveBatch(batch, count), 0);
    ASSERT_EQ(count, 3u) << "its capacity";
    EXPECT_EQ(batch.size(0), 5u);
    EXPECT_EQ(batch.size(1), 0u);
    EXPECT_EQ(batch.size(2), 5u);
    EXPECT_STREQ(memory, "first");
    EXPECT_STREQ(memory + 20, "third");
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_EQ(batch.from(i), senderAddress);
    EXPECT_EQ(receiver->receiveBatch(batch, count), 0);
    ASSERT_EQ(count, 1u);
    EXPECT_STREQ(memory, "fourth");
    EXPECT_EQ(batch.from(0), senderAddress) << "a batch can be used again";
    EXPECT_EQ(receiver->receiveBatch(batch, count), wouldBlockError);
}

TEST_F(SocketBatchTest, LaysADatagramIntoItsPieces)
{
    DatagramBatch batch(2);
    std::memset(memory, '#', sizeof memory);
    give(batch, 0, {{memory, 3}, {memory + 10, 4}, {memory + 20, 5}});
    give(batch, 1, {{memory + 30, 2}, {memory + 40, 2}});
    send("0123456789");
    send("abcdefg");
    std::size_t count = 0;
    EXPECT_EQ(receiver->waitReadable(10000000000), 0);
    EXPECT_EQ(receiver->receiveBatch(batch, count), 0);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(std::string(memory, 4), "012#");
    EXPECT_EQ(std::string(memory + 10, 5), "3456#");
    EXPECT_EQ(std::string(memory + 20, 6), "789###");
    EXPECT_EQ(batch.size(0), 10u);
    EXPECT_EQ(std::string(memory + 30, 3), "ab#");
    EXPECT_EQ(std::string(memory + 40, 3), "cd#") << "and nothing behind it";
    EXPECT_EQ(batch.size(1), 7u) << "its own size tells that it was cut";
    give(batch, 0, {});
    send("lost");
    EXPECT_EQ(receiver->waitReadable(10000000000), 0);
    EXPECT_EQ(receiver->receiveBatch(batch, count), 0);
    EXPECT_EQ(batch.size(0), 4u);
}

TEST_F(SocketBatchTest, ABatchIsOneSystemCall)
{
    DatagramBatch batch(8);
    const int code = inChild([&] {
        for (std::size_t i = 0; i < 8; ++i)
            give(batch, i, {{memory, 10}});
        for (int i = 0; i < 8; ++i)
            sender->sendTo("again", 5, address);
        if (receiver->waitReadable(5000000000) != 0)
            return 1;
        // From here on, whatever else would read or wait ends the process.
        std::vector<sock_filter> filter = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
        for (const int call : {SYS_ppoll, SYS_setsockopt, SYS_getsockopt, SYS_ioctl, SYS_recvfrom, SYS_recvmsg}) {
            filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(call), 0, 1));
            filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS));
        }
        filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
        sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
        if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
            ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
            return 77;
        std::size_t count = 0;
        return receiver->receiveBatch(batch, count) == 0 && count == 8 ? 0 : 2;
    });
    if (code == 77)
        GTEST_SKIP() << "no system call filters here";
    EXPECT_EQ(code, 0);
}

TEST_F(SocketBatchTest, TheWaitEndsInTimeOrWithADatagram)
{
    for (const std::uint64_t ns : {0u, 20000000u}) {
        const Stopwatch watch;
        EXPECT_EQ(receiver->waitReadable(ns), wouldBlockError);
        EXPECT_GE(watch.elapsed(), std::chrono::nanoseconds(ns));
        EXPECT_LT(watch.elapsed(), 10s);
    }
    std::atomic<std::uint64_t> waiter{0};
    std::thread thread([&] {
        waiter = currentThreadId();
        EXPECT_EQ(receiver->waitReadable(~std::uint64_t{0}), 0) << "the longest time is no overflow";
    });
    EXPECT_TRUE(untilAsleep(waiter));
    send("x");
    thread.join();
    EXPECT_EQ(receiver->waitReadable(0), 0) << "it is still there";
}

TEST_F(SocketBatchTest, SignalsDoNotEndTheWait)
{
    struct sigaction action {};
    struct sigaction previous {};
    static std::atomic<int> seen{0};
    seen = 0;
    action.sa_handler = [](int) { ++seen; };
    ::sigaction(SIGUSR1, &action, &previous);
    std::atomic<bool> done{false};
    const pthread_t self = ::pthread_self();
    std::thread storm([&] {
        while (!done) {
            ::pthread_kill(self, SIGUSR1);
            std::this_thread::sleep_for(500us);
        }
    });
    const Stopwatch watch;
    EXPECT_EQ(receiver->waitReadable(50000000), wouldBlockError);
    EXPECT_GE(watch.elapsed(), 50ms);
    done = true;
    storm.join();
    EXPECT_GT(seen, 0);
    ::sigaction(SIGUSR1, &previous, nullptr);
}

TEST_F(SocketBatchTest, CloseEndsTheWaitAndTheReading)
{
    DatagramBatch batch(2);
    std::size_t count = 5;
    std::atomic<std::uint64_t> waiter{0};
    std::thread thread([&] {
        waiter = currentThreadId();
        EXPECT_EQ(receiver->waitReadable(600000000000), EBADF);
    });
    EXPECT_TRUE(untilAsleep(waiter));
    receiver->close();
    thread.join();
    EXPECT_EQ(receiver->waitReadable(600000000000), EBADF);
    EXPECT_EQ(receiver->receiveBatch(batch, count), EBADF);
    EXPECT_EQ(count, 0u);
}

TEST_F(SocketBatchTest, TellsTheBufferThatWasGranted)
{
    int granted = 0;
    EXPECT_EQ(receiver->setReceiveBuffer(50000), 0);
    EXPECT_EQ(receiver->getReceiveBuffer(granted), 0);
    EXPECT_EQ(granted, 50000);
    EXPECT_EQ(receiver->setReceiveBuffer(2000000000), 0);
    EXPECT_EQ(receiver->getReceiveBuffer(granted), 0);
    EXPECT_GT(granted, 50000);
    EXPECT_LE(granted, 2000000000);
}

TEST_F(SocketBatchTest, CountsWhatTheSystemThrowsAway)
{
    EXPECT_EQ(receiver->setReceiveBuffer(4096), 0);
    std::uint32_t dropped = 7;
    EXPECT_EQ(receiver->getDropped(dropped), 0);
    EXPECT_EQ(dropped, 0u);
    for (int i = 0; i < 100; ++i)
        send(std::string(1000, 'x'));
    EXPECT_EQ(receiver->getDropped(dropped), 0) << "and no datagram need be read for it";
    std::uint32_t kept = 0;
    char room[1000];
    while (receiver->receive(room, sizeof room, 0, nullptr).kind == Kind::received)
        ++kept;
    EXPECT_GT(dropped, 0u);
    EXPECT_EQ(kept + dropped, 100u);
}

TEST_F(SocketBatchTest, AConnectedSocketHearsItsPeerOnly)
{
    const SocketPtr other = makeSocket();
    EXPECT_EQ(other->bind({ip("127.0.10.3"), 0}), 0);
    EXPECT_EQ(receiver->connect(senderAddress), 0);
    EXPECT_EQ(other->sendTo("no", 2, address).count, 2);
    send("yes");
    char room[10];
    EXPECT_EQ(receiver->receive(room, sizeof room, 10000, nullptr).count, 3);
    EXPECT_EQ(receiver->receive(room, sizeof room, 0, nullptr).kind, Kind::timeout);
    // Others are reached as before.
    SocketAddress otherAddress;
    EXPECT_EQ(other->getLocalAddress(otherAddress), 0);
    EXPECT_EQ(receiver->sendTo("out", 3, otherAddress).count, 3);
    SocketAddress from;
    EXPECT_EQ(other->receive(room, sizeof room, 10000, &from).count, 3);
    EXPECT_EQ(from, address);
}

TEST_F(SocketBatchTest, AConnectedSocketTellsTheAddressTowardsItsPeer)
{
    const SocketPtr socket = makeSocket();
    EXPECT_EQ(socket->connect({ip("127.0.0.1"), hostToNetwork16(9)}), 0);
    SocketAddress local;
    EXPECT_EQ(socket->getLocalAddress(local), 0);
    EXPECT_EQ(local.address, ip("127.0.0.1"));
    EXPECT_NE(local.port, 0);
    socket->close();
    EXPECT_EQ(socket->connect({ip("127.0.0.1"), hostToNetwork16(9)}), EBADF);
}

TEST_F(SocketBatchTest, AGroupIsHeardByAllThatJoin)
{
    const SocketAddress group{ip("239.7.7.7"), hostToNetwork16(35007)};
    const std::uint32_t loopback = ip("127.0.0.1");
    const SocketPtr first = makeSocket();
    const SocketPtr second = makeSocket();
    const SocketPtr neighbour = makeSocket();
    ASSERT_EQ(first->joinGroup(group, loopback), 0);
    ASSERT_EQ(second->joinGroup(group, loopback), 0) << "the port is shared";
    ASSERT_EQ(neighbour->joinGroup({ip("239.7.7.8"), group.port}, loopback), 0);
    SocketAddress bound;
    EXPECT_EQ(first->getLocalAddress(bound), 0);
    EXPECT_EQ(bound, group);
    const std::set<int> before = openDescriptors();
    const SocketPtr source = makeSocket();
    const in_addr interface {
        loopback
    };
    for (const int fd : openDescriptors()) {
        if (before.count(fd))
            continue;
        ASSERT_EQ(::setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &interface, sizeof interface), 0);
    }
    ASSERT_EQ(source->sendTo("all", 3, group).count, 3);
    ASSERT_EQ(source->sendTo("one", 3, {loopback, group.port}).count, 3);
    char room[10] = {};
    for (const SocketPtr& socket : {first, second}) {
        EXPECT_EQ(socket->receive(room, sizeof room, 10000, nullptr).count, 3);
        EXPECT_STREQ(room, "all");
        EXPECT_EQ(socket->receive(room, sizeof room, 0, nullptr).kind, Kind::timeout) << "what isn't for the group";
    }
    EXPECT_EQ(neighbour->receive(room, sizeof room, 0, nullptr).kind, Kind::timeout);
    // It sends from the interface's address.
    EXPECT_EQ(first->sendTo("back", 4, address).count, 4);
    SocketAddress from;
    EXPECT_EQ(receiver->receive(room, sizeof room, 10000, &from).count, 4);
    EXPECT_EQ(networkToHost32(from.address) >> 24, 127u) << "an address of loopback";
    EXPECT_EQ(from.port, group.port);
}

TEST_F(SocketBatchTest, AGroupOnNoInterfaceIsRefused)
{
    EXPECT_EQ(makeSocket()->joinGroup({ip("239.7.7.7"), 0}, ip("192.0.2.1")), ENODEV);
    EXPECT_NE(makeSocket()->joinGroup({ip("127.0.0.1"), 0}, ip("127.0.0.1")), 0) << "no group";
    const SocketPtr closed = makeSocket();
    closed->close();
    EXPECT_EQ(closed->joinGroup({ip("239.7.7.7"), 0}, ip("127.0.0.1")), EBADF);
}

TEST(ThreadSleepTest, MicrosecondsAreSlept)
{
    for (const std::uint32_t us : {0u, 300u, 20000u, 1500000u}) {
        const Stopwatch watch;
        sleepUs(us);
        EXPECT_GE(watch.elapsed(), std::chrono::microseconds(us));
        EXPECT_LT(watch.elapsed(), std::chrono::microseconds(us) + 10s);
    }
}
