// A client's end of the pipe without the pipe: hands commands to the instance's handlers and answers what it is sent.
#pragma once

#include "GevTLBase/IPCPipe/GevSvrTag.h"
#include "GevTLBase/IPCPipe/IMsgSrc.h"
#include "GevTLBase/IPCPipe/TagMsg.h"
#include "src/DevInst.h"

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <optional>
#include <vector>

namespace zuTest {

using namespace zuIPCPipe;
using Message = CTagMsg<TGevSvrTag>;
using Bytes = std::vector<std::uint8_t>;

/// A message under construction, and bytes that a test expects.
class Build {
public:
    explicit Build(std::uint32_t command) : message(std::make_shared<Message>()) { message->SetCommand(command); }
    template <typename T>
    Build& add(TGevSvrTag tag, T value)
    {
        message->AddBinary(tag, &value, sizeof value);
        return *this;
    }
    Build& bytes(TGevSvrTag tag, const Bytes& value)
    {
        message->AddBinary(tag, value.data(), value.size());
        return *this;
    }
    Build& u8(TGevSvrTag tag, std::uint8_t v) { return add(tag, v); }
    Build& u16(TGevSvrTag tag, std::uint16_t v) { return add(tag, v); }
    Build& u32(TGevSvrTag tag, std::uint32_t v) { return add(tag, v); }
    Build& u64(TGevSvrTag tag, std::uint64_t v) { return add(tag, v); }
    Bytes done() const { return {message->Data(), message->Data() + message->UsedLength()}; }

private:
    std::shared_ptr<Message> message;
};

class ScriptedClient : public IMsgSrc {
public:
    /// Answers an event; empty: the exception of a wait that ended without an answer.
    std::function<std::optional<Bytes>(std::uint32_t event)> onEvent;

    void Send(void* data, std::size_t length, void* reply, std::size_t& replyLength, std::uint32_t timeout) override
    {
        std::function<std::optional<Bytes>(std::uint32_t)> answer;
        {
            const std::lock_guard lock(mutex);
            const auto* bytes = static_cast<const std::uint8_t*>(data);
            sent.emplace_back(bytes, bytes + length);
            timeouts.push_back(timeout);
            answer = onEvent;
        }
        changed.notify_all();
        if (!answer)
            return;
        std::uint32_t event = 0;
        std::memcpy(&event, data, sizeof event);
        const auto content = answer(event);
        if (!content)
            throw std::runtime_error("Wait for Ack failed");
        replyLength = std::min(replyLength, content->size());
        std::memcpy(reply, content->data(), replyLength);
    }
    bool Post(void*, std::size_t) override { return true; }
    bool Ping() override { return false; }
    void ExtendTimeout(std::uint32_t seq, std::uint32_t timeout) override
    {
        const std::lock_guard lock(mutex);
        extensions.emplace_back(seq, timeout);
    }
    void SetMsgHandler(MsgHandler handler) override { msgHandler = std::move(handler); }
    void ClearMsgHandler() override { msgHandler = nullptr; }
    void SetDisconnectHandler(DisconnectHandler handler) override { disconnectHandler = std::move(handler); }
    void ClearDisconnectHandler() override { disconnectHandler = nullptr; }
    void Disconnect() override {}
    bool IsConnected() override { return true; }

    bool waitForEvents(std::size_t count)
    {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(30), [&] { return sent.size() >= count; });
    }

    /// Runs a command through the instance's handler, as the pipe does, and returns what the reply length covers; empty
    /// if the handler left the length alone.
    Bytes command(const Build& request)
    {
        const Bytes bytes = request.done();
        constexpr std::size_t capacity = 2024;
        constexpr std::size_t untouched = 777;
        Bytes storage(TagLayout::storage, 0);
        std::copy_n(bytes.begin(), std::min(bytes.size(), capacity), storage.begin());
        std::size_t length = untouched;
        msgHandler(storage.data(), capacity, length, [](unsigned) {});
        if (length == untouched)
            return {};
        storage.resize(length);
        return storage;
    }

    MsgHandler msgHandler;
    DisconnectHandler disconnectHandler;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Bytes> sent;
    std::vector<std::uint32_t> timeouts;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> extensions;
};

} // namespace zuTest
