// A dispatcher's part in the client role: asks the peer for instances and ends the peer's dispatcher. Any thread.
//
// Locks, outermost first: `requestLock`, then `countLock` or those of instances and of the dispatcher. `countLock` is
// held across the sending of a request, and so outside the dispatcher's `socketLock`.
#pragma once

#include "GevTLBase/IPCPipe/InstanceMsg.h"

#include <cstdint>
#include <memory>
#include <mutex>

namespace zuIPCPipe {

class CDispatcher;
class CInstance;

class CClientRole {
public:
    explicit CClientRole(CDispatcher& owner) : dispatcher(owner) {}
    CClientRole(const CClientRole&) = delete;
    CClientRole& operator=(const CClientRole&) = delete;

    /// Asks the peer for an instance and waits up to `timeout` milliseconds. Null if the dispatcher takes no more, as
    /// its peer went with the last connection. Throws `IPCTimeoutException` "Wait for Ack failed",
    /// `IPCSocketException`. Several threads may connect at once.
    std::shared_ptr<CInstance> Connect(std::uint32_t timeout);

    /// Ends the peer's dispatcher with all its instances, then this one. False if the peer did not answer within
    /// `timeout` milliseconds; this side is shut down all the same.
    bool Terminate(std::uint32_t timeout);

    /// From now on the dispatcher takes no more connections.
    void Retire();

private:
    void SendRequest(instance_msg& message);
    std::shared_ptr<instance_msg> AwaitAnswer(const instance_msg& message, std::uint32_t timeout);
    bool Enter(instance_msg& message);
    void Leave();

    CDispatcher& dispatcher;
    std::mutex requestLock;        ///< one exchange at a time
    std::uint32_t requestSeq = 0;  ///< under `requestLock`
    std::mutex countLock;          ///< orders a request against the end of the last connection
    std::uint64_t connections = 0; ///< asked for or made, and not ended; under `countLock`
};

} // namespace zuIPCPipe
