// Compiles the public headers alone and first.
#include "client/GevDiscovery.h"

#if defined(BOOST_VERSION) || defined(BOOST_CONFIG_HPP)
#error The public header pulls in Boost
#endif

static_assert(!std::is_copy_constructible_v<zuGevClient::Connection>);
static_assert(std::is_nothrow_move_constructible_v<zuGevClient::Connection>);
static_assert(std::is_nothrow_move_assignable_v<zuGevClient::Connection>);
