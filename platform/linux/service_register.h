// Registering a service: a unit file in the administrator's directory, or the one that a package has brought. One
// thread at a time.
#pragma once

#include "platform/linux/service_bus.h"

#include <string>

namespace zuPlatform {

/// Whether the unit counts as a registered service: it is loaded, or its file is there and systemd can't use it.
bool isRegistered(const std::string& unit, const UnitFacts& facts);

/// Registers the unit: the installed file if it runs this very program, otherwise one of our own. An errno value; after
/// a failure everything is as it was before, a mask of the administrator's among it.
int registerUnit(ServiceBus& bus, const std::string& unit, const std::string& displayName,
                 const std::string& commandLine);

/// Takes the unit off. Of the files in the administrator's directory one that was changed is kept under another name;
/// one that a package has brought stays and is masked. An errno value.
int unregisterUnit(ServiceBus& bus, const std::string& unit);

} // namespace zuPlatform
