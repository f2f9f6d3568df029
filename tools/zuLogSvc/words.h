// The words of the settings that clients understand: levels, destinations, booleans, socket addresses, and wildcards.
// All words are exact and case-sensitive. Stateless; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zuLogSvc {

/// The mask that a level word or a hexadecimal mask ("0x1f") stands for.
std::optional<std::uint32_t> levelMask(const std::string& word);

/// The word of one level bit: "fatal" ... "debug", and "unknwn" for anything else.
const char* levelWord(std::uint64_t level);

bool isDestination(std::string_view word);

std::optional<bool> booleanWord(std::string_view word);

/// Whether `text` is "a.b.c.d:port", with a port that begins with a digit from 1 to 9 and is below 65536.
bool isSocketAddress(const std::string& text);

/// `*` stands for any characters, also none, `?` for one; everything else for itself.
bool matchesWildcard(std::string_view pattern, std::string_view text);

/// "10M" and the like: a number with an optional k, M or G (powers of 1024).
std::optional<std::uint64_t> parseSize(std::string_view text);

/// "15m", "6h", "1d": a number with s, m, h or d; in seconds.
std::optional<std::uint64_t> parseDuration(std::string_view text);

} // namespace zuLogSvc
