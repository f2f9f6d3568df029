#include "tests/contract/contract_support.h"

#include <atomic>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <termios.h>
#include <thread>
#include <unistd.h>

namespace zuTest {

namespace {

[[noreturn]] void runAndEnd(const std::function<int()>& body)
{
    // Nothing outlives the test, should that be killed; and a fault on purpose leaves no file.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const rlimit noCore{0, 0};
    ::setrlimit(RLIMIT_CORE, &noCore);
    ::_exit(body());
}

/// The status of the ended process, or -1 after the deadline.
int reap(pid_t pid)
{
    int status = -1;
    const bool ended = eventually([&] { return ::waitpid(pid, &status, WNOHANG) == pid; });
    return ended ? status : -1;
}

int codeOf(int status)
{
    if (status == -1)
        return -1;
    return WIFSIGNALED(status) ? 256 + WTERMSIG(status) : WEXITSTATUS(status);
}

/// Reads what is there within the time left; false at the end or the deadline.
bool readSome(int fd, std::string& text, std::size_t size, std::chrono::steady_clock::time_point end)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    pollfd input{fd, POLLIN, 0};
    if (left.count() <= 0 || ::poll(&input, 1, static_cast<int>(left.count())) <= 0)
        return false;
    char buffer[4096];
    const ssize_t count = ::read(fd, buffer, std::min(size, sizeof buffer));
    if (count <= 0)
        return false;
    text.append(buffer, static_cast<std::size_t>(count));
    return true;
}

void sendAll(int fd, const std::string& text)
{
    EXPECT_EQ(::write(fd, text.data(), text.size()), ssize_t(text.size()));
}

} // namespace

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit)
{
    const Stopwatch watch;
    while (!condition()) {
        if (watch.elapsed() > limit)
            return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

std::string uniqueName(const std::string& stem)
{
    static std::atomic<unsigned> next{0};
    return "zuTest-" + std::to_string(::getpid()) + '-' + std::to_string(next++) + '-' + stem;
}

std::set<int> openDescriptors()
{
    std::set<int> result;
    DIR* const folder = ::opendir("/proc/self/fd");
    while (const dirent* entry = folder ? ::readdir(folder) : nullptr)
        if (const int number = std::atoi(entry->d_name); entry->d_name[0] != '.' && number != ::dirfd(folder))
            result.insert(number);
    if (folder)
        ::closedir(folder);
    return result;
}

bool untilAsleep(const std::atomic<std::uint64_t>& thread)
{
    int inRow = 0;
    return eventually([&] {
        std::ifstream status("/proc/" + std::to_string(thread.load()) + "/status");
        bool asleep = false;
        for (std::string line; std::getline(status, line);)
            asleep = asleep || line.compare(0, 8, "State:\tS") == 0;
        // More than once, as a lock on the way there is a sleep too.
        inRow = asleep ? inRow + 1 : 0;
        return inRow >= 5;
    });
}

Pipe::Pipe()
{
    int ends[2] = {-1, -1};
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
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

void Pipe::send(const std::string& text) const { sendAll(writeEnd, text); }

std::string Pipe::read(std::size_t size) const
{
    const auto end = std::chrono::steady_clock::now() + deadline;
    std::string text;
    while (text.size() < size && readSome(readEnd, text, size - text.size(), end)) {
    }
    return text;
}

Child::Child(const std::function<int()>& body) : pid_(::fork())
{
    if (pid_ == 0)
        runAndEnd(body);
    EXPECT_GT(pid_, 0);
}

Child::~Child()
{
    if (reaped_ || pid_ <= 0)
        return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
}

void Child::kill(int signal) const { EXPECT_EQ(::kill(pid_, signal), 0); }

int Child::wait()
{
    if (!reaped_) {
        status_ = reap(pid_);
        reaped_ = status_ != -1;
    }
    return status_;
}

int Child::exitCode() { return codeOf(wait()); }

bool Child::waitForEndWithoutReaping() const
{
    return eventually([&] {
        siginfo_t info{};
        return ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == pid_;
    });
}

int inChild(const std::function<int()>& body) { return Child(body).exitCode(); }

TerminalSession::TerminalSession(const std::function<int()>& leader, unsigned short columns, unsigned short rows)
{
    winsize size{};
    size.ws_col = columns;
    size.ws_row = rows;
    pid_ = ::forkpty(&master_, nullptr, nullptr, &size);
    if (pid_ == 0)
        runAndEnd(leader);
    EXPECT_GT(pid_, 0);
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

void TerminalSession::type(const std::string& text) const { sendAll(master_, text); }

std::string TerminalSession::readUntil(const std::string& text)
{
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (seen_.find(text) == std::string::npos)
        if (!readSome(master_, seen_, std::string::npos, end))
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
    const int status = reap(pid_);
    if (status != -1)
        pid_ = -1;
    return codeOf(status);
}

} // namespace zuTest
