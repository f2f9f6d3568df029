// The command line of the program gevsim.
#pragma once

#include "tools/gevsim/config.h"

#include <stdexcept>
#include <string>
#include <vector>

namespace gevsim {

/// A command line that can't be understood, in words for whoever typed it.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct Options {
    Config camera;      ///< of the first one
    unsigned count = 1; ///< cameras, at successive addresses
    bool trace = false;
    bool input = true;         ///< reads commands from standard input
    bool endWithInput = false; ///< ends at the end of standard input
    bool help = false, version = false;
    std::vector<std::string> commands; ///< executed before the first datagram is awaited
};

/// Throws UsageError.
Options parseOptions(int argc, const char* const* argv);

/// The whole text of --help.
std::string helpText();

} // namespace gevsim
