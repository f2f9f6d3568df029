// The program's version, from the build's one place for it.
#include "platform/process.h"

namespace zuPlatform {

bool executableVersion(std::uint64_t& quad)
{
    quad = std::uint64_t{ZU_VERSION_MAJOR} << 48 | std::uint64_t{ZU_VERSION_MINOR} << 32 |
           std::uint64_t{ZU_VERSION_BUILD} << 16 | std::uint64_t{ZU_VERSION_REVISION};
    return true;
}

std::string versionText(std::uint64_t quad)
{
    std::string text;
    for (int shift = 48; shift >= 0; shift -= 16)
        text += std::to_string(quad >> shift & 0xFFFF) + (shift > 0 ? "." : "");
    return text;
}

} // namespace zuPlatform
