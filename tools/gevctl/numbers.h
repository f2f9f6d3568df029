// Numbers and times as people type and read them.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace gevctl {

/// Decimal, or hexadecimal with 0x in front; nothing before or behind. Empty if the text is none or exceeds `most`.
std::optional<std::uint64_t> parseNumber(const std::string& text, std::uint64_t most);

/// Byte counts may end in k, M or G (times 1024).
std::optional<std::uint64_t> parseSize(const std::string& text, std::uint64_t most);

/// Pairs of hexadecimal digits; blanks, colons and commas between pairs are passed over, and so is a leading 0x.
std::optional<std::vector<std::uint8_t>> parseHexBytes(const std::string& text);

/// "0x" and at least eight digits.
std::string hex32(std::uint32_t value);

/// UTC, to the millisecond: "2026-11-12T10:58:49.123Z". Any thread.
std::string utcStamp(std::chrono::system_clock::time_point moment);

/// Sixteen bytes a line: address, bytes, and what of them is printable.
std::string hexDump(std::uint32_t address, const std::vector<std::uint8_t>& bytes);

} // namespace gevctl
