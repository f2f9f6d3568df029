// One logical connection over a dispatcher, with a thread of its own that reads commands and calls the handler.
//
// `sendLock` comes before every lock of the dispatcher. The own thread is started under `stateLock`, so PipeThread's
// comes inside it, and no other. The mutex of the AbortLink is a leaf.
#pragma once

#include "GevTLBase/IPCPipe/Dispatcher.h"
#include "GevTLBase/IPCPipe/IMsgSrc.h"
#include "logging/logstate.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include <boost/signals2.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <boost/thread/thread.hpp>

namespace zuIPCPipe {

class CInstance : public IMsgSrc {
    struct Token {
        explicit Token() = default;
    };
    /// What the dispatcher's abort signal holds: the way to the instance while it lives.
    struct AbortLink {
        std::mutex mutex; ///< guards `owner`
        std::weak_ptr<CInstance> owner;
    };

public:
    /// For a slot that `AddInstance` has given. Throws `IPCException` "Invalid instance index".
    static std::shared_ptr<CInstance> Make(std::shared_ptr<CDispatcher> dispatcher, std::uint64_t index);

    CInstance(Token, std::shared_ptr<CDispatcher> dispatcher, std::uint64_t index);
    ~CInstance() override;
    CInstance(const CInstance&) = delete;
    CInstance& operator=(const CInstance&) = delete;

    void Send(void* data, std::size_t length, void* reply, std::size_t& replyLength, std::uint32_t timeout) override;
    bool Post(void* data, std::size_t length) override;
    bool Ping() override;
    void ExtendTimeout(std::uint32_t seq, std::uint32_t timeout) override;
    void SetMsgHandler(MsgHandler handler) override;
    void ClearMsgHandler() override;
    void SetDisconnectHandler(DisconnectHandler handler) override;
    void ClearDisconnectHandler() override;
    void Disconnect() override;
    bool IsConnected() override;

    /// After an `IPCTimeoutException` of `Send`, if the peer's `ExtendTimeout` had set its wait anew, goes on waiting
    /// for the reply as `Send` does. False if it hadn't, and on a connection that is gone.
    bool AwaitReply(void* reply, std::size_t& replyLength, std::uint32_t timeout);
    /// Sends a message of flags alone and waits 500 ms for its acknowledge.
    virtual void SendFlags(std::uint32_t flags);
    /// The dispatcher is going: tells the handler, waits for the own thread, gives up slot and dispatcher.
    virtual void Abort();
    /// The same at the end of the own thread, which is let go instead.
    virtual void Release();

    /// Starts `ThreadProc`; once.
    void Start();

    /// Has `action` called once, by whoever ends this instance, before anything else of the end.
    void CallAtEnd(std::function<void()> action);

private:
    friend struct zuTest::DispatcherProbe;

    void ThreadProc();
    void HandleCommand(CDispatcher& source, std::shared_ptr<instance_msg>& message);
    void Deliver(instance_msg& message, std::size_t& replyLength);
    void Terminated(CDispatcher& source, std::shared_ptr<instance_msg>& message);
    void LeaveOwnThread();
    void FireDisconnect();
    void StoreConnection(boost::signals2::connection& stored, boost::signals2::connection connection);
    void DisconnectStored(const boost::signals2::connection& stored);
    void RunAtEnd();
    void BeginEnd();
    std::shared_ptr<CDispatcher> GiveUpDispatcher();
    void WakeThread();
    void TakeReply(CDispatcher& peer, void* reply, std::size_t& replyLength, std::uint32_t timeout);
    template <typename NewWait>
    std::shared_ptr<instance_msg> AwaitAck(CDispatcher& peer, std::uint32_t wait, NewWait newWait);
    void FillPayload(instance_msg& message, const void* data, std::size_t length);
    std::shared_ptr<CDispatcher> Dispatcher() const;
    std::unique_ptr<PipeThread> TakeThread();

    std::shared_ptr<CDispatcher> dispatcher; ///< null after Abort or Release; under `stateLock`
    const std::uint64_t index;
    std::weak_ptr<CDispatcher::InstanceInfo> ownSlot; ///< its `index` may have become another's
    std::uint32_t seq = 0;                            ///< under `sendLock`
    bool extended = false;                            ///< the last wait for a reply was; under `sendLock`
    std::atomic<bool> disconnected{false};
    std::atomic<bool> notifyPending{true};
    std::function<void()> atEnd;        ///< under `stateLock`
    boost::recursive_mutex sendLock;    ///< held for a whole send, the wait included
    std::unique_ptr<PipeThread> thread; ///< under `stateLock`
    std::atomic<std::uint64_t> running{1};
    boost::signals2::signal<void(void*, std::size_t, std::size_t&, boost::function<void(unsigned int)>)> msgSignal;
    boost::signals2::connection msgConnection; ///< under `stateLock`
    boost::signals2::signal<void()> disconnectSignal;
    boost::signals2::connection disconnectConnection; ///< under `stateLock`
    zuLogging::logstate log;
    mutable std::mutex stateLock;
    bool released = false; ///< `Disconnect` has given the slot back; under `stateLock`
    const std::shared_ptr<AbortLink> abortLink = std::make_shared<AbortLink>();
};

} // namespace zuIPCPipe
