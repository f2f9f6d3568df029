// Text of clients made safe: whatever bytes come, valid UTF-8 goes on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace zuLogSvc {

/// `bytes` as UTF-8; each byte or sequence that is none becomes U+FFFD.
std::string sanitizeUtf8(std::string_view bytes);

/// Narrow text of a client that writes in `codePage` (Windows numbers; 65001 is UTF-8). Code pages 1252, 28591 and
/// 20127 are converted; text of any other is kept where it is UTF-8 by chance, and has U+FFFD in the other places.
std::string narrowToUtf8(std::string_view bytes, std::uint64_t codePage);

/// UTF-16LE to UTF-8; lone surrogates and an odd byte at the end become U+FFFD.
std::string utf16ToUtf8(const std::uint8_t* data, std::size_t bytes);

/// `text` without the character at its end that a cut left incomplete, if there is one.
std::string_view withoutCutCharacter(std::string_view text);

/// Makes one printable line of valid UTF-8: control characters other than the tab become \xNN, so that no message can
/// break a line or steer a terminal.
std::string escapeControls(std::string_view text);

} // namespace zuLogSvc
