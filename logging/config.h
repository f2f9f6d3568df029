// The one call at program start that decides where this process's messages go. On the main thread, before any other
// thread exists and before any class makes a logger.
#pragma once

#include <string>

#include <boost/property_tree/ptree.hpp>

namespace zuLogging {

/// Asks the log service for the settings of `module`, makes the target that they name, and gives the root its name and
/// mask. `attributes` are extra keys of the request; a `description` that is not empty is passed to the service.
/// Without a log service the process stays silent, and the debugger channel tells why. Takes about one second if the
/// service is there and doesn't answer. True if everything went as the service said.
bool configure_logging(const std::string& module, const std::string& description,
                       const boost::property_tree::ptree& attributes);

} // namespace zuLogging
