#include "platform/error.h"

#include <cerrno>
#include <cstring>

namespace zuPlatform {

std::uint32_t lastError() { return static_cast<std::uint32_t>(errno); }

std::string errorText(std::uint32_t code)
{
    const char* const text = ::strerrordesc_np(static_cast<int>(code));
    return text ? text : "";
}

} // namespace zuPlatform
