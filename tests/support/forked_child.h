// A copy of the test's own process, for what has to happen in another one; and pipes to speak with it.
#pragma once

#include "tests/support/eventually.h"

#include <chrono>
#include <functional>
#include <string>

namespace zuTest {

/// A forked process with the calling thread alone, which runs `body` and ends with its result, without any clean-up; an
/// exception is told on standard error and ends it with 1. It ends at the latest with this object or with the test.
class ForkedChild {
public:
    explicit ForkedChild(const std::function<int()>& body); ///< throws std::runtime_error if it can't
    ~ForkedChild();
    ForkedChild(const ForkedChild&) = delete;
    ForkedChild& operator=(const ForkedChild&) = delete;

    int pid() const { return pid_; }
    void kill(int signal) const;
    /// Waits for the end. The status as `waitpid` gives it; -1 after the deadline.
    int wait(std::chrono::milliseconds deadline = patience);
    /// The exit status, or 256 and the number of the signal that ended it, or -1 after the deadline.
    int exitCode(std::chrono::milliseconds deadline = patience);
    /// Waits until the process has ended, and leaves it unreaped.
    bool waitForEndWithoutReaping() const;

private:
    int pid_ = -1;
    int status_ = -1;
};

/// Runs `body` in a child and returns as `ForkedChild::exitCode`.
int inChild(const std::function<int()>& body);

/// A pipe. Ends that are still open go with it.
class Pipe {
public:
    Pipe(); ///< throws std::runtime_error if it can't
    ~Pipe();
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    void closeRead();
    void closeWrite();
    void send(const std::string& text) const;
    /// Reads until `size` bytes are there, the end has come, or the deadline passed.
    std::string read(std::size_t size, std::chrono::milliseconds deadline = patience) const;

    int readEnd = -1;
    int writeEnd = -1;
};

namespace detail {

// What forked children and terminals share.
[[noreturn]] void runAndEnd(const std::function<int()>& body);
int reap(int pid, std::chrono::milliseconds deadline); ///< the status, or -1 after the deadline
int codeOf(int status);
/// Appends what is there before `end`; false at the end of the input or after `end`.
bool readSome(int descriptor, std::string& text, std::size_t size, std::chrono::steady_clock::time_point end);
void sendAll(int descriptor, const std::string& text);

} // namespace detail

} // namespace zuTest
