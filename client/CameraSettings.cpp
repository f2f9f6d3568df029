// What a camera says of itself and what it keeps, by its bootstrap registers.
#include "client/Bootstrap.h"
#include "client/GevDiscovery.h"

#include "platform/text.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <vector>

namespace zuGevClient {

namespace {

constexpr std::array registersBelowTheTexts{bootstrap::version, bootstrap::deviceMode, bootstrap::macHigh,
                                            bootstrap::macLow,  bootstrap::ipOptions,  bootstrap::ipCurrent,
                                            bootstrap::address, bootstrap::subnetMask, bootstrap::gateway};

[[noreturn]] void refuse(const std::string& what, std::int32_t status)
{
    throw CameraError(what + " (status " + std::to_string(status) + ")", status);
}

void requireOption(Connection& connection, std::uint32_t methods)
{
    const std::uint32_t missing = methods & ~connection.readRegister(bootstrap::ipOptions);
    if ((missing & IpMethod::persistent) != 0)
        refuse("The camera can't keep an address", Status::notImplemented);
    if ((missing & IpMethod::dhcp) != 0)
        refuse("The camera can't get its address by DHCP", Status::notImplemented);
}

/// The bits that aren't of addresses stay.
void switchMethods(Connection& connection, std::uint32_t methods)
{
    const std::uint32_t before = connection.readRegister(bootstrap::ipCurrent);
    connection.writeRegister(bootstrap::ipCurrent, (before & ~IpMethod::all) | methods);
    const std::uint32_t choice = IpMethod::persistent | IpMethod::dhcp;
    if (((connection.readRegister(bootstrap::ipCurrent) ^ methods) & choice) != 0)
        refuse("The camera's IP configuration does not read back as it was written", Status::generalFailure);
}

} // namespace

CameraInfo readCameraInfo(Connection& connection)
{
    std::vector<std::uint8_t> bytes(bootstrap::headSize);
    for (const std::uint32_t at : registersBelowTheTexts)
        store32(bytes.data() + at, connection.readRegister(at));
    connection.readMemory(bootstrap::manufacturer, bytes.data() + bootstrap::manufacturer,
                          bytes.size() - bootstrap::manufacturer);
    return decodeCameraInfo(bytes.data(), bytes.size()).value();
}

IpAddress persistentIp(Connection& connection)
{
    return {connection.readRegister(bootstrap::persistentAddress),
            connection.readRegister(bootstrap::persistentSubnetMask),
            connection.readRegister(bootstrap::persistentGateway)};
}

// The switch comes last: a camera that loses its power in between starts as before.
void setPersistentIp(Connection& connection, const IpAddress& ip)
{
    requireUsable(ip);
    requireOption(connection, IpMethod::persistent);
    connection.writeRegister(bootstrap::persistentAddress, ip.address);
    connection.writeRegister(bootstrap::persistentSubnetMask, ip.subnetMask);
    connection.writeRegister(bootstrap::persistentGateway, ip.gateway);
    if (persistentIp(connection) != ip)
        refuse("The camera's persistent address does not read back as it was written", Status::generalFailure);
    switchMethods(connection, ipMethods(connection) | IpMethod::persistent);
}

std::uint32_t ipMethods(Connection& connection)
{
    return connection.readRegister(bootstrap::ipCurrent) & IpMethod::all;
}

void setIpMethods(Connection& connection, std::uint32_t methods)
{
    if ((methods & ~IpMethod::all) != 0)
        throw std::invalid_argument("There are only three ways to an address");
    requireOption(connection, methods);
    switchMethods(connection, methods | IpMethod::linkLocal);
}

std::string userName(Connection& connection)
{
    const auto bytes = connection.readMemory(bootstrap::userName, userNameSize);
    return cleanText(bytes.data(), bytes.size());
}

void setUserName(Connection& connection, const std::string& name)
{
    std::vector<std::uint8_t> bytes(name.begin(), name.end());
    if (bytes.size() > userNameSize)
        throw std::invalid_argument("A camera's name has at most " + std::to_string(userNameSize) + " bytes, and '" +
                                    name + "' has " + std::to_string(bytes.size()));
    if (cleanText(bytes.data(), bytes.size()) != name)
        throw std::invalid_argument("A camera's name is UTF-8 without control characters");
    bytes.resize(userNameSize);
    connection.writeMemory(bootstrap::userName, bytes.data(), bytes.size());
    if (connection.readMemory(bootstrap::userName, userNameSize) != bytes)
        refuse("The camera's name does not read back as it was written", Status::generalFailure);
}

} // namespace zuGevClient
