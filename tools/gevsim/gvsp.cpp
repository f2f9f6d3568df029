// Stream packets as bytes.
#include "tools/gevsim/gvsp.h"

#include <cstring>

namespace gevsim {

using namespace wire;

namespace {

void put64(std::uint8_t* out, std::uint64_t value)
{
    put32(out, static_cast<std::uint32_t>(value >> 32));
    put32(out + 4, static_cast<std::uint32_t>(value));
}

constexpr std::size_t chunkTail = 8; // id and length
constexpr std::size_t chunkValue = 8;

constexpr std::uint32_t chunkIds[] = {chunk::frameIdId, chunk::timestampId, chunk::exposureId};

} // namespace

std::size_t gvsp::putHeader(std::uint8_t* out, bool extended, std::uint16_t status, std::uint16_t flags,
                            std::uint8_t format, std::uint64_t block, std::uint32_t packet)
{
    constexpr std::uint32_t extendedIds = 0x80;
    put16(out, status);
    if (!extended) {
        put16(out + 2, static_cast<std::uint32_t>(block & 0xFFFF));
        put32(out + 4, std::uint32_t{format} << 24 | (packet & 0xFFFFFF));
        return shortHeader;
    }
    put16(out + 2, flags);
    put32(out + 4, (extendedIds | format) << 24);
    put64(out + 8, block);
    put32(out + 16, packet);
    return longHeader;
}

std::size_t gvsp::putLeader(std::uint8_t* out, const SentFrame& frame)
{
    put16(out, 0);
    put16(out + 2, frame.payloadType);
    put64(out + 4, frame.timestamp);
    if (frame.payloadType == chunkData)
        return 12;
    put32(out + 12, frame.picture.format);
    put32(out + 16, frame.picture.width);
    put32(out + 20, frame.picture.height);
    put32(out + 24, frame.picture.offsetX);
    put32(out + 28, frame.picture.offsetY);
    put32(out + 32, 0); // no padding
    return 36;
}

std::size_t gvsp::putTrailer(std::uint8_t* out, const SentFrame& frame)
{
    put16(out, 0);
    put16(out + 2, frame.payloadType);
    if (frame.payloadType == chunkData) {
        put32(out + 4, static_cast<std::uint32_t>(frame.payloadSize));
        return 8;
    }
    put32(out + 4, frame.picture.height);
    if (frame.payloadType == image)
        return 8;
    put32(out + 8, static_cast<std::uint32_t>(frame.payloadSize));
    put32(out + 12, frame.chunks); // which chunks there are decides the layout
    return 16;
}

std::size_t gvsp::payloadSize(const Picture& picture, bool chunkMode, std::uint32_t chunks)
{
    std::size_t size = picture.size();
    if (!chunkMode)
        return size;
    size += chunkTail;
    for (std::uint32_t bit = 1; bit <= chunk::exposure; bit <<= 1) {
        if (chunks & bit)
            size += chunkValue + chunkTail;
    }
    return size;
}

void gvsp::putChunks(std::uint8_t* out, const SentFrame& frame)
{
    if (frame.payloadType == image)
        return;
    std::uint64_t exposure = 0;
    static_assert(sizeof exposure == sizeof frame.exposureUs);
    std::memcpy(&exposure, &frame.exposureUs, sizeof exposure);
    const std::uint64_t values[] = {frame.picture.number, frame.timestamp, exposure};
    const auto tail = [&out](std::uint32_t id, std::size_t length) {
        put32(out, id);
        put32(out + 4, static_cast<std::uint32_t>(length));
        out += chunkTail;
    };
    tail(chunk::imageId, frame.picture.size());
    for (std::size_t i = 0; i < std::size(values); ++i) {
        if ((frame.chunks & 1u << i) == 0)
            continue;
        put64(out, values[i]);
        out += chunkValue;
        tail(chunkIds[i], chunkValue);
    }
}

std::vector<std::uint8_t> payloadOf(const SentFrame& frame)
{
    std::vector<std::uint8_t> payload(frame.payloadSize);
    Painter().paint(frame.picture, payload.data());
    gvsp::putChunks(payload.data() + frame.picture.size(), frame);
    return payload;
}

} // namespace gevsim
