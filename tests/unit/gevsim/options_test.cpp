// The program's command line, and its lines that go beyond those of a camera.
#include "tests/unit/gevsim/client.h"

#include "tools/gevsim/options.h"
#include "tools/gevsim/script.h"
#include "tools/gevsim/session.h"

using namespace gevsimTest;
using gevsim::Options;
using gevsim::ScriptError;
using gevsim::Session;
using gevsim::UsageError;
namespace region = gevsim::region;

namespace {

Options parse(std::vector<const char*> words)
{
    words.insert(words.begin(), "gevsim");
    return gevsim::parseOptions(static_cast<int>(words.size()), words.data());
}

Options twoCameras()
{
    Options options = parse({"-a", "127.0.13.50", "-n", "2", "-p", "0", "--no-broadcast"});
    return options;
}

} // namespace

TEST(CommandLine, Defaults)
{
    const Options options = parse({});
    EXPECT_EQ(options.camera.endpoint.text(), "127.0.0.1:3956");
    EXPECT_TRUE(options.camera.broadcastDiscovery);
    EXPECT_EQ(options.camera.heartbeatTimeoutMs, 3000U);
    EXPECT_EQ(options.camera.memorySize, 1024U * 1024);
    EXPECT_TRUE(options.camera.writesNeedControl);
    EXPECT_FALSE(options.camera.recording);
    EXPECT_FALSE(options.camera.strictWriteMem);
    EXPECT_EQ(options.camera.sensorWidth, 640U);
    EXPECT_EQ(options.camera.sensorHeight, 480U);
    EXPECT_EQ(options.camera.linkSpeed, 1000U);
    EXPECT_EQ(options.camera.resendFrames, 8U);
    EXPECT_FALSE(options.camera.extendedIds);
    EXPECT_FALSE(options.camera.keepsStream);
    EXPECT_FALSE(options.trace);
    EXPECT_TRUE(options.input);
    EXPECT_FALSE(options.endWithInput);
    EXPECT_EQ(options.count, 1U);
    EXPECT_TRUE(options.commands.empty());
}

TEST(CommandLine, EveryOption)
{
    const Options options = parse({"-a",
                                   "127.0.13.9",
                                   "-p",
                                   "4000",
                                   "-n",
                                   "3",
                                   "--no-broadcast",
                                   "--manufacturer",
                                   "M",
                                   "--model",
                                   "O",
                                   "--serial",
                                   "S",
                                   "--user-name",
                                   "U",
                                   "--mac",
                                   "02:aB:00:00:00:0f",
                                   "--memory",
                                   "64",
                                   "--heartbeat",
                                   "0",
                                   "--sensor",
                                   "1024x768",
                                   "--link-speed",
                                   "0",
                                   "--resend-frames",
                                   "20",
                                   "--extended-ids",
                                   "--keep-stream",
                                   "--zip",
                                   "--free-writes",
                                   "--strict",
                                   "-x",
                                   "drop 1",
                                   "--execute",
                                   "busy",
                                   "--seed",
                                   "9",
                                   "-t",
                                   "--exit-on-eof"});
    EXPECT_EQ(options.camera.endpoint.text(), "127.0.13.9:4000");
    EXPECT_EQ(options.count, 3U);
    EXPECT_FALSE(options.camera.broadcastDiscovery);
    EXPECT_EQ(options.camera.manufacturer, "M");
    EXPECT_EQ(options.camera.model, "O");
    EXPECT_EQ(options.camera.serial, "S");
    EXPECT_EQ(options.camera.userName, "U");
    EXPECT_EQ(options.camera.mac, 0x02AB0000000FU);
    EXPECT_EQ(options.camera.memorySize, 64U * 1024);
    EXPECT_EQ(options.camera.heartbeatTimeoutMs, 0U);
    EXPECT_EQ(options.camera.sensorWidth, 1024U);
    EXPECT_EQ(options.camera.sensorHeight, 768U);
    EXPECT_EQ(options.camera.linkSpeed, 0U);
    EXPECT_EQ(options.camera.resendFrames, 20U);
    EXPECT_TRUE(options.camera.extendedIds);
    EXPECT_TRUE(options.camera.keepsStream);
    EXPECT_TRUE(options.camera.zippedXml);
    EXPECT_FALSE(options.camera.writesNeedControl);
    EXPECT_TRUE(options.camera.strictWriteMem);
    EXPECT_EQ(options.commands, (std::vector<std::string>{"drop 1", "busy"}));
    EXPECT_EQ(options.camera.seed, 9U);
    EXPECT_TRUE(options.trace);
    EXPECT_TRUE(options.endWithInput);
}

TEST(CommandLine, Mistakes)
{
    const std::vector<std::vector<const char*>> lines = {{"--nonsense"},
                                                         {"word"},
                                                         {"-a", "x"},
                                                         {"-a"},
                                                         {"-p", "65536"},
                                                         {"-p", "-1"},
                                                         {"-p", "x"},
                                                         {"-n", "0"},
                                                         {"--memory", "262145"},
                                                         {"--heartbeat", "-1"},
                                                         {"--sensor", "640"},
                                                         {"--sensor", "642x480"},
                                                         {"--sensor", "640x480x3"},
                                                         {"--sensor", "16388x480"},
                                                         {"--sensor", "x"},
                                                         {"--link-speed", "-1"},
                                                         {"--resend-frames", "0"},
                                                         {"--mac", "02:00"},
                                                         {"--mac", "02-00-00-00-00-00"},
                                                         {"--mac", "0g:00:00:00:00:00"},
                                                         {"--exit-on-eof", "--no-input"},
                                                         {"-a", "255.255.255.255", "-n", "2"}};
    for (const auto& line : lines)
        EXPECT_THROW(parse(line), UsageError) << line[0] << " " << (line.size() > 1 ? line[1] : "");
}

TEST(CommandLine, HelpTeaches)
{
    const std::string help = gevsim::helpText();
    for (const char* part : {"--address", "--port", "--execute", "--trace", "--exit-on-eof", "Examples", "Exit status",
                             "power-cycle", "pending T", "0x00010000", "trace on|off", "quit"})
        EXPECT_NE(help.find(part), std::string::npos) << part;
    EXPECT_TRUE(parse({"--help"}).help);
    EXPECT_TRUE(parse({"--version"}).version);
}

TEST(Sessions, LinesGoToAllCamerasOrToOne)
{
    Session session(twoCameras());
    ASSERT_EQ(session.cameras().size(), 2U);
    EXPECT_EQ(session.cameras()[0]->ip(), 0x7F000D32U);
    EXPECT_EQ(session.cameras()[1]->ip(), 0x7F000D33U);
    EXPECT_EQ(session.execute("write 0x10000 7"), "");
    EXPECT_EQ(session.execute("read 0x10000"), "0x00000007");
    EXPECT_EQ(session.execute("@2 write 0x10000 8"), "");
    EXPECT_EQ(session.execute("@1 read 0x10000"), "0x00000007");
    EXPECT_EQ(session.execute("read 0x10000"), session.cameras()[0]->endpoint().text() + ": 0x00000007\n" +
                                                   session.cameras()[1]->endpoint().text() + ": 0x00000008");
    EXPECT_EQ(session.execute("@2 drop"), "");
    EXPECT_TRUE(session.cameras()[0]->faults().empty());
    EXPECT_EQ(session.cameras()[1]->faults().size(), 1U);
}

TEST(Sessions, TheWordsOfTheProgram)
{
    Session session(twoCameras());
    EXPECT_EQ(session.execute("trace on"), "");
    EXPECT_EQ(session.execute("trace off"), "");
    EXPECT_FALSE(session.ended());
    for (const char* line :
         {"@0 drop", "@3 drop", "@x drop", "@ drop", "trace", "trace maybe", "trace on on", "@1 nonsense"})
        EXPECT_THROW(session.execute(line), ScriptError) << line;
    EXPECT_EQ(session.execute("quit"), "");
    EXPECT_TRUE(session.ended());
}

TEST(Sessions, CommandsOfTheCommandLineAreExecutedOrRefusedAtOnce)
{
    Options options = twoCameras();
    options.commands = {"write 0x10000 5", "@2 drop 3"};
    Session session(options);
    EXPECT_EQ(session.execute("read 0x10000"), "0x00000005");
    EXPECT_EQ(session.cameras()[1]->faults().size(), 1U);
    options.commands = {"write 0x10000 5", "nonsense"};
    EXPECT_THROW(Session{options}, ScriptError);
}

TEST(Sessions, EachCameraIsItsOwn)
{
    Options options = twoCameras();
    options.camera.mac = 0x020000000001;
    Session session(options);
    EXPECT_EQ(session.cameras()[0]->readRegister(gevsim::reg::macLow), 1U);
    EXPECT_EQ(session.cameras()[1]->readRegister(gevsim::reg::macLow), 2U);
    EXPECT_NE(session.cameras()[0]->readMemory(gevsim::reg::serialNumber, 16),
              session.cameras()[1]->readMemory(gevsim::reg::serialNumber, 16));
}
