// GVCP, as the standard has it: an eight-byte header, then big-endian fields.
#include "client/DiscoveryPackets.h"

#include "client/Bootstrap.h"

#include <algorithm>

namespace zuGevClient {

namespace {

constexpr std::uint8_t commandKey = 0x42;
constexpr std::uint8_t acknowledgeRequired = 0x01;
constexpr std::uint8_t broadcastAllowed = 0x10;

constexpr std::uint8_t discoveryCommand = 0x02;
constexpr std::uint8_t discoveryAcknowledge = 0x03;
constexpr std::uint8_t forceIpCommand = 0x04;
constexpr std::uint8_t forceIpAcknowledge = 0x05;

constexpr std::size_t headerSize = 8;
constexpr std::size_t forceIpSize = 56;

// FORCEIP_CMD behind the header.
constexpr std::size_t macAt = 2;
constexpr std::size_t addressAt = 20;
constexpr std::size_t subnetMaskAt = 36;
constexpr std::size_t gatewayAt = 52;

void putHeader(std::uint8_t* bytes, Answer answer, std::uint8_t command, std::size_t payload, std::uint16_t requestId)
{
    bytes[0] = commandKey;
    bytes[1] = answer == Answer::direct ? acknowledgeRequired : acknowledgeRequired | broadcastAllowed;
    bytes[2] = 0;
    bytes[3] = command;
    bytes[4] = static_cast<std::uint8_t>(payload >> 8);
    bytes[5] = static_cast<std::uint8_t>(payload);
    bytes[6] = static_cast<std::uint8_t>(requestId >> 8);
    bytes[7] = static_cast<std::uint8_t>(requestId);
}

bool isAcknowledge(const std::uint8_t* bytes, std::size_t size, std::uint8_t code, std::uint16_t requestId)
{
    return size >= headerSize && bytes[2] == 0 && bytes[3] == code &&
           bytes[6] == static_cast<std::uint8_t>(requestId >> 8) && bytes[7] == static_cast<std::uint8_t>(requestId);
}

} // namespace

std::array<std::uint8_t, 8> encodeDiscovery(std::uint16_t requestId, Answer answer)
{
    std::array<std::uint8_t, headerSize> bytes{};
    putHeader(bytes.data(), answer, discoveryCommand, 0, requestId);
    return bytes;
}

std::array<std::uint8_t, 64> encodeForceIp(std::uint16_t requestId, Answer answer, const MacAddress& mac,
                                           const IpAddress& ip)
{
    std::array<std::uint8_t, headerSize + forceIpSize> bytes{};
    putHeader(bytes.data(), answer, forceIpCommand, forceIpSize, requestId);
    std::uint8_t* const payload = bytes.data() + headerSize;
    std::copy(mac.bytes.begin(), mac.bytes.end(), payload + macAt);
    store32(payload + addressAt, ip.address);
    store32(payload + subnetMaskAt, ip.subnetMask);
    store32(payload + gatewayAt, ip.gateway);
    return bytes;
}

std::optional<CameraInfo> decodeDiscoveryAck(const std::uint8_t* bytes, std::size_t size, std::uint16_t requestId)
{
    if (!isAcknowledge(bytes, size, discoveryAcknowledge, requestId) || bytes[0] != 0 || bytes[1] != 0)
        return std::nullopt;
    return decodeCameraInfo(bytes + headerSize, size - headerSize);
}

std::optional<std::uint16_t> decodeForceIpAck(const std::uint8_t* bytes, std::size_t size, std::uint16_t requestId)
{
    if (!isAcknowledge(bytes, size, forceIpAcknowledge, requestId))
        return std::nullopt;
    return static_cast<std::uint16_t>((bytes[0] << 8) | bytes[1]);
}

std::int32_t statusOfWire(std::uint16_t status)
{
    switch (status) {
    case 0x0000:
        return Status::success;
    case 0x8002:
        return Status::invalidParameter;
    case 0x8003:
        return Status::invalidAddress;
    case 0x8004:
        return Status::writeProtect;
    case 0x8005:
        return Status::badAlignment;
    case 0x8006:
        return Status::accessDenied;
    case 0x8007:
        return Status::busy;
    case 0x8008:
        return Status::localProblem;
    case 0x8009:
        return Status::messageMismatch;
    case 0x800A:
        return Status::invalidProtocol;
    case 0x800B:
        return Status::responseTimeout;
    case 0x800C:
        return Status::packetUnavailable;
    case 0x800D:
        return Status::memoryOverrun;
    case 0x800E:
        return Status::invalidHeader;
    case 0x8FFF:
        return Status::generalFailure;
    default:
        return Status::notImplemented;
    }
}

} // namespace zuGevClient
