// One process's end of the traffic with one peer process: two loopback sockets, two threads that do nothing but
// receive, a pool of buffers and a table of instances.
//
// Locks, outermost first: `instanceLock`, the mutexes of an InstanceInfo or `dispAckMutex`, `poolLock`. `slotLock` and
// `socketLock` are leaves. Threads are started under `threadLock`, so PipeThread's comes inside it, and no other. A
// sender holds its instance's send lock outside all of these.
#pragma once

#include "GevTLBase/IPCPipe/ClientRole.h"
#include "GevTLBase/IPCPipe/IMsgSrc.h"
#include "GevTLBase/IPCPipe/InstanceMsg.h"
#include "GevTLBase/IPCPipe/PipeThread.h"
#include "logging/logstate.h"
#include "platform/socket.h"
#include "platform/wake.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <vector>

#include <boost/function.hpp>
#include <boost/signals2.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <boost/thread/thread.hpp>

namespace zuTest {
struct DispatcherProbe;
}

namespace zuIPCPipe {

class CDispatcher : public std::enable_shared_from_this<CDispatcher> {
    struct Token {
        explicit Token() = default;
    };

public:
    using Callback = boost::function<void(std::shared_ptr<CDispatcher>)>;
    using NewInstance = std::function<void(std::shared_ptr<IMsgSrc>)>;

    /// One instance's place: one message each way, a later one replaces an unread one.
    struct InstanceInfo {
        std::mutex cmdMutex; ///< guards `cmdMsg`, and `cmdPending` together with it
        zuPlatform::WakeWord cmdCond;
        boost::mutex ackMutex; ///< guards `ackMsg`, and `ackPending` together with it
        boost::condition_variable ackCond;
        std::atomic<bool> cmdPending{false};
        std::atomic<bool> ackPending{false};
        std::shared_ptr<instance_msg> ackMsg;
        std::shared_ptr<instance_msg> cmdMsg;
        std::atomic<std::uint64_t> remoteIndex{0};
        boost::signals2::signal<void()> abortSignal;
        std::atomic<std::uint64_t> aborted{0};
        /// Notifications of `ackCond` that are still to come for acknowledges that are stored already. Who begins to
        /// wait meanwhile may be woken by as many of them without finding anything, and waits on.
        std::atomic<unsigned> ackNotices{0};
    };

    /// Where an index is asked for: none, the header's index stays as it is.
    static constexpr std::uint64_t kNoIndex = ~std::uint64_t{0};

    /// Client role and server role. Both threads run on return. `forget` is called at each Connect, `keep` never;
    /// `callback` is called on `CmdThread` with each new instance. Throws `IPCException` if there is no socket.
    static std::shared_ptr<CDispatcher> Make(Callback keep, Callback forget, std::uint32_t pid);
    static std::shared_ptr<CDispatcher> Make(Callback keep, Callback forget, NewInstance callback, std::uint32_t pid);

    CDispatcher(Token, Callback keep, Callback forget, std::uint32_t pid);
    virtual ~CDispatcher();
    CDispatcher(const CDispatcher&) = delete;
    CDispatcher& operator=(const CDispatcher&) = delete;

    /// Waits up to `timeout` milliseconds for a datagram; false if none came. An empty one counts.
    virtual bool ReceiveMsg(const zuPlatform::SocketPtr& socket, instance_msg& message, std::uint32_t timeout);

    /// The peer's ports, network byte order.
    void SetRemotePorts(const std::uint16_t& cmdPort, const std::uint16_t& ackPort);

    /// Closes the sockets and aborts every instance, which runs their disconnect handlers here and waits for their
    /// threads. Repeatable, any thread.
    void Shutdown();

    std::uint64_t AddInstance(std::shared_ptr<InstanceInfo>& info);
    void ReleaseInstance(std::uint64_t index);
    void ConnectAbort(std::uint64_t index, boost::function<void()> abort);
    /// Wakes whoever waits in ReadCmd or ReadAck for good, if `own` still has the index.
    void AbortInstance(std::uint64_t index, const std::shared_ptr<InstanceInfo>& own);
    std::shared_ptr<InstanceInfo> Slot(std::uint64_t index) const; ///< null for a free one and past the end
    void WriteCmd(instance_msg& message, std::uint64_t index);
    void WriteAck(instance_msg& message, std::uint64_t index);
    bool ReadCmd(std::shared_ptr<instance_msg>& message, std::uint64_t index);
    bool ReadAck(std::shared_ptr<instance_msg>& message, std::uint32_t timeout, std::uint64_t index);
    void ReturnMsg(std::shared_ptr<instance_msg>& message); ///< the reference is null afterwards

    /// What the two threads do with a datagram in hand. They take the buffer over.
    void HandleCmd(std::shared_ptr<instance_msg>& message);
    void HandleAck(std::shared_ptr<instance_msg>& message);

    CClientRole& Client() { return *client; } ///< not in the server role

    std::uint16_t CmdPort() const { return cmdPort; }
    std::uint16_t AckPort() const { return ackPort; }
    std::uint32_t Pid() const { return pid; }
    void SetPid(std::uint32_t value) { pid = value; }
    std::uint64_t InstanceCount() const { return instanceCount; }
    std::size_t SlotCount() const; ///< length of the instance vector, free slots included
    std::uint64_t MaxInstances() const { return maxInstances; }

private:
    friend struct zuTest::DispatcherProbe;
    friend class CClientRole;

    void OpenSockets();
    void Start();
    void CmdThread();
    void AckThread();
    void EndThreads();
    void LeaveOwnThread();
    bool Fetch(const zuPlatform::SocketPtr& socket, std::shared_ptr<instance_msg>& message);
    void HandleDispatcherCmd(std::shared_ptr<instance_msg>& message);
    void HandleConnect(std::shared_ptr<instance_msg>& message, const std::shared_ptr<CDispatcher>& self);
    void AnswerDispatcherCmd(instance_msg& message);
    void SendFrom(instance_msg& message, const zuPlatform::SocketAddress& to);
    void AddBuffers(unsigned count);

    std::atomic<bool> stopped{true};
    std::atomic<std::uint64_t> running{0};
    std::unique_ptr<PipeThread> cmdThread; ///< under `threadLock`
    std::unique_ptr<PipeThread> ackThread; ///< under `threadLock`
    zuPlatform::SocketPtr ackSock;         ///< receives acknowledges, sends everything; under `socketLock`
    zuPlatform::SocketPtr cmdSock;         ///< receives commands; under `socketLock`
    std::atomic<zuPlatform::SocketAddress> rmtAckAddr{};
    std::atomic<zuPlatform::SocketAddress> rmtCmdAddr{};
    std::uint16_t ackPort = 0; ///< own receive ports, network byte order
    std::uint16_t cmdPort = 0;
    boost::mutex dispAckMutex; ///< guards the three below
    boost::condition_variable dispAckCond;
    std::atomic<bool> dispAckPending{false};
    std::shared_ptr<instance_msg> dispAckMsg;
    Callback forget;
    Callback keep;
    std::atomic<std::uint32_t> pid;
    std::atomic<std::uint64_t> maxInstances{30};
    std::atomic<std::uint64_t> instanceCount{0};
    boost::signals2::signal<void(std::shared_ptr<IMsgSrc>)> newInstance;
    boost::signals2::connection newInstanceConnection;
    boost::recursive_mutex poolLock; ///< guards `pool`
    std::deque<std::shared_ptr<instance_msg>> pool;
    /// Shared by who only stores into or clears a slot, exclusive for who may resize the vector.
    std::shared_mutex instanceLock;
    mutable std::mutex slotLock; ///< guards each access to `instances` itself
    std::vector<std::shared_ptr<InstanceInfo>> instances;
    zuLogging::logstate log;
    std::uint64_t sendRetries = 5;
    std::mutex socketLock;
    std::mutex threadLock;
    std::unique_ptr<CClientRole> client; ///< null in the server role
};

} // namespace zuIPCPipe
