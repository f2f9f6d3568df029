// The reason of the last failed service call of the calling thread, an errno value.
#pragma once

#include <cstdint>

namespace zuPlatform {

void setServiceError(int error);

} // namespace zuPlatform
