// The channel on which a debugger, or on Linux the system log at debug priority, sees diagnostic text.
#pragma once

#include <string>

namespace zuPlatform {

/// Passes text on. Text up to a line end becomes one record; what follows the last line end waits, for each thread, for
/// the calls that complete it. Never blocks, never fails; without a system log nothing happens.
void debugOutput(const char* text);
void debugOutput(const wchar_t* text);

/// Sends to another local datagram socket than the system log's.
void setDebugChannelForTesting(const std::string& path);

} // namespace zuPlatform
