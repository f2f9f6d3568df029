// The head of a camera's register map, which is also what it answers to a discovery. Plain functions, any thread.
#pragma once

#include "client/GevDiscovery.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace zuGevClient {

/// Addresses in the standard's bootstrap map.
namespace bootstrap {
inline constexpr std::uint32_t version = 0x0000;
inline constexpr std::uint32_t deviceMode = 0x0004;
inline constexpr std::uint32_t macHigh = 0x0008;
inline constexpr std::uint32_t macLow = 0x000C;
inline constexpr std::uint32_t ipOptions = 0x0010;
inline constexpr std::uint32_t ipCurrent = 0x0014;
inline constexpr std::uint32_t address = 0x0024;
inline constexpr std::uint32_t subnetMask = 0x0034;
inline constexpr std::uint32_t gateway = 0x0044;
inline constexpr std::uint32_t manufacturer = 0x0048;
inline constexpr std::uint32_t model = 0x0068;
inline constexpr std::uint32_t deviceVersion = 0x0088;
inline constexpr std::uint32_t manufacturerInfo = 0x00A8;
inline constexpr std::uint32_t serialNumber = 0x00D8;
inline constexpr std::uint32_t userName = 0x00E8;
inline constexpr std::uint32_t persistentAddress = 0x064C;
inline constexpr std::uint32_t persistentSubnetMask = 0x065C;
inline constexpr std::uint32_t persistentGateway = 0x066C;

inline constexpr std::size_t headSize = userName + userNameSize; ///< from version to userName
} // namespace bootstrap

/// Empty if there are fewer than bootstrap::headSize bytes.
std::optional<CameraInfo> decodeCameraInfo(const std::uint8_t* bytes, std::size_t size);

/// Text up to its NUL, with what is not UTF-8 or not printable replaced.
std::string cleanText(const std::uint8_t* bytes, std::size_t size);

std::uint32_t load32(const std::uint8_t* bytes);
void store32(std::uint8_t* bytes, std::uint32_t value);

/// Throws std::invalid_argument, with words for the person who typed it, if no camera can have this address.
void requireUsable(const IpAddress& ip);

} // namespace zuGevClient
