// DISCOVERY and the bootstrap map, byte by byte.
#include "tools/gevctl/discovery.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using namespace gevctl;
using Bytes = std::vector<std::uint8_t>;

Bytes acknowledge()
{
    Bytes bytes(8 + 248);
    const Bytes head{0, 0, 0, 3, 0, 248, 0x12, 0x34, 0, 2, 0, 1, 0x80, 0, 0, 1, 0, 0, 0, 0x11, 0x22, 0x33, 0x44, 0x55};
    std::copy(head.begin(), head.end(), bytes.begin());
    const auto put = [&](std::size_t offset, const Bytes& value) {
        std::copy(value.begin(), value.end(), bytes.begin() + 8 + static_cast<std::ptrdiff_t>(offset));
    };
    const auto text = [&](std::size_t offset, const char* value) {
        std::memcpy(bytes.data() + 8 + offset, value, std::strlen(value));
    };
    put(16, {0x80, 0, 0, 7});
    put(20, {0, 0, 0, 4});
    put(36, {127, 0, 15, 1});
    put(52, {255, 0, 0, 0});
    put(68, {127, 0, 15, 254});
    text(72, "Maker");
    text(104, "Model with thirty-two characters");
    text(136, "1.2");
    text(168, "info");
    text(216, "SN\x01\xFF");
    text(232, "Left \xC3\xA9");
    return bytes;
}

TEST(DiscoveryTest, question)
{
    const auto bytes = encodeDiscovery(0x1234);
    EXPECT_EQ(Bytes(bytes.begin(), bytes.end()), (Bytes{0x42, 0x01, 0x00, 0x02, 0, 0, 0x12, 0x34}));
}

TEST(DiscoveryTest, answer)
{
    const Bytes bytes = acknowledge();
    const auto b = decodeDiscoveryAck(bytes.data(), bytes.size(), 0x1234);
    ASSERT_TRUE(b);
    EXPECT_EQ(b->versionMajor, 2);
    EXPECT_EQ(b->versionMinor, 1);
    EXPECT_EQ(b->deviceMode, 0x80000001u);
    EXPECT_EQ(b->mac, "00:11:22:33:44:55");
    EXPECT_EQ(b->ipOptions, 0x80000007u);
    EXPECT_EQ(b->ipCurrent, 4u);
    EXPECT_EQ(b->ip, 0x7F000F01u);
    EXPECT_EQ(b->subnetMask, 0xFF000000u);
    EXPECT_EQ(b->gateway, 0x7F000FFEu);
    EXPECT_EQ(b->manufacturer, "Maker");
    EXPECT_EQ(b->model, "Model with thirty-two characters"); // no room for a NUL
    EXPECT_EQ(b->deviceVersion, "1.2");
    EXPECT_EQ(b->manufacturerInfo, "info");
    EXPECT_EQ(b->serial, "SN??");
    EXPECT_EQ(b->userName, "Left \xC3\xA9");
}

TEST(DiscoveryTest, nothingElseIsAnAnswer)
{
    const Bytes whole = acknowledge();
    for (std::size_t size = 0; size < whole.size(); ++size) {
        const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        EXPECT_FALSE(decodeDiscoveryAck(cut.data(), cut.size(), 0x1234)) << size;
    }
    EXPECT_FALSE(decodeDiscoveryAck(whole.data(), whole.size(), 0x1235));
    for (const std::size_t at : {0u, 1u, 2u, 3u, 6u, 7u}) {
        Bytes other = whole;
        other[at] ^= 0x80;
        EXPECT_FALSE(decodeDiscoveryAck(other.data(), other.size(), 0x1234)) << at;
    }
}

TEST(DiscoveryTest, anUnknownInterfaceIsAnError)
{
    const std::atomic<bool> stop{false};
    EXPECT_THROW(discover({{"no-such-interface"}, {}, 10}, stop), std::runtime_error);
}

} // namespace
