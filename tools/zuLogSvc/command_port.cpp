// Requests of clients and viewers.
#include "tools/zuLogSvc/command_port.h"

#include "tools/zuLogSvc/protocol.h"
#include "tools/zuLogSvc/utf8.h"

#include <nlohmann/json.hpp>

namespace zuLogSvc {
namespace {

constexpr std::uint32_t levelInfo = 0x08;
constexpr std::uint32_t levelWarn = 0x04;

/// The request's object; a discarded value if it is none. Clients may write names that are no UTF-8.
nlohmann::json parseRequest(std::string_view payload)
{
    const std::string text = sanitizeUtf8(payload);
    nlohmann::json json = nlohmann::json::parse(text, nullptr, false);
    return json.is_object() ? json : nlohmann::json(nlohmann::json::value_t::discarded);
}

std::string member(const nlohmann::json& object, const char* key)
{
    const auto value = object.find(key);
    return value != object.end() && value->is_string() ? value->get<std::string>() : std::string();
}

} // namespace

CommandPort::CommandPort(std::shared_ptr<const Settings> settings, Followers& followers, const Clock& clock, Note note)
    : settings_(std::move(settings)), followers_(followers), clock_(clock), note_(std::move(note))
{
}

void CommandPort::setSettings(std::shared_ptr<const Settings> settings)
{
    const std::lock_guard lock(mutex_);
    settings_ = std::move(settings);
}

std::shared_ptr<const Settings> CommandPort::settings() const
{
    const std::lock_guard lock(mutex_);
    return settings_;
}

Packet CommandPort::handle(Bytes datagram, const zuPlatform::SocketAddress& from)
{
    CommandPacket packet;
    if (const Fault fault = decodeCommand(datagram, packet)) {
        countBad(fault, datagram.size(), from);
        return {};
    }
    switch (packet.header.command) {
    case cmdGetConfiguration: {
        Packet answer = getConfiguration(packet);
        return answer.empty() ? refuse(packet, statusBadPayload, "no JSON object", from) : answer;
    }
    case cmdSetDescription: {
        Packet answer = setDescription(packet);
        return answer.empty() ? refuse(packet, statusBadPayload, "no JSON object", from) : answer;
    }
    case cmdFollow:
        return follow(packet, from);
    case cmdUnfollow:
        followers_.unfollow(from);
        return encodeAcknowledge(packet.header, 0, "");
    default:
        return refuse(packet, statusUnknownCommand, "unknown command", from);
    }
}

Packet CommandPort::getConfiguration(const CommandPacket& packet)
{
    const auto request = parseRequest(packet.payload);
    if (request.is_discarded())
        return {};
    const std::string module = member(request, "module");
    const std::string process = member(request, "process");
    const auto current = settings();
    const Rule* rule = findRule(*current, module, process);
    noteRequest("module \"" + module + "\" of process \"" + process + "\" asks for its settings: " +
                (rule == nullptr ? std::string("no rule, so ")
                                 : "rule " + std::to_string(rule - current->rules.data()) + ", ") +
                "destination " + (rule == nullptr ? "logsvc" : rule->destination) + ", level " +
                (rule == nullptr ? "info" : rule->level));
    return encodeAcknowledge(packet.header, 0, configurationReply(rule));
}

Packet CommandPort::setDescription(const CommandPacket& packet)
{
    const auto request = parseRequest(packet.payload);
    if (request.is_discarded())
        return {};
    noteRequest("module \"" + member(request, "module") + "\": " + member(request, "description"));
    return encodeAcknowledge(packet.header, 0, "");
}

Packet CommandPort::follow(const CommandPacket& packet, const zuPlatform::SocketAddress& from)
{
    auto filter = filterFromJson(packet.payload);
    if (!filter)
        return refuse(packet, statusBadPayload, "no filter", from);
    if (!settings()->follow) {
        followers_.unfollow(from);
        return encodeAcknowledge(packet.header, statusRefused, "its settings do not let viewers follow");
    }
    switch (followers_.follow(from, std::move(*filter), clock_.steadyMilliseconds())) {
    case Followers::Answer::added:
    case Followers::Answer::renewed:
        return encodeAcknowledge(packet.header, 0, "");
    case Followers::Answer::full:
        return encodeAcknowledge(packet.header, statusRefused, "it has as many viewers as it takes");
    case Followers::Answer::notLocal:
        break;
    }
    return refuse(packet, statusRefused, "a viewer on another machine", from);
}

Packet CommandPort::refuse(const CommandPacket& packet, std::uint16_t status, const char* why,
                           const zuPlatform::SocketAddress& from)
{
    countBad(why, packet.payload.size() + Header::bytes, from);
    return encodeAcknowledge(packet.header, status, why);
}

void CommandPort::countBad(const char* why, std::size_t size, const zuPlatform::SocketAddress& from)
{
    bad_.add(1, describeBad(why, size, from));
}

void CommandPort::noteRequest(const std::string& text)
{
    if (requests_.pass(clock_.steadyMilliseconds()))
        note_(levelInfo, text);
}

void CommandPort::tick(bool final)
{
    const std::uint64_t now = clock_.steadyMilliseconds();
    if (const auto due = bad_.due(now, final))
        note_(levelWarn, std::to_string(due->count) + " bad datagrams at the command port, the latest " + due->latest);
    if (const std::uint64_t held = requests_.takeHeld(now, final))
        note_(levelInfo, std::to_string(held) + " more requests answered");
}

std::string describeBad(const char* why, std::size_t size, const zuPlatform::SocketAddress& from)
{
    char text[32] = "";
    zuPlatform::formatSocketAddress(from, text, sizeof text);
    return std::string("from ") + text + ", " + std::to_string(size) + " bytes: " + why;
}

} // namespace zuLogSvc
