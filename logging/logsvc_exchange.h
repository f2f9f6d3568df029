// The packets of the log service's commands, and one exchange of a command for its acknowledge. Every field is in the
// host's order, little-endian, with no padding. Stateless.
#pragma once

#include "platform/socket.h"

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include <boost/property_tree/ptree.hpp>

namespace zuLogging::detail {

static_assert(std::endian::native == std::endian::little);

/// Offsets in the header that every packet begins with.
namespace packet_header {
inline constexpr std::size_t magic = 0;
inline constexpr std::size_t flags = 2;
inline constexpr std::size_t command = 4;
inline constexpr std::size_t status = 6;
inline constexpr std::size_t id = 8;
inline constexpr std::size_t length = 10; ///< of the payload
inline constexpr std::size_t size = 12;
} // namespace packet_header

inline constexpr std::size_t packet_capacity = 1400;
inline constexpr std::size_t payload_capacity = packet_capacity - packet_header::size;

inline constexpr std::uint16_t command_magic = 0xACCA; ///< commands and acknowledges
inline constexpr std::uint16_t message_magic = 0xADDA;
inline constexpr std::uint16_t command_get_config = 0x0001;
inline constexpr std::uint16_t command_set_description = 0x0041;
inline constexpr std::uint16_t command_message = 0x0101;
inline constexpr std::uint16_t command_message_records = 0x0102;
inline constexpr std::uint16_t acknowledge_bit = 0x8000;

using packet = std::array<unsigned char, packet_capacity>;

template <typename T>
T get_field(const unsigned char* bytes, std::size_t offset)
{
    T value;
    std::memcpy(&value, bytes + offset, sizeof value);
    return value;
}

template <typename T>
void put_field(unsigned char* bytes, std::size_t offset, T value)
{
    std::memcpy(bytes + offset, &value, sizeof value);
}

/// A request id: the low 16 bits of the local time in microseconds since 1970.
std::uint16_t make_request_id();

/// Writes a command packet and returns its size. Throws `LogSvcError` if `payload` is too long.
std::size_t build_command(packet& buffer, std::uint16_t command, std::uint16_t id, const std::string& payload);

/// Judges the `size` bytes received as the acknowledge of a request. Throws `LogSvcError`.
void check_acknowledge(const packet& reply, std::size_t size, std::uint16_t command, std::uint16_t id);

/// The payload of a checked acknowledge.
std::string acknowledge_payload(const packet& reply);

/// Throws `LogSvcError`.
boost::property_tree::ptree parse_configuration(const std::string& json);

/// Sends the `size` bytes of `request` and waits for the acknowledge, which goes to `reply`, in two attempts of half a
/// second. Throws `LogSvcError`.
void exchange(zuPlatform::DatagramSocket& socket, const zuPlatform::SocketAddress& service, const packet& request,
              std::size_t size, packet& reply);

} // namespace zuLogging::detail
