// The logger tree and the group table. Locks: the tree mutex before a node's mutex; the group mutex alone. Renaming the
// root takes no node's mutex, so a leaf lock guards the root's name.
#include "logging/logstate.h"

#include <algorithm>
#include <array>
#include <locale>
#include <set>
#include <sstream>
#include <stdexcept>
#include <vector>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/lock_types.hpp>
#include <boost/thread/locks.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/once.hpp>

namespace zuLogging {

namespace {

boost::mutex& root_name_mutex()
{
    static auto* const mutex = new boost::mutex;
    return *mutex;
}

} // namespace

namespace detail {

void append_path(const inner_logstate& node, std::string& text)
{
    if (node.parent) {
        text += node.path;
        return;
    }
    const boost::shared_lock<boost::shared_mutex> lock(node.mutex);
    const boost::lock_guard<boost::mutex> name_lock(root_name_mutex());
    text += node.path;
}

} // namespace detail

namespace {

using node_ptr = std::shared_ptr<detail::inner_logstate>;
using shared_lock = boost::shared_lock<boost::shared_mutex>;
using unique_lock = boost::unique_lock<boost::shared_mutex>;
using upgrade_lock = boost::upgrade_lock<boost::shared_mutex>;
using upgraded_lock = boost::upgrade_to_unique_lock<boost::shared_mutex>;

constexpr char separator = '.';
constexpr std::size_t group_slots = 64;
constexpr std::size_t no_slot = group_slots;

struct group_table {
    std::array<std::string, group_slots> names; ///< an empty name is a free slot
    std::size_t used = 0;
    boost::shared_mutex mutex;
};

// Made at first use and never destroyed: threads may log until the very end of the process.
group_table& groups()
{
    static auto* const table = new group_table;
    return *table;
}

boost::once_flag root_once = BOOST_ONCE_INIT;

node_ptr& root_slot()
{
    static auto* const root = new node_ptr;
    return *root;
}

const node_ptr& fetch_root(const std::string& name)
{
    boost::call_once(root_once, [&name] {
        auto root = std::make_shared<detail::inner_logstate>();
        root->path = name;
        root_slot() = std::move(root);
    });
    return root_slot();
}

std::string node_path(const node_ptr& node)
{
    std::string path;
    detail::append_path(*node, path);
    return path;
}

std::string child_path(const std::string& parent, const std::string& piece)
{
    return parent.empty() ? piece : parent + separator + piece;
}

node_ptr make_child(const node_ptr& parent, const std::string& piece)
{
    auto child = std::make_shared<detail::inner_logstate>();
    child->parent = parent;
    child->path = child_path(node_path(parent), piece);
    child->levels.store(parent->levels.load(std::memory_order_relaxed), std::memory_order_relaxed);
    return child;
}

std::vector<std::string> split_path(const std::string& path)
{
    std::vector<std::string> pieces;
    boost::algorithm::split(pieces, path, [](char c) { return c == separator; });
    for (std::string& piece : pieces) {
        boost::algorithm::trim(piece, std::locale::classic());
        if (piece.empty())
            throw std::logic_error("Invalid path: logger entity names must not be empty");
    }
    return pieces;
}

void prune(const node_ptr& node)
{
    auto& children = node->children;
    for (auto entry = children.begin(); entry != children.end();) {
        if (const node_ptr child = entry->second.lock()) {
            prune(child);
            ++entry;
        } else {
            children.erase(entry);
            entry = children.begin();
        }
    }
}

std::size_t find_group(const std::string& name)
{
    group_table& table = groups();
    const shared_lock lock(table.mutex);
    const auto found = std::find(table.names.begin(), table.names.end(), name);
    return found == table.names.end() ? no_slot : static_cast<std::size_t>(found - table.names.begin());
}

bool is_single_bit(std::uint64_t id) { return id != 0 && (id & (id - 1)) == 0; }

std::size_t slot_of(std::uint64_t id)
{
    std::size_t slot = 0;
    while ((id >> slot) != 1)
        ++slot;
    return slot;
}

std::string slot_name(std::uint64_t id)
{
    group_table& table = groups();
    const shared_lock lock(table.mutex);
    return table.names[slot_of(id)];
}

group_id checked_group(std::uint64_t id)
{
    if (!is_single_bit(id) || slot_name(id).empty())
        throw std::invalid_argument("Invalid group ID: not registered");
    return group_id(id);
}

} // namespace

boost::shared_mutex& tree_mutex()
{
    static auto* const mutex = new boost::shared_mutex;
    return *mutex;
}

std::string logstate::path() const { return node_path(node_); }

std::uint32_t logstate::levels() const
{
    const shared_lock lock(node_->mutex);
    return node_->levels.load(std::memory_order_relaxed);
}

std::uint32_t logstate::set_levels(std::uint32_t mask)
{
    upgrade_lock lock(node_->mutex);
    const std::uint32_t previous = node_->levels.load(std::memory_order_relaxed);
    if (previous != mask) {
        const upgraded_lock exclusive(lock);
        node_->levels.store(mask, std::memory_order_relaxed);
    }
    return previous;
}

logstate root_logstate(const std::string& name) { return logstate(fetch_root(name)); }

void set_root_name(const std::string& name)
{
    if (name.find(separator) != std::string::npos)
        throw std::invalid_argument("Root name must not contain separator character");
    const std::string trimmed = boost::algorithm::trim_copy(name);
    const node_ptr& root = fetch_root(trimmed);
    if (node_path(root) == trimmed)
        return;
    const unique_lock lock(tree_mutex());
    prune(root);
    if (!root->children.empty())
        throw std::runtime_error("Root name can only be changed if no children are present");
    const boost::lock_guard<boost::mutex> name_lock(root_name_mutex());
    root->path = trimmed;
}

logstate get_logstate(const std::string& path)
{
    const node_ptr& root = fetch_root("");
    if (path.empty())
        return logstate(root);
    const std::vector<std::string> pieces = split_path(path);
    upgrade_lock lock(tree_mutex());
    auto piece = pieces.begin();
    if (*piece == node_path(root))
        ++piece;
    node_ptr node = root;
    for (; piece != pieces.end(); ++piece) {
        const auto entry = node->children.find(*piece);
        node_ptr child = entry != node->children.end() ? entry->second.lock() : nullptr;
        if (!child) {
            const upgraded_lock exclusive(lock);
            child = make_child(node, *piece);
            node->children[*piece] = child;
        }
        node = std::move(child);
    }
    return logstate(std::move(node));
}

logstate make_numbered_logstate(const std::string& path)
{
    const node_ptr parent = get_logstate(path).node();
    std::set<std::uint64_t> taken;
    if (parent) {
        const shared_lock lock(tree_mutex());
        for (const auto& [key, child] : parent->children) {
            if (child.expired())
                continue;
            std::istringstream in(key);
            in.imbue(std::locale::classic());
            std::uint64_t number = 0;
            if (in >> number && in.eof() && number != ~std::uint64_t{0})
                taken.insert(number);
        }
    }
    std::uint64_t number = 0;
    for (const std::uint64_t used : taken) {
        if (used != number)
            break;
        ++number;
    }
    if (!parent)
        throw std::logic_error("Parent is <null>");
    std::ostringstream out;
    out.imbue(std::locale::classic());
    out << number;
    return get_logstate(child_path(node_path(parent), out.str()));
}

group_id logstate::register_group(const std::string& name)
{
    const std::string trimmed = boost::algorithm::trim_copy(name);
    if (trimmed.empty())
        throw std::invalid_argument("Group name must not be empty");
    std::size_t slot = find_group(trimmed);
    if (slot == no_slot) {
        group_table& table = groups();
        const unique_lock lock(table.mutex);
        if (table.used >= group_slots)
            throw std::length_error("Exceeded maximal available groups");
        const auto free = std::find(table.names.begin(), table.names.end(), std::string());
        *free = trimmed;
        ++table.used;
        slot = static_cast<std::size_t>(free - table.names.begin());
    }
    return checked_group(std::uint64_t{1} << slot);
}

group_id make_group(std::uint64_t id) { return id == all_groups.value() ? all_groups : checked_group(id); }

std::string group_name(std::uint64_t id)
{
    if (!is_single_bit(id))
        throw std::invalid_argument("Invalid group id");
    std::string name = slot_name(id);
    if (name.empty())
        throw std::invalid_argument("Group id not registered");
    return name;
}

void prune_children(const logstate& node) { prune(node.node()); }

} // namespace zuLogging
