// One connection: the command set over its channel, under one lock.
#pragma once

#include "client/Channel.h"
#include "client/Follower.h"
#include "client/GevClient.h"
#include "client/Memory.h"
#include "client/TurnLock.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace zuGevClient {

/// Operations are those of Connection. Each takes `turn_` for as long as its commands belong together.
class ConnectionImpl final : private WordAccess {
public:
    ConnectionImpl();
    ~ConnectionImpl() override;

    void close() noexcept;
    bool isOpen() const noexcept { return open_; }

    void bind(const Endpoint& local);
    void setDestination(const Endpoint& camera);
    Endpoint localAddress();
    bool link(LinkMode mode);
    void unlink();
    bool checkLink();
    std::uint32_t readRegister(std::uint32_t address);
    void writeRegister(std::uint32_t address, std::uint32_t value);
    void read(std::uint32_t address, void* destination, std::size_t size);
    void write(std::uint32_t address, const void* source, std::size_t size);
    void setAckTimeout(Milliseconds timeout);
    Milliseconds ackTimeout();
    void setRetries(std::uint32_t retries);
    std::uint32_t retries();
    Heartbeat setHeartbeat(Milliseconds timeout);
    Heartbeat heartbeat();
    void setEventHandler(EventHandler handler);
    void followDaemon(Milliseconds period);
    void stopFollowing();

private:
    /// What the program has set, for a new daemon.
    struct Settings {
        std::optional<Endpoint> local;
        std::optional<Endpoint> camera;
        std::optional<LinkMode> mode;           ///< of a link that stands
        std::optional<std::uint32_t> heartbeat; ///< timeout in milliseconds, of this camera
    };

    // Of WordAccess: each takes the lock for itself.
    void readWords(std::uint32_t address, std::uint8_t* destination, std::size_t size) override;
    void writeWords(std::uint32_t address, const std::uint8_t* source, std::size_t size) override;
    void patchWord(std::uint32_t address, std::size_t offset, const std::uint8_t* source, std::size_t size) override;

    /// Waits for the lock. Throws DaemonLostError at once while the daemon is away.
    std::unique_lock<TurnLock> turn();
    void throwIfAway();

    // Of the follower's thread.
    void follow();
    void watch();
    bool attachAnew();
    void restore();
    void explain(const std::string& why);

    /// The program is told once of each loss. Any thread.
    void lose(const std::string& why);

    // With the lock held.
    void bindTo(const Endpoint& local);
    void aimAt(const Endpoint& camera);
    bool takeLink(LinkMode mode);
    void tune(Command number, Tag tag, std::uint32_t value);
    Heartbeat demandHeartbeat(std::uint32_t value);
    Endpoint askLocalAddress();
    Channel& channel();
    Milliseconds budget(unsigned cameraCommands) const;
    void command(Request& request, Reply& reply, Milliseconds timeout,
                 Channel::OnSilence onSilence = Channel::OnSilence::giveUp);
    void acknowledged(Request& request, Milliseconds timeout);
    std::uint8_t tuning(Command command, Tag tag);
    std::uint32_t fetchRegister(std::uint32_t address);
    void fetchWords(std::uint32_t address, std::uint8_t* destination, std::size_t size);
    void storeWords(std::uint32_t address, const std::uint8_t* source, std::size_t size);
    bool sendWords(std::uint32_t address, const std::uint8_t* source, std::size_t size);
    void giveBack();
    Heartbeat fetchHeartbeat();
    [[noreturn]] void refuseLink(LinkMode mode);

    const std::shared_ptr<EventQueue> events_ = std::make_shared<EventQueue>();
    std::atomic<bool> open_{true};
    std::atomic<bool> away_{false};    ///< the daemon is lost, and followed
    std::atomic<bool> doubted_{false}; ///< a command has timed out
    std::atomic<std::uint16_t> daemonPort_{0};
    mutable std::mutex lossMutex_; ///< guards the two below; a leaf but for the events'
    std::string lossText_;
    bool lossTold_ = false;
    // Of the follower's thread.
    unsigned rounds_ = 0;
    unsigned silences_ = 0;
    bool prepared_ = false; ///< all but the link is as before
    TurnLock turn_;         ///< guards all below; taken before any lock of the pipe
    std::unique_ptr<Channel> channel_;
    bool anew_ = false; ///< the channel is of a new daemon, and not yet the program's
    Settings settings_;
    bool privileged_ = false; ///< by a link of ours
    // The daemon's replies hold but the low byte of these two. Nobody else sets them, so they are known here.
    std::uint32_t ackTimeoutMs_ = defaultAckTimeoutMs;
    std::uint32_t retries_ = defaultRetries;
    static constexpr std::uint32_t defaultAckTimeoutMs = 300;
    static constexpr std::uint32_t defaultRetries = 3;

    Follower follower_{[this] { follow(); }}; ///< goes first
};

} // namespace zuGevClient
