// The client's side of the messages between dispatchers: ask for an instance, end the peer's dispatcher. Any thread;
// one exchange at a time.
#include "GevTLBase/IPCPipe/Dispatcher.h"

#include "GevTLBase/IPCPipe/IPCException.h"
#include "GevTLBase/IPCPipe/Instance.h"
#include "logging/log.h"

#include <algorithm>
#include <utility>

#include <boost/chrono/system_clocks.hpp>

namespace zuIPCPipe {

namespace {

/// How long a wait for an answer goes without a look at whether the dispatcher still runs.
constexpr boost::chrono::milliseconds answerStep(250);

} // namespace

// Sends a message to the peer's dispatcher and waits for its acknowledge, known by flags and running number. The caller
// holds `requestLock` and returns the answer to the pool.
std::shared_ptr<instance_msg> CDispatcher::Exchange(instance_msg& message, std::uint32_t timeout)
{
    MsgHeader& header = message.header();
    header.seq = ++requestSeq;
    WriteCmd(message, kNoIndex);

    const auto deadline = boost::chrono::steady_clock::now() + boost::chrono::milliseconds(timeout);
    std::shared_ptr<instance_msg> answer;
    boost::unique_lock<boost::mutex> lock(dispAckMutex);
    for (;;) {
        if (dispAckPending.exchange(false)) {
            answer = std::move(dispAckMsg);
            dispAckMsg.reset();
            if (answer && answer->header().flags == (header.flags | kMsgAck) && answer->header().seq == header.seq)
                return answer;
            ReturnMsg(answer);
        } else if (running == 0 || boost::chrono::steady_clock::now() >= deadline) {
            ZU_LOG(log, zuLogging::log_err, "Wait for Ack failed");
            throw IPCTimeoutException("Wait for Ack failed");
        } else {
            dispAckCond.wait_until(lock, std::min(deadline, boost::chrono::steady_clock::now() + answerStep));
        }
    }
}

std::shared_ptr<IMsgSrc> CDispatcher::Connect(std::uint32_t timeout)
{
    const boost::lock_guard<boost::mutex> request(requestLock);
    std::shared_ptr<InstanceInfo> info;
    const std::uint64_t index = AddInstance(info);
    std::shared_ptr<CInstance> instance;
    try {
        instance = CInstance::Make(shared_from_this(), index);
        AddBuffers(3);
        instance_msg message;
        message.header().flags = kMsgDispatcher | kMsgConnect;
        message.header().index = static_cast<std::uint32_t>(index);
        std::shared_ptr<instance_msg> answer = Exchange(message, timeout);
        info->remoteIndex = answer->header().index;
        ReturnMsg(answer);
    } catch (...) {
        // The peer's number is not known: nothing may be sent to it.
        if (instance)
            instance->Release();
        else
            ReleaseInstance(index);
        throw;
    }
    instance->Start();
    return instance;
}

bool CDispatcher::Terminate(std::uint32_t timeout)
{
    bool answered = false;
    try {
        const boost::lock_guard<boost::mutex> request(requestLock);
        instance_msg message;
        message.header().flags = kMsgDispatcher | kMsgTerminate;
        std::shared_ptr<instance_msg> answer = Exchange(message, timeout);
        ReturnMsg(answer);
        answered = true;
    } catch (const std::exception&) {
        // This side ends nevertheless.
    }
    Shutdown();
    return answered;
}

} // namespace zuIPCPipe
