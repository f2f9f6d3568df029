// What instances call on their dispatcher: slots, buffers, and the four operations by which messages come and go. Any
// thread.
#include "GevTLBase/IPCPipe/Dispatcher.h"

#include "GevTLBase/IPCPipe/IPCException.h"
#include "logging/log.h"
#include "platform/clock.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include <boost/chrono/system_clocks.hpp>

namespace zuIPCPipe {

namespace {

constexpr std::uint32_t readCmdStepMs = 300;
constexpr std::uint32_t sendRetryPauseMs = 2;

} // namespace

std::size_t CDispatcher::SlotCount() const
{
    const std::lock_guard<std::mutex> slots(slotLock);
    return instances.size();
}

std::shared_ptr<CDispatcher::InstanceInfo> CDispatcher::Slot(std::uint64_t index) const
{
    const std::lock_guard<std::mutex> slots(slotLock);
    return index < instances.size() ? instances[index] : nullptr;
}

std::uint64_t CDispatcher::AddInstance(std::shared_ptr<InstanceInfo>& info)
{
    info = std::make_shared<InstanceInfo>();
    const std::unique_lock<std::shared_mutex> lock(instanceLock);
    const std::lock_guard<std::mutex> slots(slotLock);
    const auto free = std::find(instances.begin(), instances.end(), nullptr);
    const auto index = static_cast<std::uint64_t>(free - instances.begin());
    if (free != instances.end())
        *free = info;
    else
        instances.push_back(info);
    ++instanceCount;
    return index;
}

void CDispatcher::ReleaseInstance(std::uint64_t index)
{
    std::shared_ptr<InstanceInfo> info;
    {
        const std::shared_lock<std::shared_mutex> lock(instanceLock);
        const std::lock_guard<std::mutex> slots(slotLock);
        if (index < instances.size())
            info.swap(instances[index]);
        --instanceCount;
    }
    const boost::lock_guard<boost::recursive_mutex> lock(poolLock);
    while (pool.size() > 4 * instanceCount.load())
        pool.pop_front();
}

void CDispatcher::ConnectAbort(std::uint64_t index, boost::function<void()> abort)
{
    const std::shared_lock<std::shared_mutex> lock(instanceLock);
    if (index != kNoIndex && index >= SlotCount())
        throw IPCException("Invalid instance index");
    if (const std::shared_ptr<InstanceInfo> info = Slot(index))
        info->abortSignal.connect(std::move(abort));
}

void CDispatcher::AbortInstance(std::uint64_t index, const std::shared_ptr<InstanceInfo>& own)
{
    const std::unique_lock<std::shared_mutex> lock(instanceLock);
    if (index >= SlotCount())
        throw IPCException("Invalid instance index");
    if (!own || Slot(index) != own)
        return;
    // Under the mutexes, so that nobody is between its last look and its wait.
    {
        const std::lock_guard<std::mutex> cmd(own->cmdMutex);
        const boost::lock_guard<boost::mutex> ack(own->ackMutex);
        own->aborted = 1;
    }
    own->cmdCond.notify_all();
    own->ackCond.notify_one();
}

void CDispatcher::WriteCmd(instance_msg& message, std::uint64_t index)
{
    if (index != kNoIndex) {
        const std::shared_lock<std::shared_mutex> lock(instanceLock);
        const std::lock_guard<std::mutex> slots(slotLock);
        if (index >= instances.size() || !instances[index])
            throw IPCException("Invalid instance vector id");
        InstanceInfo& info = *instances[index];
        message.header().index = static_cast<std::uint32_t>(info.remoteIndex);
        // A late acknowledge of an earlier command is not the answer to this one.
        info.ackPending.exchange(false);
    }
    SendFrom(message, rmtCmdAddr);
}

void CDispatcher::WriteAck(instance_msg& message, std::uint64_t index)
{
    if (index != kNoIndex) {
        const std::shared_lock<std::shared_mutex> lock(instanceLock);
        const std::lock_guard<std::mutex> slots(slotLock);
        if (index >= instances.size() || !instances[index])
            throw IPCException("Invalid instance index");
        message.header().index = static_cast<std::uint32_t>(instances[index]->remoteIndex);
    }
    SendFrom(message, rmtAckAddr);
}

void CDispatcher::SendFrom(instance_msg& message, const zuPlatform::SocketAddress& to)
{
    zuPlatform::SocketPtr socket;
    {
        const std::lock_guard<std::mutex> lock(socketLock);
        socket = ackSock;
    }
    const std::size_t size = std::min<std::size_t>(message.sendLength, message.buffer.size());
    std::uint64_t retries = 0;
    for (;;) {
        zuPlatform::SendResult result{-1, static_cast<int>(std::errc::bad_file_descriptor)};
        if (socket)
            result = socket->sendTo(message.buffer.data(), size, to);
        if (result.count >= 0)
            return;
        ZU_LOG(log, zuLogging::log_warn, "sendto returned error " << result.error);
        if (result.error != zuPlatform::wouldBlockError || retries > sendRetries)
            throw IPCSocketException("Socket sendto failed");
        ++retries;
        zuPlatform::sleepMs(sendRetryPauseMs);
    }
}

bool CDispatcher::ReadCmd(std::shared_ptr<instance_msg>& message, std::uint64_t index)
{
    std::shared_ptr<InstanceInfo> info;
    {
        const std::shared_lock<std::shared_mutex> lock(instanceLock);
        const std::lock_guard<std::mutex> slots(slotLock);
        if (index > instances.size() - 1)
            throw IPCException("Instance vector invalid index id");
        if (index < instances.size())
            info = instances[index];
    }
    // No command ever comes to an empty place.
    if (!info) {
        zuPlatform::sleepMs(readCmdStepMs);
        return false;
    }
    // Read in one step with the look at the slot: whatever comes after it ends the wait.
    std::uint32_t seen = 0;
    const auto take = [&] {
        const std::lock_guard<std::mutex> lock(info->cmdMutex);
        seen = info->cmdCond.count();
        if (!info->cmdPending.exchange(false))
            return false;
        message = std::move(info->cmdMsg);
        info->cmdMsg.reset();
        return message != nullptr;
    };
    if (take())
        return true;
    constexpr std::uint64_t nsPerMs = 1000000;
    if (!info->cmdCond.waitUntil(seen, zuPlatform::steadyNanoseconds() + readCmdStepMs * nsPerMs))
        return false;
    if (info->aborted != 0)
        return false;
    if (take())
        return true;
    throw IPCAbortException("Timeout waiting for command");
}

bool CDispatcher::ReadAck(std::shared_ptr<instance_msg>& message, std::uint32_t timeout, std::uint64_t index)
{
    std::shared_ptr<InstanceInfo> info;
    {
        const std::unique_lock<std::shared_mutex> lock(instanceLock);
        if (index >= SlotCount()) {
            ZU_LOG(log, zuLogging::log_warn, "Invalid Index;");
            throw IPCException("Invalid ReadAck id");
        }
        info = Slot(index);
    }
    if (!info) {
        ZU_LOG(log, zuLogging::log_warn, "Invalid Instance");
        throw IPCException("Invalid Instance");
    }
    boost::unique_lock<boost::mutex> lock(info->ackMutex);
    const auto take = [&] {
        if (!info->ackPending.exchange(false))
            return false;
        message = std::move(info->ackMsg);
        info->ackMsg.reset();
        return message != nullptr;
    };
    if (take())
        return true;
    // The wake-up of an abort that came before this wait is over.
    if (info->aborted != 0)
        return false;
    const auto deadline = boost::chrono::steady_clock::now() + boost::chrono::milliseconds(timeout);
    unsigned belated = info->ackNotices;
    for (;;) {
        if (info->ackCond.wait_until(lock, deadline) == boost::cv_status::timeout)
            return false;
        if (take())
            return true;
        if (info->aborted != 0)
            return false;
        if (belated == 0) {
            ZU_LOG(log, zuLogging::log_warn, "Ack Timeout");
            throw IPCAbortException("Ack timeout");
        }
        --belated;
    }
}

void CDispatcher::ReturnMsg(std::shared_ptr<instance_msg>& message)
{
    if (!message)
        return;
    const boost::lock_guard<boost::recursive_mutex> lock(poolLock);
    pool.push_back(std::move(message));
    message.reset();
}

void CDispatcher::AddBuffers(unsigned count)
{
    for (unsigned i = 0; i < count; ++i) {
        auto message = std::make_shared<instance_msg>();
        ReturnMsg(message);
    }
}

} // namespace zuIPCPipe
