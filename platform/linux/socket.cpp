// IPv4 datagram sockets over the BSD calls. A receive is normally one system call: the descriptor blocks, and the wait
// is bounded by SO_RCVTIMEO, which is set again only when the timeout changes. Any thread may call; there are no locks.
#include "platform/socket.h"

#include "platform/datagram_batch.h"

#include <arpa/inet.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <vector>

namespace zuPlatform {

const int wouldBlockError = EAGAIN;
const int messageSizeError = EMSGSIZE;

namespace {

constexpr std::int64_t nsPerSecond = 1000000000;
constexpr std::int64_t nsPerMs = 1000000;

std::int64_t steadyNow()
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * nsPerSecond + now.tv_nsec;
}

sockaddr_in toSystem(const SocketAddress& address)
{
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = address.address;
    result.sin_port = address.port;
    return result;
}

ReceiveResult failure(ReceiveResult::Kind kind, int error)
{
    ReceiveResult result;
    result.kind = kind;
    result.error = error;
    return result;
}

/// One recvfrom. `again` is set, and the result without meaning, when it ended with nothing to report.
ReceiveResult readOne(int fd, void* buffer, std::size_t size, int flags, SocketAddress* from, int& again)
{
    sockaddr_in peer{};
    socklen_t peerSize = sizeof peer;
    again = 0;
    const ssize_t count =
        ::recvfrom(fd, buffer, size, flags | MSG_TRUNC, reinterpret_cast<sockaddr*>(&peer), &peerSize);
    if (count < 0) {
        if (errno == EAGAIN || errno == EINTR)
            again = errno;
        return failure(ReceiveResult::Kind::receiveFailed, errno);
    }
    // Without a sender it is no empty datagram: the socket was shut down.
    if (count == 0 && peerSize == 0)
        return failure(ReceiveResult::Kind::waitFailed, EBADF);
    if (from)
        *from = {peer.sin_addr.s_addr, peer.sin_port};
    ReceiveResult result;
    result.kind = ReceiveResult::Kind::received;
    result.count = count;
    if (static_cast<std::size_t>(count) > size) {
        result.kind = ReceiveResult::Kind::receiveFailed;
        result.count = static_cast<std::ptrdiff_t>(size);
        result.error = EMSGSIZE;
    }
    return result;
}

} // namespace

struct DatagramBatch::State {
    explicit State(std::size_t capacity) : headers(capacity), pieces(capacity), peers(capacity)
    {
        for (std::size_t i = 0; i < capacity; ++i) {
            msghdr& header = headers[i].msg_hdr;
            header.msg_name = &peers[i];
            header.msg_namelen = sizeof peers[i];
            header.msg_iov = pieces[i].data();
        }
    }

    std::vector<mmsghdr> headers;
    std::vector<std::array<iovec, mostPieces>> pieces;
    std::vector<sockaddr_in> peers;
};

DatagramBatch::DatagramBatch(std::size_t capacity) : state_(std::make_unique<State>(capacity)) {}
DatagramBatch::~DatagramBatch() = default;

std::size_t DatagramBatch::capacity() const { return state_->headers.size(); }

void DatagramBatch::setPieces(std::size_t index, std::span<const MemoryPiece> pieces)
{
    iovec* const to = state_->pieces[index].data();
    for (std::size_t i = 0; i < pieces.size(); ++i)
        to[i] = {pieces[i].data, pieces[i].size};
    state_->headers[index].msg_hdr.msg_iovlen = pieces.size();
}

std::size_t DatagramBatch::size(std::size_t index) const { return state_->headers[index].msg_len; }

SocketAddress DatagramBatch::from(std::size_t index) const
{
    const sockaddr_in& peer = state_->peers[index];
    return {peer.sin_addr.s_addr, peer.sin_port};
}

struct DatagramSocket::State {
    explicit State(int descriptor) : fd(descriptor) {}
    ~State() { ::close(fd); }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    bool isClosed() const { return closed.load(std::memory_order_acquire); }

    template <typename Value>
    int setOption(int level, int option, const Value& value)
    {
        if (isClosed())
            return EBADF;
        return ::setsockopt(fd, level, option, &value, sizeof value) == 0 ? 0 : errno;
    }

    template <typename Value>
    int getOption(int level, int option, Value& value) const
    {
        socklen_t size = sizeof value;
        if (isClosed())
            return EBADF;
        return ::getsockopt(fd, level, option, &value, &size) == 0 ? 0 : errno;
    }

    const int fd;
    std::atomic<bool> closed{false};
    std::atomic<bool> nonBlocking{false};
    std::atomic<std::uint32_t> receiveTimeoutMs{0}; ///< what SO_RCVTIMEO stands at; 0 is the system's "no limit"
};

std::shared_ptr<DatagramSocket> DatagramSocket::open(int& error)
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        error = errno;
        return nullptr;
    }
    error = 0;
    return std::shared_ptr<DatagramSocket>(new DatagramSocket(std::make_unique<State>(fd)));
}

DatagramSocket::DatagramSocket(std::unique_ptr<State> state) : state_(std::move(state)) {}
DatagramSocket::~DatagramSocket() = default;

int DatagramSocket::bind(const SocketAddress& address)
{
    if (state_->isClosed())
        return EBADF;
    const sockaddr_in local = toSystem(address);
    return ::bind(state_->fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0 ? 0 : errno;
}

int DatagramSocket::getLocalAddress(SocketAddress& address)
{
    if (state_->isClosed())
        return EBADF;
    sockaddr_in local{};
    socklen_t size = sizeof local;
    if (::getsockname(state_->fd, reinterpret_cast<sockaddr*>(&local), &size) != 0)
        return errno;
    address = {local.sin_addr.s_addr, local.sin_port};
    return 0;
}

int DatagramSocket::setNonBlocking()
{
    if (state_->isClosed())
        return EBADF;
    // Not O_NONBLOCK: a receive is to wait in its one system call.
    state_->nonBlocking.store(true, std::memory_order_relaxed);
    return 0;
}

int DatagramSocket::setReceiveBuffer(int bytes) { return state_->setOption(SOL_SOCKET, SO_RCVBUF, bytes); }
int DatagramSocket::setSendBuffer(int bytes) { return state_->setOption(SOL_SOCKET, SO_SNDBUF, bytes); }
int DatagramSocket::setBroadcast() { return state_->setOption(SOL_SOCKET, SO_BROADCAST, int{1}); }
int DatagramSocket::setReuseAddress() { return state_->setOption(SOL_SOCKET, SO_REUSEADDR, int{1}); }

int DatagramSocket::setDontFragment(bool value)
{
    return state_->setOption(IPPROTO_IP, IP_MTU_DISCOVER, int{value ? IP_PMTUDISC_DO : IP_PMTUDISC_DONT});
}

int DatagramSocket::getDontFragment(bool& value)
{
    if (state_->isClosed())
        return EBADF;
    int mode = 0;
    socklen_t size = sizeof mode;
    if (::getsockopt(state_->fd, IPPROTO_IP, IP_MTU_DISCOVER, &mode, &size) != 0)
        return errno;
    value = mode == IP_PMTUDISC_DO;
    return 0;
}

int DatagramSocket::getPendingBytes(std::size_t& bytes)
{
    if (state_->isClosed())
        return EBADF;
    // FIONREAD tells the first datagram's size only, and 0 for an empty one. The memory that the queue holds covers
    // all.
    std::uint32_t memory[SK_MEMINFO_VARS] = {};
    socklen_t size = sizeof memory;
    if (::getsockopt(state_->fd, SOL_SOCKET, SO_MEMINFO, memory, &size) == 0) {
        bytes = memory[SK_MEMINFO_RMEM_ALLOC];
        return 0;
    }
    int first = 0;
    if (errno != ENOPROTOOPT || ::ioctl(state_->fd, FIONREAD, &first) != 0)
        return errno;
    bytes = static_cast<std::size_t>(first);
    return 0;
}

int DatagramSocket::getReceiveBuffer(int& bytes)
{
    const int error = state_->getOption(SOL_SOCKET, SO_RCVBUF, bytes);
    bytes /= 2; // the system doubles what is asked for, for its own needs
    return error;
}

int DatagramSocket::getDropped(std::uint32_t& count)
{
    // The counter of SO_RXQ_OVFL, which tells it only with the next datagram that is read, and at a cost for each.
    std::uint32_t memory[SK_MEMINFO_VARS] = {};
    const int error = state_->getOption(SOL_SOCKET, SO_MEMINFO, memory);
    if (error == 0)
        count = memory[SK_MEMINFO_DROPS];
    return error;
}

int DatagramSocket::joinGroup(const SocketAddress& group, std::uint32_t interfaceAddress)
{
    const in_addr interface {
        interfaceAddress
    };
    ip_mreqn membership{};
    membership.imr_multiaddr.s_addr = group.address;
    membership.imr_address = interface;
    // Without the last, what other sockets of this machine have joined would come too.
    int error = setReuseAddress();
    if (error == 0)
        error = bind(group);
    if (error == 0)
        error = state_->setOption(IPPROTO_IP, IP_ADD_MEMBERSHIP, membership);
    if (error == 0)
        error = state_->setOption(IPPROTO_IP, IP_MULTICAST_ALL, int{0});
    return error;
}

int DatagramSocket::connect(const SocketAddress& peer)
{
    if (state_->isClosed())
        return EBADF;
    const sockaddr_in to = toSystem(peer);
    return ::connect(state_->fd, reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0 ? 0 : errno;
}

SendResult DatagramSocket::sendTo(const void* data, std::size_t size, const SocketAddress& to)
{
    const sockaddr_in peer = toSystem(to);
    const int flags = MSG_NOSIGNAL | (state_->nonBlocking.load(std::memory_order_relaxed) ? MSG_DONTWAIT : 0);
    for (;;) {
        if (state_->isClosed())
            return {-1, EBADF};
        const ssize_t count =
            ::sendto(state_->fd, data, size, flags, reinterpret_cast<const sockaddr*>(&peer), sizeof peer);
        if (count >= 0)
            return {count, 0};
        if (errno != EINTR)
            return {-1, errno};
    }
}

BatchResult DatagramSocket::sendBatch(const OutgoingDatagram* datagrams, std::size_t count, const SocketAddress& to)
{
    constexpr std::size_t most = 64;
    sockaddr_in peer = toSystem(to);
    const int flags = MSG_NOSIGNAL | (state_->nonBlocking.load(std::memory_order_relaxed) ? MSG_DONTWAIT : 0);
    BatchResult result;
    while (result.count < count) {
        if (state_->isClosed()) {
            result.error = EBADF;
            break;
        }
        std::array<mmsghdr, most> messages{};
        std::array<std::array<iovec, 2>, most> pieces;
        const std::size_t now = std::min(most, count - result.count);
        for (std::size_t i = 0; i < now; ++i) {
            const OutgoingDatagram& datagram = datagrams[result.count + i];
            pieces[i][0] = {const_cast<void*>(datagram.head), datagram.headSize};
            pieces[i][1] = {const_cast<void*>(datagram.body), datagram.bodySize};
            messages[i].msg_hdr.msg_name = &peer;
            messages[i].msg_hdr.msg_namelen = sizeof peer;
            messages[i].msg_hdr.msg_iov = pieces[i].data();
            messages[i].msg_hdr.msg_iovlen = pieces[i].size();
        }
        const int taken = ::sendmmsg(state_->fd, messages.data(), static_cast<unsigned>(now), flags);
        if (taken > 0) {
            result.count += static_cast<std::size_t>(taken);
        } else if (errno != EINTR) {
            result.error = errno;
            break;
        }
    }
    return result;
}

ReceiveResult DatagramSocket::receive(void* buffer, std::size_t size, std::uint32_t timeoutMs, SocketAddress* from)
{
    State& state = *state_;
    if (state.isClosed())
        return failure(ReceiveResult::Kind::waitFailed, EBADF);
    int again = 0;
    if (timeoutMs == 0) {
        const ReceiveResult result = readOne(state.fd, buffer, size, MSG_DONTWAIT, from, again);
        return again ? ReceiveResult{} : result;
    }

    const std::int64_t deadline = steadyNow() + timeoutMs * nsPerMs;
    if (state.receiveTimeoutMs.load(std::memory_order_relaxed) != timeoutMs) {
        timeval wait{};
        wait.tv_sec = timeoutMs / 1000;
        wait.tv_usec = static_cast<suseconds_t>(timeoutMs % 1000) * 1000;
        if (const int error = state.setOption(SOL_SOCKET, SO_RCVTIMEO, wait))
            return failure(ReceiveResult::Kind::waitFailed, error);
        state.receiveTimeoutMs.store(timeoutMs, std::memory_order_relaxed);
    }
    ReceiveResult result = readOne(state.fd, buffer, size, 0, from, again);

    // A signal, or a tick of the system that lags behind the clock: wait for the rest of the time.
    while (again) {
        if (state.isClosed())
            return failure(ReceiveResult::Kind::waitFailed, EBADF);
        const std::int64_t rest = deadline - steadyNow();
        if (rest <= 0 && again == EAGAIN)
            return {};
        timespec wait{};
        if (rest > 0) {
            wait.tv_sec = rest / nsPerSecond;
            wait.tv_nsec = rest % nsPerSecond;
        }
        pollfd ready{state.fd, POLLIN, 0};
        if (::ppoll(&ready, 1, &wait, nullptr) < 0 && errno != EINTR)
            return failure(ReceiveResult::Kind::waitFailed, errno);
        result = readOne(state.fd, buffer, size, MSG_DONTWAIT, from, again);
    }
    return result;
}

int DatagramSocket::waitReadable(std::uint64_t timeoutNs)
{
    const State& state = *state_;
    constexpr std::uint64_t longest = 1000000000ull * nsPerSecond;
    const std::int64_t deadline = steadyNow() + static_cast<std::int64_t>(timeoutNs < longest ? timeoutNs : longest);
    for (std::int64_t rest = static_cast<std::int64_t>(timeoutNs < longest ? timeoutNs : longest);;) {
        if (state.isClosed())
            return EBADF;
        const timespec wait{rest / nsPerSecond, rest % nsPerSecond};
        pollfd ready{state.fd, POLLIN, 0};
        const int found = ::ppoll(&ready, 1, &wait, nullptr);
        if (found > 0)
            return state.isClosed() ? EBADF : 0;
        if (found < 0 && errno != EINTR)
            return errno;
        rest = deadline - steadyNow();
        if (rest <= 0 && found == 0)
            return EAGAIN;
        rest = rest > 0 ? rest : 0;
    }
}

int DatagramSocket::receiveBatch(DatagramBatch& batch, std::size_t& count)
{
    count = 0;
    if (state_->isClosed())
        return EBADF;
    std::vector<mmsghdr>& headers = batch.state_->headers;
    const int read = ::recvmmsg(state_->fd, headers.data(), static_cast<unsigned>(headers.size()),
                                MSG_DONTWAIT | MSG_TRUNC, nullptr);
    if (read < 0)
        return errno == EINTR ? EAGAIN : errno;
    if (state_->isClosed())
        return EBADF; // what was read then may be nothing at all
    for (int i = 0; i < read; ++i)
        headers[static_cast<std::size_t>(i)].msg_hdr.msg_namelen = sizeof(sockaddr_in);
    count = static_cast<std::size_t>(read);
    return 0;
}

int DatagramSocket::shutdownSend()
{
    if (state_->isClosed())
        return EBADF;
    // An unconnected socket answers ENOTCONN, and refuses sends from then on all the same.
    return ::shutdown(state_->fd, SHUT_WR) == 0 || errno == ENOTCONN ? 0 : errno;
}

void DatagramSocket::close()
{
    // Answers ENOTCONN here too, and yet wakes whoever waits. The descriptor goes with the last holder.
    if (!state_->closed.exchange(true, std::memory_order_acq_rel))
        ::shutdown(state_->fd, SHUT_RDWR);
}

bool parseIpv4(const char* text, std::uint32_t& networkAddress)
{
    in_addr address{};
    if (!text || ::inet_pton(AF_INET, text, &address) != 1)
        return false;
    networkAddress = address.s_addr;
    return true;
}

bool formatSocketAddress(const SocketAddress& address, char* text, std::size_t size)
{
    char quad[INET_ADDRSTRLEN];
    const in_addr system{address.address};
    if (!text || !::inet_ntop(AF_INET, &system, quad, sizeof quad))
        return false;
    const int length = address.port == 0
                           ? std::snprintf(text, size, "%s", quad)
                           : std::snprintf(text, size, "%s:%u", quad, unsigned{networkToHost16(address.port)});
    return length >= 0 && static_cast<std::size_t>(length) < size;
}

} // namespace zuPlatform
