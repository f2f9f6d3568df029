// What gevctl does, once it knows what was asked for.
#pragma once

#include "tools/gevctl/camera_text.h"
#include "tools/gevctl/options.h"

#include <atomic>
#include <istream>
#include <ostream>
#include <stdexcept>

namespace gevctl {

/// The world around a command; tests put their own in its place.
struct Surroundings {
    std::istream& in;
    std::ostream& out;
    std::ostream& err;
    bool outputIsTerminal = false;
    bool errorIsTerminal = false;
    const std::atomic<bool>& stop; ///< set when the command is to end early
};

/// Bytes of a transfer between two looks at the stop flag: sixteen of the library's commands.
inline constexpr std::size_t pieceSize = std::size_t{16} * 1664;

/// Ended early, on request.
class Interrupted : public std::runtime_error {
public:
    Interrupted() : std::runtime_error("Interrupted") {}
};

/// Runs the command and prints its outcome; gives the exit code. Throws nothing.
int run(const Options& options, const Surroundings& around);

// The commands. They throw on failure.
void runDiscover(const Options& options, const Surroundings& around);
void runInfo(const Options& options, const Surroundings& around);
void runReadRegisters(const Options& options, const Surroundings& around);
void runWriteRegisters(const Options& options, const Surroundings& around);
void runReadMemory(const Options& options, const Surroundings& around);
void runWriteMemory(const Options& options, const Surroundings& around);
void runXml(const Options& options, const Surroundings& around);
void runWatch(const Options& options, const Surroundings& around);
void runTimeouts(const Options& options, const Surroundings& around);
void runStatus(const Options& options, const Surroundings& around);
void runCheck(const Options& options, const Surroundings& around);
void runFeatureList(const Options& options, const Surroundings& around);
void runFeatureGet(const Options& options, const Surroundings& around);
void runFeatureSet(const Options& options, const Surroundings& around);
void runFeatureRun(const Options& options, const Surroundings& around);
void runFeatureDescribe(const Options& options, const Surroundings& around);
void runFeatureSave(const Options& options, const Surroundings& around);
void runFeatureLoad(const Options& options, const Surroundings& around);
void runFeatureComplete(const Options& options, const Surroundings& around);
void runIpList(const Options& options, const Surroundings& around);
void runIpForce(const Options& options, const Surroundings& around);
void runIpShow(const Options& options, const Surroundings& around);
void runIpPersistent(const Options& options, const Surroundings& around);
void runIpDhcp(const Options& options, const Surroundings& around);
void runIpLinkLocal(const Options& options, const Surroundings& around);
void runIpName(const Options& options, const Surroundings& around);

/// The discovery that the options ask for.
std::vector<zuGevClient::FoundCamera> search(const Options& options, const Surroundings& around);

/// Tells on standard error, unless that is to be quiet, which cameras don't fit and how to mend it, or that there is
/// none.
void remarkOn(const std::vector<zuGevClient::FoundCamera>& found, const Options& options, const Surroundings& around);

/// A connection to the camera of the options, tuned, and linked if they say so.
zuGevClient::Connection connect(const Options& options);

/// Memory in pieces, with a progress bar where a person watches. Throws Interrupted.
std::vector<std::uint8_t> fetch(zuGevClient::Connection& connection, std::uint32_t address, std::size_t size,
                                const std::string& label, const Options& options, const Surroundings& around);

/// To the file, or to standard output for "-" and "". Throws std::runtime_error.
void store(const std::string& file, const std::vector<std::uint8_t>& bytes, const Surroundings& around);

/// From the file, or from standard input for "-". Throws std::runtime_error.
std::vector<std::uint8_t> load(const std::string& file, const Surroundings& around);

void print(const Surroundings& around, const Json& json);

/// "name:    value" for each member.
void printTable(const Surroundings& around, const Json& object);

/// What register CCP says, in words.
std::string privilegeText(std::uint32_t privilege);

} // namespace gevctl
