// GVCP (GigE Vision Control Protocol) as this program speaks it: codes, offsets, results, and the helpers that build a
// command header and judge an acknowledge. No state; callable from any thread.
#pragma once

#include "GevTLBase/GevException.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace GEV {

/// UDP port of a device's control channel.
inline constexpr std::uint16_t gvcpPort = 3956;

/// Command and acknowledge codes; an acknowledge is odd.
namespace gvcpCode {
inline constexpr std::uint16_t readRegCmd = 0x0080;
inline constexpr std::uint16_t readRegAck = 0x0081;
inline constexpr std::uint16_t writeRegCmd = 0x0082;
inline constexpr std::uint16_t writeRegAck = 0x0083;
inline constexpr std::uint16_t readMemCmd = 0x0084;
inline constexpr std::uint16_t readMemAck = 0x0085;
inline constexpr std::uint16_t writeMemCmd = 0x0086;
inline constexpr std::uint16_t writeMemAck = 0x0087;
inline constexpr std::uint16_t pendingAck = 0x0089;
} // namespace gvcpCode

/// Values and offsets in datagrams. Every field is big-endian.
namespace gvcpWire {
inline constexpr std::uint8_t key = 0x42;
inline constexpr std::uint8_t ackRequired = 0x01;

// Command header
inline constexpr std::size_t keyAt = 0;
inline constexpr std::size_t flagsAt = 1;
inline constexpr std::size_t commandAt = 2;
inline constexpr std::size_t lengthAt = 4; ///< bytes behind the header; the same place in an acknowledge
inline constexpr std::size_t requestIdAt = 6;
inline constexpr std::size_t headerSize = 8;

// Acknowledge header
inline constexpr std::size_t statusAt = 0;
inline constexpr std::size_t ackCommandAt = 2;
inline constexpr std::size_t ackIdAt = 6;

// Behind a command's header
inline constexpr std::size_t addressAt = 8;
inline constexpr std::size_t regValueAt = 12;     ///< WRITEREG
inline constexpr std::size_t readCountAt = 14;    ///< READMEM; 12 and 13 are reserved
inline constexpr std::size_t writeMemDataAt = 12; ///< WRITEMEM
inline constexpr std::size_t readRegSize = 12;
inline constexpr std::size_t writeRegSize = 16;
inline constexpr std::size_t readMemSize = 16;

// Behind an acknowledge's header
inline constexpr std::size_t ackRegValueAt = 8;   ///< READREG
inline constexpr std::size_t ackMemDataAt = 12;   ///< READMEM; also the smallest such acknowledge
inline constexpr std::size_t pendingTimeAt = 10;  ///< PENDING_ACK: time to completion in milliseconds
inline constexpr std::uint16_t pendingLength = 4; ///< the least length field of a PENDING_ACK
inline constexpr std::uint16_t errorStatusBit = 0x8000;
inline constexpr std::size_t ackFieldsEnd = 12; ///< no field of an acknowledge but memory data lies behind it
} // namespace gvcpWire

/// Sizes in bytes.
inline constexpr std::size_t maxMemBlock = 0x200;       ///< data of one READMEM or WRITEMEM
inline constexpr std::size_t receiveSize = 0x240;       ///< passed to each receive
inline constexpr std::size_t packetBufferSize = 0x4000; ///< each of a `CGVCP`'s two buffers

/// Results of the camera link: what an acknowledge's status, a receive or a command comes to.
namespace resultCode {
inline constexpr std::int32_t success = 0;
inline constexpr std::int32_t generalError = -1001; ///< also status 0x8FFF, and a failed send
inline constexpr std::int32_t notImplemented = -1003;
inline constexpr std::int32_t busy = -1004;
inline constexpr std::int32_t accessDenied = -1005;
inline constexpr std::int32_t invalidParameter = -1009;
inline constexpr std::int32_t noAcknowledge = -1011; ///< none came within the timeout
inline constexpr std::int32_t invalidAddress = -1015;
inline constexpr std::int32_t closed = -10004; ///< socket closed during a receive
inline constexpr std::int32_t writeProtect = -10009;
inline constexpr std::int32_t memoryOverrun = -10011;
inline constexpr std::int32_t timeout = -10012;          ///< also a failed receive
inline constexpr std::int32_t notAnAcknowledge = -10013; ///< leads to a resynchronisation
inline constexpr std::int32_t badAlignment = -10014;
inline constexpr std::int32_t invalidHeader = -10015;
inline constexpr std::int32_t localProblem = -10016;
inline constexpr std::int32_t mismatch = -10017; ///< leads to a resynchronisation
inline constexpr std::int32_t invalidVersion = -10018;
inline constexpr std::int32_t packetUnavailable = -10019;
} // namespace resultCode

/// Big-endian fields in a datagram.
void putBig16(void* datagram, std::size_t offset, std::uint16_t value);
void putBig32(void* datagram, std::size_t offset, std::uint32_t value);
std::uint16_t getBig16(const void* datagram, std::size_t offset);

/// Zeroes the whole datagram of `size` bytes and writes its header; an id of 0 is written as 1.
/// Throws `std::invalid_argument` if `size` is less than a header.
void BuildCmdHeader(void* buffer, std::size_t size, std::uint16_t command, std::uint16_t requestId);

/// Judges the acknowledge header in the 8 bytes at `ack`: 0, or the result of the first test that fails, which is then
/// logged. Length and payload are not looked at.
std::int32_t ValidateAck(const void* ack, std::uint16_t expectedId, std::uint16_t expectedCommand);

/// "a.b.c.d", and ":port" behind it unless `port` is 0. Both in host order. Throws `std::runtime_error`.
std::string IpToString(std::uint32_t ip, std::uint16_t port);

} // namespace GEV
