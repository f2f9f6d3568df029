// Commands about a camera as a whole: discovery, identity, state, timeouts, events.
#include "tools/gevctl/commands.h"
#include "tools/gevctl/numbers.h"

#include "platform/clock.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>

namespace gevctl {

using zuGevClient::Connection;
using zuGevClient::Event;
namespace Register = zuGevClient::Register;

namespace {

// Further registers of the standard's bootstrap map.
constexpr std::uint32_t messageChannelsRegister = 0x0900;
constexpr std::uint32_t streamChannelsRegister = 0x0904;
constexpr std::uint32_t gvcpCapabilityRegister = 0x0934;
constexpr std::uint32_t applicationPortRegister = 0x0A04;
constexpr std::uint32_t applicationIpRegister = 0x0A14;

constexpr std::uint64_t pingEveryMs = 2000;
constexpr std::uint32_t watchStepMs = 100;

std::uint64_t milliseconds() { return zuPlatform::steadyNanoseconds() / 1000000; }

/// A register that not every camera has.
void addOptional(Json& json, const char* name, Connection& connection, std::uint32_t address, bool hexadecimal)
{
    try {
        const std::uint32_t value = connection.readRegister(address);
        if (hexadecimal)
            json[name] = hex32(value);
        else
            json[name] = value;
    } catch (const zuGevClient::CameraError& error) {
        if (error.status() == zuGevClient::Status::timeout)
            throw;
    }
}

} // namespace

void runDiscover(const Options& options, const Surroundings& around)
{
    const auto found = search(options, around);
    if (options.json) {
        Json cameras = Json::array();
        for (const zuGevClient::FoundCamera& camera : found)
            cameras.push_back(toJson(camera, found));
        print(around, Json{{"cameras", std::move(cameras)}});
        return;
    }
    for (const zuGevClient::FoundCamera& camera : found) {
        const zuGevClient::CameraInfo& info = camera.info;
        around.out << addressText(camera.from.address) << "  " << zuGevClient::toString(info.mac) << "  "
                   << info.manufacturer << "  " << info.model << "  " << info.serialNumber;
        if (!info.userName.empty())
            around.out << "  \"" << info.userName << '"';
        if (!camera.seenOn.name.empty())
            around.out << "  (" << camera.seenOn.name << ')';
        around.out << '\n';
    }
    remarkOn(found, options, around);
}

void runInfo(const Options& options, const Surroundings& around)
{
    Connection connection = connect(options);
    Json info = toJson(zuGevClient::readCameraInfo(connection));
    addOptional(info, "messageChannels", connection, messageChannelsRegister, false);
    addOptional(info, "streamChannels", connection, streamChannelsRegister, false);
    addOptional(info, "gvcpCapability", connection, gvcpCapabilityRegister, true);
    addOptional(info, "heartbeatTimeoutMs", connection, Register::heartbeatTimeout, false);
    const std::uint32_t privilege = connection.readRegister(Register::controlChannelPrivilege);
    info["privilege"] = hex32(privilege);
    info["access"] = privilegeText(privilege);
    if (options.json)
        print(around, info);
    else
        printTable(around, info);
}

void runTimeouts(const Options& options, const Surroundings& around)
{
    Connection connection = connect(options);
    if (options.heartbeatMs)
        connection.setHeartbeat(zuGevClient::Milliseconds(*options.heartbeatMs));
    const zuGevClient::Heartbeat heartbeat = connection.heartbeat();
    const Json result{{"ackTimeoutMs", connection.ackTimeout().count()},
                      {"retries", connection.retries()},
                      {"heartbeatTimeoutMs", heartbeat.timeout.count()},
                      {"heartbeatMarginMs", heartbeat.margin.count()}};
    if (options.json)
        print(around, result);
    else
        printTable(around, result);
}

void runStatus(const Options& options, const Surroundings& around)
{
    if (!zuGevClient::Daemon::isRunning())
        throw zuGevClient::NoDaemonError("No daemon is running on this machine");
    Json result{{"daemon", "running"}, {"port", zuGevClient::Daemon::port()}};
    if (options.camera) {
        Connection connection = connect(options);
        const std::uint32_t privilege = connection.readRegister(Register::controlChannelPrivilege);
        result["camera"] = zuGevClient::toString(*options.camera);
        result["privilege"] = hex32(privilege);
        result["access"] = privilegeText(privilege);
        if (privilege != 0) {
            try {
                const zuGevClient::Endpoint holder{
                    connection.readRegister(applicationIpRegister),
                    static_cast<std::uint16_t>(connection.readRegister(applicationPortRegister))};
                if (holder.address != 0)
                    result["heldBy"] = zuGevClient::toString(holder);
            } catch (const zuGevClient::CameraError&) {
                // Cameras need not tell.
            }
        }
    }
    if (options.json)
        print(around, result);
    else
        printTable(around, result);
}

void runCheck(const Options& options, const Surroundings& around)
{
    Options unlinked = options;
    unlinked.access.reset();
    Connection connection = connect(unlinked);
    const bool confirmed = connection.link(options.access.value());
    const bool holds = connection.checkLink();
    const std::uint32_t privilege = connection.readRegister(Register::controlChannelPrivilege);
    Json result{{"camera", zuGevClient::toString(options.camera.value())},
                {"confirmed", confirmed},
                {"holds", holds},
                {"privilege", hex32(privilege)}};
    if (options.local)
        result["local"] = zuGevClient::toString(connection.localAddress());
    connection.unlink();
    if (options.json)
        print(around, result);
    else
        printTable(around, result);
    if (!holds)
        throw zuGevClient::CameraError("The camera's privilege register does not hold what the link wrote",
                                       zuGevClient::Status::generalFailure);
}

void runWatch(const Options& options, const Surroundings& around)
{
    // Outlives the connection, whose thread fills it.
    std::mutex mutex;
    std::condition_variable arrived;
    std::deque<std::pair<std::string, Event>> events;

    Options unlinked = options;
    unlinked.access.reset();
    Connection connection = connect(unlinked);
    connection.setEventHandler([&](Event event) {
        const std::lock_guard<std::mutex> lock(mutex);
        events.emplace_back(utcStamp(std::chrono::system_clock::now()), event);
        arrived.notify_one();
    });
    const auto tell = [&](const std::string& time, const std::string& what) {
        if (options.json)
            around.out << Json{{"time", time}, {"event", what}}.dump() << std::endl;
        else
            around.out << time << "  " << what << std::endl;
    };
    connection.link(options.access.value());
    if (options.heartbeatMs)
        connection.setHeartbeat(zuGevClient::Milliseconds(*options.heartbeatMs));
    tell(utcStamp(std::chrono::system_clock::now()), "linked");

    const std::uint64_t start = milliseconds();
    std::uint64_t lastPing = start;
    const auto over = [&] {
        return around.stop || !around.out || (options.durationMs && milliseconds() - start >= *options.durationMs);
    };
    while (!over()) {
        std::deque<std::pair<std::string, Event>> batch;
        {
            std::unique_lock<std::mutex> lock(mutex);
            arrived.wait_for(lock, std::chrono::milliseconds(watchStepMs), [&] { return !events.empty(); });
            batch.swap(events);
        }
        for (const auto& [time, event] : batch)
            tell(time, zuGevClient::toString(event));
        if (milliseconds() - lastPing >= pingEveryMs) {
            connection.ping(); // the daemon's end would otherwise go unnoticed
            lastPing = milliseconds();
        }
    }
    connection.unlink();
    connection.close();
    for (const auto& [time, event] : events)
        tell(time, zuGevClient::toString(event));
    tell(utcStamp(std::chrono::system_clock::now()), "unlinked");
}

} // namespace gevctl
