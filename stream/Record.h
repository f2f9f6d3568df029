// What a receiver keeps of a buffer beside the application's memory: which packets came, and what was asked for again.
#pragma once

#include "stream/Stream.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <limits>
#include <vector>

namespace zuStream {

constexpr std::uint64_t never = std::numeric_limits<std::uint64_t>::max();

/// A missing packet that was noticed.
struct Ask {
    std::uint64_t at = 0; ///< when it is to be asked for, or given up
    std::uint16_t attempts = 0;
    bool open = false; ///< neither given up nor received
};

class Record final : public Buffer {
public:
    enum class Place { withUser, queued, filling, filled };

    /// Room for so many packet ids, from 0, and parts.
    Record(void* data, std::size_t capacity, void* context, std::uint32_t ids, std::size_t maxParts)
        : Buffer(data, capacity, context), map((ids + 63) / 64), lengths(ids), asks(ids), parts(maxParts)
    {
    }

    std::uint32_t ids() const { return static_cast<std::uint32_t>(asks.size()); }

    /// Makes ready for a frame whose packets carry so many bytes each.
    void clear(std::size_t packetPayload)
    {
        frame_ = Frame();
        std::fill(map.begin(), map.end(), 0);
        payload = packetPayload;
        slots = static_cast<std::uint32_t>((capacity_ + packetPayload - 1) / packetPayload);
        lastId = 0;
        multiPart = false;
    }
    Frame& result() { return frame_; }
    bool has(std::uint32_t id) const { return (map[id / 64] >> (id % 64) & 1) != 0; }
    void set(std::uint32_t id) { map[id / 64] |= std::uint64_t{1} << (id % 64); }
    /// The first packet from `id` up to before `end` that isn't there; `end` if all are.
    std::uint32_t firstMissing(std::uint32_t id, std::uint32_t end) const
    {
        while (id < end) {
            const std::uint64_t missing = ~map[id / 64] >> (id % 64);
            if (missing != 0)
                return std::min(end, id + static_cast<std::uint32_t>(std::countr_zero(missing)));
            id = (id / 64 + 1) * 64;
        }
        return end;
    }

    std::uint32_t countMissing(std::uint32_t end) const
    {
        std::uint32_t count = 0;
        for (std::uint32_t id = firstMissing(0, end); id < end; id = firstMissing(id + 1, end))
            ++count;
        return count;
    }

    std::size_t payload = 0; ///< bytes of a packet
    std::uint32_t slots = 0; ///< payload packets that it holds; the ids 0 to slots + 1 have a place below
    std::vector<std::uint64_t> map;
    std::vector<std::uint16_t> lengths; ///< of the payload of packets that came
    std::vector<Ask> asks;
    std::vector<Part> parts;
    std::uint32_t lastId = 0; ///< of the frame, as far as known
    bool multiPart = false;   ///< data lies by parts and not by packets
    Place place = Place::withUser;
    Record* next = nullptr; ///< in the list that it is in
};

/// Buffers in a row, first in, first out.
class RecordList {
public:
    bool empty() const { return first_ == nullptr; }
    void push(Record& record)
    {
        record.next = nullptr;
        (first_ != nullptr ? last_->next : first_) = &record;
        last_ = &record;
    }
    Record* pop()
    {
        Record* const record = first_;
        if (record != nullptr)
            first_ = record->next;
        return record;
    }

private:
    Record* first_ = nullptr;
    Record* last_ = nullptr;
};

} // namespace zuStream
