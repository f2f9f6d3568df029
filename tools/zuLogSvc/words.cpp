// Words of the settings.
#include "tools/zuLogSvc/words.h"

#include "platform/socket.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <utility>

namespace zuLogSvc {
namespace {

std::optional<std::uint64_t> parseWithUnit(std::string_view text, std::string_view units, const std::uint64_t* factors,
                                           bool unitNeeded)
{
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end == text.data())
        return std::nullopt;
    const std::string_view rest = text.substr(static_cast<std::size_t>(end - text.data()));
    if (rest.empty())
        return unitNeeded ? std::nullopt : std::optional(value);
    const std::size_t unit = units.find(rest.front());
    if (rest.size() != 1 || unit == std::string_view::npos)
        return std::nullopt;
    if (value > std::numeric_limits<std::uint64_t>::max() / factors[unit])
        return std::nullopt;
    return value * factors[unit];
}

} // namespace

std::optional<std::uint32_t> levelMask(const std::string& word)
{
    static constexpr std::pair<std::string_view, std::uint32_t> words[] = {
        {"none", 0x00},    {"fatal", 0x01}, {"err", 0x03},   {"error", 0x03}, {"warn", 0x07},
        {"warning", 0x07}, {"info", 0x0F},  {"trace", 0x1F}, {"debug", 0x3F}, {"all", 0xFF}};
    for (const auto& [name, mask] : words)
        if (word == name)
            return mask;
    if (word.size() < 3 || word[0] != '0' || (word[1] != 'x' && word[1] != 'X'))
        return std::nullopt;
    std::uint32_t mask = 0;
    const auto [end, error] = std::from_chars(word.data() + 2, word.data() + word.size(), mask, 16);
    if (error != std::errc() || end != word.data() + word.size() || mask == std::numeric_limits<std::uint32_t>::max())
        return std::nullopt;
    return mask;
}

const char* levelWord(std::uint64_t level)
{
    switch (level) {
    case 0x01:
        return "fatal";
    case 0x02:
        return "err";
    case 0x04:
        return "warn";
    case 0x08:
        return "info";
    case 0x10:
        return "trace";
    case 0x20:
        return "debug";
    default:
        return "unknwn";
    }
}

bool isDestination(std::string_view word)
{
    static constexpr std::string_view words[] = {"none",  "file",    "cout",   "cerr",
                                                 "trace", "console", "evtlog", "logsvc"};
    return std::find(std::begin(words), std::end(words), word) != std::end(words);
}

std::optional<bool> booleanWord(std::string_view word)
{
    for (const std::string_view yes : {"true", "on", "enabled", "1"})
        if (word == yes)
            return true;
    for (const std::string_view no : {"false", "off", "disabled", "0"})
        if (word == no)
            return false;
    return std::nullopt;
}

bool isSocketAddress(const std::string& text)
{
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos)
        return false;
    const std::string port = text.substr(colon + 1);
    std::uint16_t number = 0;
    const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), number);
    if (port.empty() || port[0] == '0' || error != std::errc() || end != port.data() + port.size())
        return false;
    std::uint32_t address = 0;
    return zuPlatform::parseIpv4(text.substr(0, colon).c_str(), address);
}

bool matchesWildcard(std::string_view pattern, std::string_view text)
{
    std::size_t p = 0, t = 0;
    std::size_t star = std::string_view::npos, resume = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            resume = t;
        } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == text[t])) {
            ++p;
            ++t;
        } else if (star != std::string_view::npos) {
            p = star + 1;
            t = ++resume;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*')
        ++p;
    return p == pattern.size();
}

std::optional<std::uint64_t> parseSize(std::string_view text)
{
    static constexpr std::uint64_t factors[] = {1024, 1024, 1024 * 1024, 1024 * 1024 * 1024};
    return parseWithUnit(text, "kKMG", factors, false);
}

std::optional<std::uint64_t> parseDuration(std::string_view text)
{
    static constexpr std::uint64_t factors[] = {1, 60, 3600, 86400};
    return parseWithUnit(text, "smhd", factors, true);
}

} // namespace zuLogSvc
