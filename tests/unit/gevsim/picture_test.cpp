// The test pattern, against a reckoning of its own: every pixel of every format.
#include "tools/gevsim/picture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>

using gevsim::Painter;
using gevsim::Picture;
namespace pixel = gevsim::pixel;

namespace {

struct Rgb {
    std::uint32_t r, g, b;
};

/// White, yellow, cyan, green, magenta, red, blue, black.
constexpr Rgb bars[] = {{1, 1, 1}, {1, 1, 0}, {0, 1, 1}, {0, 1, 0}, {1, 0, 1}, {1, 0, 0}, {0, 0, 1}, {0, 0, 0}};

const char* const digits[10][7] = {
    {" ### ", "#   #", "#  ##", "# # #", "##  #", "#   #", " ### "},
    {"  #  ", " ##  ", "  #  ", "  #  ", "  #  ", "  #  ", " ### "},
    {" ### ", "#   #", "    #", "   # ", "  #  ", " #   ", "#####"},
    {"#####", "   # ", "  #  ", "   # ", "    #", "#   #", " ### "},
    {"   # ", "  ## ", " # # ", "#  # ", "#####", "   # ", "   # "},
    {"#####", "#    ", "#### ", "    #", "    #", "#   #", " ### "},
    {"  ## ", " #   ", "#    ", "#### ", "#   #", "#   #", " ### "},
    {"#####", "    #", "   # ", "  #  ", " #   ", " #   ", " #   "},
    {" ### ", "#   #", "#   #", " ### ", "#   #", "#   #", " ### "},
    {" ### ", "#   #", "#   #", " ####", "    #", "   # ", " ##  "},
};

/// The scene at a point of the image, with 16 bits for each colour.
Rgb scene(const Picture& picture, std::uint32_t x, std::uint32_t y)
{
    const std::uint32_t scale = std::clamp(picture.width / 128, 1U, 16U);
    if (x / scale < 50 && y / scale < 9) {
        const std::uint32_t column = x / scale, row = y / scale;
        char text[32];
        std::snprintf(text, sizeof text, "%08llu", static_cast<unsigned long long>(picture.number % 100000000));
        bool white = false;
        if (row >= 1 && row <= 7 && column >= 1 && column <= 48 && (column - 1) % 6 < 5)
            white = digits[text[(column - 1) / 6] - '0'][row - 1][(column - 1) % 6] == '#';
        return white ? Rgb{65535, 65535, 65535} : Rgb{0, 0, 0};
    }
    const std::uint64_t across = picture.offsetX + (picture.reverseX ? picture.width - 1 - x : x);
    const std::uint64_t down = picture.offsetY + y;
    Rgb colour{};
    if (down < picture.sensorHeight / 2) {
        const Rgb& bar = bars[(across + 4 * picture.number) % 1024 / 128];
        colour = {bar.r * 65535, bar.g * 65535, bar.b * 65535};
    } else {
        const auto grey = static_cast<std::uint32_t>((across + 4 * picture.number + 4 * down) % 1024 * 64);
        colour = {grey, grey, grey};
    }
    const auto bright = [&](std::uint32_t value) {
        return static_cast<std::uint32_t>(
            std::min<std::uint64_t>(65535, std::uint64_t{value} * picture.brightness / 256));
    };
    return {bright(colour.r), bright(colour.g), bright(colour.b)};
}

std::uint32_t grey(const Rgb& colour)
{
    return static_cast<std::uint32_t>(
        (std::uint64_t{19595} * colour.r + 38470 * std::uint64_t{colour.g} + 7471 * std::uint64_t{colour.b} + 32768) /
        65536);
}

std::uint32_t byteAt(const std::vector<std::uint8_t>& data, std::size_t at) { return data.at(at); }

std::vector<std::uint8_t> painted(const Picture& picture)
{
    std::vector<std::uint8_t> bytes(picture.size() + 1, 0xEE);
    Painter().paint(picture, bytes.data());
    EXPECT_EQ(bytes.back(), 0xEE) << "one byte too many";
    bytes.pop_back();
    return bytes;
}

Picture picture(std::uint32_t format)
{
    Picture made;
    made.format = format;
    made.sensorHeight = 120;
    made.width = 320;
    made.height = 100;
    made.offsetX = 12;
    made.offsetY = 10;
    made.number = 1234567;
    return made;
}

/// Compares each pixel; tells the first one that is wrong.
void check(const Picture& made)
{
    const std::vector<std::uint8_t> bytes = painted(made);
    const auto word = [&](std::size_t i) { return byteAt(bytes, 2 * i) | byteAt(bytes, 2 * i + 1) << 8; };
    for (std::uint32_t y = 0; y < made.height; ++y) {
        for (std::uint32_t x = 0; x < made.width; ++x) {
            const std::size_t i = std::size_t{y} * made.width + x;
            const Rgb colour = scene(made, x, y), other = scene(made, x ^ 1, y);
            const std::string where =
                std::string(pixel::name(made.format)) + " " + std::to_string(x) + "," + std::to_string(y);
            switch (made.format) {
            case pixel::mono8:
                ASSERT_EQ(byteAt(bytes, i), grey(colour) / 256) << where;
                break;
            case pixel::mono10:
                ASSERT_EQ(word(i), grey(colour) / 64) << where;
                break;
            case pixel::mono12:
                ASSERT_EQ(word(i), grey(colour) / 16) << where;
                break;
            case pixel::mono16:
                ASSERT_EQ(word(i), grey(colour)) << where;
                break;
            case pixel::mono12Packed: {
                const std::size_t triple = i / 2 * 3;
                const std::uint32_t low = byteAt(bytes, triple + 1);
                const std::uint32_t value =
                    x % 2 == 0 ? byteAt(bytes, triple) << 4 | (low & 15) : byteAt(bytes, triple + 2) << 4 | low >> 4;
                ASSERT_EQ(value, grey(colour) / 16) << where;
                break;
            }
            case pixel::bayerRG8:
                ASSERT_EQ(byteAt(bytes, i), (x % 2 != y % 2 ? colour.g
                                             : x % 2 == 0   ? colour.r
                                                            : colour.b) /
                                                256)
                    << where;
                break;
            case pixel::rgb8:
                ASSERT_EQ(byteAt(bytes, 3 * i), colour.r / 256) << where;
                ASSERT_EQ(byteAt(bytes, 3 * i + 1), colour.g / 256) << where;
                ASSERT_EQ(byteAt(bytes, 3 * i + 2), colour.b / 256) << where;
                break;
            default: {
                ASSERT_EQ(byteAt(bytes, 2 * i), grey(colour) / 256) << where;
                const auto mean = [](std::uint32_t a, std::uint32_t b) { return (a / 256 + b / 256 + 1) / 2; };
                const double r = mean(colour.r, other.r), g = mean(colour.g, other.g), b = mean(colour.b, other.b);
                const double chroma = x % 2 == 0 ? -0.168736 * r - 0.331264 * g + 0.5 * b + 128
                                                 : 0.5 * r - 0.418688 * g - 0.081312 * b + 128;
                // A half may fall to either side of a weight's rounding.
                ASSERT_LE(std::abs(byteAt(bytes, 2 * i + 1) - std::clamp(chroma, 0.0, 255.0)), 0.51) << where;
                break;
            }
            }
        }
    }
}

class EachFormat : public testing::TestWithParam<std::uint32_t> {};

} // namespace

TEST_P(EachFormat, EveryPixelIsAsItIsReckoned) { check(picture(GetParam())); }

TEST_P(EachFormat, MirroredBrightenedAndInTheCorners)
{
    Picture made = picture(GetParam());
    made.reverseX = true;
    check(made);
    made.width = 324;
    made.number = 0xFFFFFFFFFFFFFFFF;
    check(made);
    made.reverseX = false;
    made.brightness = 700;
    check(made);
    made.brightness = 26;
    made.width = made.height = 16;
    made.offsetX = made.offsetY = 0;
    check(made);
    made.sensorHeight = 4096;
    made.offsetX = 8000;
    made.offsetY = 3000;
    made.width = 16;
    made.height = 20;
    check(made);
}

INSTANTIATE_TEST_SUITE_P(Pattern, EachFormat,
                         testing::Values(pixel::mono8, pixel::mono10, pixel::mono12, pixel::mono16, pixel::mono12Packed,
                                         pixel::bayerRG8, pixel::rgb8, pixel::yuv422),
                         [](const testing::TestParamInfo<std::uint32_t>& format) { return pixel::name(format.param); });

TEST(Pattern, OnePainterPaintsDifferentPicturesAsNewOnesDo)
{
    Painter painter;
    for (const auto& [format, name] : pixel::names) {
        for (const bool mirrored : {false, true}) {
            Picture made = picture(format);
            made.reverseX = mirrored;
            made.brightness = mirrored ? 100 : 256;
            std::vector<std::uint8_t> bytes(made.size());
            painter.paint(made, bytes.data());
            EXPECT_EQ(bytes, painted(made)) << name;
        }
    }
}

TEST(Pattern, AnotherNumberIsAnotherPicture)
{
    Picture made = picture(pixel::mono8);
    const auto first = painted(made);
    ++made.number;
    EXPECT_NE(painted(made), first);
}

TEST(Pattern, TheNumberStandsUpright)
{
    // A point for four pixels, "70" at its beginning: what a person reads.
    Picture made;
    made.sensorHeight = 2; // no bars
    made.width = 512;
    made.height = 64;
    made.offsetY = 2;
    made.number = 70000001;
    const std::vector<std::uint8_t> bytes = painted(made);
    std::string text;
    for (std::uint32_t y = 0; y < 9; ++y) {
        for (std::uint32_t x = 0; x < 13; ++x)
            text += bytes[std::size_t{y} * 4 * 512 + std::size_t{x} * 4] != 0 ? '#' : '.';
        text += '\n';
    }
    EXPECT_EQ(text, ".............\n"
                    ".#####..###..\n"
                    ".....#.#...#.\n"
                    "....#..#..##.\n"
                    "...#...#.#.#.\n"
                    "..#....##..#.\n"
                    "..#....#...#.\n"
                    "..#.....###..\n"
                    ".............\n");
}

TEST(Pattern, Names)
{
    EXPECT_STREQ(pixel::name(0x010C0006), "Mono12Packed");
    EXPECT_STREQ(pixel::name(0x02100032), "YUV422_8");
    EXPECT_EQ(pixel::name(0x0210001F), nullptr);
    EXPECT_EQ(pixel::bits(pixel::rgb8), 24U);
}
