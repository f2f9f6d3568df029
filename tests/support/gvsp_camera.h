// A camera's sending side on a real socket: sends frames, keeps them, and answers PACKETRESEND on a thread of its own.
// Loses packets at a rate, by a seed, and knows which ones never left it.
#pragma once

#include "platform/socket.h"
#include "tests/support/gvsp_packets.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

namespace zuTest {

struct CameraFaults {
    double lose = 0;           ///< part of first sendings, from 0 to 1
    bool loseRequests = false; ///< at the same rate
    bool loseResends = false;
    bool refuse = false; ///< answers no request at all
    std::uint32_t seed = 1;
};

class GvspCamera {
public:
    /// Sends from, and takes commands at, `address` (host order) and a port of the system's choice.
    GvspCamera(std::uint32_t address, const CameraFaults& faults) : faults_(faults), random_(faults.seed)
    {
        socket_ = zuPlatform::DatagramSocket::open();
        if (!socket_ || socket_->bind({zuPlatform::hostToNetwork32(address), 0}) != 0)
            throw std::runtime_error("no socket for the camera");
        socket_->setReceiveBuffer(1 << 20);
        zuPlatform::SocketAddress bound;
        socket_->getLocalAddress(bound);
        port_ = zuPlatform::networkToHost16(bound.port);
        thread_ = std::thread([this] { answer(); });
    }
    ~GvspCamera()
    {
        socket_->close();
        thread_.join();
    }
    GvspCamera(const GvspCamera&) = delete;
    GvspCamera& operator=(const GvspCamera&) = delete;

    std::uint16_t port() const { return port_; }

    /// Sends a frame, all packets once; `whole` spares it the losses.
    void send(std::uint64_t block, const std::vector<gvsp::Bytes>& packets, std::uint32_t address, std::uint16_t port,
              bool whole = false)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        to_ = {zuPlatform::hostToNetwork32(address), zuPlatform::hostToNetwork16(port)};
        frames_[block] = packets;
        for (std::uint32_t id = 0; id < packets.size(); ++id) {
            if (!whole && isLost()) {
                ++lostFirst_;
                unsent_.insert({block, id});
            } else {
                sendOne(packets[id]);
            }
        }
    }

    /// Datagrams that have left so far.
    std::uint64_t sent() const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return sent_;
    }
    std::uint64_t lostFirst() const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return lostFirst_;
    }
    /// The packets, by block and id, that never left.
    std::set<std::pair<std::uint64_t, std::uint32_t>> unsent() const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return unsent_;
    }

private:
    bool isLost() { return faults_.lose > 0 && std::uniform_real_distribution<>(0, 1)(random_) < faults_.lose; }
    void sendOne(const gvsp::Bytes& packet)
    {
        if (socket_->sendTo(packet.data(), packet.size(), to_).error == 0)
            ++sent_;
    }
    static std::uint64_t big(const std::uint8_t* at, int width)
    {
        std::uint64_t value = 0;
        for (int i = 0; i < width; ++i)
            value = value << 8 | at[i];
        return value;
    }
    void answer()
    {
        std::uint8_t command[64];
        for (;;) {
            const auto result = socket_->receive(command, sizeof command, 1000, nullptr);
            if (result.kind == zuPlatform::ReceiveResult::Kind::waitFailed)
                return;
            const bool extended = result.count == 28;
            if (result.kind != zuPlatform::ReceiveResult::Kind::received || (result.count != 20 && !extended) ||
                command[0] != 0x42 || big(command + 2, 2) != 0x0040)
                continue;
            const std::lock_guard<std::mutex> lock(mutex_);
            if (faults_.refuse || (faults_.loseRequests && isLost()))
                continue;
            const std::uint64_t block = extended ? big(command + 20, 8) : big(command + 10, 2);
            const auto frame = frames_.find(block);
            if (frame == frames_.end())
                continue;
            for (std::uint64_t id = big(command + 12, 4); id <= big(command + 16, 4) && id < frame->second.size();
                 ++id) {
                if (faults_.loseResends && isLost())
                    continue;
                gvsp::Bytes packet = frame->second[id];
                packet[0] = 0x01; // the status of a packet resent
                packet[1] = 0x00;
                sendOne(packet);
                unsent_.erase({block, static_cast<std::uint32_t>(id)});
            }
        }
    }

    const CameraFaults faults_;
    zuPlatform::SocketPtr socket_;
    std::uint16_t port_ = 0;
    mutable std::mutex mutex_; ///< guards all below
    std::mt19937 random_;
    zuPlatform::SocketAddress to_;
    std::map<std::uint64_t, std::vector<gvsp::Bytes>> frames_;
    std::set<std::pair<std::uint64_t, std::uint32_t>> unsent_;
    std::uint64_t sent_ = 0;
    std::uint64_t lostFirst_ = 0;
    std::thread thread_;
};

} // namespace zuTest
