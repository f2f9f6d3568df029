// The server role of the manager. HandleRequest and HandleAnnounce run on ServerThread.
#include "GevTLBase/IPCPipe/MgrServer.h"

#include "GevTLBase/IPCPipe/IPCException.h"
#include "GevTLBase/IPCPipe/SharedObjectView.h"
#include "GevTLBase/IPCPipe/ThreadEnd.h"
#include "logging/log.h"
#include "platform/process.h"
#include "platform/thread.h"

#include <utility>

namespace zuIPCPipe {

namespace {

constexpr std::uint32_t requestStepMs = 300;
constexpr std::uint64_t alivePasses = 32;

} // namespace

CMgrServer::CMgrServer(CDispatcher::NewInstance callback) : CMgr(ServerRole())
{
    isServer = true;
    onConnect = std::move(callback);
    CreateSharedObject();
    StorePort(*shared, addr.port);
    serverPort = addr.port;
    StartMonitor();
    serverRun = 1;
    serverThread = std::make_unique<boost::thread>([this] { ServerThread(); });
}

CMgrServer::~CMgrServer()
{
    const boost::this_thread::disable_interruption noInterruption;
    serverRun = 0;
    EndThread(std::move(serverThread));
}

// An object that an earlier server left is used again: clients may still hold it.
void CMgrServer::CreateSharedObject()
{
    using zuPlatform::SharedMemory;
    int error = 0;
    mapping = SharedMemory::open(objectName, SharedMemory::Access::readWrite, error);
    if (!mapping)
        mapping = SharedMemory::create(objectName, kSharedObjectSize, error);
    if (!mapping)
        throw IPCException("Unable to create shared object");
    shared = static_cast<SharedObject*>(mapping->map(kSharedObjectSize));
    if (!shared)
        zuPlatform::endByMemoryFault(); // a refused view goes unnoticed until the header is written to it
    WriteHeader(*shared);
}

void CMgrServer::ServerThread()
{
    zuPlatform::nameCurrentThread("zu-server");
    MgrDatagram datagram{};
    datagram.status = kMgrReply;
    zuPlatform::SocketAddress from;
    std::uint64_t passes = 0;
    try {
        while (serverRun != 0) {
            if (++passes % alivePasses == 0)
                ZU_LOG(log, zuLogging::log_info, "Server thread still alive");
            try {
                if (!ReceiveRequest(sock, &datagram, requestStepMs, from))
                    continue;
            } catch (const std::exception&) {
                // What stands in the buffer is handled as if it had just come.
            }
            HandleRequest(&datagram);
            if (sock->sendTo(&datagram, sizeof datagram, from).count < 0)
                throw IPCTimeoutException("Socket sendto failed");
        }
    } catch (const boost::thread_interrupted&) {
    } catch (const IPCTimeoutException&) {
    } catch (const std::exception&) {
    }
}

void CMgrServer::HandleRequest(MgrDatagram* datagram)
{
    if (datagram->status == kMgrRequest)
        HandleAnnounce(datagram);
}

void CMgrServer::HandleAnnounce(MgrDatagram* datagram)
{
    std::shared_ptr<CDispatcher> dispatcher;
    GetDispatcher(dispatcher, datagram->pid);
    AppendPending(dispatcher);
    dispatcher->SetRemotePorts(std::uint16_t{datagram->cmdPort}, std::uint16_t{datagram->ackPort});
    datagram->rmtCmdPort = dispatcher->CmdPort();
    datagram->rmtAckPort = dispatcher->AckPort();
    datagram->status = kMgrReply;
}

} // namespace zuIPCPipe
