// A scripted service manager in the place of the platform's. It plays a system with drive letters.
// One object at a time. The test scripts it before the calls; the service's calls come from two threads.
#pragma once

#include "platform/service_manager.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace zuTest {

/// A status as a query gives it.
zuPlatform::ServiceStatus serviceStatus(std::uint32_t state, std::uint32_t checkpoint = 0, std::uint32_t waitHint = 0);

class FakeServiceManager {
public:
    FakeServiceManager();
    ~FakeServiceManager();
    FakeServiceManager(const FakeServiceManager&) = delete;
    FakeServiceManager& operator=(const FakeServiceManager&) = delete;

    // The script.

    std::string refused;     ///< the one call that fails, such as "OpenService"
    std::uint32_t error = 5; ///< with this code
    /// Called by each call with its name, such as "OpenService", before it answers; what it throws goes to the caller.
    std::function<void(const std::string& name)> onCall;
    /// Answers of the queries in their order, none for a refusal. The last one repeats.
    std::vector<std::optional<zuPlatform::ServiceStatus>> statuses;
    zuPlatform::ServiceStatus statusAfterControl; ///< what the control call fills in
    std::uint32_t driveType = zuPlatform::volumeFixed;
    std::string device = "\\Device\\HarddiskVolume1"; ///< of the drive; empty: the query fails
    /// Runs on the dispatcher's thread once the body has reported its first state, with the registered handler.
    std::function<void(zuPlatform::ServiceControlFunction)> controls;

    // What happened.

    /// Each call with its arguments, such as "OpenService(zuGevSvc,0x2c)".
    std::vector<std::string> calls() const;
    std::vector<zuPlatform::ServiceStatus> reported() const;
    /// What each open handle stands for, in the order in which they were opened: "manager" and "service".
    std::vector<std::string> openHandles() const;

    struct State;
    State& state() { return *state_; }

private:
    std::unique_ptr<State> state_;
};

} // namespace zuTest
