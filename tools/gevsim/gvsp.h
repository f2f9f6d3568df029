// The camera's own writing of stream packets, as the GigE Vision Streaming Protocol has them. Plain functions.
#pragma once

#include "tools/gevsim/stream_types.h"

#include <cstddef>
#include <cstdint>

namespace gevsim::gvsp {

/// Packet formats.
constexpr std::uint8_t leader = 1, trailer = 2, data = 3;
/// Payload types.
constexpr std::uint16_t image = 1, chunkData = 4, imageExtendedChunk = 0x4001;
/// Status codes beside those of GVCP. The last three, and the first, are extended ones.
constexpr std::uint16_t packetResend = 0x0100, packetUnavailable = 0x800C, notYetAvailable = 0x8010,
                        andPreviousRemoved = 0x8011, removed = 0x8012;
/// Flags of a packet with extended ids.
constexpr std::uint16_t flagResend = 0x0001, flagRangeError = 0x0004;

constexpr std::size_t ipAndUdp = 28;
constexpr std::size_t shortHeader = 8, longHeader = 20;
constexpr std::size_t largestHead = 64; ///< room for a header with what stands behind it in a leader or a trailer

constexpr std::size_t headerSize(bool extended) { return extended ? longHeader : shortHeader; }
/// Bytes of the payload in a packet of this size.
constexpr std::size_t dataSize(std::uint32_t packetSize, bool extended)
{
    return packetSize - ipAndUdp - headerSize(extended);
}

/// 16-bit ids run from 1 to 65535.
constexpr std::uint64_t blockOf(std::uint64_t number, bool extended)
{
    return extended ? number : (number + 0xFFFE) % 0xFFFF + 1;
}

/// Writes a header and returns its size. The short one has no flags.
std::size_t putHeader(std::uint8_t* out, bool extended, std::uint16_t status, std::uint16_t flags, std::uint8_t format,
                      std::uint64_t block, std::uint32_t packet);

/// Write what stands behind the header, and return its size.
std::size_t putLeader(std::uint8_t* out, const SentFrame& frame);
std::size_t putTrailer(std::uint8_t* out, const SentFrame& frame);

/// Bytes of a payload, and the bytes of its chunks behind the picture.
std::size_t payloadSize(const Picture& picture, bool chunkMode, std::uint32_t chunks);
/// Writes the chunks of a frame behind its picture, if it has any.
void putChunks(std::uint8_t* out, const SentFrame& frame);

} // namespace gevsim::gvsp
