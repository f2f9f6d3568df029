// A bare receiver of stream packets, beside a client that controls the camera: takes bytes apart by itself.
#pragma once

#include "tests/unit/gevsim/client.h"

#include "tools/gevsim/camera.h"

#include <chrono>
#include <cstring>
#include <map>
#include <set>

namespace gevsimTest {

inline std::uint64_t big(const Bytes& data, std::size_t at, std::size_t count)
{
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < count; ++i)
        value = value << 8 | data.at(at + i);
    return value;
}

inline std::uint32_t floatBits(float value)
{
    std::uint32_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

/// A stream packet, taken apart.
struct Piece {
    Bytes bytes;
    bool extended = false;
    std::uint16_t status = 0, flags = 0;
    unsigned format = 0;
    std::uint64_t block = 0;
    std::uint32_t id = 0;
    Bytes content; ///< behind the header
    gevsim::Endpoint from{0, 0};
    std::chrono::steady_clock::time_point time;
};

inline Piece piece(const Bytes& bytes)
{
    Piece made;
    made.bytes = bytes;
    if (bytes.size() < 8)
        return made;
    made.status = static_cast<std::uint16_t>(big(bytes, 0, 2));
    made.extended = (bytes[4] & 0x80) != 0;
    made.format = bytes[4] & 0x0F;
    const std::size_t header = made.extended ? 20 : 8;
    if (bytes.size() < header)
        return made;
    made.flags = made.extended ? static_cast<std::uint16_t>(big(bytes, 2, 2)) : std::uint16_t{0};
    made.block = made.extended ? big(bytes, 8, 8) : big(bytes, 2, 2);
    made.id = static_cast<std::uint32_t>(made.extended ? big(bytes, 16, 4) : big(bytes, 5, 3));
    made.content.assign(bytes.begin() + static_cast<std::ptrdiff_t>(header), bytes.end());
    return made;
}

class Viewer {
public:
    static constexpr std::uint32_t patience = 20000, shortly = 150;

    explicit Viewer(const gevsim::Camera& camera, std::uint32_t own = 0x7F000D02) : control(camera.endpoint(), own)
    {
        socket_ = zuPlatform::DatagramSocket::open();
        socket_->setReceiveBuffer(8 * 1024 * 1024);
        EXPECT_EQ(socket_->bind({zuPlatform::hostToNetwork32(own), 0}), 0);
        zuPlatform::SocketAddress local;
        EXPECT_EQ(socket_->getLocalAddress(local), 0);
        port = zuPlatform::networkToHost16(local.port);
        ip = own;
    }

    void write(std::uint32_t address, std::uint32_t value) { EXPECT_EQ(set(address, value), 0) << std::hex << address; }
    std::uint16_t set(std::uint32_t address, std::uint32_t value) { return control.status(writeReg(address, value)); }
    std::uint32_t read(std::uint32_t address) { return valueOf(control.ask(readReg(address))); }

    /// Takes control and opens the channel.
    void open(std::uint32_t packetSize = 256)
    {
        write(gevsim::reg::ccp, 2);
        write(gevsim::reg::streamDestination, ip);
        write(gevsim::reg::streamPort, port);
        write(gevsim::reg::streamPacketSize, packetSize);
    }
    void start() { write(gevsim::feature::acquisitionStart, 1); }
    void stop() { write(gevsim::feature::acquisitionStop, 1); }

    Piece next(bool& came, std::uint32_t timeoutMs)
    {
        Bytes buffer(65536);
        zuPlatform::SocketAddress from;
        const auto result = socket_->receive(buffer.data(), buffer.size(), timeoutMs, &from);
        came = result.kind == zuPlatform::ReceiveResult::Kind::received;
        buffer.resize(came ? static_cast<std::size_t>(result.count) : 0);
        Piece made = piece(buffer);
        made.from = {zuPlatform::networkToHost32(from.address), zuPlatform::networkToHost16(from.port)};
        made.time = std::chrono::steady_clock::now();
        return made;
    }
    Piece next()
    {
        bool came = false;
        Piece made = next(came, patience);
        EXPECT_TRUE(came) << "no packet";
        return made;
    }
    bool silent()
    {
        bool came = false;
        next(came, shortly);
        return !came;
    }
    /// All packets up to a trailer.
    std::vector<Piece> frame()
    {
        std::vector<Piece> pieces;
        bool came = true;
        while (came && (pieces.empty() || pieces.back().format != 2)) {
            Piece made = next(came, patience);
            if (came)
                pieces.push_back(std::move(made));
        }
        EXPECT_TRUE(came) << "no trailer";
        return pieces;
    }
    /// So many packets.
    std::vector<Piece> some(std::size_t count)
    {
        std::vector<Piece> pieces;
        while (pieces.size() < count)
            pieces.push_back(next());
        return pieces;
    }
    /// PACKETRESEND, from the stream's own socket.
    void ask(const gevsim::Camera& camera, const Bytes& request)
    {
        socket_->sendTo(request.data(), request.size(),
                        {zuPlatform::hostToNetwork32(camera.ip()), zuPlatform::hostToNetwork16(camera.port())});
    }

    Client control;
    std::uint16_t port = 0;
    std::uint32_t ip = 0;

private:
    zuPlatform::SocketPtr socket_;
};

/// What stands in the packets of data, in the order of their ids.
inline Bytes payload(const std::vector<Piece>& pieces)
{
    std::map<std::uint32_t, Bytes> parts;
    for (const Piece& made : pieces) {
        if (made.format == 3 && !made.content.empty())
            parts[made.id] = made.content;
    }
    Bytes all;
    for (const auto& [id, part] : parts)
        all = join(std::move(all), part);
    return all;
}

inline std::vector<std::uint32_t> ids(const std::vector<Piece>& pieces)
{
    std::vector<std::uint32_t> all;
    for (const Piece& made : pieces)
        all.push_back(made.id);
    return all;
}

inline Bytes half(std::uint16_t value)
{
    Bytes result(2);
    gevsim::wire::put16(result.data(), value);
    return result;
}

inline Bytes resend(std::uint16_t block, std::uint32_t first, std::uint32_t last, std::uint16_t channel = 0,
                    std::uint8_t flags = 0)
{
    return command(gevsim::Command::packetResend, 7,
                   join(join(half(channel), half(block)), join(word(first), word(last))), flags);
}
inline Bytes longResend(std::uint64_t block, std::uint32_t first, std::uint32_t last)
{
    return command(gevsim::Command::packetResend, 7,
                   join(join(join(half(0), half(0)), join(word(first), word(last))),
                        join(word(static_cast<std::uint32_t>(block >> 32)), word(static_cast<std::uint32_t>(block)))),
                   0x10);
}

} // namespace gevsimTest
