// One remembered terminal setting for the process. Written by the thread that owns the console keys, taken by whoever
// comes first of that thread, a signal handler and the process's end.
#include "platform/linux/terminal_state.h"

#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace zuPlatform {

namespace {

termios savedSettings{};
int savedDescriptor = -1;
std::atomic<bool> switched{false};
static_assert(std::atomic<bool>::is_always_lock_free);

} // namespace

bool inForeground(int fd)
{
    const pid_t group = ::tcgetpgrp(fd);
    // A terminal that does not control this process doesn't stop it either.
    return group == -1 ? errno == ENOTTY : group == ::getpgrp();
}

bool switchTerminal(int fd)
{
    if (switched.load() || !inForeground(fd) || ::tcgetattr(fd, &savedSettings) != 0)
        return false;
    termios single = savedSettings;
    single.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    single.c_cc[VMIN] = 0;
    single.c_cc[VTIME] = 0;
    savedDescriptor = fd;
    // Before the change, so that a signal in between finds it.
    switched.store(true);
    if (::tcsetattr(fd, TCSANOW, &single) != 0) {
        switched.store(false);
        return false;
    }
    return true;
}

void restoreTerminal()
{
    const int error = errno;
    // In the background the shell has taken the terminal back already.
    if (switched.exchange(false) && inForeground(savedDescriptor))
        ::tcsetattr(savedDescriptor, TCSANOW, &savedSettings);
    errno = error;
}

} // namespace zuPlatform
