#include "platform/linux/service_error.h"

#include "platform/service_manager.h"

namespace zuPlatform {

namespace {
thread_local std::uint32_t lastError = 0;
} // namespace

std::uint32_t serviceError() { return lastError; }
void setServiceError(int error) { lastError = static_cast<std::uint32_t>(error < 0 ? -error : error); }

} // namespace zuPlatform
