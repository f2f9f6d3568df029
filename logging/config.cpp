// Start-up configuration of logging, on the main thread before any other exists.
#include "logging/config.h"

#include "logging/logstate.h"

#include <boost/property_tree/ptree.hpp>

namespace zuLogging {

bool configure_logging(const std::string& module, const std::string&, const boost::property_tree::ptree&)
{
    set_root_name(module);
    root_logstate("").set_levels(0);
    return false;
}

} // namespace zuLogging
