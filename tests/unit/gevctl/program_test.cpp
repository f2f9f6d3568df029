// The program itself, as a process: exit codes, which stream gets what, and the end on request. Without a daemon.
#include "tools/gevsim/camera.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <array>
#include <chrono>
#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

/// A running gevctl, stopped by its id at the latest when this ends.
class Program {
public:
    explicit Program(std::vector<std::string> arguments)
    {
        EXPECT_EQ(pipe2(out_.data(), O_CLOEXEC), 0);
        EXPECT_EQ(pipe2(err_.data(), O_CLOEXEC), 0);
        arguments.insert(arguments.begin(), ZU_GEVCTL);
        std::vector<char*> raw;
        for (std::string& argument : arguments)
            raw.push_back(argument.data());
        raw.push_back(nullptr);
        id_ = fork();
        if (id_ == 0) {
            dup2(out_[1], 1);
            dup2(err_[1], 2);
            execv(raw[0], raw.data());
            _exit(127);
        }
        close(out_[1]);
        close(err_[1]);
    }
    ~Program()
    {
        if (!ended_) {
            kill(id_, SIGKILL);
            waitpid(id_, nullptr, 0);
        }
        close(out_[0]);
        close(err_[0]);
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    void signal(int number) { kill(id_, number); }
    /// The exit code, or -1 if it was a signal or did not end in time.
    int wait()
    {
        const auto deadline = std::chrono::steady_clock::now() + 60s;
        int status = 0;
        while (std::chrono::steady_clock::now() < deadline) {
            if (waitpid(id_, &status, WNOHANG) == id_) {
                ended_ = true;
                out = readAll(out_[0]);
                err = readAll(err_[0]);
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            std::this_thread::sleep_for(1ms);
        }
        return -1;
    }

    std::string out, err;

private:
    static std::string readAll(int descriptor)
    {
        std::string text;
        std::array<char, 4096> buffer;
        for (ssize_t count; (count = read(descriptor, buffer.data(), buffer.size())) > 0;)
            text.append(buffer.data(), static_cast<std::size_t>(count));
        return text;
    }

    std::array<int, 2> out_{}, err_{};
    pid_t id_ = -1;
    bool ended_ = false;
};

TEST(GevctlProgramTest, helpAndUsage)
{
    Program help({"--help"});
    EXPECT_EQ(help.wait(), 0);
    EXPECT_THAT(help.out, HasSubstr("Usage: gevctl"));
    EXPECT_EQ(help.err, "");
    Program wrong({"reg", "read", "12"});
    EXPECT_EQ(wrong.wait(), 2);
    EXPECT_EQ(wrong.out, "");
    EXPECT_THAT(wrong.err, HasSubstr("--camera is required"));
}

TEST(GevctlProgramTest, discoversACamera)
{
    const gevsim::Camera camera("127.0.15.6", 0);
    Program discover(
        {"discover", "--json", "--wait", "1000", "--address", "127.0.15.6:" + std::to_string(camera.port())});
    EXPECT_EQ(discover.wait(), 0) << discover.err;
    EXPECT_EQ(nlohmann::json::parse(discover.out)["cameras"][0]["model"], "gevsim");
}

TEST(GevctlProgramTest, endsWhenAsked)
{
    for (const int number : {SIGTERM, SIGINT}) {
        const gevsim::Camera camera("127.0.15.6", 0);
        Program discover({"discover", "--wait", "600000", "--address", "127.0.15.6:" + std::to_string(camera.port())});
        // Once it has asked, it is listening, with its handlers set.
        ASSERT_TRUE(camera.waitForReceived(gevsim::Command::discovery));
        discover.signal(number);
        EXPECT_EQ(discover.wait(), 0) << discover.err;
    }
}

} // namespace
