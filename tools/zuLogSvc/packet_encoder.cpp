// Encoder of the log service's packets.
#include "tools/zuLogSvc/packet_encoder.h"

#include "tools/zuLogSvc/protocol.h"

#include <algorithm>
#include <stdexcept>

namespace zuLogSvc {
namespace {

Packet packet(std::uint16_t magic, std::uint16_t flags, std::uint16_t command, std::uint16_t status, std::uint16_t id,
              std::size_t length)
{
    Packet out(Header::bytes + length);
    store16(out.data() + Header::magic, magic);
    store16(out.data() + Header::flags, flags);
    store16(out.data() + Header::command, command);
    store16(out.data() + Header::status, status);
    store16(out.data() + Header::id, id);
    store16(out.data() + Header::length, static_cast<std::uint16_t>(length));
    return out;
}

void checkPayload(std::size_t size)
{
    if (size > maxPayload)
        throw std::length_error("The payload does not fit a packet");
}

/// Adds elements until one does not fit.
class ContainerBuilder {
public:
    ContainerBuilder() : bytes_(Container::bytes) { bytes_.reserve(maxPayload); }

    void add(std::uint8_t type, std::string_view data)
    {
        if (stopped_)
            return;
        if (room() < Element::bytes)
            return stop();
        if (data.size() > room() - Element::bytes) {
            if (type != Element::text)
                return stop();
            data = data.substr(0, room() - Element::bytes);
            flags_ |= Container::textCut;
        }
        std::uint8_t head[Element::bytes] = {};
        store16(head + Element::length, static_cast<std::uint16_t>(data.size()));
        head[Element::type] = type;
        bytes_.insert(bytes_.end(), head, head + Element::bytes);
        bytes_.insert(bytes_.end(), data.begin(), data.end());
    }

    void add(std::uint8_t type, const std::optional<std::uint64_t>& value)
    {
        if (!value)
            return;
        std::uint8_t data[Element::number];
        store64(data, *value);
        add(type, std::string_view(reinterpret_cast<const char*>(data), Element::number));
    }

    Packet finish(std::uint64_t sequence, std::uint16_t moreFlags)
    {
        store16(bytes_.data() + Container::size, static_cast<std::uint16_t>(bytes_.size()));
        store16(bytes_.data() + Container::flags, static_cast<std::uint16_t>(flags_ | moreFlags));
        store64(bytes_.data() + Container::sequence, sequence);
        store64(bytes_.data() + Container::sequenceAgain, sequence);
        return std::move(bytes_);
    }

private:
    std::size_t room() const { return maxPayload - bytes_.size(); }
    void stop()
    {
        flags_ |= Container::incomplete;
        stopped_ = true;
    }

    Packet bytes_;
    std::uint16_t flags_ = 0;
    bool stopped_ = false;
};

} // namespace

Packet encodeCommand(std::uint16_t command, std::uint16_t id, std::string_view payload)
{
    checkPayload(payload.size());
    Packet out = packet(Header::commandMagic, 0, command, 0, id, payload.size());
    std::copy(payload.begin(), payload.end(), out.begin() + Header::bytes);
    return out;
}

Packet encodeAcknowledge(const PacketHeader& request, std::uint16_t status, std::string_view payload)
{
    checkPayload(payload.size());
    const auto command = static_cast<std::uint16_t>(request.command | acknowledgeBit);
    Packet out = packet(Header::commandMagic, 0, command, status, request.id, payload.size());
    std::copy(payload.begin(), payload.end(), out.begin() + Header::bytes);
    return out;
}

Packet encodeContainer(const LogMessage& message, std::string_view records)
{
    ContainerBuilder builder;
    if (!records.empty())
        builder.add(Element::records, records);
    builder.add(Element::time, message.time);
    builder.add(Element::logger, message.logger);
    builder.add(Element::level, std::optional<std::uint64_t>(message.level));
    builder.add(Element::thread, message.thread);
    builder.add(Element::process, message.process);
    builder.add(Element::group, message.group);
    builder.add(Element::codePage, message.codePage);
    builder.add(Element::text, message.text);
    builder.add(Element::location, message.location);
    return builder.finish(message.sequence, records.empty() ? std::uint16_t{0} : Container::hasRecords);
}

Packet encodeMessage(std::uint16_t command, std::uint16_t id, Bytes container)
{
    checkPayload(container.size());
    Packet out = packet(Header::messageMagic, Header::messageFlags, command, 0, id, container.size());
    std::copy(container.begin(), container.end(), out.begin() + Header::bytes);
    return out;
}

Packet encodeFollowed(std::uint64_t number, std::uint16_t command, Bytes container)
{
    checkPayload(container.size());
    Packet out =
        packet(Header::messageMagic, Header::messageFlags, cmdFollowed, 0, 0, Followed::bytes + container.size());
    std::uint8_t* head = out.data() + Header::bytes;
    store64(head + Followed::number, number);
    store16(head + Followed::command, command);
    std::copy(container.begin(), container.end(), out.begin() + Header::bytes + Followed::bytes);
    return out;
}

Packet encodeFollowEnds() { return packet(Header::messageMagic, Header::messageFlags, cmdFollowEnds, 0, 0, 0); }

} // namespace zuLogSvc
