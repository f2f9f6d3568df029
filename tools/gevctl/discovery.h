// Looks for cameras by the standard's DISCOVERY command, without the daemon. Runs on the caller's thread.
#pragma once

#include "client/GevClient.h"
#include "tools/gevctl/bootstrap.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace gevctl {

/// DISCOVERY_CMD, which has no payload.
std::array<std::uint8_t, 8> encodeDiscovery(std::uint16_t requestId);

/// DISCOVERY_ACK to that request; empty if the datagram is anything else.
std::optional<Bootstrap> decodeDiscoveryAck(const std::uint8_t* bytes, std::size_t size, std::uint16_t requestId);

struct Found {
    Bootstrap bootstrap;
    zuGevClient::Endpoint from; ///< who answered
    std::string interface;      ///< through which; empty for an address that was asked for
};

struct DiscoveryRequest {
    std::vector<std::string> interfaces;               ///< names or addresses; none: all but loopback
    std::vector<zuGevClient::Endpoint> unicastTargets; ///< if given, and no interface, only these are asked
    std::uint32_t waitMs = 1000;
};

/// Each camera once for each way on which it was found, in the order of their addresses. Throws std::runtime_error if
/// an interface does not exist or nothing could be sent at all. Ends early when `stop` is set.
std::vector<Found> discover(const DiscoveryRequest& request, const std::atomic<bool>& stop);

} // namespace gevctl
