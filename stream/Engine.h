// The socket of a stream and the assembler behind it: reads a batch, lays it where it belongs, asks again for what is
// missing. Waits for nothing and knows no clock. One thread at a time.
#pragma once

#include "platform/datagram_batch.h"
#include "platform/socket.h"
#include "stream/Assembler.h"
#include "stream/Stream.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace zuStream {

/// What an engine asks of the queues.
class Queues {
public:
    virtual Record* takeEmpty() = 0;
    virtual void giveBack(Record& record) = 0;
    virtual void deliver(Record& record) = 0;

protected:
    ~Queues() = default;
};

class Engine final : private Feed {
public:
    /// Throws as `Receiver`.
    Engine(const Settings& settings, Queues& queues);

    zuPlatform::DatagramSocket& socket() { return *socket_; }
    Endpoint local() const { return local_; }

    /// Reads what there is, up to one batch, does what is due, and returns the number of datagrams.
    std::size_t poll(std::uint64_t now);
    std::uint64_t deadline() const { return assembler_.deadline(); }
    Assembler& assembler() { return assembler_; }
    /// But for what the socket itself tells.
    const Statistics& statistics() const { return statistics_; }

private:
    struct Arrival {
        bool good = false;
        gvsp::Header header;
        std::span<const std::uint8_t> body;
    };

    Record* takeEmpty() override { return queues_.takeEmpty(); }
    void giveBack(Record& record) override { queues_.giveBack(record); }
    void deliver(Record& record) override { queues_.deliver(record); }
    void ask(const gvsp::Resend& resend) override;
    void openSocket();
    void lay();
    bool take(std::size_t index, Arrival& arrival);
    bool isForeign(const zuPlatform::SocketAddress& from) const;
    std::span<std::uint8_t> area(std::size_t index) { return {&areas_[index * areaSize_], areaSize_}; }

    const Settings settings_;
    Queues& queues_;
    Statistics statistics_;
    Assembler assembler_;
    zuPlatform::SocketPtr socket_;
    Endpoint local_;
    zuPlatform::SocketAddress source_;
    zuPlatform::SocketAddress commands_; ///< where the camera takes them
    std::uint16_t requestId_ = 0;
    zuPlatform::DatagramBatch batch_;
    std::vector<Target> targets_;
    std::vector<Arrival> arrivals_;
    std::size_t areaSize_;
    std::vector<std::uint8_t> areas_; ///< for each datagram of a batch, where all but payload in its place comes
};

} // namespace zuStream
