// One logical connection as the rest of the program sees it: it delivers messages to a handler, takes messages to send,
// and says when it is gone. Payloads are opaque here and delimit themselves.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include <boost/function.hpp>

namespace zuIPCPipe {

class IMsgSrc : public std::enable_shared_from_this<IMsgSrc> {
public:
    /// Called on the connection's own thread, one message at a time. Arguments: the payload, which is overwritten in
    /// place with the reply; its capacity in bytes; the reply's length, to be set by the handler (on entry it says
    /// nothing about the message); and a function that makes the peer wait that many milliseconds from now on.
    using MsgHandler = std::function<void(void*, std::size_t, std::size_t&, boost::function<void(unsigned int)>)>;

    /// Called once, on any thread, when the connection is gone.
    using DisconnectHandler = std::function<void()>;

    virtual ~IMsgSrc() = default;

    /// Sends `length` bytes (at most 2024; above that the header alone goes out) and waits up to `timeout` milliseconds
    /// for the reply. `reply` may be null; `replyLength` is the room in it, and becomes the number of bytes copied.
    /// On a connection that is gone nothing happens. Throws `IPCTimeoutException`, `IPCAbortException`,
    /// `IPCSocketException`, and `IPCException` once the slot is gone. Any thread; one send at a time.
    virtual void Send(void* data, std::size_t length, void* reply, std::size_t& replyLength, std::uint32_t timeout) = 0;

    /// Sends without waiting for anything. False if the connection is gone. Throws as `Send` does.
    virtual bool Post(void* data, std::size_t length) = 0;

    /// Whether the peer answered a ping within 500 ms. Peers of this system never do.
    virtual bool Ping() = 0;

    /// Makes the peer wait `timeout` milliseconds from now on for the acknowledge of its command `seq`.
    virtual void ExtendTimeout(std::uint32_t seq, std::uint32_t timeout) = 0;

    /// Connects a handler; an earlier one stays connected. `Clear...` disconnects the latest.
    virtual void SetMsgHandler(MsgHandler handler) = 0;
    virtual void ClearMsgHandler() = 0;
    virtual void SetDisconnectHandler(DisconnectHandler handler) = 0;
    virtual void ClearDisconnectHandler() = 0;

    /// Ends the connection from this side: up to 500 ms for the peer's answer, and up to 300 ms and the running message
    /// handler for the own thread.
    virtual void Disconnect() = 0;

    virtual bool IsConnected() = 0;
};

} // namespace zuIPCPipe
