// The process's one server manager, and the start and end of its use of the socket library.
#pragma once

#include "GevTLBase/IPCPipe/Mgr.h"

#include <map>
#include <memory>
#include <string>

#include <boost/thread/mutex.hpp>

namespace zuIPCPipe {

/// Keeps the socket library started for its life.
class CWinsockInit {
public:
    CWinsockInit();
    virtual ~CWinsockInit();
    CWinsockInit(const CWinsockInit&) = delete;
    CWinsockInit& operator=(const CWinsockInit&) = delete;
};

template <typename Key>
class CMgrFactory {
public:
    CMgrFactory() = default;
    /// Stops the managers and lets them go.
    virtual ~CMgrFactory();
    CMgrFactory(const CMgrFactory&) = delete;
    CMgrFactory& operator=(const CMgrFactory&) = delete;

    /// The server manager, made at the first call with `onConnect`; a later call's callback is discarded, and the
    /// second argument plays no part. Throws as the constructor of `CMgrServer` does.
    void GetManager(std::shared_ptr<CMgr>& manager, Key, CDispatcher::NewInstance onConnect);

private:
    CWinsockInit winsock;
    boost::mutex mutex; ///< guards `managers`, and is held while a manager is made
    std::map<std::string, std::shared_ptr<CMgr>> managers;
};

extern template class CMgrFactory<int>;

/// The process-wide factory, made at the first call.
std::shared_ptr<CMgrFactory<int>> GetMgrFactory();

/// Lets the process-wide factory go. With its last reference the managers are stopped, which waits for their threads.
void ResetMgrFactory();

} // namespace zuIPCPipe
