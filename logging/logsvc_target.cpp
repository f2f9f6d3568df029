// Sending messages to the log service. On all logging threads at once, with no lock.
#include "logging/logsvc_target.h"

#include "logging/logsvc_packet.h"
#include "platform/text.h"

#include <algorithm>

namespace zuLogging {

namespace {

using namespace detail;

constexpr std::uint16_t message_flag = 0x0001;
constexpr unsigned attempts = 2;

pattern make_pattern(pattern order, bool with_thread_id)
{
    if (!with_thread_id)
        order.erase(std::remove(order.begin(), order.end(), element_thread), order.end());
    return order;
}

} // namespace

LogMessageDispatcher::LogMessageDispatcher(const zuPlatform::SocketAddress& service, bool with_thread_id)
    : socket_(open_logsvc_socket()), address_(service),
      plain_pattern_(make_pattern({element_time, element_path, element_level, element_thread, element_process,
                                   element_group, element_code_page, element_text, element_location},
                                  with_thread_id)),
      records_pattern_(make_pattern({element_records, element_time, element_path, element_level, element_thread,
                                     element_process, element_group, element_code_page, element_text, element_location},
                                    with_thread_id))
{
}

template <typename Char>
void LogMessageDispatcher::send_text(const basic_msgstate& msg, const Char* begin, const Char* end)
{
    const bool plain = msg.records.empty();
    const std::uint64_t sequence = (plain ? plain_count_ : records_count_).fetch_add(1, std::memory_order_relaxed) + 1;
    text_bytes text = checked_text(begin, end);
    std::u16string utf16;
    if constexpr (sizeof(Char) > sizeof(char16_t)) {
        utf16 = zuPlatform::wideToUtf16(begin, end);
        text = checked_text(utf16.data(), utf16.data() + utf16.size());
    }
    packet buffer;
    const std::size_t size = build_message(buffer, plain ? command_message : command_message_records, make_request_id(),
                                           sequence, plain ? plain_pattern_ : records_pattern_, msg, text);
    put_field(buffer.data(), packet_header::flags, message_flag);
    for (unsigned i = 0; i < attempts; ++i)
        if (socket_->sendTo(buffer.data(), size, address_).count >= 0)
            return;
    throw LogSvcError("Log client command execution failure when communicating with the server.");
}

void LogMessageDispatcher::send(const basic_msgstate& msg, const wchar_t* begin, const wchar_t* end)
{
    send_text(msg, begin, end);
}

void LogMessageDispatcher::send(const basic_msgstate& msg, const char* begin, const char* end)
{
    send_text(msg, begin, end);
}

basic_logsvc_target::~basic_logsvc_target() = default;

void basic_logsvc_target::write(const basic_msgstate& msg, const wchar_t* begin, const wchar_t* end)
{
    dispatcher_->send(msg, begin, end);
}

void basic_logsvc_target::write(const basic_msgstate& msg, const char* begin, const char* end)
{
    dispatcher_->send(msg, begin, end);
}

} // namespace zuLogging
