// Decodes the head of the bootstrap register map.
#include "tools/gevctl/bootstrap.h"

#include "tools/gevctl/numbers.h"

#include "platform/text.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace gevctl {

namespace {

// Addresses in the standard's bootstrap map.
constexpr std::size_t versionAt = 0x0000;
constexpr std::size_t deviceModeAt = 0x0004;
constexpr std::size_t macHighAt = 0x0008;
constexpr std::size_t macLowAt = 0x000C;
constexpr std::size_t ipOptionsAt = 0x0010;
constexpr std::size_t ipCurrentAt = 0x0014;
constexpr std::size_t ipAt = 0x0024;
constexpr std::size_t subnetMaskAt = 0x0034;
constexpr std::size_t gatewayAt = 0x0044;
constexpr std::size_t manufacturerAt = 0x0048;
constexpr std::size_t modelAt = 0x0068;
constexpr std::size_t deviceVersionAt = 0x0088;
constexpr std::size_t manufacturerInfoAt = 0x00A8;
constexpr std::size_t serialAt = 0x00D8;
constexpr std::size_t userNameAt = 0x00E8;

constexpr std::array registersBelowTheTexts{versionAt,   deviceModeAt, macHighAt,    macLowAt, ipOptionsAt,
                                            ipCurrentAt, ipAt,         subnetMaskAt, gatewayAt};

std::uint32_t load32(const std::uint8_t* bytes)
{
    return (std::uint32_t{bytes[0]} << 24) | (std::uint32_t{bytes[1]} << 16) | (std::uint32_t{bytes[2]} << 8) |
           bytes[3];
}

std::string address(std::uint32_t ip) { return zuGevClient::toString(zuGevClient::Endpoint{ip, 0}); }

} // namespace

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

std::optional<Bootstrap> decodeBootstrap(const std::uint8_t* bytes, std::size_t size)
{
    if (size < bootstrapSize)
        return std::nullopt;
    Bootstrap result;
    const std::uint32_t version = load32(bytes + versionAt);
    result.versionMajor = static_cast<std::uint16_t>(version >> 16);
    result.versionMinor = static_cast<std::uint16_t>(version);
    result.deviceMode = load32(bytes + deviceModeAt);
    std::array<char, 20> mac{};
    const std::uint8_t* const m = bytes + macHighAt + 2;
    std::snprintf(mac.data(), mac.size(), "%02X:%02X:%02X:%02X:%02X:%02X", static_cast<unsigned>(m[0]),
                  static_cast<unsigned>(m[1]), static_cast<unsigned>(m[2]), static_cast<unsigned>(m[3]),
                  static_cast<unsigned>(m[4]), static_cast<unsigned>(m[5]));
    result.mac = mac.data();
    result.ipOptions = load32(bytes + ipOptionsAt);
    result.ipCurrent = load32(bytes + ipCurrentAt);
    result.ip = load32(bytes + ipAt);
    result.subnetMask = load32(bytes + subnetMaskAt);
    result.gateway = load32(bytes + gatewayAt);
    result.manufacturer = cleanText(bytes + manufacturerAt, modelAt - manufacturerAt);
    result.model = cleanText(bytes + modelAt, deviceVersionAt - modelAt);
    result.deviceVersion = cleanText(bytes + deviceVersionAt, manufacturerInfoAt - deviceVersionAt);
    result.manufacturerInfo = cleanText(bytes + manufacturerInfoAt, serialAt - manufacturerInfoAt);
    result.serial = cleanText(bytes + serialAt, userNameAt - serialAt);
    result.userName = cleanText(bytes + userNameAt, bootstrapSize - userNameAt);
    return result;
}

std::vector<std::uint8_t> readBootstrap(zuGevClient::Connection& connection)
{
    std::vector<std::uint8_t> bytes(bootstrapSize);
    for (const std::size_t at : registersBelowTheTexts) {
        const std::uint32_t value = connection.readRegister(static_cast<std::uint32_t>(at));
        for (std::size_t i = 0; i < 4; ++i)
            bytes[at + i] = static_cast<std::uint8_t>(value >> (24 - 8 * i));
    }
    connection.readMemory(manufacturerAt, bytes.data() + manufacturerAt, bootstrapSize - manufacturerAt);
    return bytes;
}

Json toJson(const Bootstrap& b)
{
    return Json{
        {"version", std::to_string(b.versionMajor) + "." + std::to_string(b.versionMinor)},
        {"deviceMode", hex32(b.deviceMode)},
        {"mac", b.mac},
        {"ipConfigurationOptions", hex32(b.ipOptions)},
        {"ipConfigurationCurrent", hex32(b.ipCurrent)},
        {"ip", address(b.ip)},
        {"subnetMask", address(b.subnetMask)},
        {"gateway", address(b.gateway)},
        {"manufacturer", b.manufacturer},
        {"model", b.model},
        {"deviceVersion", b.deviceVersion},
        {"manufacturerInfo", b.manufacturerInfo},
        {"serial", b.serial},
        {"userName", b.userName},
    };
}

} // namespace gevctl
