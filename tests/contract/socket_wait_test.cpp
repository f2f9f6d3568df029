// Waiting on a socket: times, signals, closing from another thread, and what a receive may cost.
#include "platform/socket.h"
#include "platform/thread.h"
#include "tests/contract/contract_support.h"

#include <atomic>
#include <cerrno>
#include <gmock/gmock.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <thread>

using namespace zuPlatform;
using namespace zuTest;
using Kind = ReceiveResult::Kind;

namespace {

std::atomic<unsigned> interruptions{0};

/// Sends SIGUSR1, whose handler does not restart system calls, to the thread `target` without pause.
class SignalStorm {
public:
    explicit SignalStorm(pthread_t target)
    {
        interruptions = 0;
        struct sigaction action {};
        action.sa_handler = [](int) { ++interruptions; };
        ::sigaction(SIGUSR1, &action, &previous_);
        thread_ = std::thread([this, target] {
            while (!stop_) {
                ::pthread_kill(target, SIGUSR1);
                std::this_thread::sleep_for(500us);
            }
        });
    }
    ~SignalStorm()
    {
        stop_ = true;
        thread_.join();
        ::signal(SIGUSR1, SIG_IGN); // lets go of one that the target has not taken yet
        ::sigaction(SIGUSR1, &previous_, nullptr);
    }
    SignalStorm(const SignalStorm&) = delete;
    SignalStorm& operator=(const SignalStorm&) = delete;

private:
    std::atomic<bool> stop_{false};
    std::thread thread_;
    struct sigaction previous_ {};
};

} // namespace

class SocketWaitTest : public testing::Test {
protected:
    SocketWaitTest()
    {
        socket = DatagramSocket::open();
        sender = DatagramSocket::open();
        std::uint32_t local = 0;
        parseIpv4("127.0.10.5", local);
        EXPECT_EQ(socket->bind({local, 0}), 0);
        EXPECT_EQ(socket->getLocalAddress(address), 0);
    }

    SocketPtr socket;
    SocketPtr sender;
    SocketAddress address;
    char buffer[64] = {};
};

TEST_F(SocketWaitTest, NeverEndsEarly)
{
    for (const std::uint32_t ms : {1, 2, 3, 4, 5, 7, 8, 9, 12, 16, 20, 33, 63, 64, 65, 100, 250, 3, 2, 1, 300})
        for (int i = 0; i < (ms < 10 ? 20 : 1); ++i) {
            const Stopwatch watch;
            const ReceiveResult result = socket->receive(buffer, sizeof buffer, ms, nullptr);
            const auto elapsed = watch.elapsed();
            EXPECT_EQ(result.kind, Kind::timeout);
            EXPECT_EQ(result.error, 0);
            EXPECT_GE(elapsed, std::chrono::milliseconds(ms));
            EXPECT_LT(elapsed, std::chrono::milliseconds(ms) + 5s);
        }
}

TEST_F(SocketWaitTest, TimeoutZeroReadsWhatIsThere)
{
    EXPECT_EQ(socket->receive(buffer, sizeof buffer, 0, nullptr).kind, Kind::timeout);
    sender->sendTo("x", 1, address);
    EXPECT_EQ(socket->receive(buffer, sizeof buffer, 0, nullptr).kind, Kind::received);
    EXPECT_EQ(socket->receive(buffer, sizeof buffer, 0, nullptr).kind, Kind::timeout);
    // A wait of before must not linger.
    EXPECT_EQ(socket->receive(buffer, sizeof buffer, 5, nullptr).kind, Kind::timeout);
    EXPECT_EQ(socket->receive(buffer, sizeof buffer, 0, nullptr).kind, Kind::timeout);
}

TEST_F(SocketWaitTest, ALongWaitOfBeforeDoesNotStretchAShortOne)
{
    sender->sendTo("x", 1, address);
    EXPECT_EQ(socket->receive(buffer, sizeof buffer, 60000, nullptr).kind, Kind::received);
    const Stopwatch watch;
    EXPECT_EQ(socket->receive(buffer, sizeof buffer, 20, nullptr).kind, Kind::timeout);
    EXPECT_LT(watch.elapsed(), 20s);
}

TEST_F(SocketWaitTest, SignalsDoNotEndTheWait)
{
    const SignalStorm storm(::pthread_self());
    const Stopwatch watch;
    EXPECT_EQ(socket->receive(buffer, sizeof buffer, 200, nullptr).kind, Kind::timeout);
    EXPECT_GE(watch.elapsed(), 200ms);
    EXPECT_LT(watch.elapsed(), 10s) << "a signal must not start the wait anew";
    EXPECT_GT(interruptions, 0u);
}

TEST_F(SocketWaitTest, DatagramsArriveThroughSignals)
{
    const SignalStorm storm(::pthread_self());
    std::thread late([&] {
        EXPECT_TRUE(eventually([] { return interruptions > 20; }));
        sender->sendTo("late", 4, address);
    });
    const ReceiveResult result = socket->receive(buffer, sizeof buffer, 60000, nullptr);
    late.join();
    EXPECT_EQ(result.kind, Kind::received);
    EXPECT_EQ(result.count, 4);
}

TEST_F(SocketWaitTest, ADatagramEndsTheWait)
{
    std::atomic<std::uint64_t> waiter{0};
    ReceiveResult result;
    std::thread thread([&] {
        waiter = currentThreadId();
        result = socket->receive(buffer, sizeof buffer, 60000, nullptr);
    });
    ASSERT_TRUE(untilAsleep(waiter));
    sender->sendTo("x", 1, address);
    thread.join();
    EXPECT_EQ(result.kind, Kind::received);
}

TEST_F(SocketWaitTest, NonBlockingSocketsStillWaitToReceive)
{
    EXPECT_EQ(socket->setNonBlocking(), 0);
    const Stopwatch watch;
    EXPECT_EQ(socket->receive(buffer, sizeof buffer, 50, nullptr).kind, Kind::timeout);
    EXPECT_GE(watch.elapsed(), 50ms);
    EXPECT_EQ(socket->sendTo("x", 1, address).count, 1);
    EXPECT_EQ(socket->receive(buffer, sizeof buffer, 10000, nullptr).count, 1);
}

TEST_F(SocketWaitTest, CloseWakesAWaiter)
{
    std::atomic<std::uint64_t> waiter{0};
    ReceiveResult result;
    std::thread thread([&] {
        waiter = currentThreadId();
        result = socket->receive(buffer, sizeof buffer, 600000, nullptr);
    });
    ASSERT_TRUE(untilAsleep(waiter));
    const Stopwatch watch;
    socket->close();
    thread.join();
    EXPECT_LT(watch.elapsed(), 20s);
    EXPECT_EQ(result.kind, Kind::waitFailed);
    EXPECT_EQ(result.error, EBADF);
}

TEST_F(SocketWaitTest, CloseWakesAWaiterInASignalStorm)
{
    std::atomic<bool> woken{false};
    std::atomic<bool> stormOver{false};
    ReceiveResult result;
    std::thread thread([&] {
        result = socket->receive(buffer, sizeof buffer, 600000, nullptr);
        woken = true;
        EXPECT_TRUE(eventually([&] { return stormOver.load(); }));
    });
    {
        const SignalStorm storm(thread.native_handle());
        EXPECT_TRUE(eventually([] { return interruptions > 20; }));
        socket->close();
        EXPECT_TRUE(eventually([&] { return woken.load(); }));
    }
    stormOver = true;
    thread.join();
    EXPECT_EQ(result.kind, Kind::waitFailed);
    EXPECT_EQ(result.error, EBADF);
}

TEST_F(SocketWaitTest, CloseAtAnyMomentWakes)
{
    for (int i = 0; i < 200; ++i) {
        const SocketPtr own = DatagramSocket::open();
        ASSERT_NE(own, nullptr);
        std::atomic<bool> about{false};
        ReceiveResult result;
        std::thread thread([&] {
            char room[8];
            about = true;
            result = own->receive(room, sizeof room, 600000, nullptr);
        });
        while (!about)
            yieldThread();
        own->close();
        thread.join();
        ASSERT_EQ(result.kind, Kind::waitFailed);
    }
}

TEST_F(SocketWaitTest, TheDescriptorIsNotReusedWhileAWaiterHoldsIt)
{
    const std::set<int> before = openDescriptors();
    SocketPtr held = DatagramSocket::open();
    int number = -1;
    for (const int fd : openDescriptors())
        if (!before.count(fd))
            number = fd;
    ASSERT_GE(number, 0);

    std::atomic<std::uint64_t> waiter{0};
    std::atomic<bool> woken{false};
    std::atomic<bool> letGo{false};
    std::thread thread([&, mine = held]() mutable {
        char room[8];
        waiter = currentThreadId();
        EXPECT_EQ(mine->receive(room, sizeof room, 600000, nullptr).kind, Kind::waitFailed);
        woken = true;
        EXPECT_TRUE(eventually([&] { return letGo.load(); }));
        mine.reset();
    });
    ASSERT_TRUE(untilAsleep(waiter));
    held->close();
    held.reset();
    EXPECT_TRUE(eventually([&] { return woken.load(); }));
    {
        std::vector<SocketPtr> others;
        for (int i = 0; i < 20; ++i)
            others.push_back(DatagramSocket::open());
        EXPECT_EQ(openDescriptors().count(number), 1u);
        EXPECT_EQ(openDescriptors().size(), before.size() + 21);
    }
    letGo = true;
    thread.join();
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(SocketWaitTest, SendersAndCloseMeetSoundly)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back([&] {
            while (sender->sendTo("x", 1, address).error == 0)
                yieldThread();
        });
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(socket->receive(buffer, sizeof buffer, 60000, nullptr).kind, Kind::received);
    sender->close();
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(sender->sendTo("x", 1, address).error, EBADF);
}

TEST_F(SocketWaitTest, ARepeatedReceiveIsOneSystemCall)
{
    const int code = inChild([&] {
        sender->sendTo("first", 5, address);
        if (socket->receive(buffer, sizeof buffer, 5000, nullptr).count != 5)
            return 1;
        // From here on, the calls that a second step would need end the process.
        std::vector<sock_filter> filter = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
        for (const int call :
             {SYS_ppoll, SYS_setsockopt, SYS_getsockopt, SYS_ioctl, SYS_fcntl, SYS_epoll_pwait, SYS_pselect6,
#ifdef SYS_poll
              SYS_poll, SYS_select
#endif
             }) {
            filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(call), 0, 1));
            filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS));
        }
        filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
        sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
        if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
            ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
            return 77;
        for (int i = 0; i < 3; ++i) {
            sender->sendTo("again", 5, address);
            if (socket->receive(buffer, sizeof buffer, 5000, nullptr).count != 5)
                return 2;
        }
        return 0;
    });
    if (code == 77)
        GTEST_SKIP() << "no system call filters here";
    EXPECT_EQ(code, 0);
}
