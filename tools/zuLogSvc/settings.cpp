// Reads the settings file and answers from it. Stateless; any thread.
#include "tools/zuLogSvc/settings.h"

#include "tools/zuLogSvc/protocol.h"
#include "tools/zuLogSvc/utf8.h"
#include "tools/zuLogSvc/words.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <limits>
#include <sstream>

namespace zuLogSvc {
namespace {

using nlohmann::json;

constexpr std::size_t maxFileSize = 1024 * 1024;

/// One object of the file, with what is wrong in it told at its place.
class ObjectReader {
public:
    ObjectReader(const json& object, std::string pointer, const LineTable& lines, std::vector<TextError>& errors)
        : object_(object), pointer_(std::move(pointer)), lines_(lines), errors_(errors)
    {
    }

    void fail(const std::string& key, const std::string& reason)
    {
        const std::string pointer = key.empty() ? pointer_ : pointer_ + "/" + key;
        const auto line = lines_.find(pointer);
        errors_.push_back({line == lines_.end() ? 0 : line->second, 0, pointer, reason});
    }

    bool checkObject()
    {
        if (object_.is_object())
            return true;
        fail("", "must be an object");
        return false;
    }

    void allowOnly(std::initializer_list<std::string_view> keys)
    {
        for (const auto& [key, value] : object_.items())
            if (std::find(keys.begin(), keys.end(), key) == keys.end()) {
                std::string known;
                for (const std::string_view word : keys)
                    known += (known.empty() ? "" : ", ") + std::string(word);
                fail(escapePointer(key), "unknown key; known here: " + known);
            }
    }

    bool has(const char* key) const { return object_.contains(key); }
    const json& at(const char* key) const { return object_.at(key); }

    void need(const char* key)
    {
        if (!has(key))
            fail("", std::string("\"") + key + "\" is missing");
    }

    std::optional<std::string> text(const char* key)
    {
        if (!has(key))
            return std::nullopt;
        if (!at(key).is_string()) {
            fail(key, "must be a string");
            return std::nullopt;
        }
        return at(key).get<std::string>();
    }

    std::uint64_t number(const char* key, std::uint64_t low, std::uint64_t high, std::uint64_t otherwise)
    {
        if (!has(key))
            return otherwise;
        const json& value = at(key);
        if (value.is_number_unsigned() && value.get<std::uint64_t>() >= low && value.get<std::uint64_t>() <= high)
            return value.get<std::uint64_t>();
        fail(key, "must be a whole number from " + std::to_string(low) + " to " + std::to_string(high));
        return otherwise;
    }

    std::uint64_t size(const char* key, std::uint64_t low, std::uint64_t high, std::uint64_t otherwise)
    {
        if (!has(key))
            return otherwise;
        std::optional<std::uint64_t> bytes;
        if (at(key).is_number_unsigned())
            bytes = at(key).get<std::uint64_t>();
        else if (at(key).is_string())
            bytes = parseSize(at(key).get<std::string>());
        if (bytes && *bytes >= low && *bytes <= high)
            return *bytes;
        fail(key, "must be a size such as 65536, \"64k\" or \"10M\", from " + std::to_string(low) + " to " +
                      std::to_string(high) + " bytes");
        return otherwise;
    }

private:
    const json& object_;
    std::string pointer_;
    const LineTable& lines_;
    std::vector<TextError>& errors_;
};

Rule readRule(ObjectReader& reader)
{
    Rule rule;
    reader.allowOnly({"module", "process", "destination", "level", "file", "sockaddr", "thread_id"});
    rule.module = reader.text("module").value_or("*");
    rule.process = reader.text("process").value_or("*");
    reader.need("destination");
    if (const auto word = reader.text("destination")) {
        rule.destination = *word;
        if (!isDestination(*word))
            reader.fail("destination", "unknown destination \"" + *word +
                                           "\"; known: none, file, cout, cerr, trace, console, evtlog, logsvc");
    }
    reader.need("level");
    if (const auto word = reader.text("level")) {
        rule.level = *word;
        if (!levelMask(*word))
            reader.fail("level", "unknown level \"" + *word +
                                     "\"; known, in lower case: none, fatal, err, error, warn, warning, info, trace, "
                                     "debug, all, and hexadecimal masks such as 0x0f");
    }
    rule.file = reader.text("file");
    if (rule.file && !std::filesystem::path(*rule.file).is_absolute())
        reader.fail("file", "must be an absolute path, as each client has a working directory of its own");
    if (rule.destination == "file" && !reader.has("file"))
        reader.fail("", "\"file\" is missing; the destination \"file\" needs it");
    rule.sockaddr = reader.text("sockaddr");
    if (rule.sockaddr && !rule.sockaddr->empty() && !isSocketAddress(*rule.sockaddr))
        reader.fail("sockaddr", "must be an IPv4 address, a colon and a port from 1 to 65535, or empty");
    if (reader.has("thread_id")) {
        if (reader.at("thread_id").is_boolean())
            rule.threadId = reader.at("thread_id").get<bool>() ? "on" : "off";
        else if (reader.at("thread_id").is_string() && booleanWord(reader.at("thread_id").get<std::string>()))
            rule.threadId = reader.at("thread_id").get<std::string>();
        else
            reader.fail("thread_id", "must be true or false, or one of the words on, off, true, false, enabled, "
                                     "disabled, 1, 0");
    }
    if (configurationReply(&rule).size() > maxPayload)
        reader.fail("", "the reply made of this rule has more than " + std::to_string(maxPayload) + " bytes");
    return rule;
}

OutputSettings readOutput(ObjectReader& reader)
{
    OutputSettings output;
    reader.allowOnly({"type", "format", "show", "path", "rotate_size", "rotate_age", "keep"});
    reader.need("type");
    if (const auto type = reader.text("type")) {
        if (*type == "file")
            output.type = OutputSettings::Type::file;
        else if (*type != "stdout")
            reader.fail("type", "unknown type \"" + *type + "\"; known: stdout, file");
    }
    if (const auto format = reader.text("format")) {
        if (*format == "json")
            output.line.format = Format::json;
        else if (*format != "line")
            reader.fail("format", "unknown format \"" + *format + "\"; known: line, json");
    }
    if (reader.has("show")) {
        bool good = reader.at("show").is_array();
        for (const json& word : reader.at("show"))
            good = good && word.is_string() && parseShow(word.get<std::string>(), output.line);
        if (!good)
            reader.fail("show", "must be a list of \"process\", \"thread\", \"location\"");
    }
    if (output.type == OutputSettings::Type::standardOutput) {
        for (const char* key : {"path", "rotate_size", "rotate_age", "keep"})
            if (reader.has(key))
                reader.fail(key, "goes with the type \"file\" only");
        return output;
    }
    reader.need("path");
    if (const auto path = reader.text("path")) {
        output.path = *path;
        if (!std::filesystem::path(*path).is_absolute())
            reader.fail("path", "must be an absolute path");
    }
    output.rotateSize = reader.size("rotate_size", 4096, std::uint64_t{1} << 50, 0);
    if (const auto text = reader.text("rotate_age")) {
        const auto seconds = parseDuration(*text);
        if (seconds && *seconds >= 60 && *seconds <= std::uint64_t{3660} * 86400)
            output.rotateAge = *seconds;
        else
            reader.fail("rotate_age", "must be a time such as \"15m\", \"6h\" or \"1d\", at least one minute");
    }
    output.keep = static_cast<unsigned>(reader.number("keep", 1, 10000, 7));
    return output;
}

void checkOutputs(const Settings& settings, ObjectReader& root)
{
    for (std::size_t i = 0; i < settings.outputs.size(); ++i)
        for (std::size_t k = 0; k < i; ++k)
            if (settings.outputs[i].type == settings.outputs[k].type &&
                settings.outputs[i].path == settings.outputs[k].path)
                root.fail("outputs/" + std::to_string(i), "the same place as output " + std::to_string(k));
    for (std::size_t i = 0; i < settings.rules.size(); ++i)
        for (const OutputSettings& output : settings.outputs)
            if (output.type == OutputSettings::Type::file && settings.rules[i].file == output.path)
                root.fail("rules/" + std::to_string(i) + "/file",
                          "the service itself writes this file; give the clients another one");
}

template <typename Item, typename Read>
void readList(ObjectReader& root, const char* key, const LineTable& lines, std::vector<TextError>& errors,
              std::vector<Item>& items, Read read)
{
    if (!root.has(key))
        return;
    items.clear();
    const json& list = root.at(key);
    if (!list.is_array())
        return root.fail(key, "must be a list");
    for (std::size_t i = 0; i < list.size(); ++i) {
        ObjectReader reader(list[i], std::string("/") + key + "/" + std::to_string(i), lines, errors);
        if (reader.checkObject())
            items.push_back(read(reader));
    }
}

} // namespace

Settings parseSettings(std::string_view text, std::vector<TextError>& errors)
{
    Settings settings;
    LineTable lines;
    const std::size_t before = errors.size();
    locateValues(text, lines, errors);
    if (errors.size() != before)
        return settings;
    const json root = json::parse(text.begin(), text.end(), nullptr, false, true);
    ObjectReader reader(root, "", lines, errors);
    if (!reader.checkObject())
        return settings;
    reader.allowOnly({"rules", "outputs", "follow", "command_port", "message_port", "receive_buffer", "queue"});
    readList(reader, "rules", lines, errors, settings.rules, readRule);
    readList(reader, "outputs", lines, errors, settings.outputs, readOutput);
    if (reader.has("follow")) {
        if (reader.at("follow").is_boolean())
            settings.follow = reader.at("follow").get<bool>();
        else
            reader.fail("follow", "must be true or false");
    }
    settings.commandPort = static_cast<std::uint16_t>(reader.number("command_port", 0, 65535, 0));
    settings.messagePort = static_cast<std::uint16_t>(reader.number("message_port", 0, 65535, 0));
    if (settings.commandPort != 0 && settings.commandPort == settings.messagePort)
        reader.fail("message_port", "must differ from the command port");
    settings.receiveBuffer =
        reader.size("receive_buffer", 4096, std::numeric_limits<int>::max() / 2, settings.receiveBuffer);
    settings.queue = reader.size("queue", 64 * 1024, std::uint64_t{16} << 30, settings.queue);
    checkOutputs(settings, reader);
    std::stable_sort(errors.begin() + static_cast<std::ptrdiff_t>(before), errors.end(),
                     [](const TextError& a, const TextError& b) { return a.line < b.line; });
    return settings;
}

Settings loadSettings(const std::string& path, std::vector<TextError>& errors)
{
    std::ifstream file(path, std::ios::binary);
    std::string text(maxFileSize + 1, '\0');
    if (file)
        file.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (!file.is_open() || file.bad() || (file.fail() && !file.eof())) {
        errors.push_back({0, 0, "", "cannot be read"});
        return {};
    }
    text.resize(static_cast<std::size_t>(file.gcount()));
    if (text.size() > maxFileSize) {
        errors.push_back({0, 0, "", "larger than 1 MiB"});
        return {};
    }
    return parseSettings(text, errors);
}

std::string describe(const std::string& file, const TextError& error)
{
    std::ostringstream out;
    out << file;
    if (error.line != 0)
        out << ':' << error.line;
    if (error.column != 0)
        out << ':' << error.column;
    out << ": ";
    if (!error.pointer.empty())
        out << error.pointer << ": ";
    out << error.reason;
    return escapeControls(out.str()); // a key or value may hold anything
}

const Rule* findRule(const Settings& settings, std::string_view module, std::string_view process)
{
    for (const Rule& rule : settings.rules)
        if (matchesWildcard(rule.module, module) && matchesWildcard(rule.process, process))
            return &rule;
    return nullptr;
}

std::string configurationReply(const Rule* rule)
{
    static const Rule everythingHere;
    const Rule& used = rule == nullptr ? everythingHere : *rule;
    nlohmann::ordered_json reply;
    reply["destination"] = used.destination;
    reply["level"] = used.level;
    if (used.destination == "file" && used.file)
        reply["file"] = *used.file;
    if (used.destination == "logsvc" && used.sockaddr)
        reply["sockaddr"] = *used.sockaddr;
    if (used.destination == "logsvc" && used.threadId)
        reply["thread_id"] = *used.threadId;
    return reply.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

} // namespace zuLogSvc
