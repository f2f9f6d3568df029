// An instance's own thread: reads commands, calls the handler, acknowledges, and ends the instance when the peer does.
// It holds a share in the instance while a message is handled; while it waits the destructor waits for it.
#include "GevTLBase/IPCPipe/Instance.h"

#include "logging/log.h"

#include <utility>

namespace zuIPCPipe {

namespace {

/// The instance whose thread this is; null once it was destroyed on this very thread.
thread_local const CInstance* ownInstance = nullptr;

} // namespace

void CInstance::LeaveOwnThread()
{
    if (ownInstance == this)
        ownInstance = nullptr;
}

void CInstance::ThreadProc()
{
    ownInstance = this;
    const zuLogging::logstate threadLog = log;
    ZU_LOG(threadLog, zuLogging::log_info, "zuIPCPipe::CInstance::ThreadProc " << static_cast<const void*>(this));
    // Outside of the handlers below: what they say comes before an end of the instance that leaving here brings about.
    std::shared_ptr<CDispatcher> source = Dispatcher();
    std::shared_ptr<IMsgSrc> self;
    try {
        std::shared_ptr<instance_msg> message;
        while (source && running != 0) {
            if (!source->ReadCmd(message, index)) {
                source->ReturnMsg(message);
                continue;
            }
            self = weak_from_this().lock();
            if (running == 0)
                break;
            const std::uint32_t flags = message->header().flags;
            if ((flags & kMsgControl) != 0) {
                if ((flags & kMsgTerminate) != 0) {
                    Terminated(*source, message);
                    return;
                }
                // Stays out of the pool.
                message.reset();
            } else {
                HandleCommand(*source, message);
            }
            // Nobody waits for a thread that has been let go, so it must not meet the instance without a share in it.
            if (running == 0)
                break;
            self.reset();
            if (ownInstance != this)
                break;
        }
    } catch (const boost::thread_interrupted&) {
        ZU_LOG(threadLog, zuLogging::log_warn, "Instance Thread caught boost::thread interrupted");
    } catch (const std::exception& e) {
        ZU_LOG(threadLog, zuLogging::log_warn, "Instance Thread caught std::excepton: " << e.what());
    }
    ZU_LOG(threadLog, zuLogging::log_info, "Instance Thread terminated");
}

void CInstance::HandleCommand(CDispatcher& source, std::shared_ptr<instance_msg>& message)
{
    std::size_t replyLength = message->sendLength - kMsgHeaderSize;
    Deliver(*message, replyLength);
    if ((message->header().flags & kMsgNoAck) == 0) {
        message->SetPayloadSize(replyLength);
        message->header().flags |= kMsgAck;
        try {
            source.WriteAck(*message, index);
        } catch (const std::exception& e) {
            ZU_LOG(log, zuLogging::log_err, "Failure sending WriteAck: " << e.what());
        }
    }
    source.ReturnMsg(message);
}

void CInstance::Deliver(instance_msg& message, std::size_t& replyLength)
{
    try {
        msgSignal(message.payload(), message.buffer.size() - kMsgHeaderSize, replyLength,
                  [this, commandSeq = message.header().seq](unsigned int ms) { ExtendTimeout(commandSeq, ms); });
    } catch (const std::exception& e) {
        ZU_LOG(log, zuLogging::log_err, "Deliver caused exception: " << e.what());
    }
}

// The peer has ended the connection.
void CInstance::Terminated(CDispatcher& source, std::shared_ptr<instance_msg>& message)
{
    disconnected = true;
    const std::shared_ptr<IMsgSrc> self = shared_from_this();
    FireDisconnect();
    message->header().flags |= kMsgAck;
    message->SetPayloadSize(0);
    source.WriteAck(*message, index);
    source.ReturnMsg(message);
    ClearDisconnectHandler();
    ClearMsgHandler();
    Release();
}

} // namespace zuIPCPipe
