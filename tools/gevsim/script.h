// The command language: the same lines from code, from the command line and typed while the program runs. Plain
// functions; safe on any thread, as Camera is.
#pragma once

#include "tools/gevsim/fault.h"

#include <stdexcept>
#include <string>

namespace gevsim {

class Camera;

/// A line that can't be understood, in words for whoever typed it.
class ScriptError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Executes one line and returns what it answers, without a line end at its end; empty for an empty line, for a comment
/// (from # to the end) and for what has nothing to say. Throws ScriptError, and nothing is changed then.
std::string runScriptLine(Camera& camera, const std::string& line);

/// Throws ScriptError if the line would not be understood; changes nothing.
void checkScriptLine(const std::string& line);

/// What a person needs to know about the language.
std::string scriptHelp();

} // namespace gevsim
