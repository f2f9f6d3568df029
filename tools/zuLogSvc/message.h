// One log message, as it came out of a datagram or was made by the service itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace zuLogSvc {

/// Text is UTF-8, valid, and as the sender wrote it otherwise, line breaks included. What a cut message did not bring
/// is absent (numbers) or empty (text).
struct LogMessage {
    std::uint16_t command = 0;
    std::uint64_t sequence = 0;
    std::optional<std::uint64_t> time; ///< microseconds since 1400-Jan-01, local time
    std::string logger;
    std::uint64_t level = 0; ///< one bit; 0 when it did not come
    std::string group;
    std::string text;
    std::string location;
    std::optional<std::uint64_t> process;
    std::optional<std::uint64_t> thread;
    std::optional<std::uint64_t> codePage;
    std::size_t records = 0; ///< number of records that came with it
    bool hasRecords = false; ///< it had records, whether they fitted or not
    bool textCut = false;
    bool incomplete = false;
};

/// The logger path under which the service's own messages appear.
inline constexpr const char* ownLogger = "zuLogSvc";

} // namespace zuLogSvc
