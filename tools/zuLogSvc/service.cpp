// Service loop and its threads.
#include "tools/zuLogSvc/service.h"

#include "platform/clock.h"
#include "platform/error.h"
#include "platform/thread.h"
#include "tools/zuLogSvc/packet_encoder.h"
#include "tools/zuLogSvc/protocol.h"

#include <array>
#include <chrono>

namespace zuLogSvc {
namespace {

constexpr std::uint32_t levelErr = 0x02;
constexpr std::uint32_t levelInfo = 0x08;
constexpr std::uint32_t pollMs = 250;
constexpr std::uint64_t drainMs = 1000; // after the stop, for what has arrived already

std::string because(int error) { return ": " + zuPlatform::errorText(static_cast<std::uint32_t>(error)); }

std::shared_ptr<zuPlatform::DatagramSocket> openPort(std::uint16_t port, const char* what)
{
    int error = 0;
    auto socket = zuPlatform::DatagramSocket::open(error);
    if (!socket)
        throw ServiceError("No socket for the " + std::string(what) + " port" + because(error));
    error = socket->bind(zuPlatform::loopbackAt(zuPlatform::hostToNetwork16(port)));
    if (error != 0)
        throw ServiceError("The " + std::string(what) + " port " + std::to_string(port) + " cannot be had" +
                           because(error));
    return socket;
}

zuPlatform::SocketAddress localAddress(zuPlatform::DatagramSocket& socket)
{
    zuPlatform::SocketAddress address;
    if (const int error = socket.getLocalAddress(address))
        throw ServiceError("A port cannot be read back" + because(error));
    return address;
}

std::string asText(const zuPlatform::SocketAddress& address)
{
    char text[32] = "";
    zuPlatform::formatSocketAddress(address, text, sizeof text);
    return text;
}

} // namespace

Service::Sockets Service::openSockets(const Settings& settings)
{
    Sockets sockets{openPort(settings.commandPort, "command"), openPort(settings.messagePort, "message")};
    // The system gives what it allows; a buffer smaller than asked for only makes bursts lossier.
    sockets.message->setReceiveBuffer(static_cast<int>(settings.receiveBuffer));
    sockets.command->setReceiveBuffer(256 * 1024);
    sockets.command->setSendBuffer(1024 * 1024);
    sockets.command->setNonBlocking();
    return sockets;
}

Outputs Service::openOutputs(const Settings& settings, const Clock& clock)
{
    Outputs outputs;
    for (const OutputSettings& output : settings.outputs)
        outputs.push_back(makeOutput(output, clock));
    return outputs;
}

Service::Service(Settings settings, const Clock& clock, std::function<void(const std::string&)> trouble)
    : clock_(clock), trouble_(std::move(trouble)), settings_(std::make_shared<const Settings>(std::move(settings))),
      sockets_(openSockets(*settings_)), endpoints_{localAddress(*sockets_.command), localAddress(*sockets_.message)},
      queue_(settings_->queue),
      writer_(queue_, followers_, sockets_.command, clock_, openOutputs(*settings_, clock_), trouble_),
      commandPort_(settings_, followers_, clock_,
                   [this](std::uint32_t level, const std::string& text) { note(level, text); })
{
}

Service::~Service()
{
    stop(0);
    if (writing_.joinable())
        writing_.join();
}

void Service::start()
{
    note(levelInfo, "log service started, commands at " + asText(endpoints_.command) + ", messages at " +
                        asText(endpoints_.message));
    writing_ = std::thread([this] { write(); });
    answerer_ = std::thread([this] { answerCommands(); });
    receiver_ = std::thread([this] { receiveMessages(); });
}

void Service::reload(Settings settings)
{
    auto fresh = std::make_shared<const Settings>(std::move(settings));
    writer_.replaceOutputs(openOutputs(*fresh, clock_));
    commandPort_.setSettings(fresh);
    const bool restart = fresh->commandPort != settings_->commandPort || fresh->messagePort != settings_->messagePort ||
                         fresh->receiveBuffer != settings_->receiveBuffer || fresh->queue != settings_->queue;
    settings_ = fresh;
    note(levelInfo, "settings read again: " + std::to_string(fresh->rules.size()) + " rules, " +
                        std::to_string(fresh->outputs.size()) + " outputs" +
                        (restart ? "; ports and buffers take effect at the next start" : ""));
}

bool Service::stop(std::uint32_t timeoutMs)
{
    if (!writing_.joinable())
        return true;
    if (!stopping_.exchange(true)) {
        answerer_.join();
        receiver_.join();
        const WriterCounts now = counts();
        note(levelInfo, "log service ends; messages so far: " + std::to_string(now.messages));
        queue_.close();
    }
    std::unique_lock lock(writtenMutex_);
    if (!writtenChanged_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return written_; }))
        return false;
    lock.unlock();
    writing_.join();
    followers_.sendEnd(*sockets_.command);
    sockets_.command->close();
    sockets_.message->close();
    return true;
}

void Service::note(std::uint32_t level, const std::string& text)
{
    const Packet container = encodeContainer(makeOwnMessage(level, text, clock_));
    queue_.push({QueuedDatagram::Kind::own, {}, container});
}

void Service::receiveMessages()
{
    zuPlatform::nameCurrentThread("zu-log-recv");
    using Kind = zuPlatform::ReceiveResult::Kind;
    // One byte more than a packet: what is longer arrives cut to that, and is found bad by its length.
    std::array<std::uint8_t, maxPacket + 1> buffer;
    std::uint64_t drainUntil = 0;
    for (;;) {
        const bool stopping = stopping_.load(std::memory_order_relaxed);
        if (stopping && drainUntil == 0)
            drainUntil = clock_.steadyMilliseconds() + drainMs;
        zuPlatform::SocketAddress from;
        const auto result = sockets_.message->receive(buffer.data(), buffer.size(), stopping ? 0 : pollMs, &from);
        const bool tooLong = result.kind == Kind::receiveFailed && result.error == zuPlatform::messageSizeError;
        if (result.kind == Kind::received || tooLong) {
            const std::size_t size = tooLong ? buffer.size() : static_cast<std::size_t>(result.count);
            queue_.push({QueuedDatagram::Kind::message, from, Bytes(buffer.data(), size)});
        } else if (stopping) {
            return;
        } else if (result.kind != Kind::timeout) {
            zuPlatform::sleepMs(10); // so that a failure that stays does not take a processor
        }
        if (stopping && clock_.steadyMilliseconds() >= drainUntil)
            return;
    }
}

void Service::answerCommands()
{
    zuPlatform::nameCurrentThread("zu-log-cmd");
    using Kind = zuPlatform::ReceiveResult::Kind;
    std::array<std::uint8_t, maxPacket + 1> buffer;
    while (!stopping_.load(std::memory_order_relaxed)) {
        zuPlatform::SocketAddress from;
        const auto result = sockets_.command->receive(buffer.data(), buffer.size(), pollMs, &from);
        const bool tooLong = result.kind == Kind::receiveFailed && result.error == zuPlatform::messageSizeError;
        if (result.kind == Kind::received || tooLong) {
            const std::size_t size = tooLong ? buffer.size() : static_cast<std::size_t>(result.count);
            const Packet answer = commandPort_.handle(Bytes(buffer.data(), size), from);
            if (!answer.empty())
                sockets_.command->sendTo(answer.data(), answer.size(), from);
        } else if (result.kind != Kind::timeout) {
            zuPlatform::sleepMs(10);
        }
        commandPort_.tick();
    }
    commandPort_.tick(true);
}

void Service::write()
{
    try {
        writer_.run();
    } catch (const std::exception& error) {
        // Out of memory, say. The service still answers; what comes in is counted as not taken once the queue is full.
        trouble_(std::string("the writing thread has ended: ") + error.what());
        note(levelErr, error.what());
    }
    const std::lock_guard lock(writtenMutex_);
    written_ = true;
    writtenChanged_.notify_all();
}

} // namespace zuLogSvc
