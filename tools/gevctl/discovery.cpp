// Discovery: one socket for each interface, asked twice in the time given, since datagrams get lost.
#include "tools/gevctl/discovery.h"

#include "platform/clock.h"
#include "platform/network.h"
#include "platform/socket.h"

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <tuple>

namespace gevctl {

namespace {

// GVCP, as the standard has it.
constexpr std::uint8_t commandKey = 0x42;
constexpr std::uint8_t acknowledgeRequired = 0x01;
constexpr std::uint8_t discoveryCommand = 0x02;
constexpr std::uint8_t discoveryAcknowledge = 0x03;
constexpr std::size_t headerSize = 8;

constexpr std::uint16_t requestId = 0x5A43;
constexpr std::uint32_t pollMs = 20;

struct Way {
    std::string name;
    zuPlatform::SocketPtr socket;
    std::vector<zuPlatform::SocketAddress> targets;
};

zuPlatform::SocketPtr openSocket(std::uint32_t networkAddress)
{
    zuPlatform::SocketPtr socket = zuPlatform::DatagramSocket::open();
    if (!socket || socket->bind({networkAddress, 0}) != 0)
        return nullptr;
    socket->setBroadcast();
    return socket;
}

bool matches(const zuPlatform::NetworkInterface& interface, const std::string& wanted)
{
    std::uint32_t address = 0;
    return interface.name == wanted || (zuPlatform::parseIpv4(wanted.c_str(), address) && interface.address == address);
}

std::vector<Way> openWays(const DiscoveryRequest& request)
{
    std::vector<Way> ways;
    const auto interfaces = zuPlatform::networkInterfaces();
    const std::uint16_t port = zuPlatform::hostToNetwork16(zuGevClient::gvcpPort);
    const auto open = [&](const zuPlatform::NetworkInterface& interface) {
        if (auto socket = openSocket(interface.address))
            ways.push_back({interface.name, std::move(socket), {{interface.broadcast, port}}});
    };
    for (const std::string& wanted : request.interfaces) {
        const bool known = std::any_of(interfaces.begin(), interfaces.end(),
                                       [&](const auto& interface) { return matches(interface, wanted); });
        if (!known)
            throw std::runtime_error("There is no network interface '" + wanted + "' with an IPv4 address");
        for (const auto& interface : interfaces)
            if (matches(interface, wanted))
                open(interface);
    }
    if (request.interfaces.empty() && request.unicastTargets.empty())
        for (const auto& interface : interfaces)
            if (interface.up && !interface.loopback)
                open(interface);
    if (!request.unicastTargets.empty()) {
        if (auto socket = openSocket(0)) {
            Way way{{}, std::move(socket), {}};
            for (const auto& target : request.unicastTargets)
                way.targets.push_back(
                    {zuPlatform::hostToNetwork32(target.address), zuPlatform::hostToNetwork16(target.port)});
            ways.push_back(std::move(way));
        }
    }
    return ways;
}

bool ask(const std::vector<Way>& ways)
{
    const auto question = encodeDiscovery(requestId);
    bool sent = false;
    for (const Way& way : ways)
        for (const auto& target : way.targets)
            sent = way.socket->sendTo(question.data(), question.size(), target).count >= 0 || sent;
    return sent;
}

void listen(const Way& way, std::vector<Found>& found)
{
    std::array<std::uint8_t, 1024> buffer{};
    zuPlatform::SocketAddress from;
    for (std::uint32_t wait = pollMs;; wait = 0) {
        const auto result = way.socket->receive(buffer.data(), buffer.size(), wait, &from);
        if (result.kind != zuPlatform::ReceiveResult::Kind::received)
            return;
        const auto bootstrap = decodeDiscoveryAck(buffer.data(), static_cast<std::size_t>(result.count), requestId);
        if (!bootstrap)
            continue;
        const zuGevClient::Endpoint sender{zuPlatform::networkToHost32(from.address),
                                           zuPlatform::networkToHost16(from.port)};
        const bool known = std::any_of(found.begin(), found.end(), [&](const Found& other) {
            return other.from == sender && other.interface == way.name && other.bootstrap.mac == bootstrap->mac;
        });
        if (!known)
            found.push_back({*bootstrap, sender, way.name});
    }
}

} // namespace

std::array<std::uint8_t, 8> encodeDiscovery(std::uint16_t id)
{
    return {commandKey,
            acknowledgeRequired,
            0,
            discoveryCommand,
            0,
            0,
            static_cast<std::uint8_t>(id >> 8),
            static_cast<std::uint8_t>(id)};
}

std::optional<Bootstrap> decodeDiscoveryAck(const std::uint8_t* bytes, std::size_t size, std::uint16_t id)
{
    if (size < headerSize || bytes[0] != 0 || bytes[1] != 0 || bytes[2] != 0 || bytes[3] != discoveryAcknowledge ||
        bytes[6] != static_cast<std::uint8_t>(id >> 8) || bytes[7] != static_cast<std::uint8_t>(id))
        return std::nullopt;
    return decodeBootstrap(bytes + headerSize, size - headerSize);
}

std::vector<Found> discover(const DiscoveryRequest& request, const std::atomic<bool>& stop)
{
    const std::vector<Way> ways = openWays(request);
    if (ways.empty())
        return {};
    if (!ask(ways))
        throw std::runtime_error("No discovery could be sent on any interface");
    std::vector<Found> found;
    const std::uint64_t start = zuPlatform::steadyNanoseconds();
    bool askedAgain = false;
    for (;;) {
        const std::uint64_t elapsedMs = (zuPlatform::steadyNanoseconds() - start) / 1000000;
        if (elapsedMs >= request.waitMs || stop)
            break;
        if (!askedAgain && elapsedMs >= request.waitMs / 2) {
            ask(ways);
            askedAgain = true;
        }
        for (const Way& way : ways)
            listen(way, found);
    }
    std::sort(found.begin(), found.end(), [](const Found& a, const Found& b) {
        return std::tie(a.from.address, a.from.port, a.interface) < std::tie(b.from.address, b.from.port, b.interface);
    });
    return found;
}

} // namespace gevctl
