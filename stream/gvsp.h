// GVSP as it is on the wire: headers, leaders, trailers, and the command that asks for packets again. Nothing here
// keeps state or trusts a length. docs/gvsp.md has the tables.
#pragma once

#include "stream/Stream.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace zuStream::gvsp {

/// What the packet size register counts before a packet's own bytes.
constexpr std::size_t ipUdpSize = 28;
constexpr std::size_t headerSize = 8;
constexpr std::size_t extendedHeaderSize = 20;
constexpr std::size_t multiPartHeaderSize = 8; ///< behind the header, before the data

enum Format : std::uint8_t {
    leader = 1,
    trailer = 2,
    generic = 3,
    allIn = 4,
    h264 = 5,
    multiZone = 6,
    multiPart = 7,
    genDc = 8
};

namespace status {
constexpr std::uint16_t resent = 0x0100;
constexpr std::uint16_t errorBit = 0x8000;
constexpr std::uint16_t unavailable = 0x800C;
constexpr std::uint16_t notYetAvailable = 0x8010;
constexpr std::uint16_t allBeforeRemoved = 0x8011;
constexpr std::uint16_t removed = 0x8012;
constexpr std::uint16_t temporarilyUnavailable = 0x8014;
} // namespace status

/// Flags of extended headers.
constexpr std::uint16_t previousBlockDropped = 0x0002;

/// The largest ids: behind them come 1 and 0.
constexpr std::uint64_t lastBlock16 = 0xFFFF;
constexpr std::uint32_t lastPacket24 = 0xFFFFFF;
constexpr std::uint32_t lastPacket32 = 0xFFFFFFFF;

struct Header {
    std::uint16_t status = 0;
    std::uint16_t flags = 0; ///< of an extended header
    Format format = generic;
    bool extended = false;
    std::uint8_t parts = 0; ///< of an extended multi-part leader; 0: not told
    std::uint64_t block = 0;
    std::uint32_t packet = 0;
    std::size_t size = 0; ///< 8 or 20
};

/// False for what can't be GVSP: too short, no known format, or block 0.
bool parseHeader(std::span<const std::uint8_t> datagram, Header& header);

/// Take what lies behind the header. The leader fills the frame's fields and `parts`, up to their number; it returns
/// the bytes that it takes, or 0 if it is cut.
std::size_t parseLeader(const Header& header, std::span<const std::uint8_t> body, Frame& frame, std::span<Part> parts);
/// As the leader's. A height or a part's length that is larger than in the leader is not taken over.
std::size_t parseTrailer(std::span<const std::uint8_t> body, Frame& frame, std::span<Part> parts);

/// The timestamp of a leader whose body has one.
std::uint64_t leaderTimestamp(std::span<const std::uint8_t> body);

struct MultiPartHeader {
    std::uint8_t part = 0;
    std::uint64_t offset = 0; ///< in the part
};
bool parseMultiPart(std::span<const std::uint8_t> body, MultiPartHeader& header);

/// A PACKETRESEND for the packets `first` to `last` of a block.
struct Resend {
    std::uint16_t channel = 0;
    std::uint64_t block = 0;
    bool extended = false;
    std::uint32_t first = 0;
    std::uint32_t last = 0;
    bool toTheEnd = false; ///< in place of `last`
};
constexpr std::size_t resendSize = 20;
constexpr std::size_t extendedResendSize = 28;

/// Writes the command and returns its size.
std::size_t writeResend(const Resend& resend, std::uint16_t requestId, std::span<std::uint8_t, extendedResendSize> out);

} // namespace zuStream::gvsp
