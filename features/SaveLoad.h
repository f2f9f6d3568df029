// All values of a camera as JSON, and back. The caller holds the camera's lock for the whole of it.
#pragma once

#include "features/CameraModel.h"

namespace zuGevFeatures {

Saved saveFeatures(CameraModel& camera);
Loaded loadFeatures(CameraModel& camera, const std::string& json);

} // namespace zuGevFeatures
