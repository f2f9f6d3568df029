// Decoder of the log service's packets.
#include "tools/zuLogSvc/packet_decoder.h"

#include "tools/zuLogSvc/protocol.h"
#include "tools/zuLogSvc/utf8.h"

namespace zuLogSvc {
namespace {

struct RawElement {
    bool present = false;
    bool wide = false;
    Bytes data;
};

std::string_view asText(Bytes data) { return {reinterpret_cast<const char*>(data.data()), data.size()}; }

bool isNumber(std::uint8_t type)
{
    return type == Element::time || type == Element::level || type == Element::process || type == Element::thread ||
           type == Element::codePage;
}

constexpr std::size_t elementTypes = 11;

Fault readElements(Bytes rest, RawElement (&elements)[elementTypes])
{
    while (!rest.empty()) {
        if (rest.size() < Element::bytes)
            return "an element's head is cut off";
        const std::size_t length = load16(rest.data() + Element::length);
        const std::uint8_t type = rest[Element::type];
        const std::uint8_t wide = rest[Element::wide];
        if (type == 0 || type >= elementTypes)
            return "unknown element type";
        if (wide > 1 || (wide == 1 && type != Element::text))
            return "an element's width is wrong";
        if (length > rest.size() - Element::bytes)
            return "an element leads past the end";
        if (isNumber(type) && length != Element::number)
            return "a number of the wrong size";
        if (type == Element::records && length % Element::record != 0)
            return "records of the wrong size";
        RawElement& element = elements[type];
        if (element.present)
            return "an element comes twice";
        element = {true, wide == 1, rest.subspan(Element::bytes, length)};
        rest = rest.subspan(Element::bytes + length);
    }
    return nullptr;
}

std::optional<std::uint64_t> number(const RawElement& element)
{
    if (!element.present)
        return std::nullopt;
    return load64(element.data.data());
}

} // namespace

Fault decodeHeader(Bytes datagram, std::size_t payloadLimit, PacketHeader& header)
{
    if (datagram.size() < Header::bytes)
        return "shorter than a header";
    const std::uint8_t* at = datagram.data();
    header.magic = load16(at + Header::magic);
    header.flags = load16(at + Header::flags);
    header.command = load16(at + Header::command);
    header.status = load16(at + Header::status);
    header.id = load16(at + Header::id);
    header.length = load16(at + Header::length);
    if (header.magic != Header::commandMagic && header.magic != Header::messageMagic)
        return "wrong magic";
    if (header.length > payloadLimit)
        return "payload too long";
    if (header.length != datagram.size() - Header::bytes)
        return "length differs from the datagram's";
    return nullptr;
}

Fault decodeCommand(Bytes datagram, CommandPacket& packet)
{
    if (const Fault fault = decodeHeader(datagram, maxPayload, packet.header))
        return fault;
    if (packet.header.magic != Header::commandMagic)
        return "not a command";
    if ((packet.header.command & acknowledgeBit) != 0)
        return "an acknowledge, not a request";
    if (packet.header.flags != 0 || packet.header.status != 0)
        return "flags or status in a request";
    packet.payload = asText(datagram.subspan(Header::bytes));
    return nullptr;
}

Fault decodeAcknowledge(Bytes datagram, CommandPacket& packet)
{
    if (const Fault fault = decodeHeader(datagram, maxPayload, packet.header))
        return fault;
    if (packet.header.magic != Header::commandMagic || (packet.header.command & acknowledgeBit) == 0)
        return "not an acknowledge";
    if (packet.header.flags != 0)
        return "flags in an acknowledge";
    packet.payload = asText(datagram.subspan(Header::bytes));
    return nullptr;
}

Fault decodeMessage(Bytes datagram, LogMessage& message)
{
    PacketHeader header;
    if (const Fault fault = decodeHeader(datagram, maxPayload, header))
        return fault;
    if (header.magic != Header::messageMagic)
        return "not a message";
    if (header.command != cmdMessage && header.command != cmdMessageWithRecords)
        return "unknown message command";
    if (header.flags != Header::messageFlags || header.status != 0)
        return "wrong flags or status";
    return decodeContainer(datagram.subspan(Header::bytes), header.command, message);
}

Fault decodeContainer(Bytes container, std::uint16_t command, LogMessage& message)
{
    if (container.size() < Container::bytes)
        return "shorter than a container's head";
    const std::uint8_t* at = container.data();
    if (load16(at + Container::size) != container.size())
        return "the container's size differs from the length";
    const std::uint16_t flags = load16(at + Container::flags);
    if ((flags & ~Container::allFlags) != 0)
        return "unknown container flags";
    const std::uint64_t sequence = load64(at + Container::sequence);
    if (sequence != load64(at + Container::sequenceAgain))
        return "the two sequence numbers differ";

    RawElement elements[elementTypes];
    if (const Fault fault = readElements(container.subspan(Container::bytes), elements))
        return fault;

    message = {};
    message.command = command;
    message.sequence = sequence;
    message.incomplete = (flags & Container::incomplete) != 0;
    message.textCut = (flags & Container::textCut) != 0;
    message.hasRecords = (flags & Container::hasRecords) != 0;
    message.time = number(elements[Element::time]);
    message.level = number(elements[Element::level]).value_or(0);
    message.process = number(elements[Element::process]);
    message.thread = number(elements[Element::thread]);
    message.codePage = number(elements[Element::codePage]);
    message.records = elements[Element::records].data.size() / Element::record;

    const std::uint64_t codePage = message.codePage.value_or(65001);
    message.logger = narrowToUtf8(asText(elements[Element::logger].data), codePage);
    message.group = narrowToUtf8(asText(elements[Element::group].data), codePage);
    message.location = narrowToUtf8(asText(elements[Element::location].data), codePage);
    const RawElement& text = elements[Element::text];
    if (text.wide) {
        // A cut in the middle of a character leaves an odd byte, or the first half of a pair.
        std::size_t size = text.data.size();
        if (message.textCut) {
            size -= size % 2;
            if (size >= 2 && (text.data[size - 1] & 0xFC) == 0xD8)
                size -= 2;
        }
        message.text = utf16ToUtf8(text.data.data(), size);
    } else {
        const std::string_view bytes = asText(text.data);
        message.text =
            narrowToUtf8(message.textCut && codePage == 65001 ? withoutCutCharacter(bytes) : bytes, codePage);
    }
    return nullptr;
}

Fault decodeFollowed(Bytes datagram, std::uint64_t& number, LogMessage& message)
{
    PacketHeader header;
    if (const Fault fault = decodeHeader(datagram, Followed::bytes + maxPayload, header))
        return fault;
    if (header.magic != Header::messageMagic || header.command != cmdFollowed)
        return "not a followed message";
    const Bytes payload = datagram.subspan(Header::bytes);
    if (payload.size() < Followed::bytes)
        return "shorter than a followed message's head";
    number = load64(payload.data() + Followed::number);
    return decodeContainer(payload.subspan(Followed::bytes), load16(payload.data() + Followed::command), message);
}

} // namespace zuLogSvc
