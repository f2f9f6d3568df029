// GVCP datagrams as bytes and as words.
#include "tools/gevsim/wire.h"

#include "platform/socket.h"

#include <array>
#include <cctype>
#include <cstdio>
#include <stdexcept>

namespace gevsim {

namespace {

struct Name {
    Command command;
    const char* text;
};

constexpr Name names[] = {
    {Command::discovery, "DISCOVERY"}, {Command::forceIp, "FORCEIP"},   {Command::packetResend, "PACKETRESEND"},
    {Command::readReg, "READREG"},     {Command::writeReg, "WRITEREG"}, {Command::readMem, "READMEM"},
    {Command::writeMem, "WRITEMEM"},   {Command::pending, "PENDING"},   {Command::event, "EVENT"},
    {Command::eventData, "EVENTDATA"}, {Command::action, "ACTION"},
};

std::string malformed(const std::uint8_t* data, std::size_t size)
{
    std::string text = "malformed, " + std::to_string(size) + " bytes";
    constexpr std::size_t most = 16;
    for (std::size_t i = 0; i < size && i < most; ++i)
        text += (i ? " " : ": ") + hex(data[i], 2).substr(2);
    return size > most ? text + " ..." : text;
}

std::string head(const std::uint8_t* data)
{
    return codeName(wire::get16(data + wire::atCode)) + " id=" + std::to_string(wire::get16(data + wire::atId));
}

std::string lengthNote(const std::uint8_t* data, std::size_t size)
{
    const std::size_t length = wire::get16(data + wire::atLength);
    if (length == size - wire::headerSize)
        return {};
    return " (length field " + std::to_string(length) + ", payload " + std::to_string(size - wire::headerSize) + ")";
}

std::string bytesNote(std::size_t count) { return " " + std::to_string(count) + " bytes"; }

} // namespace

Endpoint::Endpoint(const std::string& dottedQuad, std::uint16_t hostOrderPort) : port(hostOrderPort)
{
    std::uint32_t network = 0;
    if (!zuPlatform::parseIpv4(dottedQuad.c_str(), network))
        throw std::invalid_argument("'" + dottedQuad + "' is no IPv4 address");
    ip = zuPlatform::networkToHost32(network);
}

std::string Endpoint::address() const
{
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%u.%u.%u.%u", ip >> 24, (ip >> 16) & 0xFF, (ip >> 8) & 0xFF, ip & 0xFF);
    return text.data();
}

std::string Endpoint::text() const { return address() + ":" + std::to_string(port); }

void wire::putAckHeader(std::uint8_t* p, std::uint16_t status, std::uint16_t code, std::size_t payload,
                        std::uint16_t id)
{
    put16(p + atStatus, status);
    put16(p + atCode, code);
    put16(p + atLength, static_cast<std::uint16_t>(payload));
    put16(p + atId, id);
}

std::string codeName(std::uint16_t code)
{
    for (const Name& name : names) {
        if ((code & ~1u) == static_cast<std::uint16_t>(name.command))
            return (code & 1u) ? std::string(name.text) + "_ACK" : name.text;
    }
    return hex(code, 4);
}

std::optional<Command> commandByName(const std::string& name)
{
    std::string upper;
    for (const char c : name)
        upper += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    for (const Name& known : names) {
        if (upper == known.text)
            return known.command;
    }
    if (upper.size() > 2 && upper.size() <= 6 && upper.compare(0, 2, "0X") == 0 &&
        upper.find_first_not_of("0123456789ABCDEF", 2) == std::string::npos)
        return static_cast<Command>(std::stoul(upper, nullptr, 16));
    return std::nullopt;
}

std::string describeCommand(const std::uint8_t* data, std::size_t size)
{
    if (size < wire::headerSize || data[wire::atKey] != wire::commandKey)
        return malformed(data, size);
    std::string text = head(data);
    if (!(data[wire::atFlags] & wire::flagAckRequired))
        text += " no-ack";
    const auto address = [&](std::size_t at) { return hex(wire::get32(data + at), 8); };
    switch (static_cast<Command>(wire::get16(data + wire::atCode))) {
    case Command::readReg:
        for (std::size_t at = wire::headerSize; at + 4 <= size; at += 4)
            text += " [" + address(at) + "]";
        break;
    case Command::writeReg:
        for (std::size_t at = wire::headerSize; at + 8 <= size; at += 8)
            text += " [" + address(at) + "]=" + address(at + 4);
        break;
    case Command::readMem:
        if (size >= 16)
            text += " [" + address(wire::atAddress) + "]" + bytesNote(wire::get16(data + wire::atReadMemCount));
        break;
    case Command::writeMem:
        if (size >= 12)
            text += " [" + address(wire::atAddress) + "]" + bytesNote(size - wire::atMemData);
        break;
    case Command::forceIp:
        if (size == wire::headerSize + wire::forceIpSize)
            text += " " + address(wire::atForceMac + 2) + " to " +
                    Endpoint(wire::get32(data + wire::atForceIp), 0).address();
        break;
    case Command::packetResend: {
        const bool extended = (data[wire::atFlags] & wire::flagExtendedIds) != 0;
        if (size != wire::headerSize + (extended ? wire::longResendSize : wire::resendSize))
            break;
        const std::uint64_t block = extended ? std::uint64_t{wire::get32(data + wire::atResendLongBlock)} << 32 |
                                                   wire::get32(data + wire::atResendLongBlock + 4)
                                             : wire::get16(data + wire::atResendBlock);
        text += " block " + std::to_string(block) + " packets " +
                std::to_string(wire::get32(data + wire::atResendFirst)) + " to " +
                std::to_string(wire::get32(data + wire::atResendLast));
        break;
    }
    default:
        break;
    }
    return text + lengthNote(data, size);
}

std::string describeAcknowledge(const std::uint8_t* data, std::size_t size)
{
    if (size < wire::headerSize)
        return malformed(data, size);
    std::string text = head(data);
    const std::uint16_t status = wire::get16(data + wire::atStatus);
    if (status != 0)
        text += " status=" + hex(status, 4);
    switch (wire::get16(data + wire::atCode)) {
    case static_cast<std::uint16_t>(Command::readReg) + 1:
        for (std::size_t at = wire::headerSize; at + 4 <= size; at += 4)
            text += " =" + hex(wire::get32(data + at), 8);
        break;
    case static_cast<std::uint16_t>(Command::readMem) + 1:
        if (size >= wire::atMemData)
            text += " [" + hex(wire::get32(data + wire::atAddress), 8) + "]" + bytesNote(size - wire::atMemData);
        break;
    case wire::pendingAckCode:
        if (size >= 12)
            text += " " + std::to_string(wire::get16(data + wire::atPendingTime)) + " ms";
        break;
    default:
        break;
    }
    return text + lengthNote(data, size);
}

std::string hex(std::uint32_t value, int digits)
{
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "0x%0*X", digits, static_cast<unsigned>(value));
    return text.data();
}

} // namespace gevsim
