// The own process and whether others run.
#include "platform/process.h"
#include "platform/thread.h"
#include "tests/contract/contract_support.h"

#include <climits>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <sched.h>
#include <signal.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace zuPlatform;
using namespace zuTest;

namespace {

int waitForKill()
{
    for (;;)
        ::pause();
}

std::uint32_t idOf(const ForkedChild& child) { return static_cast<std::uint32_t>(child.pid()); }

} // namespace

TEST(ProcessExists, TellsRunningFromNeverAndGone)
{
    EXPECT_TRUE(processExists(currentProcessId()));
    EXPECT_TRUE(processExists(1));
    EXPECT_FALSE(processExists(0));
    EXPECT_FALSE(processExists(static_cast<std::uint32_t>(INT_MAX)));
    EXPECT_FALSE(processExists(static_cast<std::uint32_t>(INT_MAX) + 1));
    EXPECT_FALSE(processExists(0xFFFFFFFF)) << "no group of processes either";
    EXPECT_FALSE(processExists(static_cast<std::uint32_t>(-static_cast<int>(::getpgrp()))));
}

TEST(ProcessExists, AZombieIsGone)
{
    ForkedChild child(waitForKill);
    EXPECT_TRUE(processExists(idOf(child)));
    child.kill(SIGKILL);
    ASSERT_TRUE(child.waitForEndWithoutReaping());
    EXPECT_EQ(::kill(child.pid(), 0), 0) << "its id is not free yet";
    EXPECT_FALSE(processExists(idOf(child)));
    child.wait();
    EXPECT_FALSE(processExists(idOf(child)));
}

TEST(ProcessExists, AStoppedProcessRuns)
{
    const ForkedChild child(waitForKill);
    child.kill(SIGSTOP);
    ASSERT_TRUE(eventually([&] {
        siginfo_t info{};
        return ::waitid(P_PID, static_cast<id_t>(child.pid()), &info, WSTOPPED | WNOHANG | WNOWAIT) == 0 &&
               info.si_pid != 0;
    }));
    EXPECT_TRUE(processExists(idOf(child)));
}

TEST(ProcessExists, AThreadIsNoProcess)
{
    std::atomic<std::uint64_t> id{0};
    std::atomic<bool> end{false};
    std::thread thread([&] {
        id = currentThreadId();
        EXPECT_TRUE(eventually([&] { return end.load(); }));
    });
    EXPECT_TRUE(eventually([&] { return id != 0; }));
    EXPECT_FALSE(processExists(static_cast<std::uint32_t>(id.load())));
    end = true;
    thread.join();
}

TEST(ProcessExists, AProcessGoesOnWithoutItsFirstThread)
{
    const Pipe ready;
    const ForkedChild child([&] {
        std::thread([&] {
            // Once the first thread is a zombie, the process as a whole is still there.
            const std::string status = "/proc/self/task/" + std::to_string(::getpid()) + "/status";
            eventually([&] {
                std::ifstream file(status);
                std::stringstream text;
                text << file.rdbuf();
                return text.str().find("State:\tZ") != std::string::npos;
            });
            ready.send("r");
            waitForKill();
        }).detach();
        ::syscall(SYS_exit, 0); // of this thread alone
        return 0;
    });
    ASSERT_EQ(ready.read(1), "r");
    EXPECT_TRUE(processExists(idOf(child)));
}

TEST(ProcessExists, AProcessOfAnotherUserExists)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can become another user";
    const std::uint32_t parent = currentProcessId();
    EXPECT_EQ(inChild([&] {
                  if (::setuid(65534) != 0 || ::kill(static_cast<pid_t>(parent), 0) == 0)
                      return 1;
                  return processExists(parent) ? 0 : 2;
              }),
              0);
}

TEST(ProcessExists, WorksWithoutProc)
{
    const std::uint32_t parent = currentProcessId();
    const int code = inChild([&] {
        if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("tmpfs", "/proc", "tmpfs", 0, nullptr) != 0)
            return 77;
        return processExists(parent) && !processExists(static_cast<std::uint32_t>(INT_MAX)) ? 0 : 1;
    });
    if (code == 77)
        GTEST_SKIP() << "this user may not cover /proc";
    EXPECT_EQ(code, 0);
}

TEST(Process, KnowsItsIdAndPath)
{
    EXPECT_EQ(currentProcessId(), static_cast<std::uint32_t>(::getpid()));
    const std::string path = executablePath();
    EXPECT_TRUE(std::filesystem::path(path).is_absolute());
    EXPECT_TRUE(std::filesystem::equivalent(path, "/proc/self/exe"));
    EXPECT_EQ(inChild([&] { return ::chdir("/") == 0 && executablePath() == path ? 0 : 1; }), 0);
}

TEST(Process, TellsTheVersionOfTheBuild)
{
    std::uint64_t quad = 0;
    ASSERT_TRUE(executableVersion(quad));
    EXPECT_EQ(versionText(quad), ZU_VERSION);
    EXPECT_EQ(versionText(0), "0.0.0.0");
    EXPECT_EQ(versionText(0xFFFF001203450006), "65535.18.837.6");
}

TEST(Process, WritesUtf8) { EXPECT_EQ(narrowCodePage(), 65001u); }

TEST(Process, RaisesTheDescriptorLimitToTheMostAllowed)
{
    EXPECT_EQ(inChild([] {
                  rlimit limit{};
                  ::getrlimit(RLIMIT_NOFILE, &limit);
                  limit.rlim_cur = 64;
                  if (::setrlimit(RLIMIT_NOFILE, &limit) != 0)
                      return 1;
                  raiseDescriptorLimit();
                  rlimit raised{};
                  ::getrlimit(RLIMIT_NOFILE, &raised);
                  return raised.rlim_cur == limit.rlim_max && raised.rlim_max == limit.rlim_max ? 0 : 2;
              }),
              0);
}
