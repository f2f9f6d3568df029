// Single keys from standard input. Used by one thread; the signal handler that puts the terminal back runs on any.
#include "platform/console_keys.h"

#include "platform/linux/terminal_state.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace zuPlatform {

namespace {

struct Watched {
    int number;
    bool always; ///< watched also when it has a handler already, which is called afterwards
    bool installed = false;
    struct sigaction previous {};
};

Watched watched[] = {
    {SIGSEGV, true}, {SIGBUS, true},   {SIGFPE, true},  {SIGILL, true},   {SIGABRT, true},
    {SIGINT, false}, {SIGTERM, false}, {SIGHUP, false}, {SIGQUIT, false},
};

void onEnd(int number, siginfo_t* info, void*)
{
    restoreTerminal();
    for (const Watched& entry : watched)
        if (entry.number == number)
            ::sigaction(number, &entry.previous, nullptr);
    // A fault comes again when this returns; anything else is sent again, and arrives when this returns.
    const bool fault = number == SIGSEGV || number == SIGBUS || number == SIGFPE || number == SIGILL;
    if (!fault || info->si_code <= 0)
        ::raise(number);
}

void watchSignals()
{
    for (Watched& entry : watched) {
        struct sigaction action {};
        action.sa_sigaction = onEnd;
        action.sa_flags = SA_SIGINFO | SA_ONSTACK;
        ::sigemptyset(&action.sa_mask);
        if (::sigaction(entry.number, nullptr, &entry.previous) != 0)
            continue;
        const bool isDefault = !(entry.previous.sa_flags & SA_SIGINFO) && entry.previous.sa_handler == SIG_DFL;
        if (entry.always || isDefault)
            entry.installed = ::sigaction(entry.number, &action, nullptr) == 0;
    }
}

void unwatchSignals()
{
    for (Watched& entry : watched) {
        struct sigaction now {};
        if (entry.installed && ::sigaction(entry.number, nullptr, &now) == 0 && (now.sa_flags & SA_SIGINFO) &&
            now.sa_sigaction == onEnd)
            ::sigaction(entry.number, &entry.previous, nullptr);
        entry.installed = false;
    }
}

} // namespace

struct ConsoleKeys::State {
    bool terminal = false;
    bool switched = false;
    bool ended = false;
    int key = -1; ///< read ahead, since only reading tells a key from the end of a pipe
};

ConsoleKeys::ConsoleKeys() : state_(std::make_unique<State>())
{
    state_->terminal = ::isatty(STDIN_FILENO) == 1;
    if (!state_->terminal)
        return;
    static const int registered = std::atexit(restoreTerminal);
    static_cast<void>(registered);
    watchSignals();
    state_->switched = switchTerminal(STDIN_FILENO);
}

ConsoleKeys::~ConsoleKeys()
{
    if (!state_->terminal)
        return;
    restoreTerminal();
    unwatchSignals();
}

bool ConsoleKeys::available()
{
    State& state = *state_;
    if (state.key >= 0)
        return true;
    if (state.ended)
        return false;
    if (state.terminal) {
        // In the background, a read would stop the whole process.
        if (!inForeground(STDIN_FILENO))
            return false;
        if (!state.switched)
            state.switched = switchTerminal(STDIN_FILENO);
        if (!state.switched)
            return false;
    }
    pollfd input{STDIN_FILENO, POLLIN, 0};
    const int ready = ::poll(&input, 1, 0);
    if (ready <= 0)
        return false;
    unsigned char byte = 0;
    const ssize_t count = input.revents & POLLNVAL ? 0 : ::read(STDIN_FILENO, &byte, 1);
    if (count == 1)
        state.key = byte;
    else if (count == 0)
        state.ended = !state.terminal || (input.revents & (POLLHUP | POLLNVAL));
    else
        state.ended = errno != EINTR && errno != EAGAIN;
    return state.key >= 0;
}

int ConsoleKeys::read()
{
    if (!available())
        return -1;
    const int key = state_->key;
    state_->key = -1;
    return key;
}

bool isTerminal(int descriptor) { return ::isatty(descriptor) == 1; }

} // namespace zuPlatform
