// Where the system keeps named objects and the lock files of named mutexes.
#pragma once

#include <string>

namespace zuPlatform {

/// The name that `shm_open` takes: `Global\zuGevSvc` becomes "/Global.zuGevSvc", a test's prefix behind the slash.
std::string objectPath(const std::string& name);

} // namespace zuPlatform
