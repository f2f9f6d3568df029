// The test pattern, bit by bit: what stands in a picture follows from a few numbers, so that a receiver can check every
// pixel. Sensor coordinates: x and y count from the sensor's corner, offsets included.
//
//   upper half of the sensor   colour bars of 128 pixels: white, yellow, cyan, green, magenta, red, blue, black
//   lower half                 a diagonal grey ramp, 0 to 65472 in steps of 64 over 1024 pixels
//
// Both repeat every 1024 pixels and move by 4 to the left with each picture. The ramp begins 4 pixels further to the
// left in each line. In the image's upper left corner stands the picture's number, eight white digits on black.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace gevsim {

namespace pixel {
constexpr std::uint32_t mono8 = 0x01080001;
constexpr std::uint32_t mono10 = 0x01100003; ///< as mono12 and mono16 in 16 bits, little-endian, the low ones used
constexpr std::uint32_t mono12 = 0x01100005;
constexpr std::uint32_t mono16 = 0x01100007;
constexpr std::uint32_t mono12Packed = 0x010C0006; ///< two pixels in three bytes, low bits in the middle one
constexpr std::uint32_t bayerRG8 = 0x01080009;
constexpr std::uint32_t rgb8 = 0x02180014;
constexpr std::uint32_t yuv422 = 0x02100032; ///< YUV422_8: Y0 U Y1 V, full range

struct Name {
    std::uint32_t value;
    const char* text;
};
constexpr std::array<Name, 8> names = {{
    {mono8, "Mono8"},
    {mono10, "Mono10"},
    {mono12, "Mono12"},
    {mono16, "Mono16"},
    {mono12Packed, "Mono12Packed"},
    {bayerRG8, "BayerRG8"},
    {rgb8, "RGB8"},
    {yuv422, "YUV422_8"},
}};

constexpr std::uint32_t bits(std::uint32_t format) { return (format >> 16) & 0xFF; }
/// The name of one of the eight; null for any other value.
const char* name(std::uint32_t format);
} // namespace pixel

/// What a picture is made of. Widths and OffsetX are multiples of 4, heights and OffsetY of 2.
struct Picture {
    std::uint32_t format = pixel::mono8;
    std::uint32_t sensorHeight = 0; ///< its half is where the ramp begins
    std::uint32_t width = 0, height = 0, offsetX = 0, offsetY = 0;
    bool reverseX = false;          ///< mirrored; the digits are not
    std::uint32_t brightness = 256; ///< 256ths: each of red, green and blue is multiplied by it and cut at 65535
    std::uint64_t number = 0;       ///< as written in it

    /// Bytes; a line has no padding.
    std::size_t size() const { return std::size_t{width} * height * pixel::bits(format) / 8; }
    friend bool operator==(const Picture&, const Picture&) = default;
};

/// Paints pictures. Keeps what the next one will need too; allocates only when format, width, brightness or mirroring
/// have changed. One thread at a time.
class Painter {
public:
    /// Writes `picture.size()` bytes.
    void paint(const Picture& picture, std::uint8_t* out);

private:
    void prepare(const Picture& picture);
    void number(const Picture& picture, std::uint8_t* out) const;

    std::optional<Picture> prepared_;
    /// A line and a period more of bars, even and odd line, and of the ramp.
    std::array<std::vector<std::uint8_t>, 4> lines_;
};

} // namespace gevsim
