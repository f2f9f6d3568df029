// The grammar of the command line.
#include "tools/gevctl/options.h"

#include "tools/gevctl/commands.h"
#include "tools/gevctl/feature_view.h"
#include "tools/gevctl/numbers.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <functional>
#include <limits>
#include <sstream>

namespace gevctl {

namespace {

using zuGevClient::LinkMode;

constexpr std::uint64_t most32 = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint64_t wholeMemory = std::uint64_t{1} << 32;

std::uint32_t number(const std::string& text, const std::string& what, std::uint32_t least = 0)
{
    const auto value = parseNumber(text, most32);
    if (!value || *value < least)
        throw CLI::ValidationError(what, "'" + text + "' is no number from " + std::to_string(least) +
                                             " to 4294967295 (decimal, or hexadecimal with 0x)");
    return static_cast<std::uint32_t>(*value);
}

zuGevClient::Endpoint endpoint(const std::string& text, const std::string& what, std::uint16_t defaultPort)
{
    const auto value = zuGevClient::parseEndpoint(text, defaultPort);
    if (!value)
        throw CLI::ValidationError(what, "'" + text + "' is no IPv4 address, with or without :port");
    return *value;
}

std::uint32_t ipAddress(const std::string& text, const std::string& what)
{
    const auto value = zuGevClient::parseEndpoint(text, 0);
    if (!value || value->port != 0)
        throw CLI::ValidationError(what, "'" + text + "' is no IPv4 address");
    return value->address;
}

/// "a.b.c.d", with "/24" or "/255.255.255.0" behind it or without.
zuGevClient::IpAddress ipWithSubnet(const std::string& text)
{
    const std::size_t slash = text.find('/');
    zuGevClient::IpAddress ip;
    ip.address = ipAddress(text.substr(0, slash), "ADDRESS");
    if (slash == std::string::npos)
        return ip;
    const std::string behind = text.substr(slash + 1);
    const auto bits = parseNumber(behind, 32);
    if (bits && *bits != 0)
        ip.subnetMask = static_cast<std::uint32_t>(most32 << (32 - *bits));
    else
        ip.subnetMask = ipAddress(behind, "ADDRESS");
    return ip;
}

LinkMode linkMode(const std::string& text)
{
    if (text == "monitor")
        return LinkMode::monitor();
    if (text == "control")
        return LinkMode::control();
    if (text == "exclusive")
        return LinkMode::exclusive();
    constexpr char switchover[] = "switchover:";
    if (text.rfind(switchover, 0) == 0) {
        const auto key = parseNumber(text.substr(sizeof switchover - 1), 0xFFFF);
        if (key)
            return LinkMode::switchover(static_cast<std::uint16_t>(*key));
    }
    throw CLI::ValidationError("--access",
                               "'" + text + "' is none of monitor, control, exclusive, switchover:KEY (0 to 65535)");
}

/// One parse: the grammar is bound to the options that it fills.
class Grammar {
public:
    Grammar()
    {
        app_.require_subcommand(1);
        app_.fallthrough();
        app_.add_flag("--json", options_.json, "Print results, and errors, as JSON");
        app_.add_flag("-q,--quiet", options_.quiet, "No progress bar and no remarks");
        app_.footer(
            "Numbers are decimal, or hexadecimal with 0x in front.\n"
            "Exit status: 0 success, 1 other failure, 2 usage, 3 no daemon, 4 camera error, 5 feature refused.\n"
            "\nExamples:\n"
            "  gevctl discover\n"
            "  gevctl info -c 192.168.7.20\n"
            "  gevctl --help-all");
        app_.set_help_all_flag("--help-all", "Print the help of all commands and exit");
        discover();
        info();
        registers();
        memory();
        xml();
        watch();
        timeouts();
        status();
        features();
        ip();
    }

    Parsed parse(std::vector<std::string> arguments)
    {
        Parsed parsed;
        std::ostringstream out;
        std::ostringstream err;
        try {
            std::reverse(arguments.begin(), arguments.end());
            app_.parse(std::move(arguments));
            finish_();
            parsed.options = options_;
        } catch (const CLI::ParseError& complaint) {
            parsed.exitCode = app_.exit(complaint, out, err) == 0 ? exitSuccess : exitUsage;
        }
        parsed.out = out.str();
        parsed.err = err.str();
        return parsed;
    }

private:
    /// Chosen when the command is on the line; `finish` converts what was typed, once all of it is known.
    CLI::App* command(CLI::App& parent, const std::string& name, const std::string& text, Command run,
                      std::function<void()> finish, const std::string& examples)
    {
        CLI::App* const sub = parent.add_subcommand(name, text);
        sub->footer("Examples:\n" + examples);
        sub->callback([this, run, finish] {
            options_.command = run;
            finish_ = finish;
        });
        return sub;
    }

    void text(CLI::App* sub, const std::string& name, const std::string& help,
              const std::function<void(const std::string&)>& take, const std::string& typeName, bool required = false)
    {
        sub->add_option_function<std::string>(name, take, help)->type_name(typeName)->required(required);
    }

    void cameraOptions(CLI::App* sub, bool cameraRequired, const std::string& defaultAccess)
    {
        text(
            sub, "-c,--camera", "The camera's address",
            [this](const std::string& value) { options_.camera = endpoint(value, "--camera", zuGevClient::gvcpPort); },
            "IP[:PORT]", cameraRequired);
        text(
            sub, "-l,--local", "The local address from which the daemon talks to the camera",
            [this](const std::string& value) { options_.local = endpoint(value, "--local", 0); }, "IP[:PORT]");
        text(
            sub, "-a,--access",
            "monitor, control, exclusive or switchover:KEY; default: " +
                (defaultAccess.empty() ? std::string("reads without a link") : defaultAccess),
            [this](const std::string& value) { options_.access = linkMode(value); }, "MODE");
        text(
            sub, "--ack-timeout", "Wait for one answer of the camera, in milliseconds (daemon's default: 300)",
            [this](const std::string& value) { options_.ackTimeoutMs = number(value, "--ack-timeout", 1); }, "MS");
        text(
            sub, "--retries", "Attempts at each command (daemon's default: 3)",
            [this](const std::string& value) { options_.retries = number(value, "--retries", 1); }, "N");
    }

    void orElse(LinkMode mode)
    {
        if (!options_.access)
            options_.access = mode;
    }

    void discover()
    {
        CLI::App* const sub = command(
            app_, "discover", "Look for cameras on the network; the daemon is not needed", runDiscover, [] {},
            "  gevctl discover\n"
            "  gevctl discover -i eth1 --wait 2000\n"
            "  gevctl discover --address 10.0.0.17 --json");
        discoveryOptions(sub);
    }

    void discoveryOptions(CLI::App* sub)
    {
        interfaceOption(sub);
        sub->add_option_function<std::vector<std::string>>(
               "--address",
               [this](const std::vector<std::string>& values) {
                   for (const std::string& value : values)
                       options_.unicastTargets.push_back(endpoint(value, "--address", zuGevClient::gvcpPort));
               },
               "Ask this address, also beyond the local network; may be repeated")
            ->type_name("IP[:PORT]")
            ->allow_extra_args(false);
        waitOption(sub);
    }

    void interfaceOption(CLI::App* sub)
    {
        sub->add_option("-i,--interface", options_.interfaces,
                        "Only on this interface, by name or address; may be repeated. Default: all but loopback")
            ->type_name("NAME|IP")
            ->allow_extra_args(false);
    }

    void waitOption(CLI::App* sub)
    {
        text(
            sub, "-w,--wait", "How long to listen, in milliseconds (default: 1000)",
            [this](const std::string& value) { options_.waitMs = number(value, "--wait", 1); }, "MS");
    }

    void info()
    {
        CLI::App* const sub = command(
            app_, "info", "Show what a camera says of itself in its bootstrap registers", runInfo, [] {},
            "  gevctl info -c 192.168.7.20\n"
            "  gevctl info -c 192.168.7.20 --json");
        cameraOptions(sub, true, {});
    }

    void registers()
    {
        CLI::App* const group = app_.add_subcommand("reg", "Read or write registers");
        group->require_subcommand(1);
        CLI::App* const read = command(
            *group, "read", "Read registers", runReadRegisters,
            [this] {
                for (const std::string& typed : words_)
                    options_.addresses.push_back(number(typed, "ADDRESS"));
            },
            "  gevctl reg read -c 192.168.7.20 0x0A00\n"
            "  gevctl reg read -c 192.168.7.20 0x0934 0x0938 --json");
        cameraOptions(read, true, {});
        read->add_option("address", words_, "Register addresses")->type_name("ADDRESS")->required();
        CLI::App* const write = command(
            *group, "write", "Write registers, in the given order", runWriteRegisters,
            [this] {
                if (words_.size() % 2 != 0)
                    throw CLI::ValidationError("reg write", "each address needs a value");
                for (std::size_t i = 0; i < words_.size(); i += 2)
                    options_.writes.emplace_back(number(words_[i], "ADDRESS"), number(words_[i + 1], "VALUE"));
                orElse(LinkMode::control());
            },
            "  gevctl reg write -c 192.168.7.20 0xA000 1\n"
            "  gevctl reg write -c 192.168.7.20 -a exclusive 0xA004 0x80 0xA008 640");
        cameraOptions(write, true, "control");
        write->add_option("pairs", words_, "Register address and value, any number of pairs")
            ->type_name("ADDRESS VALUE")
            ->required();
    }

    void memory()
    {
        CLI::App* const group = app_.add_subcommand("mem", "Read or write memory");
        group->require_subcommand(1);
        CLI::App* const read = command(
            *group, "read", "Read memory, to the screen or to a file", runReadMemory, [this] { takeRange(sizeText_); },
            "  gevctl mem read -c 192.168.7.20 0x0048 32\n"
            "  gevctl mem read -c 192.168.7.20 0x10000000 1M -o dump.bin");
        cameraOptions(read, true, {});
        addressOption(read);
        read->add_option("length", sizeText_, "Number of bytes; k, M and G stand for powers of 1024")
            ->type_name("LENGTH")
            ->required();
        read->add_option("-o,--output", options_.file, "File to write to, as raw bytes; - for standard output")
            ->type_name("FILE");
        CLI::App* const write = command(
            *group, "write", "Write memory, from a file or from the command line", runWriteMemory,
            [this] {
                takeRange("0");
                if (options_.file.empty() == dataText_.empty())
                    throw CLI::ValidationError("mem write", "needs a FILE or --data, and not both");
                if (!dataText_.empty()) {
                    const auto bytes = parseHexBytes(dataText_);
                    if (!bytes || bytes->empty())
                        throw CLI::ValidationError("--data", "'" + dataText_ + "' are no pairs of hexadecimal digits");
                    options_.data = *bytes;
                }
                orElse(LinkMode::control());
            },
            "  gevctl mem write -c 192.168.7.20 0x10000000 table.bin --verify\n"
            "  gevctl mem write -c 192.168.7.20 0xE8 --data \"4C 65 66 74 00\"");
        cameraOptions(write, true, "control");
        addressOption(write);
        write->add_option("file", options_.file, "File with the bytes; - for standard input")->type_name("FILE");
        write->add_option("-d,--data", dataText_, "The bytes themselves, in hexadecimal")->type_name("HEX");
        write->add_flag("--verify", options_.verify, "Read back and compare");
    }

    void addressOption(CLI::App* sub)
    {
        sub->add_option("address", addressText_, "Memory address")->type_name("ADDRESS")->required();
    }

    void takeRange(const std::string& size)
    {
        options_.address = number(addressText_, "ADDRESS");
        const auto bytes = parseSize(size, wholeMemory - options_.address);
        if (!bytes)
            throw CLI::ValidationError("LENGTH", "'" + size + "' is no length that ends within 32-bit addresses");
        options_.size = *bytes;
    }

    void xml()
    {
        CLI::App* const sub = command(
            app_, "xml", "Fetch the camera's GenICam description, unzipped", runXml, [] {},
            "  gevctl xml -c 192.168.7.20 -o camera.xml\n"
            "  gevctl xml -c 192.168.7.20 --url\n"
            "  gevctl xml -c 192.168.7.20 --raw -o camera.zip");
        cameraOptions(sub, true, {});
        sub->add_option("-o,--output", options_.file, "File to write to; default and -: standard output")
            ->type_name("FILE");
        sub->add_flag("--raw", options_.raw, "As it lies in the camera, zipped or not");
        sub->add_flag("--url", options_.urlOnly, "Only print where the camera says it is");
    }

    void watch()
    {
        CLI::App* const sub = command(
            app_, "watch", "Hold a link and print what happens to it, until Ctrl-C", runWatch,
            [this] { orElse(LinkMode::control()); },
            "  gevctl watch -c 192.168.7.20\n"
            "  gevctl watch -c 192.168.7.20 --for 60000 --json");
        cameraOptions(sub, true, "control");
        text(
            sub, "--for", "End after this many milliseconds",
            [this](const std::string& value) { options_.durationMs = number(value, "--for"); }, "MS");
        heartbeatOption(sub);
    }

    void heartbeatOption(CLI::App* sub)
    {
        text(
            sub, "--heartbeat", "Set the camera's heartbeat timeout, in milliseconds; 0 turns it off",
            [this](const std::string& value) { options_.heartbeatMs = number(value, "--heartbeat"); }, "MS");
    }

    void timeouts()
    {
        CLI::App* const group = app_.add_subcommand("timeouts", "Show or set timeouts, retries and the heartbeat");
        group->require_subcommand(1);
        CLI::App* const get = command(
            *group, "get", "Show the timeouts that a new connection has, and the camera's heartbeat", runTimeouts,
            [] {}, "  gevctl timeouts get -c 192.168.7.20");
        cameraOptions(get, true, {});
        CLI::App* const set = command(
            *group, "set",
            "Set the camera's heartbeat timeout, which the camera keeps; --ack-timeout and --retries last for the\n"
            "connection, and decide the least heartbeat timeout: (retries + 2) * ack timeout",
            runTimeouts,
            [this] {
                if (!options_.heartbeatMs && !options_.ackTimeoutMs && !options_.retries)
                    throw CLI::ValidationError("timeouts set", "nothing to set");
                orElse(LinkMode::control());
            },
            "  gevctl timeouts set -c 192.168.7.20 --heartbeat 5000\n"
            "  gevctl timeouts set -c 192.168.7.20 --ack-timeout 500 --retries 5 --heartbeat 10000");
        cameraOptions(set, true, "control");
        heartbeatOption(set);
    }

    void status()
    {
        CLI::App* const sub = command(
            app_, "status", "Tell whether the daemon runs and, with a camera, who holds that", runStatus, [] {},
            "  gevctl status\n"
            "  gevctl status -c 192.168.7.20 --json");
        cameraOptions(sub, false, {});
        CLI::App* const check = command(
            app_, "check", "Link a camera, check the link, and give it back", runCheck,
            [this] { orElse(LinkMode::control()); }, "  gevctl check -c 192.168.7.20 -a exclusive");
        cameraOptions(check, true, "control");
    }

    void features()
    {
        CLI::App* const group =
            app_.add_subcommand("feature", "Read, set and run a camera's features by the names of its description");
        group->require_subcommand(1);
        CLI::App* const list = command(
            *group, "list", "List the features with their values, by category", runFeatureList, [] {},
            "  gevctl feature list -c 192.168.7.20\n"
            "  gevctl feature list -c 192.168.7.20 --visibility guru --json");
        cameraOptions(list, true, {});
        text(
            list, "--visibility", "beginner (default), expert, guru or invisible; each lists more",
            [this](const std::string& value) {
                const auto visibility = parseVisibility(value);
                if (!visibility)
                    throw CLI::ValidationError("--visibility",
                                               "'" + value + "' is none of beginner, expert, guru, invisible");
                options_.visibility = *visibility;
            },
            "LEVEL");

        CLI::App* const get = command(
            *group, "get", "Print the values of features", runFeatureGet, [] {},
            "  gevctl feature get -c 192.168.7.20 ExposureTime\n"
            "  gevctl feature get -c 192.168.7.20 Width Height PixelFormat --json");
        cameraOptions(get, true, {});
        names(get, "NAME", "Names of features");

        CLI::App* const set = command(
            *group, "set", "Set features, in the given order, and print what they came to", runFeatureSet,
            [this] {
                for (const std::string& word : options_.features) {
                    if (word.find('=') == std::string::npos || word.front() == '=')
                        throw CLI::ValidationError("feature set", "'" + word + "' is no NAME=VALUE");
                }
                orElse(LinkMode::control());
            },
            "  gevctl feature set -c 192.168.7.20 ExposureTime=5000 PixelFormat=Mono16");
        cameraOptions(set, true, "control");
        names(set, "NAME=VALUE", "Features with their new values");

        CLI::App* const run = command(
            *group, "run", "Run commands of the camera, one after the other", runFeatureRun,
            [this] { orElse(LinkMode::control()); }, "  gevctl feature run -c 192.168.7.20 AcquisitionStart");
        cameraOptions(run, true, "control");
        names(run, "NAME", "Names of commands");
        text(
            run, "--for", "How long to wait for the end of each, in milliseconds (default: 5000); 0 does not wait",
            [this](const std::string& value) { options_.durationMs = number(value, "--for"); }, "MS");

        CLI::App* const describe = command(
            *group, "describe", "Tell everything about features", runFeatureDescribe, [] {},
            "  gevctl feature describe -c 192.168.7.20 ExposureTime");
        cameraOptions(describe, true, {});
        names(describe, "NAME", "Names of features");

        CLI::App* const save = command(
            *group, "save", "Save all values, those behind selectors included, as JSON", runFeatureSave,
            [this] { orElse(LinkMode::control()); },
            "  gevctl feature save -c 192.168.7.20 -o camera.json\n"
            "  gevctl feature save -c 192.168.7.20 -a monitor     without moving selectors");
        cameraOptions(save, true, "control");
        save->add_option("-o,--output", options_.file, "File to write to; default and -: standard output")
            ->type_name("FILE");

        CLI::App* const load = command(
            *group, "load", "Set what was saved, in an order that works", runFeatureLoad,
            [this] { orElse(LinkMode::control()); }, "  gevctl feature load -c 192.168.7.20 camera.json");
        cameraOptions(load, true, "control");
        load->add_option("file", options_.file, "File that was saved; - for standard input")
            ->type_name("FILE")
            ->required();

        CLI::App* const complete = command(
            *group, "complete", "Print what the shell completes: names, or for NAME= its entries", runFeatureComplete,
            [] {}, "  gevctl feature complete -c 192.168.7.20 PixelFormat=");
        complete->group(""); // not in the help
        cameraOptions(complete, true, {});
        complete->add_option("word", options_.features, "NAME=")->expected(0, 1);
    }

    void names(CLI::App* sub, const char* type, const char* help)
    {
        sub->add_option("names", options_.features, help)->type_name(type)->required();
    }

    void ip()
    {
        CLI::App* const group = app_.add_subcommand("ip", "Show or set cameras' addresses and names");
        group->require_subcommand(1);
        CLI::App* const list = command(
            *group, "list",
            "List the cameras of the network with their addresses, also those of a wrong subnet, and\n"
            "tell how to mend that; the daemon is not needed",
            runIpList, [] {},
            "  gevctl ip list\n"
            "  gevctl ip list -i eth1 --json");
        discoveryOptions(list);
        CLI::App* const force = command(
            *group, "force",
            "Give a camera an address until its next start, wherever its own lies; 0.0.0.0 has it look for one anew.\n"
            "The daemon is not needed",
            runIpForce, [this] { takeForce(); },
            "  gevctl ip force 00:11:22:AA:BB:CC 192.168.7.20\n"
            "  gevctl ip force 00:11:22:AA:BB:CC 192.168.7.20/24 --gateway 192.168.7.1 -i eth1\n"
            "  gevctl ip force 00:11:22:AA:BB:CC 0.0.0.0");
        force->add_option("camera", options_.which, "MAC address, serial number, name or present address")
            ->type_name("CAMERA")
            ->required();
        force->add_option("address", addressText_, "The new address; without /PREFIX in the interface's subnet")
            ->type_name("ADDRESS[/PREFIX]")
            ->required();
        subnetOptions(force);
        force->add_flag("--anyway", options_.anyway, "Also an address that does not fit the interface");
        interfaceOption(force);
        waitOption(force);
        CLI::App* const show = command(
            *group, "show", "Show a camera's address, the one that it keeps, and how it comes by it", runIpShow, [] {},
            "  gevctl ip show -c 192.168.7.20");
        cameraOptions(show, true, {});
        CLI::App* const persistent = command(
            *group, "persistent", "Show the address that the camera keeps, or have it keep one and start with it",
            runIpPersistent, [this] { takePersistent(); },
            "  gevctl ip persistent -c 192.168.7.20\n"
            "  gevctl ip persistent -c 192.168.7.20 192.168.7.20/24\n"
            "  gevctl ip persistent -c 192.168.7.20 off");
        cameraOptions(persistent, true, "control to set");
        settingOption(persistent, "The address to keep; off or on: start without or with it", "ADDRESS/PREFIX|on|off");
        subnetOptions(persistent);
        CLI::App* const dhcp = command(
            *group, "dhcp", "Show whether the camera asks a DHCP server, or set it; on turns a persistent address off",
            runIpDhcp, [this] { takeSwitch("ip dhcp", true); },
            "  gevctl ip dhcp -c 192.168.7.20\n"
            "  gevctl ip dhcp -c 192.168.7.20 on");
        cameraOptions(dhcp, true, "control to set");
        settingOption(dhcp, "on or off", "on|off");
        CLI::App* const linkLocal = command(
            *group, "link-local",
            "Show the camera's way to an address, or have it choose one in 169.254.0.0/16: on turns a persistent\n"
            "address and DHCP off",
            runIpLinkLocal, [this] { takeSwitch("ip link-local", false); },
            "  gevctl ip link-local -c 192.168.7.20 on");
        cameraOptions(linkLocal, true, "control to set");
        settingOption(linkLocal, "on; cameras can't turn their last resort off", "on");
        CLI::App* const name = command(
            *group, "name", "Show or set the name that the user has given to the camera; \"\" takes it away", runIpName,
            [this] { takeSetting(); },
            "  gevctl ip name -c 192.168.7.20\n"
            "  gevctl ip name -c 192.168.7.20 \"Left arm\"");
        cameraOptions(name, true, "control to set");
        settingOption(name, "The new name, at most 16 bytes", "NAME");
    }

    void settingOption(CLI::App* sub, const std::string& help, const std::string& typeName)
    {
        sub->add_option_function<std::string>(
               "setting", [this](const std::string& value) { options_.setting = value; }, help)
            ->type_name(typeName);
    }

    void subnetOptions(CLI::App* sub)
    {
        text(
            sub, "--mask", "Subnet mask, in place of a prefix", [this](const std::string& value) { maskText_ = value; },
            "MASK");
        text(
            sub, "--gateway", "The way out of the subnet; default: none",
            [this](const std::string& value) { options_.ip.gateway = ipAddress(value, "--gateway"); }, "IP");
    }

    void takeAddress(const std::string& typed)
    {
        const std::uint32_t gateway = options_.ip.gateway;
        options_.ip = ipWithSubnet(typed);
        options_.ip.gateway = gateway;
        if (maskText_.empty())
            return;
        if (options_.ip.subnetMask != 0)
            throw CLI::ValidationError("--mask", "the address has a prefix already");
        options_.ip.subnetMask = ipAddress(maskText_, "--mask");
    }

    void takeForce()
    {
        takeAddress(addressText_);
        if (options_.ip.address == 0 && options_.ip != zuGevClient::IpAddress{})
            throw CLI::ValidationError("ADDRESS", "0.0.0.0 has neither subnet nor gateway");
        if (options_.anyway && options_.ip.address != 0 && options_.ip.subnetMask == 0)
            throw CLI::ValidationError("--anyway", "needs a subnet: ADDRESS/PREFIX or --mask");
    }

    /// To set anything takes control.
    void takeSetting()
    {
        if (options_.setting)
            orElse(LinkMode::control());
    }

    void takePersistent()
    {
        takeSetting();
        const bool isAddress = options_.setting && options_.setting != "on" && options_.setting != "off";
        if (isAddress)
            takeAddress(*options_.setting);
        if (isAddress && options_.ip.subnetMask == 0)
            throw CLI::ValidationError("ip persistent", "needs a subnet: ADDRESS/PREFIX or --mask");
        if (!isAddress && (options_.ip.gateway != 0 || !maskText_.empty()))
            throw CLI::ValidationError("ip persistent", "needs an address to a mask or a gateway");
    }

    void takeSwitch(const std::string& what, bool hasOff)
    {
        takeSetting();
        if (options_.setting && options_.setting != "on" && !(hasOff && options_.setting == "off"))
            throw CLI::ValidationError(what, "'" + *options_.setting + "' is not on" + (hasOff ? " or off" : ""));
    }

    CLI::App app_{"Talks to GigE Vision cameras through the daemon of this machine.", "gevctl"};
    Options options_;
    std::function<void()> finish_ = [] {};
    std::vector<std::string> words_;
    std::string addressText_;
    std::string maskText_;
    std::string sizeText_;
    std::string dataText_;
};

} // namespace

Parsed parseCommandLine(std::vector<std::string> arguments) { return Grammar().parse(std::move(arguments)); }

} // namespace gevctl
