// The command set. Waits are sized by what the daemon may need for its camera commands, resends included.
#include "client/ConnectionImpl.h"

#include "platform/clock.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <limits>
#include <stdexcept>

namespace zuGevClient {

namespace {

constexpr std::uint32_t privilegeBits = 3;

/// Register values cross the pipe in host order with this, and as raw wire bytes without it.
constexpr std::uint8_t swapBytes = 1;

constexpr std::int64_t margin = 1000;        ///< the pipe and the scheduler, for each command
constexpr std::int64_t drainAllowance = 150; ///< a resend may drain the socket until it was silent for 100 ms
constexpr std::int64_t eventWait = 1000;     ///< of the daemon, for our answer to an event

// Camera commands behind one command of ours.
constexpr unsigned commandsOfLink = 6;
constexpr unsigned commandsOfHeartbeatThread = 5; ///< at most, when its end is waited for

std::string hexadecimal(std::uint32_t value)
{
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), value > 0xFFFF ? "0x%08X" : "0x%04X", value);
    return text.data();
}

[[noreturn]] void refuse(const std::string& what, std::int32_t status)
{
    throw CameraError(what + ": " + statusText(status) + " (status " + std::to_string(status) + ")", status);
}

/// A reply without status is how an exception within the daemon shows, even if it claims success. Status 0 without
/// success is a transfer whose every attempt went unanswered.
void requireSuccess(Reply& reply, const std::string& what)
{
    const auto status = reply.find<std::int32_t>(zuIPCPipe::TagStatus);
    const auto success = reply.find<std::uint8_t>(zuIPCPipe::TagSuccess);
    if (!status || !success)
        throw DaemonError(what + " failed within the daemon; its log tells why");
    if (*success == 0 || *status != Status::success)
        refuse(what, *status == Status::success ? Status::timeout : *status);
}

std::uint32_t milliseconds32(Milliseconds value, const char* what)
{
    if (value.count() < 0 || value.count() > std::numeric_limits<std::uint32_t>::max())
        throw std::invalid_argument(std::string(what) + " must lie between 0 and 4294967295 ms");
    return static_cast<std::uint32_t>(value.count());
}

} // namespace

ConnectionImpl::ConnectionImpl() : channel_(std::make_unique<Channel>(events_))
{
    daemonPort_ = channel_->daemonPort();
}

ConnectionImpl::~ConnectionImpl() { close(); }

void ConnectionImpl::close() noexcept
{
    open_ = false;
    follower_.stop();
    {
        const std::lock_guard<TurnLock> closing(turn_);
        channel_.reset();
        privileged_ = false;
    }
    events_->stop();
}

std::unique_lock<TurnLock> ConnectionImpl::turn()
{
    throwIfAway();
    std::unique_lock<TurnLock> lock(turn_);
    throwIfAway();
    return lock;
}

Channel& ConnectionImpl::channel()
{
    if (!channel_)
        throw ClosedError("The connection is closed");
    return *channel_;
}

// One more than asked for: a command of the heartbeat may be under way.
Milliseconds ConnectionImpl::budget(unsigned cameraCommands) const
{
    const std::int64_t attempt = std::int64_t{ackTimeoutMs_} + drainAllowance;
    const std::int64_t attempts = std::int64_t{retries_} * (cameraCommands + 1);
    constexpr std::int64_t most = std::numeric_limits<std::int32_t>::max();
    return Milliseconds(attempts > most / attempt ? most : attempts * attempt + margin);
}

void ConnectionImpl::command(Request& request, Reply& reply, Milliseconds timeout, Channel::OnSilence onSilence)
{
    try {
        channel().exchange(request, reply, timeout, onSilence);
    } catch (const DaemonLostError& loss) {
        lose(loss.what());
        throw;
    } catch (const TimeoutError&) {
        doubted_ = true;
        throw;
    }
}

void ConnectionImpl::acknowledged(Request& request, Milliseconds timeout)
{
    Reply reply;
    command(request, reply, timeout);
    if (reply.find<std::uint8_t>(zuIPCPipe::TagSuccess).value_or(0) == 0)
        throw DaemonError(std::string(commandText(request.command())) + " failed within the daemon");
}

void ConnectionImpl::bind(const Endpoint& local)
{
    const auto lock = turn();
    bindTo(local);
    settings_.local = local;
}

void ConnectionImpl::bindTo(const Endpoint& local)
{
    Request request(zuIPCPipe::CmdBindSocket);
    request.add(zuIPCPipe::TagLocalIp, local.address).add(zuIPCPipe::TagLocalPort, local.port);
    acknowledged(request, budget(1));
    // The daemon acknowledges a refused bind too, but a socket without a port tells.
    const Endpoint bound = askLocalAddress();
    if (bound.port == 0 || (local.port != 0 && bound.port != local.port) ||
        (local.address != 0 && bound.address != local.address))
        throw DaemonError("The system refused the local address " + toString(local));
}

void ConnectionImpl::setDestination(const Endpoint& camera)
{
    if (camera.address == 0 || camera.address == 0xFFFFFFFF || camera.port == 0)
        throw std::invalid_argument("A camera's address has neither address 0 nor 255.255.255.255, nor port 0");
    const auto lock = turn();
    aimAt(camera);
    if (settings_.camera != camera)
        settings_.heartbeat.reset(); // it was the other camera's
    settings_.camera = camera;
}

void ConnectionImpl::aimAt(const Endpoint& camera)
{
    Request request(zuIPCPipe::CmdSetDestination);
    request.add(zuIPCPipe::TagDestIp, camera.address).add(zuIPCPipe::TagDestPort, camera.port);
    acknowledged(request, budget(1));
}

Endpoint ConnectionImpl::localAddress()
{
    const auto lock = turn();
    return askLocalAddress();
}

Endpoint ConnectionImpl::askLocalAddress()
{
    try {
        return channel().localAddress();
    } catch (const DaemonLostError& loss) {
        lose(loss.what());
        throw;
    } catch (const TimeoutError&) {
        doubted_ = true;
        throw;
    }
}

bool ConnectionImpl::link(LinkMode mode)
{
    const auto lock = turn();
    settings_.mode.reset(); // a link that fails leaves none behind
    const bool confirmed = takeLink(mode);
    settings_.mode = mode;
    return confirmed;
}

bool ConnectionImpl::takeLink(LinkMode mode)
{
    Request request(zuIPCPipe::CmdLink);
    request.add(zuIPCPipe::TagLinkMode, mode.value());
    Reply reply;
    if (mode.isPrivileged())
        privileged_ = true; // until it is known not to be
    command(request, reply, budget(commandsOfLink));
    if (reply.find<std::uint8_t>(zuIPCPipe::TagSuccess).value_or(0) == 0)
        refuseLink(mode);
    return reply.find<std::uint8_t>(zuIPCPipe::TagLinkState).value_or(0) != 0;
}

// The daemon says only that it failed. The privilege register is where the reason shows.
void ConnectionImpl::refuseLink(LinkMode mode)
{
    std::int32_t status = Status::generalFailure;
    std::string detail;
    try {
        const std::uint32_t privilege = fetchRegister(Register::controlChannelPrivilege);
        if (mode.isPrivileged() && (privilege & privilegeBits) != 0) {
            status = Status::accessDenied;
            detail = ", its privilege register reads " + hexadecimal(privilege) + ": another application may hold it";
        } else {
            detail = ", its privilege register reads " + hexadecimal(privilege);
        }
    } catch (const CameraError& failure) {
        status = failure.status();
    }
    if (mode.isPrivileged()) {
        // The daemon remembers what it asked for, and would go on as if it had it.
        try {
            giveBack();
        } catch (const TimeoutError&) {
        } catch (const DaemonError&) {
        }
    }
    throw CameraError("The camera could not be linked: " + std::string(statusText(status)) + detail + " (status " +
                          std::to_string(status) + ")",
                      status);
}

void ConnectionImpl::giveBack()
{
    Request request(zuIPCPipe::CmdUnlink);
    acknowledged(request, budget(1 + commandsOfHeartbeatThread) + Milliseconds(2 * eventWait));
    privileged_ = false;
}

void ConnectionImpl::unlink()
{
    const auto lock = turn();
    giveBack();
    settings_.mode.reset();
}

bool ConnectionImpl::checkLink()
{
    const auto lock = turn();
    Request request(zuIPCPipe::CmdCheckLink);
    Reply reply;
    command(request, reply, budget(1), Channel::OnSilence::repeat);
    return reply.find<std::uint8_t>(zuIPCPipe::TagSuccess).value_or(0) != 0;
}

std::uint32_t ConnectionImpl::readRegister(std::uint32_t address)
{
    const auto lock = turn();
    return fetchRegister(address);
}

std::uint32_t ConnectionImpl::fetchRegister(std::uint32_t address)
{
    Request request(zuIPCPipe::CmdReadReg);
    request.add(zuIPCPipe::TagAddress, std::uint64_t{address}).add(zuIPCPipe::TagSwapBytes, swapBytes);
    Reply reply;
    command(request, reply, budget(1), Channel::OnSilence::repeat);
    const std::string what = "Reading register " + hexadecimal(address);
    requireSuccess(reply, what);
    const auto value = reply.find<std::uint32_t>(zuIPCPipe::TagRegValue);
    if (!value)
        throw DaemonError(what + ": the daemon's reply has no value");
    return *value;
}

void ConnectionImpl::writeRegister(std::uint32_t address, std::uint32_t value)
{
    const auto lock = turn();
    Request request(zuIPCPipe::CmdWriteReg);
    request.add(zuIPCPipe::TagAddress, std::uint64_t{address})
        .add(zuIPCPipe::TagRegValue, value)
        .add(zuIPCPipe::TagSwapBytes, swapBytes);
    Reply reply;
    command(request, reply, budget(1));
    requireSuccess(reply, "Writing register " + hexadecimal(address));
}

void ConnectionImpl::read(std::uint32_t address, void* destination, std::size_t size)
{
    zuGevClient::readMemory(*this, address, destination, size);
}

void ConnectionImpl::write(std::uint32_t address, const void* source, std::size_t size)
{
    zuGevClient::writeMemory(*this, address, source, size);
}

void ConnectionImpl::readWords(std::uint32_t address, std::uint8_t* destination, std::size_t size)
{
    const auto lock = turn();
    fetchWords(address, destination, size);
}

void ConnectionImpl::writeWords(std::uint32_t address, const std::uint8_t* source, std::size_t size)
{
    const auto lock = turn();
    storeWords(address, source, size);
}

void ConnectionImpl::patchWord(std::uint32_t address, std::size_t offset, const std::uint8_t* source, std::size_t size)
{
    const auto lock = turn();
    std::array<std::uint8_t, 4> word{};
    fetchWords(address, word.data(), word.size());
    std::copy(source, source + size, word.begin() + static_cast<std::ptrdiff_t>(offset));
    storeWords(address, word.data(), word.size());
}

void ConnectionImpl::fetchWords(std::uint32_t address, std::uint8_t* destination, std::size_t size)
{
    Request request(zuIPCPipe::CmdReadMem);
    request.add(zuIPCPipe::TagAddress, std::uint64_t{address}).add(zuIPCPipe::TagLength, std::uint64_t{size});
    Reply reply;
    command(request, reply, budget(static_cast<unsigned>(2 * (size / zuIPCPipe::memoryStep + 1))),
            Channel::OnSilence::repeat);
    const std::string what = "Reading " + std::to_string(size) + " bytes at " + hexadecimal(address);
    requireSuccess(reply, what);
    if (!reply.copyMemory(destination, size))
        throw DaemonError(what + ": the daemon's reply has other data than asked for");
}

/// True if the camera may have left every attempt of a block unanswered, which the daemon reports as success.
bool ConnectionImpl::sendWords(std::uint32_t address, const std::uint8_t* source, std::size_t size)
{
    Request request(zuIPCPipe::CmdWriteMem);
    request.add(zuIPCPipe::TagAddress, std::uint64_t{address})
        .add(zuIPCPipe::TagLength, std::uint64_t{size})
        .add(zuIPCPipe::TagMemData, source, size);
    Reply reply;
    const std::uint64_t start = zuPlatform::steadyNanoseconds();
    command(request, reply, budget(static_cast<unsigned>(2 * (size / zuIPCPipe::memoryStep + 1))));
    const std::uint64_t elapsedMs = (zuPlatform::steadyNanoseconds() - start) / 1000000;
    const std::string what = "Writing " + std::to_string(size) + " bytes at " + hexadecimal(address);
    if (!privileged_ && reply.find<std::int32_t>(zuIPCPipe::TagStatus) == Status::generalFailure)
        throw CameraError(what + ": memory can be written only by who holds control (status " +
                              std::to_string(Status::generalFailure) + ")",
                          Status::generalFailure);
    requireSuccess(reply, what);
    // A little less than the waits add up to, for clocks that tick differently.
    return elapsedMs + 10 >= std::uint64_t{ackTimeoutMs_} * retries_;
}

void ConnectionImpl::storeWords(std::uint32_t address, const std::uint8_t* source, std::size_t size)
{
    std::array<std::uint8_t, memoryChunk> found;
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (!sendWords(address, source, size))
            return;
        fetchWords(address, found.data(), size);
        if (std::equal(source, source + size, found.begin()))
            return;
    }
    refuse("Writing " + std::to_string(size) + " bytes at " + hexadecimal(address) +
               " was not confirmed, and other data was read back",
           Status::timeout);
}

void ConnectionImpl::setAckTimeout(Milliseconds timeout)
{
    const std::uint32_t value = milliseconds32(timeout, "The acknowledge timeout");
    if (value == 0)
        throw std::invalid_argument("An acknowledge timeout of 0 would fail every command");
    const auto lock = turn();
    tune(zuIPCPipe::CmdSetAckTimeout, zuIPCPipe::TagAckTimeout, value);
    ackTimeoutMs_ = value;
}

void ConnectionImpl::setRetries(std::uint32_t retries)
{
    if (retries == 0)
        throw std::invalid_argument("Without an attempt every command would fail");
    const auto lock = turn();
    tune(zuIPCPipe::CmdSetRetries, zuIPCPipe::TagRetries, retries);
    retries_ = retries;
}

void ConnectionImpl::tune(Command number, Tag tag, std::uint32_t value)
{
    Request request(number);
    request.add(tag, value);
    acknowledged(request, budget(1));
}

std::uint8_t ConnectionImpl::tuning(Command number, Tag tag)
{
    Request request(number);
    Reply reply;
    command(request, reply, budget(1), Channel::OnSilence::repeat);
    const auto low = reply.find<std::uint8_t>(tag);
    if (!low)
        throw DaemonError(std::string(commandText(number)) + ": the daemon's reply has no value");
    return *low;
}

Milliseconds ConnectionImpl::ackTimeout()
{
    const auto lock = turn();
    if (tuning(zuIPCPipe::CmdGetAckTimeout, zuIPCPipe::TagAckTimeout) != (ackTimeoutMs_ & 0xFF))
        throw DaemonError("The daemon's acknowledge timeout is not the one that was set");
    return Milliseconds(ackTimeoutMs_);
}

std::uint32_t ConnectionImpl::retries()
{
    const auto lock = turn();
    if (tuning(zuIPCPipe::CmdGetRetries, zuIPCPipe::TagRetries) != (retries_ & 0xFF))
        throw DaemonError("The daemon's number of retries is not the one that was set");
    return retries_;
}

Heartbeat ConnectionImpl::setHeartbeat(Milliseconds timeout)
{
    const std::uint32_t value = milliseconds32(timeout, "The heartbeat timeout");
    const auto lock = turn();
    channel();
    if (!privileged_)
        throw Error("The heartbeat timeout can be set only on a link that holds a privilege");
    const Heartbeat now = demandHeartbeat(value);
    settings_.heartbeat = value;
    return now;
}

Heartbeat ConnectionImpl::demandHeartbeat(std::uint32_t value)
{
    const std::uint32_t before = fetchRegister(Register::heartbeatTimeout);
    Request request(zuIPCPipe::CmdSetHeartbeat);
    request.add(zuIPCPipe::TagHeartbeatTimeout, value).add(zuIPCPipe::TagHeartbeatMargin, std::uint32_t{0});
    acknowledged(request, budget(1 + commandsOfHeartbeatThread) + Milliseconds(2 * eventWait));
    // The daemon acknowledges a failed write too.
    const Heartbeat now = fetchHeartbeat();
    const std::uint64_t least = (std::uint64_t{retries_} + 2) * ackTimeoutMs_;
    const std::uint64_t expected = value == 0 ? 0 : std::max<std::uint64_t>(value, least);
    const auto found = static_cast<std::uint64_t>(now.timeout.count());
    if (found != expected && found == before)
        refuse("Setting the heartbeat timeout, which stayed at " + std::to_string(found) + " ms",
               Status::generalFailure);
    return now;
}

Heartbeat ConnectionImpl::heartbeat()
{
    const auto lock = turn();
    return fetchHeartbeat();
}

// The daemon's reply says nothing if the camera refuses, and may then be mistaken for an earlier one; so the register
// is read first, which has a status, and must agree.
Heartbeat ConnectionImpl::fetchHeartbeat()
{
    for (int attempt = 0; attempt < 2; ++attempt) {
        const std::uint32_t timeout = fetchRegister(Register::heartbeatTimeout);
        Request request(zuIPCPipe::CmdGetHeartbeat);
        Reply reply;
        command(request, reply, budget(1), Channel::OnSilence::repeat);
        const auto margin32 = reply.find<std::int32_t>(zuIPCPipe::TagHeartbeatMargin);
        if (reply.find<std::uint32_t>(zuIPCPipe::TagHeartbeatTimeout) == timeout && margin32)
            return {Milliseconds(timeout), Milliseconds(*margin32)};
    }
    throw DaemonError("The daemon could not read the heartbeat timeout");
}

void ConnectionImpl::setEventHandler(EventHandler handler) { events_->setHandler(std::move(handler)); }

} // namespace zuGevClient
