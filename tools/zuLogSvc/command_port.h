// Answers what comes to the command port: requests for settings, descriptions, and viewers.
#pragma once

#include "tools/zuLogSvc/followers.h"
#include "tools/zuLogSvc/packet_encoder.h"
#include "tools/zuLogSvc/rate_limit.h"
#include "tools/zuLogSvc/settings.h"
#include "tools/zuLogSvc/timestamp.h"

#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace zuLogSvc {

/// Words of the service itself, with a level bit; goes to the outputs like a message.
using Note = std::function<void(std::uint32_t level, const std::string& text)>;

/// `handle` and `tick` run on one thread, `setSettings` on any.
class CommandPort {
public:
    CommandPort(std::shared_ptr<const Settings> settings, Followers& followers, const Clock& clock, Note note);

    void setSettings(std::shared_ptr<const Settings> settings);

    /// The answer to one datagram; empty if it gets none. Reading and answering never throws on its content.
    Packet handle(Bytes datagram, const zuPlatform::SocketAddress& from);

    /// Tells what has been counted and is due; to be called a few times a second, and at the end with `final`.
    void tick(bool final = false);

    std::uint64_t badDatagrams() const { return bad_.total(); }

private:
    std::shared_ptr<const Settings> settings() const;
    Packet getConfiguration(const CommandPacket& packet);
    Packet setDescription(const CommandPacket& packet);
    Packet follow(const CommandPacket& packet, const zuPlatform::SocketAddress& from);
    Packet refuse(const CommandPacket& packet, std::uint16_t status, const char* why,
                  const zuPlatform::SocketAddress& from);
    void countBad(const char* why, std::size_t size, const zuPlatform::SocketAddress& from);
    void noteRequest(const std::string& text);

    mutable std::mutex mutex_; // guards settings_; leaf
    std::shared_ptr<const Settings> settings_;
    Followers& followers_;
    const Clock& clock_;
    Note note_;
    EventCounter bad_;
    EventGate requests_{20, 1000};
};

/// "from 127.0.0.1:40000, 13 bytes: wrong magic"
std::string describeBad(const char* why, std::size_t size, const zuPlatform::SocketAddress& from);

} // namespace zuLogSvc
