#include "platform/linux/service_state.h"

namespace zuPlatform {

namespace {

constexpr std::uint32_t ownProcess = 0x10;
constexpr std::uint32_t stopped = 1;
constexpr std::uint32_t startPending = 2;
constexpr std::uint32_t stopPending = 3;
constexpr std::uint32_t running = 4;
constexpr std::uint32_t acceptStopAndShutdown = 5;

// A start is polled at a tenth of its hint, a stop at the hint itself.
constexpr std::uint32_t startHintMs = 10000;
constexpr std::uint32_t stopHintMs = 100;

/// Bounded, so that a service that fails again and again makes no endless progress.
std::uint32_t startPhase(const std::string& subState)
{
    if (subState == "start-post")
        return 4;
    if (subState == "start")
        return 3;
    if (subState == "condition" || subState == "start-pre")
        return 2;
    return 1; // queued behind another unit, or waiting to be tried again
}

std::uint32_t stateOf(const std::string& activeState, const std::string& jobType)
{
    if (activeState == "deactivating")
        return stopPending;
    if (activeState == "activating")
        return jobType == "stop" ? stopPending : startPending;
    if (activeState == "active" || activeState == "reloading" || activeState == "refreshing")
        return jobType == "stop" ? stopPending : running;
    return jobType == "start" || jobType == "restart" ? startPending : stopped;
}

} // namespace

ServiceStatus serviceStatusOfUnit(const std::string& activeState, const std::string& subState,
                                  const std::string& jobType)
{
    ServiceStatus status;
    status.type = ownProcess;
    status.state = stateOf(activeState, jobType);
    switch (status.state) {
    case startPending:
        status.checkpoint = startPhase(subState);
        status.waitHint = startHintMs;
        break;
    case stopPending:
        status.checkpoint = 1;
        status.waitHint = stopHintMs;
        break;
    case running:
        // Whoever waits for its end although no stop is queued polls no faster.
        status.waitHint = stopHintMs;
        status.controlsAccepted = acceptStopAndShutdown;
        break;
    default:
        break;
    }
    return status;
}

} // namespace zuPlatform
