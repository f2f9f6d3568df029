// A client of the daemon that sends what it likes, and knows what of it was really taken: the kernel counts the
// datagrams that it had to throw away at each port.
#pragma once

#include "bench/bare.h"

#include "GevTLBase/IPCPipe/GevSvrTag.h"
#include "GevTLBase/IPCPipe/TagMsg.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace zuTest {

using Bytes = std::vector<std::uint8_t>;

namespace flag {
inline constexpr std::uint32_t connect = 0x02, control = 0x08, terminate = 0x10, acknowledge = 0x20, ping = 0x80,
                               dispatcher = 0x100;
}

/// The 24 bytes of a message header.
struct Header {
    std::uint64_t headerSize = 24;
    std::uint32_t seq = 0, flags = 0, timeout = 0, index = 0;
};
static_assert(sizeof(Header) == 24);

/// A port of the daemon on 127.0.0.1. Datagrams go to it no faster than it takes them.
class Port {
public:
    Port(zuBench::Udp& from, std::uint16_t number);
    void send(const void* data, std::size_t size);
    /// How many of the datagrams sent were taken, once its queue is empty; false in `settle` if that does not come.
    std::size_t taken();
    bool settle();
    std::uint16_t number() const { return number_; }

private:
    struct Queue {
        std::size_t bytes = 0, lost = 0;
    };
    Queue queue() const;

    zuBench::Udp& from_;
    std::uint16_t number_;
    std::size_t sent_ = 0, waiting_ = 0, lostBefore_;
};

/// A dispatcher of the daemon, announced for by a client of its own socket, with one instance of index 0 at both sides.
/// It is terminated in the end.
class Target {
public:
    Target();
    ~Target();
    Target(const Target&) = delete;
    Target& operator=(const Target&) = delete;

    void ask(const void* payload, std::size_t size, std::uint32_t flags = 0); ///< a command to the instance
    void ask(zuIPCPipe::CTagMsg<zuIPCPipe::TGevSvrTag>& message)
    {
        ask(message.Data(), static_cast<std::size_t>(message.UsedLength()));
    }
    std::uint32_t asked() const { return seq_; } ///< the number of the last
    /// The next datagram that is an acknowledge of the instance, whole; none after `milliseconds`.
    std::optional<Bytes> reply(unsigned milliseconds = 20000);
    /// One more instance, whose index at both sides is the next one.
    void connect();
    /// The next datagram of any kind; 20 s.
    Bytes receive();

private:
    struct Ports {
        std::uint16_t command, acknowledge;
    };
    Ports announce();

    zuBench::Udp peer_;
    Ports ports_;

public:
    Port command, acknowledge;

private:
    std::uint32_t seq_ = 0, instances_ = 0;
};

} // namespace zuTest
