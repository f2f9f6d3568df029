// Lines of the pattern in each pixel format, and the digits.
#include "tools/gevsim/picture.h"

#include <algorithm>
#include <cstring>

namespace gevsim {

namespace {

constexpr std::uint32_t period = 1024; // pixels
constexpr std::uint32_t barWidth = 128;
constexpr std::uint32_t step = 4; // pixels from picture to picture, and from line to line of the ramp
constexpr std::uint32_t full = 0xFFFF;

/// 16 bits each.
struct Colour {
    std::uint32_t red = 0, green = 0, blue = 0;
};

Colour bar(std::uint32_t phase)
{
    const std::uint32_t index = phase / barWidth;
    return {(index & 2u) ? 0 : full, (index & 4u) ? 0 : full, (index & 1u) ? 0 : full};
}

Colour ramp(std::uint32_t phase)
{
    const std::uint32_t value = phase * (65536 / period);
    return {value, value, value};
}

std::uint32_t bright(std::uint32_t value, std::uint32_t brightness)
{
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(full, std::uint64_t{value} * brightness / 256));
}

std::uint32_t luma(const Colour& colour)
{
    return (19595 * colour.red + 38470 * colour.green + 7471 * colour.blue + 32768) >> 16;
}

/// U with the weights of blue's difference, V with those of red's, of 8-bit values.
std::uint8_t chroma(const Colour& first, const Colour& second, const std::array<std::int32_t, 3>& weights)
{
    const auto mean = [](std::uint32_t a, std::uint32_t b) {
        return static_cast<std::int32_t>(((a >> 8) + (b >> 8) + 1) / 2);
    };
    const std::int32_t sum = weights[0] * mean(first.red, second.red) + weights[1] * mean(first.green, second.green) +
                             weights[2] * mean(first.blue, second.blue);
    return static_cast<std::uint8_t>(std::clamp(128 + ((sum + 32768) >> 16), 0, 255));
}

constexpr std::array<std::int32_t, 3> weightsU = {-11059, -21709, 32768};
constexpr std::array<std::int32_t, 3> weightsV = {32768, -27439, -5329};

std::size_t bytesOf(std::uint32_t format, std::size_t pixels) { return pixels * pixel::bits(format) / 8; }

/// Two pixels that stand side by side, the first at an even place.
void putPair(std::uint32_t format, bool oddLine, const Colour& first, const Colour& second, std::uint8_t* out)
{
    const auto byte = [](std::uint32_t value) { return static_cast<std::uint8_t>(value); };
    const auto deep = [&](unsigned shift) {
        const std::uint32_t a = luma(first) >> shift, b = luma(second) >> shift;
        out[0] = byte(a);
        out[1] = byte(a >> 8);
        out[2] = byte(b);
        out[3] = byte(b >> 8);
    };
    switch (format) {
    case pixel::mono10:
        deep(6);
        break;
    case pixel::mono12:
        deep(4);
        break;
    case pixel::mono16:
        deep(0);
        break;
    case pixel::mono12Packed: {
        const std::uint32_t a = luma(first) >> 4, b = luma(second) >> 4;
        out[0] = byte(a >> 4);
        out[1] = byte((a & 15u) | (b & 15u) << 4);
        out[2] = byte(b >> 4);
        break;
    }
    case pixel::bayerRG8:
        out[0] = byte((oddLine ? first.green : first.red) >> 8);
        out[1] = byte((oddLine ? second.blue : second.green) >> 8);
        break;
    case pixel::rgb8:
        for (const Colour* colour : {&first, &second}) {
            *out++ = byte(colour->red >> 8);
            *out++ = byte(colour->green >> 8);
            *out++ = byte(colour->blue >> 8);
        }
        break;
    case pixel::yuv422:
        out[0] = byte(luma(first) >> 8);
        out[1] = chroma(first, second, weightsU);
        out[2] = byte(luma(second) >> 8);
        out[3] = chroma(first, second, weightsV);
        break;
    default:
        out[0] = byte(luma(first) >> 8);
        out[1] = byte(luma(second) >> 8);
        break;
    }
}

constexpr std::uint32_t digits = 8, glyphWidth = 5, glyphHeight = 7;
constexpr std::uint32_t boxWidth = digits * (glyphWidth + 1) + 2, boxHeight = glyphHeight + 2;
constexpr std::uint32_t largestScale = 16;

/// Rows of a digit, the leftmost point in bit 4.
constexpr std::uint8_t glyphs[10][glyphHeight] = {
    {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}, {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E},
    {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}, {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E},
    {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}, {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E},
    {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}, {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08},
    {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}, {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C},
};

} // namespace

const char* pixel::name(std::uint32_t format)
{
    const auto found =
        std::find_if(names.begin(), names.end(), [format](const Name& known) { return known.value == format; });
    return found == names.end() ? nullptr : found->text;
}

void Painter::prepare(const Picture& picture)
{
    if (prepared_ && prepared_->format == picture.format && prepared_->width == picture.width &&
        prepared_->reverseX == picture.reverseX && prepared_->brightness == picture.brightness)
        return;
    const std::uint32_t pixels = picture.width + period;
    for (std::size_t kind = 0; kind < lines_.size(); ++kind) {
        std::vector<std::uint8_t>& line = lines_[kind];
        line.resize(bytesOf(picture.format, pixels));
        const auto colour = [&](std::uint32_t at) {
            const std::uint32_t phase = (picture.reverseX ? period - 1 - at % period : at) % period;
            const Colour scene = kind < 2 ? bar(phase) : ramp(phase);
            return Colour{bright(scene.red, picture.brightness), bright(scene.green, picture.brightness),
                          bright(scene.blue, picture.brightness)};
        };
        for (std::uint32_t x = 0; x < pixels; x += 2)
            putPair(picture.format, kind % 2 != 0, colour(x), colour(x + 1), &line[bytesOf(picture.format, x)]);
    }
    prepared_ = picture;
}

void Painter::paint(const Picture& picture, std::uint8_t* out)
{
    prepare(picture);
    const std::size_t lineSize = bytesOf(picture.format, picture.width);
    const auto moved = static_cast<std::uint32_t>(picture.offsetX + step * (picture.number % period));
    for (std::uint32_t y = 0; y < picture.height; ++y) {
        const std::uint32_t sensorY = picture.offsetY + y;
        const bool bars = sensorY < picture.sensorHeight / 2;
        std::uint32_t start = (moved + (bars ? 0 : step * (sensorY % period))) % period;
        // Mirrored, the line's last pixel is where it would have begun.
        if (picture.reverseX)
            start = (2 * period - start - picture.width % period) % period;
        const std::vector<std::uint8_t>& line = lines_[(bars ? 0 : 2) + y % 2];
        std::memcpy(out + y * lineSize, &line[bytesOf(picture.format, start)], lineSize);
    }
    number(picture, out);
}

void Painter::number(const Picture& picture, std::uint8_t* out) const
{
    const std::uint32_t scale = std::clamp<std::uint32_t>(picture.width / 128, 1, largestScale);
    const std::uint32_t width = std::min(boxWidth * scale, picture.width);
    const std::size_t lineSize = bytesOf(picture.format, picture.width);
    std::array<std::uint8_t, digits> text{};
    std::uint64_t rest = picture.number;
    for (std::size_t i = text.size(); i-- > 0; rest /= 10)
        text[i] = static_cast<std::uint8_t>(rest % 10);

    for (std::uint32_t row = 0; row < boxHeight; ++row) {
        const auto colour = [&](std::uint32_t at) {
            const std::uint32_t column = at / scale;
            if (row == 0 || row > glyphHeight || column == 0 || column > digits * (glyphWidth + 1))
                return Colour{};
            const std::uint32_t digit = (column - 1) / (glyphWidth + 1), point = (column - 1) % (glyphWidth + 1);
            const bool set =
                point < glyphWidth && ((glyphs[text[digit]][row - 1] >> (glyphWidth - 1 - point)) & 1) != 0;
            return set ? Colour{full, full, full} : Colour{};
        };
        const std::uint32_t top = row * scale;
        if (top >= picture.height)
            break;
        std::uint8_t* const first = out + top * lineSize;
        for (std::uint32_t x = 0; x < width; x += 2)
            putPair(picture.format, false, colour(x), colour(x + 1), first + bytesOf(picture.format, x));
        // Black and white are the same in each line of a mosaic.
        for (std::uint32_t y = 1; y < scale && top + y < picture.height; ++y)
            std::memcpy(first + y * lineSize, first, bytesOf(picture.format, width));
    }
}

} // namespace gevsim
