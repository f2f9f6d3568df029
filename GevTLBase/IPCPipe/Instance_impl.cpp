// Sending, handlers and the ways in which a connection ends. Any thread; the ends may also run on the instance's own.
#include "GevTLBase/IPCPipe/Instance.h"

#include "GevTLBase/IPCPipe/IPCException.h"
#include "GevTLBase/IPCPipe/ThreadEnd.h"
#include "logging/log.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace zuIPCPipe {

namespace {

constexpr std::uint32_t flagsTimeoutMs = 500;

using SendGuard = boost::lock_guard<boost::recursive_mutex>;

} // namespace

std::shared_ptr<CInstance> CInstance::Make(std::shared_ptr<CDispatcher> dispatcher, std::uint64_t index)
{
    auto instance = std::make_shared<CInstance>(Token(), std::move(dispatcher), index);
    const std::lock_guard<std::mutex> lock(instance->abortLink->mutex);
    instance->abortLink->owner = instance;
    return instance;
}

CInstance::CInstance(Token, std::shared_ptr<CDispatcher> owner, std::uint64_t ownIndex)
    : dispatcher(std::move(owner)), index(ownIndex), log(zuLogging::make_numbered_logstate("IPCINST"))
{
    // The signal may be fired while the last share goes elsewhere: who then comes too late finds nothing to abort.
    if (!dispatcher)
        return;
    dispatcher->ConnectAbort(index, [link = abortLink] {
        std::shared_ptr<CInstance> instance;
        {
            const std::lock_guard<std::mutex> lock(link->mutex);
            instance = link->owner.lock();
        }
        if (instance)
            instance->Abort();
    });
    ownSlot = dispatcher->Slot(index);
}

CInstance::~CInstance()
{
    const boost::this_thread::disable_interruption noInterruption;
    CInstance::Disconnect();
    LeaveOwnThread();
}

void CInstance::Start()
{
    running = 1;
    const std::lock_guard<std::mutex> lock(stateLock);
    thread = PipeThread::Start(PipeThread::Kind::instance, [this] { ThreadProc(); });
}

// What does not fit is left out, and the header goes alone.
void CInstance::FillPayload(instance_msg& message, const void* data, std::size_t length)
{
    if (length > message.buffer.size() - kMsgHeaderSize)
        return;
    if (length != 0)
        std::memcpy(message.payload(), data, length);
    message.SetPayloadSize(length);
}

void CInstance::Send(void* data, std::size_t length, void* reply, std::size_t& replyLength, std::uint32_t timeout)
{
    if (disconnected)
        return;
    const SendGuard guard(sendLock);
    const std::shared_ptr<CDispatcher> peer = Dispatcher();
    if (!peer)
        return;
    instance_msg message;
    message.header().flags = 0;
    message.header().seq = ++seq;
    FillPayload(message, data, length);
    peer->WriteCmd(message, index);
    TakeReply(*peer, reply, replyLength, timeout);
}

bool CInstance::AwaitReply(void* reply, std::size_t& replyLength, std::uint32_t timeout)
{
    const SendGuard guard(sendLock);
    const std::shared_ptr<CDispatcher> peer = Dispatcher();
    if (disconnected || !extended || !peer)
        return false;
    TakeReply(*peer, reply, replyLength, timeout);
    return true;
}

// Waits for the next acknowledge. At an extension `newWait` tells from its header how long from then on.
template <typename NewWait>
std::shared_ptr<instance_msg> CInstance::AwaitAck(CDispatcher& peer, std::uint32_t wait, NewWait newWait)
{
    for (;;) {
        std::shared_ptr<instance_msg> answer;
        if (!peer.ReadAck(answer, wait, index)) {
            ZU_LOG(log, zuLogging::log_err, "Wait for Ack failed");
            throw IPCTimeoutException("Wait for Ack failed");
        }
        if ((answer->header().flags & kMsgExtend) != 0) {
            wait = newWait(answer->header());
            peer.ReturnMsg(answer);
        } else if ((answer->header().flags & kMsgAck) != 0) {
            return answer;
        }
    }
}

void CInstance::TakeReply(CDispatcher& peer, void* reply, std::size_t& replyLength, std::uint32_t timeout)
{
    extended = false;
    std::shared_ptr<instance_msg> answer = AwaitAck(peer, timeout, [this](const MsgHeader& extension) {
        extended = true;
        return extension.timeout;
    });
    if (reply) {
        replyLength = std::min(replyLength, kMsgPayloadSize);
        std::memcpy(reply, answer->payload(), replyLength);
    }
    peer.ReturnMsg(answer);
}

bool CInstance::Post(void* data, std::size_t length)
{
    if (disconnected)
        return false;
    const SendGuard guard(sendLock);
    const std::shared_ptr<CDispatcher> peer = Dispatcher();
    if (!peer)
        return false;
    instance_msg message;
    message.header().flags = kMsgNoAck;
    message.header().seq = ++seq;
    FillPayload(message, data, length);
    peer->WriteCmd(message, index);
    return true;
}

void CInstance::SendFlags(std::uint32_t flags)
{
    if (disconnected)
        return;
    const SendGuard guard(sendLock);
    const std::shared_ptr<CDispatcher> peer = Dispatcher();
    if (!peer)
        return;
    instance_msg message;
    message.header().flags = flags;
    peer->WriteCmd(message, index);
    // At an extension the new wait is not the extension's but that of the own header, which is none: whatever ends the
    // wait must be there already.
    std::shared_ptr<instance_msg> answer =
        AwaitAck(*peer, flagsTimeoutMs, [&message](const MsgHeader&) { return message.header().timeout; });
    peer->ReturnMsg(answer);
}

bool CInstance::Ping()
{
    try {
        SendFlags(kMsgControl | kMsgPing);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

void CInstance::ExtendTimeout(std::uint32_t commandSeq, std::uint32_t timeout)
{
    const std::shared_ptr<CDispatcher> peer = Dispatcher();
    if (!peer)
        return;
    instance_msg message;
    message.header().flags = kMsgExtend;
    message.header().seq = commandSeq;
    message.header().timeout = timeout;
    peer->WriteAck(message, index);
}

void CInstance::SetMsgHandler(MsgHandler handler)
{
    StoreConnection(msgConnection, msgSignal.connect(std::move(handler)));
}

void CInstance::ClearMsgHandler() { DisconnectStored(msgConnection); }

void CInstance::SetDisconnectHandler(DisconnectHandler handler)
{
    StoreConnection(disconnectConnection, disconnectSignal.connect(std::move(handler)));
}

void CInstance::ClearDisconnectHandler() { DisconnectStored(disconnectConnection); }

// What stood there before stays connected.
void CInstance::StoreConnection(boost::signals2::connection& stored, boost::signals2::connection connection)
{
    const std::lock_guard<std::mutex> lock(stateLock);
    stored.swap(connection);
}

void CInstance::DisconnectStored(const boost::signals2::connection& stored)
{
    boost::signals2::connection connection;
    {
        const std::lock_guard<std::mutex> lock(stateLock);
        connection = stored;
    }
    connection.disconnect();
}

bool CInstance::IsConnected() { return !disconnected; }

void CInstance::Disconnect()
{
    ZU_LOG(log, zuLogging::log_info, "zuIPCPipe::CInstance::Disconnect " << static_cast<const void*>(this));
    RunAtEnd();
    if (!disconnected) {
        try {
            SendFlags(kMsgControl | kMsgTerminate);
        } catch (const std::exception& e) {
            ZU_LOG(log, zuLogging::log_warn, "SendFlags failed: " << e.what());
        }
    }
    disconnected = true;
    running = 0;
    ZU_LOG(log, zuLogging::log_warn, "Waiting for instance thread to terminate ");
    WakeThread();
    EndThread(TakeThread());
    ZU_LOG(log, zuLogging::log_warn, "Waiting for instance thread terminated");

    std::shared_ptr<CDispatcher> peer;
    {
        const std::lock_guard<std::mutex> lock(stateLock);
        peer = dispatcher;
        released = true;
    }
    if (peer)
        peer->ReleaseInstance(index);
}

void CInstance::Abort()
{
    BeginEnd();
    if (const std::shared_ptr<CDispatcher> peer = Dispatcher())
        peer->AbortInstance(index, ownSlot.lock());
    EndThread(TakeThread());
    const std::shared_ptr<CDispatcher> last = GiveUpDispatcher();
    FireDisconnect(); // for a handler that came meanwhile
}

void CInstance::Release()
{
    BeginEnd();
    const std::shared_ptr<CDispatcher> last = GiveUpDispatcher();
    TakeThread().reset();
}

void CInstance::BeginEnd()
{
    RunAtEnd();
    FireDisconnect();
    disconnected = true;
    running = 0;
}

// Of several threads that end the instance at once one gives the slot back: a second time it may be another's.
std::shared_ptr<CDispatcher> CInstance::GiveUpDispatcher()
{
    std::shared_ptr<CDispatcher> peer;
    bool toRelease = false;
    {
        const std::lock_guard<std::mutex> lock(stateLock);
        peer.swap(dispatcher);
        toRelease = peer && !released;
    }
    if (toRelease)
        peer->ReleaseInstance(index);
    return peer;
}

// Two threads can come here at once, and the handler must not be called by both. One that failed is called again, and
// one that is not there yet still will be.
void CInstance::FireDisconnect()
{
    if (disconnectSignal.empty() || !notifyPending.exchange(false))
        return;
    try {
        disconnectSignal();
    } catch (...) {
        notifyPending = true;
        throw;
    }
}

// Spares a disconnect the rest of the thread's wait for a command.
void CInstance::WakeThread()
{
    const std::shared_ptr<CDispatcher::InstanceInfo> info = ownSlot.lock();
    if (!info)
        return;
    {
        const std::lock_guard<std::mutex> lock(info->cmdMutex);
        info->aborted = 1;
    }
    info->cmdCond.notify_all();
}

void CInstance::CallAtEnd(std::function<void()> action)
{
    const std::lock_guard<std::mutex> lock(stateLock);
    atEnd = std::move(action);
}

void CInstance::RunAtEnd()
{
    std::function<void()> action;
    {
        const std::lock_guard<std::mutex> lock(stateLock);
        action.swap(atEnd);
    }
    if (action)
        action();
}

std::shared_ptr<CDispatcher> CInstance::Dispatcher() const
{
    const std::lock_guard<std::mutex> lock(stateLock);
    return dispatcher;
}

std::unique_ptr<PipeThread> CInstance::TakeThread()
{
    const std::lock_guard<std::mutex> lock(stateLock);
    return std::move(thread);
}

} // namespace zuIPCPipe
