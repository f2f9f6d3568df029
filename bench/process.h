// Processes of a measurement: started, pinned, watched and ended by their id.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace zuBench {

/// A child process; ended, by its id, with the object.
class Process {
public:
    Process() = default;
    /// Runs `body` in a child that has this process's only thread.
    static Process fork(const std::function<void()>& body);
    /// Runs a program; its output is dropped.
    static Process execute(const std::vector<std::string>& command);
    ~Process() { stop(); }
    Process(Process&& other) noexcept : pid_(other.pid_) { other.pid_ = -1; }
    Process& operator=(Process&& other) noexcept;
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t pid() const { return pid_; }
    void stop(); ///< SIGTERM, and SIGKILL after two seconds
    int wait();  ///< waits for its end by itself; the exit status

    double cpuSeconds() const; ///< user and system time so far
    long residentKiB() const;  ///< resident memory
    std::size_t threads() const;

private:
    pid_t pid_ = -1;
};

/// Keeps this process and those it starts from now on to processor 0, or lets them go where they like.
void pinToOneProcessor(bool pinned);

/// Memory that this process shares with children forked later, zero-filled.
void* sharedMemory(std::size_t bytes);

double nowSeconds(); ///< steady

} // namespace zuBench
