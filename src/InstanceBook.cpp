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

/// The front of the queue, retired; nothing if it is empty, or if a call is inside each of the `candidates` at its
/// front.
std::optional<CDevInst*> RetireFront(std::size_t& candidates)
{
    const std::lock_guard lock(bookMutex);
    for (; candidates > 0 && !GarbageQueue.empty(); --candidates) {
        CDevInst* const front = GarbageQueue.front();
        const bool unborn = BirthsUnderWay != 0 && !IsListed(front);
        if (front == nullptr || (!unborn && front->TryRetire()))
            return front;
        GarbageQueue.pop_front();
        GarbageQueue.push_back(front);
    }
    return std::nullopt;
}

void RemoveFront(CDevInst* front)
{
    const std::lock_guard lock(bookMutex);
    GarbageQueue.pop_front();
    for (Listed& entry : InstanceList)
        if (entry.instance == front)
            entry.dying = true;
}

/// One collector at a time, so that the front that was looked at is the one that is removed.
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
    std::size_t candidates = GarbageSize();
    while (candidates > 0) {
        std::optional<CDevInst*> front;
        {
            const std::lock_guard collecting(collectMutex);
            front = RetireFront(candidates);
            if (!front)
                return;
            ZU_LOG(Log(), log_info, "Deleting " << static_cast<const void*>(*front));
            RemoveFront(*front);
        }
        --candidates;
        delete *front;
    }
}

std::size_t InstanceCount()
{
    const std::lock_guard lock(bookMutex);
    return InstanceList.size();
}

void PrintStatus(std::ostream& out)
{
    // Whoever reads the report may be slow, and clients come and go meanwhile.
    std::ostringstream report;
    report << ".... Status:\n";
    try {
        const std::lock_guard lock(bookMutex);
        report << "Instances: " << InstanceList.size() << "\n";
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
