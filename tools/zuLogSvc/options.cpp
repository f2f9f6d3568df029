// Command line by CLI11. Main thread.
#include "tools/zuLogSvc/options.h"

#include "platform/console_keys.h"
#include "platform/process.h"
#include "tools/zuLogSvc/words.h"

#include <CLI/CLI.hpp>

#include <cstdlib>

namespace zuLogSvc {
namespace {

constexpr const char* description =
    "Log service for the programs of this machine that log through it.\n"
    "\n"
    "Started without --follow it is the service: it tells each program that starts what to log and where to, takes "
    "the\n"
    "messages that are sent to it, and writes one line each. A program asks once, when it starts, so the service has "
    "to\n"
    "run before the programs whose log is wanted. Without a settings file every program sends everything from level\n"
    "info up, and the lines go to standard output.\n"
    "\n"
    "With --follow it shows the messages of the service that runs already, in this terminal, and changes nothing.";

constexpr const char* footer =
    "Examples:\n"
    "  zuLogSvc                                       show here what programs log from now on\n"
    "  zuLogSvc --config /etc/zugevsvc/zuLogSvc.json  with rules and log files of one's own\n"
    "  zuLogSvc --check-config --config FILE          say what is wrong with a settings file\n"
    "  zuLogSvc --follow                              look at what the running service takes\n"
    "  zuLogSvc --follow --level warn                 warnings and worse only\n"
    "  zuLogSvc --follow --logger Conn --logger GVCP  what goes between daemon and cameras\n"
    "\n"
    "Signals:\n"
    "  SIGTERM, Ctrl-C   end: what has arrived is written, the service is no longer to be found\n"
    "  SIGHUP            read the settings file again and open the log files anew; errors leave all as it was\n"
    "                    (without --config: end)\n"
    "\n"
    "Exit status:\n"
    "  0 ended as asked   1 failure               2 wrong options\n"
    "  3 a log service runs already               4 settings with errors\n"
    "  5 no log service runs (--follow)";

bool wantsColour(const std::string& choice)
{
    if (choice != "auto")
        return choice == "always";
    const char* noColour = std::getenv("NO_COLOR");
    return (noColour == nullptr || *noColour == '\0') && zuPlatform::isTerminal(1);
}

} // namespace

std::string versionText()
{
    std::uint64_t version = 0;
    if (!zuPlatform::executableVersion(version))
        return "unknown";
    return zuPlatform::versionText(version);
}

std::variant<Options, int> parseOptions(int argc, char** argv)
{
    Options options;
    CLI::App app(description, "zuLogSvc");
    app.footer(footer);
    app.set_version_flag("--version", "zuLogSvc " + versionText(), "Print the version");
    app.set_help_flag("-h,--help", "Print this help");
    app.get_formatter()->column_width(34);

    std::uint16_t commandPort = 0, messagePort = 0;
    std::string show, level;
    const std::string serviceGroup = "As the service", viewerGroup = "As a viewer",
                      linesGroup = "Lines on standard output";
    auto* config = app.add_option("-c,--config", options.config, "Settings file (JSON)")->type_name("FILE");
    auto* check =
        app.add_flag("--check-config", options.checkConfig, "Say what is wrong with the settings file, and end");
    auto* command = app.add_option("--command-port", commandPort,
                                   "UDP port for requests, on 127.0.0.1; the system\nchooses if it is not given")
                        ->type_name("PORT");
    auto* message = app.add_option("--message-port", messagePort, "The same for messages")->type_name("PORT");
    auto* follow = app.add_flag("-f,--follow", options.follow, "Show the messages of the running log service");
    auto* wait = app.add_flag("--wait", options.wait, "Wait for a log service if none runs");
    auto* levelOption =
        app.add_option(
               "--level", level,
               "From this level up: fatal, err, warn, info, trace,\ndebug; or a mask of level bits such as 0x24")
            ->type_name("LEVEL");
    auto* logger = app.add_option("--logger", options.filter.loggers,
                                  "This logger and those below it, with or without the\nroot's name; * and ? are "
                                  "wildcards; may be repeated")
                       ->type_name("PATH");
    auto* group = app.add_option("--group", options.filter.groups, "Messages of this group; wildcards; may be repeated")
                      ->type_name("NAME");
    app.add_flag("--json", options.json, "A JSON object each");
    app.add_option("--show", show, "Also these: process,thread,location")->type_name("LIST");
    app.add_option("--colour,--color", options.colour, "Colours by level: auto, always, never")->type_name("WHEN");
    app.add_option("--name-prefix", options.namePrefix)->group(""); // for tests beside a running service
    for (auto* option : {logger, group})
        option->expected(1)->take_all();
    for (auto* option : {config, check, command, message})
        option->group(serviceGroup);
    for (auto* option : {follow, wait, levelOption, logger, group})
        option->group(viewerGroup);
    for (const char* name : {"--json", "--show", "--colour"})
        app.get_option(name)->group(linesGroup);

    try {
        app.parse(argc, argv);
        for (auto* option : {config, check, command, message})
            if (options.follow && option->count() != 0)
                throw CLI::ValidationError(option->get_name(), "does not go with --follow");
        for (auto* option : {wait, levelOption, logger, group})
            if (!options.follow && option->count() != 0)
                throw CLI::ValidationError(option->get_name(), "goes with --follow only");
        if (options.checkConfig && options.config.empty())
            throw CLI::ValidationError("--check-config", "needs --config");
        if (options.colour != "auto" && options.colour != "always" && options.colour != "never")
            throw CLI::ValidationError("--colour", "takes auto, always or never");
        if (!show.empty() && !parseShow(show, options.show))
            throw CLI::ValidationError("--show", "takes process, thread and location, with commas between them");
        if (!level.empty()) {
            const auto mask = levelMask(level);
            if (!mask)
                throw CLI::ValidationError("--level", "unknown level \"" + level + "\"");
            options.filter.levels = *mask;
        }
        if (command->count() != 0)
            options.commandPort = commandPort;
        if (message->count() != 0)
            options.messagePort = messagePort;
        if (commandPort != 0 && commandPort == messagePort)
            throw CLI::ValidationError("--message-port", "must differ from the command port");
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? exitGood : exitUsage;
    }
    return options;
}

LineOptions standardOutputLines(const Options& options, LineOptions lines)
{
    if (options.json)
        lines.format = Format::json;
    lines.process = lines.process || options.show.process;
    lines.thread = lines.thread || options.show.thread;
    lines.location = lines.location || options.show.location;
    lines.colour = wantsColour(options.colour);
    return lines;
}

void applyOptions(const Options& options, Settings& settings)
{
    if (options.commandPort)
        settings.commandPort = *options.commandPort;
    if (options.messagePort)
        settings.messagePort = *options.messagePort;
    for (OutputSettings& output : settings.outputs)
        if (output.type == OutputSettings::Type::standardOutput)
            output.line = standardOutputLines(options, output.line);
}

} // namespace zuLogSvc
