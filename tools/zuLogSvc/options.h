// The command line.
#pragma once

#include "tools/zuLogSvc/follow_filter.h"
#include "tools/zuLogSvc/settings.h"

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

namespace zuLogSvc {

enum ExitStatus : int {
    exitGood = 0,
    exitFailure = 1,
    exitUsage = 2,
    exitAlreadyRunning = 3,
    exitSettings = 4,
    exitNotRunning = 5,
};

struct Options {
    std::string config;
    bool checkConfig = false;
    bool follow = false;
    bool wait = false;
    FollowFilter filter;
    std::optional<std::uint16_t> commandPort, messagePort;
    bool json = false;
    LineOptions show; ///< what --show names
    std::string colour = "auto";
    std::string namePrefix;
};

/// The options, or the exit status if the run is over: help and version are printed, and so is what is wrong.
std::variant<Options, int> parseOptions(int argc, char** argv);

/// The options on top of the settings: ports, and how standard output's lines look.
void applyOptions(const Options& options, Settings& settings);

/// Lines for standard output as the options have them.
LineOptions standardOutputLines(const Options& options, LineOptions lines);

/// Four numbers of the program's version, or "unknown".
std::string versionText();

} // namespace zuLogSvc
