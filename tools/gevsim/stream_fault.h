// Faults of the stream: what is to go wrong with the packets of pictures, and with the requests for them. Values and a
// list of them; the stream's lock guards the list.
#pragma once

#include <chrono>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace gevsim {

/// One fault, made by the functions below and refined by its members' words, as in
/// `camera.inject(StreamFault::lose().leaders())` or `StreamFault::lose().rate(0.05, 7)`. A packet meets at most one:
/// of those that are meant for it, the oldest whose turn it is. Counts are in packets that are hit.
struct StreamFault {
    using Milliseconds = std::chrono::milliseconds;
    static constexpr std::uint32_t always = 0;
    static constexpr std::uint64_t last = std::numeric_limits<std::uint64_t>::max();

    enum class Kind {
        lose,    ///< never reaches the network
        repeat,  ///< is sent `by` times more
        reorder, ///< comes behind `by` later packets, or at the end of its frame
        delay,   ///< comes `time` later
        corrupt, ///< comes damaged
        refuse,  ///< a resend: answered as no longer available
        stop,    ///< the camera falls silent here, in the middle of the frame, until acquisition is started again
        restart, ///< the camera loses power here, for `time`
    };
    enum class Packets { any, leader, trailer, data };
    /// How a packet is damaged.
    enum class Form { payload, id, block, format, status, shorter, longer };
    enum class Of { first, resends, requests, all };

    Kind kind = Kind::lose;
    Of of = Of::first;
    Packets packets = Packets::any;
    std::uint64_t fromPacket = 0, toPacket = last; ///< of these ids
    std::uint64_t fromFrame = 0, toFrame = last;   ///< of pictures with these numbers
    std::uint32_t every = 1;                       ///< each so manieth that fits the above
    double probability = 1;                        ///< and of them each with this one
    std::uint32_t count = 1;
    std::uint32_t by = 1;
    Milliseconds time{0};
    Form form = Form::payload;
    std::uint64_t seed = 1;

    static StreamFault make(Kind kind, std::uint32_t n = 1);
    static StreamFault lose(std::uint32_t n = 1) { return make(Kind::lose, n); }
    static StreamFault repeat(std::uint32_t n = 1) { return make(Kind::repeat, n); }
    static StreamFault reorder(std::uint32_t behind = 1, std::uint32_t n = 1);
    static StreamFault delay(Milliseconds time, std::uint32_t n = 1);
    static StreamFault corrupt(Form form = Form::payload, std::uint32_t n = 1);
    static StreamFault refuse(std::uint32_t n = always);
    static StreamFault stop() { return make(Kind::stop); }
    static StreamFault restart(Milliseconds off = Milliseconds(0));

    StreamFault in(Packets which) const;
    StreamFault ids(std::uint64_t from, std::uint64_t to) const;
    StreamFault frames(std::uint64_t from, std::uint64_t to) const;
    StreamFault eachOf(std::uint32_t n) const;                    ///< and goes on for good
    StreamFault rate(double of1, std::uint64_t ofSeed = 1) const; ///< and goes on for good
    StreamFault on(Of which) const;

    std::string text() const; ///< "lose data packet=3-9 count=1"
};

/// What a fault may be meant for.
struct StreamVictim {
    StreamFault::Of of = StreamFault::Of::first;            ///< first, resends or requests
    StreamFault::Packets kind = StreamFault::Packets::data; ///< any: it is a request
    std::uint64_t frame = 0;                                ///< 0 where it isn't known
    std::uint32_t packet = 0;
};

class StreamFaults {
public:
    void add(const StreamFault& fault);
    void clear() { waiting_.clear(); }
    bool empty() const { return waiting_.empty(); }
    std::vector<StreamFault> faults() const; ///< with the counts that are left

    /// The fault that a packet meets, whose count is one less then.
    std::optional<StreamFault> take(const StreamVictim& victim);

private:
    struct Waiting {
        StreamFault fault;
        std::uint64_t seen = 0;
        std::uint64_t random = 0;
    };
    std::vector<Waiting> waiting_;
};

} // namespace gevsim
