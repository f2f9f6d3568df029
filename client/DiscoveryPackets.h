// Datagrams of DISCOVERY and FORCEIP, byte by byte. Plain functions, any thread.
#pragma once

#include "client/GevDiscovery.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace zuGevClient {

/// How the camera may answer: to the sender, and also by a broadcast if the sender's subnet is not its own.
enum class Answer { direct, orBroadcast };

/// DISCOVERY_CMD, which has no payload.
std::array<std::uint8_t, 8> encodeDiscovery(std::uint16_t requestId, Answer answer);

/// FORCEIP_CMD, which asks for an acknowledge.
std::array<std::uint8_t, 64> encodeForceIp(std::uint16_t requestId, Answer answer, const MacAddress& mac,
                                           const IpAddress& ip);

/// DISCOVERY_ACK to that request; empty if the datagram is anything else.
std::optional<CameraInfo> decodeDiscoveryAck(const std::uint8_t* bytes, std::size_t size, std::uint16_t requestId);

/// The status in FORCEIP_ACK to that request; empty if the datagram is anything else.
std::optional<std::uint16_t> decodeForceIpAck(const std::uint8_t* bytes, std::size_t size, std::uint16_t requestId);

/// The daemon's number for a status on the wire; Status.
std::int32_t statusOfWire(std::uint16_t status);

} // namespace zuGevClient
