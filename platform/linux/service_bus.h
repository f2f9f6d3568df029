// systemd's manager object on the system bus, as far as one service needs it. One thread at a time.
#pragma once

#include "platform/service_manager.h"

#include <memory>
#include <string>

struct sd_bus;
struct sd_bus_message;

namespace zuPlatform {

/// What systemd knows of a unit.
struct UnitFacts {
    std::string loadState; ///< "loaded", "not-found", "masked", ...
    std::string fileState; ///< "enabled", "disabled", ...; empty without a file
    std::string activeState;
    std::string subState;
    std::string program; ///< of ExecStart
    std::string jobType; ///< of the job at work, or empty
    std::uint32_t mainPid = 0;

    bool isLoaded() const { return loadState == "loaded"; }
    bool isActive() const
    {
        return activeState == "active" || activeState == "activating" || activeState == "deactivating" ||
               activeState == "reloading";
    }
};

/// Each call returns 0, or an errno value. A call blocks until systemd has answered, at most 25 seconds.
class ServiceBus {
public:
    ServiceBus() = default;
    ~ServiceBus();
    ServiceBus(const ServiceBus&) = delete;
    ServiceBus& operator=(const ServiceBus&) = delete;

    /// Does nothing when it is connected.
    int connect();

    int facts(const std::string& unit, UnitFacts& facts);

    int startUnit(const std::string& unit) { return jobCall("StartUnit", unit); }
    int stopUnit(const std::string& unit) { return jobCall("StopUnit", unit); }
    int resetFailedUnit(const std::string& unit);
    int enableUnit(const std::string& unit) { return fileCall("EnableUnitFiles", unit, true); }
    int disableUnit(const std::string& unit) { return fileCall("DisableUnitFiles", unit, false); }
    int maskUnit(const std::string& unit) { return fileCall("MaskUnitFiles", unit, true); }
    int unmaskUnit(const std::string& unit) { return fileCall("UnmaskUnitFiles", unit, false); }
    int reload();

private:
    int jobCall(const char* method, const std::string& unit);
    int fileCall(const char* method, const std::string& unit, bool withForce);
    int send(sd_bus_message* call);
    int readText(const std::string& path, const char* interface, const char* name, std::string& value);
    int readProgram(const std::string& path, std::string& program);
    int readJob(const std::string& path, std::string& jobType);

    sd_bus* bus_ = nullptr;
};

} // namespace zuPlatform
