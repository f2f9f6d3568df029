// How a client process gets a connection. Any thread; several may connect through one manager at once.
#pragma once

#include "GevTLBase/IPCPipe/Instance.h"
#include "GevTLBase/IPCPipe/Mgr.h"

#include <cstdint>
#include <memory>

namespace zuIPCPipe {

/// A client-role manager, with the socket library started. Throws `IPCException` "Unable to create shared object" if no
/// server was ever there; one that isn't ready, or is gone, shows in `Connect`.
/// It knows one server's port for its life: after the daemon was started anew a new manager is wanted.
std::shared_ptr<CMgr> MakeClientManager();

/// A new connection, over a dispatcher that this process already has if one has room. Waits up to `timeout`
/// milliseconds for the daemon to make its side, a second time if the dispatcher at hand turned out to be dead, and up
/// to 300 ms for an announce. The end of the manager ends the connection. Throws `IPCException` "Socket recv failed" if
/// no server answers the announce, `IPCTimeoutException` "Socket sendto failed" if none had published its port, and
/// "Wait for Ack failed" if none answers the request.
std::shared_ptr<CInstance> Connect(CMgr& manager, std::uint32_t timeout);

} // namespace zuIPCPipe
