// The threads of dispatchers and instances. In a server, where making one costs more than all else that a connect
// brings, a thread whose body has returned waits a while for the next client. Any thread may call.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>

namespace zuIPCPipe {

/// One body that runs on a thread of its own for as long as it takes. Dropping the handle lets it run on.
class PipeThread {
public:
    /// What a thread is for: its name, and its priority, which for receivers is time critical.
    enum class Kind { commandReceiver, acknowledgeReceiver, instance };

    /// Runs `body`, which must not throw. Throws `boost::thread_resource_error` if the system gives no thread.
    static std::unique_ptr<PipeThread> Start(Kind kind, std::function<void()> body);

    ~PipeThread();
    PipeThread(const PipeThread&) = delete;
    PipeThread& operator=(const PipeThread&) = delete;

    /// Waits until the body has returned and is destroyed, and for the thread's own end unless it waits for a next
    /// body. No interruption point. Not for the thread itself.
    void Join();

    bool IsCurrent() const; ///< whether the caller is this body

    /// While one of these lives, threads wait for a next body. The end of the last ends those that wait.
    class Keeper {
    public:
        Keeper();
        ~Keeper();
        Keeper(const Keeper&) = delete;
        Keeper& operator=(const Keeper&) = delete;
    };

    /// How many threads of a kind wait for a next body at most, and how long each does.
    static constexpr std::size_t maxParked = 4;
    static constexpr unsigned parkedSeconds = 10;

private:
    struct Run;
    struct Worker;
    struct Pool;
    explicit PipeThread(std::shared_ptr<Run> run) : run_(std::move(run)) {}

    std::shared_ptr<Run> run_;
};

} // namespace zuIPCPipe
