// The words in the settings that come from the log service. Exact and case-sensitive. Each function throws
// `LogSvcError` for a word that it doesn't know. Stateless.
#pragma once

#include "platform/socket.h"

#include <cstdint>
#include <string>

#include <boost/property_tree/ptree.hpp>

namespace zuLogging::detail {

enum class LogDestination { none, file, cout, cerr, trace, console, evtlog, logsvc };

LogDestination parse_destination(const std::string& word);

/// A level word, or "0x" and hexadecimal digits, as a mask.
std::uint32_t parse_level(const std::string& word);

bool parse_boolean(const std::string& word);

/// A dotted IPv4 address, ":" and a decimal port from 1 on.
zuPlatform::SocketAddress parse_sockaddr(const std::string& text);

std::string mandatory_key(const boost::property_tree::ptree& settings, const std::string& key);
std::string optional_key(const boost::property_tree::ptree& settings, const std::string& key,
                         const std::string& fallback);

} // namespace zuLogging::detail
