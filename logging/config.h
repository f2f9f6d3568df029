// Start-up configuration of logging: one call decides the target, the levels and the root's name.
#pragma once

#include <string>

#include <boost/property_tree/ptree_fwd.hpp>

namespace zuLogging {

/// Configures the logging of this process for `module`, before any other thread exists. True if everything went as the
/// log service said; without one the process runs on, silent.
bool configure_logging(const std::string& module, const std::string& description,
                       const boost::property_tree::ptree& attributes);

} // namespace zuLogging
