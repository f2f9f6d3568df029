// Numbers as typed and printed, and the progress line.
#include "tools/gevctl/numbers.h"
#include "tools/gevctl/progress.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <sstream>

namespace {

using namespace gevctl;
using Bytes = std::vector<std::uint8_t>;

TEST(NumbersTest, decimalAndHexadecimal)
{
    EXPECT_EQ(parseNumber("0", 10), 0u);
    EXPECT_EQ(parseNumber("010", 10), 10u);
    EXPECT_EQ(parseNumber("0x10", 16), 16u);
    EXPECT_EQ(parseNumber("0XfF", 255), 255u);
    EXPECT_EQ(parseNumber("4294967295", 0xFFFFFFFF), 0xFFFFFFFFu);
    for (const char* const bad :
         {"", "0x", "-1", "+1", " 1", "1 ", "1x", "0x1g", "abc", "0x-1", "18446744073709551616"})
        EXPECT_EQ(parseNumber(bad, ~std::uint64_t{0}), std::nullopt) << bad;
    EXPECT_EQ(parseNumber("4294967296", 0xFFFFFFFF), std::nullopt);
}

TEST(NumbersTest, sizes)
{
    EXPECT_EQ(parseSize("17", 100), 17u);
    EXPECT_EQ(parseSize("0x10k", 1 << 20), 16384u);
    EXPECT_EQ(parseSize("1M", 1 << 20), 1u << 20);
    EXPECT_EQ(parseSize("2G", std::uint64_t{1} << 32), std::uint64_t{2} << 30);
    EXPECT_EQ(parseSize("1M", (1 << 20) - 1), std::nullopt);
    for (const char* const bad : {"", "k", "1kk", "1T", "x"})
        EXPECT_EQ(parseSize(bad, ~std::uint64_t{0}), std::nullopt) << bad;
}

TEST(NumbersTest, hexBytes)
{
    EXPECT_EQ(parseHexBytes("0xDEadBEef"), (Bytes{0xDE, 0xAD, 0xBE, 0xEF}));
    EXPECT_EQ(parseHexBytes("01 02:03,04"), (Bytes{1, 2, 3, 4}));
    EXPECT_EQ(parseHexBytes(""), Bytes());
    for (const char* const bad : {"1", "123", "0g", "1 2", "-1"})
        EXPECT_EQ(parseHexBytes(bad), std::nullopt) << bad;
}

TEST(NumbersTest, hexDump)
{
    EXPECT_EQ(hex32(0xA), "0x0000000A");
    EXPECT_EQ(hexDump(0x100, {}), "");
    Bytes bytes(18, 'A');
    bytes[1] = 0;
    bytes[17] = 0xFF;
    EXPECT_EQ(hexDump(0xFFFFFFF0, bytes),
              "FFFFFFF0  41 00 41 41 41 41 41 41  41 41 41 41 41 41 41 41  |A.AAAAAAAAAAAAAA|\n"
              "00000000  41 FF                                             |A.|\n");
}

TEST(NumbersTest, utcStamps)
{
    using namespace std::chrono;
    const sys_days day = 2024y / February / 29;
    EXPECT_EQ(utcStamp(day + 23h + 59min + 58s + 7ms), "2024-02-29T23:59:58.007Z");
    EXPECT_EQ(utcStamp(sys_days(1970y / January / 1)), "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(utcStamp(sys_days(1970y / January / 1) - 1ms), "1969-12-31T23:59:59.999Z");
}

TEST(NumbersTest, utcStampsOfTwoThreadsDoNotMix)
{
    using namespace std::chrono;
    const auto all = [](system_clock::time_point moment, const std::string& text) {
        for (int i = 0; i < 20000; ++i)
            if (utcStamp(moment) != text)
                return false;
        return true;
    };
    auto other = std::async(std::launch::async, all, sys_days(1999y / December / 31), "1999-12-31T00:00:00.000Z");
    EXPECT_TRUE(all(sys_days(2026y / November / 12), "2026-11-12T00:00:00.000Z"));
    EXPECT_TRUE(other.get());
}

TEST(ProgressTest, line)
{
    EXPECT_EQ(progressLine("Reading", 512, 1024, 0), "Reading [###############...............]  50 % 512 B");
    EXPECT_EQ(progressLine("Reading", 1 << 20, 1 << 20, 2),
              "Reading [##############################] 100 % 1.0 MiB 512.0 KiB/s");
    EXPECT_EQ(progressLine("x", 0, 0, 0), "x [##############################] 100 % 0 B");
}

TEST(ProgressTest, leavesAnEmptyLineBehindAndIsSilentWhenNobodyWatches)
{
    std::ostringstream seen, unseen;
    {
        Progress visible(seen, "Reading", 10, true);
        visible.update(10);
        Progress hidden(unseen, "Reading", 10, false);
        hidden.update(10);
    }
    EXPECT_THAT(seen.str(), testing::HasSubstr("100 %"));
    const std::size_t width = seen.str().find('\r', 1) - 1;
    EXPECT_THAT(seen.str(), testing::EndsWith("\r" + std::string(width, ' ') + "\r"));
    EXPECT_EQ(unseen.str(), "");
}

} // namespace
