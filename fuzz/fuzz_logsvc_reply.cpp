// An answer to the request for the logging settings, as any program on the machine may send it: judged as an
// acknowledge, and its JSON taken apart down to the words.
#include "logging/config_words.h"
#include "logging/logsvc_client.h"
#include "logging/logsvc_exchange.h"

#include <algorithm>
#include <cstdlib>

using namespace zuLogging;

namespace {

// The request that the corpus answers.
constexpr std::uint16_t command = detail::command_get_config;
constexpr std::uint16_t id = 0x1234;

bool isGood(const detail::packet& reply, std::size_t size)
{
    try {
        detail::check_acknowledge(reply, size, command, id);
        return true;
    } catch (const LogSvcError&) {
        return false;
    }
}

void readSettings(const std::string& json)
{
    try {
        const boost::property_tree::ptree settings = detail::parse_configuration(json);
        detail::parse_destination(detail::mandatory_key(settings, "destination"));
        detail::parse_level(detail::mandatory_key(settings, "level"));
        detail::parse_boolean(detail::optional_key(settings, "thread_id", "on"));
        const auto address = detail::parse_sockaddr(detail::optional_key(settings, "sockaddr", ""));
        if (address.port == 0)
            std::abort();
    } catch (const LogSvcError&) {
        // What the caller expects of a bad reply.
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    detail::packet reply;
    reply.fill(0);
    const std::size_t received = std::min(size, reply.size());
    std::copy_n(data, received, reply.begin());
    if (isGood(reply, received)) {
        const std::string payload = detail::acknowledge_payload(reply);
        if (received < detail::packet_header::size || payload.size() != received - detail::packet_header::size)
            std::abort();
        readSettings(payload);
    }
    // The length field is never trusted, and what a check has refused is as harmless as the rest.
    if (detail::acknowledge_payload(reply).size() > detail::payload_capacity)
        std::abort();
    readSettings(std::string(data, data + size));
    return 0;
}
