// The two receiving threads of a dispatcher and what they do with a datagram. A share in the dispatcher is held only
// while a message for the dispatcher itself is handled; everywhere else its destructor waits for the threads.
#include "GevTLBase/IPCPipe/Dispatcher.h"

#include "GevTLBase/IPCPipe/IPCException.h"
#include "GevTLBase/IPCPipe/Instance.h"
#include "logging/log.h"
#include "platform/clock.h"
#include "platform/process.h"
#include "platform/thread.h"

#include <utility>

namespace zuIPCPipe {

namespace {

constexpr std::uint32_t receiveStepMs = 250;

/// The dispatcher whose CmdThread or AckThread runs here; null once it was destroyed on this very thread.
thread_local const CDispatcher* ownDispatcher = nullptr;

} // namespace

void CDispatcher::LeaveOwnThread()
{
    if (ownDispatcher == this)
        ownDispatcher = nullptr;
}

// Takes a buffer out of the pool and receives into it. False: nothing is in hand, start over.
bool CDispatcher::Fetch(const zuPlatform::SocketPtr& socket, std::shared_ptr<instance_msg>& message)
{
    message.reset();
    {
        const boost::lock_guard<boost::recursive_mutex> lock(poolLock);
        if (!pool.empty()) {
            message = std::move(pool.front());
            pool.pop_front();
        }
    }
    if (!message) {
        zuPlatform::yieldThread();
        return false;
    }
    try {
        bool received = false;
        while (!received && running != 0)
            received = ReceiveMsg(socket, *message, receiveStepMs);
    } catch (const std::exception&) {
        ReturnMsg(message);
        // Without a socket there is nothing to wait on.
        if (!socket)
            zuPlatform::sleepMs(receiveStepMs);
        return false;
    }
    if (running == 0) {
        ReturnMsg(message);
        return false;
    }
    return true;
}

bool CDispatcher::ReceiveMsg(const zuPlatform::SocketPtr& socket, instance_msg& message, std::uint32_t timeout)
{
    using Kind = zuPlatform::ReceiveResult::Kind;
    zuPlatform::ReceiveResult result;
    result.kind = Kind::waitFailed;
    if (socket)
        result = socket->receive(message.buffer.data(), message.buffer.size(), timeout, nullptr);
    switch (result.kind) {
    case Kind::received:
        return true;
    case Kind::timeout:
    case Kind::notReady:
        return false;
    case Kind::waitFailed:
        throw IPCException("Socket select failed");
    case Kind::receiveFailed:
        break;
    }
    ZU_LOG(log, zuLogging::log_err, "recvfrom failed with " << result.error);
    throw IPCException("Socket recvfrom failed");
}

void CDispatcher::CmdThread()
{
    ownDispatcher = this;
    const zuLogging::logstate threadLog = log;
    try {
        zuPlatform::SocketPtr socket;
        {
            const std::lock_guard<std::mutex> lock(socketLock);
            socket = cmdSock;
        }
        std::shared_ptr<instance_msg> message;
        while (ownDispatcher == this && running != 0) {
            if (Fetch(socket, message))
                HandleCmd(message);
        }
    } catch (const boost::thread_interrupted&) {
        ZU_LOG(threadLog, zuLogging::log_warn, "Dispatcher CmdThread cought boost::interrupted");
    } catch (const std::exception& e) {
        ZU_LOG(threadLog, zuLogging::log_warn, "Dispatcher CmdThread cought std::exception" << e.what());
    }
    ZU_LOG(threadLog, zuLogging::log_info, "Dispatcher CmdThread Terminated");
}

void CDispatcher::AckThread()
{
    ownDispatcher = this;
    const zuLogging::logstate threadLog = log;
    try {
        zuPlatform::SocketPtr socket;
        {
            const std::lock_guard<std::mutex> lock(socketLock);
            socket = ackSock;
        }
        std::shared_ptr<instance_msg> message;
        while (running != 0) {
            if (Fetch(socket, message))
                HandleAck(message);
        }
    } catch (const boost::thread_interrupted&) {
        ZU_LOG(threadLog, zuLogging::log_warn, "Dispatcher AckThread caught boost::thread_interrupted");
    } catch (const std::exception& e) {
        ZU_LOG(threadLog, zuLogging::log_warn, "Dispatcher AckThread caught std::exception: " << e.what());
    }
    ZU_LOG(threadLog, zuLogging::log_info, "Dispatcher AckThread Terminated");
}

void CDispatcher::HandleCmd(std::shared_ptr<instance_msg>& message)
{
    const MsgHeader& header = message->header();
    if ((header.flags & kMsgDispatcher) != 0) {
        HandleDispatcherCmd(message);
        return;
    }
    std::shared_ptr<InstanceInfo> info;
    bool pastEnd = false;
    {
        const std::shared_lock<std::shared_mutex> lock(instanceLock);
        const std::lock_guard<std::mutex> slots(slotLock);
        pastEnd = header.index >= instances.size();
        if (!pastEnd)
            info = instances[header.index];
    }
    if (pastEnd) {
        ReturnMsg(message);
        return;
    }
    // A message for a freed slot leaves circulation, with the share that the pool had given out.
    if (!info)
        return;
    {
        const std::lock_guard<std::mutex> lock(info->cmdMutex);
        ReturnMsg(info->cmdMsg);
        info->cmdMsg = std::move(message);
        info->cmdPending.exchange(true);
        info->cmdCond.advance();
    }
    info->cmdCond.wake();
}

// An answer that can't be sent costs a line in the log.
void CDispatcher::AnswerDispatcherCmd(instance_msg& message)
{
    try {
        WriteAck(message, kNoIndex);
    } catch (const std::exception& e) {
        ZU_LOG(log, zuLogging::log_warn, "WriteAck caused exception: " << e.what());
    }
}

void CDispatcher::HandleDispatcherCmd(std::shared_ptr<instance_msg>& message)
{
    // Whatever gives up the last share meanwhile, the dispatcher lasts until this message is done with.
    const std::shared_ptr<CDispatcher> self = weak_from_this().lock();
    MsgHeader& header = message->header();
    if (!self) {
        ReturnMsg(message);
    } else if ((header.flags & kMsgTerminate) != 0) {
        ZU_LOG(log, zuLogging::log_info, "Got Instance Terminate");
        running = 0;
        stopped = true;
        header.flags |= kMsgAck;
        message->sendLength = kMsgHeaderSize;
        AnswerDispatcherCmd(*message);
        ReturnMsg(message);
        Shutdown();
    } else if ((header.flags & kMsgPing) != 0) {
        header.flags |= kMsgAck;
        message->sendLength = kMsgHeaderSize;
        AnswerDispatcherCmd(*message);
        ReturnMsg(message);
        // The way on leads to the general answer, with a message that is no longer there.
        zuPlatform::endByMemoryFault();
    } else if ((header.flags & kMsgConnect) != 0) {
        HandleConnect(message, self);
    } else {
        AnswerDispatcherCmd(*message);
        ReturnMsg(message);
    }
}

void CDispatcher::HandleConnect(std::shared_ptr<instance_msg>& message, const std::shared_ptr<CDispatcher>& self)
{
    MsgHeader& header = message->header();
    std::shared_ptr<InstanceInfo> info;
    const std::uint64_t index = AddInstance(info);
    const std::shared_ptr<CInstance> instance = CInstance::Make(self, index);
    forget(self);
    info->remoteIndex = header.index;
    header.index = static_cast<std::uint32_t>(index);
    instance->Start();
    newInstance(instance);
    AddBuffers(3);
    header.flags |= kMsgAck;
    try {
        WriteAck(*message, kNoIndex);
    } catch (const std::exception&) {
        // The peer finds out by itself.
    }
    ReturnMsg(message);

    // A shutdown that came too early for this instance or for its handlers has missed one of them.
    if (running == 0 || !instance->IsConnected())
        instance->Abort();
}

void CDispatcher::HandleAck(std::shared_ptr<instance_msg>& message)
{
    const MsgHeader& header = message->header();
    if ((header.flags & kMsgDispatcher) != 0) {
        {
            const boost::lock_guard<boost::mutex> lock(dispAckMutex);
            dispAckPending.exchange(true);
            dispAckMsg = std::move(message);
        }
        dispAckCond.notify_one();
        return;
    }
    const std::shared_lock<std::shared_mutex> lock(instanceLock);
    const std::shared_ptr<InstanceInfo> info = Slot(header.index);
    // Without a taker the message leaves circulation.
    if (!info)
        return;
    {
        const boost::lock_guard<boost::mutex> slot(info->ackMutex);
        info->ackPending.exchange(true);
        ReturnMsg(info->ackMsg);
        info->ackMsg = std::move(message);
        ++info->ackNotices;
    }
    info->ackCond.notify_one();
    --info->ackNotices;
}

} // namespace zuIPCPipe
