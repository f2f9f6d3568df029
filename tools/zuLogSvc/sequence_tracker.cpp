// Sequence numbers of clients.
#include "tools/zuLogSvc/sequence_tracker.h"

#include "tools/zuLogSvc/protocol.h"

#include <algorithm>

namespace zuLogSvc {
namespace {

// A number so far below the highest is no late one: another process has taken over the port.
constexpr std::uint64_t farBehind = 100'000;

} // namespace

void SequenceTracker::seen(const SequenceKey& key, std::uint64_t number, std::uint64_t nowMs)
{
    if (number == 0)
        return;
    if (sequences_.size() >= maxClients && !sequences_.contains(key))
        makeRoom();
    const auto [place, isNew] = sequences_.try_emplace(key);
    Sequence& sequence = place->second;
    sequence.lastSeenMs = nowMs;
    if (number > sequence.highest) {
        if (number - sequence.highest > 1)
            addGap(key, sequence, {sequence.highest + 1, number - 1, nowMs, isNew});
        sequence.highest = number;
        return;
    }
    for (std::size_t i = 0; i < sequence.open.size(); ++i) {
        const Gap gap = sequence.open[i];
        if (number < gap.first || number > gap.last)
            continue;
        sequence.open.erase(sequence.open.begin() + static_cast<std::ptrdiff_t>(i));
        --openGaps_;
        if (number > gap.first)
            addGap(key, sequence, {gap.first, number - 1, gap.sinceMs, gap.beforeStart});
        if (number < gap.last)
            addGap(key, sequence, {number + 1, gap.last, gap.sinceMs, gap.beforeStart});
        return;
    }
    if (sequence.highest - number > farBehind) {
        while (!sequence.open.empty())
            tellFirst(key, sequence);
        sequence.highest = number;
    }
}

void SequenceTracker::tell(std::uint64_t nowMs, bool all)
{
    if (openGaps_ == 0)
        return;
    for (auto& [key, sequence] : sequences_)
        while (!sequence.open.empty() && (all || nowMs - sequence.open.front().sinceMs >= patienceMs))
            tellFirst(key, sequence);
}

void SequenceTracker::addGap(const SequenceKey& key, Sequence& sequence, Gap gap)
{
    // The parts of a split gap keep its age, and so its place.
    const auto place = std::upper_bound(sequence.open.begin(), sequence.open.end(), gap,
                                        [](const Gap& a, const Gap& b) { return a.sinceMs < b.sinceMs; });
    sequence.open.insert(place, gap);
    ++openGaps_;
    if (sequence.open.size() > maxOpen)
        tellFirst(key, sequence);
}

void SequenceTracker::tellFirst(const SequenceKey& key, Sequence& sequence)
{
    const Gap gap = sequence.open.front();
    sequence.open.erase(sequence.open.begin());
    --openGaps_;
    report_({key, gap.first, gap.last, gap.beforeStart});
}

std::optional<std::uint64_t> SequenceTracker::latestProcess(std::uint32_t address, std::uint16_t port,
                                                            std::uint16_t command) const
{
    std::optional<std::uint64_t> process;
    std::uint64_t latest = 0;
    for (auto place = sequences_.lower_bound({address, port, command, 0}); place != sequences_.end(); ++place) {
        const auto& [key, sequence] = *place;
        if (key.address != address || key.port != port || key.command != command)
            break;
        if (!process || sequence.lastSeenMs > latest) {
            process = key.process;
            latest = sequence.lastSeenMs;
        }
    }
    return process;
}

void SequenceTracker::makeRoom()
{
    // An eighth goes at once, so that a crowd of new clients does not pay for the search each time.
    std::vector<std::uint64_t> times;
    times.reserve(sequences_.size());
    for (const auto& [key, sequence] : sequences_)
        times.push_back(sequence.lastSeenMs);
    const auto eighth = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 8);
    std::nth_element(times.begin(), eighth, times.end());
    std::size_t toGo = times.size() / 8 + 1;
    for (auto place = sequences_.begin(); place != sequences_.end() && toGo != 0;) {
        if (place->second.lastSeenMs > *eighth) {
            ++place;
            continue;
        }
        while (!place->second.open.empty())
            tellFirst(place->first, place->second);
        place = sequences_.erase(place);
        --toGo;
    }
}

std::string describe(const SequenceGap& gap)
{
    char from[32] = "";
    zuPlatform::formatSocketAddress({gap.key.address, gap.key.port}, from, sizeof from);
    std::string out = gap.key.process != 0 ? "process " + std::to_string(gap.key.process) + " (" + from + ")"
                                           : std::string("client ") + from;
    const std::uint64_t count = gap.last - gap.first + 1;
    const char* kind = gap.key.command == cmdMessageWithRecords ? " with records" : "";
    if (count == 1)
        out += ": message " + std::to_string(gap.first) + kind;
    else
        out += ": " + std::to_string(count) + " messages" + kind + ", " + std::to_string(gap.first) + " to " +
               std::to_string(gap.last) + ",";
    if (gap.beforeStart)
        return out + " not seen: sent before this log service started, or lost";
    return out + (count == 1 ? " is missing" : " are missing");
}

} // namespace zuLogSvc
