// Options of the program, and its help.
#include "tools/gevsim/options.h"

#include "tools/gevsim/script.h"

#include <boost/program_options.hpp>

#include <cstdio>
#include <sstream>

namespace gevsim {

namespace po = boost::program_options;

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

/// Values as typed; they are looked at afterwards, so that a number out of range gets a clear word.
struct Typed {
    std::string address = "127.0.0.1", mac;
    std::int64_t port = gvcpPort, count = 1, memory = 1024, heartbeat = 3000;
};

std::int64_t inRange(const char* option, std::int64_t value, std::int64_t least, std::int64_t most)
{
    if (value < least || value > most)
        throw UsageError(std::string("--") + option + " takes " + std::to_string(least) + " to " +
                         std::to_string(most));
    return value;
}

po::options_description describe(Options& options, Typed& typed)
{
    Config& camera = options.camera;
    constexpr unsigned lineLength = 118, textLength = 84;
    po::options_description where("Where it listens", lineLength, textLength);
    where.add_options()("address,a", po::value(&typed.address)->value_name("IP")->default_value(typed.address),
                        "IPv4 address of the camera")(
        "port,p", po::value(&typed.port)->value_name("PORT")->default_value(typed.port),
        "UDP port; 0 lets the system choose")("count,n",
                                              po::value(&typed.count)->value_name("N")->default_value(typed.count),
                                              "so many cameras, each at the address after the last one's")(
        "no-broadcast", "does not answer discovery that is sent to broadcast addresses");
    po::options_description what("What it is", lineLength, textLength);
    what.add_options()(
        "manufacturer", po::value(&camera.manufacturer)->value_name("TEXT")->default_value(camera.manufacturer),
        "manufacturer's name")("model", po::value(&camera.model)->value_name("TEXT")->default_value(camera.model),
                               "model name")("serial", po::value(&camera.serial)->value_name("TEXT"),
                                             "serial number (made from address and port)")(
        "user-name", po::value(&camera.userName)->value_name("TEXT"), "user-defined name")(
        "mac", po::value(&typed.mac)->value_name("MAC"), "MAC address (made from address and port)")(
        "memory", po::value(&typed.memory)->value_name("KIB")->default_value(typed.memory),
        "size of the writable memory at 0x10000, in KiB")(
        "heartbeat", po::value(&typed.heartbeat)->value_name("MS")->default_value(typed.heartbeat),
        "heartbeat timeout; 0 never drops control")("zip", "keeps the GenICam file zipped")(
        "free-writes", "lets everybody write while nobody holds control")(
        "strict", "refuses WRITEMEM whose length is no multiple of 4");
    po::options_description doing("What it does", lineLength, textLength);
    doing.add_options()("execute,x", po::value(&options.commands)->value_name("LINE")->composing(),
                        "executes a command before it starts; repeatable")(
        "seed", po::value(&camera.seed)->value_name("N")->default_value(camera.seed),
        "seed of random loss")("trace,t", "prints every datagram as a line")(
        "no-input", "does not read commands from standard input, as for the background of a terminal")(
        "exit-on-eof", "ends when standard input ends")("help,h", "prints this text")("version", "prints the version");
    po::options_description all(lineLength, textLength);
    all.add(where).add(what).add(doing);
    return all;
}

} // namespace

Options parseOptions(int argc, const char* const* argv)
{
    Options options;
    Typed typed;
    po::variables_map given;
    try {
        const po::options_description all = describe(options, typed);
        const po::positional_options_description none;
        po::store(po::command_line_parser(argc, argv).options(all).positional(none).run(), given);
        po::notify(given);
    } catch (const po::error& error) {
        throw UsageError(error.what());
    }
    options.help = given.count("help") != 0;
    options.version = given.count("version") != 0;
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
    if (!typed.mac.empty())
        options.camera.mac = macOf(typed.mac);
    options.camera.broadcastDiscovery = given.count("no-broadcast") == 0;
    options.camera.zippedXml = given.count("zip") != 0;
    options.camera.writesNeedControl = given.count("free-writes") == 0;
    options.camera.strictWriteMem = given.count("strict") != 0;
    options.camera.recording = false;
    options.trace = given.count("trace") != 0;
    options.input = given.count("no-input") == 0;
    options.endWithInput = given.count("exit-on-eof") != 0;
    if (options.endWithInput && !options.input)
        throw UsageError("--exit-on-eof and --no-input exclude each other");
    return options;
}

std::string helpText()
{
    Options options;
    Typed typed;
    std::ostringstream text;
    text << "Usage: gevsim [OPTION]...\n"
            "A simulated GigE Vision camera. It answers GVCP on one address until it is told to stop (Ctrl-C), can be "
            "found\n"
            "by discovery, and does wrong what it is told to do wrong.\n"
         << describe(options, typed)
         << "\nMemory\n"
            "  0x00000000  bootstrap registers          0x0000A000  registers of the GenICam features\n"
            "  0x00010000  writable memory              0x20000000  GenICam file, read only\n"
            "\nCommands, for --execute and for standard input, one a line\n"
         << scriptHelp()
         << "\nOf the program\n"
            "    @N COMMAND           only for the N-th camera; without it for all of them\n"
            "    trace on|off         prints every datagram, or doesn't\n"
            "    quit                 ends the program\n"
            "\nExamples\n"
            "  gevsim                               a camera on 127.0.0.1, port 3956\n"
            "  gevsim -a 127.0.0.5 -t               another one beside it, which prints what it is sent\n"
            "  gevsim -x 'pending 500 times=3'      the first command takes three times half a second\n"
            "  gevsim -x 'loss 5 seed=7'            loses one datagram in twenty, the same ones each time\n"
            "  gevsim -n 16 -a 127.0.1.1            sixteen cameras, from 127.0.1.1 to 127.0.1.16\n"
            "  echo 'power-cycle 2000' | gevsim     goes off for two seconds, and on with its work\n"
            "\nExit status: 0 after a stop that was asked for, 1 if it can't listen, 2 for a wrong command line.\n";
    return text.str();
}

} // namespace gevsim
