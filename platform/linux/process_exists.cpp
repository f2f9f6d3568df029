// Whether another process runs. Any thread may call.
#include "platform/process.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zuPlatform {

namespace {

/// The text behind "\nlabel" in the status text, or null.
const char* findField(const char* status, const char* label)
{
    const char* const found = std::strstr(status, label);
    return found ? found + std::strlen(label) : nullptr;
}

} // namespace

bool processExists(std::uint32_t pid)
{
    if (pid == 0 || pid > static_cast<std::uint32_t>(INT_MAX))
        return false;
    if (::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH)
        return false;

    char path[32];
    std::snprintf(path, sizeof path, "/proc/%u/status", pid);
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return true; // hidden or no /proc: the answer above holds
    char status[4096];
    const ssize_t length = ::read(fd, status, sizeof status - 1);
    const int error = length < 0 ? errno : 0;
    ::close(fd);
    if (error == ESRCH)
        return false;
    if (length <= 0)
        return true;
    status[length] = '\0';

    // The id of a thread answers too, but is no process.
    if (const char* group = findField(status, "\nTgid:"); group && std::strtoul(group, nullptr, 10) != pid)
        return false;
    const char* state = findField(status, "\nState:");
    if (!state)
        return true;
    state += std::strspn(state, " \t");
    if (*state != 'Z' && *state != 'X')
        return true;
    // A process whose first thread has ended goes on while it has others.
    const char* const threads = findField(status, "\nThreads:");
    return threads && std::strtoul(threads, nullptr, 10) > 1;
}

} // namespace zuPlatform
