// Filters of viewers. Stateless; any thread.
#include "tools/zuLogSvc/follow_filter.h"

#include "tools/zuLogSvc/words.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace zuLogSvc {
namespace {

// Bounds of what a filter may cost for each message.
constexpr int maxDepth = 8;
constexpr std::size_t maxPatternBytes = 512;

bool loggerMatches(const std::string& pattern, std::string_view path)
{
    const auto matches = [&](std::string_view name) {
        // The pattern may end at any component, as it stands for what is below it too.
        std::size_t end = name.find('.');
        for (int depth = 0; end != std::string_view::npos && depth < maxDepth; ++depth) {
            if (matchesWildcard(pattern, name.substr(0, end)))
                return true;
            end = name.find('.', end + 1);
        }
        return matchesWildcard(pattern, name);
    };
    const std::size_t root = path.find('.');
    return matches(path) || (root != std::string_view::npos && matches(path.substr(root + 1)));
}

} // namespace

bool FollowFilter::accepts(const LogMessage& message) const
{
    if (message.logger == ownLogger && (message.level & 0x07) != 0)
        return true;
    if (message.level != 0 && (message.level & levels) == 0)
        return false;
    if (!loggers.empty() && std::none_of(loggers.begin(), loggers.end(), [&](const std::string& pattern) {
            return loggerMatches(pattern, message.logger);
        }))
        return false;
    return groups.empty() ||
           (!message.group.empty() && std::any_of(groups.begin(), groups.end(), [&](const std::string& pattern) {
               return matchesWildcard(pattern, message.group);
           }));
}

std::string filterToJson(const FollowFilter& filter)
{
    nlohmann::ordered_json out;
    out["levels"] = filter.levels;
    out["loggers"] = filter.loggers;
    out["groups"] = filter.groups;
    return out.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

std::optional<FollowFilter> filterFromJson(std::string_view text)
{
    const auto json = nlohmann::json::parse(text.begin(), text.end(), nullptr, false);
    if (!json.is_object())
        return std::nullopt;
    FollowFilter filter;
    std::size_t bytes = 0;
    for (const auto& [key, value] : json.items()) {
        if (key == "levels" && value.is_number_unsigned()) {
            filter.levels = static_cast<std::uint32_t>(value.get<std::uint64_t>());
        } else if ((key == "loggers" || key == "groups") && value.is_array()) {
            auto& patterns = key == "loggers" ? filter.loggers : filter.groups;
            for (const auto& pattern : value) {
                if (!pattern.is_string())
                    return std::nullopt;
                patterns.push_back(pattern.get<std::string>());
                bytes += patterns.back().size() + 1;
            }
        } else {
            return std::nullopt;
        }
    }
    return bytes <= maxPatternBytes ? std::optional(std::move(filter)) : std::nullopt;
}

} // namespace zuLogSvc
