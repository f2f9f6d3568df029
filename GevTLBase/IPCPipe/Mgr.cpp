// What both roles of the manager share: the socket, the dispatchers, and the thread that notices dead peer processes.
#include "GevTLBase/IPCPipe/Mgr.h"

#include "GevTLBase/IPCPipe/IPCException.h"
#include "GevTLBase/IPCPipe/SharedObjectView.h"
#include "GevTLBase/IPCPipe/ThreadEnd.h"
#include "platform/process.h"
#include "platform/thread.h"

#include <algorithm>
#include <exception>
#include <utility>

#include <boost/chrono/duration.hpp>

namespace zuIPCPipe {

namespace {

constexpr std::uint32_t requestTimeoutMs = 300;
constexpr unsigned maxLateAnswers = 64;
constexpr boost::chrono::seconds monitorPeriod(2);

} // namespace

CMgr::CMgr(ServerRole) : log(zuLogging::make_numbered_logstate("IPCMGR"))
{
    OpenSocket();
    link->manager = this;
}

CMgr::CMgr() : CMgr(ServerRole()) { OpenSharedObject(); }

void CMgr::OpenSocket()
{
    sock = zuPlatform::DatagramSocket::open();
    if (sock)
        static_cast<void>(sock->setNonBlocking());
    addr = zuPlatform::loopbackAt(0);
    if (!sock || sock->bind(addr) != 0)
        throw IPCException("Socket bind failed");
    if (sock->getLocalAddress(addr) != 0)
        throw IPCException("getsockname failed");
}

void CMgr::OpenSharedObject()
{
    int error = 0;
    mapping = zuPlatform::SharedMemory::open(objectName, zuPlatform::SharedMemory::Access::readOnly, error);
    if (mapping && mapping->size() >= sizeof(SharedObject))
        shared = static_cast<SharedObject*>(mapping->map(kSharedObjectSize));
    if (!shared)
        throw IPCException("Unable to create shared object");
    serverPort = LoadPort(*shared);
}

CMgr::~CMgr()
{
    const boost::this_thread::disable_interruption noInterruption;
    {
        const std::lock_guard<std::mutex> lock(link->mutex);
        link->manager = nullptr;
    }
    try {
        CMgr::Stop();
    } catch (...) {
        // A disconnect handler that fails has nobody left to tell.
    }
    {
        // Under the lock, so that the thread is not between its look at the flag and its wait.
        const boost::lock_guard<boost::recursive_mutex> lock(monitorLock);
        monitorRun = 0;
    }
    monitorCond.notify_all();
    EndThread(std::move(monitorThread));
    if (sock)
        sock->close();
    if (mapping)
        mapping->unmap();
}

bool CMgr::IsServer() { return isServer; }

SharedObject* CMgr::GetSharedObject() { return shared; }

void CMgr::Stop()
{
    boost::upgrade_lock<boost::shared_mutex> lock(dispatcherLock);
    std::exception_ptr failure;
    for (const std::weak_ptr<CDispatcher>& entry : dispatchers) {
        const std::shared_ptr<CDispatcher> dispatcher = entry.lock();
        if (!dispatcher)
            continue;
        try {
            dispatcher->Shutdown();
        } catch (...) {
            if (!failure)
                failure = std::current_exception();
        }
    }
    std::list<std::shared_ptr<CDispatcher>> forgotten;
    {
        const std::lock_guard<std::mutex> guard(pendingLock);
        forgotten.swap(pending);
    }
    forgotten.clear();
    {
        const boost::upgrade_to_unique_lock<boost::shared_mutex> exclusive(lock);
        dispatchers.clear();
    }
    if (failure)
        std::rethrow_exception(failure);
}

void CMgr::GetDispatcher(std::shared_ptr<CDispatcher>& dispatcher, std::uint32_t pid)
{
    const boost::unique_lock<boost::shared_mutex> lock(dispatcherLock);
    if (!IsServer()) {
        for (const std::weak_ptr<CDispatcher>& entry : dispatchers) {
            std::shared_ptr<CDispatcher> candidate = entry.lock();
            if (candidate && (pid == 0 || candidate->Pid() == pid) &&
                candidate->SlotCount() < candidate->MaxInstances()) {
                dispatcher = std::move(candidate);
                return;
            }
        }
    }
    const CDispatcher::Callback forget = Bind(&CMgr::ForgetDispatcher);
    const CDispatcher::Callback keep = Bind(&CMgr::KeepDispatcher);
    if (IsServer()) {
        dispatcher = CDispatcher::Make(keep, forget, onConnect, pid);
    } else {
        std::shared_ptr<CDispatcher> made = CDispatcher::Make(keep, forget, pid);
        AnnounceDispatcher(made);
        dispatcher = std::move(made);
    }
    const auto free = std::find_if(dispatchers.begin(), dispatchers.end(),
                                   [](const std::weak_ptr<CDispatcher>& entry) { return entry.expired(); });
    if (free != dispatchers.end())
        *free = dispatcher;
    else
        dispatchers.push_back(dispatcher);
}

bool CMgr::ReceiveRequest(const zuPlatform::SocketPtr& socket, MgrDatagram* datagram, std::uint32_t timeout,
                          zuPlatform::SocketAddress& from)
{
    using Kind = zuPlatform::ReceiveResult::Kind;
    const zuPlatform::ReceiveResult result = socket->receive(datagram, sizeof *datagram, timeout, &from);
    switch (result.kind) {
    case Kind::timeout:
    case Kind::notReady:
        return false;
    case Kind::waitFailed:
        throw IPCException("Socket select error");
    case Kind::receiveFailed:
        throw IPCException("Socket recvfrom failed");
    case Kind::received:
        break;
    }
    return result.count != 0;
}

void CMgr::Request(MgrDatagram* datagram)
{
    const boost::lock_guard<boost::recursive_mutex> lock(requestLock);
    // An answer that came too late for an earlier request is not the answer to this one.
    zuPlatform::SocketAddress from;
    MgrDatagram late{};
    using Kind = zuPlatform::ReceiveResult::Kind;
    for (unsigned drained = 0; drained < maxLateAnswers; ++drained) {
        const Kind kind = sock->receive(&late, sizeof late, 0, &from).kind;
        if (kind == Kind::timeout || kind == Kind::notReady || kind == Kind::waitFailed)
            break;
    }
    if (sock->sendTo(datagram, sizeof *datagram, zuPlatform::loopbackAt(serverPort)).count < 0)
        throw IPCTimeoutException("Socket sendto failed");
    if (!ReceiveRequest(sock, datagram, requestTimeoutMs, from))
        throw IPCException("Socket recv failed");
}

void CMgr::AnnounceDispatcher(std::shared_ptr<CDispatcher>& dispatcher)
{
    if (IsServer())
        throw IPCException("Announce dispatcher called while running server");
    MgrDatagram datagram{};
    datagram.status = kMgrRequest;
    datagram.pid = zuPlatform::currentProcessId();
    datagram.cmdPort = dispatcher->CmdPort();
    datagram.ackPort = dispatcher->AckPort();
    Request(&datagram);
    dispatcher->SetRemotePorts(std::uint16_t{datagram.rmtCmdPort}, std::uint16_t{datagram.rmtAckPort});
    dispatcher->SetPid(zuPlatform::currentProcessId());
}

CDispatcher::Callback CMgr::Bind(void (CMgr::*operation)(std::shared_ptr<CDispatcher>))
{
    return [way = link, operation](std::shared_ptr<CDispatcher> dispatcher) {
        const std::lock_guard<std::mutex> lock(way->mutex);
        if (way->manager)
            (way->manager->*operation)(std::move(dispatcher));
    };
}

void CMgr::AppendPending(std::shared_ptr<CDispatcher> dispatcher)
{
    const std::lock_guard<std::mutex> lock(pendingLock);
    pending.push_back(std::move(dispatcher));
}

void CMgr::ForgetDispatcher(std::shared_ptr<CDispatcher> dispatcher)
{
    const std::lock_guard<std::mutex> lock(pendingLock);
    const auto entry = std::find(pending.begin(), pending.end(), dispatcher);
    if (entry != pending.end())
        pending.erase(entry); // not the last share: the caller has one
}

void CMgr::KeepDispatcher(std::shared_ptr<CDispatcher> dispatcher)
{
    const std::lock_guard<std::mutex> lock(pendingLock);
    if (std::find(pending.begin(), pending.end(), dispatcher) == pending.end())
        pending.push_back(std::move(dispatcher));
}

void CMgr::StartMonitor()
{
    monitorRun = 1;
    monitorThread = std::make_unique<boost::thread>([this] { MonitorThread(); });
}

// The only means of noticing a client that died without saying goodbye.
void CMgr::MonitorThread()
{
    zuPlatform::nameCurrentThread("zu-monitor");
    try {
        boost::unique_lock<boost::recursive_mutex> lock(monitorLock);
        while (monitorRun != 0) {
            monitorCond.wait_for(lock, monitorPeriod);
            if (monitorRun == 0)
                break;
            const boost::shared_lock<boost::shared_mutex> guard(dispatcherLock);
            for (const std::weak_ptr<CDispatcher>& entry : dispatchers) {
                try {
                    const std::shared_ptr<CDispatcher> dispatcher = entry.lock();
                    if (dispatcher && !zuPlatform::processExists(dispatcher->Pid()))
                        dispatcher->Shutdown();
                } catch (const std::exception&) {
                    // The others are looked at all the same.
                }
            }
        }
    } catch (const boost::thread_interrupted&) {
    } catch (const std::exception&) {
    }
}

} // namespace zuIPCPipe
