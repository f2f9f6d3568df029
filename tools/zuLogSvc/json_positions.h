// Where in a JSON text each value stands, so that an error in the settings can be told with its line. Stateless.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace zuLogSvc {

/// One thing wrong with a text. `line` and `column` count from 1; 0 where there is none to tell.
struct TextError {
    std::size_t line = 0;
    std::size_t column = 0;
    std::string pointer; ///< JSON pointer such as /rules/0/level; empty for the text as a whole
    std::string reason;
};

/// Lines by JSON pointer.
using LineTable = std::map<std::string, std::size_t>;

/// A key as it stands in a JSON pointer.
std::string escapePointer(const std::string& key);

/// Reads `text` once; comments are allowed. Appends to `errors` what is no JSON, a key that comes twice, and nesting
/// deeper than 32. `lines` gets each value, a member at the line of its key.
void locateValues(std::string_view text, LineTable& lines, std::vector<TextError>& errors);

} // namespace zuLogSvc
