// Options of the real program that end in the usage text, and the one that changes nothing.
#include "daemon_under_test.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace zuTest;

namespace {

/// The lines that a log service has printed of a daemon's life, without their times.
std::vector<std::string> linesOf(const std::string& output)
{
    std::vector<std::string> lines;
    std::istringstream all(output);
    for (std::string line; std::getline(all, line);)
        if (const auto at = line.find("GEVSVC"); at != std::string::npos)
            lines.push_back(line.substr(at));
    return lines;
}

struct Life {
    std::string output;
    std::vector<std::string> lines;
};

/// A daemon with these arguments beside a log service of its own, from its start to the key that ends it.
Life lifeWith(std::vector<std::string> arguments)
{
    ChildProcess service({builtProgram("zuLogSvc")});
    if (!service.waitForOutput("log service started"))
        throw std::runtime_error("is another log service running on this machine? This one said: " + service.output());
    arguments.insert(arguments.begin(), builtProgram("zuGevSvc"));
    Life life;
    {
        ChildProcess daemon(arguments);
        daemon.write("sx");
        const auto end = daemon.wait();
        EXPECT_TRUE(end.exited) << daemon.output();
        EXPECT_EQ(end.status, 0);
        life.output = daemon.output();
    }
    EXPECT_TRUE(service.waitForOutput("Service loop terminating, shutdown Mgr")) << service.output();
    service.signal(SIGTERM);
    EXPECT_EQ(service.wait().status, 0);
    life.lines = linesOf(service.output());
    return life;
}

} // namespace

TEST(Options, AFailureInParsingIsAnsweredWithTheUsageWhateverElseWasAsked)
{
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"--execute", "--log"}, {"--execute", "--no-such-option"}, {"--install", "--log"}}) {
        std::vector<std::string> command = arguments;
        command.insert(command.begin(), builtProgram("zuGevSvc"));
        const Finished finished = runCommand(command);
        EXPECT_TRUE(finished.end.exited) << arguments[1];
        EXPECT_EQ(finished.end.status, 1) << arguments[1];
        EXPECT_EQ(finished.output.substr(0, 67), "\n" + std::string(65, '*') + "\n");
        EXPECT_NE(finished.output.find("Generic options:\n  -s [ --svc ] "), std::string::npos);
        EXPECT_EQ(finished.output.find("rror"), std::string::npos) << finished.output;
        EXPECT_EQ(finished.output.find("ervice failed"), std::string::npos) << finished.output;
    }
}

TEST(Options, AValueForLogChangesNothingInLogging)
{
    const Life plain = lifeWith({"--execute"});
    EXPECT_NE(plain.output.find(".... Status:\nInstances: 0\n\n"), std::string::npos) << plain.output;
    ASSERT_EQ(plain.lines.size(), 4u) << "what it asked the service, and its own";
    EXPECT_EQ(std::vector(plain.lines.begin() + 1, plain.lines.end()),
              (std::vector<std::string>{"GEVSVC.main [info] Running as GevSvc as Application",
                                        "GEVSVC.Svc [info] Starting service loop",
                                        "GEVSVC.Svc [info] Service loop terminating, shutdown Mgr"}));
    for (const char* value : {"somevalue", "cout", "err", "debug"}) {
        const Life logged = lifeWith({"--log", value, "--execute"});
        EXPECT_EQ(logged.output, plain.output) << value;
        EXPECT_EQ(logged.lines, plain.lines) << value;
    }
    EXPECT_EQ(lifeWith({"--help", "--execute"}).lines, plain.lines) << "help yields to every other job";
}
