// JSON text. Any thread.
#include "logging/json.h"

#include <sstream>

#include <boost/bind/placeholders.hpp>

// The reader counts on the placeholders being visible where it stands.
namespace boost::property_tree::json_parser::detail {
using boost::placeholders::_1;
} // namespace boost::property_tree::json_parser::detail
namespace boost::property_tree::json_parser {
using boost::placeholders::_1;
} // namespace boost::property_tree::json_parser

#include <boost/property_tree/json_parser.hpp>

namespace zuLogging::detail {

std::string to_json(const boost::property_tree::ptree& tree)
{
    std::ostringstream out;
    boost::property_tree::write_json(out, tree, false);
    return out.str();
}

boost::property_tree::ptree from_json(const std::string& text)
{
    std::istringstream in(text);
    boost::property_tree::ptree tree;
    boost::property_tree::read_json(in, tree);
    return tree;
}

} // namespace zuLogging::detail
