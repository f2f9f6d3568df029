// The console target. On the thread that logs; the console's mutex comes after the list mutex.
#include "logging/console.h"

#include "platform/error.h"

#include <algorithm>

#include <boost/thread/lock_guard.hpp>

namespace zuLogging {

namespace LogConsole = zuPlatform::LogConsole;

namespace {

constexpr std::uint16_t buffer_lines = 9000;

std::string system_text(std::uint32_t code)
{
    std::string text = zuPlatform::errorText(code);
    return text.empty() ? "Error " + std::to_string(code) : text;
}

/// Background colour in bits 7..4, foreground in bits 3..0.
std::uint16_t attribute_of(std::uint32_t level)
{
    switch (level) {
    case log_fatal:
        return 0xC0; // black on red
    case log_err:
        return 0x0C; // bright red
    case log_warn:
        return 0x0E; // bright yellow
    case log_trace:
        return 0x07; // grey
    case log_debug:
        return 0x70; // black on grey
    default:
        return 0x0F; // bright white
    }
}

/// Ends early if the console takes nothing.
void write_all(LogConsole::Handle handle, const char* begin, const char* end)
{
    while (begin < end) {
        const std::size_t written = LogConsole::write(handle, begin, static_cast<std::size_t>(end - begin));
        if (written == 0)
            return;
        begin += written;
    }
}

/// Goes on until all is written.
void write_all(LogConsole::Handle handle, const wchar_t* begin, const wchar_t* end)
{
    while (begin < end)
        begin += LogConsole::write(handle, begin, static_cast<std::size_t>(end - begin));
}

template <typename Console, typename Char>
void write_line(Console& console, std::uint32_t level, const Char* begin, const Char* end)
{
    const boost::lock_guard lock(console.mutex);
    const LogConsole::Handle handle = console.ensure();
    if (console.colored) {
        LogConsole::Info kept;
        LogConsole::getInfo(handle, kept);
        LogConsole::setAttribute(handle, attribute_of(level));
        write_all(handle, begin, end);
        LogConsole::setAttribute(handle, kept.attributes);
    } else {
        write_all(handle, begin, end);
    }
    const Char line_end = '\n';
    write_all(handle, &line_end, &line_end + 1);
}

} // namespace

system_error::system_error(std::uint32_t system_code) : std::runtime_error(system_text(system_code)), code(system_code)
{
}

system_error::~system_error() = default;

template <typename Mutex>
basic_console_target<Mutex>::console::~console()
{
    if (owned)
        LogConsole::release();
}

template <typename Mutex>
LogConsole::Handle basic_console_target<Mutex>::console::ensure()
{
    const bool window = LogConsole::hasWindow();
    LogConsole::Handle handle = LogConsole::outputHandle();
    if (window)
        return handle;
    if (LogConsole::allocate()) {
        owned = true;
        handle = LogConsole::outputHandle();
        LogConsole::Info info;
        if (LogConsole::getInfo(handle, info)) {
            LogConsole::setBufferSize(handle, width, buffer_lines);
            LogConsole::getInfo(handle, info);
            const int right = info.maxWidth - 1;
            const int bottom = std::min(height - 1, info.maxHeight - 1);
            LogConsole::setWindow(handle, info.left, info.top, static_cast<std::int16_t>(right),
                                  static_cast<std::int16_t>(bottom));
        }
        return handle;
    }
    if (LogConsole::attachToParent()) {
        owned = true;
        return LogConsole::outputHandle();
    }
    return 0;
}

template <typename Mutex>
basic_console_target<Mutex>::~basic_console_target() = default;

template <typename Mutex>
void basic_console_target<Mutex>::write(const basic_msgstate& msg, const wchar_t* begin, const wchar_t* end)
{
    write_line(*console_, msg.level, begin, end);
}

template <typename Mutex>
void basic_console_target<Mutex>::write(const basic_msgstate& msg, const char* begin, const char* end)
{
    write_line(*console_, msg.level, begin, end);
}

template class basic_console_target<boost::mutex>;

std::shared_ptr<basic_console_target<boost::mutex>::console> make_console(const std::string& title)
{
    auto made = std::make_shared<basic_console_target<boost::mutex>::console>();
    made->ensure();
    if (made->owned && LogConsole::isWindow())
        LogConsole::minimise();
    if (!title.empty() && !LogConsole::setTitle(title))
        throw system_error(zuPlatform::lastError());
    return made;
}

} // namespace zuLogging
