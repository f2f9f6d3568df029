// DISCOVERY and FORCEIP: a pair of sockets for each interface, asked more than once, since datagrams get lost.
#include "client/DiscoveryPackets.h"
#include "client/GevDiscovery.h"

#include "client/Bootstrap.h"
#include "platform/clock.h"
#include "platform/network.h"
#include "platform/socket.h"

#include <algorithm>
#include <array>
#include <memory>
#include <tuple>

namespace zuGevClient {

namespace {

constexpr std::uint16_t discoveryId = 0x5A43;
constexpr std::uint16_t forceIpId = 0x5A46;
constexpr std::uint32_t everybody = 0xFFFFFFFF;

constexpr std::uint32_t pollMs = 20;
constexpr std::uint64_t lookEveryMs = 200; ///< for a camera that was given an address
constexpr std::uint64_t forceAttempts = 3;
constexpr int mostAtOnce = 256;           ///< datagrams of one socket before the others have their turn
constexpr std::size_t mostCameras = 4096; ///< of which more can't be meant

std::uint64_t nowMs() { return zuPlatform::steadyNanoseconds() / 1000000; }

LocalInterface localOf(const zuPlatform::NetworkInterface& interface)
{
    return {interface.name, zuPlatform::networkToHost32(interface.address),
            zuPlatform::networkToHost32(interface.netmask), interface.loopback};
}

bool contains(const LocalInterface& local, std::uint32_t address)
{
    return ((local.address ^ address) & local.subnetMask) == 0;
}

zuPlatform::SocketPtr openSocket(const zuPlatform::SocketAddress& address)
{
    zuPlatform::SocketPtr socket = zuPlatform::DatagramSocket::open();
    if (!socket || socket->bind(address) != 0)
        return nullptr;
    socket->setBroadcast();
    return socket;
}

/// Where questions go out, and answers to them come in.
struct Way {
    LocalInterface local; ///< without a name: to wherever the system sends it
    zuPlatform::SocketPtr socket;
    zuPlatform::SocketPtr broadcasts; ///< for answers to everybody, which a socket with an address doesn't get; or null
    std::vector<zuPlatform::SocketAddress> targets;
};

bool matches(const zuPlatform::NetworkInterface& interface, const std::string& wanted)
{
    std::uint32_t address = 0;
    return interface.name == wanted || (zuPlatform::parseIpv4(wanted.c_str(), address) && interface.address == address);
}

/// The address of a socket makes its broadcasts leave through that interface. Cameras of another subnet hear only what
/// goes to everybody; the subnet's own broadcast is for those that listen to nothing else.
void openWay(std::vector<Way>& ways, const zuPlatform::NetworkInterface& interface)
{
    const std::uint16_t port = zuPlatform::hostToNetwork16(gvcpPort);
    auto socket = openSocket({interface.address, 0});
    if (!socket)
        return;
    Way way{localOf(interface), std::move(socket), nullptr, {{everybody, port}}};
    if (interface.broadcast != interface.address)
        way.targets.push_back({interface.broadcast, port});
    zuPlatform::SocketAddress own;
    if (way.socket->getLocalAddress(own) == 0)
        way.broadcasts = openSocket({everybody, own.port});
    ways.push_back(std::move(way));
}

std::vector<Way> openWays(const std::vector<std::string>& names, const std::vector<Endpoint>& targets)
{
    std::vector<Way> ways;
    const auto interfaces = zuPlatform::networkInterfaces();
    for (const std::string& wanted : names) {
        const bool known = std::any_of(interfaces.begin(), interfaces.end(),
                                       [&](const auto& interface) { return matches(interface, wanted); });
        if (!known)
            throw Error("There is no network interface '" + wanted + "' with an IPv4 address");
        const bool up = std::any_of(interfaces.begin(), interfaces.end(),
                                    [&](const auto& interface) { return matches(interface, wanted) && interface.up; });
        if (!up)
            throw Error("The network interface '" + wanted + "' is down"); // what is sent on it goes nowhere
        for (const auto& interface : interfaces)
            if (matches(interface, wanted))
                openWay(ways, interface);
    }
    if (names.empty() && targets.empty())
        for (const auto& interface : interfaces)
            if (interface.up && !interface.loopback)
                openWay(ways, interface);
    if (!targets.empty()) {
        if (auto socket = openSocket({0, 0})) {
            Way way{{}, std::move(socket), nullptr, {}};
            for (const Endpoint& target : targets)
                way.targets.push_back(
                    {zuPlatform::hostToNetwork32(target.address), zuPlatform::hostToNetwork16(target.port)});
            ways.push_back(std::move(way));
        }
    }
    return ways;
}

/// Questions on all ways, and the answers so far.
class Inquiry {
public:
    Inquiry(const std::vector<std::string>& interfaces, const std::vector<Endpoint>& targets)
        : ways_(openWays(interfaces, targets)), locals_(localInterfaces())
    {
        for (const Way& way : ways_)
            sockets_ += way.broadcasts ? 2 : 1;
    }

    bool hasWay() const { return !ways_.empty(); }

    /// False if it could be sent nowhere.
    template <std::size_t size>
    bool send(const std::array<std::uint8_t, size>& datagram)
    {
        bool sent = false;
        for (const Way& way : ways_)
            for (const auto& target : way.targets)
                sent = way.socket->sendTo(datagram.data(), datagram.size(), target).count >= 0 || sent;
        return sent;
    }

    /// Takes what comes within some 20 ms.
    void listen()
    {
        for (const Way& way : ways_) {
            listen(way, *way.socket);
            if (way.broadcasts)
                listen(way, *way.broadcasts);
        }
    }

    std::vector<FoundCamera>& found() { return found_; }

    /// The status in the acknowledge of FORCEIP, once one has come; success counts more than a refusal.
    std::optional<std::uint16_t> forced() const { return forced_; }

private:
    void listen(const Way& way, zuPlatform::DatagramSocket& socket)
    {
        std::array<std::uint8_t, 1024> buffer{};
        zuPlatform::SocketAddress from;
        std::uint32_t wait = std::max<std::uint32_t>(1, pollMs / sockets_);
        for (int count = 0; count < mostAtOnce; ++count) {
            const auto result = socket.receive(buffer.data(), buffer.size(), wait, &from);
            if (result.kind != zuPlatform::ReceiveResult::Kind::received)
                return;
            wait = 0;
            const auto size = static_cast<std::size_t>(result.count);
            if (auto info = decodeDiscoveryAck(buffer.data(), size, discoveryId))
                note({std::move(*info),
                      {zuPlatform::networkToHost32(from.address), zuPlatform::networkToHost16(from.port)},
                      way.local});
            else if (const auto status = decodeForceIpAck(buffer.data(), size, forceIpId))
                forced_ = forced_ ? std::min(*forced_, *status) : *status;
        }
    }

    void note(FoundCamera camera)
    {
        if (camera.seenOn.name.empty()) {
            const auto neighbour = std::find_if(locals_.begin(), locals_.end(), [&](const LocalInterface& local) {
                return contains(local, camera.from.address);
            });
            if (neighbour != locals_.end())
                camera.seenOn = *neighbour;
        }
        const auto known = std::find_if(found_.begin(), found_.end(), [&](const FoundCamera& other) {
            return other.from == camera.from && other.seenOn.name == camera.seenOn.name &&
                   other.info.mac == camera.info.mac;
        });
        if (known == found_.end()) {
            if (found_.size() < mostCameras)
                found_.push_back(std::move(camera));
            return;
        }
        // Of an interface with several addresses the one that the camera fits counts.
        if (!camera.fits())
            camera.seenOn = known->seenOn;
        *known = std::move(camera);
    }

    std::vector<Way> ways_;
    std::vector<LocalInterface> locals_;
    std::uint32_t sockets_ = 0;
    std::vector<FoundCamera> found_;
    std::optional<std::uint16_t> forced_;
};

std::uint64_t duration(Milliseconds wait)
{
    return static_cast<std::uint64_t>(std::max<std::int64_t>(wait.count(), 0));
}

} // namespace

std::vector<LocalInterface> localInterfaces()
{
    std::vector<LocalInterface> result;
    for (const auto& interface : zuPlatform::networkInterfaces())
        if (interface.up)
            result.push_back(localOf(interface));
    return result;
}

bool fits(const IpAddress& camera, const LocalInterface& local)
{
    return camera.address != 0 && ((camera.address ^ local.address) & (local.subnetMask | camera.subnetMask)) == 0;
}

std::vector<FoundCamera> discover(const DiscoveryRequest& request)
{
    Inquiry inquiry(request.interfaces, request.targets);
    if (!inquiry.hasWay())
        return {};
    if (!inquiry.send(encodeDiscovery(discoveryId, Answer::direct)))
        throw Error("No discovery could be sent on any interface");
    const std::uint64_t start = nowMs();
    const std::uint64_t wait = duration(request.wait);
    bool askedAgain = false;
    for (;;) {
        const std::uint64_t elapsed = nowMs() - start;
        if (elapsed >= wait || (request.stop && request.stop()))
            break;
        if (!askedAgain && elapsed >= wait / 2) {
            inquiry.send(encodeDiscovery(discoveryId, Answer::orBroadcast));
            askedAgain = true;
        }
        inquiry.listen();
    }
    std::vector<FoundCamera> found = std::move(inquiry.found());
    std::sort(found.begin(), found.end(), [](const FoundCamera& a, const FoundCamera& b) {
        return std::tie(a.from.address, a.from.port, a.seenOn.name, a.info.mac) <
               std::tie(b.from.address, b.from.port, b.seenOn.name, b.info.mac);
    });
    return found;
}

std::optional<std::uint32_t> proposeAddress(const FoundCamera& camera, const std::vector<FoundCamera>& found)
{
    const std::uint32_t hosts = ~camera.seenOn.subnetMask; // the broadcast address's
    const auto locals = localInterfaces();
    const auto isTaken = [&](std::uint32_t address) {
        return std::any_of(locals.begin(), locals.end(),
                           [&](const LocalInterface& local) { return local.address == address; }) ||
               std::any_of(found.begin(), found.end(), [&](const FoundCamera& other) {
                   return other.info.ip.address == address && other.info.mac != camera.info.mac;
               });
    };
    const std::uint64_t most = std::min<std::uint64_t>(hosts, locals.size() + found.size() + 3);
    for (std::uint64_t i = 0; i <= most; ++i) {
        const std::uint32_t host = (camera.info.ip.address + static_cast<std::uint32_t>(i)) & hosts;
        const std::uint32_t address = (camera.seenOn.address & ~hosts) | host;
        if (host != 0 && host != hosts && address != camera.seenOn.address && !isTaken(address))
            return address;
    }
    return std::nullopt;
}

ForcedIp forceIp(const ForceIpRequest& request)
{
    const bool anew = request.ip == IpAddress{};
    if (!anew)
        requireUsable(request.ip);
    Inquiry inquiry(request.interfaces, {});
    const std::uint64_t start = nowMs();
    const std::uint64_t wait = duration(request.wait);
    const auto isIt = [&](const FoundCamera& camera) {
        return camera.info.mac == request.mac && camera.info.ip.address == request.ip.address;
    };
    ForcedIp result;
    std::uint64_t attempts = 0;
    std::uint64_t looks = 0;
    for (;;) {
        const std::uint64_t elapsed = nowMs() - start;
        // A camera that looks for an address anew would begin again with each repetition.
        const bool mayRepeat = !anew && attempts < forceAttempts && elapsed >= attempts * wait / forceAttempts;
        if (attempts == 0 || (mayRepeat && !inquiry.forced())) {
            const Answer answer = attempts == 0 ? Answer::direct : Answer::orBroadcast;
            if (!inquiry.send(encodeForceIp(forceIpId, answer, request.mac, request.ip)) && attempts == 0)
                throw Error("No address could be sent on any interface");
            ++attempts;
        }
        if (!anew && elapsed >= looks * lookEveryMs) {
            inquiry.send(encodeDiscovery(discoveryId, looks % 2 == 0 ? Answer::direct : Answer::orBroadcast));
            ++looks;
        }
        inquiry.listen();
        if (const auto status = inquiry.forced()) {
            const std::int32_t number = statusOfWire(*status);
            if (number != Status::success)
                throw CameraError("The camera " + toString(request.mac) + " refuses the address: " +
                                      statusText(number) + " (status " + std::to_string(number) + ")",
                                  number);
            result.acknowledged = true;
        }
        const auto camera = std::find_if(inquiry.found().begin(), inquiry.found().end(), isIt);
        if (!anew && camera != inquiry.found().end())
            result.camera = *camera;
        if (result.camera || (anew && result.acknowledged) || elapsed >= wait || (request.stop && request.stop()))
            break;
    }
    if (!anew && !result.acknowledged && !result.camera)
        throw CameraError("No camera " + toString(request.mac) + " has answered or shown the new address (status " +
                              std::to_string(Status::timeout) + ")",
                          Status::timeout);
    return result;
}

} // namespace zuGevClient
