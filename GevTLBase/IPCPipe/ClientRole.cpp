// The client's side of the messages between dispatchers.
#include "GevTLBase/IPCPipe/ClientRole.h"

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

// Gives the message a number of its own and sends it. The caller holds `requestLock`.
void CClientRole::SendRequest(instance_msg& message)
{
    message.header().seq = ++requestSeq;
    dispatcher.WriteCmd(message, CDispatcher::kNoIndex);
}

// Waits for the peer's answer to `message`, known by flags and number; the caller returns it to the pool.
std::shared_ptr<instance_msg> CClientRole::AwaitAnswer(const instance_msg& message, std::uint32_t timeout)
{
    using Clock = boost::chrono::steady_clock;
    const MsgHeader& header = message.header();
    const auto deadline = Clock::now() + boost::chrono::milliseconds(timeout);
    std::shared_ptr<instance_msg> answer;
    boost::unique_lock<boost::mutex> lock(dispatcher.dispAckMutex);
    for (;;) {
        if (dispatcher.dispAckPending.exchange(false)) {
            answer = std::move(dispatcher.dispAckMsg);
            dispatcher.dispAckMsg.reset();
            if (answer && answer->header().flags == (header.flags | kMsgAck) && answer->header().seq == header.seq)
                return answer;
            dispatcher.ReturnMsg(answer);
        } else if (dispatcher.running == 0 || Clock::now() >= deadline) {
            ZU_LOG(dispatcher.log, zuLogging::log_err, "Wait for Ack failed");
            throw IPCTimeoutException("Wait for Ack failed");
        } else {
            dispatcher.dispAckCond.wait_until(lock, std::min(deadline, Clock::now() + answerStep));
        }
    }
}

// The peer's dispatcher goes with its last instance, so a request and the end of the last connection must not cross:
// either the request is on its way first, and its instance keeps the peer's dispatcher, or there is none.
bool CClientRole::Enter(instance_msg& message)
{
    const std::lock_guard<std::mutex> lock(countLock);
    if (dispatcher.maxInstances == 0 || dispatcher.running == 0)
        return false;
    SendRequest(message);
    ++connections;
    return true;
}

// One connection begins to end. With the last one the peer's dispatcher goes.
void CClientRole::Leave()
{
    const std::lock_guard<std::mutex> lock(countLock);
    if (--connections == 0)
        Retire();
}

void CClientRole::Retire() { dispatcher.maxInstances = 0; }

std::shared_ptr<CInstance> CClientRole::Connect(std::uint32_t timeout)
{
    const std::lock_guard<std::mutex> request(requestLock);
    const std::shared_ptr<CDispatcher> owner = dispatcher.shared_from_this();
    std::shared_ptr<CDispatcher::InstanceInfo> info;
    const std::uint64_t index = dispatcher.AddInstance(info);
    std::shared_ptr<CInstance> instance;
    try {
        instance = CInstance::Make(owner, index);
        dispatcher.AddBuffers(3);
        instance_msg message;
        message.header().flags = kMsgDispatcher | kMsgConnect;
        message.header().index = static_cast<std::uint32_t>(index);
        if (!Enter(message)) {
            instance->Release();
            return nullptr;
        }
        instance->CallAtEnd([owner, this] { Leave(); });
        std::shared_ptr<instance_msg> answer = AwaitAnswer(message, timeout);
        info->remoteIndex = answer->header().index;
        dispatcher.ReturnMsg(answer);
    } catch (...) {
        // The peer's number is not known: nothing may be sent to it.
        if (instance)
            instance->Release();
        else
            dispatcher.ReleaseInstance(index);
        throw;
    }
    instance->Start();
    return instance;
}

bool CClientRole::Terminate(std::uint32_t timeout)
{
    bool answered = false;
    try {
        const std::lock_guard<std::mutex> request(requestLock);
        instance_msg message;
        message.header().flags = kMsgDispatcher | kMsgTerminate;
        SendRequest(message);
        std::shared_ptr<instance_msg> answer = AwaitAnswer(message, timeout);
        dispatcher.ReturnMsg(answer);
        answered = true;
    } catch (const std::exception&) {
        // This side ends nevertheless.
    }
    dispatcher.Shutdown();
    return answered;
}

} // namespace zuIPCPipe
