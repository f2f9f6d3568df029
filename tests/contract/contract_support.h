// Child processes, terminals and deadlines for the contract tests.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <sys/types.h>

namespace zuTest {

using namespace std::chrono_literals;

/// How long a test waits for something that is sure to come.
constexpr std::chrono::seconds deadline = 30s;

/// Looks every millisecond until `condition` holds; false after the deadline.
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit = deadline);

class Stopwatch {
public:
    std::chrono::nanoseconds elapsed() const { return std::chrono::steady_clock::now() - start_; }

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

/// A name that no other test and no other process uses.
std::string uniqueName(const std::string& stem);

/// The numbers of this process's open descriptors.
std::set<int> openDescriptors();

/// Waits until the thread with the id in `thread` (0: it is not known yet), or a process of one thread, sleeps in a
/// system call.
bool untilAsleep(const std::atomic<std::uint64_t>& thread);

/// A pipe. Ends that are still open go with it.
class Pipe {
public:
    Pipe();
    ~Pipe();
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    void closeRead();
    void closeWrite();
    void send(const std::string& text) const;
    /// Reads until `size` bytes are there, the end has come, or the deadline passed.
    std::string read(std::size_t size) const;

    int readEnd = -1;
    int writeEnd = -1;
};

/// A forked process that runs `body` and ends with its result, without any clean-up. It is killed and reaped at the
/// end.
class Child {
public:
    explicit Child(const std::function<int()>& body);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t pid() const { return pid_; }
    void kill(int signal) const;
    /// Waits for the end. The status as `waitpid` gives it; -1 after the deadline.
    int wait();
    /// The exit status, or 256 and the number of the signal that ended it, or -1 after the deadline.
    int exitCode();
    /// Waits until the process has ended, and leaves it unreaped.
    bool waitForEndWithoutReaping() const;

private:
    pid_t pid_ = -1;
    int status_ = -1;
    bool reaped_ = false;
};

/// Runs `body` in a child and returns as `Child::exitCode`.
int inChild(const std::function<int()>& body);

/// A new session on a terminal of its own. Its leader runs `leader` with the terminal as standard input, output and
/// error, and in the foreground. It outlives what it starts, so that the end of a program is not taken for a hang-up.
class TerminalSession {
public:
    explicit TerminalSession(const std::function<int()>& leader, unsigned short columns = 80, unsigned short rows = 24);
    ~TerminalSession();
    TerminalSession(const TerminalSession&) = delete;
    TerminalSession& operator=(const TerminalSession&) = delete;

    void type(const std::string& text) const;
    /// What has been printed so far, after waiting until `text` is in it; empty after the deadline.
    std::string readUntil(const std::string& text);
    /// Whether the terminal gathers lines and echoes, as a shell leaves it.
    bool isOrdinary() const;
    bool isSingleKeys() const;
    void hangUp();
    int exitCode();

private:
    int master_ = -1;
    pid_t pid_ = -1;
    std::string seen_;
};

} // namespace zuTest
