// Making and ending a dispatcher: sockets, threads, shutdown. Runs on whichever thread makes, shuts down or releases
// it, which may be one of its own.
#include "GevTLBase/IPCPipe/Dispatcher.h"

#include "GevTLBase/IPCPipe/IPCException.h"
#include "GevTLBase/IPCPipe/ThreadEnd.h"
#include "logging/log.h"

#include <exception>
#include <utility>

namespace zuIPCPipe {

std::shared_ptr<CDispatcher> CDispatcher::Make(Callback keep, Callback forget, std::uint32_t pid)
{
    auto dispatcher = std::make_shared<CDispatcher>(Token(), std::move(keep), std::move(forget), pid);
    dispatcher->client = std::make_unique<CClientRole>(*dispatcher);
    dispatcher->Start();
    return dispatcher;
}

std::shared_ptr<CDispatcher> CDispatcher::Make(Callback keep, Callback forget, NewInstance callback, std::uint32_t pid)
{
    auto dispatcher = std::make_shared<CDispatcher>(Token(), std::move(keep), std::move(forget), pid);
    dispatcher->Start();
    dispatcher->newInstanceConnection = dispatcher->newInstance.connect(std::move(callback));
    return dispatcher;
}

CDispatcher::CDispatcher(Token, Callback keepFunction, Callback forgetFunction, std::uint32_t peerPid)
    : forget(std::move(forgetFunction)), keep(std::move(keepFunction)), pid(peerPid),
      log(zuLogging::make_numbered_logstate("IPCDIS"))
{
    ZU_LOG(log, zuLogging::log_info, "CTOR Dispatcher\n");
    OpenSockets();
    AddBuffers(2);
}

// The threads take shares in the dispatcher, so they start when it has an owner.
void CDispatcher::Start()
{
    running = 1;
    {
        const std::lock_guard<std::mutex> lock(threadLock);
        cmdThread = PipeThread::Start(PipeThread::Kind::commandReceiver, [this] { CmdThread(); });
        ackThread = PipeThread::Start(PipeThread::Kind::acknowledgeReceiver, [this] { AckThread(); });
    }
    stopped = false;
}

CDispatcher::~CDispatcher()
{
    const boost::this_thread::disable_interruption noInterruption;
    running = 0;
    try {
        Shutdown();
    } catch (...) {
        // A disconnect handler that fails has nobody left to tell.
    }
    EndThreads();
    LeaveOwnThread();
}

void CDispatcher::OpenSockets()
{
    const auto create = [this] {
        zuPlatform::SocketPtr socket = zuPlatform::DatagramSocket::open();
        if (!socket)
            ZU_LOG(log, zuLogging::log_warn, "Failure creating socket");
        if (!socket || socket->setNonBlocking() != 0)
            ZU_LOG(log, zuLogging::log_warn, "Unable to set socket to non blocking");
        return socket;
    };
    ackSock = create();
    cmdSock = create();

    zuPlatform::SocketAddress address;
    if (!ackSock || ackSock->bind(zuPlatform::loopbackAt(0)) != 0)
        throw IPCException("Socket bind failed");
    if (ackSock->getLocalAddress(address) != 0)
        throw IPCException("Socket getsockname failed");
    ackPort = address.port;

    // Failures of the second socket go unnoticed: the port then stays as it is.
    address = zuPlatform::loopbackAt(0);
    if (cmdSock) {
        static_cast<void>(cmdSock->bind(address));
        static_cast<void>(cmdSock->getLocalAddress(address));
    }
    cmdPort = address.port;
}

void CDispatcher::SetRemotePorts(const std::uint16_t& peerCmdPort, const std::uint16_t& peerAckPort)
{
    rmtAckAddr = zuPlatform::loopbackAt(peerAckPort);
    rmtCmdAddr = zuPlatform::loopbackAt(peerCmdPort);
}

void CDispatcher::Shutdown()
{
    // An instance that gives up its share below must not be the one to end the dispatcher under this walk.
    const std::shared_ptr<CDispatcher> self = weak_from_this().lock();
    running = 0;
    zuPlatform::SocketPtr ack;
    zuPlatform::SocketPtr cmd;
    {
        const std::lock_guard<std::mutex> lock(socketLock);
        ack.swap(ackSock);
        cmd.swap(cmdSock);
    }
    if (ack)
        ack->close();
    if (cmd)
        cmd->close();

    // A disconnect handler that fails takes nothing from the instances behind it.
    std::exception_ptr failure;
    for (std::size_t index = 0; index < SlotCount(); ++index) {
        const std::shared_ptr<InstanceInfo> info = Slot(index);
        if (!info)
            continue;
        try {
            info->abortSignal();
        } catch (...) {
            if (!failure)
                failure = std::current_exception();
        }
    }
    if (failure)
        std::rethrow_exception(failure);
}

void CDispatcher::EndThreads()
{
    std::unique_ptr<PipeThread> ack;
    std::unique_ptr<PipeThread> cmd;
    {
        const std::lock_guard<std::mutex> lock(threadLock);
        ack = std::move(ackThread);
        cmd = std::move(cmdThread);
    }
    EndThread(std::move(ack));
    EndThread(std::move(cmd));
}

} // namespace zuIPCPipe
