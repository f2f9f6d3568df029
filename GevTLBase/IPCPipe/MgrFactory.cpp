// The manager factory. Any thread.
#include "GevTLBase/IPCPipe/MgrFactory.h"

#include "GevTLBase/IPCPipe/MgrServer.h"
#include "platform/socket_library.h"

#include <mutex>
#include <utility>

namespace zuIPCPipe {

namespace {

constexpr std::uint16_t socketLibraryVersion = 0x202;

std::mutex factoryLock; // guards the two below
CMgrFactory<int>* factory = nullptr;
std::shared_ptr<CMgrFactory<int>> factoryOwner;

} // namespace

CWinsockInit::CWinsockInit()
{
    std::uint16_t obtained = 0;
    static_cast<void>(zuPlatform::startSocketLibrary(socketLibraryVersion, obtained));
}

CWinsockInit::~CWinsockInit() { zuPlatform::stopSocketLibrary(); }

template <typename Key>
CMgrFactory<Key>::~CMgrFactory()
{
    while (!managers.empty()) {
        try {
            managers.begin()->second->Stop();
        } catch (...) {
            // A disconnect handler that fails has nobody left to tell.
        }
        managers.erase(managers.begin());
    }
}

template <typename Key>
void CMgrFactory<Key>::GetManager(std::shared_ptr<CMgr>& manager, Key, CDispatcher::NewInstance onConnect)
{
    const boost::lock_guard<boost::mutex> lock(mutex);
    std::shared_ptr<CMgr>& entry = managers[kSharedObjectName];
    if (!entry) {
        try {
            entry = std::make_shared<CMgrServer>(std::move(onConnect));
        } catch (...) {
            managers.erase(kSharedObjectName);
            throw;
        }
    }
    manager = entry;
}

template class CMgrFactory<int>;

std::shared_ptr<CMgrFactory<int>> GetMgrFactory()
{
    const std::lock_guard<std::mutex> lock(factoryLock);
    if (!factory) {
        factoryOwner = std::make_shared<CMgrFactory<int>>();
        factory = factoryOwner.get();
    }
    return factoryOwner;
}

void ResetMgrFactory()
{
    std::shared_ptr<CMgrFactory<int>> last;
    const std::lock_guard<std::mutex> lock(factoryLock);
    factory = nullptr;
    last.swap(factoryOwner);
}

} // namespace zuIPCPipe
