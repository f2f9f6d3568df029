#include "stream/Assembler.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace zuStream {

namespace {

/// Block ids left out that count as lost frames; a longer way is a jump.
constexpr std::uint64_t longestGap = 1000;
constexpr std::size_t earlyRoom = 16;
constexpr std::size_t leaderBase = 12;
constexpr std::size_t leaderPart = 48;
constexpr std::size_t mostParts = 255;

std::uint64_t nanoseconds(Microseconds time) { return static_cast<std::uint64_t>(time.count()) * 1000; }

std::uint64_t ceilDivide(std::uint64_t value, std::uint64_t by) { return value / by + (value % by != 0 ? 1 : 0); }

/// How far `to` lies ahead of `from`; ids of 16 bits leave out 0.
std::uint64_t ahead(std::uint64_t from, std::uint64_t to, bool extended)
{
    return extended ? to - from : (to + gvsp::lastBlock16 - from) % gvsp::lastBlock16;
}

bool isBehind(std::uint64_t distance, bool extended)
{
    return distance > (extended ? ~std::uint64_t{0} : gvsp::lastBlock16) / 2;
}

std::uint64_t nextBlock(std::uint64_t block, bool extended)
{
    return block == (extended ? ~std::uint64_t{0} : gvsp::lastBlock16) ? 1 : block + 1;
}

std::uint64_t toNanoseconds(std::uint64_t ticks, std::uint64_t frequency)
{
    constexpr std::uint64_t second = 1000000000;
    return frequency == 0 ? 0 : ticks / frequency * second + ticks % frequency * second / frequency;
}

std::size_t partsOf(unsigned packetSize)
{
    const std::size_t body = packetSize - gvsp::ipUdpSize - gvsp::headerSize;
    return body < leaderBase ? 0 : std::min((body - leaderBase) / leaderPart, mostParts);
}

bool beginsFrame(gvsp::Format format) { return format == gvsp::leader || format == gvsp::allIn; }

} // namespace

std::size_t payloadOf(unsigned packetSize, bool extended)
{
    return packetSize - gvsp::ipUdpSize - (extended ? gvsp::extendedHeaderSize : gvsp::headerSize);
}

std::size_t largestDatagram(unsigned packetSize)
{
    // A leader may be larger than the packets that follow it.
    constexpr std::size_t leaderRoom = 576;
    return std::max(packetSize - gvsp::ipUdpSize, leaderRoom);
}

std::unique_ptr<Record> makeRecord(unsigned packetSize, void* memory, std::size_t size, void* context)
{
    // The most packets come with extended ids and parts: each part may end in one that isn't full.
    const std::size_t least = payloadOf(packetSize, true) - gvsp::multiPartHeaderSize;
    const std::size_t parts = partsOf(packetSize);
    const std::uint64_t ids = ceilDivide(size, least) + parts + 2;
    if (ids > gvsp::lastPacket32 - 64)
        throw std::invalid_argument("the buffer is too large for packets of this size");
    return std::make_unique<Record>(memory, size, context, static_cast<std::uint32_t>(ids), parts);
}

Assembler::Assembler(const Settings& settings, Feed& feed, Statistics& statistics)
    : settings_(settings), feed_(feed), statistics_(statistics), payload16_(payloadOf(settings.packetSize, false)),
      payloadExtended_(payloadOf(settings.packetSize, true)), delay_(nanoseconds(settings.resend.delay)),
      timeout_(nanoseconds(settings.resend.timeout)), pace_(nanoseconds(settings.resend.pace)),
      frameTimeout_(nanoseconds(settings.frameTimeout)), frames_(settings.framesAtOnce), early_(earlyRoom),
      earlyBytes_(earlyRoom * settings.packetSize), paceLeft_(settings.resend.burst)
{
    order_.reserve(frames_.size());
    for (Assembly& frame : frames_)
        frame.trailer.reserve(largestDatagram(settings.packetSize));
}

void Assembler::add(const gvsp::Header& header, std::span<const std::uint8_t> body, std::uint64_t now)
{
    Assembly* frame = find(header.block, header.extended);
    if (frame == nullptr)
        frame = open(header, body, now);
    else if (frame->record == nullptr && !giveBuffer(*frame, now))
        frame = nullptr;
    lastPacket_ = now;
    if (frame == nullptr)
        return;
    if (frame->done) {
        ++(header.packet < frame->record->ids() && frame->record->has(header.packet) ? statistics_.duplicates
                                                                                     : statistics_.late);
        return;
    }
    if ((header.status & gvsp::status::errorBit) != 0) {
        frame->record->result().status = header.status;
        if (body.empty()) {
            takeRefusal(*frame, header, now);
            return;
        }
    }
    switch (header.format) {
    case gvsp::leader:
        takeLeader(*frame, header, body, now);
        break;
    case gvsp::trailer:
        takeTrailer(*frame, header, body, now);
        break;
    case gvsp::allIn:
        takeAllIn(*frame, header, body, now);
        break;
    case gvsp::multiPart:
        takePart(*frame, header, body, now);
        break;
    default:
        takePayload(*frame, header, body, now);
        break;
    }
    if (isComplete(*frame)) {
        finish(*frame, now);
        releaseDone();
    }
}

// Which frame

Assembler::Assembly* Assembler::find(std::uint64_t block, bool extended)
{
    if (current_ != nullptr && current_->block == block && current_->extended == extended)
        return current_;
    for (Assembly* const frame : order_)
        if (frame->block == block && frame->extended == extended)
            return current_ = frame;
    return nullptr;
}

Assembler::Assembly* Assembler::open(const gvsp::Header& header, std::span<const std::uint8_t> body, std::uint64_t now)
{
    const bool begins = beginsFrame(header.format);
    const std::uint64_t timestamp = begins ? gvsp::leaderTimestamp(body) : 0;
    bool anew = newest_ != 0 && header.extended != newestExtended_;
    for (const Ended& ended : ended_) {
        if (ended.block != header.block || ended.extended != header.extended || now - ended.at >= 2 * frameTimeout_)
            continue;
        // The same block again, or another of a camera that counts anew?
        if (!begins || !ended.hadLeader || ended.timestamp == timestamp) {
            ++(ended.unwanted ? statistics_.unwanted : statistics_.late);
            return nullptr;
        }
        anew = true;
    }
    std::uint64_t gap = 0;
    if (newest_ != 0 && !anew) {
        const std::uint64_t distance = ahead(newest_, header.block, header.extended);
        anew = distance == 0 || isBehind(distance, header.extended) || distance > longestGap;
        gap = anew ? 0 : distance - 1;
        // Only ahead can what has no leader be told from a packet that is late.
        const bool jump = distance != 0 && !isBehind(distance, header.extended);
        if (anew && !jump && !begins && now - lastPacket_ < 2 * frameTimeout_) {
            ++statistics_.late;
            return nullptr;
        }
    } else if (anew && !begins) {
        ++statistics_.late;
        return nullptr;
    }
    if (anew)
        restart(now);
    for (Assembly* const older : order_)
        older->overdue = true;
    // No frame that is there gives way to one that may never have been.
    const bool fetch = settings_.resend.enabled && (header.flags & gvsp::previousBlockDropped) == 0;
    if (fetch && gap < frames_.size() - order_.size()) {
        std::uint64_t block = newest_;
        for (; gap > 0; --gap) {
            block = nextBlock(block, header.extended);
            Assembly& lost = occupy(block, header.extended, now);
            lost.ghostAsk = {now + delay_, 0, true};
        }
    }
    statistics_.framesSkipped += gap;
    newest_ = header.block;
    newestExtended_ = header.extended;
    Assembly& frame = occupy(header.block, header.extended, now);
    if (giveBuffer(frame, now))
        return &frame;
    if (begins) {
        ended_[(nextEnded_ + ended_.size() - 1) % ended_.size()].hadLeader = true;
        ended_[(nextEnded_ + ended_.size() - 1) % ended_.size()].timestamp = timestamp;
    }
    return nullptr;
}

/// A place for a frame, without a buffer yet; the oldest gives way if there is none.
Assembler::Assembly& Assembler::occupy(std::uint64_t block, bool extended, std::uint64_t now)
{
    while (order_.size() == frames_.size()) {
        const auto oldest =
            std::find_if(order_.begin(), order_.end(), [](const Assembly* frame) { return !frame->done; });
        finish(**oldest, now);
        releaseDone();
    }
    Assembly& frame = *std::find_if(frames_.begin(), frames_.end(), [](const Assembly& other) { return !other.used; });
    frame.used = true;
    frame.done = frame.overdue = frame.toTheEnd = frame.variable = false;
    frame.extended = extended;
    frame.block = block;
    frame.record = nullptr;
    frame.ghostAsk = {};
    frame.received = frame.frontier = frame.highest = frame.trailerId = frame.expectedId = 0;
    frame.open = frame.asked = frame.shorts = 0;
    frame.end = frame.partBytes = 0;
    frame.nextAsk = never;
    frame.lastNew = now;
    frame.trailer.clear();
    order_.push_back(&frame);
    current_ = &frame;
    return frame;
}

/// False if there is none: the frame is gone then.
bool Assembler::giveBuffer(Assembly& frame, std::uint64_t now)
{
    const bool meant = plannedBlock_ == frame.block && newestExtended_ == frame.extended;
    if (meant)
        frame.record = std::exchange(planned_, nullptr);
    if (frame.record == nullptr && !(meant && plannedLost_))
        frame.record = feed_.takeEmpty();
    // The last one is taken for whatever comes. What its own frame may have in it already is lost then.
    if (frame.record == nullptr && planned_ != nullptr) {
        frame.record = std::exchange(planned_, nullptr);
        plannedLost_ = true;
    }
    if (frame.record == nullptr) {
        ++statistics_.framesWithoutBuffer;
        ++statistics_.unwanted;
        remember(frame.block, frame.extended, nullptr, true, now);
        order_.erase(std::find(order_.begin(), order_.end(), &frame));
        frame.used = false;
        current_ = nullptr;
        return false;
    }
    frame.record->clear(payload(frame.extended));
    Frame& result = frame.record->result();
    result.blockId = frame.block;
    result.extendedId = frame.extended;
    result.firstPacketNs = now;
    frame.lastNew = now;
    if (frame.ghostAsk.open) { // it was lost whole, and its leader asked for
        frame.record->asks[0] = frame.ghostAsk;
        frame.nextAsk = frame.ghostAsk.at;
        frame.frontier = frame.open = 1;
        frame.overdue = true;
    }
    return true;
}

void Assembler::restart(std::uint64_t now)
{
    ++statistics_.restarts;
    for (Assembly* const frame : order_)
        if (!frame->done)
            finish(*frame, now);
    releaseDone();
    ended_.fill({});
}

void Assembler::remember(std::uint64_t block, bool extended, const Frame* result, bool unwanted, std::uint64_t now)
{
    ended_[nextEnded_] = {
        block, extended, result != nullptr && result->hasLeader, unwanted, result != nullptr ? result->timestamp : 0,
        now};
    nextEnded_ = (nextEnded_ + 1) % ended_.size();
}

// What a packet brings

bool Assembler::isNew(Assembly& frame, const gvsp::Header& header)
{
    if (!frame.record->has(header.packet))
        return true;
    ++statistics_.duplicates;
    return false;
}

void Assembler::arrived(Assembly& frame, std::uint32_t id, std::uint64_t now)
{
    Record& record = *frame.record;
    if (id < frame.frontier) {
        Ask& ask = record.asks[id];
        giveUp(frame, ask);
        if (ask.attempts != 0)
            ++statistics_.packetsResent;
    } else {
        notice(frame, id, now);
        frame.frontier = id + 1;
    }
    record.set(id);
    ++frame.received;
    frame.highest = std::max(frame.highest, id);
    frame.lastNew = now;
    record.result().lastPacketNs = now;
}

void Assembler::takeLeader(Assembly& frame, const gvsp::Header& header, std::span<const std::uint8_t> body,
                           std::uint64_t now)
{
    Record& record = *frame.record;
    Frame& result = record.result();
    if (header.packet == 0 && !isNew(frame, header))
        return;
    if (header.packet != 0 || gvsp::parseLeader(header, body, result, record.parts) == 0) {
        ++statistics_.malformed;
        return;
    }
    result.hasLeader = true;
    result.timestampNs = toNanoseconds(result.timestamp, settings_.tickFrequency);
    if (!frame.trailer.empty())
        gvsp::parseTrailer(frame.trailer, result, record.parts);
    std::uint64_t packets = 0;
    if (result.payloadType == payload::multiPart || result.payloadType == (payload::multiPart | payload::chunkBit)) {
        layParts(frame);
        if (!result.hasChunks)
            for (std::size_t i = 0; i < result.partCount; ++i)
                packets += ceilDivide(record.parts[i].size, record.payload - gvsp::multiPartHeaderSize);
    } else if (!result.hasChunks) {
        const std::uint64_t size = result.payloadType == payload::image ? result.image.size() : result.announcedSize;
        packets = ceilDivide(size, record.payload);
        if (size > record.capacity())
            result.tooLarge = true;
    }
    // Without trailer yet; ids beyond the buffer aren't looked after in any case.
    if (packets != 0 && packets <= record.slots)
        frame.expectedId = static_cast<std::uint32_t>(packets) + 1;
    arrived(frame, 0, now);
    if (record.multiPart)
        replayEarly(frame, now);
}

/// Parts lie one behind the other.
void Assembler::layParts(Assembly& frame)
{
    Record& record = *frame.record;
    Frame& result = record.result();
    record.multiPart = true;
    record.slots = record.ids() - 2;
    std::uint64_t offset = 0;
    for (std::size_t i = 0; i < result.partCount; ++i) {
        Part& part = record.parts[i];
        part.offset = static_cast<std::size_t>(std::min<std::uint64_t>(offset, record.capacity()));
        offset += part.size;
    }
    result.parts = record.parts.data();
    if (offset > record.capacity())
        result.tooLarge = true;
}

void Assembler::takeTrailer(Assembly& frame, const gvsp::Header& header, std::span<const std::uint8_t> body,
                            std::uint64_t now)
{
    Record& record = *frame.record;
    Frame& result = record.result();
    if (result.hasTrailer && header.packet == frame.trailerId) {
        ++statistics_.duplicates;
        return;
    }
    if (result.hasTrailer || header.packet <= frame.highest || gvsp::parseTrailer(body, result, record.parts) == 0) {
        ++statistics_.malformed;
        return;
    }
    if (!result.hasLeader)
        frame.trailer.assign(body.begin(), body.end());
    result.hasTrailer = true;
    frame.trailerId = usualTrailer_ = header.packet;
    if (header.packet <= record.slots + 1) {
        forgetBeyond(frame, header.packet + 1);
        arrived(frame, header.packet, now);
    } else {
        result.tooLarge = true;
        forgetBeyond(frame, limit(frame));
        notice(frame, limit(frame), now);
        frame.lastNew = now;
    }
}

void Assembler::takeAllIn(Assembly& frame, const gvsp::Header& header, std::span<const std::uint8_t> body,
                          std::uint64_t now)
{
    Record& record = *frame.record;
    Frame& result = record.result();
    if (header.packet == 0 && !isNew(frame, header))
        return;
    std::size_t at = 0;
    if (header.packet == 0 && frame.frontier <= 1)
        at = gvsp::parseLeader(header, body, result, record.parts);
    const std::size_t trailer = at != 0 ? gvsp::parseTrailer(body.subspan(at), result, record.parts) : 0;
    if (trailer == 0) {
        ++statistics_.malformed;
        return;
    }
    const std::span<const std::uint8_t> data = body.subspan(at + trailer);
    frame.end = std::min(data.size(), record.capacity());
    if (frame.end != 0)
        std::memmove(record.data(), data.data(), frame.end);
    if (frame.end < data.size()) {
        result.tooLarge = true;
        ++statistics_.beyondBuffer;
    }
    result.timestampNs = toNanoseconds(result.timestamp, settings_.tickFrequency);
    result.packetFormat = gvsp::allIn;
    result.hasLeader = result.hasTrailer = true;
    arrived(frame, 0, now);
}

void Assembler::takePayload(Assembly& frame, const gvsp::Header& header, std::span<const std::uint8_t> body,
                            std::uint64_t now)
{
    Record& record = *frame.record;
    Frame& result = record.result();
    const std::uint32_t id = header.packet;
    if (id == 0 || body.empty() || body.size() > record.payload || record.multiPart ||
        (result.hasTrailer && id >= frame.trailerId)) {
        ++statistics_.malformed;
        return;
    }
    if (id > record.slots) {
        ++statistics_.beyondBuffer;
        result.tooLarge = true;
        forgetBeyond(frame, limit(frame));
        notice(frame, limit(frame), now);
        frame.lastNew = now;
        return;
    }
    if (!isNew(frame, header))
        return;
    const std::size_t offset = (id - 1) * record.payload;
    const std::size_t size = std::min(body.size(), record.capacity() - offset);
    if (body.data() != record.data() + offset)
        std::memmove(record.data() + offset, body.data(), size);
    if (size < body.size()) {
        ++statistics_.beyondBuffer;
        result.tooLarge = true;
    }
    result.packetFormat = header.format;
    frame.variable = frame.variable || header.format != gvsp::generic;
    generic_ = header.format == gvsp::generic;
    record.lengths[id] = static_cast<std::uint16_t>(size);
    frame.shorts += size < record.payload ? 1 : 0;
    frame.end = std::max(frame.end, offset + size);
    arrived(frame, id, now);
}

void Assembler::takePart(Assembly& frame, const gvsp::Header& header, std::span<const std::uint8_t> body,
                         std::uint64_t now)
{
    Record& record = *frame.record;
    Frame& result = record.result();
    generic_ = false;
    if (!result.hasLeader) { // only that tells where parts lie
        keepEarly(header, body);
        notice(frame, 1, now);
        frame.lastNew = now;
        return;
    }
    gvsp::MultiPartHeader where;
    const bool good = record.multiPart && header.packet != 0 &&
                      !(result.hasTrailer && header.packet >= frame.trailerId) && header.packet <= record.slots &&
                      gvsp::parseMultiPart(body, where) && where.part < result.partCount;
    const std::span<const std::uint8_t> data = body.subspan(std::min(body.size(), gvsp::multiPartHeaderSize));
    if (!good || data.empty() || where.offset > record.parts[where.part].size ||
        data.size() > record.parts[where.part].size - where.offset) {
        ++statistics_.malformed;
        return;
    }
    if (!isNew(frame, header))
        return;
    const Part& part = record.parts[where.part];
    const std::size_t room = record.capacity() - part.offset;
    const std::size_t size = where.offset >= room ? 0 : std::min<std::size_t>(data.size(), room - where.offset);
    if (size != 0) {
        const std::size_t offset = part.offset + static_cast<std::size_t>(where.offset);
        std::memcpy(record.data() + offset, data.data(), size);
        frame.end = std::max(frame.end, offset + size);
    }
    if (size < data.size())
        ++statistics_.beyondBuffer;
    frame.partBytes += size;
    result.packetFormat = gvsp::multiPart;
    arrived(frame, header.packet, now);
}

void Assembler::keepEarly(const gvsp::Header& header, std::span<const std::uint8_t> body)
{
    if (earlyCount_ == early_.size() || body.size() > settings_.packetSize)
        return; // it is missing then, and asked for again
    early_[earlyCount_].header = header;
    early_[earlyCount_].size = body.size();
    std::copy(body.begin(), body.end(),
              earlyBytes_.begin() + static_cast<std::ptrdiff_t>(earlyCount_ * settings_.packetSize));
    ++earlyCount_;
}

void Assembler::replayEarly(Assembly& frame, std::uint64_t now)
{
    for (std::size_t i = 0; i < earlyCount_; ++i)
        if (early_[i].header.block == frame.block && early_[i].header.extended == frame.extended)
            takePart(frame, early_[i].header, {&earlyBytes_[i * settings_.packetSize], early_[i].size}, now);
}

/// The camera says of a packet why it doesn't come.
void Assembler::takeRefusal(Assembly& frame, const gvsp::Header& header, std::uint64_t now)
{
    Record& record = *frame.record;
    const std::uint32_t id = header.packet;
    if (id >= limit(frame) || record.has(id))
        return;
    notice(frame, id + 1, now);
    if (header.status == gvsp::status::notYetAvailable || header.status == gvsp::status::temporarilyUnavailable) {
        record.asks[id].at = now + timeout_;
        frame.nextAsk = std::min(frame.nextAsk, record.asks[id].at);
        return;
    }
    const std::uint32_t first = header.status == gvsp::status::allBeforeRemoved ? 0 : id;
    for (std::uint32_t k = record.firstMissing(first, id + 1); k <= id; k = record.firstMissing(k + 1, id + 1)) {
        statistics_.packetsUnavailable += record.asks[k].open ? 1 : 0;
        giveUp(frame, record.asks[k]);
    }
}

// What is missing

std::uint32_t Assembler::limit(const Assembly& frame) const
{
    return frame.record->slots + (frame.record->frame().tooLarge ? 1 : 2);
}

/// The trailer's id, as far as known.
std::uint32_t Assembler::lastId(const Assembly& frame) const
{
    if (frame.record->frame().hasTrailer)
        return frame.trailerId;
    return std::max(frame.expectedId != 0 ? frame.expectedId : usualTrailer_, frame.highest + 1);
}

void Assembler::giveUp(Assembly& frame, Ask& ask)
{
    frame.open -= ask.open ? 1 : 0;
    ask.open = false;
}

/// What is missing before `end` is missed from now on.
void Assembler::notice(Assembly& frame, std::uint32_t end, std::uint64_t now)
{
    end = std::min(end, limit(frame));
    if (end <= frame.frontier)
        return;
    const std::uint64_t at = now + (settings_.resend.enabled ? delay_ : timeout_);
    for (std::uint32_t id = frame.frontier; id < end; ++id)
        frame.record->asks[id] = {at, 0, true};
    frame.open += end - frame.frontier;
    frame.nextAsk = std::min(frame.nextAsk, at);
    frame.frontier = end;
}

void Assembler::noticeRest(Assembly& frame, std::uint64_t now)
{
    const bool known = frame.record->frame().hasTrailer || frame.expectedId != 0 || usualTrailer_ != 0;
    if (known) {
        notice(frame, lastId(frame) + 1, now);
    } else if (frame.frontier == 0 || frame.record->has(frame.frontier - 1)) {
        frame.toTheEnd = true;
        notice(frame, frame.frontier + 1, now);
    }
}

void Assembler::forgetBeyond(Assembly& frame, std::uint32_t end)
{
    for (std::uint32_t id = end; id < frame.frontier; ++id)
        giveUp(frame, frame.record->asks[id]);
    frame.frontier = std::min(frame.frontier, end);
}

/// Takes one packet from what may be asked for in this time and for this frame.
bool Assembler::spend(Assembly& frame, std::uint64_t now)
{
    if (now - paceStart_ >= pace_) {
        paceStart_ = now;
        paceLeft_ = settings_.resend.burst;
    }
    if (paceLeft_ == 0)
        return false;
    --paceLeft_;
    ++frame.asked;
    ++statistics_.packetsAsked;
    return true;
}

void Assembler::askFor(Assembly& frame, std::uint64_t now)
{
    Record& record = *frame.record;
    gvsp::Resend run{settings_.resend.channel, frame.block, frame.extended};
    bool any = false;
    const auto send = [&] {
        if (!any)
            return;
        run.toTheEnd = frame.toTheEnd && !record.frame().hasTrailer && run.last + 1 == frame.frontier;
        ++statistics_.requests;
        feed_.ask(run);
        any = false;
    };
    frame.nextAsk = never;
    const std::uint32_t end = frame.frontier;
    for (std::uint32_t id = record.firstMissing(0, end); id < end; id = record.firstMissing(id + 1, end)) {
        Ask& ask = record.asks[id];
        if (!ask.open)
            continue;
        if (ask.at > now) {
            frame.nextAsk = std::min(frame.nextAsk, ask.at);
            continue;
        }
        if (!settings_.resend.enabled || ask.attempts >= settings_.resend.attempts ||
            frame.asked >= settings_.resend.limit) {
            giveUp(frame, ask);
            continue;
        }
        if (!spend(frame, now)) {
            frame.nextAsk = std::min(frame.nextAsk, paceStart_ + pace_);
            break;
        }
        ++ask.attempts;
        ask.at = now + timeout_;
        frame.nextAsk = std::min(frame.nextAsk, ask.at);
        if (any && id == run.last + 1) {
            run.last = id;
        } else {
            send();
            run.first = run.last = id;
            any = true;
        }
    }
    send();
}

/// A frame of which nothing came: its leader tells what else there is.
void Assembler::askForGhost(Assembly& frame, std::uint64_t now)
{
    Ask& ask = frame.ghostAsk;
    if (now < ask.at)
        return;
    if (ask.attempts >= settings_.resend.attempts) {
        finish(frame, now);
    } else if (spend(frame, now)) {
        ++ask.attempts;
        ask.at = now + timeout_;
        ++statistics_.requests;
        feed_.ask({settings_.resend.channel, frame.block, frame.extended, 0, 0, false});
    } else {
        ask.at = paceStart_ + pace_;
    }
}

// The end of a frame

bool Assembler::isComplete(const Assembly& frame) const
{
    const Frame& result = frame.record->frame();
    return result.hasLeader && result.hasTrailer && !result.tooLarge && frame.received == frame.trailerId + 1;
}

/// When its silence means that the rest is lost. A leader alone may be waiting for its exposure.
std::uint64_t Assembler::silentAt(const Assembly& frame) const
{
    const bool growing = frame.highest != 0 && !frame.record->frame().hasTrailer;
    return settings_.resend.enabled && growing ? frame.lastNew + timeout_ : never;
}

bool Assembler::isOver(const Assembly& frame, std::uint64_t now) const
{
    if (now >= frame.lastNew + frameTimeout_)
        return true;
    return (frame.overdue || frame.record->frame().hasTrailer) && frame.open == 0 && now >= frame.lastNew + delay_;
}

void Assembler::tick(std::uint64_t now)
{
    for (Assembly* const frame : order_) {
        if (frame->done)
            continue;
        if (frame->record == nullptr) {
            askForGhost(*frame, now);
            continue;
        }
        if (now >= silentAt(*frame))
            frame->overdue = true;
        if (frame->overdue)
            noticeRest(*frame, now);
        if (now >= frame->nextAsk)
            askFor(*frame, now);
        if (isOver(*frame, now))
            finish(*frame, now);
    }
    releaseDone();
    reckon(now);
}

void Assembler::reckon(std::uint64_t now)
{
    deadline_ = never;
    for (const Assembly* const frame : order_) {
        if (frame->done)
            continue;
        if (frame->record == nullptr) {
            deadline_ = std::min(deadline_, frame->ghostAsk.at);
            continue;
        }
        deadline_ = std::min({deadline_, frame->nextAsk, frame->lastNew + frameTimeout_});
        if (!frame->overdue)
            deadline_ = std::min(deadline_, silentAt(*frame));
        if ((frame->overdue || frame->record->frame().hasTrailer) && frame->open == 0)
            deadline_ = std::min(deadline_, frame->lastNew + delay_);
    }
    deadline_ = std::max(deadline_, now);
}

void Assembler::finish(Assembly& frame, std::uint64_t now)
{
    frame.done = true;
    if (frame.record == nullptr) {
        ++statistics_.framesSkipped;
        remember(frame.block, frame.extended, nullptr, false, now);
        return;
    }
    settle(frame);
    remember(frame.block, frame.extended, &frame.record->frame(), false, now);
    std::size_t kept = 0;
    for (std::size_t i = 0; i < earlyCount_; ++i) {
        if (early_[i].header.block == frame.block)
            continue;
        std::copy_n(&earlyBytes_[i * settings_.packetSize], early_[i].size, &earlyBytes_[kept * settings_.packetSize]);
        early_[kept++] = early_[i];
    }
    earlyCount_ = kept;
}

/// What came, for good.
void Assembler::settle(Assembly& frame)
{
    Record& record = *frame.record;
    Frame& result = record.result();
    record.lastId = lastId(frame);
    result.packets = record.lastId + 1;
    result.missingPackets = record.countMissing(std::min(result.packets, limit(frame)));
    result.complete = isComplete(frame);
    // The last packet may be short, no other; one that holds all has no packets behind it.
    const auto oddOnes = [&] { return frame.shorts > (record.lengths[record.lastId - 1] < record.payload ? 1u : 0u); };
    if (frame.variable || (result.complete && !record.multiPart && record.lastId > 1 && oddOnes()))
        compact(frame);
    result.size = frame.end;
    std::uint64_t promised = result.payloadType == payload::image ? result.image.size() : result.announcedSize;
    for (std::size_t i = 0; i < result.partCount; ++i)
        promised += record.parts[i].size;
    if ((record.multiPart ? frame.partBytes : result.size) < promised)
        result.complete = false;
    statistics_.packetsMissing += result.missingPackets;
}

/// Packets of any length were laid where full ones belong.
void Assembler::compact(Assembly& frame)
{
    Record& record = *frame.record;
    std::size_t end = 0;
    for (std::uint32_t id = 1; id <= frame.highest && id <= record.slots; ++id) {
        if (!record.has(id) || id == frame.trailerId)
            continue;
        const std::size_t from = (id - 1) * record.payload;
        if (from != end)
            std::memmove(record.data() + end, record.data() + from, record.lengths[id]);
        end += record.lengths[id];
    }
    frame.end = end;
}

void Assembler::releaseDone()
{
    bool blocked = false;
    for (auto next = order_.begin(); next != order_.end();) {
        Assembly& frame = **next;
        // What never came holds nobody up.
        blocked = blocked || (!frame.done && frame.record != nullptr);
        if (!frame.done || (blocked && frame.record != nullptr)) {
            ++next;
            continue;
        }
        next = order_.erase(next);
        frame.used = false;
        if (current_ == &frame)
            current_ = nullptr;
        if (frame.record == nullptr)
            continue;
        const Frame& result = frame.record->frame();
        ++(result.complete               ? statistics_.framesComplete
           : settings_.deliverIncomplete ? statistics_.framesIncomplete
                                         : statistics_.framesDropped);
        if (result.complete || settings_.deliverIncomplete)
            feed_.deliver(*frame.record);
        else
            feed_.giveBack(*frame.record);
        frame.record = nullptr;
    }
}

// Where the next packets belong

void Assembler::plan(std::span<Target> targets)
{
    const std::size_t full = payload(newestExtended_);
    std::size_t at = 0;
    plannedLost_ = false;
    const auto lay = [&](const Record* record, std::uint64_t block, std::uint32_t id, std::uint32_t trailer) {
        for (; at < targets.size() && id <= trailer; ++id) {
            Target& target = targets[at++] = {nullptr, 0, block, id, newestExtended_};
            const std::size_t offset = (id - std::size_t{1}) * full;
            if (id == 0 || id == trailer || offset >= record->capacity())
                continue;
            target.data = record->data() + offset;
            target.size = std::min(full, record->capacity() - offset);
        }
    };
    if (newest_ != 0 && generic_) {
        const Assembly* const frame = find(newest_, newestExtended_);
        if (frame != nullptr && !frame->done && frame->record != nullptr && !frame->record->multiPart)
            lay(frame->record, newest_, frame->frontier,
                frame->expectedId != 0 || usualTrailer_ != 0 ? lastId(*frame) : frame->record->slots + 1);
        if (at < targets.size() && usualTrailer_ > 1) {
            if (planned_ == nullptr)
                planned_ = feed_.takeEmpty();
            plannedBlock_ = nextBlock(newest_, newestExtended_);
            if (planned_ != nullptr)
                lay(planned_, plannedBlock_, 0, usualTrailer_);
        }
    }
    while (at < targets.size())
        targets[at++] = {};
}

} // namespace zuStream
