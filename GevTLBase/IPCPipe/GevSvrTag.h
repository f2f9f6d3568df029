// The vocabulary of clients and daemon: command numbers and the tags of message entries.
#pragma once

#include <cstdint>

namespace zuIPCPipe {

/// Tags. Bits 0x07800000 give the value's width class (1, 2, 4 or 8 bytes, none of them: any length), bits 0x70000000
/// its kind (string or binary); the low bits are the running number.
enum TGevSvrTag : std::uint32_t {
    TagLocalIp = 0x02000000,          ///< control socket's IP address, host order
    TagLocalPort = 0x01000001,        ///< control socket's UDP port, host order
    TagDestIp = 0x02000002,           ///< camera's IP address, host order
    TagDestPort = 0x01000003,         ///< camera's UDP port, host order
    TagLinkMode = 0x02000004,         ///< argument of `CGevControl::Link`
    TagAddress = 0x04000005,          ///< device address
    TagLinkState = 0x02000007,        ///< result of `HasCcp`; written with 1 byte
    TagMemData = 0x40000008,          ///< memory contents
    TagRegValue = 0x02000009,         ///< register value
    TagSuccess = 0x0080000A,          ///< non-zero is success; also the answer to an event
    TagLength = 0x0400000B,           ///< byte count; 4 bytes in the reply to `CmdReadReg`
    TagSwapBytes = 0x0080000C,        ///< swap argument of register accesses
    TagAckTimeout = 0x0200000D,       ///< milliseconds of one GVCP try; 1 byte in a reply
    TagRetries = 0x0200000E,          ///< GVCP retries; 1 byte in a reply
    TagStatus = 0x0200000F,           ///< 0, or the code of the failure
    TagHeartbeatTimeout = 0x02000010, ///< milliseconds, the camera's register
    TagHeartbeatMargin = 0x02000011,  ///< milliseconds between that and the daemon's own period
};

/// Command words. A reply carries the same word with `replyFlag`.
enum TGevSvrCmd : std::uint32_t {
    CmdLink = 1,
    CmdReadMem = 2,
    CmdWriteMem = 3,
    CmdUnlink = 4,
    CmdReadReg = 7,
    CmdWriteReg = 8,
    CmdBindSocket = 9,
    CmdSetDestination = 10,
    CmdGetLocalAddress = 11,
    CmdCheckLink = 12,
    CmdSetAckTimeout = 13,
    CmdGetAckTimeout = 14,
    CmdSetRetries = 15,
    CmdGetRetries = 16,
    EvtConnectionLost = 18, ///< daemon to client, like the next and `EvtReconnected`
    EvtCcpLost = 19,
    CmdLinkShutdown = 20,
    CmdSetHeartbeat = 21,
    CmdGetHeartbeat = 22,
    EvtReconnected = 23,
};

inline constexpr std::uint32_t replyFlag = 0x80000000;

/// Bytes of the largest step that the daemon cuts a `CmdReadMem` or `CmdWriteMem` into. It costs two camera commands.
inline constexpr std::uint64_t memoryStep = 0x240;

} // namespace zuIPCPipe
