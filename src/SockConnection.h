// The UDP endpoint towards one camera: one socket, one destination. Failures come back as results (GevHelper.h) or are
// logged and swallowed; nothing is thrown. Callable from several threads, but `Receive` from one at a time.
#pragma once

#include "logging/logstate.h"
#include "platform/socket.h"

#include <atomic>
#include <cstdint>
#include <mutex>

namespace GEV {

/// Addresses and ports are in host order at this interface. Sizes and counts are bytes, times are milliseconds.
class CSockConnection {
public:
    CSockConnection();
    virtual ~CSockConnection();
    CSockConnection(const CSockConnection&) = delete;
    CSockConnection& operator=(const CSockConnection&) = delete;

    /// Makes a new socket, drops what the old one had queued, and binds it; port 0 lets the system choose. Does nothing
    /// if bound to that address already, unless it is 0. Always 0: a failure is only logged.
    virtual std::int32_t Bind(std::uint32_t ip, std::uint16_t port);
    virtual std::int32_t Reserved();
    virtual std::int32_t SetDestination(std::uint32_t ip, std::uint16_t port);
    virtual std::int32_t GetDestination(std::uint32_t& ip, std::uint16_t& port);

    /// Waits for one datagram, from whomever; 0 polls. -10012 on a timeout or a failure, -10004 for an empty datagram.
    /// `ip` and `port` may be null. `count` is 0 after a timeout and -1 after a failure.
    virtual std::int32_t Receive(void* buffer, std::uint32_t size, std::uint32_t timeoutMs, std::uint32_t* ip,
                                 std::uint16_t* port, std::int32_t& count);
    virtual std::int32_t SendBroadcast(const void* buffer, std::uint16_t port, std::uint32_t size, std::int32_t& count);
    /// -1001 if no destination was set, or the system refuses. A short send is a success.
    virtual std::int32_t Send(const void* buffer, std::uint32_t size, std::int32_t& count);
    virtual std::int32_t GetLocalAddress(std::uint32_t& ip, std::uint16_t& port);
    /// Drops what is queued. Always 0.
    virtual std::int32_t FlushInput();
    virtual void SetDontFragment(bool value);
    virtual void GetDontFragment(bool& value);

private:
    void OpenSocket();
    void AwaitBind();
    void EnableBroadcast();
    zuPlatform::SocketPtr CurrentSocket() const;

    /// Guards the next three, and is held while nothing else is called. Who uses the socket takes a share of it, so
    /// that `Bind` may replace it meanwhile.
    mutable std::mutex fieldLock;
    zuPlatform::SocketPtr socket;           ///< null if there is none
    zuPlatform::SocketAddress localAddress; ///< as asked for, then as the system reports it
    zuPlatform::SocketAddress destination;
    std::mutex bindLock; ///< held for a whole `Bind`; outside of `fieldLock`
    std::atomic<bool> binding{false};
    // Applied to each new socket.
    std::atomic<bool> dontFragment{false};
    std::atomic<bool> broadcast{false};
    std::atomic<bool> reuseAddress{false};
    zuLogging::logstate log;
    zuLogging::group_id bufferHandlingFlag;
    zuLogging::group_id ipConnectionFlag;
};

} // namespace GEV
