// Which messages a viewer wants to see.
#pragma once

#include "tools/zuLogSvc/message.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zuLogSvc {

/// A message passes when its level, logger and group all do. Warnings and errors of the log service itself always pass,
/// as they tell that something is missing.
struct FollowFilter {
    /// Level bits; a message whose level did not come passes.
    std::uint32_t levels = 0xFFFFFFFF;
    /// Wildcard patterns; none lets all pass. A pattern stands for a logger and all below it, by the whole path or by
    /// the path without the root's name: "Conn" takes "GEVSVC.Conn.0".
    std::vector<std::string> loggers;
    /// Wildcard patterns; none lets all pass. With one, messages without a group do not.
    std::vector<std::string> groups;

    bool accepts(const LogMessage& message) const;
};

/// The filter as JSON, as a viewer sends it.
std::string filterToJson(const FollowFilter& filter);

/// Back from JSON; nothing if the text is no such filter, or its patterns have more than 512 bytes.
std::optional<FollowFilter> filterFromJson(std::string_view text);

} // namespace zuLogSvc
