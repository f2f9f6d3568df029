// What of the registers has to do with the stream: bounds, locks, and the orders that follow from a write.
#include "tools/gevsim/device.h"

#include "tools/gevsim/config.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace gevsim {

namespace {

constexpr double nominalExposure = 10000; // microseconds, at which the pattern has its full brightness
constexpr std::uint32_t chunkCount = 4;

float asFloat(std::uint32_t bits)
{
    float value = 0;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

bool within(std::uint32_t bits, float least, float most)
{
    const float value = asFloat(bits);
    return value >= least && value <= most;
}

/// For registers that were written past protection.
std::uint32_t fitted(std::uint32_t value, std::uint32_t least, std::uint32_t most, std::uint32_t step)
{
    return std::clamp(value, least, std::max(least, most)) / step * step;
}

float fitted(float value, float least, float most)
{
    return value >= least ? std::min(value, most) : least; // not a number: least
}

} // namespace

bool Device::streamOpen() const
{
    return (space_.get(reg::streamPort) & 0xFFFF) != 0 && space_.get(reg::streamDestination) != 0;
}

bool Device::locked() const { return streamOpen() && space_.get(feature::acquisitionStatus) != 0; }

float Device::longestExposure() const
{
    if (space_.get(feature::frameRateEnable) == 0)
        return limit::mostExposure;
    const float rate = fitted(space_.getFloat(feature::frameRate), limit::leastFrameRate, limit::mostFrameRate);
    return std::min(limit::mostExposure, 1000000.0F / rate);
}

Status Device::checkValue(std::uint32_t address, std::uint32_t value) const
{
    const auto good = [](bool fits) { return fits ? Status::success : Status::invalidParameter; };
    const auto size = [&](std::uint32_t sensor, std::uint32_t offset, std::uint32_t step) {
        if (locked())
            return Status::writeProtect;
        const std::uint32_t room = space_.get(sensor), before = space_.get(offset);
        return good(value % step == 0 && value >= limit::leastSize && before <= room && value <= room - before);
    };
    const auto place = [&](std::uint32_t sensor, std::uint32_t extent, std::uint32_t step) {
        const std::uint32_t room = space_.get(sensor), taken = space_.get(extent);
        return good(value % step == 0 && taken <= room && value <= room - taken);
    };
    switch (address) {
    case feature::width:
        return size(feature::sensorWidth, feature::offsetX, limit::widthStep);
    case feature::height:
        return size(feature::sensorHeight, feature::offsetY, limit::heightStep);
    case feature::offsetX:
        return place(feature::sensorWidth, feature::width, limit::widthStep);
    case feature::offsetY:
        return place(feature::sensorHeight, feature::height, limit::heightStep);
    case feature::pixelFormat:
        return locked() ? Status::writeProtect : good(pixel::name(value) != nullptr);
    case feature::chunkMode:
    case feature::chunkEnable:
    case feature::chunkEnable + 4:
    case feature::chunkEnable + 8:
    case feature::chunkEnable + 12:
        return locked() ? Status::writeProtect : good(value <= 1);
    case feature::acquisitionMode:
        return good(value <= 2);
    case feature::acquisitionFrameCount:
        return good(value >= 1 && value <= 0xFFFF);
    case feature::frameRateEnable:
    case feature::triggerMode:
    case feature::triggerSource:
        return good(value <= 1);
    case feature::triggerSelector:
        return good(value == 0);
    case feature::chunkSelector:
        return good(value < chunkCount);
    case feature::frameRate:
        return good(within(value, limit::leastFrameRate, limit::mostFrameRate));
    case feature::exposureTime:
        return good(within(value, limit::leastExposure, longestExposure()));
    case feature::gain:
        return good(within(value, limit::leastGain, limit::mostGain));
    default:
        return Status::success;
    }
}

StreamSetup Device::streamSetup() const
{
    const auto get = [this](std::uint32_t address) { return space_.get(address); };
    StreamSetup setup;
    setup.destination = {get(reg::streamDestination), static_cast<std::uint16_t>(get(reg::streamPort))};
    const std::uint32_t packet = get(reg::streamPacketSize);
    setup.packetSize = std::clamp(packet & streamPacketValue::size, streamPacketValue::least, streamPacketValue::most);
    setup.dontFragment = (packet & streamPacketValue::dontFragment) != 0;
    setup.packetDelay = std::chrono::nanoseconds(get(reg::streamPacketDelay)); // a tick is a nanosecond
    setup.extendedIds = (get(reg::gvspConfiguration) & gvspConfigurationValue::extendedIds) != 0;
    setup.extendedStatus = (get(reg::gvcpConfiguration) & gvcpConfigurationValue::extendedStatus) != 0;
    setup.extendedChunks = (get(reg::streamConfiguration) & streamConfigurationValue::extendedChunks) != 0;
    setup.chunkMode = get(feature::chunkMode) != 0;
    for (std::uint32_t i = 1; i < chunkCount; ++i)
        setup.chunks |= (get(feature::chunkEnable + 4 * i) != 0 ? 1u : 0u) << (i - 1);

    Picture& picture = setup.picture;
    const std::uint32_t sensorWidth = get(feature::sensorWidth);
    picture.sensorHeight = get(feature::sensorHeight);
    picture.format = pixel::name(get(feature::pixelFormat)) ? get(feature::pixelFormat) : pixel::mono8;
    picture.width = fitted(get(feature::width), limit::leastSize, sensorWidth, limit::widthStep);
    picture.height = fitted(get(feature::height), limit::leastSize, picture.sensorHeight, limit::heightStep);
    picture.offsetX = fitted(get(feature::offsetX), 0, sensorWidth - picture.width, limit::widthStep);
    picture.offsetY = fitted(get(feature::offsetY), 0, picture.sensorHeight - picture.height, limit::heightStep);
    picture.reverseX = get(feature::reverseX) != 0;

    setup.exposureUs = fitted(space_.getFloat(feature::exposureTime), limit::leastExposure, longestExposure());
    const double gain = fitted(space_.getFloat(feature::gain), limit::leastGain, limit::mostGain);
    picture.brightness =
        static_cast<std::uint32_t>(std::lround(256 * setup.exposureUs / nominalExposure * std::pow(10.0, gain / 20)));
    if (get(feature::frameRateEnable) != 0)
        setup.framesPerSecond =
            fitted(space_.getFloat(feature::frameRate), limit::leastFrameRate, limit::mostFrameRate);
    if (get(feature::triggerMode) != 0)
        setup.trigger = get(feature::triggerSource) == 0 ? TriggerSource::software : TriggerSource::line;
    const std::uint32_t mode = get(feature::acquisitionMode);
    setup.frames = mode == 0 ? 0 : mode == 1 ? 1 : std::max(1u, get(feature::acquisitionFrameCount));
    setup.timestampStart = timestampStart_;
    return setup;
}

void Device::configureStream()
{
    space_.set(reg::streamSourcePort, stream_.configure(streamSetup()));
    space_.set(feature::parametersLocked, locked() ? 1 : 0);
}

/// As the standard has it at the end of control.
void Device::closeChannels()
{
    space_.set(reg::messagePort, 0);
    const bool unconditional = (space_.get(reg::streamConfiguration) & streamConfigurationValue::unconditional) != 0;
    if (keepsStream_ || unconditional || !streamOpen())
        return;
    space_.set(reg::streamPort, 0);
    space_.set(feature::acquisitionStatus, 0);
    configureStream();
    stream_.stop();
}

void Device::acquisitionEnded(std::uint64_t session)
{
    if (session == 0 || session != session_ || space_.get(feature::acquisitionStatus) == 0)
        return;
    space_.set(feature::acquisitionStatus, 0);
    configureStream();
}

} // namespace gevsim
