// Time stamps of messages: microseconds since 1400-Jan-01 00:00:00, local time.
#pragma once

#include <cstdint>
#include <string>

namespace zuLogSvc {

/// "2026-Nov-12 10:58:49.123456"; the fraction is left out when it is 0. A time after the year 9999 is
/// "not-a-date-time".
std::string formatTime(std::uint64_t microseconds);

/// "2026-11-12T10:58:49.123456", always with six digits. Empty for a time after the year 9999.
std::string formatIsoTime(std::uint64_t microseconds);

/// The clocks by which the service works; tests put their own in place.
class Clock {
public:
    virtual ~Clock() = default;
    /// Present local time as in a message.
    virtual std::uint64_t localMicroseconds() const;
    /// Milliseconds of a steady clock with an arbitrary start.
    virtual std::uint64_t steadyMilliseconds() const;
};

/// The system's clocks.
const Clock& systemClock();

} // namespace zuLogSvc
