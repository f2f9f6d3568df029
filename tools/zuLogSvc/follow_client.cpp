// The viewer's side of following.
#include "tools/zuLogSvc/follow_client.h"

#include "platform/clock.h"
#include "platform/error.h"
#include "tools/zuLogSvc/packet_encoder.h"
#include "tools/zuLogSvc/protocol.h"

#include <array>

namespace zuLogSvc {
namespace {

using zuPlatform::DatagramSocket;
using Kind = zuPlatform::ReceiveResult::Kind;
using Buffer = std::array<std::uint8_t, Followed::maxPacket + 1>;

constexpr std::uint32_t answerMs = 500;
constexpr int attempts = 2;
constexpr std::uint64_t renewMs = 2000;
constexpr std::uint64_t lostMs = 7000; // without an answer, longer than three renewals
constexpr std::uint32_t pollMs = 100;

class Viewer {
public:
    Viewer(const FollowOptions& options, const std::atomic<bool>& stop, Output& output, const Clock& clock,
           const std::function<void(const std::string&)>& tell)
        : options_(options), stop_(stop), output_(output), clock_(clock), tell_(tell),
          request_(filterToJson(options.filter))
    {
    }

    FollowEnd run()
    {
        if (request_.size() > maxPayload) {
            tell_("The filter is too long.");
            return FollowEnd::failed;
        }
        for (bool first = true;; first = false) {
            Attached attached = attach();
            if (attached == Attached::no && first && !options_.wait)
                return FollowEnd::notRunning;
            if (attached == Attached::no) {
                if (first)
                    tell_("No log service is running; waiting for one.");
                while (attached == Attached::no && !stop_) {
                    zuPlatform::sleepMs(pollMs);
                    attached = attach();
                }
            }
            if (attached == Attached::refused)
                return refused();
            if (attached == Attached::failed)
                return FollowEnd::failed;
            if (stop_)
                break;
            if (!first || options_.wait)
                tell_("Following the log service.");
            if (const auto end = show())
                return *end;
            if (stop_)
                break;
            tell_("The log service has ended; waiting for the next one.");
        }
        if (socket_)
            send(cmdUnfollow, "");
        return FollowEnd::stopped;
    }

private:
    enum class Attached { yes, no, refused, failed };

    Attached attach()
    {
        const auto endpoints = readConnectionBlock();
        if (!endpoints)
            return Attached::no;
        service_ = endpoints->command;
        int error = 0;
        socket_ = DatagramSocket::open(error);
        if (!socket_ || (error = socket_->bind(zuPlatform::loopbackAt(0))) != 0) {
            tell_("No socket: " + zuPlatform::errorText(static_cast<std::uint32_t>(error)));
            return Attached::failed;
        }
        socket_->setReceiveBuffer(8 * 1024 * 1024);
        number_ = 0;
        for (int attempt = 0; attempt < attempts && !stop_; ++attempt) {
            send(cmdFollow, request_);
            const std::uint64_t until = clock_.steadyMilliseconds() + answerMs;
            // Messages may come before the answer; they are shown all the same.
            for (std::uint64_t now = clock_.steadyMilliseconds(); now < until && !stop_;
                 now = clock_.steadyMilliseconds()) {
                receive(static_cast<std::uint32_t>(until - now));
                if (!refusal_.empty())
                    return Attached::refused;
                if (answered_) {
                    output_.flush();
                    return Attached::yes;
                }
            }
        }
        return Attached::no;
    }

    /// Shows messages until the service ends (no value), or something else ends it.
    std::optional<FollowEnd> show()
    {
        answeredMs_ = askedMs_ = clock_.steadyMilliseconds();
        ended_ = false;
        while (!stop_) {
            // While more is there at once, nothing is flushed; the output does that by size.
            if (!receive(0)) {
                output_.flush();
                receive(pollMs);
            }
            if (!output_.takeTrouble().empty())
                return FollowEnd::readerGone;
            if (!refusal_.empty())
                return refused();
            const std::uint64_t now = clock_.steadyMilliseconds();
            if (answered_)
                answeredMs_ = now;
            answered_ = false;
            if (ended_ || now - answeredMs_ > lostMs)
                return std::nullopt;
            if (now - askedMs_ >= renewMs) {
                askedMs_ = now;
                send(cmdFollow, request_);
            }
        }
        output_.flush();
        return std::nullopt;
    }

    FollowEnd refused() const
    {
        tell_("The log service does not let this viewer follow: " + refusal_);
        return FollowEnd::refused;
    }

    void send(std::uint16_t command, const std::string& payload)
    {
        answered_ = false;
        const Packet packet = encodeCommand(command, ++id_, payload);
        socket_->sendTo(packet.data(), packet.size(), service_);
    }

    /// Takes one datagram; false if none came.
    bool receive(std::uint32_t timeoutMs)
    {
        zuPlatform::SocketAddress from;
        const auto result = socket_->receive(buffer_.data(), buffer_.size(), timeoutMs, &from);
        if (result.kind == Kind::waitFailed)
            zuPlatform::sleepMs(pollMs);
        if (result.kind != Kind::received)
            return result.kind == Kind::receiveFailed;
        if (!(from == service_))
            return true;
        take(Bytes(buffer_.data(), static_cast<std::size_t>(result.count)));
        return true;
    }

    void take(Bytes datagram)
    {
        CommandPacket answer;
        if (decodeAcknowledge(datagram, answer) == nullptr) {
            if (answer.header.id != id_ || answer.header.command != (cmdFollow | acknowledgeBit))
                return;
            answered_ = true;
            if (answer.header.status != 0)
                refusal_ = answer.payload.empty() ? "refused" : std::string(answer.payload);
            return;
        }
        PacketHeader header;
        if (decodeHeader(datagram, 0, header) == nullptr && header.magic == Header::messageMagic &&
            header.command == cmdFollowEnds) {
            ended_ = true;
            return;
        }
        std::uint64_t number = 0;
        LogMessage message;
        if (decodeFollowed(datagram, number, message) != nullptr)
            return;
        if (number > number_ + 1) {
            output_.flush();
            tell_(std::to_string(number - number_ - 1) + " messages came too fast for this viewer.");
        }
        number_ = number; // it starts again when the service had forgotten this viewer
        output_.write(message, message.time ? *message.time : clock_.localMicroseconds());
    }

    const FollowOptions& options_;
    const std::atomic<bool>& stop_;
    Output& output_;
    const Clock& clock_;
    const std::function<void(const std::string&)>& tell_;
    const std::string request_;
    std::shared_ptr<DatagramSocket> socket_;
    zuPlatform::SocketAddress service_;
    std::uint16_t id_ = 0;
    std::uint64_t number_ = 0;
    std::uint64_t askedMs_ = 0, answeredMs_ = 0;
    bool answered_ = false, ended_ = false;
    std::string refusal_;
    Buffer buffer_;
};

} // namespace

FollowEnd follow(const FollowOptions& options, const std::atomic<bool>& stop, Output& output, const Clock& clock,
                 const std::function<void(const std::string&)>& tell)
{
    return Viewer(options, stop, output, clock, tell).run();
}

} // namespace zuLogSvc
