// The way from the receiving threads to the writing thread. Receivers never wait for it: what does not fit is refused.
#pragma once

#include "platform/socket.h"
#include "tools/zuLogSvc/packet_decoder.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <vector>

namespace zuLogSvc {

/// One entry, as the writer sees it; `bytes` points into the batch.
struct QueuedDatagram {
    enum class Kind : std::uint8_t { message, own }; ///< own: a container of the service's own making
    Kind kind = Kind::message;
    zuPlatform::SocketAddress from;
    Bytes bytes;
};

/// A batch of entries in the order of their arrival.
class Batch {
public:
    bool empty() const { return next_ == storage_.size(); }
    /// Takes the next entry; false at the end.
    bool next(QueuedDatagram& entry);

private:
    friend class DatagramQueue;
    std::vector<std::uint8_t> storage_;
    std::size_t next_ = 0;
};

/// Two buffers that change places, so that nothing is allocated per datagram once both have grown. Any threads push,
/// one thread takes.
class DatagramQueue {
public:
    /// `limit`: bytes that may wait, entry heads included. What the writer has taken does not count.
    explicit DatagramQueue(std::size_t limit) : limit_(limit) {}

    /// False when there is no room, or the queue is closed; the refused entry is counted.
    bool push(const QueuedDatagram& entry);

    /// Waits up to `timeoutMs` for entries and exchanges them for the used batch. False when the queue is closed and
    /// nothing is left.
    bool take(Batch& batch, std::uint32_t timeoutMs);

    /// No more entries; the writer still gets those that wait.
    void close();

    /// Wakes the writer as if an entry had come.
    void wake();

    /// Number of entries refused so far.
    std::uint64_t refused() const;

private:
    const std::size_t limit_;
    mutable std::mutex mutex_; // guards all below; leaf
    std::condition_variable arrived_;
    std::vector<std::uint8_t> waiting_;
    std::uint64_t refused_ = 0;
    bool closed_ = false;
    bool woken_ = false;
};

} // namespace zuLogSvc
