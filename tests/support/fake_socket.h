// Scripted sockets in the place of the system's: link zu_fake_socket into a test, and every zuPlatform::DatagramSocket
// of the process answers from this script. Addresses are parsed and formatted as ever. Any thread may call anything.
#pragma once

#include "platform/socket.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace zuTest {

struct SentDatagram {
    std::size_t socket = 0; ///< the socket's number, in the order of opening since `reset`, from 0
    std::vector<std::uint8_t> data;
    zuPlatform::SocketAddress to;
};

namespace FakeSockets {

/// Operations by which failures are injected and calls are noted.
enum class Call {
    open,
    bind,
    getLocalAddress,
    setNonBlocking,
    setReceiveBuffer,
    setSendBuffer,
    setBroadcast,
    setReuseAddress,
    setDontFragment,
    getDontFragment,
    getPendingBytes,
    getReceiveBuffer,
    getDropped,
    joinGroup,
    connect,
    waitReadable,
    receiveBatch,
    sendTo,
    shutdownSend,
};

constexpr std::size_t anySocket = static_cast<std::size_t>(-1);

/// Forgets script and records, and numbers the sockets from 0 again. Sockets of before go on, outside the record.
void reset();

/// Of the calls of this kind from now on, the first `after` pass, and the `times` that follow fail with `error`.
void fail(Call call, int error, std::size_t times = 1, std::size_t after = 0);

/// Queues an answer for `receive` of one socket, or of whichever asks first. A datagram is cut to the receiver's buffer
/// as the real one would be; an answer of another kind is returned as it stands. `receiveBatch` takes datagrams only.
void pushDatagram(std::vector<std::uint8_t> data, const zuPlatform::SocketAddress& from = {},
                  std::size_t socket = anySocket);
void pushReceive(const zuPlatform::ReceiveResult& result, std::size_t socket = anySocket);

/// With true, a `receive` that finds nothing queued reports its timeout at once in place of waiting for it, one that
/// waits already included.
void setInstantTimeouts(bool instant);

/// Called for each datagram that is sent, without any lock; what it returns is the send's result. It may push answers.
/// Without one, sends take all bytes.
void onSend(std::function<zuPlatform::SendResult(const SentDatagram&)> answer);

/// The address that a bound socket reports. Without one it is what was bound, and a port of 0 becomes 50000 and up.
void setLocalAddress(const zuPlatform::SocketAddress& address);

/// What `getPendingBytes` reports. Without one it is the bytes queued for the socket.
void setPendingBytes(std::size_t bytes);

/// What `getReceiveBuffer` and `getDropped` report. Without one it is what was set, and 0.
void setGrantedBuffer(int bytes);
void setDropped(std::uint32_t count);

std::vector<SentDatagram> sent();

/// The calls so far, such as "0 open", "0 bind 127.0.0.1:3956", "0 setDontFragment 1", "0 receive 300", "0 close".
std::vector<std::string> calls();
std::size_t countCalls(const std::string& call);

/// Wait until that many datagrams were sent, or calls like `call` made; false after `deadline`.
bool waitForSent(std::size_t count, std::chrono::milliseconds deadline = std::chrono::seconds(20));
bool waitForCall(const std::string& call, std::size_t count = 1,
                 std::chrono::milliseconds deadline = std::chrono::seconds(20));

/// Sockets opened since `reset`, and how many of all sockets are not yet destroyed.
std::size_t opened();
std::size_t alive();

} // namespace FakeSockets
} // namespace zuTest
