// Network interfaces of this machine.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zuPlatform {

/// One IPv4 address of an interface. Addresses are in network byte order.
struct NetworkInterface {
    std::string name;
    std::uint32_t address = 0;
    std::uint32_t netmask = 0;
    std::uint32_t broadcast = 0; ///< address with all host bits set
    bool loopback = false;
    bool up = false;
};

std::vector<NetworkInterface> networkInterfaces();

} // namespace zuPlatform
