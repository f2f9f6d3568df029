// The program as a process: options, signals, exit statuses, one at a time, taking over from a dead one, viewers.
#include "tests/support/child_process.h"
#include "tests/unit/zuLogSvc/support.h"

#include "platform/shared_memory.h"
#include "tools/zuLogSvc/connection_block.h"
#include "tools/zuLogSvc/protocol.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <optional>

namespace {

using namespace zuLogSvc;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
using zuTest::ChildProcess;
using zuTest::eventually;
using zuTest::someMessage;

/// The log service, as a user starts it.
struct Program : ChildProcess {
    explicit Program(std::vector<std::string> arguments, Output output = Output::apart)
        : ChildProcess(command(std::move(arguments)), output)
    {
        closeInput();
    }
    static std::vector<std::string> command(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), zuTest::builtProgram("zuLogSvc"));
        return arguments;
    }
};

constexpr const char* started = "zuLogSvc [info] log service started, commands at 127.0.0.1:";

class ProgramTest : public ::testing::Test {
protected:
    ProgramTest() { zuPlatform::setObjectNamePrefixForTesting(prefix); }
    ~ProgramTest() override
    {
        zuPlatform::SharedMemory::remove(connectionBlockName);
        zuPlatform::SharedMemory::remove(instanceMutexName);
        zuPlatform::setObjectNamePrefixForTesting("");
    }
    std::vector<std::string> arguments(std::vector<std::string> more) const
    {
        more.insert(more.end(), {"--name-prefix", prefix});
        return more;
    }
    int run(std::vector<std::string> more, std::string* errors = nullptr, std::string* output = nullptr) const
    {
        const zuTest::Finished finished =
            zuTest::runCommand(Program::command(arguments(std::move(more))), zuTest::patience, Program::Output::apart);
        if (output != nullptr)
            *output = finished.output;
        if (errors != nullptr)
            *errors = finished.errors;
        return finished.end.exited ? finished.end.status : -1;
    }
    /// Sends one message to the service that is published.
    void send(const LogMessage& message)
    {
        std::optional<Endpoints> where;
        ASSERT_TRUE(eventually([&] { return (where = readConnectionBlock()).has_value(); }));
        if (!socket) {
            socket = zuPlatform::DatagramSocket::open();
            ASSERT_NE(socket, nullptr);
        }
        const Packet packet = zuTest::datagramOf(message);
        socket->sendTo(packet.data(), packet.size(), where->message);
    }
    std::string reply()
    {
        const auto where = readConnectionBlock();
        const auto asking = zuPlatform::DatagramSocket::open();
        if (!where || !asking)
            return "no service";
        const Packet packet = encodeCommand(cmdGetConfiguration, 1, R"({"module":"GEVSVC","process":"zuGevSvc"})");
        asking->sendTo(packet.data(), packet.size(), where->command);
        std::uint8_t buffer[1400];
        const auto result = asking->receive(buffer, sizeof buffer, 60000, nullptr);
        CommandPacket answer;
        if (result.count < 0 ||
            decodeAcknowledge(Bytes(buffer, static_cast<std::size_t>(result.count)), answer) != nullptr)
            return "no answer";
        return std::string(answer.payload);
    }

    const std::string prefix = zuTest::uniquePrefix();
    zuTest::TemporaryFolder folder;
    std::shared_ptr<zuPlatform::DatagramSocket> socket;
};

TEST_F(ProgramTest, WritesLinesToStandardOutputAndEndsOnSigterm)
{
    Program program(arguments({"--show", "process,location"}));
    ASSERT_TRUE(program.waitForOutput(started));
    send(someMessage("No destination for SendTo."));
    EXPECT_TRUE(program.waitForOutput(
        "2026-Nov-12 10:58:49.123456 GEVSVC.Conn.0 [IPConnection|warn] No destination for SendTo. "
        "{pid 812, src/SockConnection.cpp(77)}\n"));
    program.signal(SIGTERM);
    EXPECT_EQ(program.exitStatus(), 0);
    EXPECT_THAT(program.output(), HasSubstr("zuLogSvc [info] log service ends; messages so far: 1"));
    EXPECT_EQ(program.errors(), "");
    EXPECT_FALSE(readConnectionBlock());
}

TEST_F(ProgramTest, EndsOnCtrlCAndOnHangUpWithoutSettings)
{
    for (const int number : {SIGINT, SIGHUP}) {
        Program program(arguments({}));
        ASSERT_TRUE(program.waitForOutput(started));
        ASSERT_TRUE(eventually([] { return readConnectionBlock().has_value(); }));
        program.signal(number);
        EXPECT_EQ(program.exitStatus(), 0) << number;
        EXPECT_FALSE(readConnectionBlock());
    }
}

TEST_F(ProgramTest, WritesJsonLines)
{
    Program program(arguments({"--json"}));
    send(someMessage("t"));
    EXPECT_TRUE(
        program.waitForOutput(R"({"time":"2026-11-12T10:58:49.123456","logger":"GEVSVC.Conn.0","level":"warn",)"));
}

TEST_F(ProgramTest, ColoursOnlyWhenAskedToWhereNobodyLooks)
{
    Program plain(arguments({}));
    send(someMessage("t"));
    EXPECT_TRUE(plain.waitForOutput("\n2026-Nov-12 10:58:49.123456 GEVSVC.Conn.0 [IPConnection|warn] t\n"));
    plain.signal(SIGTERM);
    EXPECT_EQ(plain.exitStatus(), 0);
    Program coloured(arguments({"--colour", "always"}));
    ASSERT_TRUE(coloured.waitForOutput(started));
    send(someMessage("t"));
    EXPECT_TRUE(
        coloured.waitForOutput("\x1b[93m2026-Nov-12 10:58:49.123456 GEVSVC.Conn.0 [IPConnection|warn] t\x1b[0m\n"));
}

TEST_F(ProgramTest, ASecondOneIsRefused)
{
    Program first(arguments({}));
    ASSERT_TRUE(first.waitForOutput(started));
    ASSERT_TRUE(eventually([] { return readConnectionBlock().has_value(); }));
    const auto where = readConnectionBlock();
    std::string errors;
    EXPECT_EQ(run({}, &errors), 3);
    EXPECT_THAT(errors, HasSubstr("a log service is running already"));
    EXPECT_EQ(readConnectionBlock(), where);
    EXPECT_TRUE(first.running());
    send(someMessage("the first still works"));
    EXPECT_TRUE(first.waitForOutput("the first still works"));
}

TEST_F(ProgramTest, TakesOverFromOneThatWasKilled)
{
    Endpoints before;
    {
        Program first(arguments({}));
        ASSERT_TRUE(first.waitForOutput(started));
        ASSERT_TRUE(eventually([] { return readConnectionBlock().has_value(); }));
        before = *readConnectionBlock();
        first.signal(SIGKILL);
        EXPECT_EQ(first.exitStatus(), -1);
    }
    EXPECT_EQ(readConnectionBlock(), before); // left behind
    Program second(arguments({"--command-port", "0"}));
    ASSERT_TRUE(second.waitForOutput(started));
    ASSERT_TRUE(eventually([&] { return readConnectionBlock().has_value() && readConnectionBlock() != before; }));
    send(someMessage("to the second"));
    EXPECT_TRUE(second.waitForOutput("to the second"));
}

TEST_F(ProgramTest, WrongOptionsAreAUsageError)
{
    const std::vector<std::vector<std::string>> wrong = {
        {"--bogus"},
        {"stray"},
        {"--check-config"},
        {"--level", "warn"},
        {"--wait"},
        {"--follow", "--config", "x"},
        {"--follow", "--level", "INFO"},
        {"--show", "pid"},
        {"--colour", "maybe"},
        {"--command-port", "70000"},
        {"--command-port", "5", "--message-port", "5"},
    };
    for (const auto& options : wrong) {
        std::string errors;
        EXPECT_EQ(run(options, &errors), 2) << options[0];
        EXPECT_THAT(errors, HasSubstr("--help")) << options[0];
    }
}

TEST_F(ProgramTest, HelpAndVersion)
{
    std::string output;
    EXPECT_EQ(run({"--help"}, nullptr, &output), 0);
    for (const char* word : {"--config", "--follow", "--check-config", "Examples:", "Exit status:", "SIGHUP"})
        EXPECT_THAT(output, HasSubstr(word));
    EXPECT_THAT(output, Not(HasSubstr("--name-prefix")));
    EXPECT_EQ(run({"--version"}, nullptr, &output), 0);
    EXPECT_THAT(output, ::testing::MatchesRegex("zuLogSvc [0-9]+\\.[0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

TEST_F(ProgramTest, CheckConfigSaysWhatIsWrong)
{
    const std::string file = folder.file("settings.json");
    zuTest::writeFile(file, "{\"rules\": [\n {\"destination\": \"logsvc\",\n  \"level\": \"INFO\"}]}");
    std::string errors, output;
    EXPECT_EQ(run({"--check-config", "--config", file}, &errors), 4);
    EXPECT_THAT(errors, StartsWith(file + ":3: /rules/0/level: unknown level \"INFO\""));
    zuTest::writeFile(file, "{\"rules\": [\n {]}");
    EXPECT_EQ(run({"--check-config", "--config", file}, &errors), 4);
    EXPECT_THAT(errors, StartsWith(file + ":2:3: no valid JSON: "));
    EXPECT_EQ(run({"--check-config", "--config", folder.file("missing")}, &errors), 4);
    EXPECT_THAT(errors, HasSubstr("missing: cannot be read"));
    zuTest::writeFile(file, "{\"rules\": [{\"destination\": \"logsvc\", \"level\": \"info\"}]}");
    EXPECT_EQ(run({"--check-config", "--config", file}, nullptr, &output), 0);
    EXPECT_EQ(output, file + ": good, 1 rules, 1 outputs\n");
}

TEST_F(ProgramTest, DoesNotStartWithWrongSettings)
{
    const std::string file = folder.file("settings.json");
    zuTest::writeFile(file, "{\"bogus\": 1}");
    std::string errors;
    EXPECT_EQ(run({"--config", file}, &errors), 4);
    EXPECT_THAT(errors, HasSubstr(file + ":1: /bogus: unknown key"));
    EXPECT_FALSE(readConnectionBlock());
    zuTest::writeFile(file, R"({"outputs": [{"type": "file", "path": ")" + folder.file("no/log") + R"("}]})");
    EXPECT_EQ(run({"--config", file}, &errors), 1);
    EXPECT_THAT(errors, HasSubstr("no/log: cannot be opened: No such file or directory"));
    EXPECT_FALSE(readConnectionBlock());
}

TEST_F(ProgramTest, ReadsItsSettingsAgainOnSighup)
{
    const std::string file = folder.file("settings.json");
    const auto rule = [](const std::string& level) {
        return R"({"rules": [{"module": "GEVSVC", "destination": "logsvc", "level": ")" + level + "\"}]}";
    };
    zuTest::writeFile(file, rule("warn"));
    Program program(arguments({"--config", file}));
    ASSERT_TRUE(program.waitForOutput(started));
    ASSERT_TRUE(eventually([] { return readConnectionBlock().has_value(); }));
    EXPECT_EQ(reply(), R"({"destination":"logsvc","level":"warn"})");
    zuTest::writeFile(file, rule("debug"));
    program.signal(SIGHUP);
    ASSERT_TRUE(program.waitForOutput("settings read again: 1 rules, 1 outputs"));
    EXPECT_EQ(reply(), R"({"destination":"logsvc","level":"debug"})");

    zuTest::writeFile(file, rule("DEBUG"));
    program.signal(SIGHUP);
    ASSERT_TRUE(program.waitForOutput("the settings stay as they were"));
    EXPECT_THAT(program.output(), HasSubstr("zuLogSvc [err] " + file + ":1: /rules/0/level: unknown level \"DEBUG\""));
    EXPECT_TRUE(program.waitForErrors("zuLogSvc: " + file + ":1: /rules/0/level: unknown level \"DEBUG\""));
    EXPECT_EQ(reply(), R"({"destination":"logsvc","level":"debug"})");
    program.signal(SIGTERM);
    EXPECT_EQ(program.exitStatus(), 0);
}

TEST_F(ProgramTest, WritesToTheFilesOfItsSettings)
{
    const std::string file = folder.file("settings.json");
    zuTest::writeFile(file, R"({"outputs": [{"type": "file", "path": ")" + folder.file("log") +
                                R"(", "show": ["thread"]},)" + R"({"type": "file", "path": ")" + folder.file("json") +
                                R"(", "format": "json"}]})");
    Program program(arguments({"--config", file}));
    send(someMessage("hello"));
    EXPECT_TRUE(eventually([&] {
        return zuTest::readFile(folder.file("log")).find("[IPConnection|warn] hello {tid 815}\n") !=
                   std::string::npos &&
               zuTest::readFile(folder.file("json")).find(R"("text":"hello","process":812)") != std::string::npos;
    }));
    program.signal(SIGTERM);
    EXPECT_EQ(program.exitStatus(), 0);
    EXPECT_EQ(program.output(), "");
}

TEST_F(ProgramTest, FollowsTheRunningService)
{
    Program service(arguments({}));
    ASSERT_TRUE(service.waitForOutput(started));
    Program viewer(
        arguments({"--follow", "--level", "warn", "--logger", "Conn", "--group", "IP*", "--show", "thread"}));
    std::uint64_t number = 0;
    ASSERT_TRUE(eventually([&] {
        LogMessage other = someMessage("not to be seen", ++number);
        other.logger = "GEVSVC.GVCP.0";
        send(other);
        send(someMessage("to be seen", ++number));
        return viewer.output().find("GEVSVC.Conn.0 [IPConnection|warn] to be seen {tid 815}\n") != std::string::npos;
    }));
    EXPECT_THAT(viewer.output(), Not(HasSubstr("not to be seen")));
    viewer.signal(SIGINT);
    EXPECT_EQ(viewer.exitStatus(), 0);
    EXPECT_TRUE(service.running());
    service.signal(SIGTERM);
    EXPECT_EQ(service.exitStatus(), 0);
}

TEST_F(ProgramTest, FollowWithoutAServiceSaysSo)
{
    std::string errors;
    EXPECT_EQ(run({"--follow"}, &errors), 5);
    EXPECT_THAT(errors, HasSubstr("no log service is running"));
}

TEST_F(ProgramTest, AViewerWhoseReaderGoesAwayEnds)
{
    Program service(arguments({}));
    ASSERT_TRUE(service.waitForOutput(started));
    Program viewer(arguments({"--follow"}), Program::Output::unread);
    viewer.closeOutput();
    std::uint64_t number = 0;
    EXPECT_TRUE(eventually([&] {
        send(someMessage("t", ++number));
        return !viewer.running();
    }));
    EXPECT_EQ(viewer.exitStatus(), 0);
}

TEST_F(ProgramTest, AServiceWhoseOutputIsStuckStillAnswersAndEnds)
{
    Program program(arguments({}), Program::Output::unread);
    ASSERT_TRUE(eventually([] { return readConnectionBlock().has_value(); }));
    // More than a pipe takes: the writing thread now stands still.
    for (std::uint64_t i = 1; i <= 3000; ++i)
        send(someMessage(std::string(500, 'x'), i));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(reply(), R"({"destination":"logsvc","level":"info"})");
    program.signal(SIGTERM);
    EXPECT_EQ(program.exitStatus(), 1);
    EXPECT_TRUE(program.waitForErrors("an output takes no more"));
    EXPECT_FALSE(readConnectionBlock());
}

TEST_F(ProgramTest, WhatAFullDiskNeverTookIsAFailureAtTheEnd)
{
    const std::string file = folder.file("settings.json");
    zuTest::writeFile(file, R"({"outputs": [{"type": "file", "path": "/dev/full"}, {"type": "stdout"}]})");
    Program program(arguments({"--config", file}));
    ASSERT_TRUE(program.waitForOutput(started));
    send(someMessage("shown elsewhere"));
    ASSERT_TRUE(program.waitForOutput("shown elsewhere"));
    program.signal(SIGTERM);
    EXPECT_EQ(program.exitStatus(), 1);
    // The start, the message, the trouble, the end.
    EXPECT_TRUE(program.waitForErrors("zuLogSvc: 4 lines lost, the latest at /dev/full")) << program.errors();
    EXPECT_THAT(program.output(), HasSubstr("zuLogSvc [warn] 4 lines lost, the latest at /dev/full\n"));
    EXPECT_FALSE(readConnectionBlock());
}

TEST_F(ProgramTest, ABlockThatIsCutShortEndsNothing)
{
    Program program(arguments({}));
    ASSERT_TRUE(program.waitForOutput(started));
    ASSERT_TRUE(eventually([] { return readConnectionBlock().has_value(); }));
    send(someMessage("before the end"));
    ASSERT_TRUE(program.waitForOutput("before the end\n"));
    std::filesystem::resize_file("/dev/shm/" + prefix + "Global.zuLogSvcConnectionInfo", 0);
    program.signal(SIGTERM);
    EXPECT_EQ(program.exitStatus(), 0);
    EXPECT_THAT(program.output(), HasSubstr("before the end\n"));
    EXPECT_THAT(program.output(), HasSubstr("zuLogSvc [info] log service ends; messages so far: 1\n"));
}

TEST_F(ProgramTest, AServiceWhoseOutputGoesAwayStays)
{
    const std::string file = folder.file("settings.json");
    zuTest::writeFile(file,
                      R"({"outputs": [{"type": "stdout"}, {"type": "file", "path": ")" + folder.file("log") + "\"}]}");
    Program program(arguments({"--config", file}), Program::Output::unread);
    ASSERT_TRUE(eventually([] { return readConnectionBlock().has_value(); }));
    program.closeOutput();
    std::uint64_t number = 0;
    EXPECT_TRUE(eventually([&] {
        send(someMessage("t", ++number));
        return zuTest::readFile(folder.file("log"))
                   .find("zuLogSvc [warn] standard output: cannot write: Broken pipe") != std::string::npos;
    }));
    EXPECT_TRUE(program.waitForErrors("zuLogSvc: standard output: cannot write: Broken pipe"));
    EXPECT_TRUE(program.running());
    program.signal(SIGTERM);
    EXPECT_EQ(program.exitStatus(), 0);
}

} // namespace
