// Takes messages out of the queue and turns them into lines: the one thread that writes to the outputs.
#pragma once

#include "tools/zuLogSvc/datagram_queue.h"
#include "tools/zuLogSvc/followers.h"
#include "tools/zuLogSvc/output.h"
#include "tools/zuLogSvc/rate_limit.h"
#include "tools/zuLogSvc/sequence_tracker.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace zuLogSvc {

using Outputs = std::vector<std::unique_ptr<Output>>;

/// Counts since the start.
struct WriterCounts {
    std::uint64_t messages = 0;  ///< messages of clients written
    std::uint64_t bad = 0;       ///< datagrams at the message port that are no messages
    std::uint64_t missing = 0;   ///< numbers missing in clients' sequences
    std::uint64_t refused = 0;   ///< datagrams for which the queue had no room
    std::uint64_t lostLines = 0; ///< lines that an output lost
    std::uint64_t givenUp = 0;   ///< lines among them that an output did not take at the end
};

class MessageWriter {
public:
    /// `socket` sends to viewers. `trouble` is told of outputs that fail, on the writing thread.
    MessageWriter(DatagramQueue& queue, Followers& followers, std::shared_ptr<zuPlatform::DatagramSocket> socket,
                  const Clock& clock, Outputs outputs, std::function<void(const std::string&)> trouble);

    /// The thread's work; returns when the queue is closed and all that was in it is written.
    void run();

    /// New outputs from the next batch on; any thread. The old ones are flushed and closed by the writing thread.
    void replaceOutputs(Outputs outputs);

    WriterCounts counts() const;

private:
    void process(const QueuedDatagram& entry);
    void emit(const LogMessage& message, Bytes container);
    void ownMessage(std::uint32_t level, const std::string& text);
    void tellGap(const SequenceGap& gap);
    void housekeeping(bool final);
    void collectLost(Output& output);
    void takeNewOutputs();
    void flush();

    DatagramQueue& queue_;
    Followers& followers_;
    std::shared_ptr<zuPlatform::DatagramSocket> socket_;
    const Clock& clock_;
    Outputs outputs_; // the writing thread's
    std::function<void(const std::string&)> trouble_;

    std::mutex mutex_; // guards newOutputs_; leaf
    std::optional<Outputs> newOutputs_;

    std::uint64_t nowMs_ = 0;
    SequenceTracker tracker_;
    EventCounter bad_;
    EventCounter refused_;
    EventCounter lost_;
    EventGate gaps_{100, 10'000};
    std::uint64_t refusedSeen_ = 0;

    std::atomic<std::uint64_t> messageCount_{0}, badCount_{0}, missingCount_{0}, lostCount_{0}, givenUpCount_{0};
};

/// A message of the service itself, and its container.
LogMessage makeOwnMessage(std::uint32_t level, const std::string& text, const Clock& clock);

} // namespace zuLogSvc
