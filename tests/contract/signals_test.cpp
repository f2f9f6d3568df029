// What signals do: orderly stop, reload, broken pipes, and the end by a memory fault.
#include "platform/process.h"
#include "tests/contract/contract_support.h"

#include <atomic>
#include <cerrno>
#include <gmock/gmock.h>
#include <signal.h>
#include <thread>
#include <unistd.h>

using namespace zuPlatform;
using namespace zuTest;

namespace {

std::atomic<int> stops{0};
std::atomic<int> reloads{0};

void onStop() { ++stops; }
void onReload() { ++reloads; }

int waitForKill()
{
    for (;;)
        ::pause();
}

} // namespace

TEST(Signals, BothWaysToStopReachTheHandler)
{
    EXPECT_EQ(inChild([] {
                  setStopHandler(onStop);
                  ::raise(SIGINT);
                  ::raise(SIGTERM);
                  ::raise(SIGTERM);
                  return stops == 3 && reloads == 0 ? 0 : 1;
              }),
              0);
}

TEST(Signals, WithoutAHandlerTheyEndTheProcessAsEver)
{
    EXPECT_EQ(inChild([] {
                  setStopHandler(onStop);
                  setStopHandler(nullptr);
                  ::raise(SIGTERM);
                  return 0;
              }),
              256 + SIGTERM);
}

TEST(Signals, ReloadReachesItsHandler)
{
    EXPECT_EQ(inChild([] {
                  setReloadHandler(onReload);
                  ::raise(SIGHUP);
                  return reloads == 1 && stops == 0 ? 0 : 1;
              }),
              0);
}

TEST(Signals, AHandledSignalDoesNotBreakAReadOff)
{
    const Pipe ready;
    const Pipe data;
    ForkedChild child([&] {
        setStopHandler(onStop);
        ready.send("r");
        char byte = 0;
        return ::read(data.readEnd, &byte, 1) == 1 && eventually([] { return stops == 1; }) ? 0 : 1;
    });
    ASSERT_EQ(ready.read(1), "r");
    ASSERT_TRUE(untilAsleep(static_cast<std::uint64_t>(child.pid())));
    child.kill(SIGTERM);
    ASSERT_TRUE(untilAsleep(static_cast<std::uint64_t>(child.pid()))) << "it reads on";
    data.send("d");
    EXPECT_EQ(child.exitCode(), 0);
}

TEST(Signals, AWriteToABrokenPipeFailsOnly)
{
    EXPECT_EQ(inChild([] {
                  Pipe pipe;
                  pipe.closeRead();
                  ignoreBrokenPipe();
                  return ::write(pipe.writeEnd, "x", 1) == -1 && errno == EPIPE ? 0 : 1;
              }),
              0);
}

TEST(MemoryFault, EndsTheProcess)
{
    EXPECT_EQ(inChild([]() -> int { endByMemoryFault(); }), 256 + SIGSEGV);
}

TEST(MemoryFault, NoHandlerAndNoMaskCatchesIt)
{
    EXPECT_EQ(inChild([]() -> int {
                  struct sigaction action {};
                  action.sa_handler = [](int) { ::_exit(3); };
                  ::sigaction(SIGSEGV, &action, nullptr);
                  sigset_t all;
                  ::sigfillset(&all);
                  ::sigprocmask(SIG_BLOCK, &all, nullptr);
                  endByMemoryFault();
              }),
              256 + SIGSEGV);
    EXPECT_EQ(inChild([]() -> int {
                  ::signal(SIGSEGV, SIG_IGN);
                  endByMemoryFault();
              }),
              256 + SIGSEGV);
}

TEST(MemoryFault, EndsAllThreadsFromAnyOfThem)
{
    EXPECT_EQ(inChild([]() -> int {
                  std::thread([] { endByMemoryFault(); }).detach();
                  return waitForKill();
              }),
              256 + SIGSEGV);
}
