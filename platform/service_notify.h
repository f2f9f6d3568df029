// What a service process tells the manager that started it. Any thread may call; nothing blocks.
#pragma once

namespace zuPlatform {

/// Whether a service manager started this very process, and not one above it, and waits to be told of its state.
bool startedByServiceManager();

/// The service is ready, or about to end; `status` is what a person reads of it. False if there is nobody to tell.
bool notifyServiceReady(const char* status);
bool notifyServiceStopping(const char* status);
/// No change of state, but what a person who looks at the service is to read.
bool notifyServiceStatus(const char* status);

} // namespace zuPlatform
