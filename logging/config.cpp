// Start-up configuration. On the main thread, once.
#include "logging/config.h"

#include "logging/config_words.h"
#include "logging/console.h"
#include "logging/logsvc_target.h"
#include "logging/targets.h"
#include "platform/debug_channel.h"

namespace zuLogging {

namespace {

using detail::LogDestination;
using zuPlatform::SocketAddress;

struct settings {
    LogDestination destination = LogDestination::none;
    std::uint32_t levels = 0;
    std::string file;
    std::string sockaddr;
    bool thread_id = true;
};

SocketAddress to_network(std::uint32_t address, std::uint16_t port)
{
    return {zuPlatform::hostToNetwork32(address), zuPlatform::hostToNetwork16(port)};
}

settings fetch_settings(const std::string& module, const std::string& description,
                        const boost::property_tree::ptree& attributes)
{
    const connection_info service = read_connection_info();
    LogSvcClient client(to_network(service.command_address, service.command_port));
    const boost::property_tree::ptree reply = client.get_config(module, attributes);

    settings result;
    result.destination = detail::parse_destination(detail::mandatory_key(reply, "destination"));
    result.levels = detail::parse_level(detail::mandatory_key(reply, "level"));
    if (result.destination == LogDestination::file) {
        result.file = detail::mandatory_key(reply, "file");
    } else if (result.destination == LogDestination::logsvc) {
        result.sockaddr = detail::optional_key(reply, "sockaddr", "");
        result.thread_id = detail::parse_boolean(detail::optional_key(reply, "thread_id", "on"));
    }
    if (!description.empty()) {
        try {
            client.set_description(module, description);
        } catch (const LogSvcError&) {
            // The description is a courtesy.
        }
    }
    return result;
}

SocketAddress message_endpoint(const settings& chosen)
{
    if (!chosen.sockaddr.empty())
        return detail::parse_sockaddr(chosen.sockaddr);
    const connection_info service = read_connection_info();
    return to_network(service.message_address, service.message_port);
}

void add_target(const settings& chosen)
{
    switch (chosen.destination) {
    case LogDestination::file:
        add_formatted_target(std::make_shared<basic_file_target<boost::mutex>>(make_file(chosen.file)));
        break;
    case LogDestination::cout:
        add_formatted_target(std::make_shared<basic_stdout_target<std_out, boost::mutex>>());
        break;
    case LogDestination::cerr:
        add_formatted_target(std::make_shared<basic_stdout_target<std_err, boost::mutex>>());
        break;
    case LogDestination::trace:
        add_formatted_target(std::make_shared<basic_trace_target>());
        break;
    case LogDestination::console:
        add_formatted_target(std::make_shared<basic_console_target<boost::mutex>>(make_console()));
        break;
    case LogDestination::logsvc:
        add_plain_target(std::make_shared<basic_logsvc_target>(message_endpoint(chosen), chosen.thread_id));
        break;
    case LogDestination::none:
    case LogDestination::evtlog:
        break;
    }
}

void report(const char* what, const std::string& module, const std::exception& failure)
{
    zuPlatform::debugOutput((what + module + ": " + failure.what()).c_str());
    zuPlatform::debugOutput("\n");
}

} // namespace

bool configure_logging(const std::string& module, const std::string& description,
                       const boost::property_tree::ptree& attributes)
{
    settings chosen;
    bool result = true;
    try {
        chosen = fetch_settings(module, description, attributes);
    } catch (const LogSvcError& failure) {
        report("Failed to retrieve/decode the log configuration for module ", module, failure);
        chosen = settings();
        chosen.thread_id = false;
        result = false;
    }
    try {
        add_target(chosen);
        set_root_name(module);
        root_logstate("").set_levels(chosen.levels);
    } catch (const std::exception& failure) {
        report("Failed to configure the logging infrastructure for module ", module, failure);
        result = false;
    }
    return result;
}

} // namespace zuLogging
