// What goes between the camera's registers, its stream channel and whoever asks what was sent.
#pragma once

#include "tools/gevsim/picture.h"
#include "tools/gevsim/wire.h"

#include <chrono>
#include <cstdint>
#include <limits>
#include <vector>

namespace gevsim {

enum class TriggerSource { off, software, line };

namespace chunk {
constexpr std::uint32_t imageId = 0x10000000;
constexpr std::uint32_t frameIdId = 0x10000001;   ///< 8 bytes: the picture's number
constexpr std::uint32_t timestampId = 0x10000002; ///< 8 bytes: nanoseconds
constexpr std::uint32_t exposureId = 0x10000003;  ///< 8 bytes: floating point, microseconds
/// Bits of those that are on.
constexpr std::uint32_t frameId = 1, timestamp = 2, exposure = 4;
} // namespace chunk

/// What the registers say about the stream. A plain value.
struct StreamSetup {
    using Time = std::chrono::steady_clock::time_point;

    Endpoint destination{0, 0};   ///< address or port 0: the channel is closed
    std::uint32_t packetSize = 0; ///< with the headers of IP and UDP
    bool dontFragment = false;
    std::chrono::nanoseconds packetDelay{0};
    bool extendedIds = false;    ///< 64-bit block ids and 32-bit packet ids
    bool extendedStatus = false; ///< the status codes for resends that version 1.1 brought
    bool extendedChunks = false; ///< payload type 0x4001 in place of 4
    bool chunkMode = false;
    std::uint32_t chunks = 0;
    Picture picture; ///< its number apart
    double exposureUs = 0;
    double framesPerSecond = 0; ///< 0: as fast as the exposure allows
    TriggerSource trigger = TriggerSource::off;
    std::uint64_t frames = 0; ///< after so many the acquisition ends; 0: never
    Time timestampStart{};

    bool open() const { return destination.ip != 0 && destination.port != 0; }
};

struct ResendRequest {
    std::uint64_t block = 0;
    std::uint32_t first = 0, last = 0; ///< last 0xFFFFFF, or 0xFFFFFFFF with extended ids: to the end of the block
    bool extended = false;
};

/// One frame as the camera sent it, or meant to.
struct SentFrame {
    Picture picture;
    std::uint64_t block = 0; ///< as on the wire
    bool extendedIds = false;
    std::uint16_t payloadType = 1; ///< 1 image, 4 chunk data, 0x4001 image with extended chunk data
    std::uint32_t chunks = 0;
    std::uint64_t timestamp = 0; ///< nanoseconds, at the beginning of the exposure
    double exposureUs = 0;
    std::uint32_t packetSize = 0;
    std::uint64_t payloadSize = 0;
    std::uint32_t packets = 0; ///< with leader (0) and trailer (the last one)
    bool ended = false;        ///< nothing of it will come any more but for resends
    /// Packets that no receiver can have in good order: faults took every sending of theirs, or the camera stopped
    /// before. Resends that were sent since are counted in.
    std::vector<std::uint32_t> missing;
};

/// The payload of the frame, chunks included, byte for byte as it stands in the packets behind their headers.
std::vector<std::uint8_t> payloadOf(const SentFrame& frame);

/// What the stream channel has done since the camera was made, or Camera::clearLog.
struct StreamCounters {
    std::uint64_t frames = 0;
    std::uint64_t packets = 0; ///< handed to the system, of all kinds
    std::uint64_t bytes = 0;   ///< of UDP payload in them
    std::uint64_t lost = 0;    ///< first sendings that a fault, or silence, took
    std::uint64_t repeated = 0, reordered = 0, delayed = 0, corrupted = 0;
    std::uint64_t requests = 0;     ///< PACKETRESEND for this channel, lost ones included
    std::uint64_t requestsLost = 0; ///< by a fault, or because too many were waiting
    std::uint64_t resent = 0;       ///< packets with data
    std::uint64_t resendsLost = 0;  ///< by a fault
    std::uint64_t unavailable = 0;  ///< packets that said so
    std::uint64_t testPackets = 0;
    std::uint64_t triggersMissed = 0; ///< that came while another one was waiting, or nothing waited for one
    std::uint64_t sendErrors = 0;
};

/// What the registers ask of the stream. Called under the camera's lock; doesn't wait.
class StreamOrders {
public:
    virtual ~StreamOrders() = default;
    /// Returns the port that packets come from, 0 as long as the channel was never open.
    virtual std::uint16_t configure(const StreamSetup& setup) = 0;
    /// `session` tells this acquisition from others.
    virtual void start(std::uint64_t session) = 0;
    virtual void stop() = 0;
    virtual void trigger(TriggerSource source) = 0;
    virtual void fireTestPacket() = 0;
    virtual void resend(const ResendRequest& request) = 0;
};

} // namespace gevsim
