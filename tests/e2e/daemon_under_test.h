// The daemon as a real process, for the length of a test. It uses the machine's one name, so a test that holds one runs
// alone, and none can run while another daemon does.
#pragma once

#include "tests/support/child_process.h"

#include <gtest/gtest.h>

#include <csignal>
#include <stdexcept>
#include <string>
#include <vector>

namespace zuTest {

class DaemonUnderTest {
public:
    /// `launcher` stands before the daemon's command line, and becomes the daemon by exec.
    explicit DaemonUnderTest(const std::vector<std::string>& launcher = {}) : process(command(launcher))
    {
        if (!process.waitForOutput("BuildDate"))
            throw std::runtime_error("the daemon did not start: " + process.output());
        // Keys are read once the pipe is up, so an answer means that clients are welcome.
        process.write("s");
        if (!process.waitForOutput("Instances: 0"))
            throw std::runtime_error("is another daemon running on this machine? This one said: " + process.output());
    }

    /// A daemon that a test has left running is stopped, and ends well.
    ~DaemonUnderTest()
    {
        auto end = process.wait(std::chrono::milliseconds(0));
        if (!end.exited && end.status == 0) {
            process.signal(SIGTERM);
            end = process.wait(std::chrono::seconds(60));
            EXPECT_TRUE(end.exited) << "the daemon ended by signal " << end.status << ": " << process.output();
            EXPECT_EQ(end.status, 0) << process.output();
        }
        const std::string output = process.output();
        EXPECT_EQ(output.find("Sanitizer"), std::string::npos) << output;
        EXPECT_EQ(output.find("runtime error"), std::string::npos) << output;
    }
    DaemonUnderTest(const DaemonUnderTest&) = delete;
    DaemonUnderTest& operator=(const DaemonUnderTest&) = delete;

    /// Asks for the status report and gives the number of instances in it.
    std::size_t instances()
    {
        const std::size_t before = process.output().size();
        process.write("s");
        const std::string words = "Instances: ";
        if (process.waitForOutput(words, patience, before)) {
            const auto at = process.output().find(words, before);
            if (process.waitForOutput("\n", patience, at))
                return std::stoul(process.output().substr(at + words.size()));
        }
        throw std::runtime_error("no status report");
    }

    ChildProcess process;

private:
    static std::vector<std::string> command(std::vector<std::string> launcher)
    {
        launcher.insert(launcher.end(), {builtProgram("zuGevSvc"), "--execute"});
        return launcher;
    }
};

} // namespace zuTest
