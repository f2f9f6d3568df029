// The client's way to a connection.
#include "GevTLBase/IPCPipe/ClientConnect.h"

#include "GevTLBase/IPCPipe/IPCException.h"
#include "GevTLBase/IPCPipe/MgrFactory.h"
#include "platform/process.h"

namespace zuIPCPipe {

namespace {

constexpr int maxAttempts = 2;

} // namespace

std::shared_ptr<CMgr> MakeClientManager()
{
    static const CWinsockInit winsock;
    return std::make_shared<CMgr>();
}

// A dispatcher at hand may have lost its peer without notice; one that was made for this connection has not.
std::shared_ptr<CInstance> Connect(CMgr& manager, std::uint32_t timeout)
{
    for (int attempt = 1;; ++attempt) {
        std::shared_ptr<CDispatcher> dispatcher;
        manager.GetDispatcher(dispatcher, zuPlatform::currentProcessId());
        try {
            if (std::shared_ptr<CInstance> instance = dispatcher->Client().Connect(timeout))
                return instance;
            // Its last connection ended just now: no attempt.
            dispatcher->Client().Retire();
            --attempt;
        } catch (const IPCException&) {
            const bool shared = dispatcher->SlotCount() > 1;
            dispatcher->Client().Retire();
            if (attempt == maxAttempts || !shared)
                throw;
        }
    }
}

} // namespace zuIPCPipe
