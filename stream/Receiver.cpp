// The receiver: its queues, and its thread, which runs the engine. `stateMutex_` guards the engine and is held for a
// batch; `queueMutex_`, a leaf within it, guards the queues, the places of buffers and the published statistics.
#include "platform/clock.h"
#include "platform/thread.h"
#include "platform/wake.h"
#include "stream/Engine.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>

namespace zuStream {

namespace {

constexpr std::uint64_t longestWait = 1000000000; // nanoseconds

using Lock = std::lock_guard<std::mutex>;

} // namespace

StreamError::StreamError(const std::string& what, int code)
    : std::runtime_error(what + " (system error " + std::to_string(code) + ')'), code_(code)
{
}

class Receiver::Impl final : private Queues {
public:
    explicit Impl(const Settings& settings)
        : settings_(settings), engine_(settings, *this), published_(engine_.statistics()), thread_([this] { run(); })
    {
    }
    ~Impl() { close(); }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    Endpoint local() const { return engine_.local(); }
    Buffer& announce(void* memory, std::size_t size, void* context);
    bool revoke(Buffer& buffer);
    bool queue(Buffer& buffer);
    Buffer* wait(Microseconds timeout);
    std::vector<Buffer*> takeBack();
    Statistics statistics();
    bool knock(const Endpoint& camera);
    void close();

private:
    Record* takeEmpty() override;
    void giveBack(Record& record) override;
    void deliver(Record& record) override;
    void run();
    void publish();

    const Settings settings_;
    std::mutex stateMutex_;
    std::mutex queueMutex_;
    RecordList empty_;
    RecordList filled_;
    std::vector<std::unique_ptr<Record>> records_;
    zuPlatform::WakeWord wake_; ///< counts filled buffers, and the end
    std::atomic<bool> closed_{false};
    std::atomic<unsigned> pauses_{0}; ///< calls that want the engine: it lets them go first
    Engine engine_;
    Statistics published_;
    std::atomic<bool> priority_{false};
    std::atomic<std::uint32_t> drops_{0}; ///< of the socket, when it was asked last
    std::mutex joinMutex_;                ///< guards the end of `thread_`
    std::thread thread_;
};

Buffer& Receiver::Impl::announce(void* memory, std::size_t size, void* context)
{
    if (memory == nullptr || size == 0)
        throw std::invalid_argument("a buffer needs memory");
    auto record = makeRecord(settings_.packetSize, memory, size, context);
    const Lock lock(queueMutex_);
    records_.push_back(std::move(record));
    return *records_.back();
}

bool Receiver::Impl::revoke(Buffer& buffer)
{
    const Lock lock(queueMutex_);
    const auto found =
        std::find_if(records_.begin(), records_.end(), [&](const auto& record) { return record.get() == &buffer; });
    if (found == records_.end() || (*found)->place != Record::Place::withUser)
        return false;
    records_.erase(found);
    return true;
}

bool Receiver::Impl::queue(Buffer& buffer)
{
    auto& record = static_cast<Record&>(buffer);
    const Lock lock(queueMutex_);
    if (record.place != Record::Place::withUser)
        return false;
    record.place = Record::Place::queued;
    empty_.push(record);
    return true;
}

Buffer* Receiver::Impl::wait(Microseconds timeout)
{
    const std::uint64_t now = zuPlatform::steadyNanoseconds();
    const std::uint64_t most = (never - now) / 2000;
    const std::uint64_t deadline =
        now + 1000 * std::min(most, static_cast<std::uint64_t>(std::max<Microseconds::rep>(timeout.count(), 0)));
    for (;;) {
        const std::uint32_t seen = wake_.count();
        const bool last = closed_.load(std::memory_order_acquire);
        {
            const Lock lock(queueMutex_);
            if (Record* const record = filled_.pop()) {
                record->place = Record::Place::withUser;
                return record;
            }
        }
        if (last || !wake_.waitUntil(seen, deadline))
            return nullptr;
    }
}

std::vector<Buffer*> Receiver::Impl::takeBack()
{
    std::vector<Buffer*> buffers;
    pauses_.fetch_add(1);
    {
        const Lock state(stateMutex_);
        const Lock lock(queueMutex_);
        const auto give = [&](Record& record) {
            record.place = Record::Place::withUser;
            buffers.push_back(&record);
        };
        engine_.assembler().abandon(give);
        while (Record* const record = empty_.pop())
            give(*record);
    }
    pauses_.fetch_sub(1);
    return buffers;
}

Statistics Receiver::Impl::statistics()
{
    std::uint32_t drops = 0;
    if (engine_.socket().getDropped(drops) == 0)
        drops_.store(drops, std::memory_order_relaxed);
    const Lock lock(queueMutex_);
    Statistics result = published_;
    result.socketDrops = drops_.load(std::memory_order_relaxed);
    result.priorityGranted = priority_.load(std::memory_order_relaxed);
    return result;
}

bool Receiver::Impl::knock(const Endpoint& camera)
{
    return engine_.socket()
               .sendTo("", 0, {zuPlatform::hostToNetwork32(camera.address), zuPlatform::hostToNetwork16(camera.port)})
               .error == 0;
}

void Receiver::Impl::close()
{
    const Lock lock(joinMutex_);
    if (!thread_.joinable())
        return;
    statistics(); // the socket tells its drops no more afterwards
    closed_.store(true, std::memory_order_release);
    engine_.socket().close();
    thread_.join();
    wake_.notify_all();
}

Record* Receiver::Impl::takeEmpty()
{
    const Lock lock(queueMutex_);
    Record* const record = empty_.pop();
    if (record != nullptr)
        record->place = Record::Place::filling;
    return record;
}

void Receiver::Impl::giveBack(Record& record)
{
    const Lock lock(queueMutex_);
    record.place = Record::Place::queued;
    empty_.push(record);
}

void Receiver::Impl::deliver(Record& record)
{
    {
        const Lock lock(queueMutex_);
        record.place = Record::Place::filled;
        filled_.push(record);
        wake_.advance();
    }
    wake_.wake();
}

void Receiver::Impl::publish()
{
    const Lock lock(queueMutex_);
    published_ = engine_.statistics();
}

void Receiver::Impl::run()
{
    zuPlatform::nameCurrentThread("zu-stream");
    priority_ = zuPlatform::setCurrentThreadPriority(zuPlatform::ThreadPriority::timeCritical);
    const auto gather = static_cast<std::uint32_t>(settings_.gather.count());
    std::uint64_t deadline = never;
    bool more = false; // the batch was full, so others may wait already
    while (!closed_.load(std::memory_order_acquire)) {
        if (!more) {
            const std::uint64_t now = zuPlatform::steadyNanoseconds();
            const std::uint64_t rest = deadline > now ? deadline - now : 0;
            const int error = engine_.socket().waitReadable(std::min(rest, longestWait));
            if (error == 0 && gather != 0)
                zuPlatform::sleepUs(gather);
            else if (error != 0 && error != zuPlatform::wouldBlockError)
                break;
        }
        while (pauses_.load() != 0)
            zuPlatform::yieldThread();
        const Lock lock(stateMutex_);
        more = engine_.poll(zuPlatform::steadyNanoseconds()) == settings_.batch;
        deadline = engine_.deadline();
        publish();
    }
}

Receiver::Receiver(const Settings& settings) : impl_(std::make_unique<Impl>(settings)) {}
Receiver::~Receiver() = default;
Endpoint Receiver::local() const { return impl_->local(); }
Buffer& Receiver::announce(void* memory, std::size_t size, void* context)
{
    return impl_->announce(memory, size, context);
}
bool Receiver::revoke(Buffer& buffer) { return impl_->revoke(buffer); }
bool Receiver::queue(Buffer& buffer) { return impl_->queue(buffer); }
Buffer* Receiver::wait(Microseconds timeout) { return impl_->wait(timeout); }
std::vector<Buffer*> Receiver::takeBack() { return impl_->takeBack(); }
Statistics Receiver::statistics() const { return impl_->statistics(); }
bool Receiver::knock(const Endpoint& camera) { return impl_->knock(camera); }
void Receiver::close() { impl_->close(); }

} // namespace zuStream
