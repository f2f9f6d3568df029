// Cameras' addresses and names: what they have, and giving them others.
#include "tools/gevctl/camera_text.h"
#include "tools/gevctl/commands.h"

#include <algorithm>
#include <optional>
#include <set>

namespace gevctl {

using zuGevClient::CameraError;
using zuGevClient::Connection;
using zuGevClient::Error;
using zuGevClient::FoundCamera;
using zuGevClient::IpAddress;
using zuGevClient::LocalInterface;
using zuGevClient::MacAddress;
namespace IpMethod = zuGevClient::IpMethod;
namespace Status = zuGevClient::Status;

namespace {

bool contains(const LocalInterface& local, std::uint32_t address)
{
    return ((local.address ^ address) & local.subnetMask) == 0;
}

/// The cameras that a person may mean by this word, which are the same one where there is one MAC address.
std::vector<FoundCamera> named(const std::string& word, const std::vector<FoundCamera>& found)
{
    const auto mac = zuGevClient::parseMacAddress(word);
    const auto address = zuGevClient::parseEndpoint(word, 0);
    std::vector<FoundCamera> result;
    std::set<MacAddress> macs;
    for (const FoundCamera& camera : found) {
        const zuGevClient::CameraInfo& info = camera.info;
        const bool byAddress = address && address->port == 0 && info.ip.address == address->address;
        if ((mac && info.mac == *mac) || byAddress || info.serialNumber == word || info.userName == word) {
            result.push_back(camera);
            macs.insert(info.mac);
        }
    }
    if (macs.size() > 1) {
        std::string all;
        for (const MacAddress& one : macs)
            all += (all.empty() ? "" : ", ") + zuGevClient::toString(one);
        throw Error("Several cameras are called '" + word + "': say which by its MAC address: " + all);
    }
    return result;
}

struct Target {
    MacAddress mac;
    LocalInterface local;
};

/// On which interface a camera gets this address. One that nobody has found can still be meant by its MAC address.
Target targetOf(const Options& options, const std::vector<FoundCamera>& found)
{
    const std::uint32_t address = options.ip.address;
    const std::vector<FoundCamera> meant = named(options.which, found);
    const auto mac = zuGevClient::parseMacAddress(options.which);
    if (meant.empty() && !mac)
        throw CameraError("No camera '" + options.which + "' has answered; gevctl ip list shows those that do",
                          Status::timeout);
    std::vector<LocalInterface> locals;
    for (const FoundCamera& camera : meant)
        locals.push_back(camera.seenOn);
    if (meant.empty())
        for (const LocalInterface& local : zuGevClient::localInterfaces())
            if (options.interfaces.empty()
                    ? !local.loopback
                    : std::count(options.interfaces.begin(), options.interfaces.end(), local.name) != 0)
                locals.push_back(local);
    if (locals.empty())
        throw Error("There is no network interface on which a camera could be");
    const auto fitting = std::find_if(locals.begin(), locals.end(),
                                      [&](const LocalInterface& local) { return contains(local, address); });
    if (fitting == locals.end() && address != 0 && !options.anyway)
        throw Error(addressText(address) + " does not fit " + locals.front().name + ", which has " +
                    subnetText(locals.front().address, locals.front().subnetMask) + "; --anyway sends it all the same");
    return {meant.empty() ? *mac : meant.front().info.mac, fitting == locals.end() ? locals.front() : *fitting};
}

void requireFree(std::uint32_t address, const MacAddress& mac, const std::vector<FoundCamera>& found)
{
    for (const LocalInterface& local : zuGevClient::localInterfaces())
        if (local.address == address)
            throw Error(addressText(address) + " is the address of this machine's " + local.name);
    for (const FoundCamera& camera : found)
        if (camera.info.ip.address == address && camera.info.mac != mac)
            throw Error("The camera " + zuGevClient::toString(camera.info.mac) + " has the address " +
                        addressText(address));
}

Json addressJson(const IpAddress& ip)
{
    return Json{{"ip", addressText(ip.address)},
                {"subnetMask", addressText(ip.subnetMask)},
                {"gateway", addressText(ip.gateway)}};
}

void show(const Options& options, const Surroundings& around, const Json& json)
{
    if (options.json)
        print(around, json);
    else
        printTable(around, json);
}

/// What a camera does and can do about its address.
Json stateOf(Connection& connection)
{
    const zuGevClient::CameraInfo info = zuGevClient::readCameraInfo(connection);
    Json state{{"mac", zuGevClient::toString(info.mac)}};
    state.update(addressJson(info.ip));
    state["on"] = methodsText(info.ipCurrent);
    state["possible"] = methodsText(info.ipOptions);
    if ((info.ipOptions & IpMethod::persistent) != 0) {
        const IpAddress kept = zuGevClient::persistentIp(connection);
        state["persistentIp"] = addressText(kept.address);
        state["persistentSubnetMask"] = addressText(kept.subnetMask);
        state["persistentGateway"] = addressText(kept.gateway);
    }
    state["userName"] = info.userName;
    return state;
}

void tellWhen(const Options& options, const Surroundings& around, const Json& state)
{
    if (!options.quiet && !options.json)
        around.err << "In force from the camera's next start; at once with: gevctl ip force "
                   << state["mac"].get<std::string>() << " 0.0.0.0" << std::endl;
}

/// Shows the state, which `change` may change before.
template <typename TChange>
void showOrSet(const Options& options, const Surroundings& around, TChange change)
{
    Connection connection = connect(options);
    if (options.setting)
        change(connection);
    const Json state = stateOf(connection);
    if (options.setting && options.access->isPrivileged())
        connection.unlink();
    show(options, around, state);
    if (options.setting)
        tellWhen(options, around, state);
}

} // namespace

std::vector<FoundCamera> search(const Options& options, const Surroundings& around)
{
    zuGevClient::DiscoveryRequest request;
    request.interfaces = options.interfaces;
    request.targets = options.unicastTargets;
    request.wait = zuGevClient::Milliseconds(options.waitMs);
    request.stop = [&around] { return around.stop.load(); };
    return zuGevClient::discover(request);
}

void remarkOn(const std::vector<FoundCamera>& found, const Options& options, const Surroundings& around)
{
    if (options.quiet)
        return;
    for (const FoundCamera& camera : found) {
        const std::string text = advice(camera, found);
        if (!text.empty())
            around.err << zuGevClient::toString(camera.info.mac) << ": " << text << std::flush;
    }
    if (found.empty())
        around.err << "No camera has answered." << std::endl;
}

void runIpList(const Options& options, const Surroundings& around)
{
    const auto found = search(options, around);
    if (options.json) {
        Json cameras = Json::array();
        for (const FoundCamera& camera : found)
            cameras.push_back(toJson(camera, found));
        print(around, Json{{"cameras", std::move(cameras)}});
        return;
    }
    for (const FoundCamera& camera : found) {
        const zuGevClient::CameraInfo& info = camera.info;
        around.out << zuGevClient::toString(info.mac) << "  " << subnetText(info.ip.address, info.ip.subnetMask) << "  "
                   << methodsText(info.ipCurrent) << "  " << info.model << "  " << info.serialNumber;
        if (!info.userName.empty())
            around.out << "  \"" << info.userName << '"';
        if (!camera.seenOn.name.empty())
            around.out << "  (" << camera.seenOn.name << (camera.fits() ? ")" : ", wrong subnet)");
        around.out << '\n';
    }
    remarkOn(found, options, around);
}

void runIpForce(const Options& options, const Surroundings& around)
{
    const auto found = search(options, around);
    if (around.stop)
        throw Interrupted();
    const Target target = targetOf(options, found);
    zuGevClient::ForceIpRequest request;
    request.mac = target.mac;
    request.ip = options.ip;
    request.interfaces = {target.local.name};
    request.stop = [&around] { return around.stop.load(); };
    const bool anew = options.ip.address == 0;
    if (!anew) {
        if (request.ip.subnetMask == 0)
            request.ip.subnetMask = target.local.subnetMask;
        requireFree(request.ip.address, target.mac, found);
    }
    const zuGevClient::ForcedIp forced = zuGevClient::forceIp(request);
    const std::string mac = zuGevClient::toString(target.mac);
    const std::string address = addressText(request.ip.address);
    if (!anew && !forced.camera && !options.anyway)
        throw CameraError("The camera " + mac + " has acknowledged " + address + ", but does not answer there",
                          Status::timeout);
    if (options.json) {
        Json result{{"mac", mac}};
        result.update(addressJson(request.ip));
        result["interface"] = target.local.name;
        result["acknowledged"] = forced.acknowledged;
        result["found"] = forced.camera.has_value();
        print(around, result);
        return;
    }
    if (anew) {
        around.out << mac << " was told to look for an address anew\n";
        return;
    }
    around.out << mac << " has " << subnetText(request.ip.address, request.ip.subnetMask) << '\n';
    if (!options.quiet)
        around.err << "Until its next start; to have the camera keep it: gevctl ip persistent -c " << address << ' '
                   << subnetText(request.ip.address, request.ip.subnetMask) << std::endl;
}

void runIpShow(const Options& options, const Surroundings& around)
{
    Connection connection = connect(options);
    show(options, around, stateOf(connection));
}

void runIpPersistent(const Options& options, const Surroundings& around)
{
    showOrSet(options, around, [&](Connection& connection) {
        const std::uint32_t methods = zuGevClient::ipMethods(connection);
        if (options.setting == "on")
            zuGevClient::setIpMethods(connection, methods | IpMethod::persistent);
        else if (options.setting == "off")
            zuGevClient::setIpMethods(connection, methods & ~IpMethod::persistent);
        else
            zuGevClient::setPersistentIp(connection, options.ip);
    });
}

// A persistent address goes before DHCP, and DHCP before a link-local address.
void runIpDhcp(const Options& options, const Surroundings& around)
{
    showOrSet(options, around, [&](Connection& connection) {
        const std::uint32_t methods = zuGevClient::ipMethods(connection);
        zuGevClient::setIpMethods(connection, options.setting == "on"
                                                  ? (methods & ~IpMethod::persistent) | IpMethod::dhcp
                                                  : methods & ~IpMethod::dhcp);
    });
}

void runIpLinkLocal(const Options& options, const Surroundings& around)
{
    showOrSet(options, around,
              [](Connection& connection) { zuGevClient::setIpMethods(connection, IpMethod::linkLocal); });
}

void runIpName(const Options& options, const Surroundings& around)
{
    Connection connection = connect(options);
    if (options.setting) {
        zuGevClient::setUserName(connection, *options.setting);
        if (options.access->isPrivileged())
            connection.unlink();
    }
    const std::string name = zuGevClient::userName(connection);
    if (options.json)
        print(around, Json{{"userName", name}});
    else
        around.out << name << '\n';
}

} // namespace gevctl
