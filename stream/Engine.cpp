#include "stream/Engine.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>

namespace zuStream {

using zuPlatform::hostToNetwork16;
using zuPlatform::hostToNetwork32;
using zuPlatform::MemoryPiece;
using zuPlatform::SocketAddress;

namespace {

SocketAddress toNetwork(const Endpoint& endpoint)
{
    return {hostToNetwork32(endpoint.address), hostToNetwork16(endpoint.port)};
}

void require(bool holds, const char* what)
{
    if (!holds)
        throw std::invalid_argument(what);
}

const Settings& checked(const Settings& settings)
{
    constexpr std::uint64_t fastestClock = 10000000000;
    const ResendSettings& resend = settings.resend;
    require(settings.packetSize >= 64 && settings.packetSize <= 65535, "the packet size must be 64 to 65535");
    require(settings.framesAtOnce >= 2 && settings.framesAtOnce <= 1024, "frames at once must be 2 to 1024");
    require(settings.batch >= 1 && settings.batch <= 1024, "a batch must be 1 to 1024 datagrams");
    require(settings.gather.count() >= 0 && settings.gather < std::chrono::seconds(1), "gathering must be under 1 s");
    require(settings.frameTimeout.count() > 0, "the frame timeout must be positive");
    require(settings.tickFrequency <= fastestClock, "the tick frequency must be 10 GHz at most");
    require(settings.socketBuffer >= 0, "the socket buffer must not be negative");
    require(settings.group == 0 || (settings.group >> 28) == 0xE, "the group is no multicast address");
    require(resend.delay.count() >= 0 && resend.timeout.count() > 0 && resend.pace.count() > 0 && resend.burst > 0 &&
                resend.attempts < 65535,
            "resend times must be positive");
    require(!resend.enabled || settings.source.address != 0, "resends need the camera's address");
    return settings;
}

void check(int error, const char* what)
{
    if (error != 0)
        throw StreamError(what, error);
}

} // namespace

Engine::Engine(const Settings& settings, Queues& queues)
    : settings_(checked(settings)), queues_(queues), assembler_(settings_, *this, statistics_),
      source_(toNetwork(settings_.source)), commands_(toNetwork({settings_.source.address, settings_.resend.port})),
      batch_(settings_.batch), targets_(settings_.batch), arrivals_(settings_.batch),
      areaSize_(largestDatagram(settings_.packetSize)), areas_(settings_.batch * areaSize_)
{
    openSocket();
}

void Engine::openSocket()
{
    int error = 0;
    socket_ = zuPlatform::DatagramSocket::open(error);
    check(error, "no socket for the stream");
    // The most that the system gives is what counts, so a refusal is no failure.
    statistics_.socketBufferAsked = settings_.socketBuffer;
    if (settings_.socketBuffer != 0)
        socket_->setReceiveBuffer(settings_.socketBuffer);
    check(socket_->getReceiveBuffer(statistics_.socketBufferGranted), "the stream's socket");
    const SocketAddress local = toNetwork(settings_.local);
    if (settings_.group != 0)
        check(socket_->joinGroup({hostToNetwork32(settings_.group), local.port}, local.address),
              "the multicast group can't be joined");
    else
        check(socket_->bind(local), "the stream's port can't be had");
    SocketAddress bound;
    check(socket_->getLocalAddress(bound), "the stream's port");
    local_ = {zuPlatform::networkToHost32(bound.address), zuPlatform::networkToHost16(bound.port)};
    check(socket_->setNonBlocking(), "the stream's socket");
}

void Engine::ask(const gvsp::Resend& resend)
{
    std::array<std::uint8_t, gvsp::extendedResendSize> command;
    requestId_ = static_cast<std::uint16_t>(requestId_ == 0xFFFF ? 1 : requestId_ + 1);
    const std::size_t size = gvsp::writeResend(resend, requestId_, command);
    // One that can't be sent is as one that was lost: it is repeated in time.
    socket_->sendTo(command.data(), size, commands_);
}

/// Payload that comes as expected goes straight to its place, its header and everything else to the datagram's area.
void Engine::lay()
{
    assembler_.plan(targets_);
    for (std::size_t i = 0; i < targets_.size(); ++i) {
        const Target& target = targets_[i];
        const std::span<std::uint8_t> room = area(i);
        if (target.data == nullptr) {
            const MemoryPiece whole{room.data(), room.size()};
            batch_.setPieces(i, {&whole, 1});
            continue;
        }
        const std::size_t header = target.extended ? gvsp::extendedHeaderSize : gvsp::headerSize;
        const std::size_t rest = header + target.size;
        const MemoryPiece pieces[] = {
            {room.data(), header}, {target.data, target.size}, {room.data() + rest, room.size() - rest}};
        batch_.setPieces(i, pieces);
    }
}

bool Engine::isForeign(const SocketAddress& from) const
{
    return (source_.address != 0 && from.address != source_.address) ||
           (source_.port != 0 && from.port != source_.port);
}

/// Finds the datagram's header and body. What isn't where it was expected is brought together in its area.
bool Engine::take(std::size_t index, Arrival& arrival)
{
    const std::size_t size = batch_.size(index);
    const std::span<std::uint8_t> room = area(index);
    const Target& target = targets_[index];
    statistics_.bytes += size;
    if (isForeign(batch_.from(index))) {
        ++statistics_.foreign;
        return false;
    }
    std::span<const std::uint8_t> datagram = room.first(std::min(size, room.size()));
    if (target.data != nullptr) {
        const std::size_t header = target.extended ? gvsp::extendedHeaderSize : gvsp::headerSize;
        if (size > header && size <= header + target.size && gvsp::parseHeader(room.first(header), arrival.header) &&
            arrival.header.size == header && arrival.header.format == gvsp::generic &&
            arrival.header.block == target.block && arrival.header.packet == target.packet) {
            arrival.body = {target.data, size - header};
            return true;
        }
        if (size > header)
            std::memcpy(room.data() + header, target.data, std::min(size - header, target.size));
    }
    if (size > room.size() || !gvsp::parseHeader(datagram, arrival.header)) {
        ++statistics_.malformed;
        return false;
    }
    arrival.body = datagram.subspan(arrival.header.size);
    return true;
}

std::size_t Engine::poll(std::uint64_t now)
{
    lay();
    std::size_t count = 0;
    socket_->receiveBatch(batch_, count);
    if (count != 0)
        ++statistics_.batches;
    statistics_.packets += count;
    // All are brought together before the first is placed, where another may still lie.
    for (std::size_t i = 0; i < count; ++i)
        arrivals_[i].good = take(i, arrivals_[i]);
    for (std::size_t i = 0; i < count; ++i)
        if (arrivals_[i].good)
            assembler_.add(arrivals_[i].header, arrivals_[i].body, now);
    assembler_.tick(now);
    return count;
}

} // namespace zuStream
