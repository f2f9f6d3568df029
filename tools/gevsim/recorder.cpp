// Keeping and printing of datagrams.
#include "tools/gevsim/recorder.h"

namespace gevsim {

std::string Datagram::text() const
{
    const bool in = direction == Direction::received;
    return (in ? "<- " : "-> ") + peer.text() + " " +
           (in ? describeCommand(bytes.data(), bytes.size()) : describeAcknowledge(bytes.data(), bytes.size())) +
           (lost ? " (lost)" : "");
}

void Recorder::received(const std::uint8_t* data, std::size_t size, const Endpoint& peer, Time time, bool isCommand,
                        bool lost)
{
    ++counters_.received;
    counters_.lost += lost;
    if (isCommand) {
        ++commands_[slot(wire::get16(data + wire::atCode))];
        lastPeer_ = peer;
    } else {
        ++counters_.malformed;
    }
    if (recording_ || trace_)
        keep(Datagram::Direction::received, data, size, peer, time, lost);
}

void Recorder::sent(const std::uint8_t* data, std::size_t size, const Endpoint& peer, Time time)
{
    ++counters_.sent;
    if (recording_ || trace_)
        keep(Datagram::Direction::sent, data, size, peer, time, false);
}

void Recorder::keep(Datagram::Direction direction, const std::uint8_t* data, std::size_t size, const Endpoint& peer,
                    Time time, bool lost)
{
    Datagram datagram{direction, time, peer, {data, data + size}, lost};
    if (trace_)
        trace_(datagram.text());
    if (!recording_)
        return;
    log_.push_back(std::move(datagram));
    if (log_.size() > limit_)
        log_.pop_front();
}

void Recorder::clear()
{
    log_.clear();
    counters_ = {};
    commands_ = {};
}

} // namespace gevsim
