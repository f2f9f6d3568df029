// Sockets and threads of a camera, and the road of a datagram through it. Each socket has its thread; answers leave
// through the camera's own socket, sent by whichever thread finds them due.
#include "tools/gevsim/camera_impl.h"

#include "platform/network.h"
#include "platform/thread.h"

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <system_error>

namespace gevsim {

using namespace zuPlatform;

namespace {

/// Constant, because a receive whose timeout changes costs a system call more.
constexpr std::uint32_t idleWaitMs = 250;
constexpr int receiveBuffer = 1024 * 1024;
constexpr std::uint32_t limitedBroadcast = 0xFFFFFFFF;
constexpr std::uint32_t loopbackMask = 0xFF000000;

SocketAddress toPlatform(const Endpoint& endpoint)
{
    return {hostToNetwork32(endpoint.ip), hostToNetwork16(endpoint.port)};
}

Endpoint fromPlatform(const SocketAddress& address)
{
    return {networkToHost32(address.address), networkToHost16(address.port)};
}

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
    : config(std::move(opened.config)), device(config, Clock::now()), recorder(config), random(config.seed),
      socket_(std::move(opened.socket))
{
    if (config.broadcastDiscovery) {
        const std::uint32_t directed = config.endpoint.ip | ~config.subnetMask;
        for (const std::uint32_t address : {limitedBroadcast, directed}) {
            Endpoint where(address, config.endpoint.port);
            broadcastSockets_.push_back(openSocket(where, true));
        }
    }
    try {
        threads_.emplace_back([this] { serve(socket_, false); });
        for (const SocketPtr& socket : broadcastSockets_)
            threads_.emplace_back([this, socket] { serve(socket, true); });
    } catch (...) {
        stop();
        throw;
    }
}

Camera::Impl::~Impl() { stop(); }

void Camera::Impl::stop()
{
    stopping_ = true;
    socket_->close();
    for (const SocketPtr& socket : broadcastSockets_)
        socket->close();
    for (std::thread& thread : threads_)
        thread.join();
}

void Camera::Impl::serve(const SocketPtr& socket, bool broadcast)
{
    nameCurrentThread("gevsim");
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
            break;
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
    // Broadcast is for discovery; other commands in it are meant for other cameras.
    if (broadcast && code != static_cast<std::uint16_t>(Command::discovery))
        return idleWaitMs;
    if (hasHook && isCommand) {
        Lock lock(mutex);
        const auto call = hook;
        lock.unlock();
        if (call && *call)
            (*call)({Datagram::Direction::received, Clock::now(), from, {command, command + size}, false});
    }

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
    if (answered != 0 && roll()) {
        recorder.note("(acknowledge lost)");
        answered = 0;
    }
    if (answered != 0)
        recorder.sent(buffers.reply.data(), answered, from, time);
    changed();
    std::uint32_t wait = idleWaitMs;
    if (!scheduled.empty() || !reordering.empty()) {
        flush(lock, time);
        wait = waitFor(Clock::now());
    }
    lock.unlock();
    if (answered != 0)
        transmit(buffers.reply.data(), answered, from);
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
    lock.unlock();
    for (const Outgoing& outgoing : due)
        transmit(outgoing.bytes.data(), outgoing.bytes.size(), outgoing.to);
    lock.lock();
}

std::uint32_t Camera::Impl::waitFor(Time time) const
{
    Time next = reorderEnd;
    if (!scheduled.empty())
        next = std::min(next, scheduled.front().due);
    if (next == Time::max())
        return idleWaitMs;
    if (next <= time)
        return 0;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - time).count();
    return static_cast<std::uint32_t>(std::min<std::int64_t>(left, idleWaitMs));
}

void Camera::Impl::transmit(const std::uint8_t* data, std::size_t size, const Endpoint& to)
{
    if (socket_->sendTo(data, size, toPlatform(to)).count >= 0 || stopping_)
        return;
    const Lock lock(mutex);
    ++recorder.counters().sendErrors;
}

} // namespace gevsim
