// The head of a camera's register map, which is also what it answers to a discovery.
#pragma once

#include "client/GevClient.h"

#include <nlohmann/json.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace gevctl {

using Json = nlohmann::ordered_json;

/// Bytes of the map from Version to User-defined Name.
inline constexpr std::size_t bootstrapSize = 0xF8;

struct Bootstrap {
    std::uint16_t versionMajor = 0;
    std::uint16_t versionMinor = 0;
    std::uint32_t deviceMode = 0;
    std::string mac;
    std::uint32_t ipOptions = 0;
    std::uint32_t ipCurrent = 0;
    std::uint32_t ip = 0; ///< this and the next two in host order
    std::uint32_t subnetMask = 0;
    std::uint32_t gateway = 0;
    std::string manufacturer;
    std::string model;
    std::string deviceVersion;
    std::string manufacturerInfo;
    std::string serial;
    std::string userName;
};

/// Empty if there are fewer than bootstrapSize bytes. Texts end at their NUL; what is not UTF-8 in them becomes '?'.
std::optional<Bootstrap> decodeBootstrap(const std::uint8_t* bytes, std::size_t size);

/// The camera's map through the daemon: registers one by one, texts as memory.
std::vector<std::uint8_t> readBootstrap(zuGevClient::Connection& connection);

Json toJson(const Bootstrap& bootstrap);

/// Text up to its NUL, with what is not UTF-8 replaced.
std::string cleanText(const std::uint8_t* bytes, std::size_t size);

} // namespace gevctl
