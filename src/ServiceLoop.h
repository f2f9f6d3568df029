// The daemon's whole life, in a console and in the service alike.
#pragma once

#include <atomic>
#include <cstdint>

namespace zuGevDaemon {

/// Set to 1 to end the loop; never reset by it.
extern std::atomic<std::uint64_t> TerminateFlag;

/// Brings up the pipe and idles until termination is asked for; a console daemon also obeys keys. Lets out what
/// bringing up the pipe or the status report throws. One at a time in a process.
void ServiceLoop(bool isService);

/// Ends the loop at its next pass, within half a second. Any thread, and signal handlers.
void RequestTermination();

} // namespace zuGevDaemon
