// Addresses of the camera's registers and memory.
#pragma once

#include <cstdint>

namespace gevsim {

/// Bootstrap registers, by their names in the GigE Vision standard.
namespace reg {
constexpr std::uint32_t version = 0x0000;
constexpr std::uint32_t deviceMode = 0x0004;
constexpr std::uint32_t macHigh = 0x0008;
constexpr std::uint32_t macLow = 0x000C;
constexpr std::uint32_t supportedIpConfiguration = 0x0010;
constexpr std::uint32_t currentIpConfiguration = 0x0014; ///< see ipConfigurationValue; kept without power
constexpr std::uint32_t currentIp = 0x0024;
constexpr std::uint32_t currentSubnetMask = 0x0034;
constexpr std::uint32_t currentGateway = 0x0044;
constexpr std::uint32_t manufacturerName = 0x0048; ///< 32 bytes
constexpr std::uint32_t modelName = 0x0068;        ///< 32 bytes
constexpr std::uint32_t deviceVersion = 0x0088;    ///< 32 bytes
constexpr std::uint32_t manufacturerInfo = 0x00A8; ///< 48 bytes
constexpr std::uint32_t serialNumber = 0x00D8;     ///< 16 bytes
constexpr std::uint32_t userDefinedName = 0x00E8;  ///< 16 bytes, writable, kept without power
constexpr std::uint32_t firstUrl = 0x0200;         ///< 512 bytes
constexpr std::uint32_t secondUrl = 0x0400;        ///< 512 bytes
constexpr std::uint32_t numberOfInterfaces = 0x0600;
constexpr std::uint32_t persistentIp = 0x064C; ///< with mask and gateway, writable and kept without power
constexpr std::uint32_t persistentSubnetMask = 0x065C;
constexpr std::uint32_t persistentGateway = 0x066C;
constexpr std::uint32_t linkSpeed = 0x0670;
constexpr std::uint32_t numberOfMessageChannels = 0x0900;
constexpr std::uint32_t numberOfStreamChannels = 0x0904;
constexpr std::uint32_t numberOfActionSignals = 0x0908;
constexpr std::uint32_t numberOfActiveLinks = 0x0910;
constexpr std::uint32_t streamCapability = 0x092C;
constexpr std::uint32_t messageCapability = 0x0930;
constexpr std::uint32_t gvcpCapability = 0x0934;
constexpr std::uint32_t heartbeatTimeout = 0x0938; ///< milliseconds; 0 stops the watch
constexpr std::uint32_t tickFrequencyHigh = 0x093C;
constexpr std::uint32_t tickFrequencyLow = 0x0940;
constexpr std::uint32_t timestampControl = 0x0944; ///< 2 latches, 1 resets
constexpr std::uint32_t timestampHigh = 0x0948;
constexpr std::uint32_t timestampLow = 0x094C;
constexpr std::uint32_t discoveryAckDelay = 0x0950;
constexpr std::uint32_t gvcpConfiguration = 0x0954; ///< see gvcpConfigurationValue
constexpr std::uint32_t pendingTimeout = 0x0958;
constexpr std::uint32_t switchoverKey = 0x095C; ///< written by the holder; reads as 0
constexpr std::uint32_t gvspConfiguration = 0x0960;
constexpr std::uint32_t ccp = 0x0A00;
constexpr std::uint32_t primaryPort = 0x0A04;
constexpr std::uint32_t primaryIp = 0x0A14;
constexpr std::uint32_t messagePort = 0x0B00; ///< and its destination, timeout and retries up to 0x0B1F
constexpr std::uint32_t messageEnd = 0x0B20;
constexpr std::uint32_t streamPort = 0x0D00;       ///< first stream channel, up to 0x0D3F; a port opens it, 0 closes it
constexpr std::uint32_t streamPacketSize = 0x0D04; ///< see streamPacketValue
constexpr std::uint32_t streamPacketDelay = 0x0D08; ///< between packets, in ticks of the time stamp
constexpr std::uint32_t streamDestination = 0x0D18;
constexpr std::uint32_t streamSourcePort = 0x0D1C; ///< read only; 0 before the channel was open
constexpr std::uint32_t streamChannelCapability = 0x0D20;
constexpr std::uint32_t streamConfiguration = 0x0D24; ///< see streamConfigurationValue
constexpr std::uint32_t streamEnd = 0x0D40;
} // namespace reg

/// The maker's registers, behind the features of the GenICam description.
namespace feature {
constexpr std::uint32_t sensorWidth = 0xA000; ///< read only, with sensorHeight
constexpr std::uint32_t sensorHeight = 0xA004;
constexpr std::uint32_t width = 0xA010;
constexpr std::uint32_t height = 0xA014;
constexpr std::uint32_t offsetX = 0xA018;
constexpr std::uint32_t offsetY = 0xA01C;
constexpr std::uint32_t pixelFormat = 0xA020;
constexpr std::uint32_t acquisitionMode = 0xA024;
constexpr std::uint32_t acquisitionStart = 0xA028;  ///< command: clears itself
constexpr std::uint32_t acquisitionStop = 0xA02C;   ///< command: clears itself
constexpr std::uint32_t acquisitionStatus = 0xA030; ///< read only, 1 between start and stop
constexpr std::uint32_t reverseX = 0xA034;
constexpr std::uint32_t exposureTime = 0xA040;          ///< 32-bit float, microseconds
constexpr std::uint32_t gain = 0xA044;                  ///< 32-bit float, decibel
constexpr std::uint32_t temperature = 0xA048;           ///< read only 32-bit float, degrees Celsius
constexpr std::uint32_t testValue = 0xA050;             ///< free for use
constexpr std::uint32_t testText = 0xA060;              ///< 32 bytes, free for use
constexpr std::uint32_t acquisitionFrameCount = 0xA080; ///< of mode MultiFrame
constexpr std::uint32_t frameRateEnable = 0xA084;       ///< 0: as fast as the exposure allows
constexpr std::uint32_t frameRate = 0xA088;             ///< 32-bit float, frames a second
constexpr std::uint32_t triggerSelector = 0xA08C;       ///< 0: frame start
constexpr std::uint32_t triggerMode = 0xA090;
constexpr std::uint32_t triggerSource = 0xA094;   ///< 0 software, 1 line
constexpr std::uint32_t triggerSoftware = 0xA098; ///< command: clears itself
constexpr std::uint32_t chunkMode = 0xA0A0;
constexpr std::uint32_t chunkSelector = 0xA0A4;    ///< 0 image, 1 frame id, 2 time stamp, 3 exposure time
constexpr std::uint32_t chunkEnable = 0xA0B0;      ///< four, by the selector; that of the image stays 1
constexpr std::uint32_t deviceReset = 0xA0C0;      ///< command: a power cycle, behind the acknowledge
constexpr std::uint32_t parametersLocked = 0xA0C4; ///< read only, 1 while width, height and format can't be written
} // namespace feature

/// Regions. Addresses outside of them answer with invalid address.
namespace region {
constexpr std::uint32_t bootstrapSize = 0xB000; ///< from 0: bootstrap registers, from 0xA000 the maker's
constexpr std::uint32_t memory = 0x00010000;    ///< writable memory of Config::memorySize bytes, zero after power-up
constexpr std::uint32_t xml = 0x20000000;       ///< the GenICam file, read only
} // namespace region

/// Values of CCP.
namespace ccpValue {
constexpr std::uint32_t exclusive = 0x1;
constexpr std::uint32_t control = 0x2;
constexpr std::uint32_t switchover = 0x4; ///< with control: another may take over with the key in the upper half
} // namespace ccpValue

namespace ipConfigurationValue {
constexpr std::uint32_t persistent = 0x1;
constexpr std::uint32_t dhcp = 0x2;
constexpr std::uint32_t linkLocal = 0x4; ///< always on
} // namespace ipConfigurationValue

namespace gvcpConfigurationValue {
constexpr std::uint32_t heartbeatDisabled = 0x1;
constexpr std::uint32_t extendedStatus = 0x4; ///< the status codes that version 1.1 brought
} // namespace gvcpConfigurationValue

namespace gvspConfigurationValue {
constexpr std::uint32_t extendedIds = 0x40000000;
} // namespace gvspConfigurationValue

namespace streamPacketValue {
constexpr std::uint32_t fire = 0x80000000; ///< sends a test packet, and clears itself
constexpr std::uint32_t dontFragment = 0x40000000;
constexpr std::uint32_t size = 0x0000FFFF;
constexpr std::uint32_t least = 256, most = 9000, step = 4; ///< sizes are brought into these bounds
} // namespace streamPacketValue

namespace streamConfigurationValue {
constexpr std::uint32_t extendedChunks = 0x1;
constexpr std::uint32_t unconditional = 0x2; ///< the channel stays open when control ends
} // namespace streamConfigurationValue

/// Bounds of the features.
namespace limit {
constexpr std::uint32_t leastSize = 16, largestSensor = 16384, widthStep = 4, heightStep = 2;
constexpr float leastFrameRate = 0.1F, mostFrameRate = 1000.0F;
constexpr float leastExposure = 10.0F, mostExposure = 1000000.0F; ///< microseconds
constexpr float leastGain = 0.0F, mostGain = 24.0F;
} // namespace limit

} // namespace gevsim
