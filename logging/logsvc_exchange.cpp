// Command packets, acknowledges and their exchange. On the thread that configures logging.
#include "logging/logsvc_exchange.h"

#include "logging/json.h"
#include "logging/logsvc_client.h"
#include "logging/timestamp.h"

#include <algorithm>

namespace zuLogging::detail {

namespace {

constexpr std::size_t drain_size = 1024;
/// More datagrams than the socket's buffer can hold: all that came before the command are read away, and a sender that
/// never stops can't keep the client here.
constexpr unsigned drain_limit = 0x20000;
constexpr unsigned attempts = 2;
constexpr std::uint32_t answer_timeout_ms = 500;

using Kind = zuPlatform::ReceiveResult::Kind;

void drain(zuPlatform::DatagramSocket& socket)
{
    std::array<unsigned char, drain_size> scratch;
    for (unsigned i = 0; i < drain_limit; ++i) {
        const auto result = socket.receive(scratch.data(), scratch.size(), 0, nullptr);
        if (result.kind == Kind::receiveFailed)
            throw LogSvcError("Failed to read out invalid previous data from the log client socket");
        if (result.kind != Kind::received)
            return;
    }
}

/// The size of the service's answer, or -1.
std::ptrdiff_t attempt(zuPlatform::DatagramSocket& socket, const zuPlatform::SocketAddress& service,
                       const packet& request, std::size_t size, packet& reply)
{
    if (socket.sendTo(request.data(), size, service).count < 0)
        return -1;
    zuPlatform::SocketAddress from;
    const auto result = socket.receive(reply.data(), reply.size(), answer_timeout_ms, &from);
    return result.kind == Kind::received && from == service ? result.count : -1;
}

} // namespace

std::uint16_t make_request_id()
{
    static const boost::posix_time::ptime epoch(boost::gregorian::date(1970, 1, 1));
    return static_cast<std::uint16_t>((local_now() - epoch).total_microseconds());
}

std::size_t build_command(packet& buffer, std::uint16_t command, std::uint16_t id, const std::string& payload)
{
    if (payload.size() > payload_capacity)
        throw LogSvcError("The command packet data are out of range");
    buffer.fill(0);
    put_field(buffer.data(), packet_header::magic, command_magic);
    put_field(buffer.data(), packet_header::command, command);
    put_field(buffer.data(), packet_header::id, id);
    put_field(buffer.data(), packet_header::length, static_cast<std::uint16_t>(payload.size()));
    std::copy(payload.begin(), payload.end(), buffer.begin() + packet_header::size);
    return packet_header::size + payload.size();
}

void check_acknowledge(const packet& reply, std::size_t size, std::uint16_t command, std::uint16_t id)
{
    const unsigned char* const bytes = reply.data();
    const std::size_t length = get_field<std::uint16_t>(bytes, packet_header::length);
    // A reply shorter than a header makes this wrap, and fails.
    const std::size_t received = size - packet_header::size;
    if (get_field<std::uint16_t>(bytes, packet_header::magic) != command_magic || length > payload_capacity ||
        received > payload_capacity || received != length)
        throw LogSvcError("Received malformed acknowledge packet");
    const auto answered = get_field<std::uint16_t>(bytes, packet_header::command);
    if (answered != (command | acknowledge_bit) || get_field<std::uint16_t>(bytes, packet_header::id) != id)
        throw LogSvcError("The received acknowledge does not match the actual request");
    const unsigned allowed_flags = (answered & acknowledge_bit) != 0 ? 0 : 1;
    if ((get_field<std::uint16_t>(bytes, packet_header::flags) & ~allowed_flags) != 0)
        throw LogSvcError("The received acknowledge contains unsupported flags");
    if (get_field<std::uint16_t>(bytes, packet_header::status) != 0)
        throw LogSvcError("The command was not successful (negative acknowledge received)");
}

std::string acknowledge_payload(const packet& reply)
{
    const std::size_t length = get_field<std::uint16_t>(reply.data(), packet_header::length);
    const auto begin = reply.begin() + packet_header::size;
    return {begin, begin + static_cast<std::ptrdiff_t>(std::min(length, payload_capacity))};
}

boost::property_tree::ptree parse_configuration(const std::string& json)
{
    try {
        return from_json(json);
    } catch (const boost::property_tree::ptree_error&) {
        throw LogSvcError("Failed to deserialize the configuration set");
    }
}

void exchange(zuPlatform::DatagramSocket& socket, const zuPlatform::SocketAddress& service, const packet& request,
              std::size_t size, packet& reply)
{
    drain(socket);
    reply.fill(0);
    std::ptrdiff_t received = -1;
    for (unsigned i = 0; received < 0 && i < attempts; ++i)
        received = attempt(socket, service, request, size, reply);
    if (received < 0)
        throw LogSvcError("Log client command execution failure when communicating with the server.");
    check_acknowledge(reply, static_cast<std::size_t>(received),
                      get_field<std::uint16_t>(request.data(), packet_header::command),
                      get_field<std::uint16_t>(request.data(), packet_header::id));
}

} // namespace zuLogging::detail
