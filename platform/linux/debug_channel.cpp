// Diagnostic text to the system log at debug priority: one datagram a line, never waiting. Any thread may call; pending
// text is kept for each thread, and a leaf lock guards the path.
#include "platform/debug_channel.h"

#include "platform/text.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <cwchar>
#include <mutex>
#include <string_view>

namespace zuPlatform {

namespace {

/// A line is cut into records of this many bytes; system logs take no longer ones.
constexpr std::size_t maxRecord = 8000;

struct Channel {
    std::mutex mutex;
    std::string path = "/dev/log";
    int fd = -1; ///< opened at the first use and kept
};

Channel& channel()
{
    static Channel& instance = *new Channel; // never destroyed: text may come while the process ends
    return instance;
}

std::string& pendingText()
{
    thread_local std::string text;
    return text;
}

void sendRecord(std::string_view text)
{
    // <15> is facility user, priority debug.
    std::string record = "<15>";
    record += program_invocation_short_name;
    record += '[' + std::to_string(::getpid()) + "]: ";
    record += text;

    Channel& log = channel();
    const std::lock_guard<std::mutex> lock(log.mutex);
    if (log.fd < 0)
        log.fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un to{};
    to.sun_family = AF_UNIX;
    if (log.fd < 0 || log.path.size() >= sizeof to.sun_path)
        return;
    std::memcpy(to.sun_path, log.path.c_str(), log.path.size() + 1);
    // Unconnected, so a system log that is started anew is found again.
    ::sendto(log.fd, record.data(), record.size(), MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&to),
             sizeof to);
}

void add(std::string_view text)
{
    const int error = errno;
    try {
        std::string& pending = pendingText();
        while (!text.empty()) {
            const std::size_t end = text.find('\n');
            const std::size_t room = maxRecord - pending.size();
            const std::size_t take = std::min({end, room, text.size()});
            pending += text.substr(0, take);
            text.remove_prefix(take);
            const bool lineEnd = !text.empty() && text.front() == '\n';
            if (lineEnd)
                text.remove_prefix(1);
            if (lineEnd || pending.size() >= maxRecord) {
                sendRecord(pending);
                pending.clear();
            }
        }
    } catch (const std::exception&) {
        // No memory: the text is lost.
    }
    errno = error;
}

} // namespace

void debugOutput(const char* text)
{
    if (text)
        add(text);
}

void debugOutput(const wchar_t* text)
{
    if (!text)
        return;
    std::string narrow;
    for (const wchar_t* const end = text + std::wcslen(text); text != end; ++text) {
        try {
            narrow += wideToUtf8(text, text + 1);
        } catch (const base2::character_conversion_error&) {
            narrow += '?';
        }
    }
    add(narrow);
}

void setDebugChannelForTesting(const std::string& path)
{
    Channel& log = channel();
    const std::lock_guard<std::mutex> lock(log.mutex);
    log.path = path;
}

} // namespace zuPlatform
