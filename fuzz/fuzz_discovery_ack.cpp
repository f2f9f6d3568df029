// What may come as the answer to a DISCOVERY or a FORCEIP: the input is one datagram.
#include "client/Bootstrap.h"
#include "client/DiscoveryPackets.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

constexpr std::uint16_t requestId = 0x5A43;

/// A text must be fit to be printed, whatever the camera sends.
void require(const std::string& text, std::size_t most)
{
    const auto control = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; };
    if (text.size() > most || std::any_of(text.begin(), text.end(), control))
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::vector<std::uint8_t> bytes(data, data + size); // of exactly this size, for the sanitizer
    const auto info = zuGevClient::decodeDiscoveryAck(bytes.data(), bytes.size(), requestId);
    if (info) {
        require(info->manufacturer, 32);
        require(info->model, 32);
        require(info->deviceVersion, 32);
        require(info->manufacturerInfo, 48);
        require(info->serialNumber, 16);
        require(info->userName, 16);
        if (zuGevClient::parseMacAddress(zuGevClient::toString(info->mac)) != info->mac)
            std::abort();
        zuGevClient::FoundCamera camera;
        camera.info = *info;
        camera.seenOn = {"any", info->ip.gateway, info->ip.subnetMask, false};
        const auto proposal = zuGevClient::proposeAddress(camera, {camera});
        if (proposal && ((*proposal ^ camera.seenOn.address) & camera.seenOn.subnetMask) != 0)
            std::abort();
    }
    const auto status = zuGevClient::decodeForceIpAck(bytes.data(), bytes.size(), requestId);
    if (status && info)
        std::abort();
    if (status && zuGevClient::statusText(zuGevClient::statusOfWire(*status)) == std::string("unknown status"))
        std::abort();
    return 0;
}
