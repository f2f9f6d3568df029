// What the measuring programs share: latencies in batches, and a daemon under measurement.
#pragma once

#include "tests/support/child_process.h"
#include "tests/support/forked_child.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace zuBench {

/// Durations of single accesses.
class Latencies {
public:
    /// Times `count` calls one by one.
    void take(unsigned count, const std::function<void()>& access);
    void add(double microseconds) { microseconds_.push_back(microseconds); }
    double percentile(double part); ///< of all taken so far, in microseconds; `part` from 0 to 1
    /// As `percentile`, of the last `count` only.
    double percentileOfLast(unsigned count, double part) const;

private:
    std::vector<double> microseconds_;
};

/// A daemon for the length of a measurement. It is asked to end, and killed after two seconds.
class MeasuredDaemon {
public:
    /// Waits until clients find it; throws std::runtime_error after ten seconds.
    explicit MeasuredDaemon(const std::string& program);
    ~MeasuredDaemon();
    MeasuredDaemon(const MeasuredDaemon&) = delete;
    MeasuredDaemon& operator=(const MeasuredDaemon&) = delete;

    double cpuSeconds() const; ///< user and system time so far
    long residentKiB() const;  ///< resident memory
    std::size_t threads() const;

private:
    std::uint16_t before_ = 0; ///< the port of the one before it, found first
    zuTest::ChildProcess process_;
};

/// A process that runs `body`, and prints its exception.
class Part : public zuTest::ForkedChild {
public:
    explicit Part(const std::function<void()>& body);
    int wait() { return exitCode(std::chrono::hours(24)); }
};

/// Keeps this process and those it starts from now on to processor 0, or lets them go where they like.
void pinToOneProcessor(bool pinned);

/// Memory that this process shares with children forked later, zero-filled.
void* sharedMemory(std::size_t bytes);

double nowSeconds(); ///< steady

} // namespace zuBench
