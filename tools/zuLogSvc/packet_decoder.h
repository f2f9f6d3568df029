// Reads the datagrams that come to the service's two ports, and those it sends to a viewer. Every check stays inside
// the datagram, whatever its length fields say. Stateless; any thread.
#pragma once

#include "tools/zuLogSvc/message.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace zuLogSvc {

using Bytes = std::span<const std::uint8_t>;

/// The fields of a header whose length agrees with the datagram's.
struct PacketHeader {
    std::uint16_t magic = 0;
    std::uint16_t flags = 0;
    std::uint16_t command = 0;
    std::uint16_t status = 0;
    std::uint16_t id = 0;
    std::uint16_t length = 0;
};

/// A request on the command port. `payload` points into the datagram.
struct CommandPacket {
    PacketHeader header;
    std::string_view payload;
};

/// What reading came to: null if the datagram is good, otherwise what is wrong with it, as words for people.
using Fault = const char*;

Fault decodeHeader(Bytes datagram, std::size_t payloadLimit, PacketHeader& header);

/// A request: magic 0xACCA, flags and status 0, no acknowledge. The command itself is not judged.
Fault decodeCommand(Bytes datagram, CommandPacket& packet);

/// An acknowledge, for a viewer.
Fault decodeAcknowledge(Bytes datagram, CommandPacket& packet);

/// A message packet, 0x0101 or 0x0102.
Fault decodeMessage(Bytes datagram, LogMessage& message);

/// A message container that came as a message of this command.
Fault decodeContainer(Bytes container, std::uint16_t command, LogMessage& message);

/// A message on its way to a viewer; `number` is its number there.
Fault decodeFollowed(Bytes datagram, std::uint64_t& number, LogMessage& message);

} // namespace zuLogSvc
