// Joins one client of the pipe to one camera link: carries out the client's commands, tells it of losses, and gives the
// camera back when the client goes.
#pragma once

#include "GevTLBase/IPCPipe/GevSvrTag.h"
#include "GevTLBase/IPCPipe/IMsgSrc.h"
#include "GevTLBase/IPCPipe/TagMsg.h"
#include "logging/logstate.h"
#include "src/SockControl.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <boost/function.hpp>
#include <boost/thread/mutex.hpp>

namespace zuTest {
struct DevInstProbe;
}

namespace zuGevDaemon {

/// Counts the calls that are inside an instance, so that it is not destroyed under them. A leaf lock.
class CallGate;

class CDevInst {
public:
    using Control = GEV::CGevControl<GEV::CSockConnection>;
    using Message = zuIPCPipe::CTagMsg<zuIPCPipe::TGevSvrTag>;
    using Callback = boost::function<void(CDevInst*)>;

    /// `onClientGone` is called once the client has gone and the camera is given back, `onDestroyed` from the
    /// destructor.
    CDevInst(std::shared_ptr<zuIPCPipe::IMsgSrc> client, Callback onClientGone, Callback onDestroyed);

    /// Waits for the calls that are still inside, unlinks, lets go of the client and calls `onDestroyed`; an empty one
    /// throws `boost::bad_function_call`. Whatever is thrown, all of it is done.
    virtual ~CDevInst() noexcept(false);
    CDevInst(const CDevInst&) = delete;
    CDevInst& operator=(const CDevInst&) = delete;

    /// Carries out the command at `data` and builds the reply over it. Runs on the client's own thread, one command at
    /// a time. `length` becomes the reply's length; a command without a reply leaves both alone. `extend` is not used:
    /// the client's wait is extended through `OnPendingAck`. `data` has room for `TagLayout::storage` bytes.
    virtual void OnMessage(void* data, std::uint64_t capacity, std::uint64_t& length,
                           std::function<void(unsigned)> extend);

    /// Gives the camera back, if it is held. Lets no `GevException` out.
    virtual void LinkShutdown();

    /// Makes the client wait for the device's `milliseconds` and half a second more.
    virtual void OnPendingAck(unsigned milliseconds, std::uint64_t messageId);

    /// The pipe's disconnect handler; any thread. Blocks until the command in flight has ended by its own rules, the
    /// heartbeat thread too, and the camera is given back.
    virtual void OnClientDisconnect();

    /// Each tells the client and waits up to one second for its consent; the heartbeat thread calls them. Throw
    /// `GevException` -10004 unless the client answers with success, and what `IMsgSrc::Send` throws.
    virtual void NotifyConnectionLost();
    virtual void NotifyCcpLost();
    virtual void NotifyReconnected();

    /// Text of the link's local address. Throws `std::runtime_error` if it can't be formatted.
    virtual std::string GetId();

    /// Shuts the instance to further calls, for its destruction; false, and nothing changed, while one is inside.
    bool TryRetire();

private:
    friend struct zuTest::DevInstProbe;

    struct Access;

    bool Perform(Message& message, Control& control);
    void DoLink(Message& message, Control& control);
    void DoReadReg(Message& message, Control& control);
    void DoWriteReg(Message& message, Control& control);
    void DoReadMem(Message& message, Control& control);
    void DoWriteMem(Message& message, Control& control);
    void DoGetLocalAddress(Message& message, Control& control);
    void DoCheckLink(Message& message, Control& control);
    void ReadMemory(Control& control, Access& access);
    void WriteMemory(Control& control, Access& access);
    void ReadTail(Control& control, Access& access);
    boost::function<void(std::uint32_t)> PendingAckFor(Message& message);
    bool IsClientGone();
    void RequireClient();
    void Notify(std::uint32_t event);
    std::shared_ptr<zuIPCPipe::IMsgSrc> Client();

    std::shared_ptr<Control> control;
    zuLogging::logstate log;
    std::shared_ptr<zuIPCPipe::IMsgSrc> client;
    Callback onClientGone;
    Callback onDestroyed;

    boost::mutex clientMutex; ///< guards `client`, where the destructor meets the heartbeat thread, and `clientGone`
    /// Ends a long memory access between two steps, and a link that came late. Under the mutex, so that either the link
    /// sees the end of the client, or that end sees the link.
    bool clientGone = false;
    std::shared_ptr<CallGate> gate;
};

} // namespace zuGevDaemon
