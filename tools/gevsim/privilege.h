// Who controls the camera: the rules of the CCP register and the watch over the holder's heartbeat. Time is handed in.
// Not locked: the camera's lock guards it.
#pragma once

#include "tools/gevsim/wire.h"

#include <chrono>
#include <cstdint>

namespace gevsim {

/// What stands in CCP, and who put it there.
struct Control {
    std::uint32_t ccp = 0; ///< without the key; 0: nobody holds control
    Endpoint holder{0, 0}; ///< 0.0.0.0:0 if a test wrote the register

    bool held() const { return (ccp & 3u) != 0; }
    bool exclusive() const { return (ccp & 1u) != 0; }
    bool switchover() const { return held() && (ccp & 4u) != 0; }
};

class Privilege {
public:
    using Time = std::chrono::steady_clock::time_point;

    const Control& control() const { return control_; }

    /// While control is exclusive only its holder may read.
    bool mayRead(const Endpoint& from) const { return !control_.exclusive() || from == control_.holder; }
    /// While control is held only its holder may write.
    bool mayWrite(const Endpoint& from, bool anyoneWhileFree) const
    {
        return control_.held() ? from == control_.holder : anyoneWhileFree;
    }

    /// A write to CCP: takes, changes, gives back or hands over control, or is denied.
    Status writeCcp(const Endpoint& from, std::uint32_t value, Time now);

    /// The key with which another application may take over. A key that is written to CCP with the switchover bit by
    /// the holder, or by who takes a free camera, is kept as well.
    void setKey(std::uint16_t key) { key_ = key; }

    /// A command of the holder restarts the watch.
    void touch(const Endpoint& from, Time now)
    {
        if (control_.held() && from == control_.holder)
            lastHeard_ = now;
    }

    /// Drops control if its holder has been silent for `timeoutMs`; 0 never does. True if it did.
    bool expire(Time now, std::uint32_t timeoutMs);
    /// When that will be; Time::max() if it won't. Without a holder to listen to, control is not watched.
    Time deadline(std::uint32_t timeoutMs) const;

    /// Control as a test wants it.
    void force(const Control& control, Time now);
    void reset();

private:
    Control control_;
    std::uint16_t key_ = 0;
    Time lastHeard_{};
};

} // namespace gevsim
