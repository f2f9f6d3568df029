// Bounded queue of datagrams.
#include "tools/zuLogSvc/datagram_queue.h"

#include <chrono>
#include <cstring>

namespace zuLogSvc {
namespace {

struct EntryHead {
    std::uint32_t size;
    std::uint32_t address;
    std::uint16_t port;
    QueuedDatagram::Kind kind;
};

} // namespace

bool Batch::next(QueuedDatagram& entry)
{
    if (empty())
        return false;
    EntryHead head;
    std::memcpy(&head, storage_.data() + next_, sizeof head);
    next_ += sizeof head;
    entry = {head.kind, {head.address, head.port}, Bytes(storage_.data() + next_, head.size)};
    next_ += head.size;
    return true;
}

bool DatagramQueue::push(const QueuedDatagram& entry)
{
    EntryHead head{};
    head.size = static_cast<std::uint32_t>(entry.bytes.size());
    head.address = entry.from.address;
    head.port = entry.from.port;
    head.kind = entry.kind;
    bool wasEmpty = false;
    {
        const std::lock_guard lock(mutex_);
        if (closed_ || waiting_.size() + sizeof head + entry.bytes.size() > limit_) {
            ++refused_;
            return false;
        }
        wasEmpty = waiting_.empty();
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(&head);
        waiting_.insert(waiting_.end(), bytes, bytes + sizeof head);
        waiting_.insert(waiting_.end(), entry.bytes.begin(), entry.bytes.end());
    }
    if (wasEmpty)
        arrived_.notify_one();
    return true;
}

bool DatagramQueue::take(Batch& batch, std::uint32_t timeoutMs)
{
    batch.storage_.clear();
    batch.next_ = 0;
    std::unique_lock lock(mutex_);
    arrived_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                      [&] { return !waiting_.empty() || closed_ || woken_; });
    woken_ = false;
    batch.storage_.swap(waiting_);
    return !closed_ || !batch.storage_.empty();
}

void DatagramQueue::close()
{
    const std::lock_guard lock(mutex_);
    closed_ = true;
    arrived_.notify_all();
}

void DatagramQueue::wake()
{
    const std::lock_guard lock(mutex_);
    woken_ = true;
    arrived_.notify_all();
}

std::uint64_t DatagramQueue::refused() const
{
    const std::lock_guard lock(mutex_);
    return refused_;
}

} // namespace zuLogSvc
