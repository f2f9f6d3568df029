// Turns a proper acknowledge into what a fault makes of it. Plain function.
#pragma once

#include "tools/gevsim/fault.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace gevsim {

/// A datagram that the camera is to send.
struct Outgoing {
    std::chrono::steady_clock::time_point due;
    Endpoint to;
    std::vector<std::uint8_t> bytes;
};

/// Appends what goes out in place of `reply`, the acknowledge of `command` (a whole header at least). Of faults that
/// keep an acknowledge back or have to do with the command itself, it appends the acknowledge as it is.
void misbehave(const Fault& fault, const std::uint8_t* command, const std::uint8_t* reply, std::size_t replySize,
               const Endpoint& to, std::chrono::steady_clock::time_point now, std::vector<Outgoing>& out);

} // namespace gevsim
