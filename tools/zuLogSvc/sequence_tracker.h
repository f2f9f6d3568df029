// Finds numbers that are missing in the sequences of clients. One thread.
#pragma once

#include "platform/socket.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace zuLogSvc {

/// A client's sequence: where its datagrams come from, its process if it says so, and the command, as the two message
/// commands count apart.
struct SequenceKey {
    std::uint32_t address = 0;
    std::uint16_t port = 0; ///< address and port in network order
    std::uint16_t command = 0;
    std::uint64_t process = 0;
    friend auto operator<=>(const SequenceKey&, const SequenceKey&) = default;
};

/// Numbers `first` to `last` did not come.
struct SequenceGap {
    SequenceKey key;
    std::uint64_t first = 0;
    std::uint64_t last = 0;
    bool beforeStart = false; ///< before the first message seen of this client: it may have talked to nobody then
};

/// Threads of a client number and send their messages without a lock, so numbers may come late or twice. A number is
/// missing only when it has not come `patienceMs` after a higher one. Memory is bounded: at most `maxClients` sequences
/// (those that are silent for longest make room) with at most `maxOpen` open gaps each (the oldest is told early).
class SequenceTracker {
public:
    static constexpr std::uint64_t patienceMs = 1000;
    static constexpr std::size_t maxClients = 4096;
    static constexpr std::size_t maxOpen = 64;

    using Report = std::function<void(const SequenceGap&)>;
    explicit SequenceTracker(Report report) : report_(std::move(report)) {}

    /// A message with this number came. Number 0 is none.
    void seen(const SequenceKey& key, std::uint64_t number, std::uint64_t nowMs);

    /// The process whose message came last from there with that command; none if no process is known there.
    std::optional<std::uint64_t> latestProcess(std::uint32_t address, std::uint16_t port, std::uint16_t command) const;

    /// Tells the gaps that have been open for long enough, or all of them.
    void tell(std::uint64_t nowMs, bool all = false);

    /// Whether a gap waits to be told.
    bool waiting() const { return openGaps_ != 0; }
    std::size_t clients() const { return sequences_.size(); }

private:
    struct Gap {
        std::uint64_t first, last, sinceMs;
        bool beforeStart;
    };
    struct Sequence {
        std::uint64_t highest = 0;
        std::uint64_t lastSeenMs = 0;
        std::vector<Gap> open; // in the order in which they were found
    };

    void addGap(const SequenceKey& key, Sequence& sequence, Gap gap);
    void tellFirst(const SequenceKey& key, Sequence& sequence);
    void makeRoom();

    Report report_;
    std::map<SequenceKey, Sequence> sequences_;
    std::size_t openGaps_ = 0;
};

/// "process 812 (127.0.0.1:40000): messages 5 to 9 are missing" and the like.
std::string describe(const SequenceGap& gap);

} // namespace zuLogSvc
