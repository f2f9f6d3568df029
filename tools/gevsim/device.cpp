// The commands of GVCP as a camera carries them out.
#include "tools/gevsim/device.h"

#include "tools/gevsim/config.h"

#include <algorithm>
#include <cstring>

namespace gevsim {

using namespace wire;

struct Device::Request {
    const std::uint8_t* data;
    std::size_t size;
    const Endpoint& from;
    Time now;
    std::uint8_t* reply;

    std::size_t payload() const { return size - headerSize; }
    std::uint16_t ackCode() const { return static_cast<std::uint16_t>(get16(data + atCode) | 1u); }

    /// An acknowledge whose payload of `length` bytes is in place.
    std::size_t answer(Status status, std::size_t length) const
    {
        putAckHeader(reply, static_cast<std::uint16_t>(status), ackCode(), length, get16(data + atId));
        return headerSize + length;
    }
    std::size_t refused(Status status) const { return refuse(data, static_cast<std::uint16_t>(status), reply); }

    /// Acknowledge of a write: what was done, as a count, behind two reserved bytes.
    std::size_t written(Status status, std::size_t count) const
    {
        put32(reply + headerSize, 0);
        put16(reply + atAckIndex, static_cast<std::uint16_t>(count));
        return answer(status, 4);
    }
};

Device::Device(const Config& config, Time now, StreamOrders& stream)
    : space_(config), timestampStart_(now), stream_(stream), anyoneWhileFree_(!config.writesNeedControl),
      strictWriteMem_(config.strictWriteMem), keepsStream_(config.keepsStream)
{
}

bool Device::isCommand(const std::uint8_t* data, std::size_t size)
{
    return size >= headerSize && data[atKey] == commandKey && (get16(data + atCode) & 1u) == 0;
}

std::size_t Device::refuse(const std::uint8_t* data, std::uint16_t status, std::uint8_t* reply)
{
    const std::uint16_t code = get16(data + atCode);
    std::size_t length = 0;
    if (code == static_cast<std::uint16_t>(Command::writeReg) ||
        code == static_cast<std::uint16_t>(Command::writeMem)) {
        length = 4; // reserved bytes and index 0: nothing was written
        put32(reply + headerSize, 0);
    }
    putAckHeader(reply, status, static_cast<std::uint16_t>(code | 1u), length, get16(data + atId));
    return headerSize + length;
}

std::size_t Device::handle(const std::uint8_t* data, std::size_t size, const Endpoint& from, Time now,
                           std::uint8_t* reply)
{
    if (!isCommand(data, size))
        return 0;
    expire(now);
    privilege_.touch(from, now);
    const Request request{data, size, from, now, reply};
    std::size_t answered = 0;
    if (get16(data + atLength) != request.payload() || get16(data + atId) == 0) {
        answered = request.refused(Status::invalidHeader);
    } else {
        switch (static_cast<Command>(get16(data + atCode))) {
        case Command::discovery:
            return discovery(request);
        case Command::readReg:
            answered = readRegs(request);
            break;
        case Command::writeReg:
            answered = writeRegs(request);
            break;
        case Command::readMem:
            answered = readMem(request);
            break;
        case Command::writeMem:
            answered = writeMem(request);
            break;
        case Command::forceIp:
            answered = forceIp(request);
            break;
        case Command::packetResend:
            packetResend(request);
            return 0;
        default:
            answered = request.refused(Status::notImplemented);
            break;
        }
    }
    return (data[atFlags] & flagAckRequired) ? answered : 0;
}

std::size_t Device::discovery(const Request& request)
{
    std::memcpy(request.reply + headerSize, space_.data(0, discoverySize), discoverySize);
    return request.answer(Status::success, discoverySize);
}

std::size_t Device::readRegs(const Request& request)
{
    const std::size_t count = request.payload() / 4;
    if (request.payload() % 4 != 0 || count == 0 || count > maxReadRegs)
        return request.refused(Status::invalidParameter);
    if (!privilege_.mayRead(request.from))
        return request.refused(Status::accessDenied);
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint32_t address = get32(request.data + atAddress + 4 * i);
        const std::uint8_t* value = space_.data(address, 4);
        if (address % 4 != 0)
            return request.answer(Status::badAlignment, 4 * i);
        if (!value)
            return request.answer(Status::invalidAddress, 4 * i);
        std::memcpy(request.reply + headerSize + 4 * i, value, 4);
    }
    return request.answer(Status::success, 4 * count);
}

std::size_t Device::writeRegs(const Request& request)
{
    const std::size_t count = request.payload() / 8;
    if (request.payload() % 8 != 0 || count == 0 || count > maxWriteRegs)
        return request.refused(Status::invalidParameter);
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint8_t* pair = request.data + atAddress + 8 * i;
        const Status status = writeReg(get32(pair), get32(pair + 4), request.from, request.now);
        if (status != Status::success)
            return request.written(status, i);
    }
    return request.written(Status::success, count);
}

Status Device::writeReg(std::uint32_t address, std::uint32_t value, const Endpoint& from, Time now)
{
    if (address == reg::ccp) {
        const Status status = privilege_.writeCcp(from, value, now);
        showControl();
        return status;
    }
    if (!privilege_.mayWrite(from, anyoneWhileFree_))
        return Status::accessDenied;
    if (address % 4 != 0)
        return Status::badAlignment;
    Status status = space_.checkWrite(address, 4);
    if (status == Status::success)
        status = checkValue(address, value);
    if (status == Status::success)
        store(address, value, now);
    return status;
}

std::size_t Device::readMem(const Request& request)
{
    if (request.payload() != 8)
        return request.refused(Status::invalidParameter);
    if (!privilege_.mayRead(request.from))
        return request.refused(Status::accessDenied);
    const std::uint32_t address = get32(request.data + atAddress);
    const std::size_t count = get16(request.data + atReadMemCount);
    if (address % 4 != 0 || count % 4 != 0)
        return request.refused(Status::badAlignment);
    if (count == 0 || count > maxMemory)
        return request.refused(Status::invalidParameter);
    const std::uint8_t* bytes = space_.data(address, count);
    if (!bytes)
        return request.refused(Status::invalidAddress);
    put32(request.reply + atAddress, address);
    std::memcpy(request.reply + atMemData, bytes, count);
    return request.answer(Status::success, 4 + count);
}

std::size_t Device::writeMem(const Request& request)
{
    if (request.payload() <= 4 || request.payload() > 4 + maxMemory)
        return request.refused(Status::invalidParameter);
    if (!privilege_.mayWrite(request.from, anyoneWhileFree_))
        return request.refused(Status::accessDenied);
    const std::uint32_t address = get32(request.data + atAddress);
    const std::size_t count = request.payload() - 4;
    if (address % 4 != 0 || (strictWriteMem_ && count % 4 != 0))
        return request.refused(Status::badAlignment);
    Status status = space_.checkWrite(address, count);
    // CCP is a matter of WRITEREG.
    if (status == Status::success && address <= reg::ccp && reg::ccp < address + count)
        status = Status::writeProtect;
    if (address < region::bootstrapSize) {
        for (std::size_t i = 0; status == Status::success && i + 4 <= count; i += 4)
            status = checkValue(address + static_cast<std::uint32_t>(i), get32(request.data + atMemData + i));
    }
    if (status != Status::success)
        return request.refused(status);
    std::uint8_t* to = space_.data(address, count);
    std::memcpy(to, request.data + atMemData, count);
    if (address < region::bootstrapSize) {
        for (std::size_t i = 0; i < count; i += 4)
            store(address + static_cast<std::uint32_t>(i),
                  get32(space_.data(address + static_cast<std::uint32_t>(i), 4)), request.now);
    }
    return request.written(Status::success, count);
}

std::size_t Device::forceIp(const Request& request)
{
    if (request.payload() != forceIpSize)
        return request.refused(Status::invalidParameter);
    // For another camera: it is a broadcast.
    if (get16(request.data + atForceMac) != space_.get(reg::macHigh) ||
        get32(request.data + atForceMac + 2) != space_.get(reg::macLow))
        return 0;
    if (control().held())
        return request.refused(Status::accessDenied);
    move_ =
        Move{get32(request.data + atForceIp), get32(request.data + atForceMask), get32(request.data + atForceGateway)};
    // Who asks for another attempt at an address gets no answer: nobody knows from where it would come.
    return move_->ip == 0 ? 0 : request.answer(Status::success, 0);
}

void Device::packetResend(const Request& request)
{
    const bool extended = (request.data[atFlags] & flagExtendedIds) != 0;
    if (request.payload() != (extended ? longResendSize : resendSize) || get16(request.data + atResendChannel) != 0)
        return;
    ResendRequest wanted;
    wanted.extended = extended;
    const std::uint32_t mask = extended ? 0xFFFFFFFF : 0x00FFFFFF;
    wanted.first = get32(request.data + atResendFirst) & mask;
    wanted.last = get32(request.data + atResendLast) & mask;
    wanted.block = extended ? std::uint64_t{get32(request.data + atResendLongBlock)} << 32 |
                                  get32(request.data + atResendLongBlock + 4)
                            : get16(request.data + atResendBlock);
    stream_.resend(wanted);
}

/// Puts a value into a register, and does what a write to this register does.
void Device::store(std::uint32_t address, std::uint32_t value, Time now)
{
    constexpr std::uint32_t latch = 2, restart = 1;
    space_.set(address, value);
    switch (address) {
    case reg::switchoverKey:
        privilege_.setKey(static_cast<std::uint16_t>(value));
        space_.set(address, 0);
        break;
    case reg::timestampControl:
        if (value & latch) {
            const auto ticks = static_cast<std::uint64_t>(
                std::chrono::duration_cast<std::chrono::nanoseconds>(now - timestampStart_).count());
            space_.set(reg::timestampHigh, static_cast<std::uint32_t>(ticks >> 32));
            space_.set(reg::timestampLow, static_cast<std::uint32_t>(ticks));
        }
        if (value & restart)
            timestampStart_ = now;
        space_.set(address, 0);
        break;
    case feature::acquisitionStart:
    case feature::acquisitionStop: {
        const bool start = address == feature::acquisitionStart;
        space_.set(address, 0);
        if ((value & 1u) == 0 || space_.get(feature::acquisitionStatus) == (start ? 1U : 0U))
            break;
        space_.set(feature::acquisitionStatus, start ? 1 : 0);
        configureStream();
        if (start)
            stream_.start(++session_);
        else
            stream_.stop();
        break;
    }
    case feature::triggerSoftware:
        if (value & 1u)
            stream_.trigger(TriggerSource::software);
        space_.set(address, 0);
        break;
    case feature::deviceReset:
        reset_ = reset_ || (value & 1u) != 0;
        space_.set(address, 0);
        break;
    case feature::chunkEnable:
        space_.set(address, 1);
        break;
    case feature::frameRate:
    case feature::frameRateEnable:
        if (space_.getFloat(feature::exposureTime) > longestExposure())
            space_.setFloat(feature::exposureTime, longestExposure());
        break;
    case reg::currentIpConfiguration:
        space_.set(address, (value & (ipConfigurationValue::persistent | ipConfigurationValue::dhcp)) |
                                ipConfigurationValue::linkLocal);
        break;
    case reg::streamPacketSize: {
        using namespace streamPacketValue;
        const std::uint32_t wanted = value & size & ~(step - 1);
        space_.set(address, (value & dontFragment) | std::clamp(wanted, least, most));
        if (value & fire) {
            configureStream();
            stream_.fireTestPacket();
        }
        break;
    }
    default:
        break;
    }
    const bool ofStream = (address >= reg::streamPort && address < reg::streamEnd) ||
                          (address >= feature::sensorWidth && address < region::bootstrapSize) ||
                          address == reg::gvcpConfiguration || address == reg::gvspConfiguration ||
                          address == reg::timestampControl;
    if (ofStream)
        configureStream();
}

void Device::showControl()
{
    const Control& control = privilege_.control();
    const bool ended = space_.get(reg::ccp) != 0 && !control.held();
    space_.set(reg::ccp, control.ccp);
    space_.set(reg::primaryIp, control.holder.ip);
    space_.set(reg::primaryPort, control.holder.port);
    if (ended)
        closeChannels();
}

std::uint32_t Device::heartbeatTimeout() const
{
    const bool disabled = (space_.get(reg::gvcpConfiguration) & gvcpConfigurationValue::heartbeatDisabled) != 0;
    return disabled ? 0 : space_.get(reg::heartbeatTimeout);
}

bool Device::expire(Time now)
{
    if (!control().held() || !privilege_.expire(now, heartbeatTimeout()))
        return false;
    showControl();
    return true;
}

void Device::forceControl(const Control& control, Time now)
{
    privilege_.force(control, now);
    showControl();
}

void Device::setRegister(std::uint32_t address, std::uint32_t value, Time now)
{
    if (address == reg::ccp)
        forceControl({value, {0, 0}}, now);
    else
        store(address, value, now);
}

void Device::powerCycle(Time now)
{
    space_.reset();
    privilege_.reset();
    timestampStart_ = now;
    stream_.stop();
    configureStream();
}

} // namespace gevsim
