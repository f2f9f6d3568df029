// The connection block and the commands. On the thread that configures logging.
#include "logging/logsvc_client.h"

#include "logging/json.h"
#include "logging/logsvc_exchange.h"
#include "platform/process.h"
#include "platform/shared_memory.h"
#include "platform/socket_library.h"
#include "platform/text.h"

#include <string_view>

#include <boost/filesystem/exception.hpp>
#include <boost/filesystem/path.hpp>
#include <boost/interprocess/exceptions.hpp>
#include <boost/interprocess/mapped_region.hpp>

namespace zuLogging {

namespace {

namespace ipc = boost::interprocess;
using zuPlatform::SharedMemory;

/// Offsets in the connection block.
namespace block {
constexpr std::size_t magic = 0;
constexpr std::size_t version = 4;
constexpr std::size_t total = 8;
constexpr std::size_t command_address = 12;
constexpr std::size_t command_port = 16;
constexpr std::size_t message_address = 18;
constexpr std::size_t message_port = 22;
constexpr std::size_t size = 24;
} // namespace block

constexpr std::uint32_t block_magic = 0xABABBABA;
constexpr std::uint32_t block_version = 1;
const std::string block_name = "zuLogSvcConnectionInfo";

constexpr std::uint16_t library_version = 0x0202;
constexpr int socket_buffer = 0x20000;

/// The longest executable path that is looked at, in characters; the rest is cut off without a sign.
constexpr std::size_t path_capacity = 261;

std::unique_ptr<SharedMemory> open_block()
{
    int error = 0;
    auto object = SharedMemory::open("Global\\" + block_name, SharedMemory::Access::readOnly, error);
    if (!object)
        object = SharedMemory::open(block_name, SharedMemory::Access::readOnly, error);
    if (!object)
        throw ipc::interprocess_exception(ipc::error_info(error), "Shared memory error");
    return object;
}

ipc::mapped_region map_block()
{
    try {
        // The view outlives the object's handle.
        return ipc::mapped_region(*open_block(), ipc::read_only);
    } catch (const ipc::interprocess_exception& failure) {
        throw LogSvcError(std::string("Failed to connect to the shared memory with connection info: ") +
                          failure.what());
    }
}

/// The bytes of the character that a non-empty text begins with. A byte that begins none is a character by itself.
std::size_t first_character(std::string_view text)
{
    const auto lead = static_cast<unsigned char>(text.front());
    const std::size_t size = lead < 0xC0 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF8 ? 4 : 1;
    for (std::size_t i = 1; i < size; ++i) {
        if (i >= text.size() || (static_cast<unsigned char>(text[i]) & 0xC0) != 0x80)
            return 1;
    }
    return size;
}

/// The stem of the executable's file name. One that is not UTF-8 is a `base2::character_conversion_error`; what the
/// folders are called is all the same.
std::string process_name()
{
    const std::string path = zuPlatform::executablePath();
    if (path.empty())
        throw LogSvcError("Could not obtain the current executable path");
    std::string_view rest = path;
    for (std::size_t i = 0; i < path_capacity && !rest.empty(); ++i)
        rest.remove_prefix(first_character(rest));
    std::string stem;
    try {
        stem = boost::filesystem::path(path.substr(0, path.size() - rest.size())).stem().string();
    } catch (const boost::filesystem::filesystem_error&) {
        throw LogSvcError("Failed to extract process name from the executable path");
    }
    const std::wstring wide = zuPlatform::utf8ToWide(stem.data(), stem.data() + stem.size());
    return zuPlatform::wideToUtf8(wide.data(), wide.data() + wide.size());
}

std::string serialise(const boost::property_tree::ptree& tree)
{
    try {
        return detail::to_json(tree);
    } catch (const boost::property_tree::ptree_error&) {
        throw LogSvcError("Failed to serialize the attrtibute set");
    }
}

detail::packet run_command(zuPlatform::DatagramSocket& socket, const zuPlatform::SocketAddress& service,
                           std::uint16_t command, const std::string& payload)
{
    detail::packet request;
    const std::size_t size = detail::build_command(request, command, detail::make_request_id(), payload);
    detail::packet reply;
    detail::exchange(socket, service, request, size, reply);
    return reply;
}

} // namespace

connection_info read_connection_info()
{
    const ipc::mapped_region region = map_block();
    const auto* const bytes = static_cast<const unsigned char*>(region.get_address());
    connection_info info;
    if (region.get_size() >= block::size && bytes != nullptr) {
        info.magic = detail::get_field<std::uint32_t>(bytes, block::magic);
        info.version = detail::get_field<std::uint32_t>(bytes, block::version);
        info.size = detail::get_field<std::uint32_t>(bytes, block::total);
        info.command_address = detail::get_field<std::uint32_t>(bytes, block::command_address);
        info.command_port = detail::get_field<std::uint16_t>(bytes, block::command_port);
        info.message_address = detail::get_field<std::uint32_t>(bytes, block::message_address);
        info.message_port = detail::get_field<std::uint16_t>(bytes, block::message_port);
    }
    if (info.magic != block_magic || info.version < block_version || info.size < block::size)
        throw LogSvcError("Failed to retrieve valid connection info");
    return info;
}

namespace detail {

wsa_guard::wsa_guard()
{
    std::uint16_t obtained = 0;
    if (zuPlatform::startSocketLibrary(library_version, obtained) != 0)
        throw LogSvcError("Winsock startup failed");
    if (obtained != library_version) {
        zuPlatform::stopSocketLibrary();
        throw LogSvcError("Requested Winsock version not supported by this system");
    }
}

wsa_guard::~wsa_guard() { zuPlatform::stopSocketLibrary(); }

zuPlatform::SocketPtr open_logsvc_socket()
{
    zuPlatform::SocketPtr socket = zuPlatform::DatagramSocket::open();
    if (!socket)
        throw LogSvcError("Failed to create the log client socket");
    socket->setReceiveBuffer(socket_buffer);
    socket->setSendBuffer(socket_buffer);
    socket->setNonBlocking();
    return socket;
}

} // namespace detail

LogSvcClient::LogSvcClient(const zuPlatform::SocketAddress& service)
    : socket_(detail::open_logsvc_socket()), address_(service)
{
}

boost::property_tree::ptree LogSvcClient::get_config(const std::string& module,
                                                     const boost::property_tree::ptree& attributes)
{
    boost::property_tree::ptree request = attributes;
    request.put("module", module);
    try {
        request.put("process", process_name());
    } catch (const LogSvcError&) {
        // The service then has to do without.
    }
    const std::string text = serialise(request);
    if (text.size() > detail::payload_capacity)
        throw LogSvcError("The log configuration attribute list is too long");
    const detail::packet reply = run_command(*socket_, address_, detail::command_get_config, text);
    return detail::parse_configuration(detail::acknowledge_payload(reply));
}

void LogSvcClient::set_description(const std::string& module, const std::string& description)
{
    if (module.empty())
        throw LogSvcError("Trying to set description for a module with empty name");
    if (description.empty())
        return;
    boost::property_tree::ptree request;
    request.put("module", module);
    request.put("description", description);
    const std::string text = serialise(request);
    if (text.size() > detail::payload_capacity)
        throw LogSvcError("The module name/description combination is too long");
    run_command(*socket_, address_, detail::command_set_description, text);
}

} // namespace zuLogging
