// The receiver of image streams: frames that a camera sends by GVSP, laid into memory that the application owns. Needs
// nothing of the control channel: whoever holds it opens the camera's stream channel towards `Receiver::local`.
// Addresses and ports are in host order, packets are counted with their leader and trailer. docs/gvsp.md has the wire.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace zuStream {

using Microseconds = std::chrono::microseconds;

/// IPv4 address (0x7F000001 is 127.0.0.1) and UDP port.
struct Endpoint {
    std::uint32_t address = 0;
    std::uint16_t port = 0;
    friend bool operator==(const Endpoint&, const Endpoint&) = default;
};

/// How missing packets are asked for again, by PACKETRESEND from the stream's own socket. A packet counts as missing
/// when a later one of its frame is there; the rest of a frame when a newer frame has begun, or after `timeout` of
/// silence.
struct ResendSettings {
    bool enabled = true;
    std::uint16_t port = 3956;   ///< where the camera, `Settings::source`, takes commands
    std::uint16_t channel = 0;   ///< the camera's index of the stream channel
    Microseconds delay{1000};    ///< what a packet may be late before it is asked for
    Microseconds timeout{10000}; ///< from one request to the next for the same packet
    unsigned attempts = 5;       ///< requests for one packet, at most; it is given up one `timeout` after the last
    unsigned burst = 64;         ///< packets asked for within one `pace`, at most, over all frames
    Microseconds pace{1000};
    unsigned limit = 4096; ///< packets asked for in one frame, repetitions included, at most
};

struct Settings {
    Endpoint local;              ///< interface and port to receive on; port 0 is chosen by the system
    std::uint32_t group = 0;     ///< multicast group to join on the interface `local.address`; 0: unicast
    Endpoint source;             ///< the camera; packets of others are foreign. Port 0: any; address 0: any
    unsigned packetSize = 0;     ///< as the camera's packet size register has it: with IP and UDP headers. 64 to 65535
    int socketBuffer = 16 << 20; ///< bytes, to be asked for of the system
    /// After the first packet others are waited for so long, so that one system call takes them all. 0: least latency.
    Microseconds gather{1000};
    /// A frame of which nothing new came for so long is given up. A camera that sends its leader at the start of an
    /// exposure needs more than the exposure.
    Microseconds frameTimeout{250000};
    bool deliverIncomplete = true; ///< false: their buffers go back into the queue
    unsigned framesAtOnce = 8;     ///< frames in assembly or waiting for an older one; beyond it the oldest is given up
    unsigned batch = 128;          ///< datagrams of one system call
    std::uint64_t tickFrequency = 0; ///< of the camera's timestamps, in Hz; 0: not known
    ResendSettings resend;
};

/// Payload types of a leader. `chunkBit` tells that chunks follow the data, or, alone with a type, what it was before.
namespace payload {
constexpr std::uint16_t unknown = 0; ///< the leader is missing
constexpr std::uint16_t image = 1;
constexpr std::uint16_t raw = 2;
constexpr std::uint16_t file = 3;
constexpr std::uint16_t chunkData = 4;
constexpr std::uint16_t extendedChunk = 5;
constexpr std::uint16_t jpeg = 6;
constexpr std::uint16_t jpeg2000 = 7;
constexpr std::uint16_t h264 = 8;
constexpr std::uint16_t multiZone = 9;
constexpr std::uint16_t multiPart = 10;
constexpr std::uint16_t genDc = 11;
constexpr std::uint16_t chunkBit = 0x4000;
} // namespace payload

/// A picture's geometry, as the leader has it; the height as the trailer has it, where that is less.
struct Image {
    std::uint32_t pixelFormat = 0; ///< of the GenICam pixel format naming convention
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::uint32_t offsetX = 0;
    std::uint32_t offsetY = 0;
    std::uint16_t paddingX = 0; ///< bytes behind each line
    std::uint16_t paddingY = 0; ///< bytes behind the last line

    unsigned bitsPerPixel() const { return pixelFormat >> 16 & 0xFF; }
    /// Bytes from one line to the next; 0 where lines don't begin at whole bytes.
    std::size_t linePitch() const;
    /// Bytes of the whole picture, the largest number if it doesn't fit one.
    std::uint64_t size() const;
};

/// One part of a multi-part frame.
struct Part {
    std::uint16_t dataType = 0; ///< 1: 2D image, ... as the standard counts them
    std::uint16_t purpose = 0;
    std::uint16_t region = 0;
    std::uint8_t source = 0;
    std::uint8_t zones = 0; ///< beside the first
    std::size_t offset = 0; ///< in the buffer
    std::uint64_t size = 0; ///< as the trailer has it, or the leader without one
    Image image;
};

/// What was received into a buffer. All but the first group is what the camera says.
struct Frame {
    bool complete = false; ///< all packets came, and all fitted
    bool tooLarge = false; ///< more was sent than the buffer holds
    bool hasLeader = false;
    bool hasTrailer = false;
    std::size_t size = 0;             ///< bytes from the buffer's start up to the last one received
    std::uint32_t packets = 0;        ///< of the frame, as far as known
    std::uint32_t missingPackets = 0; ///< of these
    std::uint64_t firstPacketNs = 0;  ///< steady clock, when its batch was read
    std::uint64_t lastPacketNs = 0;

    std::uint64_t blockId = 0;
    bool extendedId = false;
    std::uint8_t packetFormat = 0; ///< of its payload: 3 generic, 4 all-in, 7 multi-part, 5 H.264, ...
    std::uint16_t payloadType = payload::unknown;
    std::uint16_t status = 0; ///< the last error status of a packet; 0: none
    std::uint8_t fieldId = 0;
    std::uint8_t fieldCount = 0;
    std::uint64_t timestamp = 0;     ///< ticks
    std::uint64_t timestampNs = 0;   ///< the same in nanoseconds; 0 if the frequency isn't known
    std::uint64_t announcedSize = 0; ///< of raw, file and JPEG payload, as the leader has it
    bool hasChunks = false;
    std::uint32_t chunkLength = 0; ///< of the payload with its chunks, as the trailer has it
    std::uint32_t chunkLayout = 0;
    Image image;
    std::array<char, 256> fileName{}; ///< zero-terminated, cut to fit
    const Part* parts = nullptr;
    std::size_t partCount = 0;
};

/// A range of bytes in a buffer.
struct Range {
    std::size_t offset = 0;
    std::size_t size = 0;
    friend bool operator==(const Range&, const Range&) = default;
};

/// Memory of the application's, announced to a receiver. While it isn't queued it is the application's alone.
class Buffer {
public:
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;

    std::uint8_t* data() const { return data_; }
    std::size_t capacity() const { return capacity_; }
    void* context() const { return context_; }
    /// Of a buffer that `Receiver::wait` gave, until it is queued again.
    const Frame& frame() const { return frame_; }
    /// The bytes that are missing, in order. What lies in them means nothing. Without the trailer they go as far as the
    /// leader tells, else the frames before. In a multi-part frame they follow from the parts' lengths.
    std::vector<Range> missing() const;

protected:
    Buffer(void* data, std::size_t capacity, void* context);
    ~Buffer() = default;

    std::uint8_t* data_;
    std::size_t capacity_;
    void* context_;
    Frame frame_;
};

/// All counts since the start.
struct Statistics {
    std::uint64_t framesComplete = 0;
    std::uint64_t framesIncomplete = 0;    ///< delivered as such
    std::uint64_t framesDropped = 0;       ///< incomplete, and not wanted
    std::uint64_t framesWithoutBuffer = 0; ///< dropped because no buffer was queued
    std::uint64_t framesSkipped = 0;       ///< block ids left out, of which nothing ever came
    std::uint64_t restarts = 0;            ///< block ids that began anew or jumped far
    std::uint64_t packets = 0;             ///< datagrams read, all that follow included
    std::uint64_t bytes = 0;               ///< of these, without IP and UDP headers
    std::uint64_t packetsMissing = 0;      ///< not there when their frame ended; of skipped frames none
    std::uint64_t packetsAsked = 0;        ///< asked for again, each time
    std::uint64_t requests = 0;            ///< PACKETRESEND commands sent
    std::uint64_t packetsResent = 0;       ///< came after they were asked for
    std::uint64_t packetsUnavailable = 0;  ///< the camera said that it has them no longer
    std::uint64_t duplicates = 0;          ///< of a packet that was there
    std::uint64_t late = 0;                ///< of a frame that had ended
    std::uint64_t foreign = 0;             ///< of another sender
    std::uint64_t malformed = 0;           ///< no GVSP, or in contradiction to their frame
    std::uint64_t beyondBuffer = 0;        ///< behind the end of their buffer
    std::uint64_t unwanted = 0;            ///< of frames without buffer
    std::uint64_t batches = 0;             ///< system calls that brought packets
    std::uint64_t socketDrops = 0;         ///< lost by the system, mostly for a full socket buffer
    int socketBufferAsked = 0;
    int socketBufferGranted = 0;
    bool priorityGranted = false; ///< to the receiving thread
};

/// The system refused what a receiver needs.
class StreamError : public std::runtime_error {
public:
    StreamError(const std::string& what, int code);
    int code() const { return code_; }

private:
    int code_;
};

/// One stream. Receives on a thread of its own from its construction to `close`. Any thread may call anything; no call
/// but `wait` blocks for longer than one batch takes to read.
///
/// Frames come in the order of their blocks, each when it is complete or given up; one that was lost whole and fetched
/// again may come behind its successor.
class Receiver {
public:
    /// Throws StreamError, std::invalid_argument for settings that can't be meant.
    explicit Receiver(const Settings& settings);
    ~Receiver();
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    /// Where the camera is to send to. With a group that is the group and its port.
    Endpoint local() const;

    /// Prepares a buffer: this allocates what its frames need, and nothing later does. The memory must stay until
    /// `revoke` or the receiver's end, and so does the Buffer.
    Buffer& announce(void* memory, std::size_t size, void* context = nullptr);
    /// Forgets a buffer; false if it is queued, being filled or waits to be taken by `wait`.
    bool revoke(Buffer& buffer);

    /// Queues an empty buffer; buffers are filled in the order of queueing. False if it is queued already, or filled
    /// and not yet taken.
    bool queue(Buffer& buffer);
    /// The next filled buffer; null when none came in time, and after `close` when none is left.
    Buffer* wait(Microseconds timeout);
    /// Gives all buffers back that are queued or being filled; the frames in them are lost, and not counted.
    std::vector<Buffer*> takeBack();

    Statistics statistics() const;

    /// Sends one datagram without meaning from the stream's socket to the camera's stream port, so that a firewall that
    /// tracks connections lets the stream in. False if the system refuses.
    bool knock(const Endpoint& camera);

    /// Ends receiving and every wait. Repeatable. What was filled can still be taken.
    void close();

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace zuStream
