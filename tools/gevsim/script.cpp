// Reading of the command language. Each line becomes an action, which is then applied to the camera.
#include "tools/gevsim/script.h"

#include "tools/gevsim/camera.h"
#include "tools/gevsim/wire.h"

#include <boost/crc.hpp>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <functional>
#include <limits>
#include <map>
#include <sstream>

namespace gevsim {

namespace {

using Milliseconds = std::chrono::milliseconds;
using Action = std::function<std::string(Camera&)>;

std::string lower(std::string text)
{
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

/// Decimal, or hexadecimal with 0x.
bool parseNumber(const std::string& text, std::uint64_t& value)
{
    const bool isHex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    const char* begin = text.data() + (isHex ? 2 : 0);
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(begin, end, value, isHex ? 16 : 10);
    return result.ec == std::errc() && result.ptr == end && begin != end;
}

/// The words behind the verb, taken one after the other.
class Words {
public:
    explicit Words(const std::string& line)
    {
        std::istringstream stream(line.substr(0, line.find('#')));
        for (std::string word; stream >> word;)
            words_.push_back(word);
    }

    bool empty() const { return next_ == words_.size(); }
    const std::string& peek() const { return words_[next_]; }
    std::string take() { return words_[next_++]; }
    std::string need(const std::string& what)
    {
        if (empty())
            throw ScriptError(words_.front() + " needs " + what + "; type help");
        return take();
    }
    std::uint64_t number(const std::string& what, std::uint64_t most)
    {
        const std::string word = need(what);
        std::uint64_t value = 0;
        if (!parseNumber(word, value) || value > most)
            throw ScriptError("'" + word + "' is no " + what + " from 0 to " + std::to_string(most));
        return value;
    }
    Milliseconds milliseconds()
    {
        return Milliseconds(static_cast<std::int64_t>(number("time in milliseconds", 1000u * 86400)));
    }
    void end() const
    {
        if (!empty())
            throw ScriptError("'" + peek() + "' is not understood behind " + words_.front());
    }

private:
    std::vector<std::string> words_;
    std::size_t next_ = 0;
};

constexpr std::uint64_t most16 = 0xFFFF;
constexpr std::uint64_t most32 = 0xFFFFFFFF;

bool yes(const std::string& word)
{
    if (word == "yes" || word == "on")
        return true;
    if (word == "no" || word == "off")
        return false;
    throw ScriptError("'" + word + "' is neither yes nor no");
}

Fault::PendingForm pendingForm(const std::string& word)
{
    static const std::map<std::string, Fault::PendingForm> forms = {
        {"good", Fault::PendingForm::good},
        {"wrong-id", Fault::PendingForm::wrongId},
        {"short-length", Fault::PendingForm::shortLength},
        {"error-status", Fault::PendingForm::errorStatus},
        {"truncated", Fault::PendingForm::truncated},
    };
    const auto found = forms.find(word);
    if (found == forms.end())
        throw ScriptError(
            "'" + word +
            "' is no form of PENDING_ACK; there are good, wrong-id, short-length, error-status, truncated");
    return found->second;
}

std::uint64_t optionNumber(const std::string& key, const std::string& text, std::uint64_t most)
{
    std::uint64_t value = 0;
    if (!parseNumber(text, value) || value > most)
        throw ScriptError("'" + text + "' is no number from 0 to " + std::to_string(most) + " for " + key);
    return value;
}

void applyOption(Fault& fault, const std::string& key, const std::string& value)
{
    const bool pending = fault.kind == Fault::Kind::pendingAck;
    if (pending && key == "times")
        fault.times = static_cast<std::uint32_t>(optionNumber(key, value, 1000));
    else if (pending && key == "every")
        fault.interval = Milliseconds(optionNumber(key, value, 1000u * 86400));
    else if (pending && key == "form")
        fault.form = pendingForm(value);
    else if (pending && key == "answer")
        fault.answer = yes(value);
    else if (fault.kind == Fault::Kind::reorder && key == "wait")
        fault.time = Milliseconds(optionNumber(key, value, 1000u * 86400));
    else
        throw ScriptError("'" + key + "=' is not understood here");
}

/// What every fault may have behind its own words: a count or "always", a command, and key=value.
Fault refine(Fault fault, Words& words)
{
    while (!words.empty()) {
        const std::string word = lower(words.take());
        const std::size_t equals = word.find('=');
        std::uint64_t count = 0;
        if (equals != std::string::npos) {
            applyOption(fault, word.substr(0, equals), word.substr(equals + 1));
        } else if (word == "always") {
            fault.count = Fault::always;
        } else if (word == "any") {
            fault.command.reset();
        } else if (parseNumber(word, count) && word.compare(0, 2, "0x") != 0) {
            if (count == 0 || count > most32)
                throw ScriptError("'" + word + "' is no count; say 1 or more, or always");
            fault.count = static_cast<std::uint32_t>(count);
        } else if (const auto command = commandByName(word)) {
            fault.command = command;
        } else {
            throw ScriptError("'" + word +
                              "' is neither a count nor a command; commands are readreg, writereg, readmem, "
                              "writemem, discovery, or a code such as 0x80");
        }
    }
    return fault;
}

std::uint16_t statusCode(Words& words)
{
    static const std::map<std::string, Status> names = {
        {"not-implemented", Status::notImplemented},
        {"invalid-parameter", Status::invalidParameter},
        {"invalid-address", Status::invalidAddress},
        {"write-protect", Status::writeProtect},
        {"bad-alignment", Status::badAlignment},
        {"access-denied", Status::accessDenied},
        {"busy", Status::busy},
        {"local-problem", Status::localProblem},
        {"msg-mismatch", Status::messageMismatch},
        {"error", Status::error},
    };
    if (!words.empty()) {
        const auto found = names.find(lower(words.peek()));
        if (found != names.end()) {
            words.take();
            return static_cast<std::uint16_t>(found->second);
        }
    }
    return static_cast<std::uint16_t>(words.number("status", most16));
}

std::vector<std::uint8_t> hexBytes(const std::string& text)
{
    if (text.size() % 2 != 0 || text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        throw ScriptError("'" + text + "' is no row of bytes in hexadecimal");
    std::vector<std::uint8_t> bytes;
    for (std::size_t i = 0; i < text.size(); i += 2)
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    return bytes;
}

/// The fault that a verb stands for, with its own words.
std::optional<Fault> faultOf(const std::string& verb, Words& words)
{
    constexpr std::uint64_t mostBytes = 65000;
    if (verb == "none")
        return Fault::none();
    if (verb == "drop")
        return Fault::drop();
    if (verb == "drop-ack")
        return Fault::dropAck();
    if (verb == "delay")
        return Fault::delay(words.milliseconds());
    if (verb == "duplicate")
        return Fault::duplicate();
    if (verb == "reorder")
        return Fault::reorder(2);
    if (verb == "hold")
        return Fault::hold();
    if (verb == "status")
        return Fault::status(statusCode(words));
    if (verb == "busy")
        return Fault::busy();
    if (verb == "denied")
        return Fault::denied();
    if (verb == "wrong-id")
        return Fault::wrongId();
    if (verb == "ack-code")
        return Fault::ackCode(static_cast<std::uint16_t>(words.number("code", most16)));
    if (verb == "even")
        return Fault::evenCode();
    if (verb == "foreign")
        return Fault::foreignCode();
    if (verb == "pending")
        return Fault::pendingAck(Milliseconds(static_cast<std::int64_t>(words.number("time in milliseconds", most16))));
    if (verb == "short")
        return Fault::shorter(static_cast<std::uint32_t>(words.number("number of bytes", mostBytes)));
    if (verb == "long")
        return Fault::longer(static_cast<std::uint32_t>(words.number("number of bytes", mostBytes)));
    if (verb == "truncate")
        return Fault::truncate(static_cast<std::uint32_t>(words.number("number of bytes", mostBytes)));
    if (verb == "raw")
        return Fault::raw(hexBytes(words.need("bytes in hexadecimal")));
    return std::nullopt;
}

/// "3" or "3-9", "3-" for all from 3 on.
void range(const std::string& key, const std::string& text, std::uint64_t& from, std::uint64_t& to)
{
    const std::size_t dash = text.find('-');
    const std::uint64_t most = StreamFault::last;
    from = optionNumber(key, text.substr(0, dash), most);
    to = dash == std::string::npos ? from
         : dash + 1 == text.size() ? most
                                   : optionNumber(key, text.substr(dash + 1), most);
    if (to < from)
        throw ScriptError("'" + text + "' is no range for " + key);
}

template <typename Value>
Value named(const std::string& key, const std::string& word, std::initializer_list<std::pair<const char*, Value>> names)
{
    std::string all;
    for (const auto& [name, value] : names) {
        if (word == name)
            return value;
        all += (all.empty() ? "" : ", ") + std::string(name);
    }
    throw ScriptError("'" + word + "' is no " + key + "; there are " + all);
}

double percentage(const std::string& word)
{
    double percent = 0;
    std::istringstream stream(word);
    std::string rest;
    const bool isNumber = static_cast<bool>(stream >> percent);
    stream >> rest;
    if (!isNumber || !(rest.empty() || rest == "%") || !(percent >= 0 && percent <= 100))
        throw ScriptError("'" + word + "' is no percentage from 0 to 100");
    return percent;
}

void applyOption(StreamFault& fault, const std::string& key, const std::string& value)
{
    using Of = StreamFault::Of;
    using Form = StreamFault::Form;
    if (key == "packet")
        range(key, value, fault.fromPacket, fault.toPacket);
    else if (key == "frame")
        range(key, value, fault.fromFrame, fault.toFrame);
    else if (key == "every")
        fault.every = std::max(1u, static_cast<std::uint32_t>(optionNumber(key, value, most32)));
    else if (key == "rate")
        fault.probability = percentage(value) / 100;
    else if (key == "seed")
        fault.seed = optionNumber(key, value, std::numeric_limits<std::uint64_t>::max());
    else if (key == "of" && fault.kind != StreamFault::Kind::refuse)
        fault.of = named<Of>(
            key, value, {{"first", Of::first}, {"resends", Of::resends}, {"requests", Of::requests}, {"all", Of::all}});
    else if (key == "by" && (fault.kind == StreamFault::Kind::repeat || fault.kind == StreamFault::Kind::reorder))
        fault.by = std::max(1u, static_cast<std::uint32_t>(optionNumber(key, value, 1000)));
    else if (key == "form" && fault.kind == StreamFault::Kind::corrupt)
        fault.form = named<Form>(key, value,
                                 {{"payload", Form::payload},
                                  {"id", Form::id},
                                  {"block", Form::block},
                                  {"format", Form::format},
                                  {"status", Form::status},
                                  {"short", Form::shorter},
                                  {"long", Form::longer}});
    else
        throw ScriptError("'" + key + "=' is not understood here");
}

/// A fault of the stream: its kind, and in any order a count or "always", the kind of packets, and key=value.
StreamFault streamFault(Words& words)
{
    using Kind = StreamFault::Kind;
    const std::string verb = lower(words.need("a fault"));
    const auto kind = named<Kind>("fault of the stream", verb,
                                  {{"lose", Kind::lose},
                                   {"repeat", Kind::repeat},
                                   {"reorder", Kind::reorder},
                                   {"delay", Kind::delay},
                                   {"corrupt", Kind::corrupt},
                                   {"refuse", Kind::refuse},
                                   {"stop", Kind::stop},
                                   {"restart", Kind::restart}});
    StreamFault fault = kind == Kind::refuse ? StreamFault::refuse() : StreamFault::make(kind);
    if (kind == Kind::delay)
        fault.time = words.milliseconds();
    bool counted = kind == Kind::refuse, goesOn = false, timed = false;
    while (!words.empty()) {
        const std::string word = lower(words.take());
        const std::size_t equals = word.find('=');
        std::uint64_t count = 0;
        if (equals != std::string::npos) {
            const std::string key = word.substr(0, equals);
            applyOption(fault, key, word.substr(equals + 1));
            goesOn = goesOn || key == "rate" || key == "every";
        } else if (word == "always") {
            fault.count = StreamFault::always;
            counted = true;
        } else if (word == "leader" || word == "trailer" || word == "data") {
            fault.packets = word == "leader"    ? StreamFault::Packets::leader
                            : word == "trailer" ? StreamFault::Packets::trailer
                                                : StreamFault::Packets::data;
        } else if (parseNumber(word, count) && kind == Kind::restart && !timed && count <= 1000u * 86400) {
            fault.time = Milliseconds(static_cast<std::int64_t>(count));
            timed = true;
        } else if (parseNumber(word, count) && kind != Kind::restart && kind != Kind::stop && count != 0 &&
                   count <= most32) {
            fault.count = static_cast<std::uint32_t>(count);
            counted = true;
        } else {
            throw ScriptError("'" + word +
                              "' is neither a count nor leader, trailer, data or always, nor packet=, frame=, every=, "
                              "rate=, seed=, of=, by= or form=");
        }
    }
    if (!counted && goesOn)
        fault.count = StreamFault::always;
    return fault;
}

std::string streamInformation(Camera& camera)
{
    const StreamCounters counters = camera.streamCounters();
    const auto part = [](const char* name, std::uint64_t value) { return name + std::to_string(value); };
    std::string text = std::string("stream ") + (camera.streamOpen() ? "open" : "closed");
    text += part("\nframes ", counters.frames) + part(", packets ", counters.packets) +
            part(", bytes ", counters.bytes) + part(", lost ", counters.lost) + part(", repeated ", counters.repeated) +
            part(", reordered ", counters.reordered) + part(", delayed ", counters.delayed) +
            part(", corrupted ", counters.corrupted) + part(", send errors ", counters.sendErrors);
    text += part("\nrequests ", counters.requests) + part(", lost ", counters.requestsLost) +
            part(", packets sent again ", counters.resent) + part(", lost ", counters.resendsLost) +
            part(", not available ", counters.unavailable);
    text += part("\ntest packets ", counters.testPackets) + part(", triggers missed ", counters.triggersMissed);
    for (const StreamFault& fault : camera.streamFaults())
        text += "\nstream fault " + fault.text();
    return text;
}

/// A line for each of the last frames: what stands in it, a check sum of its payload, and what of it can't have come.
std::string frameList(Camera& camera, std::size_t most)
{
    const std::vector<SentFrame> frames = camera.sentFrames();
    std::string text;
    for (std::size_t i = frames.size() - std::min(most, frames.size()); i < frames.size(); ++i) {
        const SentFrame& frame = frames[i];
        const Picture& picture = frame.picture;
        const std::vector<std::uint8_t> payload = payloadOf(frame);
        boost::crc_32_type crc;
        crc.process_bytes(payload.data(), payload.size());
        char line[256];
        std::snprintf(
            line, sizeof line, "picture %llu block %llu %ux%u+%u+%u %s time %llu payload %llu crc 0x%08X packets %u",
            static_cast<unsigned long long>(picture.number), static_cast<unsigned long long>(frame.block),
            static_cast<unsigned>(picture.width), static_cast<unsigned>(picture.height),
            static_cast<unsigned>(picture.offsetX), static_cast<unsigned>(picture.offsetY), pixel::name(picture.format),
            static_cast<unsigned long long>(frame.timestamp), static_cast<unsigned long long>(frame.payloadSize),
            static_cast<unsigned>(crc.checksum()), static_cast<unsigned>(frame.packets));
        text += (text.empty() ? "" : "\n") + std::string(line);
        if (!frame.ended)
            text += " being sent";
        // Runs of packets.
        for (std::size_t at = 0; at < frame.missing.size();) {
            std::size_t end = at;
            while (end + 1 < frame.missing.size() && frame.missing[end + 1] == frame.missing[end] + 1)
                ++end;
            text += (at == 0 ? " missing " : ",") + std::to_string(frame.missing[at]);
            if (end > at)
                text += "-" + std::to_string(frame.missing[end]);
            at = end + 1;
        }
    }
    return text;
}

Action quiet(std::function<void(Camera&)> act)
{
    return [act = std::move(act)](Camera& camera) {
        act(camera);
        return std::string();
    };
}

std::string information(Camera& camera)
{
    const Control control = camera.control();
    const Counters counters = camera.counters();
    std::string text = "camera " + camera.endpoint().text() + "\ncontrol ";
    if (!control.held())
        text += "free";
    else
        text += std::string(control.exclusive() ? "exclusive" : "held") + (control.switchover() ? ", switchover" : "") +
                " by " + control.holder.text();
    text += "\ndatagrams received " + std::to_string(counters.received) + ", sent " + std::to_string(counters.sent) +
            ", lost " + std::to_string(counters.lost) + ", malformed " + std::to_string(counters.malformed) +
            ", held back " + std::to_string(camera.heldAnswers());
    for (const Fault& fault : camera.faults())
        text += "\nfault " + fault.text();
    return text;
}

Action lossAction(Words& words)
{
    const double percent = percentage(words.need("a percentage"));
    std::optional<std::uint64_t> seed;
    if (!words.empty()) {
        const std::string option = lower(words.take());
        if (option.compare(0, 5, "seed=") != 0)
            throw ScriptError("'" + option + "' is not understood behind the percentage; there is seed=NUMBER");
        seed = optionNumber("seed", option.substr(5), std::numeric_limits<std::uint64_t>::max());
    }
    return [percent, seed](Camera& camera) {
        const std::uint64_t used = seed.value_or(camera.seed());
        camera.setLoss(percent / 100, used);
        return percent > 0 ? "loss with seed=" + std::to_string(used) : std::string();
    };
}

std::optional<Action> stateAction(const std::string& verb, Words& words)
{
    if (verb == "silence") {
        if (!words.empty() && lower(words.peek()) == "always") {
            words.take();
            return quiet([](Camera& camera) { camera.silence(Milliseconds::max()); });
        }
        const Milliseconds time = words.milliseconds();
        return quiet([time](Camera& camera) { camera.silence(time); });
    }
    if (verb == "speak")
        return quiet([](Camera& camera) { camera.endSilence(); });
    if (verb == "power-cycle") {
        const Milliseconds off = words.empty() ? Milliseconds(0) : words.milliseconds();
        return quiet([off](Camera& camera) { camera.powerCycle(off); });
    }
    if (verb == "loss")
        return lossAction(words);
    if (verb == "clear")
        return quiet([](Camera& camera) { camera.clearFaults(); });
    if (verb == "release") {
        std::size_t most = std::numeric_limits<std::size_t>::max();
        if (!words.empty())
            most = static_cast<std::size_t>(words.number("count", most32));
        return [most](Camera& camera) { return "released " + std::to_string(camera.release(most)); };
    }
    return std::nullopt;
}

std::optional<Action> streamAction(const std::string& verb, Words& words)
{
    if (verb == "stream") {
        if (words.empty())
            return streamInformation;
        if (lower(words.peek()) == "next") {
            words.take();
            const std::uint64_t number = words.number("number", StreamFault::last);
            return quiet([number](Camera& camera) { camera.setNextPicture(number); });
        }
        const StreamFault fault = streamFault(words);
        return quiet([fault](Camera& camera) { camera.inject(fault); });
    }
    if (verb == "frames") {
        const std::size_t most = words.empty() ? 10 : static_cast<std::size_t>(words.number("count", most32));
        return [most](Camera& camera) { return frameList(camera, most); };
    }
    if (verb == "pulse")
        return quiet([](Camera& camera) { camera.pulseLine(); });
    return std::nullopt;
}

std::optional<Action> registerAction(const std::string& verb, Words& words)
{
    const auto registerAddress = [&words] {
        const auto address = static_cast<std::uint32_t>(words.number("address", most32));
        if (address % 4 != 0)
            throw ScriptError("the address of a register is a multiple of 4");
        return address;
    };
    if (verb == "read") {
        const std::uint32_t address = registerAddress();
        return [address](Camera& camera) { return hex(camera.readRegister(address), 8); };
    }
    if (verb == "write") {
        const std::uint32_t address = registerAddress();
        const auto value = static_cast<std::uint32_t>(words.number("value", most32));
        return quiet([address, value](Camera& camera) { camera.writeRegister(address, value); });
    }
    if (verb == "info")
        return information;
    if (verb == "help")
        return [](Camera&) { return scriptHelp(); };
    return std::nullopt;
}

/// Empty for a line that asks for nothing.
Action parse(const std::string& line)
{
    Words words(line);
    if (words.empty())
        return {};
    const std::string verb = lower(words.take());
    if (const auto fault = faultOf(verb, words)) {
        const Fault refined = refine(*fault, words);
        return quiet([refined](Camera& camera) { camera.inject(refined); });
    }
    auto action = stateAction(verb, words);
    if (!action)
        action = streamAction(verb, words);
    if (!action)
        action = registerAction(verb, words);
    if (!action)
        throw ScriptError("'" + verb + "' is no command of the camera; type help");
    words.end();
    return *action;
}

} // namespace

std::string runScriptLine(Camera& camera, const std::string& line)
{
    const Action action = parse(line);
    try {
        return action ? action(camera) : std::string();
    } catch (const std::out_of_range& error) {
        throw ScriptError(error.what());
    }
}

void checkScriptLine(const std::string& line) { parse(line); }

} // namespace gevsim
