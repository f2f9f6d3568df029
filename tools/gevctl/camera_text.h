// Cameras as gevctl prints them, as JSON and for people.
#pragma once

#include "client/GevDiscovery.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace gevctl {

using Json = nlohmann::ordered_json;

Json toJson(const zuGevClient::CameraInfo& info);

/// With who answered, the interface, and whether the camera fits it.
Json toJson(const zuGevClient::FoundCamera& camera, const std::vector<zuGevClient::FoundCamera>& found);

/// "a.b.c.d".
std::string addressText(std::uint32_t address);

/// "a.b.c.d/24", or with the mask in full where that is no prefix.
std::string subnetText(std::uint32_t address, std::uint32_t mask);

/// "persistent, dhcp, link-local".
std::string methodsText(std::uint32_t methods);

/// What is wrong with a camera's address and what to type to mend it, in lines; empty if nothing.
std::string advice(const zuGevClient::FoundCamera& camera, const std::vector<zuGevClient::FoundCamera>& found);

} // namespace gevctl
