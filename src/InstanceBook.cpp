// Bookkeeping of device instances. `bookMutex` guards what follows it and is held neither across a deletion nor across
// logging; `collectMutex` is outside of it.
#include "src/InstanceBook.h"

#include "logging/log.h"
#include "src/DevInst.h"

#include <algorithm>
#include <deque>
#include <list>
#include <mutex>
#include <optional>
#include <ostream>
#include <sstream>

namespace zuGevDaemon {

using zuLogging::log_debug;
using zuLogging::log_info;

namespace {

/// An instance and whether its destructor may be running, in which case nothing may be asked of it.
struct Listed {
    CDevInst* instance;
    bool dying = false;
};

std::mutex bookMutex;
// Never destroyed: what stands in them when the process ends is not deleted, and threads may still come here.
auto& InstanceList = *new std::list<Listed>;
auto& GarbageQueue = *new std::deque<CDevInst*>;
std::size_t BirthsUnderWay = 0; ///< instances whose constructor may have run but which aren't listed yet

zuLogging::logstate Log() { return zuLogging::get_logstate("Svc"); }

std::size_t GarbageSize()
{
    const std::lock_guard lock(bookMutex);
    return GarbageQueue.size();
}

bool IsListed(const CDevInst* instance)
{
    return std::any_of(InstanceList.begin(), InstanceList.end(),
                       [instance](const Listed& entry) { return entry.instance == instance; });
}

/// Holds back the deletion of an instance whose client goes before the instance stands in the list.
class Birth {
public:
    Birth()
    {
        const std::lock_guard lock(bookMutex);
        ++BirthsUnderWay;
    }
    ~Birth()
    {
        const std::lock_guard lock(bookMutex);
        --BirthsUnderWay;
    }
    Birth(const Birth&) = delete;
    Birth& operator=(const Birth&) = delete;
};

/// The first of the queue that no call is inside, shut to further ones; nothing if there is none.
std::optional<CDevInst*> RetireFirst()
{
    const std::lock_guard lock(bookMutex);
    for (CDevInst* const instance : GarbageQueue) {
        const bool unborn = BirthsUnderWay != 0 && !IsListed(instance);
        if (instance == nullptr || (!unborn && instance->TryRetire()))
            return instance;
    }
    return std::nullopt;
}

void RemoveEntry(CDevInst* instance)
{
    const std::lock_guard lock(bookMutex);
    GarbageQueue.erase(std::find(GarbageQueue.begin(), GarbageQueue.end(), instance));
    for (Listed& entry : InstanceList)
        if (entry.instance == instance)
            entry.dying = true;
}

std::size_t LivingInstances()
{
    return static_cast<std::size_t>(
        std::count_if(InstanceList.begin(), InstanceList.end(), [](const Listed& entry) { return !entry.dying; }));
}

/// One collector at a time, so that the entry that was looked at is the one that is removed.
std::mutex collectMutex;

} // namespace

void OnClientConnect(std::shared_ptr<zuIPCPipe::IMsgSrc> client)
{
    {
        const Birth birth;
        auto* const instance = new CDevInst(std::move(client), &AddToGarbage, &RemoveInstance);
        const std::lock_guard lock(bookMutex);
        InstanceList.push_back({instance});
    }
    CollectGarbage();
}

void AddToGarbage(CDevInst* instance)
{
    ZU_LOG(Log(), log_debug, "Garbage queue size " << GarbageSize());
    const std::lock_guard lock(bookMutex);
    GarbageQueue.push_back(instance);
}

void RemoveInstance(CDevInst* instance)
{
    ZU_LOG(Log(), log_debug, "Instance queue size " << GarbageSize());
    const std::lock_guard lock(bookMutex);
    const auto found = std::find_if(InstanceList.begin(), InstanceList.end(),
                                    [instance](const Listed& entry) { return entry.instance == instance; });
    if (found != InstanceList.end())
        InstanceList.erase(found);
}

void CollectGarbage()
{
    for (;;) {
        std::optional<CDevInst*> first;
        {
            const std::lock_guard collecting(collectMutex);
            first = RetireFirst();
            if (!first)
                return;
            ZU_LOG(Log(), log_info, "Deleting " << static_cast<const void*>(*first));
            RemoveEntry(*first);
        }
        delete *first;
    }
}

std::size_t InstanceCount()
{
    const std::lock_guard lock(bookMutex);
    return LivingInstances();
}

void PrintStatus(std::ostream& out)
{
    // Whoever reads the report may be slow, and clients come and go meanwhile.
    std::ostringstream report;
    report << ".... Status:\n";
    try {
        const std::lock_guard lock(bookMutex);
        report << "Instances: " << LivingInstances() << "\n";
        for (const Listed& entry : InstanceList)
            if (!entry.dying)
                report << "ID: " << entry.instance->GetId();
    } catch (...) {
        out << report.str() << std::flush;
        throw;
    }
    out << report.str() << "\n" << std::flush;
}

} // namespace zuGevDaemon
