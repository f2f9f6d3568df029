// The library's view of tagged messages: requests it fills, replies it reads. Belongs to one thread at a time.
#pragma once

#include "GevTLBase/IPCPipe/Formats.h"
#include "GevTLBase/IPCPipe/GevSvrTag.h"
#include "GevTLBase/IPCPipe/TagMsg.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace zuGevClient {

using Message = zuIPCPipe::CTagMsg<zuIPCPipe::TGevSvrTag>;
using Tag = zuIPCPipe::TGevSvrTag;
using Command = zuIPCPipe::TGevSvrCmd;

/// A command under construction.
class Request {
public:
    explicit Request(Command command) : command_(command) { message_.SetCommand(command); }

    template <typename TValue>
    Request& add(Tag tag, TValue value)
    {
        message_.AddBinary(tag, &value, sizeof value);
        return *this;
    }
    Request& add(Tag tag, const void* data, std::size_t size)
    {
        message_.AddBinary(tag, data, size);
        return *this;
    }

    Command command() const { return command_; }
    Message& message() { return message_; }

private:
    Command command_;
    Message message_;
};

/// Room for one reply. The pipe does not tell a reply's length: whatever lies behind its terminator is not looked at.
class Reply {
public:
    Reply() : bytes_(zuIPCPipe::TagLayout::storage) {}

    void* data() { return bytes_.data(); }
    static constexpr std::size_t room() { return zuIPCPipe::kMsgPayloadSize; }

    /// Forgets what was received.
    void reset() { bytes_.assign(bytes_.size(), 0); }

    std::uint32_t command()
    {
        auto received = message();
        return received.Command();
    }

    /// The value, if the entry is there and exactly as wide as TValue. Some tags travel narrower than their class says,
    /// so the entry's own length counts.
    template <typename TValue>
    std::optional<TValue> find(Tag tag)
    {
        auto received = message();
        const auto* const entry = received.FindTag(tag);
        if (entry == nullptr || entryLength(entry) != sizeof(TValue) + zuIPCPipe::TagLayout::entryValue)
            return std::nullopt;
        TValue value;
        std::memcpy(&value, Message::Value(entry), sizeof value);
        return value;
    }

    /// Copies the memory contents if they are there and exactly `size` bytes.
    bool copyMemory(void* destination, std::size_t size)
    {
        auto received = message();
        std::size_t length = size;
        const auto* const entry = received.FindTag(zuIPCPipe::TagMemData);
        if (entry == nullptr || Message::ValueLength(entry) != size)
            return false;
        return received.GetBinary(zuIPCPipe::TagMemData, destination, length);
    }

private:
    Message message() { return Message(bytes_.data(), room(), room()); }

    static std::uint64_t entryLength(const std::uint8_t* entry)
    {
        std::uint64_t length;
        std::memcpy(&length, entry, sizeof length);
        return length;
    }

    std::vector<std::uint8_t> bytes_;
};

} // namespace zuGevClient
