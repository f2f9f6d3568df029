// Rounds with a wait between them that can be cut short.
#include "client/Follower.h"

#include "platform/thread.h"

namespace zuGevClient {

void Follower::start(Milliseconds period)
{
    const std::lock_guard<std::mutex> control(control_);
    const std::lock_guard<std::mutex> guard(mutex_);
    period_ = period;
    hurry_ = true;
    wake_.notify_all();
    if (thread_.joinable())
        return;
    thread_ = std::thread([this] { run(); });
    on_ = true;
}

void Follower::stop()
{
    const std::lock_guard<std::mutex> control(control_);
    std::thread thread;
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        on_ = false;
        thread.swap(thread_);
        wake_.notify_all();
    }
    if (thread.joinable())
        thread.join();
}

void Follower::hurry()
{
    const std::lock_guard<std::mutex> guard(mutex_);
    hurry_ = true;
    wake_.notify_all();
}

bool Follower::isOn() const
{
    const std::lock_guard<std::mutex> guard(mutex_);
    return on_;
}

void Follower::run()
{
    zuPlatform::nameCurrentThread("zu-follow");
    std::unique_lock<std::mutex> guard(mutex_);
    while (on_) {
        hurry_ = false;
        guard.unlock();
        try {
            round_();
        } catch (...) {
            // There is nobody to tell; the next round tries again.
        }
        guard.lock();
        wake_.wait_for(guard, period_, [&] { return !on_ || hurry_; });
    }
}

} // namespace zuGevClient
