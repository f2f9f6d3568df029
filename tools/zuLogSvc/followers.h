// The viewers that follow the messages of a running service.
#pragma once

#include "platform/socket.h"
#include "tools/zuLogSvc/follow_filter.h"
#include "tools/zuLogSvc/packet_decoder.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

namespace zuLogSvc {

/// A viewer is known by its address and forgotten when it has not asked again for `expiryMs`. Any thread. Nothing here
/// waits for a viewer: what it does not take in time is lost to it, and it sees that by the numbers.
class Followers {
public:
    static constexpr std::uint64_t expiryMs = 6000;
    static constexpr std::size_t maxFollowers = 16;

    enum class Answer { added, renewed, full, notLocal };

    /// Adds the viewer, or renews it with this filter. Only viewers of this machine (127.0.0.0/8) are taken.
    Answer follow(const zuPlatform::SocketAddress& viewer, FollowFilter filter, std::uint64_t nowMs);
    void unfollow(const zuPlatform::SocketAddress& viewer);

    /// Sends the message, with the container it came in, to the viewers that want it.
    void forward(zuPlatform::DatagramSocket& socket, const LogMessage& message, Bytes container, std::uint64_t nowMs);

    /// Tells all viewers that the service ends.
    void sendEnd(zuPlatform::DatagramSocket& socket);

    bool none() const { return count_.load(std::memory_order_relaxed) == 0; }

private:
    struct Follower {
        zuPlatform::SocketAddress address;
        FollowFilter filter;
        std::uint64_t askedMs = 0;
        std::uint64_t number = 0; // of the last message sent
    };

    void dropExpired(std::uint64_t nowMs);

    std::mutex mutex_; // guards followers_; leaf
    std::vector<Follower> followers_;
    std::atomic<std::size_t> count_{0};
};

} // namespace zuLogSvc
