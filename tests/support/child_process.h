// A real process under test: started, spoken to over its standard streams, and always ended by its id.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace zuTest {

class ChildProcess {
public:
    using Milliseconds = std::chrono::milliseconds;
    static constexpr Milliseconds defaultDeadline{30000};

    /// Starts `command`; standard output and error are read together. Throws std::runtime_error if it can't.
    explicit ChildProcess(const std::vector<std::string>& command);
    ~ChildProcess(); ///< SIGKILL, if it still runs
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    int pid() const;
    void write(const std::string& text); ///< to its standard input
    void closeInput();
    void signal(int number);

    /// What it has printed so far.
    std::string output() const;
    /// Waits until `text` has been printed; false at the deadline, or when the output has ended without it.
    bool waitForOutput(const std::string& text, Milliseconds deadline = defaultDeadline) const;

    struct End {
        bool exited = false; ///< by itself; else by a signal, or not yet
        int status = 0;      ///< exit status, or signal
    };
    /// Waits for its end; neither exited nor a signal at the deadline. All output has been read then.
    End wait(Milliseconds deadline = defaultDeadline);

private:
    struct State;
    std::unique_ptr<State> state_;
};

/// Runs a command to its end and gives its output.
struct Finished {
    ChildProcess::End end;
    std::string output;
};
Finished runCommand(const std::vector<std::string>& command,
                    ChildProcess::Milliseconds deadline = ChildProcess::defaultDeadline);

/// Path of a program that stands beside the running test.
std::string builtProgram(const std::string& name);

/// Whether a program is found in PATH.
bool isInstalled(const std::string& program);

} // namespace zuTest
