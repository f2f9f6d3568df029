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
    place = dispatcher->Slot(index);
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

void CInstance::TakeReply(CDispatcher& peer, void* reply, std::size_t& replyLength, std::uint32_t timeout)
{
    extended = false;
    std::uint32_t wait = timeout;
    for (;;) {
        std::shared_ptr<instance_msg> answer;
        if (!peer.ReadAck(answer, wait, index)) {
            ZU_LOG(log, zuLogging::log_err, "Wait for Ack failed");
            throw IPCTimeoutException("Wait for Ack failed");
        }
        if ((answer->header().flags & kMsgExtend) != 0) {
            extended = true;
            wait = answer->header().timeout;
            peer.ReturnMsg(answer);
        } else if ((answer->header().flags & kMsgAck) != 0) {
            if (reply) {
                replyLength = std::min(replyLength, kMsgPayloadSize);
                std::memcpy(reply, answer->payload(), replyLength);
            }
            peer.ReturnMsg(answer);
            return;
        }
    }
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

    std::uint32_t wait = flagsTimeoutMs;
    for (;;) {
        std::shared_ptr<instance_msg> answer;
        if (!peer->ReadAck(answer, wait, index)) {
            ZU_LOG(log, zuLogging::log_err, "Wait for Ack failed");
            throw IPCTimeoutException("Wait for Ack failed");
        }
        if ((answer->header().flags & kMsgExtend) != 0) {
            // Not the answer's: whatever ends this wait must be there already.
            wait = message.header().timeout;
            peer->ReturnMsg(answer);
        } else if ((answer->header().flags & kMsgAck) != 0) {
            peer->ReturnMsg(answer);
            return;
        }
    }
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

void CInstance::SetMsgHandler(MsgHandler handler) { Keep(msgConnection, msgSignal.connect(std::move(handler))); }

void CInstance::ClearMsgHandler() { Cut(msgConnection); }

void CInstance::SetDisconnectHandler(DisconnectHandler handler)
{
    Keep(disconnectConnection, disconnectSignal.connect(std::move(handler)));
}

void CInstance::ClearDisconnectHandler() { Cut(disconnectConnection); }

// What stood there before stays connected.
void CInstance::Keep(boost::signals2::connection& kept, boost::signals2::connection connection)
{
    const std::lock_guard<std::mutex> lock(stateLock);
    kept.swap(connection);
}

void CInstance::Cut(const boost::signals2::connection& kept)
{
    boost::signals2::connection connection;
    {
        const std::lock_guard<std::mutex> lock(stateLock);
        connection = kept;
    }
    connection.disconnect();
}

bool CInstance::IsConnected() { return !disconnected; }

void CInstance::Disconnect()
{
    ZU_LOG(log, zuLogging::log_info, "zuIPCPipe::CInstance::Disconnect " << static_cast<const void*>(this));
    LeaveDispatcher();
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
    LeaveDispatcher();
    FireDisconnect();
    disconnected = true;
    running = 0;
    if (const std::shared_ptr<CDispatcher> peer = Dispatcher())
        peer->AbortInstance(index, place.lock());
    EndThread(TakeThread());
    bool toRelease = false;
    const std::shared_ptr<CDispatcher> peer = TakeDispatcher(toRelease);
    if (toRelease)
        peer->ReleaseInstance(index);
    FireDisconnect(); // for a handler that came meanwhile
}

void CInstance::Release()
{
    LeaveDispatcher();
    FireDisconnect();
    disconnected = true;
    running = 0;
    bool toRelease = false;
    const std::shared_ptr<CDispatcher> peer = TakeDispatcher(toRelease);
    if (toRelease)
        peer->ReleaseInstance(index);
    TakeThread().reset();
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
    const std::shared_ptr<CDispatcher::InstanceInfo> info = place.lock();
    if (!info)
        return;
    {
        const std::lock_guard<std::mutex> lock(info->cmdMutex);
        info->aborted = 1;
    }
    info->cmdCond.notify_all();
}

void CInstance::LeaveDispatcher()
{
    if (!entered.exchange(false))
        return;
    if (const std::shared_ptr<CDispatcher> own = Dispatcher())
        own->Leave();
}

std::shared_ptr<CDispatcher> CInstance::Dispatcher() const
{
    const std::lock_guard<std::mutex> lock(stateLock);
    return dispatcher;
}

// Of several threads that end the instance at once one gives the slot back: a second time it may be another's.
std::shared_ptr<CDispatcher> CInstance::TakeDispatcher(bool& toRelease)
{
    const std::lock_guard<std::mutex> lock(stateLock);
    toRelease = dispatcher && !released;
    return std::move(dispatcher);
}

std::unique_ptr<PipeThread> CInstance::TakeThread()
{
    const std::lock_guard<std::mutex> lock(stateLock);
    return std::move(thread);
}

} // namespace zuIPCPipe
