// Acquisition, packets and resends. One thread exposes and sends; between two batches it looks at what was asked for
// meanwhile.
#include "tools/gevsim/stream.h"

#include "tools/gevsim/platform_address.h"

#include "platform/thread.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace gevsim {

using namespace std::chrono_literals;

namespace {

constexpr std::size_t pacedBytes = 44 * 1024; // leave at once on a link with a speed: little beside a receiver's buffer
constexpr std::size_t onEthernet = 66;        // bytes of headers, preamble and gap that a packet costs besides
constexpr int sendBuffer = 2 * 1024 * 1024;
constexpr double fastest = 1000; // frames a second
constexpr std::uint32_t endOfShort = 0xFFFFFF, endOfLong = 0xFFFFFFFF;
constexpr Stream::Time::duration longWait = 1h;
constexpr std::uint8_t flip = 0x55;

Stream::Time::duration period(const StreamSetup& setup)
{
    const double rate =
        setup.framesPerSecond > 0 ? setup.framesPerSecond : std::min(fastest, 1e6 / std::max(setup.exposureUs, 1.0));
    return std::chrono::nanoseconds(std::llround(1e9 / rate));
}

Stream::Time::duration exposure(const StreamSetup& setup)
{
    return std::chrono::nanoseconds(std::llround(setup.exposureUs * 1000));
}

StreamFault::Packets kindOf(std::uint32_t id, std::uint32_t packets)
{
    if (id == 0)
        return StreamFault::Packets::leader;
    return id + 1 == packets ? StreamFault::Packets::trailer : StreamFault::Packets::data;
}

} // namespace

Stream::Stream(std::uint32_t ip, std::size_t ringFrames, std::uint32_t linkSpeed, Hooks hooks)
    : hooks_(std::move(hooks)), linkSpeed_(linkSpeed), ip_(ip), slots_(std::max<std::size_t>(ringFrames, 1))
{
}

Stream::~Stream() { end(); }

void Stream::end()
{
    std::thread thread;
    {
        const Lock lock(mutex_);
        ending_ = true;
        thread.swap(thread_);
    }
    condition_.notify_all();
    if (thread.joinable())
        thread.join();
}

std::uint16_t Stream::configure(const StreamSetup& setup)
{
    const Lock lock(mutex_);
    const bool wasOpen = open_;
    setup_ = setup;
    if (setup.open() && !wasOpen && !ending_) {
        if (!socket_) {
            zuPlatform::SocketPtr socket = zuPlatform::DatagramSocket::open();
            zuPlatform::SocketAddress bound;
            if (!socket || socket->bind(toPlatform({ip_, 0})) != 0 || socket->getLocalAddress(bound) != 0) {
                ++counters_.sendErrors;
                return port_;
            }
            socket->setSendBuffer(sendBuffer);
            socket_ = std::move(socket);
            port_ = fromPlatform(bound).port;
        }
        open_ = true;
        ++openings_;
        ++changes_;
        nextNumber_ = 1;
        requestCount_ = 0;
        if (!thread_.joinable())
            thread_ = std::thread([this] { run(); });
    } else if (!setup.open() && wasOpen) {
        open_ = false;
        ++changes_;
        testPackets_ = 0;
    }
    condition_.notify_all();
    return port_;
}

void Stream::start(std::uint64_t session)
{
    const Lock lock(mutex_);
    session_ = session;
    acquiring_ = true;
    triggered_ = false;
    ++changes_;
    condition_.notify_all();
}

void Stream::stop()
{
    const Lock lock(mutex_);
    acquiring_ = false;
    ++changes_;
    condition_.notify_all();
}

void Stream::trigger(TriggerSource source)
{
    const Lock lock(mutex_);
    if (setup_.trigger != source)
        return;
    if (!acquiring_ || !open_ || triggered_) {
        ++counters_.triggersMissed;
        return;
    }
    triggered_ = true;
    condition_.notify_all();
}

void Stream::fireTestPacket()
{
    const Lock lock(mutex_);
    if (!open_)
        return;
    ++testPackets_;
    condition_.notify_all();
}

void Stream::resend(const ResendRequest& request)
{
    const Lock lock(mutex_);
    if (!open_)
        return;
    ++counters_.requests;
    StreamVictim victim;
    victim.of = StreamFault::Of::requests;
    victim.kind = StreamFault::Packets::any;
    victim.frame = request.block;
    victim.packet = request.first;
    if (requestCount_ == mostRequests || faults_.take(victim)) {
        ++counters_.requestsLost;
        return;
    }
    requests_[(firstRequest_ + requestCount_++) % mostRequests] = request;
    condition_.notify_all();
}

void Stream::moveTo(std::uint32_t ip)
{
    const Lock lock(mutex_);
    ip_ = ip;
    socket_.reset();
    port_ = 0;
    if (open_.exchange(false))
        ++changes_;
    setup_.destination = {0, 0};
    condition_.notify_all();
}

void Stream::setNextNumber(std::uint64_t number)
{
    const Lock lock(mutex_);
    wantedNumber_ = std::max<std::uint64_t>(number, 1);
}

void Stream::inject(const StreamFault& fault)
{
    const Lock lock(mutex_);
    faults_.add(fault);
    hasFaults_ = true;
}

std::vector<StreamFault> Stream::faults() const
{
    const Lock lock(mutex_);
    return faults_.faults();
}

void Stream::clearFaults()
{
    const Lock lock(mutex_);
    faults_.clear();
    hasFaults_ = false;
}

StreamCounters Stream::counters() const
{
    const Lock lock(mutex_);
    return counters_;
}

std::vector<SentFrame> Stream::frames() const
{
    const Lock lock(mutex_);
    std::vector<SentFrame> result;
    for (std::uint64_t sequence = firstRecord_; sequence < nextRecord_; ++sequence) {
        const Record& record = records_[sequence % reportSize];
        result.push_back(record.frame);
        for (std::uint32_t id = 0; id < record.frame.packets; ++id) {
            if ((record.good[id / 64] >> (id % 64) & 1u) == 0)
                result.back().missing.push_back(id);
        }
    }
    return result;
}

void Stream::clearReport()
{
    const Lock lock(mutex_);
    counters_ = {};
    firstRecord_ = nextRecord_;
}

void Stream::run()
{
    zuPlatform::nameCurrentThread("gevsim-stream");
    Lock lock(mutex_);
    while (!ending_) {
        const std::uint64_t seen = changes_;
        if (acquiring_ && open_) {
            prepare(setup_);
            acquire(lock, seen);
        } else {
            pause(lock, Time::max(), seen);
        }
    }
}

/// All that frames need, so that they need no more.
void Stream::prepare(const StreamSetup& setup)
{
    const std::size_t payload = gvsp::payloadSize(setup.picture, setup.chunkMode, setup.chunks);
    const std::size_t data = gvsp::dataSize(setup.packetSize, setup.extendedIds);
    const std::size_t words = ((payload + data - 1) / data + 2 + 63) / 64;
    for (Slot& slot : slots_)
        slot.payload.reserve(payload);
    records_.resize(reportSize);
    for (Record& record : records_)
        record.good.reserve(words);
}

/// Waits until a time, or for a trigger. False if another start, stop, opening or closing came meanwhile.
bool Stream::pause(Lock& lock, Time until, std::uint64_t seen, bool forTrigger)
{
    while (!ending_ && changes_ == seen) {
        if (forTrigger && (triggered_ || setup_.trigger == TriggerSource::off))
            return true;
        if (serve(lock))
            continue;
        const Time now = Clock::now();
        if (now >= until)
            return true;
        Time next = std::min(until, now + longWait);
        for (const Late& late : late_)
            next = std::min(next, late.due);
        condition_.wait_until(lock, next);
    }
    return false;
}

void Stream::acquire(Lock& lock, std::uint64_t seen)
{
    Time planned = Clock::now();
    for (std::uint64_t sent = 0; changes_ == seen && !ending_;) {
        const bool waits = setup_.trigger != TriggerSource::off;
        if (!pause(lock, waits ? Time::max() : planned, seen, waits))
            return;
        if (waits) {
            if (!triggered_)
                continue;
            triggered_ = false;
            planned = Clock::now();
        } else if (setup_.trigger != TriggerSource::off) {
            continue;
        }
        const StreamSetup setup = setup_;
        if (!pause(lock, planned + exposure(setup), seen))
            return;
        sendFrame(lock, setup, planned);
        if (setup.frames != 0 && ++sent >= setup.frames && changes_ == seen) {
            acquiring_ = false;
            ++changes_;
            finishedSession_ = session_;
            return;
        }
        const Time now = Clock::now();
        planned += period(setup);
        // What can't be made up for is left out.
        if (planned + period(setup) < now)
            planned = now;
    }
}

/// Answers requests, fires test packets, sends what was late. True if there was something to do.
bool Stream::serve(Lock& lock)
{
    bool done = false;
    if (socket_ && sender_ != socket_) {
        sender_ = socket_;
        dontFragment_.reset();
    }
    if (testPackets_ > 0 && open_) {
        --testPackets_;
        sendTestPacket(lock);
        done = true;
    }
    if (requestCount_ > 0) {
        const ResendRequest request = requests_[firstRequest_];
        firstRequest_ = (firstRequest_ + 1) % mostRequests;
        --requestCount_;
        if (open_)
            answer(lock, request);
        done = true;
    }
    const Time now = Clock::now();
    if (std::any_of(late_.begin(), late_.end(),
                    [now](const Late& late) { return late.behind == 0 && late.due <= now; })) {
        if (open_)
            to_ = toPlatform(setup_.destination);
        lock.unlock();
        flushLate(false);
        lock.lock();
        done = true;
    }
    const auto add = [](std::uint64_t& sum, std::uint64_t& part) {
        sum += part;
        part = 0;
    };
    add(counters_.packets, pending_.packets);
    add(counters_.bytes, pending_.bytes);
    add(counters_.lost, pending_.lost);
    add(counters_.sendErrors, pending_.sendErrors);
    return done;
}

Stream::Slot& Stream::beginFrame(const StreamSetup& setup, Time exposed)
{
    if (slotOpenings_ != openings_) {
        slotOpenings_ = openings_;
        for (Slot& old : slots_)
            old.valid = false;
        late_.clear();
    }
    if (wantedNumber_) {
        nextNumber_ = *wantedNumber_;
        wantedNumber_.reset();
    }
    Slot& slot = slots_[nextSlot_];
    nextSlot_ = (nextSlot_ + 1) % slots_.size();
    SentFrame& frame = slot.frame;
    frame.picture = setup.picture;
    frame.picture.number = nextNumber_++;
    frame.extendedIds = setup.extendedIds;
    frame.block = gvsp::blockOf(frame.picture.number, setup.extendedIds);
    frame.payloadType = !setup.chunkMode       ? gvsp::image
                        : setup.extendedChunks ? gvsp::imageExtendedChunk
                                               : gvsp::chunkData;
    frame.chunks = setup.chunkMode ? setup.chunks : 0;
    frame.timestamp = static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::max(exposed - setup.timestampStart, Time::duration{}))
            .count());
    frame.exposureUs = setup.exposureUs;
    frame.packetSize = setup.packetSize;
    frame.payloadSize = gvsp::payloadSize(frame.picture, setup.chunkMode, setup.chunks);
    const std::size_t data = gvsp::dataSize(setup.packetSize, setup.extendedIds);
    frame.packets = static_cast<std::uint32_t>((frame.payloadSize + data - 1) / data) + 2;
    frame.ended = false;
    slot.payload.resize(frame.payloadSize);
    slot.reached = 0;
    slot.valid = true;

    slot.record = nextRecord_++;
    firstRecord_ = std::max(firstRecord_, nextRecord_ < reportSize ? 0 : nextRecord_ - reportSize);
    Record& record = records_[slot.record % reportSize];
    record.sequence = slot.record;
    record.frame = frame;
    record.good.assign((frame.packets + 63) / 64, 0);
    return slot;
}

void Stream::sendFrame(Lock& lock, const StreamSetup& setup, Time exposed)
{
    Slot& slot = beginFrame(setup, exposed);
    const std::uint64_t openings = openings_;
    lock.unlock();
    painter_.paint(slot.frame.picture, slot.payload.data());
    gvsp::putChunks(slot.payload.data() + slot.frame.picture.size(), slot.frame);
    lock.lock();
    if (!aborted(openings) && sendPackets(lock, slot, setup))
        ++counters_.frames;
    slot.frame.ended = true;
    Record& record = records_[slot.record % reportSize];
    if (record.sequence == slot.record)
        record.frame.ended = true;
    if (hooks_.frameEnded) {
        lock.unlock();
        hooks_.frameEnded(slot.frame);
        lock.lock();
    }
}

bool Stream::sendPackets(Lock& lock, Slot& slot, const StreamSetup& setup)
{
    const std::uint64_t openings = openings_;
    const bool delayed = setup.packetDelay.count() > 0;
    std::size_t batch = delayed ? 1 : batchSize;
    if (linkSpeed_ != 0)
        batch = std::min(batch, std::max<std::size_t>(1, pacedBytes / setup.packetSize));
    Packet packet;
    StreamVictim victim;
    victim.frame = slot.frame.picture.number;
    serve(lock);
    to_ = toPlatform(setup.destination);
    lock.unlock();
    Outcome outcome = Outcome::goesOn;
    StreamFault met;
    Time lineFree = Clock::now();
    for (std::uint32_t id = 0; id < slot.frame.packets && outcome == Outcome::goesOn; ++id) {
        build(slot, id, 0, 0, packet);
        victim.kind = kindOf(id, slot.frame.packets);
        victim.packet = id;
        outcome = post(packet, victim, met);
        if (outcome == Outcome::goesOn)
            slot.reached = id + 1;
        const bool last = id + 1 == slot.frame.packets || outcome != Outcome::goesOn;
        if (last)
            flushLate(true);
        if (batched_ < batch && !last)
            continue;
        fragment(setup.dontFragment);
        flush();
        const Time sent = Clock::now();
        // Time that was lost is made up for, but not by a burst beyond one batch.
        lineFree = std::max(lineFree, sent - onTheLine()) + onTheLine();
        lock.lock();
        // Who asks now is served before the rest of the frame.
        while (!aborted(openings) && serve(lock)) {
        }
        if (!last && !aborted(openings)) {
            pace(lock, lineFree, false);
            if (delayed)
                pace(lock, sent + setup.packetDelay, true);
        }
        to_ = toPlatform(setup.destination);
        if (aborted(openings)) {
            late_.clear();
            return false;
        }
        lock.unlock();
    }
    if (outcome == Outcome::restarts)
        hooks_.restart(met.time);
    lock.lock();
    if (outcome == Outcome::stops) {
        acquiring_ = false;
        ++changes_;
    }
    return outcome == Outcome::goesOn;
}

Stream::Time::duration Stream::onTheLine() const
{
    return std::chrono::nanoseconds(linkSpeed_ != 0 ? lastBatch_ * 8000 / linkSpeed_ : 0);
}

/// Waits for a moment; one that is too near for a sleep only if it is to be met exactly.
void Stream::pace(Lock& lock, Time until, bool exactly)
{
    constexpr auto slack = 150us, sleepable = 60us;
    while (!ending_ && open_) {
        const Time now = Clock::now();
        if (now >= until || (!exactly && until - now < sleepable))
            return;
        if (!exactly || until - now > slack) {
            condition_.wait_until(lock, exactly ? until - slack : until);
            serve(lock);
        } else {
            lock.unlock();
            zuPlatform::yieldThread();
            lock.lock();
        }
    }
}

void Stream::build(const Slot& slot, std::uint32_t id, std::uint16_t status, std::uint16_t flags, Packet& packet) const
{
    const SentFrame& frame = slot.frame;
    const std::size_t data = gvsp::dataSize(frame.packetSize, frame.extendedIds);
    const StreamFault::Packets kind = kindOf(id, frame.packets);
    const std::uint8_t format = kind == StreamFault::Packets::leader    ? gvsp::leader
                                : kind == StreamFault::Packets::trailer ? gvsp::trailer
                                                                        : gvsp::data;
    packet.headSize = gvsp::putHeader(packet.head.data(), frame.extendedIds, status, flags, format, frame.block, id);
    packet.body = nullptr;
    packet.bodySize = 0;
    packet.record = slot.record;
    packet.id = id;
    packet.good = true;
    std::uint8_t* const behind = packet.head.data() + packet.headSize;
    if (kind == StreamFault::Packets::leader) {
        packet.headSize += gvsp::putLeader(behind, frame);
    } else if (kind == StreamFault::Packets::trailer) {
        packet.headSize += gvsp::putTrailer(behind, frame);
    } else {
        const std::size_t at = std::size_t{id - 1} * data;
        packet.body = slot.payload.data() + at;
        packet.bodySize = std::min(data, slot.payload.size() - at);
    }
}

Stream::Outcome Stream::post(const Packet& packet, const StreamVictim& victim, StreamFault& met)
{
    std::optional<StreamFault> fault;
    if (hasFaults_) {
        const Lock lock(mutex_);
        fault = faults_.take(victim);
        hasFaults_ = !faults_.empty();
        if (fault) {
            met = *fault;
            const bool first = victim.of == StreamFault::Of::first;
            switch (fault->kind) {
            case StreamFault::Kind::lose:
                ++(first ? counters_.lost : counters_.resendsLost);
                break;
            case StreamFault::Kind::repeat:
                counters_.repeated += fault->by;
                break;
            case StreamFault::Kind::reorder:
                ++counters_.reordered;
                break;
            case StreamFault::Kind::delay:
                ++counters_.delayed;
                break;
            case StreamFault::Kind::corrupt:
                ++counters_.corrupted;
                break;
            default:
                break;
            }
        }
    }
    if (!fault) {
        append(packet);
    } else {
        switch (fault->kind) {
        case StreamFault::Kind::lose:
        case StreamFault::Kind::refuse:
            break;
        case StreamFault::Kind::repeat:
            for (std::uint32_t i = 0; i <= fault->by; ++i)
                append(packet);
            break;
        case StreamFault::Kind::corrupt: {
            std::vector<std::uint8_t> bytes(packet.head.data(), packet.head.data() + packet.headSize);
            bytes.insert(bytes.end(), packet.body, packet.body + packet.bodySize);
            damage(fault->form, bytes, (packet.head[4] & 0x80) != 0);
            if (batched_ == batchSize)
                flush();
            batchCopies_.push_back(std::move(bytes));
            Packet damaged = packet;
            damaged.headSize = 0;
            damaged.body = batchCopies_.back().data();
            damaged.bodySize = batchCopies_.back().size();
            damaged.good = false;
            append(damaged);
            break;
        }
        case StreamFault::Kind::delay:
        case StreamFault::Kind::reorder:
            keep(packet, *fault);
            return Outcome::goesOn;
        case StreamFault::Kind::stop:
            return Outcome::stops;
        case StreamFault::Kind::restart:
            return Outcome::restarts;
        }
    }
    // It has gone by those that are to come behind it.
    bool due = false;
    for (Late& late : late_) {
        if (late.behind > 0 && --late.behind == 0) {
            late.due = Time::min();
            due = true;
        }
    }
    if (due)
        flushLate(false);
    return Outcome::goesOn;
}

void Stream::keep(const Packet& packet, const StreamFault& fault)
{
    Late late;
    late.due = fault.kind == StreamFault::Kind::delay ? Clock::now() + fault.time : Time::max();
    late.behind = fault.kind == StreamFault::Kind::delay ? 0 : fault.by;
    late.bytes.assign(packet.head.data(), packet.head.data() + packet.headSize);
    late.bytes.insert(late.bytes.end(), packet.body, packet.body + packet.bodySize);
    late.record = packet.record;
    late.id = packet.id;
    late_.push_back(std::move(late));
}

void Stream::damage(StreamFault::Form form, std::vector<std::uint8_t>& bytes, bool extended)
{
    const std::size_t header = gvsp::headerSize(extended);
    switch (form) {
    case StreamFault::Form::payload:
        if (bytes.size() > header)
            bytes[header + (bytes.size() - header) / 2] ^= flip;
        break;
    case StreamFault::Form::id:
        // Beyond every frame.
        bytes[extended ? 16 : 5] ^= 0xF0;
        break;
    case StreamFault::Form::block:
        bytes[extended ? 15 : 3] ^= flip;
        break;
    case StreamFault::Form::format:
        bytes[4] = static_cast<std::uint8_t>((bytes[4] & 0x80) | 0x0F);
        break;
    case StreamFault::Form::status:
        bytes[0] = 0x80;
        bytes[1] = 0x08;
        break;
    case StreamFault::Form::shorter:
        bytes.resize(bytes.size() / 2);
        break;
    case StreamFault::Form::longer:
        bytes.resize(bytes.size() + 16, flip);
        break;
    }
}

void Stream::append(const Packet& packet)
{
    if (batched_ == batchSize)
        flush();
    batch_[batched_++] = packet;
}

void Stream::flush()
{
    if (batched_ == 0)
        return;
    std::size_t from = 0;
    if (Clock::now().time_since_epoch().count() < silentUntil_) {
        pending_.lost += batched_;
        from = batched_;
    }
    std::array<zuPlatform::OutgoingDatagram, batchSize> datagrams;
    for (std::size_t i = 0; i < batched_; ++i) {
        const Packet& packet = batch_[i];
        datagrams[i] = {packet.head.data(), packet.headSize, packet.body, packet.bodySize};
    }
    std::array<bool, batchSize> good{};
    lastBatch_ = 0;
    while (from < batched_) {
        const zuPlatform::BatchResult result = sender_->sendBatch(&datagrams[from], batched_ - from, to_);
        for (std::size_t i = from; i < from + result.count; ++i) {
            ++pending_.packets;
            pending_.bytes += batch_[i].headSize + batch_[i].bodySize;
            lastBatch_ += batch_[i].headSize + batch_[i].bodySize + onEthernet;
            good[i] = batch_[i].good;
        }
        from += result.count;
        if (from < batched_) { // the network has no room for this one, or no road
            ++pending_.sendErrors;
            ++from;
        }
    }
    const Lock lock(mutex_);
    for (std::size_t i = 0; i < batched_; ++i) {
        if (good[i])
            mark(batch_[i].record, batch_[i].id);
    }
    batched_ = 0;
    batchCopies_.clear();
}

void Stream::fragment(bool never)
{
    if (dontFragment_ != never)
        sender_->setDontFragment(never);
    dontFragment_ = never;
}

void Stream::mark(std::uint64_t record, std::uint32_t id)
{
    if (record == 0)
        return;
    Record& found = records_[record % reportSize];
    if (found.sequence == record && id < found.frame.packets)
        found.good[id / 64] |= std::uint64_t{1} << (id % 64);
}

void Stream::flushLate(bool all)
{
    flush();
    const Time now = Clock::now();
    for (auto it = late_.begin(); it != late_.end();) {
        // What was delayed comes in its time, also behind the end of its frame.
        if (it->due <= now || (all && it->due == Time::max())) {
            Packet packet;
            packet.headSize = 0;
            packet.body = it->bytes.data();
            packet.bodySize = it->bytes.size();
            packet.record = it->record;
            packet.id = it->id;
            append(packet);
            flush();
            it = late_.erase(it);
        } else {
            ++it;
        }
    }
}

Stream::Slot* Stream::find(std::uint64_t block, bool extended)
{
    // The newest first: short ids come again.
    for (std::size_t i = 1; i <= slots_.size(); ++i) {
        Slot& slot = slots_[(nextSlot_ + slots_.size() - i) % slots_.size()];
        if (slot.valid && slot.frame.block == block && slot.frame.extendedIds == extended)
            return &slot;
    }
    return nullptr;
}

void Stream::answer(Lock& lock, const ResendRequest& request)
{
    const StreamSetup setup = setup_;
    const bool fresh = slotOpenings_ == openings_;
    const std::uint64_t newest = gvsp::blockOf(nextNumber_ - 1, request.extended);
    to_ = toPlatform(setup.destination);
    lock.unlock();
    fragment(setup.dontFragment);
    const Slot* const slot = fresh ? find(request.block, request.extended) : nullptr;
    const std::uint32_t end = request.extended ? endOfLong : endOfShort;
    std::uint32_t count = slot ? slot->frame.packets : 0;
    if (!slot) {
        const std::size_t data = gvsp::dataSize(setup.packetSize, setup.extendedIds);
        count = static_cast<std::uint32_t>(
                    (gvsp::payloadSize(setup.picture, setup.chunkMode, setup.chunks) + data - 1) / data) +
                2;
    }
    std::uint32_t first = request.first;
    const std::uint32_t last = std::min(request.last, count - 1);
    const bool outside = first >= count || (request.last != end && request.last < first);
    std::uint64_t resent = 0, unavailable = 0;
    const auto refuse = [&](std::uint32_t id, std::uint16_t status, std::uint16_t flags) {
        Packet packet;
        packet.headSize = gvsp::putHeader(
            packet.head.data(), request.extended, setup.extendedStatus ? status : gvsp::packetUnavailable,
            static_cast<std::uint16_t>(gvsp::flagResend | flags), gvsp::data, request.block, id);
        packet.good = false;
        append(packet);
        ++unavailable;
    };
    if (outside) {
        refuse(first, gvsp::packetUnavailable, gvsp::flagRangeError);
    } else if (!slot && setup.extendedStatus) {
        // One word for all of them.
        const bool later = request.block == gvsp::blockOf(newest + 1, request.extended);
        refuse(later ? first : last, later ? gvsp::notYetAvailable : gvsp::andPreviousRemoved, 0);
    } else {
        for (std::uint32_t id = first; id <= last; ++id) {
            if (!slot) {
                refuse(id, gvsp::removed, 0);
                continue;
            }
            if (id >= slot->reached) {
                refuse(id, gvsp::notYetAvailable, 0);
                continue;
            }
            Packet packet;
            const std::uint16_t status = setup.extendedStatus && !request.extended ? gvsp::packetResend : 0;
            build(*slot, id, status, gvsp::flagResend, packet);
            StreamVictim victim{StreamFault::Of::resends, kindOf(id, slot->frame.packets), slot->frame.picture.number,
                                id};
            StreamFault met;
            met.kind = StreamFault::Kind::repeat;
            post(packet, victim, met);
            if (met.kind == StreamFault::Kind::refuse)
                refuse(id, gvsp::removed, 0);
            else if (met.kind != StreamFault::Kind::lose)
                ++resent;
        }
    }
    flushLate(true);
    flush();
    lock.lock();
    counters_.resent += resent;
    counters_.unavailable += unavailable;
}

void Stream::sendTestPacket(Lock& lock)
{
    const StreamSetup setup = setup_;
    to_ = toPlatform(setup.destination);
    lock.unlock();
    fragment(true);
    blank_.resize(gvsp::dataSize(setup.packetSize, setup.extendedIds));
    Packet packet;
    packet.headSize = gvsp::putHeader(packet.head.data(), setup.extendedIds, 0, 0, gvsp::data, 0, 0);
    packet.body = blank_.data();
    packet.bodySize = blank_.size();
    packet.good = false;
    append(packet);
    flush();
    lock.lock();
    ++counters_.testPackets;
}

} // namespace gevsim
