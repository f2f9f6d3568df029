// Makes one line of a message: the daemon's line format, or a JSON object. Stateless; any thread.
#pragma once

#include "tools/zuLogSvc/message.h"

#include <cstdint>
#include <string>

namespace zuLogSvc {

enum class Format { line, json };

/// What a line says beyond the daemon's own format. JSON always says all of it.
struct LineOptions {
    Format format = Format::line;
    bool process = false;
    bool thread = false;
    bool location = false;
    bool colour = false; ///< ANSI colours by level
    friend bool operator==(const LineOptions&, const LineOptions&) = default;
};

/// The line, without a line end and without any inside. `arrival` stands in for a time that did not come.
///
///     2026-Nov-12 10:58:49.123456 GEVSVC.Conn.0 [IPConnection|warn] No destination for SendTo. {pid 812, tid 815}
///
/// Line breaks in the text become blanks. A cut text ends in " [cut]"; other missing parts give " [incomplete]".
std::string formatLine(const LogMessage& message, std::uint64_t arrival, const LineOptions& options);

/// Reads "process,thread,location" in any order and number into `options`. False if a word is none of these.
bool parseShow(const std::string& words, LineOptions& options);

} // namespace zuLogSvc
