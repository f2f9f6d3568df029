// One datagram of a camera's log, and the counts of all of them.
#pragma once

#include "tools/gevsim/wire.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace gevsim {

struct Datagram {
    enum class Direction { received, sent };

    Direction direction = Direction::received;
    std::chrono::steady_clock::time_point time; ///< when it came, or when it was handed to the system
    Endpoint peer;
    std::vector<std::uint8_t> bytes;
    bool lost = false; ///< received, but the camera was deaf to it, or lost it as told

    bool hasHeader() const { return bytes.size() >= wire::headerSize; }
    /// The fields below are 0 where the datagram is too short for them.
    std::uint16_t code() const { return hasHeader() ? wire::get16(&bytes[wire::atCode]) : std::uint16_t{0}; }
    std::uint16_t id() const { return hasHeader() ? wire::get16(&bytes[wire::atId]) : std::uint16_t{0}; }
    std::uint16_t length() const { return hasHeader() ? wire::get16(&bytes[wire::atLength]) : std::uint16_t{0}; }
    std::uint16_t status() const { return hasHeader() ? wire::get16(&bytes[wire::atStatus]) : std::uint16_t{0}; }
    /// First address of a register or memory command, or of a READMEM acknowledge.
    std::uint32_t address() const { return word(wire::atAddress); }
    /// Value of a WRITEREG of one register.
    std::uint32_t value() const { return word(wire::atValue); }
    bool is(Command command) const
    {
        return direction == Direction::received && code() == static_cast<std::uint16_t>(command);
    }
    bool isAckOf(Command command) const
    {
        return direction == Direction::sent && code() == static_cast<std::uint16_t>(command) + 1;
    }
    std::string text() const; ///< "<- 127.0.0.1:40000 READREG id=7 [0x00000A00]", with " (lost)" if it was

private:
    std::uint32_t word(std::size_t at) const { return bytes.size() >= at + 4 ? wire::get32(&bytes[at]) : 0; }
};

/// What has happened since the start, or since Camera::clearLog.
struct Counters {
    std::uint64_t received = 0; ///< datagrams of any kind, lost ones included
    std::uint64_t sent = 0;
    std::uint64_t lost = 0;      ///< received ones that the camera was deaf to, or lost as told
    std::uint64_t malformed = 0; ///< received ones that are no command
    std::uint64_t sendErrors = 0;
    std::uint64_t controlLost = 0; ///< times that a silent holder lost control
};

} // namespace gevsim
