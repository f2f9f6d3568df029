// The public face: hands on to the connection's Impl, and the small texts.
#include "client/ConnectionImpl.h"

#include "platform/socket.h"

#include <array>
#include <charconv>

namespace zuGevClient {

namespace {

// Arguments of the daemon's link.
constexpr std::uint32_t monitorMode = 0;
constexpr std::uint32_t controlMode = 3;
constexpr std::uint32_t exclusiveMode = 4;
constexpr std::uint32_t switchoverMode = 0x10000;

} // namespace

std::string toString(const Endpoint& endpoint)
{
    std::array<char, 50> text{};
    const zuPlatform::SocketAddress address{zuPlatform::hostToNetwork32(endpoint.address),
                                            zuPlatform::hostToNetwork16(endpoint.port)};
    return zuPlatform::formatSocketAddress(address, text.data(), text.size()) ? text.data() : "?";
}

std::optional<Endpoint> parseEndpoint(const std::string& text, std::uint16_t defaultPort)
{
    const std::size_t colon = text.find(':');
    Endpoint endpoint{0, defaultPort};
    std::uint32_t network = 0;
    if (!zuPlatform::parseIpv4(text.substr(0, colon).c_str(), network))
        return std::nullopt;
    endpoint.address = zuPlatform::networkToHost32(network);
    if (colon != std::string::npos) {
        const char* const begin = text.data() + colon + 1;
        const char* const end = text.data() + text.size();
        const auto [stop, error] = std::from_chars(begin, end, endpoint.port);
        if (begin == end || stop != end || error != std::errc())
            return std::nullopt;
    }
    return endpoint;
}

const char* toString(Event event)
{
    switch (event) {
    case Event::connectionLost:
        return "connection lost";
    case Event::controlLost:
        return "control lost";
    case Event::reconnected:
        return "reconnected";
    case Event::daemonLost:
        return "daemon lost";
    case Event::daemonReturned:
        return "daemon returned";
    }
    return "?";
}

LinkMode LinkMode::monitor() { return LinkMode(monitorMode); }
LinkMode LinkMode::control() { return LinkMode(controlMode); }
LinkMode LinkMode::exclusive() { return LinkMode(exclusiveMode); }
LinkMode LinkMode::switchover(std::uint16_t key) { return LinkMode(switchoverMode | key); }
bool LinkMode::isPrivileged() const { return value_ != monitorMode; }

bool Daemon::isRunning(Milliseconds wait) { return daemonAnswers(publishedPort(), wait); }
std::uint16_t Daemon::port() { return zuPlatform::networkToHost16(publishedPort()); }

Connection::Connection() : impl_(std::make_shared<ConnectionImpl>()) {}
Connection::~Connection()
{
    if (impl_)
        impl_->close();
}
Connection::Connection(Connection&&) noexcept = default;
Connection& Connection::operator=(Connection&& other) noexcept
{
    if (this != &other) {
        if (impl_)
            impl_->close();
        impl_ = std::move(other.impl_);
    }
    return *this;
}

ConnectionImpl& Connection::impl() const
{
    if (!impl_)
        throw ClosedError("The connection was moved from");
    return *impl_;
}

void Connection::close() noexcept
{
    if (impl_)
        impl_->close();
}
bool Connection::isOpen() const noexcept { return impl_ && impl_->isOpen(); }

void Connection::bind(const Endpoint& local) { impl().bind(local); }
void Connection::setDestination(const Endpoint& camera) { impl().setDestination(camera); }
Endpoint Connection::localAddress() { return impl().localAddress(); }
bool Connection::link(LinkMode mode) { return impl().link(mode); }
void Connection::unlink() { impl().unlink(); }
bool Connection::checkLink() { return impl().checkLink(); }

std::uint32_t Connection::readRegister(std::uint32_t address) { return impl().readRegister(address); }
void Connection::writeRegister(std::uint32_t address, std::uint32_t value) { impl().writeRegister(address, value); }

void Connection::readMemory(std::uint32_t address, void* destination, std::size_t size)
{
    impl().read(address, destination, size);
}
std::vector<std::uint8_t> Connection::readMemory(std::uint32_t address, std::size_t size)
{
    std::vector<std::uint8_t> bytes(size);
    impl().read(address, bytes.data(), size);
    return bytes;
}
void Connection::writeMemory(std::uint32_t address, const void* source, std::size_t size)
{
    impl().write(address, source, size);
}

void Connection::setAckTimeout(Milliseconds timeout) { impl().setAckTimeout(timeout); }
Milliseconds Connection::ackTimeout() { return impl().ackTimeout(); }
void Connection::setRetries(std::uint32_t retries) { impl().setRetries(retries); }
std::uint32_t Connection::retries() { return impl().retries(); }
Heartbeat Connection::setHeartbeat(Milliseconds timeout) { return impl().setHeartbeat(timeout); }
Heartbeat Connection::heartbeat() { return impl().heartbeat(); }
void Connection::setEventHandler(EventHandler handler) { impl().setEventHandler(std::move(handler)); }
void Connection::followDaemon(Milliseconds period) { impl().followDaemon(period); }
void Connection::stopFollowing() { impl().stopFollowing(); }
void Connection::ping() { static_cast<void>(impl().localAddress()); }

} // namespace zuGevClient
