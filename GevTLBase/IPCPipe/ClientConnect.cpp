// The client's way to a connection.
#include "GevTLBase/IPCPipe/ClientConnect.h"

#include "GevTLBase/IPCPipe/IPCException.h"
#include "GevTLBase/IPCPipe/Instance.h"
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
std::shared_ptr<IMsgSrc> Connect(CMgr& manager, std::uint32_t timeout)
{
    for (int attempt = 1;; ++attempt) {
        std::shared_ptr<CDispatcher> dispatcher;
        manager.GetDispatcher(dispatcher, zuPlatform::currentProcessId());
        try {
            if (std::shared_ptr<IMsgSrc> source = dispatcher->Connect(timeout))
                return source;
            // Its last connection ended just now: no attempt.
            dispatcher->Retire();
            --attempt;
        } catch (const IPCException&) {
            const bool shared = dispatcher->SlotCount() > 1;
            dispatcher->Retire();
            if (attempt == maxAttempts || !shared)
                throw;
        }
    }
}

bool AwaitReply(IMsgSrc& source, void* reply, std::size_t& replyLength, std::uint32_t timeout)
{
    return dynamic_cast<CInstance&>(source).AwaitReply(reply, replyLength, timeout);
}

} // namespace zuIPCPipe
