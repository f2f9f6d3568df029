// Counts the calls inside an object that other threads reach through bound callbacks.
#pragma once

#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>

namespace zuGevDaemon {

/// Held by the callbacks too, so that one that comes late finds the gate closed where the object is gone. Its mutex is
/// a leaf: nothing is called while it is held.
class CallGate {
public:
    bool Enter()
    {
        const boost::lock_guard<boost::mutex> lock(mutex_);
        if (closed_)
            return false;
        ++inside_;
        return true;
    }
    void Leave()
    {
        bool awaited = false;
        {
            const boost::lock_guard<boost::mutex> lock(mutex_);
            awaited = --inside_ == 0 && closed_;
        }
        if (awaited)
            left_.notify_all();
    }
    bool TryClose()
    {
        const boost::lock_guard<boost::mutex> lock(mutex_);
        if (inside_ != 0)
            return false;
        closed_ = true;
        return true;
    }
    /// Waits for the calls inside; for a thread that is not one of them. No interruption point.
    void Close()
    {
        const boost::this_thread::disable_interruption uninterrupted;
        boost::unique_lock<boost::mutex> lock(mutex_);
        closed_ = true;
        while (inside_ != 0)
            left_.wait(lock);
    }

private:
    boost::mutex mutex_;
    boost::condition_variable left_;
    unsigned inside_ = 0;
    bool closed_ = false;
};

/// One call's passage through a gate.
class CallPass {
public:
    explicit CallPass(CallGate& gate) : gate_(gate), entered_(gate.Enter()) {}
    ~CallPass()
    {
        if (entered_)
            gate_.Leave();
    }
    CallPass(const CallPass&) = delete;
    CallPass& operator=(const CallPass&) = delete;
    explicit operator bool() const { return entered_; }

private:
    CallGate& gate_;
    bool entered_;
};

} // namespace zuGevDaemon
