// Sockets and threads of a camera, and the road of a datagram through it. Each socket has its thread; answers leave
// through the camera's own socket, sent by whichever thread finds them due.
#include "tools/gevsim/camera_impl.h"

#include "tools/gevsim/platform_address.h"

#include "platform/clock.h"
#include "platform/network.h"
#include "platform/thread.h"

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace gevsim {

using namespace zuPlatform;

namespace {

/// Constant, because a receive whose timeout changes costs a system call more.
constexpr std::uint32_t idleWaitMs = 250;
constexpr int receiveBuffer = 1024 * 1024;
constexpr std::uint32_t limitedBroadcast = 0xFFFFFFFF;
constexpr std::uint32_t loopbackMask = 0xFF000000;

/// Binds, and puts the real port into `where`.
SocketPtr openSocket(Endpoint& where, bool shared)
{
    int error = 0;
    const SocketPtr socket = DatagramSocket::open(error);
    if (socket && shared)
        error = socket->setReuseAddress();
    if (socket && error == 0)
        error = socket->bind(toPlatform(where));
    SocketAddress bound;
    if (socket && error == 0)
        error = socket->getLocalAddress(bound);
    if (!socket || error != 0)
        throw std::runtime_error("can't listen on " + where.text() + ": " + std::system_category().message(error));
    where = fromPlatform(bound);
    socket->setReceiveBuffer(receiveBuffer);
    return socket;
}

std::uint32_t maskOf(std::uint32_t ip)
{
    for (const NetworkInterface& interface : networkInterfaces()) {
        const std::uint32_t mask = networkToHost32(interface.netmask);
        if (((networkToHost32(interface.address) ^ ip) & mask) == 0)
            return mask;
    }
    return loopbackMask;
}

} // namespace

Camera::Impl::Time Camera::Impl::after(Time now, Milliseconds time)
{
    constexpr Milliseconds longest = std::chrono::hours(24 * 365);
    return time >= longest ? Time::max() : now + time;
}

Camera::Impl::Opened Camera::Impl::open(Config wanted)
{
    if (wanted.endpoint.ip == 0)
        throw std::invalid_argument("a camera listens on one address, not on 0.0.0.0");
    // Address and port are part of what stands in the registers, so they are settled first.
    SocketPtr socket = openSocket(wanted.endpoint, false);
    if (wanted.subnetMask == 0)
        wanted.subnetMask = maskOf(wanted.endpoint.ip);
    return {std::move(wanted), std::move(socket)};
}

Camera::Impl::Impl(Opened opened)
    : config(std::move(opened.config)), stream(config.endpoint.ip, config.resendFrames, config.linkSpeed,
                                               {[this](const SentFrame& frame) { frameEnded(frame); },
                                                [this](Milliseconds off) {
                                                    awaitLeft();
                                                    const Lock lock(mutex);
                                                    powerCycle(off);
                                                }}),
      device(config, Clock::now(), stream), recorder(config), random(config.seed), given_(config)
{
    listeners_.push_back({std::move(opened.socket), false});
    if (config.broadcastDiscovery) {
        const std::uint32_t directed = config.endpoint.ip | ~config.subnetMask;
        for (const std::uint32_t address : {limitedBroadcast, directed}) {
            Endpoint where(address, config.endpoint.port);
            listeners_.push_back({openSocket(where, true), true});
        }
    }
    try {
        for (std::size_t i = 0; i < listeners_.size(); ++i)
            threads_.emplace_back([this, i] { serve(i); });
    } catch (...) {
        stop();
        throw;
    }
}

Camera::Impl::~Impl() { stop(); }

void Camera::Impl::stop()
{
    {
        const Lock lock(mutex);
        stopping_ = true;
        for (const Listener& listener : listeners_)
            listener.socket->close();
    }
    stream.end();
    for (std::thread& thread : threads_)
        thread.join();
}

void Camera::Impl::serve(std::size_t listener)
{
    nameCurrentThread("gevsim");
    SocketPtr socket;
    bool broadcast = false;
    {
        const Lock lock(mutex);
        socket = listeners_[listener].socket;
        broadcast = listeners_[listener].broadcast;
    }
    const auto buffers = std::make_unique<Buffers>();
    std::uint32_t wait = idleWaitMs;
    while (!stopping_) {
        SocketAddress from;
        const ReceiveResult result = socket->receive(buffers->command.data(), buffers->command.size(), wait, &from);
        // A datagram larger than the buffer is no command.
        const bool cut =
            result.kind == ReceiveResult::Kind::receiveFailed && result.error == messageSizeError && result.count > 0;
        if (result.kind == ReceiveResult::Kind::received || cut) {
            wait = take(*buffers, static_cast<std::size_t>(result.count), !cut, from, broadcast);
        } else if (result.kind == ReceiveResult::Kind::waitFailed) {
            // Let go of at once: who waits for its address can't know when.
            const DatagramSocket* const old = socket.get();
            socket.reset();
            const Lock lock(mutex);
            if (listeners_[listener].socket.get() == old)
                break;
            socket = listeners_[listener].socket;
        } else {
            Lock lock(mutex);
            const Time time = now();
            flush(lock, time);
            wait = waitFor(Clock::now());
        }
    }
}

Camera::Impl::Time Camera::Impl::now()
{
    const Time time = Clock::now();
    if (device.expire(time)) {
        ++recorder.counters().controlLost;
        recorder.note("control lost: its holder was silent for longer than the heartbeat timeout");
        changed();
    }
    device.acquisitionEnded(stream.finishedSession());
    return time;
}

void Camera::Impl::changed()
{
    if (waiters == 0)
        return;
    ++changes;
    condition.notify_all();
}

bool Camera::Impl::roll()
{
    if (loss <= 0)
        return false;
    constexpr double unit = 1.0 / 9007199254740992.0; // 2 to the power of -53
    return static_cast<double>(random() >> 11) * unit < loss;
}

std::uint32_t Camera::Impl::take(Buffers& buffers, std::size_t size, bool whole, const SocketAddress& address,
                                 bool broadcast)
{
    const Endpoint from = fromPlatform(address);
    const std::uint8_t* command = buffers.command.data();
    const bool isCommand = whole && Device::isCommand(command, size);
    const std::uint16_t code = isCommand ? wire::get16(command + wire::atCode) : std::uint16_t{0};
    // Broadcast is for discovery and addresses; other commands in it are meant for other cameras.
    if (broadcast && code != static_cast<std::uint16_t>(Command::discovery) &&
        code != static_cast<std::uint16_t>(Command::forceIp))
        return idleWaitMs;
    if (hasHook && isCommand) {
        Lock lock(mutex);
        const auto call = hook;
        lock.unlock();
        if (call && *call)
            (*call)({Datagram::Direction::received, Clock::now(), from, {command, command + size}, false});
    }

    if (code == static_cast<std::uint16_t>(Command::forceIp))
        awaitLeft();
    Lock lock(mutex);
    const Time time = now();
    std::optional<Fault> fault;
    bool lost = deaf(time) || roll();
    if (isCommand && !lost && !faults.empty()) {
        fault = faults.take(code);
        lost = fault && fault->kind == Fault::Kind::drop;
    }
    recorder.received(command, size, from, time, isCommand, lost);
    std::size_t answered = 0;
    if (isCommand && !lost) {
        if (fault)
            takeFaulty(*fault, buffers, size, from, time);
        else
            answered = device.handle(command, size, from, time, buffers.reply.data());
    }
    if (const auto wanted = device.takeMove())
        move(*wanted, buffers.reply.data());
    const bool reset = device.takeReset();
    if (answered != 0 && roll()) {
        recorder.note("(acknowledge lost)");
        answered = 0;
    }
    if (answered != 0)
        recorder.sent(buffers.reply.data(), answered, from, time);
    changed();
    std::uint32_t wait = idleWaitMs;
    if (!scheduled.empty() || !reordering.empty() || stream.open()) {
        flush(lock, time);
        wait = waitFor(Clock::now());
    }
    const SocketPtr socket = mySocket();
    lock.unlock();
    if (answered != 0)
        transmit(socket, buffers.reply.data(), answered, from);
    if (reset) {
        awaitLeft();
        lock.lock();
        powerCycle(Milliseconds(0));
    }
    return wait;
}

void Camera::Impl::takeFaulty(const Fault& fault, Buffers& buffers, std::size_t size, const Endpoint& from, Time time)
{
    if (recorder.tracing())
        recorder.note("fault: " + fault.text());
    const std::uint8_t* command = buffers.command.data();
    std::uint8_t* reply = buffers.reply.data();
    const bool wantsAck = (command[wire::atFlags] & wire::flagAckRequired) != 0;
    std::size_t answered = 0;
    if (fault.kind == Fault::Kind::status)
        answered = wantsAck ? Device::refuse(command, fault.value, reply) : 0;
    else
        answered = device.handle(command, size, from, time, reply);
    if (answered != 0 && fault.kind != Fault::Kind::dropAck) {
        std::vector<Outgoing> outgoing;
        misbehave(fault, command, reply, answered, from, time, outgoing);
        for (Outgoing& datagram : outgoing) {
            if (fault.kind == Fault::Kind::hold) {
                held.push_back(std::move(datagram));
            } else if (fault.kind == Fault::Kind::reorder) {
                if (reordering.empty())
                    reorderEnd = time + fault.time;
                reordering.push_back(std::move(datagram));
            } else {
                schedule(std::move(datagram));
            }
        }
    }
    if (fault.kind == Fault::Kind::reorder && fault.count == 0)
        moveReorderedToScheduled(time);
}

void Camera::Impl::schedule(Outgoing outgoing)
{
    const auto place = std::upper_bound(scheduled.begin(), scheduled.end(), outgoing.due,
                                        [](Time due, const Outgoing& other) { return due < other.due; });
    scheduled.insert(place, std::move(outgoing));
}

void Camera::Impl::moveReorderedToScheduled(Time time)
{
    for (auto it = reordering.rbegin(); it != reordering.rend(); ++it) {
        it->due = time;
        schedule(std::move(*it));
    }
    reordering.clear();
    reorderEnd = Time::max();
}

void Camera::Impl::moveHeldToScheduled(std::size_t most, Time time)
{
    for (; most > 0 && !held.empty(); --most) {
        held.front().due = time;
        schedule(std::move(held.front()));
        held.pop_front();
    }
}

void Camera::Impl::flush(Lock& lock, Time time)
{
    if (time >= reorderEnd)
        moveReorderedToScheduled(time);
    const auto end = std::find_if(scheduled.begin(), scheduled.end(),
                                  [time](const Outgoing& outgoing) { return outgoing.due > time; });
    if (end == scheduled.begin())
        return;
    std::vector<Outgoing> due(std::make_move_iterator(scheduled.begin()), std::make_move_iterator(end));
    scheduled.erase(scheduled.begin(), end);
    std::erase_if(due, [&](const Outgoing&) { return deaf(time) || roll(); });
    for (const Outgoing& outgoing : due)
        recorder.sent(outgoing.bytes.data(), outgoing.bytes.size(), outgoing.to, time);
    changed();
    const SocketPtr socket = mySocket();
    lock.unlock();
    for (const Outgoing& outgoing : due)
        transmit(socket, outgoing.bytes.data(), outgoing.bytes.size(), outgoing.to);
    lock.lock();
}

std::uint32_t Camera::Impl::waitFor(Time time) const
{
    Time next = reorderEnd;
    if (!scheduled.empty())
        next = std::min(next, scheduled.front().due);
    // The channel closes when control ends, and not some time after.
    if (stream.open())
        next = std::min(next, device.controlDeadline());
    if (next == Time::max())
        return idleWaitMs;
    if (next <= time)
        return 0;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - time).count();
    return static_cast<std::uint32_t>(std::min<std::int64_t>(left, idleWaitMs));
}

void Camera::Impl::setSilence(Time until)
{
    silentUntil = until;
    stream.silence(until);
}

void Camera::Impl::powerCycle(Milliseconds off)
{
    const Time time = now();
    device.powerCycle(time);
    scheduled.clear();
    reordering.clear();
    reorderEnd = Time::max();
    held.clear();
    moveHome();
    offUntil = after(time, off);
    recorder.note("power cycle");
    changed();
}

void Camera::Impl::replace(Listener& listener, SocketPtr socket)
{
    // Wakes its thread, which goes on with the new one.
    std::erase_if(leaving_, [](const std::weak_ptr<DatagramSocket>& old) { return old.expired(); });
    leaving_.push_back(listener.socket);
    std::exchange(listener.socket, std::move(socket))->close();
}

void Camera::Impl::awaitLeft() const
{
    constexpr std::uint32_t stepMs = 1, mostSteps = 1000;
    for (std::uint32_t step = 0; step < mostSteps; ++step) {
        {
            const Lock lock(mutex);
            if (std::all_of(leaving_.begin(), leaving_.end(),
                            [](const std::weak_ptr<DatagramSocket>& old) { return old.expired(); }))
                return;
        }
        sleepMs(stepMs);
    }
}

bool Camera::Impl::moveTo(std::uint32_t ip, std::uint32_t mask, std::uint32_t gateway)
{
    if (stopping_)
        return false;
    const std::uint32_t oldDirected = config.endpoint.ip | ~config.subnetMask, directed = ip | ~mask;
    try {
        Endpoint where(ip, config.endpoint.port), everybody(directed, config.endpoint.port);
        SocketPtr own, broadcast;
        if (ip != config.endpoint.ip)
            own = openSocket(where, false);
        if (config.broadcastDiscovery && directed != oldDirected)
            broadcast = openSocket(everybody, true);
        if (own) {
            replace(listeners_.front(), std::move(own));
            stream.moveTo(ip);
        }
        if (broadcast)
            replace(listeners_.back(), std::move(broadcast));
    } catch (const std::runtime_error&) {
        return false;
    }
    config.endpoint.ip = ip;
    config.subnetMask = mask;
    device.space().setAddress(ip, mask, gateway);
    return true;
}

void Camera::Impl::moveHome()
{
    const AddressSpace& space = device.space();
    const bool persistent = (space.get(reg::currentIpConfiguration) & ipConfigurationValue::persistent) != 0 &&
                            space.get(reg::persistentIp);
    if (persistent &&
        moveTo(space.get(reg::persistentIp), space.get(reg::persistentSubnetMask), space.get(reg::persistentGateway)))
        return;
    moveTo(given_.endpoint.ip, given_.subnetMask, 0);
}

void Camera::Impl::move(const Device::Move& wanted, std::uint8_t* reply)
{
    const Endpoint old = config.endpoint;
    if (wanted.ip == 0)
        moveHome();
    else if (!moveTo(wanted.ip, wanted.mask, wanted.gateway))
        wire::put16(reply + wire::atStatus, static_cast<std::uint16_t>(Status::localProblem));
    if (config.endpoint != old)
        recorder.note("address " + config.endpoint.text());
}

void Camera::Impl::frameEnded(const SentFrame& frame)
{
    const Lock lock(mutex);
    if (recorder.tracing())
        recorder.note("=> picture " + std::to_string(frame.picture.number) + " block " + std::to_string(frame.block) +
                      " " + std::to_string(frame.picture.width) + "x" + std::to_string(frame.picture.height) + " " +
                      pixel::name(frame.picture.format) + " in " + std::to_string(frame.packets) + " packets");
    changed();
}

void Camera::Impl::transmit(const SocketPtr& socket, const std::uint8_t* data, std::size_t size, const Endpoint& to)
{
    if (socket->sendTo(data, size, toPlatform(to)).count >= 0 || stopping_)
        return;
    const Lock lock(mutex);
    ++recorder.counters().sendErrors;
}

} // namespace gevsim
