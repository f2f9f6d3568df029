// The thread by which a connection looks after its daemon, again and again.
#pragma once

#include "client/GevClient.h"

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace zuGevClient {

/// Any thread may call, but for the rounds themselves.
class Follower {
public:
    /// `round` is called on the follower's thread; what it throws is dropped.
    explicit Follower(std::function<void()> round) : round_(std::move(round)) {}
    ~Follower() { stop(); }
    Follower(const Follower&) = delete;
    Follower& operator=(const Follower&) = delete;

    /// A round each `period` from now on. One that runs already keeps its thread.
    void start(Milliseconds period);

    /// Waits for the round under way. Repeatable.
    void stop();

    /// The next round comes at once.
    void hurry();

    bool isOn() const;

private:
    void run();

    const std::function<void()> round_;
    std::mutex control_;       ///< held for a whole start or stop
    mutable std::mutex mutex_; ///< guards all below; held across no round
    std::condition_variable wake_;
    std::thread thread_;
    Milliseconds period_{0};
    bool on_ = false;
    bool hurry_ = false;
};

} // namespace zuGevClient
