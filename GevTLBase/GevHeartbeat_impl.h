// The heartbeat thread of CGevControl. Included by GevControl_impl.h.
//
// Each answer of the device restarts the thread's wait. It does so by moving the end of the wait, and wakes the thread
// only when the new end lies before the moment at which the thread looks by itself: a busy client costs no thread
// switch.
#pragma once

#include "GevTLBase/GevControl.h"
#include "logging/log.h"
#include "platform/thread.h"

#include <algorithm>

#include <boost/chrono/duration.hpp>
#include <boost/thread/locks.hpp>

namespace GEV {

namespace heartbeatDetail {

/// How long the thread tries to take its mutex before it looks at its run flag again.
inline constexpr boost::chrono::milliseconds lockDeadline{10};

/// How long the end of an interrupted thread is awaited before it is interrupted once more: a callback may have taken
/// the first interruption for its own.
inline constexpr boost::chrono::milliseconds interruptAgain{100};

/// A delay as a duration. What the clock can't count is cut to about a year. A delay of 0 is the shortest sleep there
/// is: without one this thread, with its priority, would leave neither `commandMutex` nor the processor to any client.
inline boost::chrono::microseconds asDuration(std::uint64_t delayMs)
{
    constexpr std::uint64_t longest = 365ull * 24 * 3600 * 1000;
    constexpr boost::chrono::microseconds shortest{100};
    if (delayMs == 0)
        return shortest;
    return boost::chrono::milliseconds(static_cast<std::int64_t>(std::min(delayMs, longest)));
}

} // namespace heartbeatDetail

template <typename TConnection>
void CGevControl<TConnection>::RestartHeartbeatWait(std::uint64_t delayMs)
{
    bool wakeThread = false;
    {
        const boost::lock_guard<boost::recursive_timed_mutex> lock(heartbeatMutex);
        if (waiting) {
            wakeSignalled = true;
            wokenUntil = Clock::now() + heartbeatDetail::asDuration(delayMs != 0 ? delayMs : heartbeatPeriod);
            wakeThread = runFlag == 0 || wokenUntil < sleepUntil;
            if (wakeThread)
                sleepUntil = wokenUntil; // it is on its way, and needs no second notification
        }
    }
    if (wakeThread)
        heartbeatCondition.notify_all();
}

template <typename TConnection>
bool CGevControl<TConnection>::OnHeartbeatThread() const
{
    return heartbeatThreadId.load(std::memory_order_relaxed) == zuPlatform::currentThreadId();
}

/// Joining itself would never end, and the mutex may be held by another thread that joins this one.
template <typename TConnection>
void CGevControl<TConnection>::RefuseHeartbeatThread() const
{
    if (OnHeartbeatThread())
        boost::throw_exception(
            boost::thread_resource_error(static_cast<int>(boost::system::errc::resource_deadlock_would_occur),
                                         "the heartbeat thread can't wait for its own end"));
}

template <typename TConnection>
void CGevControl<TConnection>::StartHeartbeat()
{
    if (OnHeartbeatThread()) // it exists; and another thread may hold the mutex while it waits for this one's end
        return;
    const boost::lock_guard<boost::mutex> lock(threadMutex);
    if (heartbeatThread)
        return;
    runFlag = 1;
    ZU_LOG(controlLog, zuLogging::log_info, "Link device : create heartbeat thread");
    heartbeatThread = std::make_unique<boost::thread>([this] { HeartbeatThread(); });
    if (!zuPlatform::setHighestPriority(heartbeatThread->native_handle()))
        ZU_LOG(controlLog, zuLogging::log_err, "Heartbeat Thread is not running TimeCritical");
}

/// Lets the thread run out, and joins it.
template <typename TConnection>
void CGevControl<TConnection>::StopHeartbeat()
{
    runFlag = 0;
    CGevControl::RestartHeartbeatWait(0);
    RefuseHeartbeatThread();
    const boost::lock_guard<boost::mutex> lock(threadMutex);
    if (!heartbeatThread)
        return;
    runFlag = 0; // a start in between may have set it
    CGevControl::RestartHeartbeatWait(0);
    if (heartbeatThread->joinable())
        heartbeatThread->join();
    heartbeatThread.reset();
}

/// Ends the thread by interruption, and joins it; `runFlag` stays as it is. The thread itself may not join, but its
/// interruption stands.
template <typename TConnection>
void CGevControl<TConnection>::InterruptHeartbeat()
{
    if (OnHeartbeatThread())
        interruptedItself = true;
    RefuseHeartbeatThread();
    const boost::lock_guard<boost::mutex> lock(threadMutex);
    if (!heartbeatThread)
        return;
    heartbeatThread->interrupt();
    while (heartbeatThread->joinable() && !heartbeatThread->try_join_for(heartbeatDetail::interruptAgain))
        heartbeatThread->interrupt();
    heartbeatThread.reset();
}

template <typename TConnection>
void CGevControl<TConnection>::HeartbeatThread()
{
    zuPlatform::nameCurrentThread("zu-heart");
    heartbeatThreadId.store(zuPlatform::currentThreadId(), std::memory_order_relaxed);
    interruptedItself = false;
    try {
        HeartbeatLoop();
    } catch (const boost::thread_interrupted&) {
        const boost::this_thread::disable_interruption uninterrupted;
        ZU_LOG(controlLog, zuLogging::log_warn, "Heartbeat thread interrupt exception");
    } catch (const std::exception& e) {
        const boost::this_thread::disable_interruption uninterrupted;
        ZU_LOG(controlLog, zuLogging::log_warn, "Heartbeat thread exception: " << e.what());
    } catch (...) { // thrown by a callback: the link ends, and not the process
    }
    const boost::this_thread::disable_interruption uninterrupted;
    ZU_LOG(controlLog, zuLogging::log_info, "Exit heartbeat thread");
    heartbeatThreadId.store(0, std::memory_order_relaxed);
}

template <typename TConnection>
void CGevControl<TConnection>::HeartbeatLoop()
{
    std::uint64_t delay = heartbeatPeriod;
    while (runFlag != 0) {
        WaitForExpiry(delay);
        if (runFlag == 0)
            break;
        if (this->hasCcp)
            CheckCcp();
        else
            Reconnect();
    }
}

/// Returns when a whole delay has gone by without a wake, or `runFlag` is 0. An interruption point. `delay` is the
/// length of this wait in milliseconds, and after an expiry that of the next.
template <typename TConnection>
void CGevControl<TConnection>::WaitForExpiry(std::uint64_t& delay)
{
    boost::unique_lock<boost::recursive_timed_mutex> lock(heartbeatMutex, boost::defer_lock);
    while (!lock.try_lock_for(heartbeatDetail::lockDeadline)) {
        if (runFlag == 0)
            return;
    }
    struct Waiting { // unlike the lock, it must end with the mutex held
        explicit Waiting(bool& flag) : flag_(flag) { flag_ = true; }
        ~Waiting() { flag_ = false; }
        bool& flag_;
    };
    const Waiting inWait(waiting);
    wakeSignalled = false;
    sleepUntil = Clock::now() + heartbeatDetail::asDuration(delay);
    while (runFlag != 0) {
        if (interruptedItself)
            throw boost::thread_interrupted();
        const boost::cv_status status = heartbeatCondition.wait_until(lock, Clock::time_point(sleepUntil));
        if (wakeSignalled) {
            wakeSignalled = false;
            sleepUntil = wokenUntil;
        } else if (status == boost::cv_status::timeout) {
            delay = heartbeatPeriod;
            return;
        }
    }
}

template <typename TConnection>
void CGevControl<TConnection>::CheckCcp()
{
    if ((ccpValue & ccpValues::accessMask) == 0)
        return;
    std::uint32_t value = 0;
    try {
        value = ReadBootstrap(gevRegister::ccp);
    } catch (const GevException& e) {
        ZU_LOG(controlLog, zuLogging::log_warn, "Exception in ReadReg -> Connection lost: " << e.what());
        NotifyConnectionLost(zuLogging::log_warn);
        return;
    } catch (const std::exception& e) {
        ZU_LOG(controlLog, zuLogging::log_warn, "Exception in ReadReg: " << e.what());
        ZU_LOG(controlLog, zuLogging::log_warn, "Exception in ReadReg -> Connection lost: " << e.what());
        NotifyConnectionLost(zuLogging::log_info);
        return;
    }
    if ((value & ccpValues::accessMask) != 0)
        return;
    ZU_LOG(controlLog, zuLogging::log_err, "Heartbeat Timeout / CCP lost");
    try {
        if (CcpLostCallback)
            CcpLostCallback();
    } catch (const std::exception& e) {
        // This text and that of NotifyConnectionLost are crossed over, and known so to those who read the logs.
        ZU_LOG(controlLog, zuLogging::log_warn, "Failure in Connection Lost notification: " << e.what());
        return;
    }
    this->hasCcp = false;
}

template <typename TConnection>
void CGevControl<TConnection>::NotifyConnectionLost(std::uint32_t failureLevel)
{
    try {
        if (ConnectionLostCallback)
            ConnectionLostCallback();
    } catch (const std::exception& e) {
        ZU_LOG(controlLog, failureLevel, "Failure in CCP Lost notification: " << e.what());
    }
}

template <typename TConnection>
void CGevControl<TConnection>::Reconnect()
{
    ZU_LOG(controlLog, zuLogging::log_warn, "HeartBeatThread reconnect");
    try {
        WriteBootstrap(gevRegister::ccp, ccpValue); // once, and not twice as for a link
        this->hasCcp = true;
        const std::uint32_t value = ReadBootstrap(gevRegister::ccp);
        ZU_LOG(controlLog, zuLogging::log_info, "CCP Value: " << value);
        ReadDeviceTimeout("Unable to establish link with camera : ");
        if (ReconnectedCallback)
            ReconnectedCallback();
        ReadBootstrap(gevRegister::ccp);
    } catch (const std::exception& e) {
        ZU_LOG(controlLog, zuLogging::log_warn, "HeartBeatThread reconnect: Unable to write CCP: " << e.what());
    }
}

} // namespace GEV
