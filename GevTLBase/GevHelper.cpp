// GVCP helpers. They have no object, so each logs on "GVCP" itself.
#include "GevTLBase/GevHelper.h"

#include "logging/log.h"
#include "platform/socket.h"

#include <cstring>
#include <stdexcept>

namespace GEV {

namespace {

struct StatusEntry {
    const char* text;
    std::int32_t result;
    std::uint16_t status;
};

/// The standard's status codes, with its GEV_STATUS_... names spelled out as they are logged.
constexpr StatusEntry statusTable[] = {
    {" => Command not implemented", resultCode::notImplemented, 0x8001},
    {" => Invalid Parameter", resultCode::invalidParameter, 0x8002},
    {" => Invalid Address", resultCode::invalidAddress, 0x8003},
    {" => Address Write Protect", resultCode::writeProtect, 0x8004},
    {" => Bad Alignement", resultCode::badAlignment, 0x8005},
    {" => Access Denied", resultCode::accessDenied, 0x8006},
    {" => Busy", resultCode::busy, 0x8007},
    {" => Local Problem", resultCode::localProblem, 0x8008},
    {" => Ack doesn't match MSG", resultCode::mismatch, 0x8009},
    {" => Invalid Protocol Version", resultCode::invalidVersion, 0x800A},
    {" => Msg Response Timeout", resultCode::timeout, 0x800B},
    {" => The requested packet is not available anymore", resultCode::packetUnavailable, 0x800C},
    {" => Device internal Memory Overrun", resultCode::memoryOverrun, 0x800D},
    {" => Invalid Header", resultCode::invalidHeader, 0x800E},
    {" => Generic Error", resultCode::generalError, 0x8FFF},
};

constexpr StatusEntry unknownStatus{" => Unknown Status Command", resultCode::notImplemented, 0};

constexpr std::size_t addressTextSize = 50;

const StatusEntry& lookUpStatus(std::uint16_t status)
{
    for (const StatusEntry& entry : statusTable) {
        if (entry.status == status)
            return entry;
    }
    return unknownStatus;
}

std::uint8_t* at(void* datagram, std::size_t offset) { return static_cast<std::uint8_t*>(datagram) + offset; }

} // namespace

void putBig16(void* datagram, std::size_t offset, std::uint16_t value)
{
    std::uint8_t* field = at(datagram, offset);
    field[0] = static_cast<std::uint8_t>(value >> 8);
    field[1] = static_cast<std::uint8_t>(value);
}

void putBig32(void* datagram, std::size_t offset, std::uint32_t value)
{
    putBig16(datagram, offset, static_cast<std::uint16_t>(value >> 16));
    putBig16(datagram, offset + 2, static_cast<std::uint16_t>(value));
}

std::uint16_t getBig16(const void* datagram, std::size_t offset)
{
    const std::uint8_t* field = static_cast<const std::uint8_t*>(datagram) + offset;
    return static_cast<std::uint16_t>((field[0] << 8) | field[1]);
}

void BuildCmdHeader(void* buffer, std::size_t size, std::uint16_t command, std::uint16_t requestId)
{
    if (size < gvcpWire::headerSize)
        throw std::invalid_argument("Invalid Header Size");
    std::memset(buffer, 0, size);
    *at(buffer, gvcpWire::keyAt) = gvcpWire::key;
    *at(buffer, gvcpWire::flagsAt) = gvcpWire::ackRequired;
    putBig16(buffer, gvcpWire::commandAt, command);
    putBig16(buffer, gvcpWire::lengthAt, static_cast<std::uint16_t>(size - gvcpWire::headerSize));
    putBig16(buffer, gvcpWire::requestIdAt, requestId == 0 ? std::uint16_t{1} : requestId);
}

std::int32_t ValidateAck(const void* ack, std::uint16_t expectedId, std::uint16_t expectedCommand)
{
    const std::uint16_t command = getBig16(ack, gvcpWire::ackCommandAt);
    if (command % 2 == 0) {
        ZU_LOG(zuLogging::get_logstate("GVCP"), zuLogging::log_err,
               "Mismatch between CMD Type and ACK Type, flushing stack for this socket");
        return resultCode::notAnAcknowledge;
    }
    const std::uint16_t id = getBig16(ack, gvcpWire::ackIdAt);
    if (id != expectedId || command != expectedCommand) {
        ZU_LOG(zuLogging::get_logstate("GVCP"), zuLogging::log_err,
               "Mismatch between CMD and ACK " << id << "=" << expectedId << " - " << command << "=" << expectedCommand
                                               << "-> flushing stack for this socket");
        return resultCode::mismatch;
    }
    const std::uint16_t status = getBig16(ack, gvcpWire::statusAt);
    if (status == 0)
        return resultCode::success;
    const StatusEntry& entry = lookUpStatus(status);
    ZU_LOG(zuLogging::get_logstate("GVCP"), zuLogging::log_warn,
           "Status returned 0x" << std::hex << status << std::dec << entry.text);
    return entry.result;
}

std::string IpToString(std::uint32_t ip, std::uint16_t port)
{
    char text[addressTextSize] = {};
    const zuPlatform::SocketAddress address{zuPlatform::hostToNetwork32(ip), zuPlatform::hostToNetwork16(port)};
    if (!zuPlatform::formatSocketAddress(address, text, sizeof text))
        throw std::runtime_error("WSAAddressToString failed");
    return text;
}

} // namespace GEV
