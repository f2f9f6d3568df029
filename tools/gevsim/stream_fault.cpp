// Making, naming and choosing of faults of the stream.
#include "tools/gevsim/stream_fault.h"

#include <cstdio>

namespace gevsim {

namespace {

const char* kindName(StreamFault::Kind kind)
{
    constexpr const char* names[] = {"lose", "repeat", "reorder", "delay", "corrupt", "refuse", "stop", "restart"};
    return names[static_cast<std::size_t>(kind)];
}

const char* formName(StreamFault::Form form)
{
    constexpr const char* names[] = {"payload", "id", "block", "format", "status", "short", "long"};
    return names[static_cast<std::size_t>(form)];
}

std::string range(const char* key, std::uint64_t from, std::uint64_t to)
{
    if (from == 0 && to == StreamFault::last)
        return {};
    std::string text = std::string(" ") + key + "=" + std::to_string(from);
    if (to == StreamFault::last)
        text += "-";
    else if (to != from)
        text += "-" + std::to_string(to);
    return text;
}

/// The next of a row of even numbers from 0 up to 1.
double roll(std::uint64_t& state)
{
    // SplitMix64: small, and the same everywhere.
    std::uint64_t z = (state += 0x9E3779B97F4A7C15);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
    constexpr double unit = 1.0 / 9007199254740992.0; // 2 to the power of -53
    return static_cast<double>((z ^ (z >> 31)) >> 11) * unit;
}

bool meant(const StreamFault& fault, const StreamVictim& victim)
{
    if (fault.kind == StreamFault::Kind::refuse ? victim.of != StreamFault::Of::resends
                                                : fault.of != StreamFault::Of::all && fault.of != victim.of)
        return false;
    // All else needs a packet.
    if (victim.of == StreamFault::Of::requests && fault.kind != StreamFault::Kind::lose)
        return false;
    if (fault.packets != StreamFault::Packets::any && fault.packets != victim.kind)
        return false;
    return victim.packet >= fault.fromPacket && victim.packet <= fault.toPacket && victim.frame >= fault.fromFrame &&
           victim.frame <= fault.toFrame;
}

} // namespace

StreamFault StreamFault::make(Kind kind, std::uint32_t n)
{
    StreamFault fault;
    fault.kind = kind;
    fault.count = n;
    return fault;
}

StreamFault StreamFault::reorder(std::uint32_t behind, std::uint32_t n)
{
    StreamFault fault = make(Kind::reorder, n);
    fault.by = behind;
    return fault;
}

StreamFault StreamFault::delay(Milliseconds time, std::uint32_t n)
{
    StreamFault fault = make(Kind::delay, n);
    fault.time = time;
    return fault;
}

StreamFault StreamFault::corrupt(Form form, std::uint32_t n)
{
    StreamFault fault = make(Kind::corrupt, n);
    fault.form = form;
    return fault;
}

StreamFault StreamFault::refuse(std::uint32_t n)
{
    StreamFault fault = make(Kind::refuse, n);
    fault.of = Of::resends;
    return fault;
}

StreamFault StreamFault::restart(Milliseconds off)
{
    StreamFault fault = make(Kind::restart, 1);
    fault.time = off;
    return fault;
}

StreamFault StreamFault::in(Packets which) const
{
    StreamFault fault = *this;
    fault.packets = which;
    return fault;
}

StreamFault StreamFault::ids(std::uint64_t from, std::uint64_t to) const
{
    StreamFault fault = *this;
    fault.fromPacket = from;
    fault.toPacket = to;
    return fault;
}

StreamFault StreamFault::frames(std::uint64_t from, std::uint64_t to) const
{
    StreamFault fault = *this;
    fault.fromFrame = from;
    fault.toFrame = to;
    return fault;
}

StreamFault StreamFault::eachOf(std::uint32_t n) const
{
    StreamFault fault = *this;
    fault.every = n;
    fault.count = always;
    return fault;
}

StreamFault StreamFault::rate(double of1, std::uint64_t ofSeed) const
{
    StreamFault fault = *this;
    fault.probability = of1;
    fault.seed = ofSeed;
    fault.count = always;
    return fault;
}

StreamFault StreamFault::on(Of which) const
{
    StreamFault fault = *this;
    fault.of = which;
    return fault;
}

std::string StreamFault::text() const
{
    constexpr const char* packetNames[] = {"", " leader", " trailer", " data"};
    constexpr const char* ofNames[] = {"", " of=resends", " of=requests", " of=all"};
    std::string text = kindName(kind);
    if (kind == Kind::delay || (kind == Kind::restart && time.count() != 0))
        text += " " + std::to_string(time.count());
    text += packetNames[static_cast<std::size_t>(packets)];
    text += range("packet", fromPacket, toPacket) + range("frame", fromFrame, toFrame);
    if (every > 1)
        text += " every=" + std::to_string(every);
    if (probability < 1) {
        char rate[64];
        std::snprintf(rate, sizeof rate, " rate=%g seed=%llu", probability * 100,
                      static_cast<unsigned long long>(seed));
        text += rate;
    }
    if ((kind == Kind::repeat && by != 1) || kind == Kind::reorder)
        text += " by=" + std::to_string(by);
    if (kind == Kind::corrupt)
        text += std::string(" form=") + formName(form);
    if (kind != Kind::refuse)
        text += ofNames[static_cast<std::size_t>(of)];
    return text + (count == always ? " always" : " count=" + std::to_string(count));
}

void StreamFaults::add(const StreamFault& fault) { waiting_.push_back({fault, 0, fault.seed}); }

std::vector<StreamFault> StreamFaults::faults() const
{
    std::vector<StreamFault> all;
    for (const Waiting& waiting : waiting_)
        all.push_back(waiting.fault);
    return all;
}

std::optional<StreamFault> StreamFaults::take(const StreamVictim& victim)
{
    for (auto it = waiting_.begin(); it != waiting_.end(); ++it) {
        StreamFault& fault = it->fault;
        if (!meant(fault, victim) || ++it->seen % fault.every != 0)
            continue;
        if (fault.probability < 1 && roll(it->random) >= fault.probability)
            continue;
        const StreamFault taken = fault;
        if (fault.count != StreamFault::always && --fault.count == 0)
            waiting_.erase(it);
        return taken;
    }
    return std::nullopt;
}

} // namespace gevsim
