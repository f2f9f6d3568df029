// A lock that is given to those who wait in the order in which they came, so that a long transfer made of many
// commands lets other threads in between.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace zuGevClient {

/// Not recursive. Meets the standard's BasicLockable.
class TurnLock {
public:
    void lock()
    {
        std::unique_lock<std::mutex> guard(mutex_);
        const std::uint64_t ticket = next_++;
        turn_.wait(guard, [&] { return serving_ == ticket; });
    }
    void unlock()
    {
        {
            const std::lock_guard<std::mutex> guard(mutex_);
            ++serving_;
        }
        turn_.notify_all();
    }

    /// How many hold it or wait for it.
    std::uint64_t users() const
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        return next_ - serving_;
    }

private:
    mutable std::mutex mutex_; ///< guards both numbers; a leaf
    std::condition_variable turn_;
    std::uint64_t next_ = 0;
    std::uint64_t serving_ = 0;
};

} // namespace zuGevClient
