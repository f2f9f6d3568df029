// The executable's jobs, chosen by its command line.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

#include <boost/program_options/options_description.hpp>
#include <boost/program_options/variables_map.hpp>

namespace zuGevDaemon {

enum class RunMode { Install = 0, Delete = 1, Start = 2, Stop = 3, Help = 4, Execute = 5, Service = 6 };

boost::program_options::options_description MakeOptions();

/// The mode that the options present choose; a later one in the order of `RunMode`'s tests overrides an earlier one.
RunMode ComputeMode(const boost::program_options::variables_map& options);

/// File version as four 16-bit words, major in bits 63..48; 0 until it has been looked up.
extern std::uint64_t VersionQuad;

void PrintBanner(std::ostream& out);

/// Makes this process the one daemon of the machine, waiting up to 500 ms for another to end. False, with the reason on
/// standard output where the system refused, if it did not become that.
bool AcquireInstanceMutex();
void ReleaseInstanceMutex(); ///< gives up what `AcquireInstanceMutex` took
void CloseInstanceMutex();   ///< and the handle, held or not

void RunExecute();
void RunInstall(const std::string& executablePath);
void RunDelete();
void RunStart();
void RunStop();
void RunService();

} // namespace zuGevDaemon
