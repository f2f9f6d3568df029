// The program as a process: exit codes, what it prints, its standard input, its end.
#include "tests/support/child_process.h"
#include "tests/unit/gevsim/client.h"

#include <csignal>

using namespace gevsimTest;

namespace {

struct Process : zuTest::ChildProcess {
    explicit Process(std::vector<std::string> arguments) : ChildProcess(command(std::move(arguments)), Output::apart) {}
    static std::vector<std::string> command(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), zuTest::builtProgram("gevsim"));
        return arguments;
    }
    void type(const std::string& words) { write(words + "\n"); }
};

/// Where the program says that it listens.
gevsim::Endpoint listening(Process& process)
{
    const std::string line = process.line();
    const std::string words = "gevsim: camera listens on ";
    const std::size_t colon = line.rfind(':');
    if (line.compare(0, words.size(), words) != 0 || colon == std::string::npos) {
        ADD_FAILURE() << line;
        return {0x7F000D01, 1};
    }
    return {line.substr(words.size(), colon - words.size()),
            static_cast<std::uint16_t>(std::stoul(line.substr(colon + 1)))};
}

const std::vector<std::string> here = {"-a", "127.0.13.60", "-p", "0", "--no-broadcast"};

std::vector<std::string> with(std::vector<std::string> words, const std::vector<std::string>& more)
{
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

} // namespace

TEST(Program, ExitStatusTellsUsageFromFailure)
{
    EXPECT_EQ(Process({"--nonsense"}).exitStatus(), 2);
    EXPECT_EQ(Process(with(here, {"-x", "nonsense"})).exitStatus(), 2);
    EXPECT_EQ(Process({"-a", "0.0.0.0", "--no-input"}).exitStatus(), 1);
    EXPECT_EQ(Process({"--help"}).exitStatus(), 0);
    EXPECT_EQ(Process({"--version"}).exitStatus(), 0);
}

TEST(Program, SaysWhatIsWrongOnStandardError)
{
    Process process({"-p", "70000"});
    EXPECT_EQ(process.exitStatus(), 2);
    EXPECT_EQ(process.errors(), "gevsim: --port takes 0 to 65535\nTry 'gevsim --help'.\n");
}

TEST(Program, AnAddressInUseIsAFailure)
{
    Process first(with(here, {"--exit-on-eof"}));
    const gevsim::Endpoint where = listening(first);
    Process second({"-a", "127.0.13.60", "-p", std::to_string(where.port), "--no-broadcast"});
    EXPECT_EQ(second.exitStatus(), 1);
    EXPECT_NE(second.errors().find("can't listen on " + where.text()), std::string::npos);
    first.closeInput();
    EXPECT_EQ(first.exitStatus(), 0);
}

TEST(Program, StopsOnSigterm)
{
    Process process(here);
    Client client(listening(process));
    EXPECT_EQ(client.status(readReg(0)), 0);
    process.signal(SIGTERM);
    EXPECT_EQ(process.line(), "gevsim: stopped");
    EXPECT_EQ(process.exitStatus(), 0);
}

TEST(Program, GoesOnAfterTheEndOfItsInput)
{
    Process process(with(here, {"-x", "write 0x10000 5"}));
    Client client(listening(process));
    process.closeInput();
    EXPECT_EQ(valueOf(client.ask(readReg(0x10000))), 5U);
    process.signal(SIGTERM);
    EXPECT_EQ(process.exitStatus(), 0);
}

TEST(Program, ExecutesWhatIsTyped)
{
    Process process(here);
    Client client(listening(process));
    process.type("write 0x10000 0x11");
    process.type("read 0x10000");
    EXPECT_EQ(process.line(), "0x00000011");
    process.type("nonsense");
    process.type("status 0x8123");
    process.type("read 0x10000");
    EXPECT_EQ(process.line(), "0x00000011");
    EXPECT_EQ(client.status(readReg(0)), 0x8123);
    EXPECT_EQ(client.status(readReg(0)), 0);
    process.type("quit");
    EXPECT_EQ(process.line(), "gevsim: stopped");
    EXPECT_EQ(process.exitStatus(), 0);
    EXPECT_EQ(process.errors(), "gevsim: 'nonsense' is no command of the camera; type help\n");
}

TEST(Program, PrintsEveryDatagram)
{
    Process process(with(here, {"--trace", "-x", "loss 0.5 seed=3", "-x", "loss 0"}));
    EXPECT_EQ(process.line(), "loss with seed=3");
    Client client(listening(process));
    client.ask(readReg(0x0A00, 7));
    const std::string peer = client.endpoint().text();
    const std::string in = process.line(), out = process.line();
    ASSERT_GT(in.size(), 16U);
    EXPECT_EQ(in.find_first_not_of("0123456789:."), 15U) << in;
    EXPECT_EQ(in.substr(16), "<- " + peer + " READREG id=7 [0x00000A00]");
    EXPECT_EQ(out.substr(16), "-> " + peer + " READREG_ACK id=7 =0x00000000");
    process.signal(SIGTERM);
    EXPECT_EQ(process.exitStatus(), 0);
}

TEST(Program, EndsWithItsInputIfAsked)
{
    Process process(with(here, {"--exit-on-eof"}));
    listening(process);
    process.closeInput();
    EXPECT_EQ(process.line(), "gevsim: stopped");
    EXPECT_EQ(process.exitStatus(), 0);
}
