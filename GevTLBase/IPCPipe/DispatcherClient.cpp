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

// Gives the message a number of its own and sends it. The caller holds `requestLock`.
void CDispatcher::SendRequest(instance_msg& message)
{
    message.header().seq = ++requestSeq;
    WriteCmd(message, kNoIndex);
}

// Waits for the peer's answer to `message`, known by flags and number; the caller returns it to the pool.
std::shared_ptr<instance_msg> CDispatcher::AwaitAnswer(const instance_msg& message, std::uint32_t timeout)
{
    const MsgHeader& header = message.header();
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

// The peer's dispatcher goes with its last instance, so a request and the end of the last connection must not cross:
// either the request is on its way first, and its instance keeps the peer's dispatcher, or there is none.
bool CDispatcher::Enter(instance_msg& message)
{
    const std::lock_guard<std::mutex> lock(clientLock);
    if (maxInstances == 0 || running == 0)
        return false;
    SendRequest(message);
    ++connections;
    return true;
}

void CDispatcher::Leave()
{
    const std::lock_guard<std::mutex> lock(clientLock);
    if (--connections == 0)
        maxInstances = 0;
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
        if (!Enter(message)) {
            instance->Release();
            return nullptr;
        }
        instance->SetEntered();
        std::shared_ptr<instance_msg> answer = AwaitAnswer(message, timeout);
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
        SendRequest(message);
        std::shared_ptr<instance_msg> answer = AwaitAnswer(message, timeout);
        ReturnMsg(answer);
        answered = true;
    } catch (const std::exception&) {
        // This side ends nevertheless.
    }
    Shutdown();
    return answered;
}

} // namespace zuIPCPipe
