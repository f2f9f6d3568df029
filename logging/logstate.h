// The process-wide tree of named log entities and the table of log groups. Any thread may call anything here.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include <boost/thread/shared_mutex.hpp>

namespace zuLogging {

/// A message carries exactly one level; a node's mask is the union of the levels that it lets through.
inline constexpr std::uint32_t log_fatal = 0x01;
inline constexpr std::uint32_t log_err = 0x02;
inline constexpr std::uint32_t log_warn = 0x04;
inline constexpr std::uint32_t log_info = 0x08;
inline constexpr std::uint32_t log_trace = 0x10;
inline constexpr std::uint32_t log_debug = 0x20;

/// Names one of up to 64 process-wide groups by one set bit, or none in particular by `all_groups`.
class group_id {
public:
    constexpr explicit group_id(std::uint64_t value) : value_(value) {}
    constexpr std::uint64_t value() const { return value_; }
    friend bool operator==(const group_id&, const group_id&) = default;

private:
    std::uint64_t value_;
};

inline constexpr group_id all_groups{~std::uint64_t{0}};

namespace detail {

inline constexpr std::size_t cache_line = 64;

/// One node of the tree. A node keeps its ancestors alive; a parent only knows its children.
struct inner_logstate {
    std::shared_ptr<inner_logstate> parent;
    std::string path; ///< full dotted path; fixed, but for the root's
    /// Relaxed, so that a disabled message takes no lock, and on a cache line that nothing else writes to.
    alignas(cache_line) std::atomic<std::uint32_t> levels{0};
    std::atomic<std::uint64_t> groups{~std::uint64_t{0}};
    /// By path component; under the tree mutex.
    alignas(cache_line) std::map<std::string, std::weak_ptr<inner_logstate>> children;
    /// Guards the root's `path` together with a leaf lock, and `levels` and `groups`. Inside the tree mutex.
    mutable boost::shared_mutex mutex;
};

/// Appends the node's path to `text`. Only the root's takes a lock.
void append_path(const inner_logstate& node, std::string& text);

} // namespace detail

/// A copyable handle to one node, and the member by which a class logs.
class logstate {
public:
    logstate() = default;
    explicit logstate(std::shared_ptr<detail::inner_logstate> node) : node_(std::move(node)) {}

    std::string path() const;
    std::uint32_t levels() const;

    /// Sets this node's mask alone and returns the previous one; only children made later inherit it.
    std::uint32_t set_levels(std::uint32_t mask);

    /// Whether a message of `level` under `group` passes. No lock, no allocation.
    bool is_enabled(std::uint32_t level, group_id group) const
    {
        return (node_->levels.load(std::memory_order_relaxed) & level) != 0 &&
               (node_->groups.load(std::memory_order_relaxed) & group.value()) != 0;
    }

    /// The id of the group `name`, registered at the first call. The table is one for the process.
    /// Throws `std::invalid_argument` for an empty name, `std::length_error` for the 65th group.
    static group_id register_group(const std::string& name);

    const std::shared_ptr<detail::inner_logstate>& node() const { return node_; }

private:
    std::shared_ptr<detail::inner_logstate> node_;
};

/// The root, made with `name` at the very first call; later calls ignore the name.
logstate root_logstate(const std::string& name);

/// Renames the root while it has no children. Throws `std::invalid_argument`, `std::runtime_error`.
void set_root_name(const std::string& name);

/// The node at `path`, made with its missing ancestors; an empty path gives the root. Throws `std::logic_error`.
logstate get_logstate(const std::string& path);

/// A child of the node at `path`, named by the lowest free decimal number.
logstate make_numbered_logstate(const std::string& path);

/// Wraps a raw id; throws `std::invalid_argument` unless it is `all_groups` or registered.
group_id make_group(std::uint64_t id);

/// Throws `std::invalid_argument` unless `id` names one registered group.
std::string group_name(std::uint64_t id);

/// Drops the expired entries below `node`. The caller holds the tree mutex exclusively.
void prune_children(const logstate& node);

/// The mutex that guards the `children` of all nodes and the root's name.
boost::shared_mutex& tree_mutex();

} // namespace zuLogging
