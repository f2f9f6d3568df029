// Options of the program, and its help.
#include "tools/gevsim/options.h"

#include "tools/gevsim/registers.h"
#include "tools/gevsim/script.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <string_view>

namespace gevsim {

namespace {

std::uint64_t macOf(const std::string& text)
{
    std::uint64_t mac = 0;
    unsigned digits = 0;
    bool good = text.size() == 17;
    for (std::size_t i = 0; good && i < text.size(); ++i) {
        if (i % 3 == 2) {
            good = text[i] == ':';
            continue;
        }
        const std::size_t digit = std::string("0123456789abcdef0123456789ABCDEF").find(text[i]);
        good = digit != std::string::npos;
        mac = mac << 4 | (digit & 15u);
        ++digits;
    }
    if (!good || digits != 12)
        throw UsageError("'" + text + "' is no MAC address such as 02:00:00:00:00:01");
    return mac;
}

void readSensor(const std::string& text, Config& camera)
{
    const auto number = [](std::string_view word, std::uint32_t step, std::uint32_t& value) {
        const auto result = std::from_chars(word.data(), word.data() + word.size(), value);
        return result.ec == std::errc() && result.ptr == word.data() + word.size() && value >= limit::leastSize &&
               value <= limit::largestSensor && value % step == 0;
    };
    const std::size_t cross = text.find('x');
    const std::string_view all = text;
    if (cross == std::string::npos || !number(all.substr(0, cross), limit::widthStep, camera.sensorWidth) ||
        !number(all.substr(cross + 1), limit::heightStep, camera.sensorHeight))
        throw UsageError("'" + text + "' is no sensor such as 640x480, of 16 to 16384 pixels, in multiples of 4 and 2");
}

/// Values as typed; they are looked at afterwards, so that a number out of range gets a clear word.
struct Typed {
    std::string address = "127.0.0.1", mac, sensor = "640x480";
    std::int64_t port = gvcpPort, count = 1, memory = 1024, heartbeat = 3000, link = 1000, ring = 8;
    bool noBroadcast = false, freeWrites = false, noInput = false;
};

std::int64_t inRange(const char* option, std::int64_t value, std::int64_t least, std::int64_t most)
{
    if (value < least || value > most)
        throw UsageError(std::string("--") + option + " takes " + std::to_string(least) + " to " +
                         std::to_string(most));
    return value;
}

void describe(CLI::App& app, Options& options, Typed& typed)
{
    Config& camera = options.camera;
    app.set_help_flag(); // it is an option as the others are
    app.get_formatter()->column_width(36);

    std::string group = "Where it listens";
    const auto value = [&](const char* name, auto& target, const char* type, const char* help) {
        return app.add_option(name, target, help)->type_name(type)->group(group);
    };
    const auto flag = [&](const char* name, bool& target, const char* help) {
        app.add_flag(name, target, help)->group(group);
    };
    value("-a,--address", typed.address, "IP", "IPv4 address of the camera")->capture_default_str();
    value("-p,--port", typed.port, "PORT", "UDP port; 0 lets the system choose")->capture_default_str();
    value("-n,--count", typed.count, "N", "So many cameras, each at the address after the last one's")
        ->capture_default_str();
    flag("--no-broadcast", typed.noBroadcast, "Does not answer discovery that is sent to broadcast addresses");

    group = "What it is";
    value("--manufacturer", camera.manufacturer, "TEXT", "Manufacturer's name")->capture_default_str();
    value("--model", camera.model, "TEXT", "Model name")->capture_default_str();
    value("--serial", camera.serial, "TEXT", "Serial number (made from address and port)");
    value("--user-name", camera.userName, "TEXT", "User-defined name");
    value("--mac", typed.mac, "MAC", "MAC address (made from address and port)");
    value("--memory", typed.memory, "KIB", "Size of the writable memory at 0x10000, in KiB")->capture_default_str();
    value("--heartbeat", typed.heartbeat, "MS", "Heartbeat timeout; 0 never drops control")->capture_default_str();
    value("--sensor", typed.sensor, "WxH", "Size of the sensor in pixels, multiples of 4 and 2")->capture_default_str();
    value("--link-speed", typed.link, "MBIT", "Pictures leave no faster than that; 0: as fast as can be")
        ->capture_default_str();
    value("--resend-frames", typed.ring, "N", "So many frames back, packets can be asked for again")
        ->capture_default_str();
    flag("--extended-ids", camera.extendedIds, "A camera of version 2.0, with 64-bit ids of frames");
    flag("--keep-stream", camera.keepsStream, "Goes on sending when control ends");
    flag("--zip", camera.zippedXml, "Keeps the GenICam file zipped");
    flag("--free-writes", typed.freeWrites, "Lets everybody write while nobody holds control");
    flag("--strict", camera.strictWriteMem, "Refuses WRITEMEM whose length is no multiple of 4");

    group = "What it does";
    value("-x,--execute", options.commands, "LINE", "Executes a command before it starts; may be repeated")
        ->expected(1)
        ->take_all();
    value("--seed", camera.seed, "N", "Seed of random loss")->capture_default_str();
    flag("-t,--trace", options.trace, "Prints every datagram as a line");
    flag("--no-input", typed.noInput,
         "Does not read commands from standard input, as for the\nbackground of a terminal");
    flag("--exit-on-eof", options.endWithInput, "Ends when standard input ends");
    flag("-h,--help", options.help, "Prints this text");
    flag("--version", options.version, "Prints the version");
}

} // namespace

Options parseOptions(int argc, const char* const* argv)
{
    Options options;
    Typed typed;
    CLI::App app;
    describe(app, options, typed);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        throw UsageError(error.what());
    }
    if (options.help || options.version)
        return options;

    try {
        options.camera.endpoint =
            Endpoint(typed.address, static_cast<std::uint16_t>(inRange("port", typed.port, 0, 65535)));
    } catch (const std::invalid_argument& error) {
        throw UsageError(error.what());
    }
    options.count = static_cast<unsigned>(inRange("count", typed.count, 1, 1000));
    if (options.camera.endpoint.ip + (options.count - 1) < options.camera.endpoint.ip)
        throw UsageError("--count goes beyond the last address");
    options.camera.memorySize = static_cast<std::uint32_t>(inRange("memory", typed.memory, 0, 256 * 1024)) * 1024;
    options.camera.heartbeatTimeoutMs =
        static_cast<std::uint32_t>(inRange("heartbeat", typed.heartbeat, 0, 0xFFFFFFFF));
    options.camera.linkSpeed = static_cast<std::uint32_t>(inRange("link-speed", typed.link, 0, 1000000));
    options.camera.resendFrames = static_cast<std::size_t>(inRange("resend-frames", typed.ring, 1, 1000));
    readSensor(typed.sensor, options.camera);
    if (!typed.mac.empty())
        options.camera.mac = macOf(typed.mac);
    options.camera.broadcastDiscovery = !typed.noBroadcast;
    options.camera.writesNeedControl = !typed.freeWrites;
    options.camera.recording = false;
    options.input = !typed.noInput;
    if (options.endWithInput && !options.input)
        throw UsageError("--exit-on-eof and --no-input exclude each other");
    return options;
}

std::string helpText()
{
    Options options;
    Typed typed;
    CLI::App app(
        "A simulated GigE Vision camera. It answers GVCP on one address until it is told to stop (Ctrl-C), can be "
        "found\nby discovery, sends pictures, and does wrong what it is told to do wrong.",
        "gevsim");
    describe(app, options, typed);
    return app.help() +
           "\nMemory:\n"
           "  0x00000000  bootstrap registers          0x0000A000  registers of the GenICam features\n"
           "  0x00010000  writable memory              0x20000000  GenICam file, read only\n"
           "\nCommands, for --execute and for standard input, one a line:\n" +
           scriptHelp() +
           "\nOf the program:\n"
           "    @N COMMAND           only for the N-th camera; without it for all of them\n"
           "    trace on|off         prints every datagram, or doesn't\n"
           "    quit                 ends the program\n"
           "\nExamples:\n"
           "  gevsim                               a camera on 127.0.0.1, port 3956\n"
           "  gevsim -a 127.0.0.5 -t               another one beside it, which prints what it is sent\n"
           "  gevsim -x 'pending 500 times=3'      the first command takes three times half a second\n"
           "  gevsim -x 'loss 5 seed=7'            loses one datagram in twenty, the same ones each time\n"
           "  gevsim -x 'stream lose rate=1'        loses one stream packet in a hundred\n"
           "  gevsim -n 16 -a 127.0.1.1            sixteen cameras, from 127.0.1.1 to 127.0.1.16\n"
           "  echo 'power-cycle 2000' | gevsim     goes off for two seconds, and on with its work\n"
           "\nExit status: 0 after a stop that was asked for, 1 if it can't listen, 2 for a wrong command line.\n";
}

} // namespace gevsim
