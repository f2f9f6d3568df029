// The pipe's front door, client role: finds the server through the shared object, announces dispatchers to it, and
// keeps track of those made here. The base of the server role too.
//
// Locks, outermost first: `monitorLock`, `dispatcherLock`, then those of the dispatchers. `requestLock` may be taken
// under `dispatcherLock`.
#pragma once

#include "GevTLBase/IPCPipe/Dispatcher.h"
#include "GevTLBase/IPCPipe/Formats.h"
#include "logging/logstate.h"
#include "platform/shared_memory.h"
#include "platform/socket.h"

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/thread/condition_variable.hpp>
#include <boost/thread/recursive_mutex.hpp>
#include <boost/thread/shared_mutex.hpp>
#include <boost/thread/thread.hpp>

namespace zuTest {
struct MgrProbe;
}

namespace zuIPCPipe {

class CMgr : public std::enable_shared_from_this<CMgr> {
public:
    /// Client role. Throws `IPCException` "Unable to create shared object" if no server has made one, and if there is
    /// no socket. A server that isn't ready, or is gone, is found out by announcing.
    CMgr();
    virtual ~CMgr();
    CMgr(const CMgr&) = delete;
    CMgr& operator=(const CMgr&) = delete;

    virtual bool IsServer();
    virtual SharedObject* GetSharedObject();

    /// Shuts all dispatchers down and forgets them. Waits for their instances' threads. A thread that is in a callback
    /// of the manager's goes on, and ends by itself.
    virtual void Stop();

    /// Client role: the first live dispatcher of the process `pid` (0: of any) that has room, or else a new one, which
    /// is announced to the server. Server role: always a new one, for the peer process `pid`. Throws as the
    /// constructor of a dispatcher and `AnnounceDispatcher` do.
    virtual void GetDispatcher(std::shared_ptr<CDispatcher>& dispatcher, std::uint32_t pid);

    /// Waits up to `timeout` milliseconds for 16 bytes; a shorter datagram leaves the rest of the buffer as it was.
    /// False if nothing, or an empty datagram, came. `from` is written when a datagram was read.
    virtual bool ReceiveRequest(const zuPlatform::SocketPtr& socket, MgrDatagram* datagram, std::uint32_t timeout,
                                zuPlatform::SocketAddress& from);

    /// Client role: one exchange with the server, in place; 300 ms, no retry. Throws `IPCTimeoutException` "Socket
    /// sendto failed", `IPCException` "Socket recv failed".
    virtual void Request(MgrDatagram* datagram);

    /// Client role: tells the server of a dispatcher and takes the server's ports over into it.
    virtual void AnnounceDispatcher(std::shared_ptr<CDispatcher>& dispatcher);

    /// What each dispatcher calls, for as long as the manager lives: removes the first matching entry from the list of
    /// those without an instance; appends it to that list unless present.
    void ForgetDispatcher(std::shared_ptr<CDispatcher> dispatcher);
    void KeepDispatcher(std::shared_ptr<CDispatcher> dispatcher);

protected:
    friend struct zuTest::MgrProbe;

    struct ServerRole {
        explicit ServerRole() = default;
    };
    explicit CMgr(ServerRole); ///< socket only; the server makes the shared object itself

    void StartMonitor();
    void AppendPending(std::shared_ptr<CDispatcher> dispatcher);

    zuLogging::logstate log;
    SharedObject* shared = nullptr; ///< the view; a client's is read only
    const std::string objectName = kSharedObjectName;
    bool isServer = false;
    boost::shared_mutex dispatcherLock; ///< guards `dispatchers`
    std::vector<std::weak_ptr<CDispatcher>> dispatchers;
    /// Announced, and without an instance yet; until then this is their only owner. Outside of `dispatcherLock`.
    std::list<std::shared_ptr<CDispatcher>> pending;
    mutable std::mutex pendingLock; ///< guards `pending`; no dispatcher is destroyed under it
    CDispatcher::NewInstance onConnect;
    std::unique_ptr<zuPlatform::SharedMemory> mapping;
    zuPlatform::SocketAddress addr; ///< the manager socket's own
    zuPlatform::SocketPtr sock;
    boost::recursive_mutex monitorLock; ///< held by `MonitorThread` around its wait and its pass
    boost::condition_variable_any monitorCond;
    boost::recursive_mutex requestLock; ///< serialises `Request`
    std::uint16_t serverPort = 0;       ///< network byte order
    std::atomic<std::uint64_t> monitorRun{0};
    std::unique_ptr<boost::thread> monitorThread;

private:
    /// What a dispatcher's bound functions hold: the way to the manager while it lives. No share in it, since the
    /// server's thread makes dispatchers before the manager has an owner.
    struct Link {
        std::mutex mutex; ///< guards `manager`, and is held across a call to it; `pendingLock` comes inside
        CMgr* manager = nullptr;
    };

    void OpenSocket();
    void OpenSharedObject();
    CDispatcher::Callback Bind(void (CMgr::*operation)(std::shared_ptr<CDispatcher>));
    void MonitorThread();

    const std::shared_ptr<Link> link = std::make_shared<Link>();
};

} // namespace zuIPCPipe
