// Finds the daemon. All connections of a process share one manager, until the daemon has been started anew.
#include "client/Rendezvous.h"

#include "GevTLBase/IPCPipe/ClientConnect.h"
#include "GevTLBase/IPCPipe/Formats.h"
#include "GevTLBase/IPCPipe/IPCException.h"
#include "GevTLBase/IPCPipe/SharedObjectView.h"
#include "platform/clock.h"
#include "platform/process.h"
#include "platform/shared_memory.h"
#include "platform/socket.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <system_error>

namespace zuGevClient {

namespace {

constexpr std::uint32_t connectTimeoutMs = 3000;
constexpr Milliseconds liveWait{1500};
/// The daemon's manager answers nobody while it gives back the cameras of a client that died: docs/operations.md has
/// how long that can take.
constexpr Milliseconds busyWait{60000};
constexpr std::uint32_t echoStepMs = 250;
/// An announce is not repeated by the pipe, and a loaded machine may need more than its 300 ms.
constexpr int announceAttempts = 3;

/// A status that the daemon neither acts on nor changes: such a datagram comes back as it was.
constexpr std::uint32_t echoStatus = 0x7A75;

struct Shared {
    std::shared_mutex mutex; ///< exclusive: one connection comes, and the two below; shared: connections go
    std::weak_ptr<zuIPCPipe::CMgr> manager; ///< owned by the connections, so that nothing is left to a process's end
    std::uint16_t port = 0;                 ///< network byte order; the daemon that the manager knows
};

Shared& shared()
{
    static Shared& instance = *new Shared; // never destroyed: connections may be made while the process ends
    return instance;
}

} // namespace

std::uint16_t publishedPort()
{
    using zuPlatform::SharedMemory;
    int error = 0;
    const auto object = SharedMemory::open(zuIPCPipe::kSharedObjectName, SharedMemory::Access::readOnly, error);
    if (!object || object->size() < sizeof(zuIPCPipe::SharedObject))
        return 0;
    const auto* const view = static_cast<const zuIPCPipe::SharedObject*>(object->map(zuIPCPipe::kSharedObjectSize));
    return view != nullptr ? zuIPCPipe::LoadPort(*view) : 0;
}

bool daemonAnswers(std::uint16_t port, Milliseconds wait)
{
    if (port == 0)
        return false;
    const auto socket = zuPlatform::DatagramSocket::open();
    if (!socket || socket->bind(zuPlatform::loopbackAt(0)) != 0)
        return false;
    zuIPCPipe::MgrDatagram question{};
    question.status = echoStatus;
    question.pid = zuPlatform::currentProcessId();
    const std::uint64_t deadline =
        zuPlatform::steadyNanoseconds() + static_cast<std::uint64_t>(std::max<std::int64_t>(wait.count(), 0)) * 1000000;
    for (;;) {
        if (socket->sendTo(&question, sizeof question, zuPlatform::loopbackAt(port)).count != sizeof question)
            return false;
        const std::uint64_t now = zuPlatform::steadyNanoseconds();
        const std::uint64_t left = now < deadline ? (deadline - now) / 1000000 : 0;
        zuIPCPipe::MgrDatagram answer{};
        zuPlatform::SocketAddress from;
        const auto result = socket->receive(
            &answer, sizeof answer, static_cast<std::uint32_t>(std::min<std::uint64_t>(left, echoStepMs)), &from);
        if (result.kind == zuPlatform::ReceiveResult::Kind::received && result.count == sizeof answer &&
            from == zuPlatform::loopbackAt(port) && std::memcmp(&answer, &question, sizeof answer) == 0)
            return true;
        if (left == 0)
            return false;
    }
}

namespace {

/// Whether some socket of this machine has the port: a dead daemon's is free.
bool isTaken(std::uint16_t port)
{
    const auto socket = zuPlatform::DatagramSocket::open();
    return socket && socket->bind(zuPlatform::loopbackAt(port)) == static_cast<int>(std::errc::address_in_use);
}

} // namespace

bool portIsFree(std::uint16_t port)
{
    const auto socket = zuPlatform::DatagramSocket::open();
    return socket && socket->bind(zuPlatform::loopbackAt(port)) == 0;
}

bool daemonLives(std::uint16_t port)
{
    const std::uint64_t deadline =
        zuPlatform::steadyNanoseconds() + static_cast<std::uint64_t>(busyWait.count()) * 1000000;
    // In steps, so that the end of a daemon that was busy is seen.
    for (;;) {
        if (daemonAnswers(port, liveWait))
            return true;
        if (!isTaken(port) || zuPlatform::steadyNanoseconds() >= deadline)
            return false;
    }
}

Attachment attach()
{
    Shared& process = shared();
    const std::lock_guard<std::shared_mutex> guard(process.mutex);
    const std::uint16_t port = publishedPort();
    if (port == 0)
        throw NoDaemonError("No daemon is running on this machine (it has published no port)");
    if (!daemonLives(port))
        throw NoDaemonError("No daemon is running on this machine (nothing answers at the published port " +
                            std::to_string(zuPlatform::networkToHost16(port)) + ")");
    std::string reason;
    for (int attempt = 0; attempt < announceAttempts && (attempt == 0 || daemonLives(port)); ++attempt) {
        Attachment attachment;
        try {
            attachment.manager = process.manager.lock();
            if (!attachment.manager || process.port != port) {
                attachment.manager = zuIPCPipe::MakeClientManager();
                process.manager = attachment.manager;
                process.port = port;
            }
            attachment.source = zuIPCPipe::Connect(*attachment.manager, connectTimeoutMs);
            attachment.daemonPort = port;
            return attachment;
        } catch (const zuIPCPipe::IPCException& failure) {
            reason = failure.what();
        }
    }
    throw NoDaemonError("The daemon is there, but takes no connection: " + reason);
}

void listen(Attachment& attachment, zuIPCPipe::IMsgSrc::MsgHandler handler)
{
    // The source keeps the handler until its destructor has disconnected, and the promise goes with the handler.
    auto end = std::make_shared<std::promise<void>>();
    attachment.parted = end->get_future();
    attachment.source->SetMsgHandler(
        [kept = std::move(end), call = std::move(handler)](void* data, std::size_t capacity, std::size_t& length,
                                                           boost::function<void(unsigned int)> extend) {
            call(data, capacity, length, std::move(extend));
        });
}

void detach(Attachment& attachment) noexcept
{
    const std::shared_lock<std::shared_mutex> guard(shared().mutex);
    // The destructor of the source is what disconnects: an explicit call besides would release its slot twice.
    attachment.source.reset();
    // While a message is handled the pipe's thread has a share in the source, and the end of the manager would come
    // before the goodbye.
    if (attachment.parted.valid())
        attachment.parted.wait();
    attachment.manager.reset();
}

} // namespace zuGevClient
