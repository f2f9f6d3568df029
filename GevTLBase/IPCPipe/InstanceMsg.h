// The buffer that carries one datagram, in either direction. It belongs to one thread at a time: who takes it out of
// the pool or out of a slot owns it until it is handed on.
#pragma once

#include "GevTLBase/IPCPipe/Formats.h"
#include "GevTLBase/IPCPipe/TagMsg.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace zuIPCPipe {

class instance_msg {
public:
    /// All bytes zero, the header's size field set, send length that of the header alone.
    instance_msg();
    virtual ~instance_msg();
    instance_msg(const instance_msg&) = delete;
    instance_msg& operator=(const instance_msg&) = delete;

    /// Makes the next send take the header and `size` bytes. Throws `IPCException` "Buffer overflow" above 2024.
    void SetPayloadSize(std::size_t size);

    MsgHeader& header() { return *reinterpret_cast<MsgHeader*>(buffer.data()); }
    const MsgHeader& header() const { return *reinterpret_cast<const MsgHeader*>(buffer.data()); }
    std::uint8_t* payload() { return buffer.data() + kMsgHeaderSize; }
    const std::uint8_t* payload() const { return buffer.data() + kMsgHeaderSize; }

private:
    // A reply built over the payload may pass its end, and is then refused by `SetPayloadSize`.
    std::array<std::uint8_t, kMsgHeaderSize + TagLayout::storage> storage{};
    static_assert(kMsgHeaderSize + TagLayout::storage >= kMsgBufferSize);

public:
    /// A shorter datagram leaves the rest as it was. Behind it there is room for the longest reply that a tagged
    /// message over `payload()` can grow to.
    const std::span<std::uint8_t, kMsgBufferSize> buffer{storage.data(), kMsgBufferSize};
    std::uint64_t sendLength = kMsgHeaderSize; ///< a receive does not change it
};

} // namespace zuIPCPipe
