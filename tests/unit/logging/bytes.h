// Packets of the log service as the tests build and take them apart, from the layout tables and not with the product's
// code.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <typeinfo>
#include <vector>

namespace zuTest {

using Bytes = std::vector<std::uint8_t>;

/// Little-endian fields one after the other.
class Layout {
public:
    Layout& u8(std::uint8_t value) { return number(value, 1); }
    Layout& u16(std::uint16_t value) { return number(value, 2); }
    Layout& u32(std::uint32_t value) { return number(value, 4); }
    Layout& u64(std::uint64_t value) { return number(value, 8); }
    Layout& text(const std::string& value)
    {
        bytes.insert(bytes.end(), value.begin(), value.end());
        return *this;
    }
    /// Elements of a message container.
    Layout& element(std::uint8_t type, const std::string& data, std::uint8_t wide = 0)
    {
        return u16(static_cast<std::uint16_t>(data.size())).u8(type).u8(wide).text(data);
    }
    Layout& numberElement(std::uint8_t type, std::uint64_t value) { return u16(8).u8(type).u8(0).u64(value); }

    Bytes bytes;

private:
    Layout& number(std::uint64_t value, int size)
    {
        for (int i = 0; i < size; ++i)
            bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
        return *this;
    }
};

inline std::uint64_t fieldOf(const Bytes& packet, std::size_t offset, std::size_t size)
{
    std::uint64_t value = 0;
    for (std::size_t i = size; i-- > 0;)
        value = value << 8 | packet.at(offset + i);
    return value;
}

inline Bytes commandPacket(std::uint16_t command, std::uint16_t id, const std::string& payload,
                           std::uint16_t status = 0, std::uint16_t flags = 0)
{
    return Layout()
        .u16(0xACCA)
        .u16(flags)
        .u16(command)
        .u16(status)
        .u16(id)
        .u16(static_cast<std::uint16_t>(payload.size()))
        .text(payload)
        .bytes;
}

/// The good answer to a request.
inline Bytes acknowledgeOf(const Bytes& request, const std::string& payload = {}, std::uint16_t status = 0)
{
    return commandPacket(static_cast<std::uint16_t>(fieldOf(request, 4, 2) | 0x8000),
                         static_cast<std::uint16_t>(fieldOf(request, 8, 2)), payload, status);
}

inline std::string payloadOf(const Bytes& packet) { return {packet.begin() + 12, packet.end()}; }

inline Bytes connectionBlock(std::uint32_t commandAddress, std::uint16_t commandPort, std::uint32_t messageAddress,
                             std::uint16_t messagePort, std::uint32_t version = 1, std::uint32_t size = 24,
                             std::uint32_t magic = 0xABABBABA)
{
    return Layout()
        .u32(magic)
        .u32(version)
        .u32(size)
        .u32(commandAddress)
        .u16(commandPort)
        .u32(messageAddress)
        .u16(messagePort)
        .bytes;
}

/// A message packet around elements.
inline Bytes messagePacket(std::uint16_t command, std::uint16_t id, std::uint64_t sequence, std::uint16_t flags,
                           const Bytes& elements)
{
    const auto size = static_cast<std::uint16_t>(28 + elements.size());
    Layout packet;
    packet.u16(0xADDA).u16(1).u16(command).u16(0).u16(id).u16(size);
    packet.u16(size).u16(flags).u64(sequence).u64(sequence).u64(0);
    packet.bytes.insert(packet.bytes.end(), elements.begin(), elements.end());
    return packet.bytes;
}

/// What a call throws: its words if the class is exactly this one.
template <typename Exception, typename Call>
std::string failureOf(Call call)
{
    try {
        call();
    } catch (const Exception& failure) {
        return typeid(failure) == typeid(Exception) ? failure.what() : std::string("another class: ") + failure.what();
    }
    return "nothing thrown";
}

} // namespace zuTest
