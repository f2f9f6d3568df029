// A bare GVCP client for the tests of the simulated camera: sends bytes as they are, and receives what comes.
#pragma once

#include "tools/gevsim/wire.h"

#include "platform/socket.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

namespace gevsimTest {

using Bytes = std::vector<std::uint8_t>;

/// "42 01 00 80" to bytes.
inline Bytes bytes(const std::string& hex)
{
    Bytes result;
    std::string digits;
    for (const char c : hex) {
        if (c == ' ')
            continue;
        digits += c;
        if (digits.size() == 2) {
            result.push_back(static_cast<std::uint8_t>(std::stoul(digits, nullptr, 16)));
            digits.clear();
        }
    }
    return result;
}

inline std::string text(const Bytes& data)
{
    std::string result;
    for (const std::uint8_t byte : data) {
        char digits[4];
        std::snprintf(digits, sizeof digits, result.empty() ? "%02x" : " %02x", byte);
        result += digits;
    }
    return result;
}

inline Bytes join(Bytes first, const Bytes& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

inline Bytes word(std::uint32_t value)
{
    Bytes result(4);
    gevsim::wire::put32(result.data(), value);
    return result;
}

inline Bytes command(gevsim::Command code, std::uint16_t id, const Bytes& payload, std::uint8_t flags = 1)
{
    Bytes result(8);
    result[0] = 0x42;
    result[1] = flags;
    gevsim::wire::put16(&result[2], static_cast<std::uint16_t>(code));
    gevsim::wire::put16(&result[4], static_cast<std::uint32_t>(payload.size()));
    gevsim::wire::put16(&result[6], id);
    return join(std::move(result), payload);
}

inline Bytes readReg(std::uint32_t address, std::uint16_t id = 1)
{
    return command(gevsim::Command::readReg, id, word(address));
}
inline Bytes writeReg(std::uint32_t address, std::uint32_t value, std::uint16_t id = 1)
{
    return command(gevsim::Command::writeReg, id, join(word(address), word(value)));
}
inline Bytes readMem(std::uint32_t address, std::uint16_t count, std::uint16_t id = 1)
{
    return command(gevsim::Command::readMem, id, join(word(address), word(count)));
}
inline Bytes writeMem(std::uint32_t address, const Bytes& data, std::uint16_t id = 1)
{
    return command(gevsim::Command::writeMem, id, join(word(address), data));
}

inline std::uint16_t statusOf(const Bytes& ack) { return ack.size() < 8 ? 0xFFFF : gevsim::wire::get16(&ack[0]); }
inline std::uint16_t codeOf(const Bytes& ack) { return ack.size() < 8 ? 0xFFFF : gevsim::wire::get16(&ack[2]); }
inline std::uint16_t lengthOf(const Bytes& ack) { return ack.size() < 8 ? 0xFFFF : gevsim::wire::get16(&ack[4]); }
inline std::uint16_t idOf(const Bytes& ack) { return ack.size() < 8 ? 0xFFFF : gevsim::wire::get16(&ack[6]); }
inline std::uint32_t valueOf(const Bytes& ack) { return ack.size() < 12 ? 0xFFFFFFFF : gevsim::wire::get32(&ack[8]); }

class Client {
public:
    static constexpr std::uint32_t patience = 20000; ///< milliseconds for what must come
    static constexpr std::uint32_t shortly = 150;    ///< milliseconds for what must not come

    explicit Client(const gevsim::Endpoint& camera, std::uint32_t own = 0x7F000D01)
        : camera_{zuPlatform::hostToNetwork32(camera.ip), zuPlatform::hostToNetwork16(camera.port)}
    {
        socket_ = zuPlatform::DatagramSocket::open();
        if (!socket_ || socket_->bind({zuPlatform::hostToNetwork32(own), 0}) != 0)
            throw std::runtime_error("no client socket");
    }

    void send(const Bytes& data)
    {
        ASSERT_EQ(static_cast<std::ptrdiff_t>(data.size()), socket_->sendTo(data.data(), data.size(), camera_).count);
    }

    /// The next datagram; false in `came` if there was none in time.
    Bytes receive(bool& came, std::uint32_t timeoutMs)
    {
        Bytes buffer(65536);
        zuPlatform::SocketAddress from;
        const auto result = socket_->receive(buffer.data(), buffer.size(), timeoutMs, &from);
        came = result.kind == zuPlatform::ReceiveResult::Kind::received;
        buffer.resize(came ? static_cast<std::size_t>(result.count) : 0);
        if (came) {
            EXPECT_EQ(from, camera_);
        }
        return buffer;
    }
    Bytes receive()
    {
        bool came = false;
        Bytes data = receive(came, patience);
        EXPECT_TRUE(came) << "no answer";
        return data;
    }
    bool silent()
    {
        bool came = false;
        receive(came, shortly);
        return !came;
    }

    Bytes ask(const Bytes& data)
    {
        send(data);
        return receive();
    }
    std::uint16_t status(const Bytes& data) { return statusOf(ask(data)); }

    gevsim::Endpoint endpoint() const
    {
        zuPlatform::SocketAddress own;
        socket_->getLocalAddress(own);
        return {zuPlatform::networkToHost32(own.address), zuPlatform::networkToHost16(own.port)};
    }

private:
    zuPlatform::SocketAddress camera_;
    zuPlatform::SocketPtr socket_;
};

} // namespace gevsimTest
