// Frames from packets: which buffer a packet goes to and where, what is missing, when it is asked for again, and when a
// frame has ended. Knows neither sockets nor clocks; times are nanoseconds of a steady clock. One thread at a time.
#pragma once

#include "stream/Record.h"
#include "stream/Stream.h"
#include "stream/gvsp.h"

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace zuStream {

/// Where an assembler gets empty buffers from, and what it has done.
class Feed {
public:
    virtual Record* takeEmpty() = 0;           ///< null if none is queued
    virtual void giveBack(Record& record) = 0; ///< unfilled, into the queue again
    virtual void deliver(Record& record) = 0;
    virtual void ask(const gvsp::Resend& resend) = 0;

protected:
    ~Feed() = default;
};

/// Where the payload of a packet that is probably next belongs.
struct Target {
    std::uint8_t* data = nullptr; ///< null: none, as for a leader
    std::size_t size = 0;
    std::uint64_t block = 0;
    std::uint32_t packet = 0;
    bool extended = false;
};

/// Data bytes of a full generic payload packet.
std::size_t payloadOf(unsigned packetSize, bool extended);
/// Bytes of the largest datagram that is taken.
std::size_t largestDatagram(unsigned packetSize);
/// A record for memory of this size; `context` is the application's.
std::unique_ptr<Record> makeRecord(unsigned packetSize, void* memory, std::size_t size, void* context);

class Assembler {
public:
    Assembler(const Settings& settings, Feed& feed, Statistics& statistics);

    /// One datagram of the stream's sender. `body` is what lies behind the header, and may lie where a target was.
    void add(const gvsp::Header& header, std::span<const std::uint8_t> body, std::uint64_t now);

    /// Asks for what is due and ends what is given up.
    void tick(std::uint64_t now);
    /// When `tick` has something to do, at the latest; `never` if nothing.
    std::uint64_t deadline() const { return deadline_; }

    /// The targets of the next packets, if they come in order. Nothing may be laid there after the next `add`s but what
    /// those read.
    void plan(std::span<Target> targets);

    /// Lets go of all buffers, for `record` to be called with each.
    template <typename Function>
    void abandon(Function record);

private:
    struct Assembly {
        bool used = false;
        bool done = false;     ///< waits for older ones
        bool overdue = false;  ///< all of it should be there: a newer one has begun, or it fell silent
        bool toTheEnd = false; ///< its last noticed packet stands for all that follow
        bool extended = false;
        bool variable = false; ///< packets of any length, to be moved together at the end
        std::uint64_t block = 0;
        Record* record = nullptr; ///< null while nothing came of it
        Ask ghostAsk;             ///< for its leader, then
        std::uint32_t received = 0;
        std::uint32_t frontier = 0;   ///< ids below are there or noticed as missing
        std::uint32_t highest = 0;    ///< of those that came
        std::uint32_t trailerId = 0;  ///< 0: not known
        std::uint32_t expectedId = 0; ///< of the trailer, by the leader
        std::uint32_t open = 0;       ///< asks that are open
        std::uint32_t asked = 0;
        std::uint32_t shorts = 0;  ///< payload packets that weren't full
        std::size_t end = 0;       ///< of the data
        std::size_t partBytes = 0; ///< that came into parts
        std::uint64_t nextAsk = never;
        std::uint64_t lastNew = 0;
        std::vector<std::uint8_t> trailer; ///< its body, kept for a leader that comes later
    };
    struct Ended {
        std::uint64_t block = 0; ///< 0: none
        bool extended = false;
        bool hadLeader = false;
        bool unwanted = false;
        std::uint64_t timestamp = 0;
        std::uint64_t at = 0;
    };
    struct Early {
        gvsp::Header header;
        std::size_t size = 0;
    };

    std::size_t payload(bool extended) const { return extended ? payloadExtended_ : payload16_; }
    std::uint32_t limit(const Assembly& frame) const; ///< behind the last id that is looked after
    std::uint32_t lastId(const Assembly& frame) const;
    Assembly* find(std::uint64_t block, bool extended);
    Assembly* open(const gvsp::Header& header, std::span<const std::uint8_t> body, std::uint64_t now);
    Assembly& occupy(std::uint64_t block, bool extended, std::uint64_t now);
    bool giveBuffer(Assembly& frame, std::uint64_t now);
    void restart(std::uint64_t now);
    void takeLeader(Assembly& frame, const gvsp::Header& header, std::span<const std::uint8_t> body, std::uint64_t now);
    void takeTrailer(Assembly& frame, const gvsp::Header& header, std::span<const std::uint8_t> body,
                     std::uint64_t now);
    void takeAllIn(Assembly& frame, const gvsp::Header& header, std::span<const std::uint8_t> body, std::uint64_t now);
    void takePayload(Assembly& frame, const gvsp::Header& header, std::span<const std::uint8_t> body,
                     std::uint64_t now);
    void takePart(Assembly& frame, const gvsp::Header& header, std::span<const std::uint8_t> body, std::uint64_t now);
    void takeRefusal(Assembly& frame, const gvsp::Header& header, std::uint64_t now);
    void keepEarly(const gvsp::Header& header, std::span<const std::uint8_t> body);
    void replayEarly(Assembly& frame, std::uint64_t now);
    void layParts(Assembly& frame);
    bool isNew(Assembly& frame, const gvsp::Header& header);
    void arrived(Assembly& frame, std::uint32_t id, std::uint64_t now);
    void notice(Assembly& frame, std::uint32_t end, std::uint64_t now);
    void noticeRest(Assembly& frame, std::uint64_t now);
    void giveUp(Assembly& frame, Ask& ask);
    void forgetBeyond(Assembly& frame, std::uint32_t end);
    void askFor(Assembly& frame, std::uint64_t now);
    void askForGhost(Assembly& frame, std::uint64_t now);
    bool spend(Assembly& frame, std::uint64_t now);
    std::uint64_t silentAt(const Assembly& frame) const;
    bool isComplete(const Assembly& frame) const;
    bool isOver(const Assembly& frame, std::uint64_t now) const;
    void finish(Assembly& frame, std::uint64_t now);
    void settle(Assembly& frame);
    void compact(Assembly& frame);
    void remember(std::uint64_t block, bool extended, const Frame* result, bool unwanted, std::uint64_t now);
    void releaseDone();
    void reckon(std::uint64_t now);

    const Settings settings_;
    Feed& feed_;
    Statistics& statistics_;
    const std::size_t payload16_;
    const std::size_t payloadExtended_;
    const std::uint64_t delay_, timeout_, pace_, frameTimeout_;

    std::vector<Assembly> frames_;
    std::vector<Assembly*> order_; ///< those in use, oldest block first
    Assembly* current_ = nullptr;  ///< the last one found
    std::uint64_t newest_ = 0;     ///< block id; 0: none yet
    bool generic_ = true;          ///< the last payload was, so targets make sense
    bool newestExtended_ = false;
    std::uint64_t lastPacket_ = 0;   ///< when
    std::uint32_t usualTrailer_ = 0; ///< id of the trailer of the last frame that had one
    std::array<Ended, 32> ended_{};
    std::size_t nextEnded_ = 0;
    Record* planned_ = nullptr; ///< empty buffer that targets lie in, for the frame behind the newest
    std::uint64_t plannedBlock_ = 0;
    bool plannedLost_ = false; ///< the buffer went to another frame since
    std::vector<Early> early_;
    std::vector<std::uint8_t> earlyBytes_;
    std::size_t earlyCount_ = 0;
    std::uint64_t paceStart_ = 0;
    unsigned paceLeft_ = 0;
    std::uint64_t deadline_ = never;
};

template <typename Function>
void Assembler::abandon(Function record)
{
    for (Assembly* const frame : order_) {
        if (frame->record != nullptr)
            record(*frame->record);
        remember(frame->block, frame->extended, nullptr, true, lastPacket_);
        frame->used = false;
        frame->record = nullptr;
    }
    order_.clear();
    current_ = nullptr;
    if (planned_ != nullptr)
        record(*planned_);
    planned_ = nullptr;
    deadline_ = never;
}

} // namespace zuStream
