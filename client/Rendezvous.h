// How a connection finds its daemon: the process's shared client manager, and the question whether a daemon is alive.
// Any thread.
#pragma once

#include "GevTLBase/IPCPipe/Instance.h"
#include "GevTLBase/IPCPipe/Mgr.h"
#include "client/GevClient.h"

#include <cstdint>
#include <future>
#include <memory>

namespace zuGevClient {

/// One end of the pipe, and what it must not outlive.
struct Attachment {
    std::shared_ptr<zuIPCPipe::CMgr> manager; ///< its end would end the source, so it goes last
    std::shared_ptr<zuIPCPipe::CInstance> source;
    std::uint16_t daemonPort = 0; ///< network byte order, as published at the time
    std::future<void> parted;     ///< ready once the source has said goodbye; none without `listen`
};

/// Connects to the daemon, through the manager that other connections use if it knows the daemon of today. Throws
/// NoDaemonError.
Attachment attach();

/// Sets the handler of the daemon's messages, once.
void listen(Attachment& attachment, zuIPCPipe::IMsgSrc::MsgHandler handler);

/// Disconnects, which takes up to 800 ms. Several threads may do so at once, but each waits for an `attach` and
/// `attach` for them: the daemon drops its end of a dispatcher with the last connection over it, and a new connection
/// over the same dispatcher must not begin meanwhile. Not for the pipe's own threads: a message in its handler is
/// waited for.
void detach(Attachment& attachment) noexcept;

/// The port that a daemon has published, dead or alive; 0 if there is none. Network byte order.
std::uint16_t publishedPort();

/// Whether there is a daemon at this port (network byte order). One that lives and doesn't answer is waited for, up to
/// a minute.
bool daemonLives(std::uint16_t port);

/// Whether no socket of this machine has this port (network byte order), so that no daemon can be there. Takes no time.
bool portIsFree(std::uint16_t port);

/// Whether a daemon's manager answers at this port (network byte order) within `wait`. It leaves no trace there.
bool daemonAnswers(std::uint16_t port, Milliseconds wait);

} // namespace zuGevClient
