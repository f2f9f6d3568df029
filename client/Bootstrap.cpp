// Decodes the head of the bootstrap register map, and the texts of addresses.
#include "client/Bootstrap.h"

#include "platform/text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <stdexcept>

namespace zuGevClient {

namespace {

std::string dotted(std::uint32_t address) { return toString(Endpoint{address, 0}); }

/// -1 if it is none.
int hexadecimalDigit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

} // namespace

std::string toString(const MacAddress& mac)
{
    std::array<char, 20> text{};
    const auto& m = mac.bytes;
    std::snprintf(text.data(), text.size(), "%02X:%02X:%02X:%02X:%02X:%02X", static_cast<unsigned>(m[0]),
                  static_cast<unsigned>(m[1]), static_cast<unsigned>(m[2]), static_cast<unsigned>(m[3]),
                  static_cast<unsigned>(m[4]), static_cast<unsigned>(m[5]));
    return text.data();
}

std::optional<MacAddress> parseMacAddress(const std::string& text)
{
    MacAddress mac;
    const std::size_t digits = 2 * mac.bytes.size();
    const bool separated = text.size() == digits + mac.bytes.size() - 1;
    if (!separated && text.size() != digits)
        return std::nullopt;
    const std::size_t step = separated ? 3 : 2;
    for (std::size_t i = 0; i < mac.bytes.size(); ++i) {
        const int high = hexadecimalDigit(text[step * i]);
        const int low = hexadecimalDigit(text[step * i + 1]);
        if (high < 0 || low < 0)
            return std::nullopt;
        mac.bytes[i] = static_cast<std::uint8_t>(high * 16 + low);
        if (separated && i != 0 && (text[2] != text[step * i - 1] || (text[2] != ':' && text[2] != '-')))
            return std::nullopt;
    }
    return mac;
}

std::uint32_t load32(const std::uint8_t* bytes)
{
    return (std::uint32_t{bytes[0]} << 24) | (std::uint32_t{bytes[1]} << 16) | (std::uint32_t{bytes[2]} << 8) |
           bytes[3];
}

void store32(std::uint8_t* bytes, std::uint32_t value)
{
    for (std::size_t i = 0; i < 4; ++i)
        bytes[i] = static_cast<std::uint8_t>(value >> (24 - 8 * i));
}

std::string cleanText(const std::uint8_t* bytes, std::size_t size)
{
    const auto* const end = std::find(bytes, bytes + size, std::uint8_t{0});
    std::string text(bytes, end);
    try {
        static_cast<void>(zuPlatform::utf8ToWide(text.data(), text.data() + text.size()));
    } catch (const base2::character_conversion_error&) {
        std::replace_if(
            text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) >= 0x80; }, '?');
    }
    std::replace_if(
        text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }, '?');
    return text;
}

std::optional<CameraInfo> decodeCameraInfo(const std::uint8_t* bytes, std::size_t size)
{
    using namespace bootstrap;
    if (size < headSize)
        return std::nullopt;
    CameraInfo result;
    const std::uint32_t words = load32(bytes + version);
    result.versionMajor = static_cast<std::uint16_t>(words >> 16);
    result.versionMinor = static_cast<std::uint16_t>(words);
    result.deviceMode = load32(bytes + deviceMode);
    std::copy_n(bytes + macHigh + 2, result.mac.bytes.size(), result.mac.bytes.begin());
    result.ipOptions = load32(bytes + ipOptions);
    result.ipCurrent = load32(bytes + ipCurrent);
    result.ip = {load32(bytes + address), load32(bytes + subnetMask), load32(bytes + gateway)};
    result.manufacturer = cleanText(bytes + manufacturer, model - manufacturer);
    result.model = cleanText(bytes + model, deviceVersion - model);
    result.deviceVersion = cleanText(bytes + deviceVersion, manufacturerInfo - deviceVersion);
    result.manufacturerInfo = cleanText(bytes + manufacturerInfo, serialNumber - manufacturerInfo);
    result.serialNumber = cleanText(bytes + serialNumber, bootstrap::userName - serialNumber);
    result.userName = cleanText(bytes + bootstrap::userName, userNameSize);
    return result;
}

void requireUsable(const IpAddress& ip)
{
    const std::uint32_t mask = ip.subnetMask;
    const std::uint32_t host = ip.address & ~mask;
    const std::string text = dotted(ip.address);
    if (mask == 0 || (~mask & (~mask + 1)) != 0)
        throw std::invalid_argument(dotted(mask) + " is no subnet mask");
    const std::uint32_t first = ip.address >> 24;
    if (first == 0 || first >= 224)
        throw std::invalid_argument(text + " is no address for a camera");
    // Subnets of one or two addresses have neither a network nor a broadcast address.
    if (~mask > 1 && (host == 0 || host == ~mask))
        throw std::invalid_argument(
            text + (host == 0 ? " is the address of the subnet itself" : " is the broadcast address of its subnet") +
            ", by the subnet mask " + dotted(mask));
    if (ip.gateway != 0 && (((ip.gateway ^ ip.address) & mask) != 0 || ip.gateway == ip.address))
        throw std::invalid_argument("The gateway " + dotted(ip.gateway) + " is no neighbour of " + text +
                                    ", by the subnet mask " + dotted(mask));
}

} // namespace zuGevClient
