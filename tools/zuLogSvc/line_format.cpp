// Lines for people and lines for programs.
#include "tools/zuLogSvc/line_format.h"

#include "tools/zuLogSvc/timestamp.h"
#include "tools/zuLogSvc/utf8.h"
#include "tools/zuLogSvc/words.h"

#include <nlohmann/json.hpp>

namespace zuLogSvc {
namespace {

const char* colourOf(std::uint64_t level)
{
    switch (level) {
    case 0x01:
        return "\x1b[30;41m";
    case 0x02:
        return "\x1b[91m";
    case 0x04:
        return "\x1b[93m";
    case 0x10:
        return "\x1b[37m";
    case 0x20:
        return "\x1b[30;47m";
    default:
        return "\x1b[97m";
    }
}

/// The text's lines, each behind one blank; a line break at the end adds nothing.
void appendText(std::string& out, const std::string& text)
{
    std::size_t from = 0;
    while (from < text.size()) {
        const std::size_t end = std::min(text.find('\n', from), text.size());
        out += ' ';
        out += escapeControls(std::string_view(text).substr(from, end - from));
        from = end + 1;
    }
}

void appendExtras(std::string& out, const LogMessage& message, const LineOptions& options)
{
    std::string extras;
    const auto add = [&](const std::string& word) { extras += (extras.empty() ? "" : ", ") + word; };
    if (options.process && message.process)
        add("pid " + std::to_string(*message.process));
    if (options.thread && message.thread)
        add("tid " + std::to_string(*message.thread));
    if (options.location && !message.location.empty())
        add(escapeControls(message.location));
    if (!extras.empty())
        out += " {" + extras + "}";
}

std::string plainLine(const LogMessage& message, std::uint64_t arrival, const LineOptions& options)
{
    std::string out = formatTime(message.time.value_or(arrival));
    out += ' ';
    if (!message.logger.empty())
        out += escapeControls(message.logger) + ' ';
    out += '[';
    if (!message.group.empty())
        out += escapeControls(message.group) + '|';
    out += levelWord(message.level);
    out += ']';
    appendText(out, message.text);
    if (message.textCut)
        out += " [cut]"; // what stands after the text is missing then as a rule
    else if (message.incomplete)
        out += " [incomplete]";
    appendExtras(out, message, options);
    return out;
}

std::string jsonLine(const LogMessage& message, std::uint64_t arrival)
{
    nlohmann::ordered_json out;
    out["time"] = formatIsoTime(message.time.value_or(arrival));
    out["logger"] = message.logger;
    out["level"] = levelWord(message.level);
    if (!message.group.empty())
        out["group"] = message.group;
    out["text"] = message.text;
    if (message.process)
        out["process"] = *message.process;
    if (message.thread)
        out["thread"] = *message.thread;
    if (!message.location.empty())
        out["location"] = message.location;
    if (message.sequence != 0)
        out["sequence"] = message.sequence;
    if (message.hasRecords)
        out["records"] = message.records;
    if (message.textCut)
        out["cut"] = true;
    if (message.incomplete)
        out["incomplete"] = true;
    return out.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

} // namespace

std::string formatLine(const LogMessage& message, std::uint64_t arrival, const LineOptions& options)
{
    if (options.format == Format::json)
        return jsonLine(message, arrival);
    std::string line = plainLine(message, arrival, options);
    if (options.colour)
        return colourOf(message.level) + line + "\x1b[0m";
    return line;
}

bool parseShow(const std::string& words, LineOptions& options)
{
    std::size_t from = 0;
    while (from <= words.size()) {
        const std::size_t end = std::min(words.find(',', from), words.size());
        const std::string word = words.substr(from, end - from);
        if (word == "process")
            options.process = true;
        else if (word == "thread")
            options.thread = true;
        else if (word == "location")
            options.location = true;
        else
            return false;
        from = end + 1;
    }
    return true;
}

} // namespace zuLogSvc
