// The UDP endpoint towards one camera.
#include "src/SockConnection.h"

#include "GevTLBase/GevHelper.h"
#include "logging/log.h"
#include "platform/clock.h"

#include <memory>
#include <system_error>
#include <vector>

namespace GEV {

namespace {

constexpr int socketBufferSize = 0x100000;
constexpr std::size_t flushBufferSize = 65536;

/// The address that stands for no destination.
constexpr std::uint32_t noAddress = 0xFFFFFFFF;
constexpr std::uint32_t broadcastAddress = 0xFFFFFFFF;

/// How long a rebind waits for whoever receives on the old socket: as long as one does, the port is taken.
constexpr unsigned oldSocketWaitMs = 200;

/// What the system reports for an operation on a socket that isn't there.
constexpr int noSocketError = static_cast<int>(std::errc::bad_file_descriptor);

zuPlatform::SocketAddress toNetwork(std::uint32_t ip, std::uint16_t port)
{
    return {zuPlatform::hostToNetwork32(ip), zuPlatform::hostToNetwork16(port)};
}

void toHost(const zuPlatform::SocketAddress& address, std::uint32_t& ip, std::uint16_t& port)
{
    ip = zuPlatform::networkToHost32(address.address);
    port = zuPlatform::networkToHost16(address.port);
}

zuPlatform::SendResult sendOn(const zuPlatform::SocketPtr& socket, const void* data, std::uint32_t size,
                              const zuPlatform::SocketAddress& to)
{
    return socket ? socket->sendTo(data, size, to) : zuPlatform::SendResult{-1, noSocketError};
}

} // namespace

CSockConnection::CSockConnection()
    : log(zuLogging::make_numbered_logstate("Conn")),
      bufferHandlingFlag(zuLogging::logstate::register_group("BufferHandling")),
      ipConnectionFlag(zuLogging::logstate::register_group("IPConnection"))
{
    ZU_LOG(log, zuLogging::log_trace, "Create Connection");
    OpenSocket();
    const std::lock_guard<std::mutex> lock(fieldLock);
    destination = toNetwork(noAddress, gvcpPort);
    localAddress = {};
}

CSockConnection::~CSockConnection()
{
    if (const zuPlatform::SocketPtr current = CurrentSocket())
        current->close();
}

// Between the old socket and the new one every attempt of a command would fail at once.
void CSockConnection::AwaitBind()
{
    if (binding.load(std::memory_order_relaxed)) {
        const std::lock_guard<std::mutex> ended(bindLock);
    }
}

zuPlatform::SocketPtr CSockConnection::CurrentSocket() const
{
    const std::lock_guard<std::mutex> lock(fieldLock);
    return socket;
}

void CSockConnection::OpenSocket()
{
    zuPlatform::SocketPtr old;
    {
        const std::lock_guard<std::mutex> lock(fieldLock);
        old.swap(socket);
    }
    if (old) {
        old->shutdownSend();
        old->close();
        const std::weak_ptr<zuPlatform::DatagramSocket> held = old;
        old.reset();
        for (unsigned waited = 0; waited < oldSocketWaitMs && !held.expired(); ++waited)
            zuPlatform::sleepMs(1);
    }
    int error = 0;
    const zuPlatform::SocketPtr made = zuPlatform::DatagramSocket::open(error);
    if (!made) {
        ZU_LOG(log, zuLogging::log_warn, "Unable to create UDP socket (error " << error << ")");
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(fieldLock);
        socket = made;
    }
    if (const int refused = made->setReceiveBuffer(socketBufferSize); refused != 0)
        ZU_LOG_GROUP(log, zuLogging::log_warn, ipConnectionFlag, "Unable to set receive buffer size: " << refused);
    if (const int refused = made->setSendBuffer(socketBufferSize); refused != 0)
        ZU_LOG_GROUP(log, zuLogging::log_warn, ipConnectionFlag, "Unable to set send buffer size: " << refused);
    // While the object is constructed this is its own, and no other is meant.
    SetDontFragment(dontFragment.load(std::memory_order_relaxed)); // NOLINT(clang-analyzer-optin.cplusplus.VirtualCall)
    if (broadcast.load(std::memory_order_relaxed))
        EnableBroadcast();
    if (reuseAddress.load(std::memory_order_relaxed))
        made->setReuseAddress();
}

void CSockConnection::EnableBroadcast()
{
    broadcast.store(true, std::memory_order_relaxed);
    const zuPlatform::SocketPtr current = CurrentSocket();
    if (const int error = current ? current->setBroadcast() : noSocketError; error != 0)
        ZU_LOG(log, zuLogging::log_err, "Error in setsockopt ( error " << error << " )");
}

void CSockConnection::SetDontFragment(bool value)
{
    dontFragment.store(value, std::memory_order_relaxed);
    if (const zuPlatform::SocketPtr current = CurrentSocket())
        current->setDontFragment(value);
}

void CSockConnection::GetDontFragment(bool& value)
{
    bool inForce = false;
    const zuPlatform::SocketPtr current = CurrentSocket();
    value = current && current->getDontFragment(inForce) == 0 && inForce;
}

std::int32_t CSockConnection::Bind(std::uint32_t ip, std::uint16_t port)
{
    const zuPlatform::SocketAddress wanted = toNetwork(ip, port);
    const std::lock_guard<std::mutex> one(bindLock);
    const struct Binding {
        explicit Binding(std::atomic<bool>& flag) : flag_(flag) { flag_.store(true, std::memory_order_relaxed); }
        ~Binding() { flag_.store(false, std::memory_order_relaxed); }
        std::atomic<bool>& flag_;
    } underWay(binding);
    {
        const std::lock_guard<std::mutex> lock(fieldLock);
        if (wanted.address == localAddress.address && ip != 0 && (port == 0 || wanted.port == localAddress.port))
            return resultCode::success;
    }
    ZU_LOG(log, zuLogging::log_trace, "Bind sock to IP " << IpToString(ip, port));
    {
        const std::lock_guard<std::mutex> lock(fieldLock);
        localAddress = wanted;
    }
    OpenSocket();
    const zuPlatform::SocketPtr current = CurrentSocket();
    if (const int error = current ? current->bind(wanted) : noSocketError; error != 0)
        ZU_LOG(log, zuLogging::log_warn, "Unable to bind UDP socket ( error " << error << " )");
    zuPlatform::SocketAddress inForce;
    if (const int error = current ? current->getLocalAddress(inForce) : noSocketError; error != 0) {
        ZU_LOG(log, zuLogging::log_warn, "Unable to get socket port  ( error " << error << " )");
        return resultCode::success;
    }
    {
        const std::lock_guard<std::mutex> lock(fieldLock);
        localAddress = inForce;
    }
    toHost(inForce, ip, port);
    ZU_LOG(log, zuLogging::log_trace, "Bind sock to IP " << IpToString(ip, port));
    return resultCode::success;
}

std::int32_t CSockConnection::Reserved() { return resultCode::success; }

std::int32_t CSockConnection::SetDestination(std::uint32_t ip, std::uint16_t port)
{
    {
        const std::lock_guard<std::mutex> lock(fieldLock);
        destination = toNetwork(ip, port);
    }
    ZU_LOG(log, zuLogging::log_trace, "Set destination to " << IpToString(ip, 0) << ":" << port);
    return resultCode::success;
}

std::int32_t CSockConnection::GetDestination(std::uint32_t& ip, std::uint16_t& port)
{
    const std::lock_guard<std::mutex> lock(fieldLock);
    toHost(destination, ip, port);
    return resultCode::success;
}

std::int32_t CSockConnection::GetLocalAddress(std::uint32_t& ip, std::uint16_t& port)
{
    const std::lock_guard<std::mutex> lock(fieldLock);
    toHost(localAddress, ip, port);
    return resultCode::success;
}

std::int32_t CSockConnection::Receive(void* buffer, std::uint32_t size, std::uint32_t timeoutMs, std::uint32_t* ip,
                                      std::uint16_t* port, std::int32_t& count)
{
    using Kind = zuPlatform::ReceiveResult::Kind;
    count = 0;
    zuPlatform::SocketAddress from;
    AwaitBind();
    const zuPlatform::SocketPtr current = CurrentSocket();
    const zuPlatform::ReceiveResult got = current ? current->receive(buffer, size, timeoutMs, &from)
                                                  : zuPlatform::ReceiveResult{Kind::waitFailed, -1, noSocketError};
    switch (got.kind) {
    case Kind::timeout:
        return resultCode::timeout;
    case Kind::waitFailed:
        count = -1;
        ZU_LOG(log, zuLogging::log_warn, "select returned error ( error " << got.error << " )\b");
        return resultCode::timeout;
    case Kind::notReady:
        count = 1; // the sockets that the wait ended for
        return resultCode::timeout;
    case Kind::receiveFailed:
        count = -1;
        ZU_LOG(log, zuLogging::log_err, "Socket read error " << got.error);
        return resultCode::timeout;
    case Kind::received:
        break;
    }
    count = static_cast<std::int32_t>(got.count);
    if (count == 0) {
        ZU_LOG(log, zuLogging::log_warn, "Socket unexpected closed");
        return resultCode::closed;
    }
    if (ip != nullptr)
        *ip = zuPlatform::networkToHost32(from.address);
    if (port != nullptr)
        *port = zuPlatform::networkToHost16(from.port);
    return resultCode::success;
}

std::int32_t CSockConnection::SendBroadcast(const void* buffer, std::uint16_t port, std::uint32_t size,
                                            std::int32_t& count)
{
    const zuPlatform::SendResult sent = sendOn(CurrentSocket(), buffer, size, toNetwork(broadcastAddress, port));
    count = static_cast<std::int32_t>(sent.count);
    if (sent.count != -1)
        return resultCode::success;
    ZU_LOG(log, zuLogging::log_err, "Error in sendto ( error " << sent.error << " )");
    return resultCode::generalError;
}

std::int32_t CSockConnection::Send(const void* buffer, std::uint32_t size, std::int32_t& count)
{
    zuPlatform::SocketPtr current;
    zuPlatform::SocketAddress to;
    AwaitBind();
    {
        const std::lock_guard<std::mutex> lock(fieldLock);
        current = socket;
        to = destination;
    }
    if (to.address == noAddress) {
        ZU_LOG_GROUP(log, zuLogging::log_warn, ipConnectionFlag, "No destination for SendTo. Connection not bound\n\b");
        return resultCode::generalError;
    }
    const zuPlatform::SendResult sent = sendOn(current, buffer, size, to);
    if (sent.count != -1) {
        count = static_cast<std::int32_t>(sent.count);
        return resultCode::success;
    }
    count = 0;
    ZU_LOG(log, zuLogging::log_err, "Error in sendto (error " << sent.error << ")");
    return resultCode::generalError;
}

std::int32_t CSockConnection::FlushInput()
{
    std::vector<std::uint8_t> buffer(flushBufferSize);
    const zuPlatform::SocketPtr current = CurrentSocket();
    std::size_t pending = 0;
    if (!current || current->getPendingBytes(pending) != 0)
        return resultCode::success;
    std::size_t total = 0;
    while (total < pending) {
        std::int32_t count = 0;
        if (Receive(buffer.data(), static_cast<std::uint32_t>(buffer.size()), 0, nullptr, nullptr, count) !=
            resultCode::success)
            break;
        total += static_cast<std::size_t>(count);
    }
    return resultCode::success;
}

} // namespace GEV
