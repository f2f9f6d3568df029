// The own process and its neighbours.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace zuPlatform {

std::uint32_t currentProcessId();

/// Whether a process with this id runs. One that has ended and is not yet reaped counts as gone, and so does id 0.
bool processExists(std::uint32_t pid);

/// Absolute path of the running executable; empty if the system does not tell.
std::string executablePath();

/// Asks for the class of processes that run before all others. True if granted.
bool setRealtimePriorityClass();

/// Raises the number of descriptors this process may hold to the most that it is allowed.
void raiseDescriptorLimit();

/// A write to a pipe or socket whose reader is gone fails from now on, and does not end the process.
void ignoreBrokenPipe();

/// Ends the process as an access to address 0 does: by a memory fault that no handler catches.
[[noreturn]] void endByMemoryFault();

/// Has `handler` called on Ctrl-C and on a request to end (SIGINT and SIGTERM). The handler may be called on any
/// thread, at any moment, and may do no more than store to a lock-free atomic.
void setStopHandler(void (*handler)());

/// Has `handler` called when a reload is asked for (SIGHUP); same rules.
void setReloadHandler(void (*handler)());

/// File version of the running program as four 16-bit words, major in bits 63..48. False if it carries none.
bool executableVersion(std::uint64_t& quad);

/// The four words of such a version in decimal, from major to revision, with dots between them.
std::string versionText(std::uint64_t quad);

/// The code page in which this process writes narrow text, by its Windows number: 65001 for UTF-8.
std::uint32_t narrowCodePage();

} // namespace zuPlatform
