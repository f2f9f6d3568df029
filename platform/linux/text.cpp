// Strict conversions of Unicode text. Wide characters hold one code point each.
#include "platform/text.h"

#include <cstdint>

namespace zuPlatform {

namespace {

static_assert(sizeof(wchar_t) == 4);

[[noreturn]] void fail(const char* what) { throw base2::character_conversion_error(what); }

char32_t codePoint(wchar_t value)
{
    const auto point = static_cast<char32_t>(value);
    if (point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF))
        fail("Wide text holds a character outside Unicode");
    return point;
}

} // namespace

std::string wideToUtf8(const wchar_t* begin, const wchar_t* end)
{
    std::string result;
    result.reserve(static_cast<std::size_t>(end - begin));
    for (; begin != end; ++begin) {
        const char32_t point = codePoint(*begin);
        const auto continuation = [&](unsigned shift) {
            result += static_cast<char>(0x80 | ((point >> shift) & 0x3F));
        };
        if (point < 0x80) {
            result += static_cast<char>(point);
        } else if (point < 0x800) {
            result += static_cast<char>(0xC0 | (point >> 6));
            continuation(0);
        } else if (point < 0x10000) {
            result += static_cast<char>(0xE0 | (point >> 12));
            continuation(6);
            continuation(0);
        } else {
            result += static_cast<char>(0xF0 | (point >> 18));
            continuation(12);
            continuation(6);
            continuation(0);
        }
    }
    return result;
}

std::wstring utf8ToWide(const char* begin, const char* end)
{
    std::wstring result;
    result.reserve(static_cast<std::size_t>(end - begin));
    while (begin != end) {
        const auto lead = static_cast<unsigned char>(*begin++);
        if (lead < 0x80) {
            result += static_cast<wchar_t>(lead);
            continue;
        }
        const unsigned more = lead >= 0xC2 && lead < 0xE0 ? 1 : lead >= 0xE0 && lead < 0xF0 ? 2 : 3;
        if (lead < 0xC2 || lead > 0xF4)
            fail("Text is not UTF-8: bad first byte of a character");
        char32_t point = lead & (0x3Fu >> more);
        for (unsigned i = 0; i < more; ++i) {
            if (begin == end || (static_cast<unsigned char>(*begin) & 0xC0) != 0x80)
                fail("Text is not UTF-8: a character is cut short");
            point = (point << 6) | (static_cast<unsigned char>(*begin++) & 0x3F);
        }
        const bool overlong = (more == 2 && point < 0x800) || (more == 3 && point < 0x10000);
        if (overlong || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF))
            fail("Text is not UTF-8: a character outside Unicode");
        result += static_cast<wchar_t>(point);
    }
    return result;
}

std::u16string wideToUtf16(const wchar_t* begin, const wchar_t* end)
{
    std::u16string result;
    result.reserve(static_cast<std::size_t>(end - begin));
    for (; begin != end; ++begin) {
        const char32_t point = codePoint(*begin);
        if (point < 0x10000) {
            result += static_cast<char16_t>(point);
        } else {
            result += static_cast<char16_t>(0xD800 + ((point - 0x10000) >> 10));
            result += static_cast<char16_t>(0xDC00 + ((point - 0x10000) & 0x3FF));
        }
    }
    return result;
}

} // namespace zuPlatform
