#include "tests/support/forked_child.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zuTest {

namespace detail {

void runAndEnd(const std::function<int()>& body)
{
    // Nothing outlives the test, should that be killed; and a fault on purpose leaves no file.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const rlimit noCore{0, 0};
    ::setrlimit(RLIMIT_CORE, &noCore);
    int code = 1;
    try {
        code = body();
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s\n", failure.what());
    }
    std::fflush(nullptr);
    ::_exit(code);
}

int reap(int pid, std::chrono::milliseconds deadline)
{
    int status = -1;
    return eventually([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, deadline) ? status : -1;
}

int codeOf(int status)
{
    if (status == -1)
        return -1;
    return WIFSIGNALED(status) ? 256 + WTERMSIG(status) : WEXITSTATUS(status);
}

bool readSome(int descriptor, std::string& text, std::size_t size, std::chrono::steady_clock::time_point end)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    pollfd input{descriptor, POLLIN, 0};
    if (left.count() <= 0 || ::poll(&input, 1, static_cast<int>(left.count())) <= 0)
        return false;
    char buffer[4096];
    const ssize_t count = ::read(descriptor, buffer, std::min(size, sizeof buffer));
    if (count <= 0)
        return false;
    text.append(buffer, static_cast<std::size_t>(count));
    return true;
}

void sendAll(int descriptor, const std::string& text)
{
    if (::write(descriptor, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        throw std::runtime_error("nothing can be written");
}

} // namespace detail

ForkedChild::ForkedChild(const std::function<int()>& body)
{
    std::fflush(nullptr); // else both would print what is still in the buffers
    pid_ = ::fork();
    if (pid_ == 0)
        detail::runAndEnd(body);
    if (pid_ < 0)
        throw std::runtime_error("can't fork");
}

ForkedChild::~ForkedChild()
{
    if (status_ != -1)
        return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
}

void ForkedChild::kill(int signal) const
{
    if (::kill(pid_, signal) != 0)
        throw std::runtime_error("can't signal");
}

int ForkedChild::wait(std::chrono::milliseconds deadline)
{
    if (status_ == -1)
        status_ = detail::reap(pid_, deadline);
    return status_;
}

int ForkedChild::exitCode(std::chrono::milliseconds deadline) { return detail::codeOf(wait(deadline)); }

bool ForkedChild::waitForEndWithoutReaping() const
{
    return eventually([&] {
        siginfo_t info{};
        return ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == pid_;
    });
}

int inChild(const std::function<int()>& body) { return ForkedChild(body).exitCode(); }

Pipe::Pipe()
{
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC) != 0)
        throw std::runtime_error("no pipe");
    readEnd = ends[0];
    writeEnd = ends[1];
}

Pipe::~Pipe()
{
    closeRead();
    closeWrite();
}

void Pipe::closeRead()
{
    if (readEnd >= 0)
        ::close(readEnd);
    readEnd = -1;
}

void Pipe::closeWrite()
{
    if (writeEnd >= 0)
        ::close(writeEnd);
    writeEnd = -1;
}

void Pipe::send(const std::string& text) const { detail::sendAll(writeEnd, text); }

std::string Pipe::read(std::size_t size, std::chrono::milliseconds deadline) const
{
    const auto end = std::chrono::steady_clock::now() + deadline;
    std::string text;
    while (text.size() < size && detail::readSome(readEnd, text, size - text.size(), end)) {
    }
    return text;
}

} // namespace zuTest
