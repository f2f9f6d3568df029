// The processes that other tests start: what is read of them, and that no wait outlives its reason.
#include "tests/support/child_process.h"
#include "tests/support/eventually.h"

#include <gtest/gtest.h>

#include <csignal>
#include <stdexcept>

namespace zuTest {
namespace {

using Clock = std::chrono::steady_clock;
using Output = ChildProcess::Output;

ChildProcess::Milliseconds since(Clock::time_point start)
{
    return std::chrono::duration_cast<ChildProcess::Milliseconds>(Clock::now() - start);
}

/// A process in which the shell does this.
std::vector<std::string> shell(const std::string& script) { return {"sh", "-c", script}; }

TEST(ChildProcessTest, ItsStreamsAreReadTogetherOrApart)
{
    const auto script = shell("echo out; echo err >&2; exit 3");
    EXPECT_EQ(runCommand(script).output, "out\nerr\n");
    const Finished apart = runCommand(script, patience, Output::apart);
    EXPECT_EQ(apart.output, "out\n");
    EXPECT_EQ(apart.errors, "err\n");
    EXPECT_TRUE(apart.end.exited);
    EXPECT_EQ(apart.end.status, 3);
}

TEST(ChildProcessTest, AWaitLooksOnlyBehindItsPosition)
{
    ChildProcess process(shell("echo first; read line; echo second; echo first; read line"));
    ASSERT_TRUE(process.waitForOutput("first"));
    const std::size_t seen = process.output().size();
    EXPECT_FALSE(process.waitForOutput("first", std::chrono::milliseconds(50), seen));
    process.write("\n");
    EXPECT_TRUE(process.waitForOutput("first", patience, seen));
    EXPECT_EQ(process.output(), "first\nsecond\nfirst\n");
}

TEST(ChildProcessTest, TheProcessesEndEndsTheWaitForAText)
{
    const auto start = Clock::now();
    // What it leaves behind keeps the output open.
    ChildProcess process(shell("sleep 100 & echo $!; echo here"));
    EXPECT_FALSE(process.waitForOutput("never printed", std::chrono::seconds(100)));
    EXPECT_TRUE(process.waitForOutput("here"));
    EXPECT_EQ(process.exitStatus(), 0);
    EXPECT_LT(since(start), patience);
    ::kill(std::stoi(process.output()), SIGKILL);
}

TEST(ChildProcessTest, LinesComeOneByOne)
{
    ChildProcess process(shell("echo one; read line; echo \"$line\"; printf rest"));
    EXPECT_EQ(process.line(), "one");
    process.write("two\n");
    EXPECT_EQ(process.line(), "two");
    EXPECT_EQ(process.line(), "") << "no whole line";
    EXPECT_EQ(process.output(), "one\ntwo\nrest");
}

TEST(ChildProcessTest, UnreadOutputFillsItsPipe)
{
    ChildProcess process(shell("yes >&1; echo stopped >&2"), Output::unread);
    EXPECT_FALSE(process.waitForErrors("stopped", std::chrono::milliseconds(50)));
    EXPECT_TRUE(process.running());
    process.closeOutput();
    EXPECT_TRUE(process.waitForErrors("stopped\n")) << "the shell goes on behind a command that nobody reads";
    EXPECT_EQ(process.output(), "");
}

TEST(ChildProcessTest, SignalsAndInputAfterItsEnd)
{
    ChildProcess process(shell("read line"));
    EXPECT_EQ(process.wait(std::chrono::milliseconds(0)).status, 0);
    EXPECT_TRUE(process.running());
    process.signal(SIGTERM);
    const ChildProcess::End end = process.wait();
    EXPECT_FALSE(end.exited);
    EXPECT_EQ(end.status, SIGTERM);
    EXPECT_EQ(process.exitStatus(), -1);
    EXPECT_FALSE(process.running());
    EXPECT_THROW(process.write("too late\n"), std::runtime_error);
    EXPECT_THROW(ChildProcess({"/no/such/program"}), std::runtime_error);
}

} // namespace
} // namespace zuTest
