// Terminals of a test's own.
#pragma once

#include "tests/support/eventually.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zuTest {

/// A new session on a terminal of its own. Its leader, forked from the test, runs `leader` with the terminal as
/// standard input, output and error, and in the foreground. It outlives what it starts, so that the end of a program is
/// not taken for a hang-up.
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
    int pid_ = -1;
    std::string seen_;
};

/// A terminal that becomes a program's controlling one.
class Terminal {
public:
    Terminal(); ///< throws std::runtime_error if it can't
    ~Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    /// Gives the program behind these words this terminal, and the standard streams that it would have had.
    std::vector<std::string> launcher() const;
    std::string text() const; ///< printed so far

private:
    int master_ = -1;
    std::atomic<bool> stop_{false};
    mutable std::mutex mutex_; // guards text_
    std::string text_;
    std::thread reader_;
};

} // namespace zuTest
