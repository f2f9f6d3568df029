// The log service's wire formats: names for every offset, width and value. All fields are little-endian, at whatever
// alignment they fall on.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zuLogSvc {

// Connection block, the shared object in which the service publishes where it listens.
inline constexpr const char* connectionBlockName = "Global\\zuLogSvcConnectionInfo";
inline constexpr const char* instanceMutexName = "Global\\zuLogSvc_Instance";

namespace Block {
inline constexpr std::size_t magic = 0;           // 4
inline constexpr std::size_t version = 4;         // 4, at least 1
inline constexpr std::size_t size = 8;            // 4, at least 24
inline constexpr std::size_t commandAddress = 12; // 4, IPv4 address in host order
inline constexpr std::size_t commandPort = 16;    // 2, host order
inline constexpr std::size_t messageAddress = 18; // 4, unaligned
inline constexpr std::size_t messagePort = 22;    // 2
inline constexpr std::size_t bytes = 24;
inline constexpr std::uint32_t magicValue = 0xABABBABA;
inline constexpr std::uint32_t versionValue = 1;
} // namespace Block

// Packet header, common to all packets.
namespace Header {
inline constexpr std::size_t magic = 0;   // 2
inline constexpr std::size_t flags = 2;   // 2
inline constexpr std::size_t command = 4; // 2
inline constexpr std::size_t status = 6;  // 2
inline constexpr std::size_t id = 8;      // 2
inline constexpr std::size_t length = 10; // 2, bytes after the header
inline constexpr std::size_t bytes = 12;
inline constexpr std::uint16_t commandMagic = 0xACCA;
inline constexpr std::uint16_t messageMagic = 0xADDA;
inline constexpr std::uint16_t messageFlags = 1;
} // namespace Header

inline constexpr std::size_t maxPayload = 1388;
inline constexpr std::size_t maxPacket = Header::bytes + maxPayload;

// Values of Header::command.
inline constexpr std::uint16_t cmdGetConfiguration = 0x0001;
inline constexpr std::uint16_t cmdSetDescription = 0x0041;
inline constexpr std::uint16_t cmdMessage = 0x0101;
inline constexpr std::uint16_t cmdMessageWithRecords = 0x0102;
inline constexpr std::uint16_t acknowledgeBit = 0x8000;

// This service's own commands, by which a viewer follows the messages.
inline constexpr std::uint16_t cmdFollow = 0x0701;     // JSON filter; answered; to be repeated before it expires
inline constexpr std::uint16_t cmdUnfollow = 0x0702;   // empty; answered
inline constexpr std::uint16_t cmdFollowed = 0x0781;   // one message, to the viewer; not answered
inline constexpr std::uint16_t cmdFollowEnds = 0x0782; // empty, to the viewer: the service ends; not answered

// Values of Header::status in a negative acknowledge.
inline constexpr std::uint16_t statusUnknownCommand = 1;
inline constexpr std::uint16_t statusBadPayload = 2;
inline constexpr std::uint16_t statusRefused = 3;

// Message container, the payload of the two message packets.
namespace Container {
inline constexpr std::size_t size = 0;           // 2, equal to the header's length
inline constexpr std::size_t flags = 2;          // 2
inline constexpr std::size_t sequence = 4;       // 8
inline constexpr std::size_t sequenceAgain = 12; // 8
inline constexpr std::size_t reserved = 20;      // 8
inline constexpr std::size_t bytes = 28;
inline constexpr std::uint16_t incomplete = 0x1; // an element did not fit; it and all after it are missing
inline constexpr std::uint16_t textCut = 0x2;
inline constexpr std::uint16_t hasRecords = 0x4; // whether they fit or not
inline constexpr std::uint16_t allFlags = 0x7;
} // namespace Container

// Element of a container: length of the data (2), type (1), wide (1), data.
namespace Element {
inline constexpr std::size_t length = 0;
inline constexpr std::size_t type = 2;
inline constexpr std::size_t wide = 3;
inline constexpr std::size_t bytes = 4;
inline constexpr std::size_t number = 8; // data of a number
inline constexpr std::size_t record = 264;
enum Type : std::uint8_t {
    text = 1,
    time = 2, // microseconds since 1400-Jan-01 00:00:00, local time
    logger = 3,
    level = 4,
    group = 5,
    location = 6,
    records = 7,
    process = 8,
    thread = 9,
    codePage = 10,
};
} // namespace Element

// Payload of cmdFollowed: number of the message to this viewer (8), the message's command (2), reserved (6), container.
namespace Followed {
inline constexpr std::size_t number = 0;
inline constexpr std::size_t command = 8;
inline constexpr std::size_t bytes = 16;
inline constexpr std::size_t maxPacket = Header::bytes + bytes + maxPayload;
} // namespace Followed

inline std::uint16_t load16(const std::uint8_t* at) { return static_cast<std::uint16_t>(at[0] | (at[1] << 8)); }
inline std::uint32_t load32(const std::uint8_t* at)
{
    return static_cast<std::uint32_t>(load16(at)) | (static_cast<std::uint32_t>(load16(at + 2)) << 16);
}
inline std::uint64_t load64(const std::uint8_t* at)
{
    return static_cast<std::uint64_t>(load32(at)) | (static_cast<std::uint64_t>(load32(at + 4)) << 32);
}
inline void store16(std::uint8_t* at, std::uint16_t value)
{
    at[0] = static_cast<std::uint8_t>(value);
    at[1] = static_cast<std::uint8_t>(value >> 8);
}
inline void store32(std::uint8_t* at, std::uint32_t value)
{
    store16(at, static_cast<std::uint16_t>(value));
    store16(at + 2, static_cast<std::uint16_t>(value >> 16));
}
inline void store64(std::uint8_t* at, std::uint64_t value)
{
    store32(at, static_cast<std::uint32_t>(value));
    store32(at + 4, static_cast<std::uint32_t>(value >> 32));
}

} // namespace zuLogSvc
