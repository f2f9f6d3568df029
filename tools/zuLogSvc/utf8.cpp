// Conversions between what clients send and UTF-8. Stateless; any thread.
#include "tools/zuLogSvc/utf8.h"

#include <array>

namespace zuLogSvc {
namespace {

constexpr char32_t replacement = 0xFFFD;

void append(std::string& out, char32_t c)
{
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

/// Length of the well-formed sequence at the front of `text`, or 0.
std::size_t sequenceLength(std::string_view text)
{
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(0);
    if (first < 0x80)
        return 1;
    std::size_t length = 0;
    unsigned char low = 0x80, high = 0xBF;
    if (first >= 0xC2 && first <= 0xDF) {
        length = 2;
    } else if (first >= 0xE0 && first <= 0xEF) {
        length = 3;
        if (first == 0xE0)
            low = 0xA0; // overlong below
        if (first == 0xED)
            high = 0x9F; // surrogates above
    } else if (first >= 0xF0 && first <= 0xF4) {
        length = 4;
        if (first == 0xF0)
            low = 0x90;
        if (first == 0xF4)
            high = 0x8F; // beyond U+10FFFF
    } else {
        return 0;
    }
    if (text.size() < length || byte(1) < low || byte(1) > high)
        return 0;
    for (std::size_t i = 2; i < length; ++i)
        if (byte(i) < 0x80 || byte(i) > 0xBF)
            return 0;
    return length;
}

// Windows-1252, 0x80 to 0x9F; five values are not assigned.
constexpr std::array<char16_t, 32> cp1252 = {0x20AC, 0xFFFD, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
                                             0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0xFFFD, 0x017D, 0xFFFD,
                                             0xFFFD, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
                                             0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0xFFFD, 0x017E, 0x0178};

std::string singleByteToUtf8(std::string_view bytes, std::uint64_t codePage)
{
    std::string out;
    out.reserve(bytes.size());
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x80)
            append(out, byte);
        else if (codePage == 20127)
            append(out, replacement);
        else if (codePage == 1252 && byte < 0xA0)
            append(out, cp1252[byte - 0x80u]);
        else
            append(out, byte);
    }
    return out;
}

} // namespace

std::string sanitizeUtf8(std::string_view bytes)
{
    std::string out;
    out.reserve(bytes.size());
    while (!bytes.empty()) {
        const std::size_t length = sequenceLength(bytes);
        if (length == 0)
            append(out, replacement);
        else
            out.append(bytes.substr(0, length));
        bytes.remove_prefix(length == 0 ? 1 : length);
    }
    return out;
}

std::string narrowToUtf8(std::string_view bytes, std::uint64_t codePage)
{
    if (codePage == 1252 || codePage == 28591 || codePage == 20127)
        return singleByteToUtf8(bytes, codePage);
    return sanitizeUtf8(bytes);
}

std::string utf16ToUtf8(const std::uint8_t* data, std::size_t bytes)
{
    std::string out;
    out.reserve(bytes);
    const auto unit = [&](std::size_t at) { return static_cast<char32_t>(data[at] | (data[at + 1] << 8)); };
    std::size_t at = 0;
    while (bytes - at >= 2) {
        const char32_t c = unit(at);
        at += 2;
        if (c < 0xD800 || c > 0xDFFF) {
            append(out, c);
        } else if (c <= 0xDBFF && bytes - at >= 2 && unit(at) >= 0xDC00 && unit(at) <= 0xDFFF) {
            append(out, 0x10000 + ((c - 0xD800) << 10) + (unit(at) - 0xDC00));
            at += 2;
        } else {
            append(out, replacement);
        }
    }
    if (at != bytes)
        append(out, replacement);
    return out;
}

std::string_view withoutCutCharacter(std::string_view text)
{
    for (std::size_t back = 1; back <= 3 && back <= text.size(); ++back) {
        const auto byte = static_cast<unsigned char>(text[text.size() - back]);
        if (byte >= 0xC0) {
            const std::size_t wanted = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : 2;
            return wanted > back ? text.substr(0, text.size() - back) : text;
        }
        if (byte < 0x80)
            return text;
    }
    return text;
}

std::string escapeControls(std::string_view text)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        auto byte = static_cast<unsigned char>(text[i]);
        // U+0080 to U+009F are controls too, and some terminals obey them.
        const bool second = byte == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xA0;
        if (second)
            byte = static_cast<unsigned char>(text[++i]);
        if (second || (byte < 0x20 && byte != '\t') || byte == 0x7F) {
            out += "\\x";
            out += digits[byte >> 4];
            out += digits[byte & 15];
        } else {
            out += static_cast<char>(byte);
        }
    }
    return out;
}

} // namespace zuLogSvc
