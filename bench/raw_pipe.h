// The smallest process that speaks the daemon's pipe: one thread, two sockets, blocking calls.
#pragma once

#include "bench/bare.h"

#include "GevTLBase/IPCPipe/GevSvrTag.h"
#include "GevTLBase/IPCPipe/TagMsg.h"

#include <cstdint>

namespace zuBench {

/// Manager port of the running daemon, host order; throws std::runtime_error if there is no daemon.
std::uint16_t daemonPort();

/// One connection to whoever answers announces at `managerPort`.
class RawPipe {
public:
    using Message = zuIPCPipe::CTagMsg<zuIPCPipe::TGevSvrTag>;

    explicit RawPipe(std::uint16_t managerPort); ///< announce and connect
    ~RawPipe();                                  ///< disconnect, without waiting for the answer

    /// Sends the message and takes the reply over it.
    void exchange(Message& message);
    /// Binds nothing, sets the destination and links with control.
    void link(std::uint16_t cameraPort);
    void unlink();
    void readReg(std::uint32_t address);
    /// One CmdReadMem.
    void readMem(std::uint32_t address, std::uint32_t length);
    void disconnect(); ///< and waits for the answer

private:
    void sendCommand(std::uint32_t flags, std::size_t payload);

    Udp command_, acknowledge_;
    std::uint16_t remoteCommand_ = 0, remoteAcknowledge_ = 0;
    std::uint32_t remoteIndex_ = 0, sequence_ = 0;
    unsigned char buffer_[2048 + 64] = {};
    bool connected_ = false;
};

/// Answers announces, connects and commands on the same datagrams as the daemon, doing nothing: the floor of a connect.
[[noreturn]] void runPipeEcho(Udp& manager);

} // namespace zuBench
