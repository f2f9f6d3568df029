// The log service's client side: where the service listens, and the two commands it answers. Objects here belong to one
// thread.
#pragma once

#include "platform/socket.h"

#include <cstdint>
#include <stdexcept>
#include <string>

#include <boost/property_tree/ptree.hpp>

namespace zuLogging {

/// Every failure in the traffic with the log service and in reading its settings.
class LogSvcError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// What the log service publishes; addresses and ports in host byte order.
struct connection_info {
    std::uint32_t magic = 0;
    std::uint32_t version = 0;
    std::uint32_t size = 0;
    std::uint32_t command_address = 0;
    std::uint16_t command_port = 0;
    std::uint32_t message_address = 0;
    std::uint16_t message_port = 0;
};

/// Reads the service's connection block. Throws `LogSvcError` if there is no valid one. Does not block.
connection_info read_connection_info();

namespace detail {

/// A use of the socket library. Throws `LogSvcError`.
class wsa_guard {
public:
    wsa_guard();
    ~wsa_guard();
    wsa_guard(const wsa_guard&) = delete;
    wsa_guard& operator=(const wsa_guard&) = delete;
};

/// A non-blocking datagram socket for the log service. Throws `LogSvcError`.
zuPlatform::SocketPtr open_logsvc_socket();

} // namespace detail

class LogSvcClient {
public:
    /// `service` is the service's command endpoint. Throws `LogSvcError`.
    explicit LogSvcClient(const zuPlatform::SocketAddress& service);

    /// The settings for this process, which names itself by `module`, its executable's name and `attributes`. Waits up
    /// to one second. Throws `LogSvcError`, and `base2::character_conversion_error` if that name is not UTF-8.
    boost::property_tree::ptree get_config(const std::string& module, const boost::property_tree::ptree& attributes);

    /// Tells the service what `module` is; an empty description is not sent. Waits up to one second. Throws
    /// `LogSvcError`.
    void set_description(const std::string& module, const std::string& description);

private:
    detail::wsa_guard wsa_;
    zuPlatform::SocketPtr socket_;
    zuPlatform::SocketAddress address_;
};

} // namespace zuLogging
