#include "platform/linux/service_state.h"

namespace zuPlatform {

namespace {

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
        return serviceStopPending;
    if (activeState == "activating")
        return jobType == "stop" ? serviceStopPending : serviceStartPending;
    if (activeState == "active" || activeState == "reloading" || activeState == "refreshing")
        return jobType == "stop" ? serviceStopPending : serviceRunning;
    return jobType == "start" || jobType == "restart" ? serviceStartPending : serviceStopped;
}

} // namespace

ServiceStatus serviceStatusOfUnit(const std::string& activeState, const std::string& subState,
                                  const std::string& jobType)
{
    ServiceStatus status;
    status.type = serviceOwnProcess;
    status.state = stateOf(activeState, jobType);
    switch (status.state) {
    case serviceStartPending:
        status.checkpoint = startPhase(subState);
        status.waitHint = startHintMs;
        break;
    case serviceStopPending:
        status.checkpoint = 1;
        status.waitHint = stopHintMs;
        break;
    case serviceRunning:
        // Whoever waits for its end although no stop is queued polls no faster.
        status.waitHint = stopHintMs;
        status.controlsAccepted = serviceAcceptsStopAndShutdown;
        break;
    default:
        break;
    }
    return status;
}

} // namespace zuPlatform
