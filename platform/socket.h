// IPv4 datagram sockets. A socket is held by std::shared_ptr: whoever waits on it owns a share, so its descriptor is
// given back to the system only when the last holder has let go.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace zuPlatform {

/// IPv4 address and UDP port, both in network byte order, as a `sockaddr_in` holds them. Aligned to its size: every
/// compiler then has a lock-free `std::atomic` of it.
struct alignas(8) SocketAddress {
    std::uint32_t address = 0;
    std::uint16_t port = 0;
    friend bool operator==(const SocketAddress&, const SocketAddress&) = default;
};

constexpr std::uint16_t hostToNetwork16(std::uint16_t value)
{
    return static_cast<std::uint16_t>((value << 8) | (value >> 8));
}
constexpr std::uint32_t hostToNetwork32(std::uint32_t value)
{
    return (value << 24) | ((value & 0xFF00u) << 8) | ((value >> 8) & 0xFF00u) | (value >> 24);
}
constexpr std::uint16_t networkToHost16(std::uint16_t value) { return hostToNetwork16(value); }
constexpr std::uint32_t networkToHost32(std::uint32_t value) { return hostToNetwork32(value); }

/// 127.0.0.1 in host byte order.
constexpr std::uint32_t loopbackAddress = 0x7F000001;

/// 127.0.0.1 at a port given in network byte order.
constexpr SocketAddress loopbackAt(std::uint16_t networkPort)
{
    return {hostToNetwork32(loopbackAddress), networkPort};
}

/// The error code of an operation that would have to wait.
extern const int wouldBlockError;
/// The error code of a receive whose datagram did not fit.
extern const int messageSizeError;

/// Outcome of a send. `count` is the number of bytes taken, or -1 with the system's `error` code.
struct SendResult {
    std::ptrdiff_t count = -1;
    int error = 0;
};

/// A datagram of a batch, in two pieces that go out one behind the other. A piece of size 0 may be null.
struct OutgoingDatagram {
    const void* head = nullptr;
    std::size_t headSize = 0;
    const void* body = nullptr;
    std::size_t bodySize = 0;
};

/// Outcome of sending a batch: the first `count` datagrams were taken. If that isn't all, `error` tells why the next
/// one was not.
struct BatchResult {
    std::size_t count = 0;
    int error = 0;
};

/// Outcome of a timed receive.
struct ReceiveResult {
    enum class Kind {
        received,      ///< `count` bytes are in the buffer; 0 is an empty datagram
        timeout,       ///< nothing came in time
        waitFailed,    ///< waiting failed, or the socket was closed meanwhile; `error` tells
        notReady,      ///< the wait ended, but not for this socket
        receiveFailed, ///< reading failed; `error` tells
    };
    Kind kind = Kind::timeout;
    std::ptrdiff_t count = 0;
    int error = 0;
};

class DatagramBatch;

/// One UDP socket. Every operation but `open` returns 0 or the system's error code. Any operation may be called from
/// any thread; two threads must not `receive` on one socket at once.
class DatagramSocket {
public:
    /// Creates a socket, not inherited by child processes. Null with `error` set if the system refuses.
    static std::shared_ptr<DatagramSocket> open(int& error);
    static std::shared_ptr<DatagramSocket> open()
    {
        int error = 0;
        return open(error);
    }

    ~DatagramSocket();
    DatagramSocket(const DatagramSocket&) = delete;
    DatagramSocket& operator=(const DatagramSocket&) = delete;

    int bind(const SocketAddress& address);
    int getLocalAddress(SocketAddress& address);

    /// Makes sends return `wouldBlockError` in place of waiting. Receives always take a timeout.
    int setNonBlocking();
    int setReceiveBuffer(int bytes);
    /// What was granted, in the measure of `setReceiveBuffer`: less than was asked for where the system sets a limit.
    int getReceiveBuffer(int& bytes);
    int setSendBuffer(int bytes);
    int setBroadcast();
    int setReuseAddress();
    int setDontFragment(bool value);
    int getDontFragment(bool& value);

    /// A count that covers the bytes of all queued datagrams; it may be larger. 0 means that nothing is queued.
    int getPendingBytes(std::size_t& bytes);

    /// Datagrams that the system has thrown away since the socket was made, mostly because the receive buffer was full.
    /// Wraps.
    int getDropped(std::uint32_t& count);

    /// Binds to the group's port, which all sockets share that join there, and joins the group on the interface that
    /// has the address `interfaceAddress` (network byte order). Only what is sent to the group comes in. What is sent
    /// has the interface's own address as its sender.
    int joinGroup(const SocketAddress& group, std::uint32_t interfaceAddress);

    /// From now on only datagrams of this peer come in, and an unbound socket gets the address of the interface towards
    /// it. `sendTo` reaches others as before. Nothing is sent.
    int connect(const SocketAddress& peer);

    /// To a multicast group it leaves by the interface of the address that the socket is bound to.
    SendResult sendTo(const void* data, std::size_t size, const SocketAddress& to);

    /// Sends datagrams to one address, in order, with one system call for many of them where the system can.
    BatchResult sendBatch(const OutgoingDatagram* datagrams, std::size_t count, const SocketAddress& to);

    /// Waits up to `timeoutMs` milliseconds on the steady clock (0 polls) for a datagram and reads it. Signals do not
    /// end the wait. A datagram larger than the buffer is `receiveFailed` with `messageSizeError`; buffer and sender
    /// are filled all the same. `from` may be null; it is written only when a datagram was read.
    ReceiveResult receive(void* buffer, std::size_t size, std::uint32_t timeoutMs, SocketAddress* from);

    /// Waits up to `timeoutNs` nanoseconds on the steady clock until a datagram can be read: 0, or `wouldBlockError` if
    /// none came in time. A `close` ends the wait. Signals do not.
    int waitReadable(std::uint64_t timeoutNs);

    /// Reads the datagrams that have come, in order and up to the batch's capacity, in one system call, and does not
    /// wait: `wouldBlockError` if there are none. `count` is how many were read. One thread at a time, as `receive`.
    int receiveBatch(DatagramBatch& batch, std::size_t& count);

    /// Refuses further sends; what is queued can still be read.
    int shutdownSend();

    /// Ends the socket's use: wakes a waiting `receive` with `waitFailed`, and every later call fails. Repeatable. The
    /// descriptor lives until the last holder lets go.
    void close();

private:
    struct State;
    explicit DatagramSocket(std::unique_ptr<State> state);
    std::unique_ptr<State> state_;
};

using SocketPtr = std::shared_ptr<DatagramSocket>;

/// Text to address for `a.b.c.d`; false if it is none. The result is in network byte order.
bool parseIpv4(const char* text, std::uint32_t& networkAddress);

/// "a.b.c.d", and ":port" behind it if the port is not 0. False if the system refuses.
bool formatSocketAddress(const SocketAddress& address, char* text, std::size_t size);

} // namespace zuPlatform
