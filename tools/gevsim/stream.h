// The camera's stream channel: exposes pictures, sends them in packets, keeps the last ones for resends, and does wrong
// what it is told to do wrong. Its socket and its thread begin when the channel is opened for the first time.
#pragma once

#include "tools/gevsim/gvsp.h"
#include "tools/gevsim/stream_fault.h"
#include "tools/gevsim/stream_types.h"

#include "platform/socket.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace gevsim {

/// Any thread may call. The lock is a leaf: nothing is called under it, and calls don't wait for the network.
/// Without faults, a frame costs no allocation once the ring is filled.
class Stream : public StreamOrders {
public:
    using Clock = std::chrono::steady_clock;
    using Time = Clock::time_point;
    using Milliseconds = std::chrono::milliseconds;

    /// Called on the stream's thread without its lock.
    struct Hooks {
        std::function<void(const SentFrame&)> frameEnded; ///< `missing` is left out
        std::function<void(Milliseconds)> restart;        ///< StreamFault::restart
    };

    /// Packets come from `ip`, no faster than over a link of `linkSpeed` megabits a second (0: as fast as can be); the
    /// last `ringFrames` frames can be sent again.
    Stream(std::uint32_t ip, std::size_t ringFrames, std::uint32_t linkSpeed, Hooks hooks);
    ~Stream() override;
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    /// Stops at the next packet and joins the thread. Not to be called under a lock that the hooks take. Repeatable.
    void end();

    std::uint16_t configure(const StreamSetup& setup) override;
    void start(std::uint64_t session) override;
    void stop() override;
    void trigger(TriggerSource source) override;
    void fireTestPacket() override;
    void resend(const ResendRequest& request) override;

    /// The camera has another address now: later packets come from there. Closes the channel.
    void moveTo(std::uint32_t ip);
    bool open() const { return open_; }
    /// The last session that came to its end by itself, having sent its number of frames.
    std::uint64_t finishedSession() const { return finishedSession_; }
    /// Nothing reaches the network until then.
    void silence(Time until) { silentUntil_ = until.time_since_epoch().count(); }
    /// The number of the next picture, and of those after it.
    void setNextNumber(std::uint64_t number);

    void inject(const StreamFault& fault);
    std::vector<StreamFault> faults() const;
    void clearFaults();

    StreamCounters counters() const;
    /// The last frames, oldest first; one that is being sent is the last.
    std::vector<SentFrame> frames() const;
    void clearReport();

private:
    using Lock = std::unique_lock<std::mutex>;
    static constexpr std::size_t batchSize = 64, mostRequests = 256, reportSize = 1024;

    /// A frame as it can be sent again. The stream's thread alone touches it.
    struct Slot {
        bool valid = false;
        SentFrame frame;
        std::vector<std::uint8_t> payload;
        std::uint32_t reached = 0; ///< packets whose turn has come
        std::uint64_t record = 0;  ///< where its report stands
    };
    struct Record {
        std::uint64_t sequence = 0;
        SentFrame frame;
        std::vector<std::uint64_t> good; ///< a bit for each packet that went out undamaged
    };
    struct Packet {
        std::array<std::uint8_t, gvsp::largestHead> head;
        std::size_t headSize = 0;
        const std::uint8_t* body = nullptr;
        std::size_t bodySize = 0;
        std::uint64_t record = 0;
        std::uint32_t id = 0;
        bool good = true; ///< counts for the report
    };
    /// A packet that a fault keeps back.
    struct Late {
        Time due;
        std::uint32_t behind = 0; ///< packets that still go before it; 0: `due` tells
        std::vector<std::uint8_t> bytes;
        std::uint64_t record = 0;
        std::uint32_t id = 0;
    };
    enum class Outcome { goesOn, stops, restarts };

    void run();
    void acquire(Lock& lock, std::uint64_t seen);
    bool pause(Lock& lock, Time until, std::uint64_t seen, bool forTrigger = false);
    bool serve(Lock& lock);
    void sendFrame(Lock& lock, const StreamSetup& setup, Time exposed);
    /// Sends the frame's packets in turn; true if none is left.
    bool sendPackets(Lock& lock, Slot& slot, const StreamSetup& setup);
    void pace(Lock& lock, Time until, bool exactly);
    /// How long the link is busy with what the last batch was.
    Time::duration onTheLine() const;
    bool aborted(std::uint64_t openings) const { return ending_ || !open_ || openings != openings_; }
    Slot& beginFrame(const StreamSetup& setup, Time exposed);
    void prepare(const StreamSetup& setup);
    void answer(Lock& lock, const ResendRequest& request);
    Slot* find(std::uint64_t block, bool extended);
    void sendTestPacket(Lock& lock);

    void build(const Slot& slot, std::uint32_t id, std::uint16_t status, std::uint16_t flags, Packet& packet) const;
    static void damage(StreamFault::Form form, std::vector<std::uint8_t>& bytes, bool extended);
    /// Takes a packet for the next batch, past what faults make of it.
    Outcome post(const Packet& packet, const StreamVictim& victim, StreamFault& met);
    void keep(const Packet& packet, const StreamFault& fault);
    void append(const Packet& packet);
    /// Sends the batch. Without the lock.
    void flush();
    void flushLate(bool all);
    void fragment(bool never);
    void mark(std::uint64_t record, std::uint32_t id);

    const Hooks hooks_;
    const std::uint32_t linkSpeed_;
    std::atomic<bool> open_{false}, hasFaults_{false};
    std::atomic<std::uint64_t> finishedSession_{0};
    std::atomic<Time::rep> silentUntil_{Time::min().time_since_epoch().count()};

    mutable std::mutex mutex_; ///< guards what follows
    std::condition_variable condition_;
    std::uint32_t ip_;
    zuPlatform::SocketPtr socket_;
    std::uint16_t port_ = 0;
    StreamSetup setup_;
    bool acquiring_ = false, triggered_ = false, ending_ = false;
    std::uint64_t session_ = 0;
    std::uint64_t changes_ = 0;  ///< starts, stops, openings and closings
    std::uint64_t openings_ = 0; ///< blocks of earlier ones can't be had any more
    std::uint64_t nextNumber_ = 1;
    std::optional<std::uint64_t> wantedNumber_;
    std::uint32_t testPackets_ = 0;
    std::array<ResendRequest, mostRequests> requests_;
    std::size_t firstRequest_ = 0, requestCount_ = 0;
    StreamFaults faults_;
    StreamCounters counters_;
    std::vector<Record> records_;
    std::uint64_t nextRecord_ = 1, firstRecord_ = 1;

    // Of the stream's thread.
    std::vector<Slot> slots_;
    std::size_t nextSlot_ = 0;
    std::uint64_t slotOpenings_ = 0;
    Painter painter_;
    std::array<Packet, batchSize> batch_;
    std::size_t batched_ = 0;
    std::size_t lastBatch_ = 0;                          ///< bytes of the last one on the line
    std::vector<std::vector<std::uint8_t>> batchCopies_; ///< bytes of packets that a fault has touched
    std::vector<Late> late_;
    zuPlatform::SocketPtr sender_; ///< with the two below, of what is being sent
    zuPlatform::SocketAddress to_;
    std::optional<bool> dontFragment_;
    std::vector<std::uint8_t> blank_;
    StreamCounters pending_; ///< what `flush` has counted, until the lock is had

    std::thread thread_;
};

} // namespace gevsim
