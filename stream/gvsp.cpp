#include "stream/gvsp.h"

#include <algorithm>

namespace zuStream::gvsp {

namespace {

using Bytes = std::span<const std::uint8_t>;

std::uint64_t big(Bytes bytes, std::size_t at, std::size_t width)
{
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i)
        value = value << 8 | bytes[at + i];
    return value;
}
std::uint8_t big8(Bytes bytes, std::size_t at) { return bytes[at]; }
std::uint16_t big16(Bytes bytes, std::size_t at) { return static_cast<std::uint16_t>(big(bytes, at, 2)); }
std::uint32_t big32(Bytes bytes, std::size_t at) { return static_cast<std::uint32_t>(big(bytes, at, 4)); }
std::uint64_t big48(Bytes bytes, std::size_t at) { return big(bytes, at, 6); }
std::uint64_t big64(Bytes bytes, std::size_t at) { return big(bytes, at, 8); }

namespace headerAt {
constexpr std::size_t status = 0;
constexpr std::size_t block16 = 2;
constexpr std::size_t flags = 2;
constexpr std::size_t format = 4;
constexpr std::size_t packet24 = 4; // with the format above it
constexpr std::size_t parts = 7;
constexpr std::size_t block64 = 8;
constexpr std::size_t packet32 = 16;
} // namespace headerAt
constexpr std::uint8_t extendedBit = 0x80;
constexpr std::uint8_t formatBits = 0x0F;

// From the start of a leader or trailer.
constexpr std::size_t fieldAt = 0;
constexpr std::size_t payloadTypeAt = 2;
constexpr std::size_t leaderTimestampAt = 4;
constexpr std::size_t leaderBase = 12; ///< up to the timestamp's end
constexpr std::size_t trailerBase = 4; ///< up to the payload type's end
constexpr std::size_t imageSize = 24;  ///< from the pixel format to the padding
constexpr std::size_t partSize = 48;   ///< in a leader
constexpr std::size_t trailerPartSize = 16;
constexpr std::size_t jpegRest = 12;    ///< tick frequency and data format
constexpr std::size_t chunkTrailer = 8; ///< length and layout

namespace imageAt {
constexpr std::size_t pixelFormat = 0;
constexpr std::size_t width = 4;
constexpr std::size_t height = 8;
constexpr std::size_t offsetX = 12;
constexpr std::size_t offsetY = 16;
constexpr std::size_t paddingX = 20;
constexpr std::size_t paddingY = 22;
} // namespace imageAt

namespace partAt {
constexpr std::size_t dataType = 0;
constexpr std::size_t length = 2;
constexpr std::size_t format = 8;
constexpr std::size_t source = 14;
constexpr std::size_t zones = 15;
constexpr std::size_t purpose = 20;
constexpr std::size_t region = 22;
constexpr std::size_t geometry = 24; ///< as in an image, from the width on
constexpr std::size_t trailerHeight = 8;
} // namespace partAt

void readGeometry(Bytes body, std::size_t at, Image& image)
{
    image.width = big32(body, at);
    image.height = big32(body, at + imageAt::height - imageAt::width);
    image.offsetX = big32(body, at + imageAt::offsetX - imageAt::width);
    image.offsetY = big32(body, at + imageAt::offsetY - imageAt::width);
    image.paddingX = big16(body, at + imageAt::paddingX - imageAt::width);
    image.paddingY = big16(body, at + imageAt::paddingY - imageAt::width);
}

std::size_t readImage(Bytes body, std::size_t at, Frame& frame)
{
    if (body.size() < at + imageSize)
        return 0;
    frame.image.pixelFormat = big32(body, at + imageAt::pixelFormat);
    readGeometry(body, at + imageAt::width, frame.image);
    return at + imageSize;
}

std::size_t readFile(Bytes body, Frame& frame)
{
    const Bytes name = body.subspan(leaderBase + 8);
    const auto end = std::find(name.begin(), name.end(), std::uint8_t{0});
    if (end == name.end())
        return 0;
    const auto length = static_cast<std::size_t>(end - name.begin());
    const std::size_t kept = std::min(length, frame.fileName.size() - 1);
    std::copy_n(name.begin(), kept, frame.fileName.begin());
    frame.fileName[kept] = '\0';
    return leaderBase + 8 + length + 1;
}

std::size_t readParts(const Header& header, Bytes body, Frame& frame, std::span<Part> parts)
{
    const std::size_t present = (body.size() - leaderBase) / partSize;
    const std::size_t told = header.parts != 0 ? header.parts : present;
    if (told > present)
        return 0;
    frame.partCount = std::min(told, parts.size());
    for (std::size_t i = 0; i < frame.partCount; ++i) {
        const Bytes from = body.subspan(leaderBase + i * partSize, partSize);
        Part& part = parts[i];
        part.dataType = big16(from, partAt::dataType);
        part.size = big48(from, partAt::length);
        part.image.pixelFormat = big32(from, partAt::format);
        part.source = big8(from, partAt::source);
        part.zones = from[partAt::zones] & 0x1F;
        part.purpose = big16(from, partAt::purpose);
        part.region = big16(from, partAt::region);
        readGeometry(from, partAt::geometry, part.image);
    }
    return leaderBase + told * partSize;
}

/// Cameras whose pictures all have the same height may leave it out of the trailer.
void lower(std::uint32_t& height, std::uint32_t told)
{
    if (told != 0)
        height = std::min(height, told);
}

} // namespace

bool parseHeader(Bytes datagram, Header& header)
{
    if (datagram.size() < headerSize)
        return false;
    const std::uint8_t format = datagram[headerAt::format];
    header.format = static_cast<Format>(format & formatBits);
    if (header.format < leader || header.format > genDc)
        return false;
    header.status = big16(datagram, headerAt::status);
    header.extended = (format & extendedBit) != 0;
    if (header.extended) {
        if (datagram.size() < extendedHeaderSize)
            return false;
        header.flags = big16(datagram, headerAt::flags);
        header.parts = datagram[headerAt::parts];
        header.block = big64(datagram, headerAt::block64);
        header.packet = big32(datagram, headerAt::packet32);
        header.size = extendedHeaderSize;
    } else {
        header.flags = 0;
        header.parts = 0;
        header.block = big16(datagram, headerAt::block16);
        header.packet = big32(datagram, headerAt::packet24) & lastPacket24;
        header.size = headerSize;
    }
    return header.block != 0;
}

std::uint64_t leaderTimestamp(Bytes body) { return body.size() < leaderBase ? 0 : big64(body, leaderTimestampAt); }

std::size_t parseLeader(const Header& header, Bytes body, Frame& frame, std::span<Part> parts)
{
    if (body.size() < leaderBase)
        return 0;
    const std::uint16_t type = big16(body, payloadTypeAt);
    const std::uint16_t base = type & static_cast<std::uint16_t>(~payload::chunkBit);
    std::size_t taken = leaderBase;
    std::uint64_t timestamp = big64(body, leaderTimestampAt);
    switch (base) {
    case payload::unknown:
        return 0;
    case payload::image:
    case payload::extendedChunk:
        taken = readImage(body, leaderBase, frame);
        break;
    case payload::multiZone:
        taken = readImage(body, leaderBase + 4, frame); // behind the zones' directions
        break;
    case payload::raw:
    case payload::file:
    case payload::jpeg:
    case payload::jpeg2000:
        taken = leaderBase + 8 + (base == payload::jpeg || base == payload::jpeg2000 ? jpegRest : 0);
        if (body.size() < taken)
            return 0;
        frame.announcedSize = big64(body, leaderBase);
        if (base == payload::file)
            taken = readFile(body, frame);
        break;
    case payload::multiPart:
        taken = readParts(header, body, frame, parts);
        break;
    case payload::h264:
        timestamp = 0; // it has none here: its packets have
        break;
    default:
        break;
    }
    if (taken == 0)
        return 0;
    frame.payloadType = type;
    frame.hasChunks = (type & payload::chunkBit) != 0 || base == payload::chunkData || base == payload::extendedChunk;
    frame.fieldId = body[fieldAt] >> 4;
    frame.fieldCount = body[fieldAt] & 0x0F;
    frame.timestamp = timestamp;
    return taken;
}

std::size_t parseTrailer(Bytes body, Frame& frame, std::span<Part> parts)
{
    if (body.size() < trailerBase)
        return 0;
    const std::uint16_t type = big16(body, payloadTypeAt);
    const std::uint16_t base = type & static_cast<std::uint16_t>(~payload::chunkBit);
    const bool chunked = (type & payload::chunkBit) != 0;
    const bool hasLength = base == payload::chunkData || base == payload::extendedChunk;
    const bool hasHeight = base == payload::image || base == payload::multiZone || base == payload::extendedChunk;
    std::size_t at = trailerBase;
    const std::size_t lengthAt = at;
    at += hasLength ? 4 : 0;
    const std::size_t heightAt = at;
    at += hasHeight ? 4 : 0;
    std::size_t partCount = 0;
    const std::size_t partsAt = at;
    if (base == payload::multiPart) {
        partCount = frame.partCount;
        if (partCount == 0) // without the leader, what is there tells
            partCount = (body.size() - at - std::min(body.size() - at, chunked ? chunkTrailer : 0)) / trailerPartSize;
        at += partCount * trailerPartSize;
    }
    const std::size_t chunksAt = at;
    at += chunked ? chunkTrailer : base == payload::extendedChunk ? 4 : 0;
    if (body.size() < at)
        return 0;
    if (hasLength)
        frame.chunkLength = big32(body, lengthAt);
    if (hasHeight)
        lower(frame.image.height, big32(body, heightAt));
    for (std::size_t i = 0; i < std::min({partCount, frame.partCount, parts.size()}); ++i) {
        const Bytes from = body.subspan(partsAt + i * trailerPartSize, trailerPartSize);
        parts[i].size = std::min(parts[i].size, big48(from, partAt::length));
        lower(parts[i].image.height, big32(from, partAt::trailerHeight));
    }
    if (chunked) {
        frame.chunkLength = big32(body, chunksAt);
        frame.chunkLayout = big32(body, chunksAt + 4);
    } else if (base == payload::extendedChunk) {
        frame.chunkLayout = big32(body, chunksAt);
    }
    return at;
}

bool parseMultiPart(Bytes body, MultiPartHeader& header)
{
    if (body.size() < multiPartHeaderSize)
        return false;
    header.part = body[0];
    header.offset = big48(body, 2);
    return true;
}

std::size_t writeResend(const Resend& resend, std::uint16_t requestId, std::span<std::uint8_t, extendedResendSize> out)
{
    constexpr std::uint8_t key = 0x42;
    constexpr std::uint8_t extendedFlag = 0x10; // and no acknowledge asked for
    constexpr std::uint16_t command = 0x0040;
    constexpr std::size_t commandHeader = 8;
    const std::size_t size = resend.extended ? extendedResendSize : resendSize;
    std::size_t at = 0;
    const auto put = [&](std::uint64_t value, std::size_t width) {
        for (std::size_t i = width; i-- > 0;)
            out[at++] = static_cast<std::uint8_t>(value >> (8 * i));
    };
    put(key, 1);
    put(resend.extended ? extendedFlag : 0, 1);
    put(command, 2);
    put(size - commandHeader, 2);
    put(requestId, 2);
    put(resend.channel, 2);
    put(resend.extended ? 0 : resend.block, 2);
    put(resend.first, 4);
    put(!resend.toTheEnd ? resend.last : resend.extended ? lastPacket32 : lastPacket24, 4);
    if (resend.extended)
        put(resend.block, 8);
    return size;
}

} // namespace zuStream::gvsp

namespace zuStream {

std::size_t Image::linePitch() const
{
    const std::uint64_t bits = std::uint64_t{width} * bitsPerPixel();
    return bits % 8 == 0 ? static_cast<std::size_t>(bits / 8) + paddingX : 0;
}

std::uint64_t Image::size() const
{
    const std::uint64_t lineBits = std::uint64_t{width} * bitsPerPixel();
    constexpr std::uint64_t most = ~std::uint64_t{0};
    // Without padding packed pixels run on from line to line.
    const bool lines = paddingX != 0 || lineBits % 8 == 0;
    const std::uint64_t unit = lines ? (lineBits + 7) / 8 + paddingX : lineBits;
    if (unit != 0 && height > (most - 7 - paddingY) / unit)
        return most;
    return (lines ? unit * height : (unit * height + 7) / 8) + paddingY;
}

} // namespace zuStream
