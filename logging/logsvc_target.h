// The target that sends raw messages to the log service, one datagram each, without ever waiting. It stands in the list
// without a formatter. Any thread.
#pragma once

#include "logging/logsvc_client.h"
#include "logging/logtarget.h"

#include <atomic>
#include <vector>

namespace zuLogging {

/// The message side of the log service, shared by the copies of a target. Throws `LogSvcError`.
class LogMessageDispatcher {
public:
    LogMessageDispatcher(const zuPlatform::SocketAddress& service, bool with_thread_id);

    /// Each sends one message. Throws `LogSvcError` if it can't go out, `std::invalid_argument` for a group that is not
    /// registered, `base2::character_conversion_error` for wide text that has no UTF-16 form. Its number stays used.
    void send(const basic_msgstate& msg, const wchar_t* begin, const wchar_t* end);
    void send(const basic_msgstate& msg, const char* begin, const char* end);

private:
    template <typename Char>
    void send_text(const basic_msgstate& msg, const Char* begin, const Char* end);

    detail::wsa_guard wsa_;
    zuPlatform::SocketPtr socket_;
    zuPlatform::SocketAddress address_;
    std::atomic<std::uint64_t> plain_count_{0};   ///< last number of a message without records
    std::atomic<std::uint64_t> records_count_{0}; ///< and of one with records
    std::vector<std::uint8_t> plain_pattern_;     ///< types of elements in their order; fixed after construction
    std::vector<std::uint8_t> records_pattern_;
};

class basic_logsvc_target : public basic_logtarget {
public:
    basic_logsvc_target(const zuPlatform::SocketAddress& address, bool with_thread_id)
        : dispatcher_(std::make_shared<LogMessageDispatcher>(address, with_thread_id))
    {
    }
    ~basic_logsvc_target() override;
    void write(const basic_msgstate& msg, const wchar_t* begin, const wchar_t* end) override;
    void write(const basic_msgstate& msg, const char* begin, const char* end) override;

private:
    std::shared_ptr<LogMessageDispatcher> dispatcher_;
};

} // namespace zuLogging
