// The library by which a program uses the cameras that this machine's daemon holds. A Connection is one camera link;
// its operations block until the daemon has answered and throw an Error (GevClientError.h) when it could not be done.
// Any thread may call; commands of one connection run one after the other. Addresses and values are in host order.
#pragma once

#include "client/GevClientError.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace zuGevClient {

using Milliseconds = std::chrono::milliseconds;

/// UDP port on which cameras take commands.
inline constexpr std::uint16_t gvcpPort = 3956;

/// Registers of the standard's bootstrap map that the library itself looks at.
namespace Register {
inline constexpr std::uint32_t heartbeatTimeout = 0x0938; ///< milliseconds
inline constexpr std::uint32_t controlChannelPrivilege = 0x0A00;
} // namespace Register

/// IPv4 address (0x7F000001 is 127.0.0.1) and UDP port.
struct Endpoint {
    std::uint32_t address = 0;
    std::uint16_t port = 0;
    friend bool operator==(const Endpoint&, const Endpoint&) = default;
};

/// "a.b.c.d:port"; without ":port" if the port is 0.
ZU_GEV_CLIENT_API std::string toString(const Endpoint& endpoint);
/// Takes "a.b.c.d" and "a.b.c.d:port"; empty if the text is neither.
ZU_GEV_CLIENT_API std::optional<Endpoint> parseEndpoint(const std::string& text, std::uint16_t defaultPort = gvcpPort);

/// What a link asks of the camera.
class ZU_GEV_CLIENT_API LinkMode {
public:
    /// Reads only: takes no privilege, so there is no heartbeat and there are no events.
    static LinkMode monitor();
    /// Sole right to write; others may read.
    static LinkMode control();
    /// Sole right to read and write.
    static LinkMode exclusive();
    /// Control that another application which knows `key` may take over.
    static LinkMode switchover(std::uint16_t key);

    std::uint32_t value() const { return value_; }
    bool isPrivileged() const;

private:
    explicit LinkMode(std::uint32_t value) : value_(value) {}
    std::uint32_t value_;
};

/// Heartbeat of a link. The camera drops a link that is silent for `timeout`; 0 means never. `margin` is what of it
/// lies beyond the daemon's own period, so timeout - margin is the time between two of its reads.
struct Heartbeat {
    Milliseconds timeout{0};
    Milliseconds margin{0};
};

/// What can happen to a link unasked.
enum class Event {
    connectionLost, ///< the camera does not answer; told again at each failed heartbeat
    controlLost,    ///< the camera answers, but no longer grants control: it restarted, or its heartbeat ran out
    reconnected,    ///< the daemon has taken control again; what else the camera lost is for the application to restore
    daemonLost,     ///< the daemon is gone; told once, when a command finds out. The connection stays useless, unless
                    ///< it follows the daemon
    daemonReturned, ///< of a connection that follows: a new daemon holds the camera as the old one did
};
ZU_GEV_CLIENT_API const char* toString(Event event);

/// Called on a thread of the connection's own, in the order of the events; a repetition is left out while the first is
/// still waiting its turn. It may take its time, use the connection, and even destroy it, since the daemon gets its
/// answer elsewhere. What it throws is dropped.
using EventHandler = std::function<void(Event)>;

/// The daemon of this machine.
class ZU_GEV_CLIENT_API Daemon {
public:
    /// Whether a daemon answers. Blocks up to `wait`; takes nothing and leaves nothing behind.
    static bool isRunning(Milliseconds wait = Milliseconds(1500));
    /// UDP port on the loopback interface that the daemon has published, dead or alive; 0 if there never was one.
    static std::uint16_t port();
};

class ConnectionImpl;

/// One camera link, held by the daemon for as long as this object exists. Movable; a moved-from or closed connection
/// throws ClosedError. The typical order: setDestination, link, accesses, unlink.
class ZU_GEV_CLIENT_API Connection {
public:
    /// Connects to the daemon. Throws NoDaemonError, within two seconds if there is none; one that is busy with the end
    /// of another client, or whatever has its port, is waited for, up to a minute. Any number of connections may be
    /// open.
    Connection();
    /// Gives the camera back and leaves the daemon: up to about a second. Does not throw.
    ~Connection();
    Connection(Connection&&) noexcept;
    Connection& operator=(Connection&&) noexcept;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Ends the connection early, after commands in flight. Repeatable.
    void close() noexcept;
    bool isOpen() const noexcept;

    /// The local address of the control socket. Address 0 leaves the choice to the system, port 0 lets it choose a
    /// port. Without a bind the socket is bound at the first command. Throws DaemonError if the system refused.
    void bind(const Endpoint& local);
    void setDestination(const Endpoint& camera);
    /// All 0 before a bind.
    Endpoint localAddress();

    /// Takes the privilege and starts the heartbeat; without privilege it only prepares register access. True if
    /// reading back the privilege register gave what was written. On a CameraError nothing is held.
    bool link(LinkMode mode);
    /// Gives the camera back. Harmless on a connection without link.
    void unlink();
    /// True if the camera answers and its privilege register holds what the link wrote.
    bool checkLink();

    std::uint32_t readRegister(std::uint32_t address);
    void writeRegister(std::uint32_t address, std::uint32_t value);

    /// Memory of any length at any address; nothing outside [address, address + size) changes. Cameras take whole
    /// words: what lies unaligned at the ends is read, merged and written back. Long transfers are many commands,
    /// between which other threads' commands get their turn. A failure leaves the start written.
    ///
    /// Writing needs control. Where it took the time of all attempts, so that the acknowledge may be missing, the data
    /// is read back; if it isn't there it is written once more, and read back again if that took as long. CameraError
    /// with Status::timeout if it still isn't there. That covers silence: attempts that end early, by a PENDING_ACK of
    /// a short time that the camera doesn't keep or by malformed answers, may go unnoticed. Who must be sure reads
    /// back.
    void readMemory(std::uint32_t address, void* destination, std::size_t size);
    std::vector<std::uint8_t> readMemory(std::uint32_t address, std::size_t size);
    void writeMemory(std::uint32_t address, const void* source, std::size_t size);

    /// Wait for one answer of the camera, 300 ms at first, and attempts at each command, 3 at first. Neither may be 0.
    void setAckTimeout(Milliseconds timeout);
    Milliseconds ackTimeout();
    void setRetries(std::uint32_t retries);
    std::uint32_t retries();

    /// Sets the camera's heartbeat timeout, at least (retries + 2) * ack timeout; 0 turns the heartbeat off. Returns
    /// what is in force afterwards. Throws CameraError if the camera did not take it, Error without a link that holds
    /// a privilege.
    Heartbeat setHeartbeat(Milliseconds timeout);
    Heartbeat heartbeat();

    /// Replaces the handler; an empty one drops events. No call of the old one begins after this returns, but one may
    /// still run.
    void setEventHandler(EventHandler handler);

    /// One round trip to the daemon that leaves the camera alone. Throws DaemonLostError, TimeoutError.
    void ping();

    /// From now on the connection comes back after the daemon has been started anew. Each `period` it looks whether its
    /// daemon is there, so that daemonLost is also told to a program that sends nothing. From then on every operation
    /// but close throws DaemonLostError at once, with what is waited for; one that is under way ends by its own time.
    /// When a new daemon is there, what the program had set is set again: bind, setAckTimeout, setRetries,
    /// setDestination, link, setHeartbeat. While the camera is silent, or still held by the dead daemon's link, that is
    /// tried again each period. Then daemonReturned is told, and operations work. Registers are for the program, as is
    /// a command that was under way at the loss. Closing the connection may take longer, by an attempt under way.
    /// Throws ClosedError.
    void followDaemon(Milliseconds period = Milliseconds(1000));
    /// Ends that. A connection that has lost its daemon stays useless until the next followDaemon.
    void stopFollowing();

private:
    ConnectionImpl& impl() const;
    std::shared_ptr<ConnectionImpl> impl_;
};

} // namespace zuGevClient
