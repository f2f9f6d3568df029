// What two processes of the pipe agree on byte by byte: the shared object, the announce datagram and the header of
// every message. Host byte order, except for ports, which are the raw bytes of an address structure, in network byte
// order.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zuIPCPipe {

/// Name and size of the object through which clients find the server's port.
inline constexpr char kSharedObjectName[] = "Global\\zuGevSvc";
inline constexpr std::size_t kSharedObjectSize = 2048;

inline constexpr std::uint32_t kSharedMarker = 1;
inline constexpr std::uint32_t kSharedHeaderSize = 16;

#pragma pack(push, 1)

/// The start of the shared object; the rest of it is never written.
struct SharedObject {
    std::uint32_t marker;     ///< kSharedMarker
    std::uint32_t headerSize; ///< kSharedHeaderSize
    std::uint16_t port;       ///< the manager socket's port; 0 until the server has bound it
    std::uint16_t reserved;   ///< never written
    std::uint32_t reserved2;  ///< 0
};

/// What the manager sockets exchange: a client's announce, and the same bytes with the last two ports as the reply.
struct MgrDatagram {
    std::uint32_t status;     ///< 0 in a request, kMgrReply in a reply
    std::uint32_t pid;        ///< the client's process id
    std::uint16_t cmdPort;    ///< the client dispatcher's command receive port
    std::uint16_t ackPort;    ///< the client dispatcher's acknowledge receive port
    std::uint16_t rmtCmdPort; ///< the server dispatcher's command receive port; 0 in a request
    std::uint16_t rmtAckPort; ///< the server dispatcher's acknowledge receive port; 0 in a request
};

/// Stands at the start of every datagram between two dispatchers. The payload follows.
struct MsgHeader {
    std::uint64_t headerSize; ///< kMsgHeaderSize, whatever the payload
    std::uint32_t seq;        ///< the sender's running number from 1; 0 in flag messages; kept in acknowledges
    std::uint32_t flags;      ///< kMsg...
    std::uint32_t timeout;    ///< with kMsgExtend the new wait in milliseconds, otherwise 0
    std::uint32_t index;      ///< the instance's index at the receiver
};

#pragma pack(pop)

inline constexpr std::uint32_t kMgrRequest = 0;
inline constexpr std::uint32_t kMgrReply = 10000;

inline constexpr std::uint32_t kMsgNoAck = 0x01;       ///< the receiver sends no acknowledge
inline constexpr std::uint32_t kMsgConnect = 0x02;     ///< make an instance
inline constexpr std::uint32_t kMsgControl = 0x08;     ///< for the instance's thread, not for its message handler
inline constexpr std::uint32_t kMsgTerminate = 0x10;   ///< end the instance, or with kMsgDispatcher the dispatcher
inline constexpr std::uint32_t kMsgAck = 0x20;         ///< this is an acknowledge
inline constexpr std::uint32_t kMsgExtend = 0x40;      ///< wait longer for the acknowledge
inline constexpr std::uint32_t kMsgPing = 0x80;        ///< ping
inline constexpr std::uint32_t kMsgDispatcher = 0x100; ///< for the dispatcher; `index` does not route it

inline constexpr std::size_t kMsgBufferSize = 2048;
inline constexpr std::size_t kMsgHeaderSize = 24;
inline constexpr std::size_t kMsgPayloadSize = kMsgBufferSize - kMsgHeaderSize;

static_assert(sizeof(SharedObject) == kSharedHeaderSize);
static_assert(offsetof(SharedObject, port) == 8 && offsetof(SharedObject, reserved2) == 12);
static_assert(sizeof(MgrDatagram) == 16);
static_assert(offsetof(MgrDatagram, cmdPort) == 8 && offsetof(MgrDatagram, rmtAckPort) == 14);
static_assert(sizeof(MsgHeader) == kMsgHeaderSize);
static_assert(offsetof(MsgHeader, seq) == 8 && offsetof(MsgHeader, flags) == 12);
static_assert(offsetof(MsgHeader, timeout) == 16 && offsetof(MsgHeader, index) == 20);

} // namespace zuIPCPipe
