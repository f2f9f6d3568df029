// The machine's interfaces and the socket library.
#include "platform/network.h"
#include "platform/socket.h"
#include "platform/socket_library.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <net/if.h>

using namespace zuPlatform;

TEST(Network, LoopbackIsAmongTheInterfaces)
{
    const std::vector<NetworkInterface> interfaces = networkInterfaces();
    const auto found = std::find_if(interfaces.begin(), interfaces.end(), [](const NetworkInterface& each) {
        return each.address == hostToNetwork32(loopbackAddress);
    });
    ASSERT_NE(found, interfaces.end());
    EXPECT_TRUE(found->loopback);
    EXPECT_TRUE(found->up);
    EXPECT_EQ(found->netmask, hostToNetwork32(0xFF000000));
    EXPECT_EQ(found->broadcast, hostToNetwork32(0x7FFFFFFF));
}

TEST(Network, EachIsOneOfTheSystem)
{
    for (const NetworkInterface& each : networkInterfaces()) {
        EXPECT_NE(each.address, 0u);
        EXPECT_EQ(each.broadcast, each.address | ~each.netmask);
        // An alias carries the name of its interface in front of a colon.
        EXPECT_NE(::if_nametoindex(each.name.substr(0, each.name.find(':')).c_str()), 0u) << each.name;
    }
}

TEST(SocketLibrary, StartsInTheVersionAskedFor)
{
    std::uint16_t obtained = 0;
    EXPECT_EQ(startSocketLibrary(0x202, obtained), 0);
    EXPECT_EQ(obtained, 0x202);
    stopSocketLibrary();
}
