// Builds the service's datagrams: acknowledges, its own messages, what goes to viewers, and, for viewers and tests, the
// requests and message packets of a client. Stateless; any thread.
#pragma once

#include "tools/zuLogSvc/message.h"
#include "tools/zuLogSvc/packet_decoder.h"

#include <cstdint>
#include <string_view>
#include <vector>

namespace zuLogSvc {

using Packet = std::vector<std::uint8_t>;

/// A request. `payload` has at most 1388 bytes; std::length_error otherwise.
Packet encodeCommand(std::uint16_t command, std::uint16_t id, std::string_view payload);

/// The answer to `request`, with its id and its command's bit 15 set. `payload` as above.
Packet encodeAcknowledge(const PacketHeader& request, std::uint16_t status, std::string_view payload);

/// The container of a message of narrow UTF-8 text, in the clients' order of elements, cut as they cut. Elements whose
/// number is absent are left out. `records` gives 264 bytes each and makes it a container with records.
Packet encodeContainer(const LogMessage& message, std::string_view records = {});

/// A message packet around `container`.
Packet encodeMessage(std::uint16_t command, std::uint16_t id, Bytes container);

/// A message on its way to a viewer.
Packet encodeFollowed(std::uint64_t number, std::uint16_t command, Bytes container);

/// The word to a viewer that the service ends.
Packet encodeFollowEnds();

} // namespace zuLogSvc
