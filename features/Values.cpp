// Texts of values, and back.
#include "features/Values.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>

namespace zuGevFeatures {

namespace {

template <typename Number>
std::string shortest(Number value)
{
    std::array<char, 64> text{};
    const auto [end, error] = std::to_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() ? std::string(text.data(), end) : std::string();
}

/// Without an exponent where people would write it so.
template <typename Real>
std::string plain(Real value)
{
    constexpr Real least = static_cast<Real>(1e-4);
    constexpr Real most = static_cast<Real>(1e12);
    std::array<char, 64> text{};
    if (std::abs(value) < least || std::abs(value) >= most)
        return shortest(value);
    const auto [end, error] = std::to_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed);
    return error == std::errc() ? std::string(text.data(), end) : shortest(value);
}

std::string trimmed(const std::string& text)
{
    const std::size_t first = text.find_first_not_of(" \t");
    return first == std::string::npos ? std::string() : text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

/// `count` numbers up to 255 with `separator` between them, as one number.
std::optional<std::int64_t> parseBytes(const std::string& text, char separator, int base, int count)
{
    std::uint64_t value = 0;
    const char* at = text.data();
    const char* const end = at + text.size();
    for (int i = 0; i < count; ++i) {
        std::uint8_t byte = 0;
        const auto [stop, error] = std::from_chars(at, end, byte, base);
        if (error != std::errc())
            return std::nullopt;
        value = value << 8 | byte;
        at = stop;
        if (i + 1 < count && (at == end || *at++ != separator))
            return std::nullopt;
    }
    return at == end ? std::optional(static_cast<std::int64_t>(value)) : std::nullopt;
}

} // namespace

std::string integerText(std::int64_t value, Notation notation)
{
    std::array<char, 64> text{};
    const auto byte = [&](int index) { return static_cast<unsigned>(value >> (8 * index)) & 0xFFu; };
    switch (notation) {
    case Notation::hexadecimal:
        std::snprintf(text.data(), text.size(), "0x%llX", static_cast<unsigned long long>(value));
        return text.data();
    case Notation::ipAddress:
        std::snprintf(text.data(), text.size(), "%u.%u.%u.%u", byte(3), byte(2), byte(1), byte(0));
        return text.data();
    case Notation::macAddress:
        std::snprintf(text.data(), text.size(), "%02X:%02X:%02X:%02X:%02X:%02X", byte(5), byte(4), byte(3), byte(2),
                      byte(1), byte(0));
        return text.data();
    case Notation::decimal:
        break;
    }
    return shortest(value);
}

std::string realText(double value)
{
    // A 32-bit register's number is written with no more digits than it has.
    const auto narrow = static_cast<float>(value);
    if (std::isfinite(narrow) && static_cast<double>(narrow) == value)
        return plain(narrow);
    return plain(value);
}

std::string valueText(const Value& value, Notation notation)
{
    if (const auto* const integer = std::get_if<std::int64_t>(&value))
        return integerText(*integer, notation);
    if (const auto* const real = std::get_if<double>(&value))
        return realText(*real);
    if (const auto* const truth = std::get_if<bool>(&value))
        return *truth ? "true" : "false";
    return std::get<std::string>(value);
}

std::optional<std::int64_t> parseInteger(const std::string& typed, Notation notation)
{
    const std::string text = trimmed(typed);
    if (notation == Notation::ipAddress && text.find('.') != text.npos)
        return parseBytes(text, '.', 10, 4);
    if (notation == Notation::macAddress && text.find(':') != text.npos)
        return parseBytes(text, ':', 16, 6);
    const bool negative = !text.empty() && text[0] == '-';
    const bool sign = negative || (!text.empty() && text[0] == '+');
    const bool hexadecimal = text.size() > (sign ? 3u : 2u) && text[sign] == '0' && (text[sign + 1] | 0x20) == 'x';
    const char* const begin = text.data() + sign + (hexadecimal ? 2 : 0);
    const char* const end = text.data() + text.size();
    std::uint64_t magnitude = 0;
    const auto [stop, error] = std::from_chars(begin, end, magnitude, hexadecimal ? 16 : 10);
    if (error != std::errc() || stop != end || begin == end)
        return std::nullopt;
    constexpr auto most = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    // All 64 bits may be given in hexadecimal.
    if (magnitude > most + (negative ? 1 : 0) && (!hexadecimal || negative))
        return std::nullopt;
    return static_cast<std::int64_t>(negative ? std::uint64_t{0} - magnitude : magnitude);
}

std::optional<double> parseReal(const std::string& typed)
{
    const std::string text = trimmed(typed);
    const std::size_t plus = !text.empty() && text[0] == '+' ? 1 : 0;
    double value = 0;
    const auto [stop, error] = std::from_chars(text.data() + plus, text.data() + text.size(), value);
    if (error == std::errc() && stop == text.data() + text.size() && std::isfinite(value))
        return value;
    const auto integer = parseInteger(text);
    return integer ? std::optional(static_cast<double>(*integer)) : std::nullopt;
}

std::optional<bool> parseBoolean(const std::string& typed)
{
    std::string text = trimmed(typed);
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    for (const char* const yes : {"true", "on", "yes", "1"}) {
        if (text == yes)
            return true;
    }
    for (const char* const no : {"false", "off", "no", "0"}) {
        if (text == no)
            return false;
    }
    return std::nullopt;
}

std::string boundsText(const State& state, Notation notation)
{
    std::string text;
    if (state.minimum && state.maximum)
        text = valueText(*state.minimum, notation) + " to " + valueText(*state.maximum, notation);
    else if (state.minimum)
        text = "at least " + valueText(*state.minimum, notation);
    else if (state.maximum)
        text = "at most " + valueText(*state.maximum, notation);
    if (state.increment && !sameValue(*state.increment, Value(std::int64_t{1})))
        text += (text.empty() ? "steps of " : " in steps of ") + valueText(*state.increment);
    return text;
}

bool sameReal(double a, double b)
{
    constexpr double rounding = 1e-6;
    return a == b || std::abs(a - b) <= rounding * std::max(std::abs(a), std::abs(b));
}

bool sameValue(const Value& a, const Value& b)
{
    const auto number = [](const Value& value) -> std::optional<double> {
        if (const auto* const real = std::get_if<double>(&value))
            return *real;
        if (const auto* const integer = std::get_if<std::int64_t>(&value))
            return static_cast<double>(*integer);
        return std::nullopt;
    };
    if (a.index() == b.index() && !std::holds_alternative<double>(a))
        return a == b;
    const auto left = number(a);
    const auto right = number(b);
    return left && right && sameReal(*left, *right);
}

} // namespace zuGevFeatures
