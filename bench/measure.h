// What the measuring programs share: latencies in batches, and a daemon under measurement.
#pragma once

#include "bench/process.h"

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

/// Starts the daemon and waits until clients find it; throws std::runtime_error after ten seconds.
Process startDaemon(const std::string& program);

/// The daemon's program beside the running one.
std::string daemonBesideThisProgram();

} // namespace zuBench
