// Keeps what can happen a million times a second from being told a million times.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace zuLogSvc {

/// Counts a kind of event. The first is due at once, those that follow together after the interval. One thread.
class EventCounter {
public:
    struct Due {
        std::uint64_t count = 0; ///< events since the last time
        std::string latest;      ///< words of the latest one
    };

    explicit EventCounter(std::uint64_t intervalMs = 10'000) : intervalMs_(intervalMs) {}

    void add(std::uint64_t count, std::string words)
    {
        total_ += count;
        waiting_.count += count;
        waiting_.latest = std::move(words);
    }

    /// What is to be told now, if anything; `final` does not wait for the interval.
    std::optional<Due> due(std::uint64_t nowMs, bool final = false)
    {
        if (waiting_.count == 0 || (toldMs_ && !final && nowMs - *toldMs_ < intervalMs_))
            return std::nullopt;
        toldMs_ = nowMs;
        return std::exchange(waiting_, {});
    }

    bool waiting() const { return waiting_.count != 0; }
    std::uint64_t total() const { return total_; }

private:
    const std::uint64_t intervalMs_;
    std::uint64_t total_ = 0;
    Due waiting_;
    std::optional<std::uint64_t> toldMs_;
};

/// Lets at most `limit` events through in each interval and counts the others. One thread.
class EventGate {
public:
    EventGate(std::uint64_t limit, std::uint64_t intervalMs) : limit_(limit), intervalMs_(intervalMs) {}

    bool pass(std::uint64_t nowMs)
    {
        if (nowMs - startMs_ >= intervalMs_) {
            startMs_ = nowMs;
            used_ = 0;
        }
        if (used_ < limit_) {
            ++used_;
            return true;
        }
        ++held_;
        return false;
    }

    /// Number of events held back, once their interval is over; `final` does not wait for that.
    std::uint64_t takeHeld(std::uint64_t nowMs, bool final = false)
    {
        return final || nowMs - startMs_ >= intervalMs_ ? std::exchange(held_, 0) : 0;
    }

private:
    const std::uint64_t limit_;
    const std::uint64_t intervalMs_;
    std::uint64_t startMs_ = 0;
    std::uint64_t used_ = 0;
    std::uint64_t held_ = 0;
};

} // namespace zuLogSvc
