// A lasting link to one device: control privilege (CCP), the heartbeat timeout, and the thread that keeps the link
// alive and takes control again when it was lost. Client threads and that thread meet in the commands of CGVCP.
#pragma once

#include "GevTLBase/GVCP.h"

#include <boost/chrono/system_clocks.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <boost/thread/thread.hpp>

namespace GEV {

/// Bootstrap registers, with their names in the standard.
namespace gevRegister {
inline constexpr std::uint64_t deviceMode = 0x0004;       ///< Device Mode
inline constexpr std::uint64_t gvcpCapability = 0x0934;   ///< GVCP Capability
inline constexpr std::uint64_t heartbeatTimeout = 0x0938; ///< Heartbeat Timeout, milliseconds
inline constexpr std::uint64_t ccp = 0x0A00;              ///< Control Channel Privilege
} // namespace gevRegister

/// Arguments of `CGevControl::Link`. Any other value links for monitoring alone: nothing is written.
namespace linkMode {
inline constexpr std::uint32_t control = 3;
inline constexpr std::uint32_t exclusive = 4;
inline constexpr std::uint32_t switchoverMask = 0x30000; ///< one bit of it: switchover, with the key in the low 16 bits
} // namespace linkMode

/// Values of the CCP register.
namespace ccpValues {
inline constexpr std::uint32_t exclusive = 0x00000001;
inline constexpr std::uint32_t control = 0x00000002;
inline constexpr std::uint32_t controlWithSwitchover = 0x00000006;
inline constexpr std::uint32_t accessMask = 0x00000003; ///< some access is held
} // namespace ccpValues

using LinkCallback = boost::function<void()>;

/// The definitions are in GevControl_impl.h and GevHeartbeat_impl.h. `Unlink`, `SetHeartbeatTimeout` and the destructor
/// join the heartbeat thread, so they are not for its callbacks: there the first throws, the second logs a failure and
/// the thread ends at its next wait.
template <typename TConnection>
class CGevControl : public CGVCP<TConnection> {
public:
    /// The callbacks run on the heartbeat thread with no lock held, and may be empty.
    CGevControl(LinkCallback ccpLost, LinkCallback connectionLost, LinkCallback reconnected);
    /// Gives back control, if it is held.
    ~CGevControl() override;

    void RestartHeartbeatWait(std::uint64_t delayMs) override;

    /// Takes control as `mode` says and starts the heartbeat thread. Throws `PlainException` when control is refused.
    virtual void Link(std::uint32_t mode);
    /// Asks the device whether CCP is what this program wrote. Throws what `ReadReg` throws.
    virtual bool HasCcp();
    /// Ends the heartbeat thread, waiting for a read or a callback in progress, and gives back control. Lets no
    /// `GevException` out; a device that doesn't answer counts as unlinked.
    virtual void Unlink();
    virtual bool IsLinked();
    /// In host order.
    virtual void GetLocalAddress(std::uint32_t& ip, std::uint16_t& port);
    virtual void GetAckTimeout(std::uint32_t& milliseconds);
    virtual void SetAckTimeout(std::uint32_t milliseconds);
    virtual void GetRetries(std::uint32_t& count);
    virtual void SetRetries(std::uint32_t count);
    /// Milliseconds. 0 ends the heartbeat. `margin` is not used: it is always derived. A failure is only logged.
    virtual void SetHeartbeatTimeout(std::uint32_t timeout, std::uint32_t margin);
    /// `margin` is what the device's timeout has beyond one period. Throws what `ReadReg` throws.
    virtual void GetHeartbeatTimeout(std::uint32_t& timeout, std::uint32_t& margin);
    virtual void Disconnect();

protected:
    template <typename T>
    using Relaxed = typename CGVCP<TConnection>::template Relaxed<T>;
    using Clock = boost::chrono::steady_clock;

    static constexpr std::uint32_t firstHeartbeatPeriod = 3000;

    /// Guards what stands up to `sleepUntil`. Inside `commandMutex` and `threadMutex`; nothing is taken while it is
    /// held.
    boost::recursive_timed_mutex heartbeatMutex;
    boost::condition_variable_any heartbeatCondition; ///< the heartbeat thread's wait
    bool waiting = false;         ///< the thread is in its wait; wakes at other times mean nothing to it
    bool wakeSignalled = false;   ///< a wake came since the thread last looked...
    Clock::time_point wokenUntil; ///< ...and this is when the wait now ends
    Clock::time_point sleepUntil; ///< when the thread looks again by itself

    Relaxed<std::uint32_t> heartbeatPeriod{firstHeartbeatPeriod}; ///< milliseconds between two CCP reads
    Relaxed<std::uint32_t> ccpValue{0};                           ///< what this program wrote to CCP
    Relaxed<std::uint32_t> gvcpCapability{0};                     ///< kept, not read
    Relaxed<std::uint64_t> runFlag{1};                            ///< the thread runs while it isn't 0

    LinkCallback CcpLostCallback;
    LinkCallback ConnectionLostCallback;
    LinkCallback ReconnectedCallback;
    zuLogging::logstate controlLog;

private:
    static std::uint32_t CcpFor(std::uint32_t mode);
    std::uint32_t PeriodDivisor() const;
    void ReadDeviceTimeout(const char* failureText);
    void DoLink(std::uint32_t mode);
    std::uint32_t ReadBootstrap(std::uint64_t address);
    void WriteBootstrap(std::uint64_t address, std::uint32_t value);

    // GevHeartbeat_impl.h
    void StartHeartbeat();
    void StopHeartbeat();
    void InterruptHeartbeat();
    bool OnHeartbeatThread() const;
    void RefuseHeartbeatThread() const;
    void HeartbeatThread();
    void HeartbeatLoop();
    void WaitForExpiry(std::uint64_t& delay);
    void CheckCcp();
    void NotifyConnectionLost(std::uint32_t failureLevel);
    void Reconnect();

    /// Guards `heartbeatThread` and is held while it is started or joined, before any other lock.
    boost::mutex threadMutex;
    std::unique_ptr<boost::thread> heartbeatThread;
    std::atomic<std::uint64_t> heartbeatThreadId{0}; ///< the system's id while the thread runs, else 0
    bool interruptedItself = false;                  ///< of the heartbeat thread alone: it ends at its next wait
};

} // namespace GEV
