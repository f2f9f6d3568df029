// Viewers of a running service.
#include "tools/zuLogSvc/followers.h"

#include "tools/zuLogSvc/packet_encoder.h"

#include <algorithm>

namespace zuLogSvc {

Followers::Answer Followers::follow(const zuPlatform::SocketAddress& viewer, FollowFilter filter, std::uint64_t nowMs)
{
    if (zuPlatform::networkToHost32(viewer.address) >> 24 != 127)
        return Answer::notLocal;
    const std::lock_guard lock(mutex_);
    dropExpired(nowMs);
    for (Follower& follower : followers_)
        if (follower.address == viewer) {
            follower.filter = std::move(filter);
            follower.askedMs = nowMs;
            return Answer::renewed;
        }
    if (followers_.size() == maxFollowers)
        return Answer::full;
    followers_.push_back({viewer, std::move(filter), nowMs, 0});
    count_ = followers_.size();
    return Answer::added;
}

void Followers::unfollow(const zuPlatform::SocketAddress& viewer)
{
    const std::lock_guard lock(mutex_);
    std::erase_if(followers_, [&](const Follower& follower) { return follower.address == viewer; });
    count_ = followers_.size();
}

void Followers::forward(zuPlatform::DatagramSocket& socket, const LogMessage& message, Bytes container,
                        std::uint64_t nowMs)
{
    if (none())
        return;
    const std::lock_guard lock(mutex_);
    dropExpired(nowMs);
    for (Follower& follower : followers_) {
        if (!follower.filter.accepts(message))
            continue;
        const Packet packet = encodeFollowed(++follower.number, message.command, container);
        socket.sendTo(packet.data(), packet.size(), follower.address);
    }
}

void Followers::sendEnd(zuPlatform::DatagramSocket& socket)
{
    const std::lock_guard lock(mutex_);
    const Packet packet = encodeFollowEnds();
    for (const Follower& follower : followers_)
        socket.sendTo(packet.data(), packet.size(), follower.address);
    followers_.clear();
    count_ = 0;
}

void Followers::dropExpired(std::uint64_t nowMs)
{
    std::erase_if(followers_, [&](const Follower& follower) { return nowMs - follower.askedMs > expiryMs; });
    count_ = followers_.size();
}

} // namespace zuLogSvc
