// Commands and replies of one connection: sends a request, checks that the reply belongs to it, tells a slow daemon
// from one that is gone, and answers the daemon's events. The user holds a lock around everything but the event
// answers, which come on the pipe's thread. The user also tells the program of a loss.
#pragma once

#include "client/EventQueue.h"
#include "client/Message.h"
#include "client/Rendezvous.h"

#include <memory>
#include <string>

namespace zuGevClient {

class Channel {
public:
    /// Connects. Throws NoDaemonError.
    explicit Channel(std::shared_ptr<EventQueue> events);
    /// Disconnects: up to 500 ms for the daemon's answer, up to 300 ms for the pipe's own thread.
    ~Channel();
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    /// What to do when no reply came although the daemon lives.
    enum class OnSilence {
        giveUp, ///< the command may have been carried out
        repeat, ///< ask once more: the command changes nothing
    };

    /// Sends the request and waits for its reply, up to `timeout`, and where the daemon asks for more time up to
    /// `timeout` from the end of that.
    /// Throws DaemonLostError, TimeoutError, and DaemonError if the reply is none of this command.
    void exchange(Request& request, Reply& reply, Milliseconds timeout, OnSilence onSilence);

    /// A round trip to the daemon's side of this connection, camera left out, which also tells the local address.
    Endpoint localAddress();

    /// Of the daemon at the other end; network byte order.
    std::uint16_t daemonPort() const { return attachment_.daemonPort; }

private:
    bool send(Request& request, Reply& reply, Milliseconds timeout);
    bool obtainReply(Request& request, Reply& reply, std::uint32_t wait);
    bool belongs(Request& request, Reply& reply);
    bool synchronise(Reply& reply);
    void findOut(const char* what);
    [[noreturn]] void loseDaemon(const std::string& why);

    Attachment attachment_;
    bool lost_ = false;
    bool outOfStep_ = false; ///< a reply may still be under way, or a command not yet read
    std::uint64_t nonce_ = 0;
};

/// "Cmd..." as this library speaks of it in texts.
const char* commandText(Command command);

} // namespace zuGevClient
