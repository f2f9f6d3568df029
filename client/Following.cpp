// How a connection follows its daemon: notices that it is gone, finds the next one, and sets there what the program had
// set. A round of the follower's thread does one of the two, and waits for nobody who could be waiting for it.
#include "client/ConnectionImpl.h"

#include "client/Rendezvous.h"

#include <stdexcept>

namespace zuGevClient {

namespace {

/// A daemon that died and came back at the same port between two rounds shows in that it doesn't know us.
constexpr unsigned roundsBetweenPings = 10;
constexpr unsigned mostSilences = 3;

constexpr char portText[] = "The daemon is gone: its port is free";

} // namespace

void ConnectionImpl::followDaemon(Milliseconds period)
{
    if (period.count() <= 0)
        throw std::invalid_argument("A daemon can't be looked for without a pause");
    if (!open_)
        throw ClosedError("The connection is closed");
    follower_.start(period);
}

void ConnectionImpl::stopFollowing()
{
    follower_.stop();
    explain("The daemon is gone, and this connection has ceased to follow it");
}

// A look at the port costs little beside a command, which would wait for seconds for a daemon that is dead.
void ConnectionImpl::throwIfAway()
{
    if (!away_ && follower_.isOn() && portIsFree(daemonPort_))
        lose(portText);
    if (!away_)
        return;
    if (!open_)
        throw ClosedError("The connection is closed");
    const std::lock_guard<std::mutex> guard(lossMutex_);
    throw DaemonLostError(lossText_);
}

void ConnectionImpl::lose(const std::string& why)
{
    const std::lock_guard<std::mutex> guard(lossMutex_);
    if (!away_ && follower_.isOn()) {
        lossText_ = why + "; waiting for it to come back";
        away_ = true;
        follower_.hurry();
    }
    if (!lossTold_) {
        lossTold_ = true;
        events_->push(Event::daemonLost);
    }
}

void ConnectionImpl::explain(const std::string& why)
{
    const std::lock_guard<std::mutex> guard(lossMutex_);
    lossText_ = why;
}

void ConnectionImpl::follow()
{
    if (!away_)
        watch();
    if (away_ && open_ && attachAnew())
        restore();
}

void ConnectionImpl::watch()
{
    if (portIsFree(daemonPort_)) {
        lose(portText);
        return;
    }
    if (++rounds_ % roundsBetweenPings != 0 && !doubted_ && silences_ == 0)
        return;
    const std::lock_guard<TurnLock> ping(turn_);
    if (!channel_)
        return; // closed meanwhile
    doubted_ = false;
    try {
        askLocalAddress();
        silences_ = 0;
    } catch (const DaemonLostError&) {
        // Noted.
    } catch (const Error&) {
        if (++silences_ == mostSilences)
            lose("The daemon is gone: the one that is there does not know this connection");
    }
}

bool ConnectionImpl::attachAnew()
{
    std::unique_ptr<Channel> old; // its end takes a while
    {
        const std::lock_guard<TurnLock> lock(turn_);
        if (anew_)
            return true;
        old = std::move(channel_);
        privileged_ = false;
    }
    old.reset();
    const std::uint16_t port = publishedPort();
    if (port == 0 || portIsFree(port))
        return false;
    std::unique_ptr<Channel> fresh;
    try {
        fresh = std::make_unique<Channel>(events_);
    } catch (const NoDaemonError&) {
        return false;
    }
    const std::lock_guard<TurnLock> lock(turn_);
    channel_ = std::move(fresh);
    anew_ = true;
    prepared_ = false;
    return true;
}

// The order of the typical program. A link that is refused is tried again over the same channel.
void ConnectionImpl::restore()
{
    std::unique_ptr<Channel> useless;
    const std::lock_guard<TurnLock> lock(turn_);
    if (!open_)
        return;
    try {
        if (!prepared_) {
            if (settings_.local)
                bindTo(*settings_.local);
            if (ackTimeoutMs_ != defaultAckTimeoutMs)
                tune(zuIPCPipe::CmdSetAckTimeout, zuIPCPipe::TagAckTimeout, ackTimeoutMs_);
            if (retries_ != defaultRetries)
                tune(zuIPCPipe::CmdSetRetries, zuIPCPipe::TagRetries, retries_);
            if (settings_.camera)
                aimAt(*settings_.camera);
            prepared_ = true;
        }
        if (settings_.mode) {
            takeLink(*settings_.mode);
            if (settings_.mode->isPrivileged() && settings_.heartbeat)
                demandHeartbeat(*settings_.heartbeat);
        }
    } catch (const CameraError& refusal) {
        explain(std::string("The daemon is back, but not the link, which is tried again: ") + refusal.what());
        return;
    } catch (const std::exception& failure) {
        explain(std::string("The daemon is back, but not this connection, which is tried again: ") + failure.what());
        useless = std::move(channel_);
        anew_ = false;
        return;
    }
    daemonPort_ = channel_->daemonPort();
    anew_ = false;
    silences_ = 0;
    doubted_ = false;
    const std::lock_guard<std::mutex> guard(lossMutex_);
    lossTold_ = false;
    away_ = false;
    events_->push(Event::daemonReturned);
}

} // namespace zuGevClient
