// The manager in the daemon's role: publishes its port in the shared object, answers announces with one dispatcher
// each, and watches the processes behind them. One per machine.
#pragma once

#include "GevTLBase/IPCPipe/Mgr.h"

#include <atomic>
#include <memory>

namespace zuIPCPipe {

class CMgrServer : public CMgr {
public:
    /// Starts serving. `callback` is called for each new instance, on a thread of its dispatcher. Throws `IPCException`
    /// "Unable to create shared object", "Socket bind failed", "getsockname failed". An object that can't be mapped
    /// ends the process.
    explicit CMgrServer(CDispatcher::NewInstance callback);

    /// Waits for both threads and for those of all instances.
    ~CMgrServer() override;

    /// An announce is turned into its reply; a datagram of another status is left as it is.
    virtual void HandleRequest(MgrDatagram* datagram);
    virtual void HandleAnnounce(MgrDatagram* datagram);

private:
    void CreateSharedObject();
    void ServerThread();

    std::atomic<std::uint64_t> serverRun{0};
    PipeThread::Keeper threadsKept;
    std::unique_ptr<boost::thread> serverThread;
};

} // namespace zuIPCPipe
