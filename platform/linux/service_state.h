// What systemd says of a unit, in the words of a service's state.
#pragma once

#include "platform/service_manager.h"

#include <string>

namespace zuPlatform {

/// A unit's ActiveState and SubState, and the type of the job that is queued or at work on it ("" without one). A
/// pending state carries a wait hint, and a checkpoint that grows with the phases of a start.
ServiceStatus serviceStatusOfUnit(const std::string& activeState, const std::string& subState,
                                  const std::string& jobType);

} // namespace zuPlatform
