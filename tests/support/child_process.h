// A program under test as a process: started, spoken to over its standard streams, and always ended by its id.
#pragma once

#include "tests/support/eventually.h"

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace zuTest {

class ChildProcess {
public:
    using Milliseconds = std::chrono::milliseconds;

    enum class Output {
        together, ///< standard output and error as they come, in `output`
        apart,    ///< standard error in `errors`
        unread    ///< nobody reads standard output, which is a pipe; standard error in `errors`
    };

    /// Starts `command`, looked up in PATH. Throws std::runtime_error if it can't.
    explicit ChildProcess(const std::vector<std::string>& command, Output output = Output::together);
    ~ChildProcess(); ///< SIGKILL, if it still runs
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    int pid() const;
    bool running() const;
    /// To its standard input. Throws std::runtime_error if the process takes no more.
    void write(const std::string& text);
    void closeInput();
    void closeOutput(); ///< the reading end of an unread one
    void signal(int number);

    /// What it has printed so far.
    std::string output() const;
    std::string errors() const;

    /// Waits until `text` has been printed at `from` or behind; false at the deadline, or when the process or its
    /// output has ended without it.
    bool waitForOutput(const std::string& text, Milliseconds deadline = patience, std::size_t from = 0) const;
    bool waitForErrors(const std::string& text, Milliseconds deadline = patience, std::size_t from = 0) const;

    /// Waits for the next line of the output, counted from the last call's; empty at the deadline or the end.
    std::string line(Milliseconds deadline = patience);

    struct End {
        bool exited = false; ///< by itself; else by a signal, or not yet
        int status = 0;      ///< exit status, or signal
    };
    /// Waits for its end; neither exited nor a signal at the deadline. All that it printed has been read then.
    End wait(Milliseconds deadline = patience);
    /// As `wait`, but gives the exit status, or -1 after a signal or at the deadline.
    int exitStatus(Milliseconds deadline = patience);

private:
    struct State;
    std::unique_ptr<State> state_;
    std::size_t lineStart_ = 0;
};

/// Runs a command to its end and gives its output.
struct Finished {
    ChildProcess::End end;
    std::string output;
    std::string errors; ///< if they were asked for apart
};
Finished runCommand(const std::vector<std::string>& command, ChildProcess::Milliseconds deadline = patience,
                    ChildProcess::Output output = ChildProcess::Output::together);

/// Path of a program that stands beside the running test.
std::string builtProgram(const std::string& name);

/// Whether a program is found in PATH.
bool isInstalled(const std::string& program);

/// Of a process that runs. From /proc: the first word of a line of `status`, such as "VmRSS"; "?" without it.
std::string statusField(int pid, const std::string& name);
double cpuSeconds(int pid); ///< user and system time so far

} // namespace zuTest
