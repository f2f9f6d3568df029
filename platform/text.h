// Conversions between UTF-8, wide text and UTF-16.
#pragma once

#include <stdexcept>
#include <string>

namespace base2 {

/// Text that can't be converted: malformed, or outside the target's range.
class character_conversion_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace base2

namespace zuPlatform {

/// Each throws `base2::character_conversion_error`.
std::string wideToUtf8(const wchar_t* begin, const wchar_t* end);
std::wstring utf8ToWide(const char* begin, const char* end);
std::u16string wideToUtf16(const wchar_t* begin, const wchar_t* end);

} // namespace zuPlatform
