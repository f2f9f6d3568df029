// The service loop: runs on the process's first thread, or on the service's.
#include "src/ServiceLoop.h"

#include "GevTLBase/IPCPipe/MgrFactory.h"
#include "logging/log.h"
#include "platform/console_keys.h"
#include "src/InstanceBook.h"

#include <iostream>
#include <memory>
#include <optional>

#include <boost/chrono/duration.hpp>
#include <boost/chrono/system_clocks.hpp>
#include <boost/thread/thread.hpp>

namespace zuGevDaemon {

using zuLogging::log_info;

std::atomic<std::uint64_t> TerminateFlag{0};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free, "stored to from signal handlers");

namespace {

constexpr boost::chrono::nanoseconds pollInterval{500'000'000};

void ActOnKey(int key)
{
    switch (key) {
    case 'S':
    case 's':
        PrintStatus(std::cout);
        break;
    case 'X':
    case 'x':
        RequestTermination();
        break;
    default:
        break;
    }
}

void BringUpManager()
{
    std::shared_ptr<zuIPCPipe::CMgr> manager;
    zuIPCPipe::GetMgrFactory()->GetManager(manager, 0, &OnClientConnect);
}

} // namespace

void RequestTermination() { TerminateFlag.store(1, std::memory_order_relaxed); }

void ServiceLoop(bool isService)
{
    const auto log = zuLogging::get_logstate("Svc");
    std::optional<zuPlatform::ConsoleKeys> keys;
    if (!isService)
        keys.emplace();
    BringUpManager();
    ZU_LOG(log, log_info, "Starting service loop");
    for (;;) {
        if (TerminateFlag.load(std::memory_order_relaxed) != 0) {
            ZU_LOG(log, log_info, "Service loop terminating, shutdown Mgr");
            zuIPCPipe::ResetMgrFactory();
            return;
        }
        if (keys && keys->available())
            ActOnKey(keys->read());
        boost::this_thread::sleep_until(boost::chrono::steady_clock::now() + pollInterval);
    }
}

} // namespace zuGevDaemon
