#include "tests/support/terminal.h"

#include "tests/support/forked_child.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include <fcntl.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace zuTest {

TerminalSession::TerminalSession(const std::function<int()>& leader, unsigned short columns, unsigned short rows)
{
    std::fflush(nullptr); // else both would print what is still in the buffers
    winsize size{};
    size.ws_col = columns;
    size.ws_row = rows;
    pid_ = ::forkpty(&master_, nullptr, nullptr, &size);
    if (pid_ == 0)
        detail::runAndEnd(leader);
    if (pid_ < 0)
        throw std::runtime_error("no terminal");
    ::fcntl(master_, F_SETFD, FD_CLOEXEC);
}

TerminalSession::~TerminalSession()
{
    hangUp();
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
}

void TerminalSession::type(const std::string& text) const { detail::sendAll(master_, text); }

std::string TerminalSession::readUntil(const std::string& text)
{
    const auto end = std::chrono::steady_clock::now() + patience;
    while (seen_.find(text) == std::string::npos)
        if (!detail::readSome(master_, seen_, std::string::npos, end))
            return {};
    return seen_;
}

bool TerminalSession::isOrdinary() const
{
    termios settings{};
    return ::tcgetattr(master_, &settings) == 0 && (settings.c_lflag & ICANON) && (settings.c_lflag & ECHO);
}

bool TerminalSession::isSingleKeys() const
{
    termios settings{};
    return ::tcgetattr(master_, &settings) == 0 && !(settings.c_lflag & ICANON) && !(settings.c_lflag & ECHO) &&
           (settings.c_lflag & ISIG);
}

void TerminalSession::hangUp()
{
    if (master_ >= 0)
        ::close(master_);
    master_ = -1;
}

int TerminalSession::exitCode()
{
    if (pid_ <= 0)
        return -1;
    const int status = detail::reap(pid_, patience);
    if (status != -1)
        pid_ = -1;
    return detail::codeOf(status);
}

Terminal::Terminal() : master_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
{
    if (master_ < 0 || ::grantpt(master_) != 0 || ::unlockpt(master_) != 0)
        throw std::runtime_error("no terminal");
    reader_ = std::thread([this] {
        while (!stop_) {
            std::string more;
            const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(20);
            // Without anyone at the other end a terminal's end is an error at once.
            if (!detail::readSome(master_, more, std::string::npos, end))
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            const std::lock_guard lock(mutex_);
            text_ += more;
        }
    });
}

Terminal::~Terminal()
{
    stop_ = true;
    reader_.join();
    ::close(master_);
}

std::vector<std::string> Terminal::launcher() const
{
    return {"sh", "-c",
            R"(exec 3<&0 <")" + std::string(::ptsname(master_)) +
                R"("; exec setsid -c sh -c 'exec 0<&3 3<&-; exec "$@"' sh "$@")",
            "sh"};
}

std::string Terminal::text() const
{
    const std::lock_guard lock(mutex_);
    return text_;
}

} // namespace zuTest
