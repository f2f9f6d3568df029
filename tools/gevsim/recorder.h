// The log of datagrams and the counts. Not locked: the camera's lock guards it. Allocates only while recording or
// tracing.
#pragma once

#include "tools/gevsim/config.h"
#include "tools/gevsim/datagram.h"

#include <array>
#include <deque>
#include <functional>
#include <string>

namespace gevsim {

class Recorder {
public:
    using Time = std::chrono::steady_clock::time_point;

    explicit Recorder(const Config& config)
        : recording_(config.recording), limit_(config.recordLimit), trace_(config.trace)
    {
    }

    void received(const std::uint8_t* data, std::size_t size, const Endpoint& peer, Time time, bool isCommand,
                  bool lost);
    void sent(const std::uint8_t* data, std::size_t size, const Endpoint& peer, Time time);
    /// A line for the trace, such as "control lost: heartbeat timeout".
    void note(const std::string& text)
    {
        if (trace_)
            trace_(text);
    }
    bool tracing() const { return static_cast<bool>(trace_); }

    void setRecording(bool on) { recording_ = on; }
    void setTrace(std::function<void(const std::string&)> trace) { trace_ = std::move(trace); }
    void clear();
    const std::deque<Datagram>& log() const { return log_; }
    Counters& counters() { return counters_; }
    const Counters& counters() const { return counters_; }
    std::uint64_t count(Command command) const { return commands_[slot(static_cast<std::uint16_t>(command))]; }
    const Endpoint& lastPeer() const { return lastPeer_; }

private:
    static constexpr std::size_t slots = 256;
    /// All codes above the standard's share the last slot.
    static std::size_t slot(std::uint16_t code) { return code / 2u < slots ? code / 2u : slots - 1; }
    void keep(Datagram::Direction direction, const std::uint8_t* data, std::size_t size, const Endpoint& peer,
              Time time, bool lost);

    bool recording_;
    const std::size_t limit_;
    std::function<void(const std::string&)> trace_;
    std::deque<Datagram> log_;
    Counters counters_;
    std::array<std::uint64_t, slots> commands_{};
    Endpoint lastPeer_{0, 0};
};

} // namespace gevsim
