// The program as a process: exit codes, what it prints, its standard input, its end.
#include "tests/unit/gevsim/client.h"
#include "tests/unit/gevsim/process.h"

using namespace gevsimTest;

namespace {

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
    EXPECT_EQ(Process(GEVSIM, {"--nonsense"}).wait(), 2);
    EXPECT_EQ(Process(GEVSIM, with(here, {"-x", "nonsense"})).wait(), 2);
    EXPECT_EQ(Process(GEVSIM, {"-a", "0.0.0.0", "--no-input"}).wait(), 1);
    EXPECT_EQ(Process(GEVSIM, {"--help"}).wait(), 0);
    EXPECT_EQ(Process(GEVSIM, {"--version"}).wait(), 0);
}

TEST(Program, SaysWhatIsWrongOnStandardError)
{
    Process process(GEVSIM, {"-p", "70000"});
    EXPECT_EQ(process.wait(), 2);
    EXPECT_EQ(process.errors(), "gevsim: --port takes 0 to 65535\nTry 'gevsim --help'.\n");
}

TEST(Program, AnAddressInUseIsAFailure)
{
    Process first(GEVSIM, with(here, {"--exit-on-eof"}));
    const gevsim::Endpoint where = listening(first);
    Process second(GEVSIM, {"-a", "127.0.13.60", "-p", std::to_string(where.port), "--no-broadcast"});
    EXPECT_EQ(second.wait(), 1);
    EXPECT_NE(second.errors().find("can't listen on " + where.text()), std::string::npos);
    first.closeInput();
    EXPECT_EQ(first.wait(), 0);
}

TEST(Program, StopsOnSigterm)
{
    Process process(GEVSIM, here);
    Client client(listening(process));
    EXPECT_EQ(client.status(readReg(0)), 0);
    process.terminate();
    EXPECT_EQ(process.line(), "gevsim: stopped");
    EXPECT_EQ(process.wait(), 0);
}

TEST(Program, GoesOnAfterTheEndOfItsInput)
{
    Process process(GEVSIM, with(here, {"-x", "write 0x10000 5"}));
    Client client(listening(process));
    process.closeInput();
    EXPECT_EQ(valueOf(client.ask(readReg(0x10000))), 5U);
    process.terminate();
    EXPECT_EQ(process.wait(), 0);
}

TEST(Program, ExecutesWhatIsTyped)
{
    Process process(GEVSIM, here);
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
    EXPECT_EQ(process.wait(), 0);
    EXPECT_EQ(process.errors(), "gevsim: 'nonsense' is no command of the camera; type help\n");
}

TEST(Program, PrintsEveryDatagram)
{
    Process process(GEVSIM, with(here, {"--trace", "-x", "loss 0.5 seed=3", "-x", "loss 0"}));
    EXPECT_EQ(process.line(), "loss with seed=3");
    Client client(listening(process));
    client.ask(readReg(0x0A00, 7));
    const std::string peer = client.endpoint().text();
    const std::string in = process.line(), out = process.line();
    ASSERT_GT(in.size(), 16U);
    EXPECT_EQ(in.find_first_not_of("0123456789:."), 15U) << in;
    EXPECT_EQ(in.substr(16), "<- " + peer + " READREG id=7 [0x00000A00]");
    EXPECT_EQ(out.substr(16), "-> " + peer + " READREG_ACK id=7 =0x00000000");
    process.terminate();
    EXPECT_EQ(process.wait(), 0);
}

TEST(Program, EndsWithItsInputIfAsked)
{
    Process process(GEVSIM, with(here, {"--exit-on-eof"}));
    listening(process);
    process.closeInput();
    EXPECT_EQ(process.line(), "gevsim: stopped");
    EXPECT_EQ(process.wait(), 0);
}
