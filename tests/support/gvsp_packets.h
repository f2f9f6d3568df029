// The tests' own encoder of GVSP datagrams, written from the wire tables and sharing nothing with the receiver.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zuTest::gvsp {

using Bytes = std::vector<std::uint8_t>;

/// A datagram under construction, big-endian.
class Writer {
public:
    Writer& put(std::uint64_t value, int width)
    {
        for (int i = width - 1; i >= 0; --i)
            bytes_.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
        return *this;
    }
    Writer& put(const Bytes& data)
    {
        bytes_.insert(bytes_.end(), data.begin(), data.end());
        return *this;
    }
    operator Bytes() const { return bytes_; }

private:
    Bytes bytes_;
};

/// The block that a packet belongs to, and how its ids are written.
struct Block {
    std::uint64_t id = 1;
    bool extended = false;
    std::uint16_t status = 0;
    std::uint16_t flags = 0; ///< of extended headers
};

inline std::size_t headerSize(bool extended) { return extended ? 20 : 8; }
/// What one payload packet carries.
inline std::size_t payloadSize(unsigned packetSize, bool extended) { return packetSize - 28 - headerSize(extended); }

inline Writer header(const Block& block, unsigned format, std::uint32_t packet, unsigned parts = 0)
{
    Writer out;
    out.put(block.status, 2);
    if (block.extended)
        out.put(block.flags, 2).put(0x80 | format, 1).put(0, 2).put(parts, 1).put(block.id, 8).put(packet, 4);
    else
        out.put(block.id, 2).put(format, 1).put(packet, 3);
    return out;
}

struct Picture {
    std::uint32_t pixelFormat = 0x01080001; // Mono8
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::uint32_t offsetX = 0;
    std::uint32_t offsetY = 0;
    std::uint16_t paddingX = 0;
    std::uint16_t paddingY = 0;
    std::uint8_t field = 0;
    std::uint64_t timestamp = 0;
};

inline Bytes geometry(const Picture& picture)
{
    return Writer()
        .put(picture.width, 4)
        .put(picture.height, 4)
        .put(picture.offsetX, 4)
        .put(picture.offsetY, 4)
        .put(picture.paddingX, 2)
        .put(picture.paddingY, 2);
}

inline Bytes imageLeader(const Block& block, const Picture& picture, std::uint16_t type = 1)
{
    return header(block, 1, 0)
        .put(picture.field, 1)
        .put(0, 1)
        .put(type, 2)
        .put(picture.timestamp, 8)
        .put(picture.pixelFormat, 4)
        .put(geometry(picture));
}

/// Of raw data, a file (with its name) and JPEG.
inline Bytes sizedLeader(const Block& block, std::uint16_t type, std::uint64_t timestamp, std::uint64_t size,
                         const std::string& name = {})
{
    Writer out = header(block, 1, 0).put(0, 2).put(type, 2).put(timestamp, 8).put(size, 8);
    if ((type & 0xFFF) == 3)
        out.put(Bytes(name.begin(), name.end())).put(0, 1);
    if ((type & 0xFFF) == 6)
        out.put(1000000, 8).put(0, 4);
    return out;
}

/// With the timestamp alone, as of chunk data.
inline Bytes plainLeader(const Block& block, std::uint16_t type, std::uint64_t timestamp)
{
    return header(block, 1, 0).put(0, 2).put(type, 2).put(timestamp, 8);
}

inline Bytes payload(const Block& block, std::uint32_t packet, const Bytes& data, unsigned format = 3)
{
    return header(block, format, packet).put(data);
}

/// `words` are what the payload type has behind its type.
inline Bytes trailer(const Block& block, std::uint32_t packet, std::uint16_t type,
                     const std::vector<std::uint32_t>& words)
{
    Writer out = header(block, 2, packet).put(0, 2).put(type, 2);
    for (const std::uint32_t word : words)
        out.put(word, 4);
    return out;
}

/// The data as payload packets, from packet 1 on.
inline std::vector<Bytes> payloads(const Block& block, const Bytes& data, unsigned packetSize, unsigned format = 3)
{
    std::vector<Bytes> packets;
    const std::size_t full = payloadSize(packetSize, block.extended);
    for (std::size_t at = 0; at < data.size(); at += full)
        packets.push_back(payload(block, static_cast<std::uint32_t>(packets.size() + 1),
                                  Bytes(data.begin() + static_cast<std::ptrdiff_t>(at),
                                        data.begin() + static_cast<std::ptrdiff_t>(std::min(at + full, data.size()))),
                                  format));
    return packets;
}

/// A frame whole: leader, payload, trailer.
inline std::vector<Bytes> frame(const Block& block, const Bytes& leader, const Bytes& data, unsigned packetSize,
                                std::uint16_t type, const std::vector<std::uint32_t>& trailerWords)
{
    std::vector<Bytes> packets = payloads(block, data, packetSize);
    packets.insert(packets.begin(), leader);
    packets.push_back(trailer(block, static_cast<std::uint32_t>(packets.size()), type, trailerWords));
    return packets;
}

inline std::vector<Bytes> imageFrame(const Block& block, const Picture& picture, const Bytes& data, unsigned packetSize)
{
    return frame(block, imageLeader(block, picture), data, packetSize, 1, {picture.height});
}

struct PartInfo {
    std::uint16_t dataType = 1;
    std::uint16_t purpose = 0;
    std::uint16_t region = 0;
    std::uint8_t source = 0;
    Picture picture;
    Bytes data;
};

/// A multi-part frame, each part's data in packets of its own.
inline std::vector<Bytes> multiPartFrame(const Block& block, const std::vector<PartInfo>& parts, unsigned packetSize,
                                         std::uint64_t timestamp)
{
    Writer leader = header(block, 1, 0, block.extended ? static_cast<unsigned>(parts.size()) : 0);
    leader.put(0, 2).put(10, 2).put(timestamp, 8);
    for (const PartInfo& part : parts)
        leader.put(part.dataType, 2)
            .put(part.data.size(), 6)
            .put(part.picture.pixelFormat, 4)
            .put(0, 2)
            .put(part.source, 1)
            .put(0, 1)
            .put(0, 4)
            .put(part.purpose, 2)
            .put(part.region, 2)
            .put(geometry(part.picture))
            .put(0, 4);
    std::vector<Bytes> packets = {leader};
    const std::size_t full = payloadSize(packetSize, block.extended) - 8;
    for (std::size_t p = 0; p < parts.size(); ++p)
        for (std::size_t at = 0; at < parts[p].data.size(); at += full) {
            const Bytes& data = parts[p].data;
            const std::size_t end = std::min(at + full, data.size());
            packets.push_back(header(block, 7, static_cast<std::uint32_t>(packets.size()))
                                  .put(p, 1)
                                  .put(end == data.size() ? 0x40 : 0, 1)
                                  .put(at, 6)
                                  .put(Bytes(data.begin() + static_cast<std::ptrdiff_t>(at),
                                             data.begin() + static_cast<std::ptrdiff_t>(end))));
        }
    Writer trailer = header(block, 2, static_cast<std::uint32_t>(packets.size())).put(0, 2).put(10, 2);
    for (const PartInfo& part : parts)
        trailer.put(part.dataType, 2).put(part.data.size(), 6).put(part.picture.height, 4).put(0, 4);
    packets.push_back(trailer);
    return packets;
}

/// Bytes that tell their place and their frame.
inline Bytes pattern(std::size_t size, std::uint64_t seed)
{
    Bytes data(size);
    for (std::size_t i = 0; i < size; ++i)
        data[i] = static_cast<std::uint8_t>((i * 2654435761u + seed * 40503u) >> 11);
    return data;
}

} // namespace zuTest::gvsp
