// Sockets need no start here: any version asked for is there.
#include "platform/socket_library.h"

namespace zuPlatform {

int startSocketLibrary(std::uint16_t version, std::uint16_t& obtained)
{
    obtained = version;
    return 0;
}

void stopSocketLibrary() {}

} // namespace zuPlatform
