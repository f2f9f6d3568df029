// The command line: what it takes, what it refuses, and that every command explains itself.
#include "tools/gevctl/commands.h"
#include "tools/gevctl/options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

namespace {

using namespace gevctl;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;
using zuGevClient::Endpoint;

Parsed parse(const std::string& line)
{
    std::istringstream words(line);
    std::vector<std::string> arguments;
    for (std::string word; words >> word;)
        arguments.push_back(word);
    return parseCommandLine(arguments);
}

Options good(const std::string& line)
{
    const Parsed parsed = parse(line);
    EXPECT_TRUE(parsed.options) << line << ": " << parsed.err;
    EXPECT_EQ(parsed.exitCode, exitSuccess);
    return parsed.options.value_or(Options());
}

void bad(const std::string& line, const std::string& complaint)
{
    const Parsed parsed = parse(line);
    EXPECT_FALSE(parsed.options) << line;
    EXPECT_EQ(parsed.exitCode, exitUsage) << line;
    EXPECT_EQ(parsed.out, "") << line;
    EXPECT_THAT(parsed.err, HasSubstr(complaint)) << line;
}

TEST(OptionsTest, registers)
{
    const Options read = good("reg read -c 127.0.15.1 0x0A00 16");
    EXPECT_EQ(read.command, &runReadRegisters);
    EXPECT_EQ(read.camera, (Endpoint{0x7F000F01, 3956}));
    EXPECT_THAT(read.addresses, ElementsAre(0x0A00, 16));
    EXPECT_FALSE(read.access);

    const Options write = good("reg write 4 0xFFFFFFFF 8 1 --camera 127.0.15.1:4000");
    EXPECT_EQ(write.command, &runWriteRegisters);
    EXPECT_EQ(write.camera, (Endpoint{0x7F000F01, 4000}));
    EXPECT_THAT(write.writes, ElementsAre(Pair(4, 0xFFFFFFFF), Pair(8, 1)));
    EXPECT_EQ(write.access->value(), zuGevClient::LinkMode::control().value());

    bad("reg read 4", "--camera is required");
    bad("reg read -c 127.0.15.1", "address");
    bad("reg read -c 127.0.15 4", "'127.0.15' is no IPv4 address");
    bad("reg read -c 127.0.15.1 4 x", "'x' is no number");
    bad("reg read -c 127.0.15.1 0x100000000", "is no number");
    bad("reg write -c 127.0.15.1 4", "each address needs a value");
    bad("reg write -c 127.0.15.1 4 5 6", "each address needs a value");
    bad("reg", "subcommand");
}

TEST(OptionsTest, memory)
{
    const Options read = good("mem read -c 127.0.15.1 0x10000 2k -o out.bin -q");
    EXPECT_EQ(read.command, &runReadMemory);
    EXPECT_EQ(read.address, 0x10000u);
    EXPECT_EQ(read.size, 2048u);
    EXPECT_EQ(read.file, "out.bin");
    EXPECT_TRUE(read.quiet);
    EXPECT_EQ(good("mem read -c 127.0.15.1 0xFFFFFFFF 1").size, 1u);
    bad("mem read -c 127.0.15.1 0xFFFFFFFF 2", "'2' is no length");
    bad("mem read -c 127.0.15.1 4", "length");

    const Options file = good("mem write -c 127.0.15.1 8 in.bin --verify");
    EXPECT_EQ(file.command, &runWriteMemory);
    EXPECT_EQ(file.file, "in.bin");
    EXPECT_TRUE(file.verify);
    EXPECT_TRUE(file.access->isPrivileged());
    EXPECT_THAT(good("mem write -c 127.0.15.1 8 -d 0102ff").data, ElementsAre(1, 2, 0xFF));
    bad("mem write -c 127.0.15.1 8", "needs a FILE or --data");
    bad("mem write -c 127.0.15.1 8 in.bin -d 01", "needs a FILE or --data");
    bad("mem write -c 127.0.15.1 8 -d 0", "hexadecimal digits");
}

TEST(OptionsTest, accessModes)
{
    using zuGevClient::LinkMode;
    EXPECT_EQ(good("info -c 1.2.3.4 -a monitor").access->value(), LinkMode::monitor().value());
    EXPECT_EQ(good("info -c 1.2.3.4 -a exclusive").access->value(), LinkMode::exclusive().value());
    EXPECT_EQ(good("watch -c 1.2.3.4").access->value(), LinkMode::control().value());
    EXPECT_EQ(good("check -c 1.2.3.4 -a switchover:0x12").access->value(), LinkMode::switchover(0x12).value());
    bad("info -c 1.2.3.4 -a all", "'all' is none of");
    bad("info -c 1.2.3.4 -a switchover:65536", "is none of");
    bad("info -c 1.2.3.4 -a switchover:", "is none of");
}

TEST(OptionsTest, timeoutsAndWatch)
{
    EXPECT_EQ(good("timeouts get -c 1.2.3.4").command, &runTimeouts);
    const Options set = good("timeouts set -c 1.2.3.4 --heartbeat 0 --ack-timeout 500 --retries 5");
    EXPECT_EQ(set.command, &runTimeouts);
    EXPECT_EQ(set.heartbeatMs, 0u);
    EXPECT_EQ(set.ackTimeoutMs, 500u);
    EXPECT_EQ(set.retries, 5u);
    EXPECT_TRUE(set.access->isPrivileged());
    bad("timeouts set -c 1.2.3.4", "nothing to set");
    bad("timeouts set -c 1.2.3.4 --retries 0", "from 1");
    bad("timeouts set -c 1.2.3.4 --ack-timeout 0", "from 1");
    EXPECT_EQ(good("watch -c 1.2.3.4 --for 100").durationMs, 100u);
}

TEST(OptionsTest, discoverAndStatus)
{
    const Options discover =
        good("discover -i eth0 -i 10.0.0.1 --address 127.0.15.1 --address 1.2.3.4:99 -w 50 --json");
    EXPECT_EQ(discover.command, &runDiscover);
    EXPECT_THAT(discover.interfaces, ElementsAre("eth0", "10.0.0.1"));
    EXPECT_THAT(discover.unicastTargets, ElementsAre(Endpoint{0x7F000F01, 3956}, Endpoint{0x01020304, 99}));
    EXPECT_EQ(discover.waitMs, 50u);
    EXPECT_TRUE(discover.json);
    EXPECT_FALSE(good("status").camera);
    EXPECT_TRUE(good("status -c 1.2.3.4").camera);
    EXPECT_TRUE(good("--json status").json);
    EXPECT_TRUE(good("xml -c 1.2.3.4 --raw").raw);
    EXPECT_TRUE(good("xml -c 1.2.3.4 --url").urlOnly);
}

TEST(OptionsTest, addresses)
{
    using zuGevClient::IpAddress;
    EXPECT_EQ(good("ip list -i eth0 --address 1.2.3.4 -w 50").command, &runIpList);
    const Options force = good("ip force 00:11:22:AA:BB:CC 192.168.7.20 -i eth0 -w 50 --anyway --mask 255.255.0.0");
    EXPECT_EQ(force.command, &runIpForce);
    EXPECT_EQ(force.which, "00:11:22:AA:BB:CC");
    EXPECT_EQ(force.ip, (IpAddress{0xC0A80714, 0xFFFF0000, 0}));
    EXPECT_THAT(force.interfaces, ElementsAre("eth0"));
    EXPECT_EQ(force.waitMs, 50u);
    EXPECT_TRUE(force.anyway);
    EXPECT_EQ(good("ip force Left 192.168.7.20").ip, (IpAddress{0xC0A80714, 0, 0}));
    EXPECT_EQ(good("ip force Left 192.168.7.20/24 --gateway 192.168.7.1").ip,
              (IpAddress{0xC0A80714, 0xFFFFFF00, 0xC0A80701}));
    EXPECT_EQ(good("ip force Left 192.168.7.20/32").ip.subnetMask, 0xFFFFFFFFu);
    EXPECT_EQ(good("ip force Left 192.168.7.20/1").ip.subnetMask, 0x80000000u);
    EXPECT_EQ(good("ip force Left 192.168.7.20/255.255.255.128").ip.subnetMask, 0xFFFFFF80u);
    EXPECT_EQ(good("ip force Left 0.0.0.0").ip, IpAddress{});
    bad("ip force Left", "address");
    bad("ip force Left 192.168.7", "'192.168.7' is no IPv4 address");
    bad("ip force Left 192.168.7.20:80", "is no IPv4 address");
    bad("ip force Left 192.168.7.20/33", "'33' is no IPv4 address");
    bad("ip force Left 192.168.7.20/24 --mask 255.0.0.0", "has a prefix already");
    bad("ip force Left 0.0.0.0/24", "0.0.0.0 has neither");
    bad("ip force Left 192.168.7.20 --anyway", "needs a subnet");

    EXPECT_EQ(good("ip show -c 1.2.3.4").command, &runIpShow);
    EXPECT_FALSE(good("ip persistent -c 1.2.3.4").setting);
    EXPECT_FALSE(good("ip persistent -c 1.2.3.4").access); // to look takes nothing
    const Options keep = good("ip persistent -c 1.2.3.4 192.168.7.20/24 --gateway 192.168.7.1");
    EXPECT_EQ(keep.command, &runIpPersistent);
    EXPECT_EQ(keep.ip, (IpAddress{0xC0A80714, 0xFFFFFF00, 0xC0A80701}));
    EXPECT_EQ(keep.access->value(), zuGevClient::LinkMode::control().value());
    EXPECT_EQ(good("ip persistent -c 1.2.3.4 off").setting, "off");
    bad("ip persistent -c 1.2.3.4 192.168.7.20", "needs a subnet");
    bad("ip persistent -c 1.2.3.4 maybe", "'maybe' is no IPv4 address");
    bad("ip persistent -c 1.2.3.4 on --gateway 1.2.3.1", "needs an address");

    EXPECT_EQ(good("ip dhcp -c 1.2.3.4 on").command, &runIpDhcp);
    EXPECT_EQ(good("ip dhcp -c 1.2.3.4 off").setting, "off");
    bad("ip dhcp -c 1.2.3.4 perhaps", "'perhaps' is not on or off");
    EXPECT_EQ(good("ip link-local -c 1.2.3.4 on").command, &runIpLinkLocal);
    bad("ip link-local -c 1.2.3.4 off", "'off' is not on");
    EXPECT_EQ(good("ip name -c 1.2.3.4 Left").setting, "Left");
    EXPECT_EQ(good("ip name -c 1.2.3.4").command, &runIpName);
    const Parsed empty = parseCommandLine({"ip", "name", "-c", "1.2.3.4", ""});
    ASSERT_TRUE(empty.options) << empty.err;
    EXPECT_EQ(empty.options->setting, "");
    bad("ip", "subcommand");
    bad("ip show", "--camera is required");
}

TEST(OptionsTest, usage)
{
    bad("", "subcommand");
    bad("dance", "");
    bad("status --nonsense", "--nonsense");
    bad("info", "--camera is required");
}

TEST(OptionsTest, everyCommandHasHelpWithExamples)
{
    for (const char* const command :
         {"",         "discover", "info",          "reg read",     "reg write",     "mem read", "mem write",
          "xml",      "watch",    "timeouts get",  "timeouts set", "status",        "check",    "ip list",
          "ip force", "ip show",  "ip persistent", "ip dhcp",      "ip link-local", "ip name"}) {
        const Parsed parsed = parse(std::string(command) + " --help");
        EXPECT_FALSE(parsed.options) << command;
        EXPECT_EQ(parsed.exitCode, exitSuccess) << command;
        EXPECT_EQ(parsed.err, "") << command;
        EXPECT_THAT(parsed.out, HasSubstr("Examples:\n  gevctl " + std::string(*command ? command : "discover")))
            << command;
    }
}

} // namespace
