// The command line: what was asked for, checked as far as it can be without a camera.
#pragma once

#include "client/GevDiscovery.h"
#include "features/FeatureTypes.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace gevctl {

enum ExitCode : int {
    exitSuccess = 0,
    exitFailure = 1,  ///< anything that is none of the below: files, time-outs of the daemon, an interruption
    exitUsage = 2,    ///< the command line
    exitNoDaemon = 3, ///< none is running, or it went away
    exitCamera = 4,   ///< the camera refused or did not answer
    exitFeature = 5,  ///< no such feature, a value that it doesn't take now, or a description at fault
};

struct Options;
struct Surroundings;
using Command = void (*)(const Options& options, const Surroundings& around);

/// How long a command of a camera is waited for, if nothing else is said.
inline constexpr std::uint32_t defaultCommandWaitMs = 5000;

struct Options {
    Command command = nullptr; ///< one of those in commands.h
    bool json = false;
    bool quiet = false;

    std::optional<zuGevClient::Endpoint> camera;
    std::optional<zuGevClient::Endpoint> local;
    std::optional<zuGevClient::LinkMode> access; ///< no link if not given
    std::optional<std::uint32_t> ackTimeoutMs;
    std::optional<std::uint32_t> retries;
    std::optional<std::uint32_t> heartbeatMs;

    std::vector<std::string> interfaces;               ///< names or addresses
    std::vector<zuGevClient::Endpoint> unicastTargets; ///< asked one by one
    std::uint32_t waitMs = 1000;

    std::vector<std::uint32_t> addresses;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> writes;

    std::uint32_t address = 0;
    std::uint64_t size = 0;
    std::string file; ///< "-" is standard input or output; empty: none was named
    std::vector<std::uint8_t> data;
    bool verify = false;

    bool raw = false;
    bool urlOnly = false;

    std::optional<std::uint32_t> durationMs; ///< of watch, for ever if not given; of a feature's run

    std::vector<std::string> features; ///< names, or NAME=VALUE
    zuGevFeatures::Visibility visibility = zuGevFeatures::Visibility::beginner;
    std::string which;                  ///< camera: MAC address, serial number, name or present address
    zuGevClient::IpAddress ip;          ///< to give; subnet mask 0: that of the interface
    bool anyway = false;                ///< also an address that doesn't fit
    std::optional<std::string> setting; ///< "on", "off", an address, a name; none: only show
};

/// Either options, or what to print and the exit code: help goes to standard output with 0, a complaint to standard
/// error with exitUsage.
struct Parsed {
    std::optional<Options> options;
    int exitCode = exitSuccess;
    std::string out;
    std::string err;
};

Parsed parseCommandLine(std::vector<std::string> arguments);

} // namespace gevctl
