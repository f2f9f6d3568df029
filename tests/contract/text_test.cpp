// Conversions between UTF-8, wide text and UTF-16.
#include "platform/text.h"

#include <gmock/gmock.h>

using namespace zuPlatform;
using base2::character_conversion_error;

namespace {

std::string utf8(const std::wstring& text) { return wideToUtf8(text.data(), text.data() + text.size()); }
std::wstring wide(const std::string& text) { return utf8ToWide(text.data(), text.data() + text.size()); }
std::u16string utf16(const std::wstring& text) { return wideToUtf16(text.data(), text.data() + text.size()); }

struct Sample {
    char32_t point;
    const char* bytes;
};
// The first and last code point of each length, and around the surrogates.
const Sample samples[] = {
    {0x01, "\x01"},
    {0x7F, "\x7f"},
    {0x80, "\xc2\x80"},
    {0x7FF, "\xdf\xbf"},
    {0x800, "\xe0\xa0\x80"},
    {0xD7FF, "\xed\x9f\xbf"},
    {0xE000, "\xee\x80\x80"},
    {0xFFFF, "\xef\xbf\xbf"},
    {0x10000, "\xf0\x90\x80\x80"},
    {0x10FFFF, "\xf4\x8f\xbf\xbf"},
};

} // namespace

TEST(Text, ConvertsEachLength)
{
    for (const Sample& sample : samples) {
        const std::wstring text(1, static_cast<wchar_t>(sample.point));
        EXPECT_EQ(utf8(text), sample.bytes);
        EXPECT_EQ(wide(sample.bytes), text);
    }
    EXPECT_EQ(utf8(L""), "");
    EXPECT_EQ(wide(""), L"");
    EXPECT_EQ(utf8(std::wstring(L"a\0b", 3)), std::string("a\0b", 3));
    EXPECT_EQ(wide(std::string("a\0b", 3)), std::wstring(L"a\0b", 3));
}

TEST(Text, EveryCodePointComesBack)
{
    for (char32_t point = 0; point <= 0x10FFFF; ++point) {
        if (point == 0xD800)
            point = 0xE000;
        const std::wstring text(1, static_cast<wchar_t>(point));
        ASSERT_EQ(wide(utf8(text)), text) << static_cast<unsigned>(point);
    }
}

TEST(Text, Utf16UsesPairsAboveTheFirstPlane)
{
    EXPECT_EQ(utf16(L"a\uFFFF\U00010000\U0010FFFF"), std::u16string({u'a', 0xFFFF, 0xD800, 0xDC00, 0xDBFF, 0xDFFF}));
    EXPECT_EQ(utf16(L"\U0001F600"), u"\U0001F600");
    EXPECT_EQ(utf16(L""), u"");
}

TEST(Text, WideCharactersOutsideUnicodeAreRefused)
{
    for (const char32_t point : {0xD800u, 0xDBFFu, 0xDC00u, 0xDFFFu, 0x110000u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        const std::wstring text = {L'a', static_cast<wchar_t>(point)};
        EXPECT_THROW(utf8(text), character_conversion_error) << static_cast<unsigned>(point);
        EXPECT_THROW(utf16(text), character_conversion_error) << static_cast<unsigned>(point);
    }
}

TEST(Text, MalformedUtf8IsRefused)
{
    for (const char* text : {
             "\x80",
             "\xbf",
             "\xc0\x80",
             "\xc1\xbf",
             "\xc2",
             "\xc2\x41",
             "\xe0\x9f\xbf",
             "\xe1\x80",
             "\xe1\x80\x41",
             "\xed\xa0\x80",
             "\xed\xbf\xbf",
             "\xf0\x8f\xbf\xbf",
             "\xf0\x90\x80",
             "\xf4\x90\x80\x80",
             "\xf5\x80\x80\x80",
             "\xf8\x88\x80\x80\x80",
             "\xfe",
             "\xff",
             "ok\xc3",
         })
        EXPECT_THROW(wide(text), character_conversion_error) << testing::PrintToString(std::string(text));
}

TEST(Text, TruncatedAnywhereItNeverReadsOn)
{
    // The buffer ends where the text does, so that a read beyond it shows under AddressSanitizer.
    for (const Sample& sample : samples) {
        const std::string whole = sample.bytes;
        for (std::size_t size = 1; size < whole.size(); ++size) {
            const std::vector<char> cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
            EXPECT_THROW(utf8ToWide(cut.data(), cut.data() + cut.size()), character_conversion_error);
        }
    }
}

TEST(Text, TheErrorIsARuntimeError)
{
    try {
        wide("\xff");
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_STRNE(error.what(), "");
    }
}
