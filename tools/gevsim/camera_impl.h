// The inside of Camera: its sockets, its threads, and the one lock over everything that they share.
#pragma once

#include "tools/gevsim/camera.h"
#include "tools/gevsim/device.h"
#include "tools/gevsim/misbehave.h"
#include "tools/gevsim/recorder.h"
#include "tools/gevsim/stream.h"

#include "platform/socket.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <random>
#include <thread>

namespace gevsim {

class Camera::Impl {
public:
    using Clock = std::chrono::steady_clock;
    using Time = Clock::time_point;
    using Lock = std::unique_lock<std::mutex>;

    explicit Impl(const Config& wanted) : Impl(open(wanted)) {}
    ~Impl();

    /// The moment `time` from `now`, which is the end of time for times that lie beyond it.
    static Time after(Time now, Milliseconds time);
    /// Reads the clock and lets what it has ended end. With the lock held, first in every operation.
    Time now();
    /// Wakes whoever waits for a change. With the lock held.
    void changed();
    /// Sends what is due, outside of the lock, which is held before and after.
    void flush(Lock& lock, Time time);
    void moveHeldToScheduled(std::size_t most, Time time);
    void moveReorderedToScheduled(Time time);
    void schedule(Outgoing outgoing);
    /// Waits, a second at most, until sockets that were given up have given their addresses back. Without the lock,
    /// before what may need such an address again.
    void awaitLeft() const;
    void powerCycle(Milliseconds off);
    void setSilence(Time until);

    Config config;
    mutable std::mutex mutex; ///< guards everything below; nothing is called under it but Config::trace
    std::condition_variable condition;
    int waiters = 0;
    std::uint64_t changes = 0; ///< counted while somebody waits
    Stream stream;             ///< has a lock of its own, inside this one
    Device device;
    Recorder recorder;
    FaultQueue faults;
    std::vector<Outgoing> scheduled;  ///< by time due
    std::vector<Outgoing> reordering; ///< gathered by Fault::reorder
    Time reorderEnd = Time::max();    ///< when they go out at the latest
    std::deque<Outgoing> held;        ///< kept back by Fault::hold
    Time silentUntil = Time::min();   ///< see setSilence
    Time offUntil = Time::min();
    double loss = 0;
    std::mt19937_64 random;
    std::shared_ptr<const std::function<void(const Datagram&)>> hook;
    std::atomic<bool> hasHook{false};

private:
    struct Opened {
        Config config;
        zuPlatform::SocketPtr socket;
    };
    explicit Impl(Opened opened);
    static Opened open(Config wanted);

    struct Buffers {
        std::array<std::uint8_t, wire::maxDatagram> command;
        std::array<std::uint8_t, Device::replySize> reply;
    };

    /// A socket and who listens on it. FORCEIP puts another in its place.
    struct Listener {
        zuPlatform::SocketPtr socket;
        bool broadcast = false;
    };

    void stop();
    void serve(std::size_t listener);
    /// Listens under another address. False if the system has no such address, and nothing is changed then.
    bool moveTo(std::uint32_t ip, std::uint32_t mask, std::uint32_t gateway);
    /// To the address that the registers, or else the configuration, say.
    void moveHome();
    void replace(Listener& listener, zuPlatform::SocketPtr socket);
    void move(const Device::Move& wanted, std::uint8_t* reply);
    zuPlatform::SocketPtr mySocket() const { return listeners_.front().socket; }
    void frameEnded(const SentFrame& frame);
    /// Handles one datagram; returns how long the next receive may wait, in milliseconds.
    std::uint32_t take(Buffers& buffers, std::size_t size, bool whole, const zuPlatform::SocketAddress& from,
                       bool broadcast);
    /// Carries out a command that meets a fault, and schedules what comes of it.
    void takeFaulty(const Fault& fault, Buffers& buffers, std::size_t size, const Endpoint& from, Time time);
    std::uint32_t waitFor(Time time) const;
    bool roll();
    bool deaf(Time time) const { return time < silentUntil || time < offUntil; }
    void transmit(const zuPlatform::SocketPtr& socket, const std::uint8_t* data, std::size_t size, const Endpoint& to);

    const Config given_;
    std::vector<Listener> listeners_; ///< the camera's own first
    std::vector<std::weak_ptr<zuPlatform::DatagramSocket>> leaving_;
    std::atomic<bool> stopping_{false};
    std::vector<std::thread> threads_;
};

} // namespace gevsim
