// The rules of CCP.
#include "tools/gevsim/privilege.h"

#include "tools/gevsim/registers.h"

namespace gevsim {

namespace {

constexpr std::uint32_t accessBits = ccpValue::exclusive | ccpValue::control;
constexpr std::uint32_t keptBits = accessBits | ccpValue::switchover;

} // namespace

Status Privilege::writeCcp(const Endpoint& from, std::uint32_t value, Time now)
{
    const auto key = static_cast<std::uint16_t>(value >> 16);
    const bool wantsAccess = (value & accessBits) != 0;
    if (control_.held() && from != control_.holder) {
        if (!control_.switchover() || !wantsAccess || key != key_)
            return Status::accessDenied;
    } else if (!wantsAccess) {
        reset();
        return Status::success;
    } else if (value & ccpValue::switchover) {
        if (key != 0)
            key_ = key;
    }
    control_ = {value & keptBits, from};
    lastHeard_ = now;
    return Status::success;
}

Privilege::Time Privilege::deadline(std::uint32_t timeoutMs) const
{
    const bool heldByTest = control_.holder == Endpoint(0, 0);
    if (!control_.held() || heldByTest || timeoutMs == 0)
        return Time::max();
    return lastHeard_ + std::chrono::milliseconds(timeoutMs);
}

bool Privilege::expire(Time now, std::uint32_t timeoutMs)
{
    if (now < deadline(timeoutMs))
        return false;
    reset();
    return true;
}

void Privilege::force(const Control& control, Time now)
{
    control_ = {control.ccp & keptBits, control.holder};
    lastHeard_ = now;
}

void Privilege::reset()
{
    control_ = {};
    key_ = 0;
}

} // namespace gevsim
