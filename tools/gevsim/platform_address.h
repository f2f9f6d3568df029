// Endpoints as the platform has them. Plain functions.
#pragma once

#include "tools/gevsim/wire.h"

#include "platform/socket.h"

namespace gevsim {

inline zuPlatform::SocketAddress toPlatform(const Endpoint& endpoint)
{
    return {zuPlatform::hostToNetwork32(endpoint.ip), zuPlatform::hostToNetwork16(endpoint.port)};
}

inline Endpoint fromPlatform(const zuPlatform::SocketAddress& address)
{
    return {zuPlatform::networkToHost32(address.address), zuPlatform::networkToHost16(address.port)};
}

} // namespace gevsim
