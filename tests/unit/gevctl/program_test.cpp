// The program itself, as a process: exit codes, which stream gets what, and the end on request. Without a daemon.
#include "tests/support/child_process.h"
#include "tools/gevsim/camera.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <string>
#include <vector>

namespace {

using testing::HasSubstr;
using zuTest::ChildProcess;

constexpr auto apart = ChildProcess::Output::apart;

std::vector<std::string> gevctl(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), zuTest::builtProgram("gevctl"));
    return arguments;
}

zuTest::Finished run(std::vector<std::string> arguments)
{
    return zuTest::runCommand(gevctl(std::move(arguments)), zuTest::patience, apart);
}

TEST(GevctlProgramTest, helpAndUsage)
{
    const zuTest::Finished help = run({"--help"});
    EXPECT_TRUE(help.end.exited);
    EXPECT_EQ(help.end.status, 0);
    EXPECT_THAT(help.output, HasSubstr("Usage: gevctl"));
    EXPECT_EQ(help.errors, "");
    const zuTest::Finished wrong = run({"reg", "read", "12"});
    EXPECT_EQ(wrong.end.status, 2);
    EXPECT_EQ(wrong.output, "");
    EXPECT_THAT(wrong.errors, HasSubstr("--camera is required"));
}

TEST(GevctlProgramTest, discoversACamera)
{
    const gevsim::Camera camera("127.0.15.6", 0);
    const zuTest::Finished discover =
        run({"discover", "--json", "--wait", "1000", "--address", "127.0.15.6:" + std::to_string(camera.port())});
    EXPECT_TRUE(discover.end.exited);
    EXPECT_EQ(discover.end.status, 0) << discover.errors;
    EXPECT_EQ(nlohmann::json::parse(discover.output)["cameras"][0]["model"], "gevsim");
}

TEST(GevctlProgramTest, endsWhenAsked)
{
    for (const int number : {SIGTERM, SIGINT}) {
        const gevsim::Camera camera("127.0.15.6", 0);
        ChildProcess discover(
            gevctl({"discover", "--wait", "600000", "--address", "127.0.15.6:" + std::to_string(camera.port())}),
            apart);
        // Once it has asked, it is listening, with its handlers set.
        ASSERT_TRUE(camera.waitForReceived(gevsim::Command::discovery));
        discover.signal(number);
        EXPECT_EQ(discover.exitStatus(), 0) << discover.errors();
    }
}

} // namespace
