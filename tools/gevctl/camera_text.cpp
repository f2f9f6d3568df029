#include "tools/gevctl/camera_text.h"

#include "tools/gevctl/numbers.h"

#include <bit>

namespace gevctl {

using zuGevClient::FoundCamera;
namespace IpMethod = zuGevClient::IpMethod;

std::string addressText(std::uint32_t address) { return zuGevClient::toString(zuGevClient::Endpoint{address, 0}); }

std::string subnetText(std::uint32_t address, std::uint32_t mask)
{
    const bool isPrefix = (~mask & (~mask + 1)) == 0;
    return addressText(address) + '/' + (isPrefix ? std::to_string(std::popcount(mask)) : addressText(mask));
}

std::string methodsText(std::uint32_t methods)
{
    std::string text;
    const auto add = [&](std::uint32_t method, const char* word) {
        if ((methods & method) != 0)
            text += (text.empty() ? "" : ", ") + std::string(word);
    };
    add(IpMethod::persistent, "persistent");
    add(IpMethod::dhcp, "dhcp");
    add(IpMethod::linkLocal, "link-local");
    return text.empty() ? "none" : text;
}

Json toJson(const zuGevClient::CameraInfo& info)
{
    return Json{
        {"version", std::to_string(info.versionMajor) + "." + std::to_string(info.versionMinor)},
        {"deviceMode", hex32(info.deviceMode)},
        {"mac", zuGevClient::toString(info.mac)},
        {"ipConfigurationOptions", hex32(info.ipOptions)},
        {"ipConfigurationCurrent", hex32(info.ipCurrent)},
        {"ip", addressText(info.ip.address)},
        {"subnetMask", addressText(info.ip.subnetMask)},
        {"gateway", addressText(info.ip.gateway)},
        {"manufacturer", info.manufacturer},
        {"model", info.model},
        {"deviceVersion", info.deviceVersion},
        {"manufacturerInfo", info.manufacturerInfo},
        {"serial", info.serialNumber},
        {"userName", info.userName},
    };
}

Json toJson(const FoundCamera& camera, const std::vector<FoundCamera>& found)
{
    Json entry{{"address", zuGevClient::toString(camera.from)}, {"interface", camera.seenOn.name}};
    if (!camera.seenOn.name.empty())
        entry["interfaceAddress"] = subnetText(camera.seenOn.address, camera.seenOn.subnetMask);
    entry["fits"] = camera.fits();
    if (!camera.fits()) {
        if (const auto proposal = zuGevClient::proposeAddress(camera, found))
            entry["proposedAddress"] = addressText(*proposal);
    }
    entry.update(toJson(camera.info));
    return entry;
}

std::string advice(const FoundCamera& camera, const std::vector<FoundCamera>& found)
{
    if (camera.fits())
        return {};
    std::string text = "The address " + subnetText(camera.info.ip.address, camera.info.ip.subnetMask) +
                       " of this camera does not fit " + camera.seenOn.name + ", which has " +
                       subnetText(camera.seenOn.address, camera.seenOn.subnetMask) + ".\n";
    const auto proposal = zuGevClient::proposeAddress(camera, found);
    if (!proposal)
        return text + "That subnet has no room for it: give " + camera.seenOn.name + " a wider one.\n";
    return text +
           "Until its next start it can be reached after this, if nobody else has the address:\n    gevctl ip force " +
           zuGevClient::toString(camera.info.mac) + ' ' + subnetText(*proposal, camera.seenOn.subnetMask) + " -i " +
           camera.seenOn.name + '\n';
}

} // namespace gevctl
