// Threads that are used again. Locks: a run's, then its worker's; that of the parking is under neither, and nothing is
// taken under it. What the caller of `Start` holds is outside all three.
#include "GevTLBase/IPCPipe/PipeThread.h"

#include "platform/thread.h"
#include "platform/wake.h"

#include <algorithm>
#include <array>
#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

#include <boost/thread/thread.hpp>

namespace zuIPCPipe {

namespace {

struct KindFacts {
    const char* name;
    bool timeCritical;
};
constexpr std::array<KindFacts, 3> kinds{{{"zu-cmd", true}, {"zu-ack", true}, {"zu-inst", false}}};

constexpr std::uint64_t nsPerSecond = 1000000000;

thread_local const void* currentRun = nullptr;

/// An interruption that came too late for its body is not the next one's.
void forgetInterruption()
{
    try {
        boost::this_thread::interruption_point();
    } catch (const boost::thread_interrupted&) {
    }
}

} // namespace

/// One body from its start to its end.
struct PipeThread::Run {
    std::function<void()> body;
    std::mutex mutex;
    std::condition_variable ended;
    bool done = false;               ///< under `mutex`
    bool abandoned = false;          ///< under `mutex`; nobody will join
    std::shared_ptr<Worker> worker;  ///< under `mutex`; null when the body has returned
    std::shared_ptr<Worker> leaving; ///< under `mutex`; whose end is the joiner's to wait for
};

/// One thread of the system, which runs one body after the other.
struct PipeThread::Worker : std::enable_shared_from_this<Worker> {
    explicit Worker(Kind ownKind) : kind(ownKind) {}

    void Main(std::shared_ptr<Run> run);
    std::shared_ptr<Run> Park(std::uint32_t seen);
    boost::thread TakeHandle();
    void Dismiss();

    const Kind kind;
    std::mutex mutex;
    zuPlatform::WakeWord called; ///< counts once in a life, or once for each time that it was taken
    std::shared_ptr<Run> next;   ///< under `mutex`
    boost::thread handle;        ///< under `mutex`
};

/// Where workers wait. Never destroyed: a late one may still come at the end of the process.
struct PipeThread::Parking {
    using Workers = std::vector<std::shared_ptr<Worker>>;

    static Parking& Get()
    {
        static auto& parking = *new Parking;
        return parking;
    }

    bool Enter(std::shared_ptr<Worker> worker)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        Workers& waiting = Of(worker->kind);
        if (keepers == 0 || waiting.size() >= maxParked)
            return false;
        waiting.push_back(std::move(worker));
        return true;
    }

    /// False if it has been taken.
    bool Leave(const Worker* worker)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        Workers& waiting = Of(worker->kind);
        const auto found =
            std::find_if(waiting.begin(), waiting.end(), [worker](const auto& other) { return other.get() == worker; });
        if (found == waiting.end())
            return false;
        waiting.erase(found);
        return true;
    }

    std::shared_ptr<Worker> Take(Kind kind)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        Workers& waiting = Of(kind);
        if (waiting.empty())
            return nullptr;
        std::shared_ptr<Worker> worker = std::move(waiting.back());
        waiting.pop_back();
        return worker;
    }

    Workers& Of(Kind kind) { return workers[static_cast<std::size_t>(kind)]; }

    std::mutex mutex;
    unsigned keepers = 0;                        ///< under `mutex`
    std::array<Workers, kinds.size()> workers{}; ///< under `mutex`
};

void PipeThread::Worker::Main(std::shared_ptr<Run> run)
{
    const KindFacts& facts = kinds[static_cast<std::size_t>(kind)];
    if (facts.timeCritical)
        static_cast<void>(zuPlatform::setCurrentThreadPriority(zuPlatform::ThreadPriority::timeCritical));
    zuPlatform::nameCurrentThread(facts.name);
    bool joined = false;
    while (run) {
        currentRun = run.get();
        run->body();
        run->body = nullptr;
        currentRun = nullptr;
        {
            const std::lock_guard<std::mutex> lock(run->mutex);
            run->worker.reset();
        }
        forgetInterruption();
        const std::uint32_t seen = called.count();
        const bool parked = Parking::Get().Enter(shared_from_this());
        {
            const std::lock_guard<std::mutex> lock(run->mutex);
            run->done = true;
            joined = !parked && !run->abandoned;
            if (joined)
                run->leaving = shared_from_this();
        }
        run->ended.notify_all();
        run = parked ? Park(seen) : nullptr;
    }
    if (joined)
        return;
    boost::thread own = TakeHandle();
    if (own.joinable())
        own.detach();
}

boost::thread PipeThread::Worker::TakeHandle()
{
    const std::lock_guard<std::mutex> lock(mutex);
    return std::move(handle);
}

// Waits for a next body since the count was `seen`; null if none came.
std::shared_ptr<PipeThread::Run> PipeThread::Worker::Park(std::uint32_t seen)
{
    constexpr std::uint64_t never = std::uint64_t{1} << 62;
    if (!called.waitUntil(seen, zuPlatform::steadyNanoseconds() + parkedSeconds * nsPerSecond)) {
        if (Parking::Get().Leave(this))
            return nullptr;
        // Taken at the last moment: the call is on its way.
        called.waitUntil(seen, never);
    }
    const std::lock_guard<std::mutex> lock(mutex);
    return std::move(next);
}

void PipeThread::Worker::Dismiss()
{
    boost::thread thread = TakeHandle();
    called.notify_all();
    const boost::this_thread::disable_interruption noInterruption;
    thread.join();
}

PipeThread::Keeper::Keeper()
{
    Parking& parking = Parking::Get();
    const std::lock_guard<std::mutex> lock(parking.mutex);
    ++parking.keepers;
}

PipeThread::Keeper::~Keeper()
{
    Parking& parking = Parking::Get();
    std::array<Parking::Workers, kinds.size()> dismissed;
    {
        const std::lock_guard<std::mutex> lock(parking.mutex);
        if (--parking.keepers == 0)
            dismissed.swap(parking.workers);
    }
    for (const Parking::Workers& workers : dismissed)
        for (const std::shared_ptr<Worker>& worker : workers)
            worker->Dismiss();
}

std::unique_ptr<PipeThread> PipeThread::Start(Kind kind, std::function<void()> body)
{
    const auto run = std::make_shared<Run>();
    run->body = std::move(body);
    std::unique_ptr<PipeThread> thread(new PipeThread(run));
    if (std::shared_ptr<Worker> worker = Parking::Get().Take(kind)) {
        run->worker = worker;
        {
            const std::lock_guard<std::mutex> lock(worker->mutex);
            worker->next = run;
        }
        worker->called.notify_all();
    } else {
        worker = std::make_shared<Worker>(kind);
        run->worker = worker;
        const std::lock_guard<std::mutex> lock(worker->mutex);
        worker->handle = boost::thread([worker, run] { worker->Main(run); });
    }
    return thread;
}

PipeThread::~PipeThread()
{
    std::unique_lock<std::mutex> lock(run_->mutex);
    run_->abandoned = true;
    const std::shared_ptr<Worker> leaving = std::move(run_->leaving);
    lock.unlock();
    if (leaving)
        leaving->TakeHandle().detach();
}

void PipeThread::Join()
{
    std::unique_lock<std::mutex> lock(run_->mutex);
    run_->ended.wait(lock, [this] { return run_->done; });
    const std::shared_ptr<Worker> leaving = std::move(run_->leaving);
    lock.unlock();
    if (!leaving)
        return;
    const boost::this_thread::disable_interruption noInterruption;
    leaving->TakeHandle().join();
}

bool PipeThread::IsCurrent() const { return currentRun == run_.get(); }

void PipeThread::Interrupt()
{
    const std::lock_guard<std::mutex> lock(run_->mutex);
    if (!run_->worker)
        return;
    const std::lock_guard<std::mutex> workerLock(run_->worker->mutex);
    run_->worker->handle.interrupt();
}

} // namespace zuIPCPipe
