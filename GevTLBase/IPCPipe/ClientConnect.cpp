// The client's way to a connection.
#include "GevTLBase/IPCPipe/ClientConnect.h"

#include "GevTLBase/IPCPipe/IPCException.h"
#include "GevTLBase/IPCPipe/MgrFactory.h"
#include "platform/process.h"

namespace zuIPCPipe {

namespace {

constexpr int maxAttempts = 3;

} // namespace

std::shared_ptr<CMgr> MakeClientManager()
{
    static const CWinsockInit winsock;
    return std::make_shared<CMgr>();
}

// The daemon's dispatcher goes with the last instance on it. A dispatcher here that outlives that moment, because
// somebody is about to connect through it, has lost its peer and is of no further use.
std::shared_ptr<IMsgSrc> Connect(CMgr& manager, std::uint32_t timeout)
{
    for (int attempt = 1;; ++attempt) {
        std::shared_ptr<CDispatcher> dispatcher;
        manager.GetDispatcher(dispatcher, zuPlatform::currentProcessId());
        const bool used = dispatcher->SlotCount() != 0;
        if (used && dispatcher->InstanceCount() == 0 && attempt < maxAttempts) {
            dispatcher->Retire();
            continue;
        }
        try {
            return dispatcher->Connect(timeout);
        } catch (const IPCException&) {
            dispatcher->Retire();
            if (attempt >= maxAttempts || !(used || dispatcher->SlotCount() > 1))
                throw;
        }
    }
}

} // namespace zuIPCPipe
