// What comes to the log service's two ports, and to a viewer: the first byte says where, the rest is the datagram.
#include "tools/zuLogSvc/command_port.h"
#include "tools/zuLogSvc/follow_filter.h"
#include "tools/zuLogSvc/line_format.h"
#include "tools/zuLogSvc/packet_decoder.h"
#include "tools/zuLogSvc/protocol.h"
#include "tools/zuLogSvc/sequence_tracker.h"
#include "tools/zuLogSvc/utf8.h"

#include <cstdlib>

using namespace zuLogSvc;

namespace {

void check(bool holds)
{
    if (!holds)
        std::abort();
}

void checkLines(const LogMessage& message)
{
    for (const std::string* text : {&message.text, &message.logger, &message.group, &message.location})
        check(sanitizeUtf8(*text) == *text);
    LineOptions options;
    options.process = options.thread = options.location = true;
    for (const Format format : {Format::line, Format::json}) {
        options.format = format;
        const std::string line = formatLine(message, 0, options);
        for (const char c : line)
            check(static_cast<unsigned char>(c) >= 0x20 || c == '\t');
    }
    const FollowFilter filter{0x07, {"Conn", "*.0"}, {"IP*"}};
    filter.accepts(message);
}

void commandPort(Bytes datagram)
{
    static const auto settings = [] {
        std::vector<TextError> errors;
        return std::make_shared<const Settings>(parseSettings(
            R"({"rules": [{"module": "G*V?*", "process": "*a*b", "destination": "cerr", "level": "warn"}]})", errors));
    }();
    Followers followers;
    CommandPort port(settings, followers, systemClock(), [](std::uint32_t, const std::string& text) {
        LogMessage note;
        note.text = text;
        check(encodeContainer(note).size() <= maxPayload);
    });
    const Packet answer = port.handle(datagram, zuPlatform::loopbackAt(1));
    port.tick(true);
    if (answer.empty())
        return;
    CommandPacket packet;
    check(decodeAcknowledge(answer, packet) == nullptr);
    check(packet.header.id == load16(datagram.data() + Header::id));
}

void messagePort(Bytes datagram)
{
    LogMessage message;
    if (decodeMessage(datagram, message) != nullptr)
        return;
    check(message.command == cmdMessage || message.command == cmdMessageWithRecords);
    checkLines(message);
    SequenceTracker tracker([](const SequenceGap& gap) { check(gap.first <= gap.last && !describe(gap).empty()); });
    tracker.seen({1, 2, message.command, message.process.value_or(0)}, 1, 0);
    tracker.seen({1, 2, message.command, message.process.value_or(0)}, message.sequence, 0);
    tracker.seen({1, 2, message.command, message.process.value_or(0)}, message.sequence / 2, 0);
    tracker.tell(0, true);
    check(!tracker.waiting());
}

void viewer(Bytes datagram)
{
    CommandPacket packet;
    decodeAcknowledge(datagram, packet);
    std::uint64_t number = 0;
    LogMessage message;
    if (decodeFollowed(datagram, number, message) == nullptr)
        checkLines(message);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    const Bytes datagram(data + 1, size - 1);
    switch (data[0] % 3) {
    case 0:
        commandPort(datagram);
        break;
    case 1:
        messagePort(datagram);
        break;
    default:
        viewer(datagram);
        break;
    }
    return 0;
}
