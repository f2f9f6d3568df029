// What signals do to this process. The handlers run on any thread and only call what was given to them.
#include "platform/linux/terminal_state.h"
#include "platform/process.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace zuPlatform {

namespace {

using Handler = void (*)();

std::atomic<Handler> stopHandler{nullptr};
std::atomic<Handler> reloadHandler{nullptr};
static_assert(std::atomic<Handler>::is_always_lock_free);

void call(const std::atomic<Handler>& handler)
{
    const int error = errno;
    if (const Handler function = handler.load())
        function();
    errno = error;
}

void onStop(int) { call(stopHandler); }
void onReload(int) { call(reloadHandler); }

void install(int number, void (*function)(int))
{
    struct sigaction action {};
    action.sa_handler = function;
    action.sa_flags = SA_RESTART;
    ::sigemptyset(&action.sa_mask);
    ::sigaction(number, &action, nullptr);
}

__attribute__((no_sanitize("address", "undefined", "thread"))) void touchAddressZero()
{
    volatile int* volatile nowhere = nullptr;
    *nowhere = 0;
}

} // namespace

void ignoreBrokenPipe() { install(SIGPIPE, SIG_IGN); }

void endByMemoryFault()
{
    restoreTerminal();
    install(SIGSEGV, SIG_DFL);
    sigset_t fault;
    ::sigemptyset(&fault);
    ::sigaddset(&fault, SIGSEGV);
    ::pthread_sigmask(SIG_UNBLOCK, &fault, nullptr);
    touchAddressZero();
    ::raise(SIGSEGV);
    ::_exit(128 + SIGSEGV);
}

void setStopHandler(void (*handler)())
{
    stopHandler.store(handler);
    install(SIGINT, handler ? onStop : SIG_DFL);
    install(SIGTERM, handler ? onStop : SIG_DFL);
}

void setReloadHandler(void (*handler)())
{
    reloadHandler.store(handler);
    install(SIGHUP, handler ? onReload : SIG_DFL);
}

} // namespace zuPlatform
