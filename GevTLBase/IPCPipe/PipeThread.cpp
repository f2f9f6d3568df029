// Threads that are used again. One mutex guards them all; a thread is made under it, and no other lock is taken.
#include "GevTLBase/IPCPipe/PipeThread.h"

#include "platform/thread.h"

#include <algorithm>
#include <array>
#include <chrono>
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

thread_local const void* currentRun = nullptr;

} // namespace

/// One body from its start to its end. All but the body is under the pool's mutex.
struct PipeThread::Run {
    std::function<void()> body;
    std::condition_variable ended;
    bool done = false;
    bool abandoned = false; ///< nobody will join
    boost::thread last;     ///< the thread, if it ends with this body and somebody may join it
};

/// One thread of the system, which runs one body after the other. All of it is under the pool's mutex.
struct PipeThread::Worker {
    boost::thread handle;
    std::shared_ptr<Run> next;
    std::condition_variable called; ///< there is a next body, or the handle was taken and none comes any more
};

/// Never destroyed: a late thread may still come at the end of the process.
struct PipeThread::Pool {
    static Pool& Get()
    {
        static auto& pool = *new Pool;
        return pool;
    }
    std::vector<std::shared_ptr<Worker>>& Waiting(Kind kind) { return waiting[static_cast<std::size_t>(kind)]; }
    void Serve(Kind kind, const std::shared_ptr<Worker>& self, std::shared_ptr<Run> run);
    std::shared_ptr<Run> Next(Kind kind, const std::shared_ptr<Worker>& self, Run& before);

    std::mutex mutex; ///< guards all below
    unsigned keepers = 0;
    std::array<std::vector<std::shared_ptr<Worker>>, kinds.size()> waiting;
};

void PipeThread::Pool::Serve(Kind kind, const std::shared_ptr<Worker>& self, std::shared_ptr<Run> run)
{
    const KindFacts& facts = kinds[static_cast<std::size_t>(kind)];
    if (facts.timeCritical)
        static_cast<void>(zuPlatform::setCurrentThreadPriority(zuPlatform::ThreadPriority::timeCritical));
    zuPlatform::nameCurrentThread(facts.name);
    while (run) {
        currentRun = run.get();
        run->body();
        run->body = nullptr;
        currentRun = nullptr;
        run = Next(kind, self, *run);
    }
}

// Tells the end of one body and waits for the next; null if the thread is to end.
std::shared_ptr<PipeThread::Run> PipeThread::Pool::Next(Kind kind, const std::shared_ptr<Worker>& self, Run& before)
{
    std::unique_lock<std::mutex> lock(mutex);
    auto& others = Waiting(kind);
    const bool kept = keepers != 0 && others.size() < maxParked;
    if (kept)
        others.push_back(self);
    else if (before.abandoned)
        self->handle.detach();
    else
        before.last = std::move(self->handle);
    before.done = true;
    before.ended.notify_all();
    if (!kept)
        return nullptr;
    const auto called = [&self] { return self->next || !self->handle.joinable(); };
    if (!self->called.wait_for(lock, std::chrono::seconds(parkedSeconds), called)) {
        others.erase(std::find(others.begin(), others.end(), self));
        self->handle.detach();
    }
    return std::move(self->next);
}

PipeThread::Keeper::Keeper()
{
    Pool& pool = Pool::Get();
    const std::lock_guard<std::mutex> lock(pool.mutex);
    ++pool.keepers;
}

PipeThread::Keeper::~Keeper()
{
    Pool& pool = Pool::Get();
    std::vector<boost::thread> dismissed;
    {
        const std::lock_guard<std::mutex> lock(pool.mutex);
        if (--pool.keepers != 0)
            return;
        for (auto& workers : pool.waiting) {
            for (const auto& worker : workers) {
                dismissed.push_back(std::move(worker->handle));
                worker->called.notify_one();
            }
            workers.clear();
        }
    }
    const boost::this_thread::disable_interruption noInterruption;
    for (boost::thread& thread : dismissed)
        thread.join();
}

std::unique_ptr<PipeThread> PipeThread::Start(Kind kind, std::function<void()> body)
{
    Pool& pool = Pool::Get();
    const auto run = std::make_shared<Run>();
    run->body = std::move(body);
    std::unique_ptr<PipeThread> thread(new PipeThread(run));
    const std::lock_guard<std::mutex> lock(pool.mutex);
    auto& waiting = pool.Waiting(kind);
    if (waiting.empty()) {
        const auto worker = std::make_shared<Worker>();
        worker->handle = boost::thread([&pool, kind, worker, run] { pool.Serve(kind, worker, run); });
    } else {
        waiting.back()->next = run;
        waiting.back()->called.notify_one();
        waiting.pop_back();
    }
    return thread;
}

PipeThread::~PipeThread()
{
    const std::lock_guard<std::mutex> lock(Pool::Get().mutex);
    run_->abandoned = true;
    if (run_->last.joinable())
        run_->last.detach();
}

void PipeThread::Join()
{
    boost::thread last;
    {
        std::unique_lock<std::mutex> lock(Pool::Get().mutex);
        run_->ended.wait(lock, [this] { return run_->done; });
        last = std::move(run_->last);
    }
    const boost::this_thread::disable_interruption noInterruption;
    if (last.joinable())
        last.join();
}

bool PipeThread::IsCurrent() const { return currentRun == run_.get(); }

} // namespace zuIPCPipe
