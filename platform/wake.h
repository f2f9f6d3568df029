// A word that threads wait on: a condition variable that needs no mutex, so that a thread which wakes meets none.
#pragma once

#include <atomic>
#include <cstdint>

namespace zuPlatform {

/// Counts its notifications. Who waits says which count it has seen; one that came since ends the wait at once, so
/// nothing is lost if the count is read before, or in one step with, the look at what is waited for.
class WakeWord {
public:
    std::uint32_t count() const { return word_.load(std::memory_order_acquire); }

    /// Waits until the count is another than `seen`; false if it still is when the steady clock stands at
    /// `deadlineNs` nanoseconds. Never ends for nothing.
    bool waitUntil(std::uint32_t seen, std::uint64_t deadlineNs);

    /// Counts one more and wakes all who wait. What was written before is seen by them.
    void notify_all()
    {
        advance();
        wake();
    }

    /// The two halves of `notify_all`, for a caller that counts under a lock and wakes after it.
    void advance() { word_.fetch_add(1, std::memory_order_seq_cst); }
    void wake();

private:
    std::atomic<std::uint32_t> word_{0};
    std::atomic<std::uint32_t> waiters_{0}; ///< spares a notification without waiters the system call
};

} // namespace zuPlatform
