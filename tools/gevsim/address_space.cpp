// Regions, their contents after power-up, and their protection.
#include "tools/gevsim/address_space.h"

#include "tools/gevsim/config.h"
#include "tools/gevsim/genicam.h"
#include "tools/gevsim/picture.h"
#include "tools/gevsim/registers.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace gevsim {

namespace {

constexpr std::uint32_t maxMemorySize = 256u * 1024 * 1024;

constexpr std::uint32_t standardVersion = 0x00010002;  // 1.2
constexpr std::uint32_t bigEndianUtf8 = 0x80000001;    // device mode
constexpr std::uint32_t ipConfigurations = 0x00000007; // persistent address, DHCP, link-local
constexpr std::uint32_t ipConfigurationNow = 0x00000005;
constexpr std::uint32_t fastLink = 10000;           // megabits
constexpr std::uint32_t tickFrequency = 1000000000; // the time stamp counts nanoseconds
// User name, serial number, heartbeat disable, link speed, primary application registers, control switchover,
// PENDING_ACK, WRITEMEM, several registers in one command; PACKETRESEND and the extended status codes for it.
constexpr std::uint32_t capabilities = 0xF8600027;
constexpr std::uint32_t streamCapabilities = 0xC0000000;  // source port, 16-bit block ids
constexpr std::uint32_t channelCapabilities = 0x00000003; // unconditional streaming, extended chunk data
constexpr std::uint32_t extendedIdsVersion = 0x00020000;
constexpr std::uint32_t packetSize = 1400;

std::uint64_t defaultMac(const Endpoint& endpoint)
{
    return std::uint64_t{0x020000000000} | std::uint64_t{endpoint.ip} << 8 | (endpoint.port & 0xFFu);
}

std::string defaultSerial(const Endpoint& endpoint)
{
    char text[16];
    std::snprintf(text, sizeof text, "%08X-%u", endpoint.ip, endpoint.port);
    return text;
}

std::string localUrl(const GenicamFile& file)
{
    char text[128];
    std::snprintf(text, sizeof text, "Local:%s;%X;%X", file.name.c_str(), region::xml,
                  static_cast<unsigned>(file.bytes.size()));
    return text;
}

} // namespace

AddressSpace::AddressSpace(const Config& config)
{
    if (config.memorySize % 4 != 0 || config.memorySize > maxMemorySize)
        throw std::invalid_argument("the memory's size must be a multiple of 4 and at most 256 MiB");
    const auto fits = [](std::uint32_t size, std::uint32_t step) {
        return size >= limit::leastSize && size <= limit::largestSensor && size % step == 0;
    };
    if (!fits(config.sensorWidth, limit::widthStep) || !fits(config.sensorHeight, limit::heightStep))
        throw std::invalid_argument("the sensor is 16 to 16384 pixels wide and high, in multiples of 4 and 2");
    registers_.bytes.resize(region::bootstrapSize);
    registers_.writable.resize(region::bootstrapSize / 4);
    memory_.base = region::memory;
    memory_.bytes.resize(config.memorySize);
    memory_.allWritable = true;
    const GenicamFile file = makeGenicamFile(config.zippedXml);
    xml_.base = region::xml;
    xml_.bytes = file.bytes;
    xml_.bytes.resize((file.bytes.size() + 3) & ~std::size_t{3});

    fillBootstrap(config);
    setText(reg::firstUrl, 512, localUrl(file));
    fillFeatures(config);
    initialRegisters_ = registers_.bytes;
}

void AddressSpace::reset()
{
    // Kept in the camera's permanent memory.
    struct Range {
        std::uint32_t begin, size;
    };
    for (const Range& kept :
         {Range{reg::currentIpConfiguration, 4}, Range{reg::userDefinedName, 16}, Range{reg::persistentIp, 4},
          Range{reg::persistentSubnetMask, 4}, Range{reg::persistentGateway, 4}})
        std::memcpy(&initialRegisters_[kept.begin], &registers_.bytes[kept.begin], kept.size);
    registers_.bytes = initialRegisters_;
    std::fill(memory_.bytes.begin(), memory_.bytes.end(), std::uint8_t{0});
}

const AddressSpace::Region* AddressSpace::find(std::uint32_t address, std::size_t size) const
{
    for (const Region* candidate : {&registers_, &memory_, &xml_}) {
        const std::uint64_t offset = std::uint64_t{address} - candidate->base;
        if (address >= candidate->base && offset + size <= candidate->bytes.size())
            return candidate;
    }
    return nullptr;
}

Status AddressSpace::checkWrite(std::uint32_t address, std::size_t size) const
{
    const Region* found = find(address, size);
    if (!found)
        return Status::invalidAddress;
    if (found->allWritable)
        return Status::success;
    if (found->writable.empty())
        return Status::writeProtect;
    const std::size_t begin = address - found->base;
    for (std::size_t word = begin / 4; word * 4 < begin + size; ++word) {
        if (!found->writable[word])
            return Status::writeProtect;
    }
    return Status::success;
}

const std::uint8_t* AddressSpace::data(std::uint32_t address, std::size_t size) const
{
    const Region* found = find(address, size);
    return found ? found->bytes.data() + (address - found->base) : nullptr;
}

std::uint8_t* AddressSpace::data(std::uint32_t address, std::size_t size)
{
    return const_cast<std::uint8_t*>(static_cast<const AddressSpace*>(this)->data(address, size));
}

std::uint32_t AddressSpace::get(std::uint32_t address) const
{
    const std::uint8_t* bytes = address % 4 == 0 ? data(address, 4) : nullptr;
    if (!bytes)
        throw std::out_of_range("the camera has no such register");
    return wire::get32(bytes);
}

void AddressSpace::set(std::uint32_t address, std::uint32_t value)
{
    std::uint8_t* bytes = address % 4 == 0 ? data(address, 4) : nullptr;
    if (!bytes)
        throw std::out_of_range("the camera has no such register");
    wire::put32(bytes, value);
}

void AddressSpace::setAddress(std::uint32_t ip, std::uint32_t mask, std::uint32_t gateway)
{
    set(reg::currentIp, ip);
    set(reg::currentSubnetMask, mask);
    set(reg::currentGateway, gateway);
}

float AddressSpace::getFloat(std::uint32_t address) const
{
    const std::uint32_t bits = get(address);
    float value = 0;
    static_assert(sizeof bits == sizeof value);
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

void AddressSpace::setText(std::uint32_t address, std::size_t size, const std::string& text)
{
    // The last byte stays 0: every text of the standard ends with one.
    std::memcpy(data(address, size), text.data(), std::min(text.size(), size - 1));
}

void AddressSpace::setFloat(std::uint32_t address, float value)
{
    std::uint32_t bits = 0;
    static_assert(sizeof bits == sizeof value);
    std::memcpy(&bits, &value, sizeof bits);
    set(address, bits);
}

void AddressSpace::allowWrite(std::uint32_t begin, std::uint32_t end)
{
    for (std::uint32_t word = begin / 4; word * 4 < end; ++word)
        registers_.writable[word] = true;
}

void AddressSpace::fillBootstrap(const Config& config)
{
    const std::uint64_t mac = config.mac ? config.mac : defaultMac(config.endpoint);
    set(reg::version, config.extendedIds ? extendedIdsVersion : standardVersion);
    set(reg::deviceMode, bigEndianUtf8);
    set(reg::macHigh, static_cast<std::uint32_t>(mac >> 32) & 0xFFFF);
    set(reg::macLow, static_cast<std::uint32_t>(mac));
    set(reg::supportedIpConfiguration, ipConfigurations);
    set(reg::currentIpConfiguration, ipConfigurationNow);
    set(reg::currentIp, config.endpoint.ip);
    set(reg::currentSubnetMask, config.subnetMask);
    set(reg::currentGateway, 0);
    setText(reg::manufacturerName, 32, config.manufacturer);
    setText(reg::modelName, 32, config.model);
    setText(reg::deviceVersion, 32, config.version);
    setText(reg::manufacturerInfo, 48, config.info);
    setText(reg::serialNumber, 16, config.serial.empty() ? defaultSerial(config.endpoint) : config.serial);
    setText(reg::userDefinedName, 16, config.userName);
    set(reg::numberOfInterfaces, 1);
    set(reg::persistentIp, config.endpoint.ip);
    set(reg::persistentSubnetMask, config.subnetMask);
    set(reg::linkSpeed, config.linkSpeed != 0 ? config.linkSpeed : fastLink);
    set(reg::numberOfMessageChannels, 1);
    set(reg::numberOfStreamChannels, 1);
    set(reg::numberOfActiveLinks, 1);
    set(reg::streamCapability, streamCapabilities);
    set(reg::gvcpCapability, capabilities);
    set(reg::gvspConfiguration, config.extendedIds ? gvspConfigurationValue::extendedIds : 0);
    set(reg::heartbeatTimeout, config.heartbeatTimeoutMs);
    set(reg::tickFrequencyLow, tickFrequency);
    set(reg::pendingTimeout, config.heartbeatTimeoutMs);
    set(reg::streamPacketSize, packetSize);
    set(reg::streamChannelCapability, channelCapabilities);

    allowWrite(reg::currentIpConfiguration, reg::currentIpConfiguration + 4);
    allowWrite(reg::userDefinedName, reg::userDefinedName + 16);
    for (const std::uint32_t address : {reg::persistentIp, reg::persistentSubnetMask, reg::persistentGateway,
                                        reg::heartbeatTimeout, reg::timestampControl, reg::discoveryAckDelay,
                                        reg::gvcpConfiguration, reg::switchoverKey, reg::gvspConfiguration, reg::ccp})
        allowWrite(address, address + 4);
    allowWrite(reg::messagePort, reg::messageEnd);
    allowWrite(reg::streamPort, reg::streamSourcePort);
    allowWrite(reg::streamConfiguration, reg::streamEnd);
}

void AddressSpace::fillFeatures(const Config& config)
{
    set(feature::sensorWidth, config.sensorWidth);
    set(feature::sensorHeight, config.sensorHeight);
    set(feature::width, config.sensorWidth);
    set(feature::height, config.sensorHeight);
    set(feature::pixelFormat, pixel::mono8);
    setFloat(feature::exposureTime, 10000.0F);
    setFloat(feature::gain, 0.0F);
    setFloat(feature::temperature, 36.5F);
    allowWrite(feature::width, feature::acquisitionStatus);
    allowWrite(feature::reverseX, feature::reverseX + 4);
    allowWrite(feature::exposureTime, feature::gain + 4);
    allowWrite(feature::testValue, feature::testValue + 4);
    allowWrite(feature::testText, feature::testText + 32);
    set(feature::acquisitionFrameCount, 1);
    set(feature::frameRateEnable, 1);
    setFloat(feature::frameRate, 25.0F);
    set(feature::chunkEnable, 1);
    for (std::uint32_t i = 1; i < 4; ++i)
        set(feature::chunkEnable + 4 * i, 1);
    allowWrite(feature::acquisitionFrameCount, feature::triggerSoftware + 4);
    allowWrite(feature::chunkMode, feature::chunkSelector + 4);
    allowWrite(feature::chunkEnable, feature::chunkEnable + 16);
    allowWrite(feature::deviceReset, feature::deviceReset + 4);
}

} // namespace gevsim
