// The target that writes coloured lines to a console. Any thread.
#pragma once

#include "logging/logtarget.h"
#include "platform/log_console.h"

#include <stdexcept>

#include <boost/thread/mutex.hpp>

namespace zuLogging {

/// A refusal of the system, with its own words for it.
class system_error : public std::runtime_error {
public:
    explicit system_error(std::uint32_t system_code);
    ~system_error() override;

    std::uint32_t code;
};

template <typename Mutex>
class basic_console_target : public basic_logtarget {
public:
    /// The process's console; gives it up at the end if it was gained here.
    struct console {
        console() = default;
        ~console();
        console(const console&) = delete;
        console& operator=(const console&) = delete;

        /// Sees that there is a console, anew at each call, and returns its handle; 0 if none can be had.
        zuPlatform::LogConsole::Handle ensure();

        bool owned = false; ///< gained by `ensure`
        bool colored = true;
        std::uint16_t width = 80;  ///< of the screen buffer, in characters
        std::uint16_t height = 25; ///< of the window, in lines
        Mutex mutex;               ///< around a text and its line end
    };

    explicit basic_console_target(std::shared_ptr<console> target) : console_(std::move(target)) {}
    ~basic_console_target() override;

    /// Waits for the console for as long as it takes no characters.
    void write(const basic_msgstate& msg, const wchar_t* begin, const wchar_t* end) override;

    /// What the console doesn't take is lost.
    void write(const basic_msgstate& msg, const char* begin, const char* end) override;

private:
    std::shared_ptr<console> console_;
};

extern template class basic_console_target<boost::mutex>;

/// A console that is minimised if it had to be gained. Throws `system_error` if a title is given and refused.
std::shared_ptr<basic_console_target<boost::mutex>::console> make_console(const std::string& title = std::string());

} // namespace zuLogging
