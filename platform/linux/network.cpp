// Network interfaces of this machine. Any thread may call.
#include "platform/network.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <cstring>
#include <memory>

namespace zuPlatform {

namespace {

std::uint32_t ipv4Of(const sockaddr* address)
{
    if (!address || address->sa_family != AF_INET)
        return 0;
    sockaddr_in ipv4{};
    std::memcpy(&ipv4, address, sizeof ipv4);
    return ipv4.sin_addr.s_addr;
}

} // namespace

std::vector<NetworkInterface> networkInterfaces()
{
    ifaddrs* first = nullptr;
    if (::getifaddrs(&first) != 0)
        return {};
    const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> owner(first, &::freeifaddrs);
    std::vector<NetworkInterface> result;
    for (const ifaddrs* entry = first; entry; entry = entry->ifa_next) {
        if (!entry->ifa_addr || entry->ifa_addr->sa_family != AF_INET)
            continue;
        NetworkInterface found;
        found.name = entry->ifa_name;
        found.address = ipv4Of(entry->ifa_addr);
        found.netmask = ipv4Of(entry->ifa_netmask);
        found.broadcast = found.address | ~found.netmask;
        found.loopback = entry->ifa_flags & IFF_LOOPBACK;
        found.up = entry->ifa_flags & IFF_UP;
        result.push_back(std::move(found));
    }
    return result;
}

} // namespace zuPlatform
