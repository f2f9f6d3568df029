// JSON text of property trees, as the log service's commands carry it. Stateless.
#pragma once

#include <string>

#include <boost/property_tree/ptree.hpp>

namespace zuLogging::detail {

/// Compact JSON with one newline behind it. Throws `boost::property_tree::ptree_error`.
std::string to_json(const boost::property_tree::ptree& tree);

/// Throws `boost::property_tree::ptree_error`.
boost::property_tree::ptree from_json(const std::string& text);

} // namespace zuLogging::detail
