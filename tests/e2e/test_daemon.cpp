// The daemon's command line, its keys, and its place as the one daemon of the machine.
#include "client/GevClient.h"
#include "daemon_under_test.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <utility>

using namespace zuTest;

namespace {

Finished daemon(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), builtProgram("zuGevSvc"));
    return runCommand(arguments);
}

constexpr const char* usage = "Generic options:\n  -s [ --svc ]          Run as service\n";

} // namespace

TEST(DaemonCommandLine, HelpIsNoSuccess)
{
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{}, {"--help"}, {"--no-such-option"}, {"--log"}, {"--log", "x"}, {"stray"}}) {
        const Finished finished = daemon(arguments);
        EXPECT_TRUE(finished.end.exited);
        EXPECT_EQ(finished.end.status, 1);
        EXPECT_EQ(finished.output.substr(0, 67), "\n" + std::string(65, '*') + "\n");
        EXPECT_NE(finished.output.find("ORTOLAN GigE Vision Service\nVersion   : \t1.0.0.0\nBuildDate : \t"),
                  std::string::npos);
        EXPECT_NE(finished.output.find(usage), std::string::npos);
        EXPECT_EQ(finished.output.find("rror"), std::string::npos);
    }
}

TEST(DaemonCommandLine, ServiceOperationsFailInTheirWordsAndWithStatus0)
{
    // Nothing listens at the system bus for these processes.
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    const std::pair<const char*, const char*> operations[] = {
        {"--install", "Install"}, {"--delete", "Delete"}, {"--start", "Start"}, {"--stop", "Stop"}};
    for (const auto& [option, word] : operations) {
        const Finished finished = daemon({option});
        EXPECT_TRUE(finished.end.exited);
        EXPECT_EQ(finished.end.status, 0);
        EXPECT_THAT(finished.output,
                    testing::MatchesRegex("\n[*]{65}\n {18}[^ \n][^\n]*\n[*]{65}\n\nORTOLAN GigE Vision Service\n"
                                          "Version   : \t1[.]0[.]0[.]0\n"
                                          "BuildDate : \t[A-Z][a-z]{2} [ 0-9][0-9] [0-9]{4}\n\n" +
                                          std::string(word) + " Service failed\n"));
    }
    ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
}

TEST(DaemonCommandLine, ServiceModeBelowAnotherServiceEndsWithoutAWord)
{
    // As a shell inherits it that runs in a service.
    ::setenv("NOTIFY_SOCKET", "/nonexistent/notify", 1);
    ::setenv("SYSTEMD_EXEC_PID", "1", 1);
    const Finished finished = daemon({"--svc"});
    ::unsetenv("NOTIFY_SOCKET");
    ::unsetenv("SYSTEMD_EXEC_PID");
    EXPECT_TRUE(finished.end.exited);
    EXPECT_EQ(finished.end.status, 0);
    EXPECT_EQ(finished.output, "");
}

TEST(DaemonCommandLine, ServiceStartedByHandEndsWithoutAWord)
{
    const Finished finished = daemon({"--svc"});
    EXPECT_TRUE(finished.end.exited);
    EXPECT_EQ(finished.end.status, 0);
    EXPECT_EQ(finished.output, "");
}

TEST(Daemon, KeyXEndsIt)
{
    for (const char* key : {"x", "X"}) {
        DaemonUnderTest running;
        running.process.write(key);
        const auto end = running.process.wait();
        EXPECT_TRUE(end.exited);
        EXPECT_EQ(end.status, 0);
    }
}

TEST(Daemon, OtherKeysDoNothingAndSReports)
{
    DaemonUnderTest running;
    running.process.write("qS");
    EXPECT_EQ(running.instances(), 0u);
    EXPECT_NE(running.process.output().find(".... Status:\nInstances: 0\n\n"), std::string::npos);
}

TEST(Daemon, SignalsEndItAsTheKeyDoes)
{
    for (const int number : {SIGTERM, SIGINT}) {
        DaemonUnderTest running;
        running.process.signal(number);
        const auto end = running.process.wait();
        EXPECT_TRUE(end.exited) << number;
        EXPECT_EQ(end.status, 0);
    }
}

TEST(Daemon, GoesOnWithoutKeysAndWithoutAReader)
{
    DaemonUnderTest running;
    running.process.closeInput();
    zuGevClient::Connection connection;
    EXPECT_EQ(connection.retries(), 3u);
}

TEST(Daemon, SecondOneIsRefused)
{
    DaemonUnderTest running;
    const auto start = std::chrono::steady_clock::now();
    const Finished second = daemon({"--execute"});
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    EXPECT_TRUE(second.end.exited);
    EXPECT_EQ(second.end.status, 0);
    EXPECT_NE(second.output.find("\nAn instance of this application / service is already running on this system.\n\n"),
              std::string::npos);
    zuGevClient::Connection connection;
    EXPECT_EQ(connection.retries(), 3u) << "the first one serves on";
}

TEST(Daemon, ServiceModeBesideItEndsWithoutAWord)
{
    DaemonUnderTest running;
    const auto start = std::chrono::steady_clock::now();
    const Finished second = daemon({"--svc"});
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
    EXPECT_TRUE(second.end.exited);
    EXPECT_EQ(second.end.status, 0);
    EXPECT_EQ(second.output, "");
    zuGevClient::Connection connection;
    EXPECT_EQ(connection.retries(), 3u) << "the first one serves on";
}

TEST(Daemon, ExecuteBeatsTheOthers)
{
    ChildProcess process({builtProgram("zuGevSvc"), "--svc", "--stop", "--log", "anything", "--execute"});
    process.write("s");
    EXPECT_TRUE(process.waitForOutput("Instances: 0"));
    process.write("x");
    EXPECT_EQ(process.wait().status, 0);
}

TEST(Daemon, KilledOneIsReplacedOverWhatItLeft)
{
    std::uint16_t left = 0;
    {
        DaemonUnderTest first;
        zuGevClient::Connection connection;
        left = zuGevClient::Daemon::port();
        first.process.signal(SIGKILL);
        first.process.wait();
    }
    EXPECT_EQ(zuGevClient::Daemon::port(), left) << "nothing tells that the port is dead";
    EXPECT_FALSE(zuGevClient::Daemon::isRunning());
    EXPECT_THROW(zuGevClient::Connection(), zuGevClient::NoDaemonError);
    DaemonUnderTest second;
    zuGevClient::Connection connection;
    EXPECT_EQ(connection.retries(), 3u);
}
