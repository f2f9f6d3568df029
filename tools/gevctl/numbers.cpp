// Parsing and printing of numbers and times.
#include "tools/gevctl/numbers.h"

#include <array>
#include <cctype>
#include <charconv>
#include <cstdio>

namespace gevctl {

std::optional<std::uint64_t> parseNumber(const std::string& text, std::uint64_t most)
{
    const bool hexadecimal = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const char* const begin = text.data() + (hexadecimal ? 2 : 0);
    const char* const end = text.data() + text.size();
    std::uint64_t value = 0;
    const auto [stop, error] = std::from_chars(begin, end, value, hexadecimal ? 16 : 10);
    if (begin == end || stop != end || error != std::errc() || value > most)
        return std::nullopt;
    return value;
}

std::optional<std::uint64_t> parseSize(const std::string& text, std::uint64_t most)
{
    if (text.empty())
        return std::nullopt;
    unsigned shift = 0;
    switch (text.back()) {
    case 'k':
    case 'K':
        shift = 10;
        break;
    case 'M':
        shift = 20;
        break;
    case 'G':
        shift = 30;
        break;
    default:
        return parseNumber(text, most);
    }
    const auto value = parseNumber(text.substr(0, text.size() - 1), most >> shift);
    if (!value)
        return std::nullopt;
    return *value << shift;
}

std::optional<std::vector<std::uint8_t>> parseHexBytes(const std::string& text)
{
    std::vector<std::uint8_t> bytes;
    std::size_t at = text.rfind("0x", 0) == 0 || text.rfind("0X", 0) == 0 ? 2 : 0;
    while (at < text.size()) {
        if (text[at] == ' ' || text[at] == ':' || text[at] == ',') {
            ++at;
            continue;
        }
        std::uint8_t value = 0;
        const char* const begin = text.data() + at;
        if (at + 2 > text.size())
            return std::nullopt;
        const auto [stop, error] = std::from_chars(begin, begin + 2, value, 16);
        if (stop != begin + 2 || error != std::errc())
            return std::nullopt;
        bytes.push_back(value);
        at += 2;
    }
    return bytes;
}

std::string hex32(std::uint32_t value)
{
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "0x%08X", value);
    return text.data();
}

std::string utcStamp(std::chrono::system_clock::time_point moment)
{
    using namespace std::chrono;
    const auto day = floor<days>(moment);
    const year_month_day date(day);
    const hh_mm_ss time(floor<milliseconds>(moment) - day);
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                  static_cast<int>(time.seconds().count()), static_cast<int>(time.subseconds().count()));
    return text.data();
}

std::string hexDump(std::uint32_t address, const std::vector<std::uint8_t>& bytes)
{
    constexpr std::size_t width = 16;
    std::string dump;
    for (std::size_t line = 0; line < bytes.size(); line += width) {
        std::array<char, 16> text{};
        std::snprintf(text.data(), text.size(), "%08X ", static_cast<std::uint32_t>(address + line));
        dump += text.data();
        std::string printable;
        for (std::size_t i = line; i < line + width; ++i) {
            if (i - line == width / 2)
                dump += ' ';
            if (i >= bytes.size()) {
                dump += "   ";
                continue;
            }
            std::snprintf(text.data(), text.size(), " %02X", static_cast<unsigned>(bytes[i]));
            dump += text.data();
            printable += bytes[i] >= 0x20 && bytes[i] < 0x7F ? static_cast<char>(bytes[i]) : '.';
        }
        dump += "  |" + printable + "|\n";
    }
    return dump;
}

} // namespace gevctl
