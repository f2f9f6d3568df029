// The camera's own reading and writing of GVCP datagrams, and their description as one readable line. Shares nothing
// with the daemon's formats. Plain functions, safe on any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace gevsim {

/// Command codes of the protocol; the acknowledge of a command is its code plus one.
enum class Command : std::uint16_t {
    discovery = 0x0002,
    forceIp = 0x0004,
    packetResend = 0x0040,
    readReg = 0x0080,
    writeReg = 0x0082,
    readMem = 0x0084,
    writeMem = 0x0086,
    pending = 0x0088, ///< never sent; 0x0089 is PENDING_ACK
    event = 0x00C0,
    eventData = 0x00C2,
    action = 0x0100,
};

/// Status codes of the protocol, as they stand in an acknowledge.
enum class Status : std::uint16_t {
    success = 0x0000,
    notImplemented = 0x8001,
    invalidParameter = 0x8002,
    invalidAddress = 0x8003,
    writeProtect = 0x8004,
    badAlignment = 0x8005,
    accessDenied = 0x8006,
    busy = 0x8007,
    localProblem = 0x8008,
    messageMismatch = 0x8009,
    invalidProtocol = 0x800A,
    noMessage = 0x800B,
    packetUnavailable = 0x800C,
    dataOverrun = 0x800D,
    invalidHeader = 0x800E,
    error = 0x8FFF,
};

/// An IPv4 address and a UDP port, both in host byte order. Port 0 lets the system choose.
struct Endpoint {
    std::uint32_t ip = 0x7F000001; ///< 127.0.0.1
    std::uint16_t port = 0;

    Endpoint() = default;
    Endpoint(std::uint32_t hostOrderIp, std::uint16_t hostOrderPort) : ip(hostOrderIp), port(hostOrderPort) {}
    /// Throws std::invalid_argument if `dottedQuad` is no address.
    Endpoint(const std::string& dottedQuad, std::uint16_t hostOrderPort);

    std::string text() const;    ///< "127.0.0.1:3956"
    std::string address() const; ///< "127.0.0.1"
    friend bool operator==(const Endpoint&, const Endpoint&) = default;
};

constexpr std::uint16_t gvcpPort = 3956;

namespace wire {

constexpr std::uint8_t commandKey = 0x42;
constexpr std::uint8_t flagAckRequired = 0x01;
constexpr std::uint8_t flagExtendedIds = 0x10; ///< of PACKETRESEND
constexpr std::uint16_t pendingAckCode = 0x0089;
constexpr std::size_t headerSize = 8;
/// Offsets in the header of a command.
constexpr std::size_t atKey = 0, atFlags = 1;
/// Offsets in the header of an acknowledge.
constexpr std::size_t atStatus = 0;
/// Offsets in both headers.
constexpr std::size_t atCode = 2, atLength = 4, atId = 6;
/// Offsets behind the header.
constexpr std::size_t atAddress = 8, atValue = 12, atReadMemCount = 14, atMemData = 12, atAckIndex = 10;
constexpr std::size_t atPendingTime = 10;
/// FORCEIP: 56 bytes behind the header.
constexpr std::size_t forceIpSize = 56, atForceMac = 10, atForceIp = 28, atForceMask = 44, atForceGateway = 60;
/// PACKETRESEND: channel, 16-bit block, first and last packet; with extended ids the 64-bit block behind them.
constexpr std::size_t resendSize = 12, longResendSize = 20;
constexpr std::size_t atResendChannel = 8, atResendBlock = 10, atResendFirst = 12, atResendLast = 16,
                      atResendLongBlock = 20;
/// Most bytes of memory, registers read and registers written by one command: what fits 576 bytes of IP datagram.
constexpr std::size_t maxMemory = 536, maxReadRegs = 135, maxWriteRegs = 67;
constexpr std::size_t discoverySize = 248; ///< the discovery acknowledge's payload: registers 0x0000 to 0x00F7
constexpr std::size_t maxDatagram = 2048;  ///< larger commands are not taken

constexpr std::uint16_t get16(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[0] << 8 | p[1]); }
constexpr std::uint32_t get32(const std::uint8_t* p)
{
    return static_cast<std::uint32_t>(get16(p)) << 16 | get16(p + 2);
}
constexpr void put16(std::uint8_t* p, std::uint32_t value)
{
    p[0] = static_cast<std::uint8_t>(value >> 8);
    p[1] = static_cast<std::uint8_t>(value);
}
constexpr void put32(std::uint8_t* p, std::uint32_t value)
{
    put16(p, value >> 16);
    put16(p + 2, value & 0xFFFF);
}

/// Writes the header of an acknowledge; `payload` is the number of bytes behind it.
void putAckHeader(std::uint8_t* p, std::uint16_t status, std::uint16_t code, std::size_t payload, std::uint16_t id);

} // namespace wire

/// "READMEM", "READMEM_ACK", "PENDING_ACK", or "0x1234" for a code that has no name.
std::string codeName(std::uint16_t code);

/// The command that a person means by "readmem", "READMEM" or "0x84"; empty if there is none.
std::optional<Command> commandByName(const std::string& name);

/// One line without a line end, such as "READREG id=7 [0x00000A00]", for a datagram that the camera received or sent.
std::string describeCommand(const std::uint8_t* data, std::size_t size);
std::string describeAcknowledge(const std::uint8_t* data, std::size_t size);

/// "0x" and at least so many digits.
std::string hex(std::uint32_t value, int digits = 1);

} // namespace gevsim
