// Single keys from pipes, files and terminals, and terminals put back whatever the end.
#include "platform/console_keys.h"
#include "platform/process.h"
#include "tests/contract/contract_support.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

using namespace zuPlatform;
using namespace zuTest;

namespace {

/// Standard input stands for `fd` for this object's life; -1 closes it.
class StandardInput {
public:
    explicit StandardInput(int fd) : kept_(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3))
    {
        if (fd >= 0)
            ::dup2(fd, STDIN_FILENO);
        else
            ::close(STDIN_FILENO);
    }
    ~StandardInput()
    {
        ::dup2(kept_, STDIN_FILENO);
        ::close(kept_);
    }
    StandardInput(const StandardInput&) = delete;
    StandardInput& operator=(const StandardInput&) = delete;

private:
    int kept_;
};

void print(const char* text) { [[maybe_unused]] const ssize_t count = ::write(STDOUT_FILENO, text, std::strlen(text)); }

/// A session whose leader runs `victim` as a process in the foreground group and prints "ended <code>." when it is
/// gone.
class VictimSession : public TerminalSession {
public:
    explicit VictimSession(const std::function<int()>& victim)
        : TerminalSession([victim] {
              ::signal(SIGINT, SIG_IGN); // Ctrl-C is for the victim
              ::signal(SIGQUIT, SIG_IGN);
              ForkedChild child([&] {
                  ::signal(SIGINT, SIG_DFL);
                  ::signal(SIGQUIT, SIG_DFL);
                  return victim();
              });
              print(("pid " + std::to_string(child.pid()) + ";").c_str());
              const int code = child.exitCode();
              print(("ended " + std::to_string(code) + ".").c_str());
              for (;;)
                  ::pause();
              return 0;
          })
    {
    }

    /// Waits for "ready" and returns the victim's id.
    pid_t victim()
    {
        EXPECT_NE(readUntil("ready"), "");
        const std::string text = readUntil(";");
        const std::size_t start = text.find("pid ");
        return start == std::string::npos ? -1 : std::atoi(text.c_str() + start + 4);
    }
    void expectEnd(int code)
    {
        const std::string expected = "ended " + std::to_string(code) + ".";
        EXPECT_NE(readUntil("ended "), "");
        EXPECT_NE(readUntil("."), "");
        EXPECT_THAT(readUntil("ended "), testing::HasSubstr(expected));
        EXPECT_TRUE(isOrdinary()) << "the terminal was not put back";
    }
};

int pauseForEver()
{
    for (;;)
        ::pause();
}

int hold()
{
    const ConsoleKeys keys;
    print("ready");
    return pauseForEver();
}

} // namespace

TEST(ConsoleKeysPipe, GivesSingleBytesAndThenNoMore)
{
    Pipe pipe;
    const StandardInput input(pipe.readEnd);
    ConsoleKeys keys;
    EXPECT_FALSE(keys.available());
    EXPECT_EQ(keys.read(), -1);
    pipe.send(std::string("s\n\xff\0x", 5));
    for (const int key : {int{'s'}, int{'\n'}, 0xFF, 0, int{'x'}}) {
        EXPECT_TRUE(keys.available());
        EXPECT_TRUE(keys.available());
        EXPECT_EQ(keys.read(), key);
    }
    EXPECT_FALSE(keys.available());
    pipe.send("q");
    pipe.closeWrite();
    EXPECT_EQ(keys.read(), 'q') << "what was written before the end is still given";
    EXPECT_FALSE(keys.available());
    EXPECT_FALSE(keys.available());
    EXPECT_EQ(keys.read(), -1);
}

TEST(ConsoleKeysPipe, TakesNoMoreThanItsKeys)
{
    const Pipe pipe;
    const StandardInput input(pipe.readEnd);
    pipe.send("ab");
    {
        ConsoleKeys keys;
        EXPECT_EQ(keys.read(), 'a');
    }
    EXPECT_EQ(pipe.read(1), "b");
}

TEST(ConsoleKeysPipe, FilesAndEmptyInputsWork)
{
    {
        char path[] = "/tmp/zuTestKeysXXXXXX";
        const int file = ::mkstemp(path);
        ::unlink(path);
        ASSERT_EQ(::write(file, "x", 1), 1);
        ::lseek(file, 0, SEEK_SET);
        const StandardInput input(file);
        ConsoleKeys keys;
        EXPECT_EQ(keys.read(), 'x');
        EXPECT_EQ(keys.read(), -1);
        ::close(file);
    }
    {
        const int null = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        const StandardInput input(null);
        ConsoleKeys keys;
        EXPECT_FALSE(keys.available());
        ::close(null);
    }
    const StandardInput closed(-1);
    ConsoleKeys keys;
    EXPECT_FALSE(keys.available());
    EXPECT_EQ(keys.read(), -1);
}

TEST(ConsoleKeysTerminal, GivesKeysAtOnceWithoutEcho)
{
    TerminalSession session([] {
        {
            ConsoleKeys keys;
            if (keys.available() || keys.read() != -1)
                return 1;
            print("ready");
            for (const char key : {'s', 'X', '\x04'})
                if (!eventually([&] { return keys.available(); }) || keys.read() != key)
                    return 2;
            if (keys.available())
                return 3;
        }
        print("put back");
        char byte = 0;
        return ::read(STDIN_FILENO, &byte, 1) == 1 && byte == 'l' ? 0 : 4;
    });
    EXPECT_NE(session.readUntil("ready"), "");
    EXPECT_TRUE(session.isSingleKeys());
    session.type("sX\x04");
    EXPECT_THAT(session.readUntil("put back"), testing::Not(testing::HasSubstr("sX")));
    EXPECT_TRUE(session.isOrdinary());
    session.type("l\n");
    EXPECT_EQ(session.exitCode(), 0);
}

TEST(ConsoleKeysTerminal, HangUpEndsTheKeys)
{
    const Pipe result;
    TerminalSession session([&] {
        ::signal(SIGHUP, SIG_IGN);
        ConsoleKeys keys;
        print("ready");
        // The wait is for the hang-up to arrive; from then on there are no keys, and no wait for any.
        const bool hungUp = eventually([] { return ::isatty(STDIN_FILENO) == 0; });
        result.send(hungUp && !keys.available() && keys.read() == -1 ? "ok" : "no");
        return 0;
    });
    EXPECT_NE(session.readUntil("ready"), "");
    session.hangUp();
    EXPECT_EQ(result.read(2), "ok");
}

TEST(ConsoleKeysTerminal, IsPutBackBySignalsThatEndTheProcess)
{
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGSEGV, SIGABRT}) {
        VictimSession session(hold);
        const pid_t victim = session.victim();
        ASSERT_GT(victim, 0);
        EXPECT_TRUE(session.isSingleKeys());
        ::kill(victim, signal);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        // The sanitizer reports a fault and ends the process in its own way.
        if (signal == SIGSEGV || signal == SIGABRT) {
            EXPECT_NE(session.readUntil("ended "), "");
            EXPECT_TRUE(session.isOrdinary());
            continue;
        }
#endif
        session.expectEnd(256 + signal);
    }
}

TEST(ConsoleKeysTerminal, IsPutBackAfterCtrlC)
{
    VictimSession session(hold);
    ASSERT_GT(session.victim(), 0);
    session.type("\x03");
    session.expectEnd(256 + SIGINT);
}

TEST(ConsoleKeysTerminal, IsPutBackByAFault)
{
    VictimSession session([] {
        ConsoleKeys keys;
        print("ready");
        eventually([&] { return keys.available(); });
        // Memory without access, since a null pointer is caught before it faults where undefined behaviour is watched
        // for.
        void* const page = ::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        *static_cast<volatile int*>(page) = 1;
        return 0;
    });
    ASSERT_GT(session.victim(), 0);
    EXPECT_TRUE(session.isSingleKeys());
    session.type("f");
    EXPECT_NE(session.readUntil("ended "), "");
    EXPECT_TRUE(session.isOrdinary());
}

TEST(ConsoleKeysTerminal, IsPutBackByTheFaultOnPurpose)
{
    VictimSession session([]() -> int {
        ConsoleKeys keys;
        print("ready");
        eventually([&] { return keys.available(); });
        endByMemoryFault();
    });
    ASSERT_GT(session.victim(), 0);
    EXPECT_TRUE(session.isSingleKeys());
    session.type("f");
    session.expectEnd(256 + SIGSEGV);
}

TEST(ConsoleKeysTerminal, IsPutBackByExit)
{
    VictimSession session([]() -> int {
        ConsoleKeys keys;
        print("ready");
        eventually([&] { return keys.available(); });
        std::exit(5); // what leaves `keys` as it is
    });
    ASSERT_GT(session.victim(), 0);
    EXPECT_TRUE(session.isSingleKeys());
    session.type("e");
    session.expectEnd(5);
}

TEST(ConsoleKeysTerminal, TheProgramsOwnHandlersStayInCharge)
{
    VictimSession session([] {
        static volatile sig_atomic_t stopped = 0;
        setStopHandler([] { stopped = 1; });
        {
            ConsoleKeys keys;
            print("ready");
            if (!eventually([] { return stopped == 1; }))
                return 1;
            print("stopped");
            if (!eventually([&] { return keys.available(); }))
                return 3;
        }
        struct sigaction hangUp {};
        ::sigaction(SIGHUP, nullptr, &hangUp);
        return hangUp.sa_handler == SIG_DFL ? 9 : 2;
    });
    const pid_t victim = session.victim();
    ASSERT_GT(victim, 0);
    ::kill(victim, SIGTERM);
    EXPECT_NE(session.readUntil("stopped"), "");
    EXPECT_TRUE(session.isSingleKeys()) << "the process goes on, and so does its terminal";
    session.type("x");
    session.expectEnd(9);
}

TEST(ConsoleKeysTerminal, InTheBackgroundItIsLeftAlone)
{
    TerminalSession session([] {
        ::signal(SIGTTOU, SIG_IGN); // for this leader, which hands the terminal on
        const Pipe go;
        const Pipe back;
        ForkedChild child([&] {
            ::signal(SIGTTOU, SIG_DFL);
            ::setpgid(0, 0);
            go.read(1);
            ConsoleKeys keys;
            if (keys.available())
                return 1;
            print("background");
            if (!eventually([&] { return ::tcgetpgrp(STDIN_FILENO) == ::getpgrp(); }))
                return 2;
            // The line that was typed before stays a line; keys come from now on.
            if (keys.available())
                keys.read();
            print("foreground");
            if (!eventually([&] { return keys.read() == 'x'; }))
                return 3;
            back.send("b");
            if (!eventually([] { return ::tcgetpgrp(STDIN_FILENO) != ::getpgrp(); }))
                return 5;
            print("behind");
            int typed = 0;
            if (!eventually([&] { return ::ioctl(STDIN_FILENO, FIONREAD, &typed) == 0 && typed > 0; }))
                return 6;
            return keys.available() ? 7 : 0;
        });
        ::setpgid(child.pid(), child.pid());
        go.send("g");
        char byte = 0;
        if (::read(STDIN_FILENO, &byte, 1) != 1 || ::tcsetpgrp(STDIN_FILENO, child.pid()) != 0)
            return 4;
        back.read(1);
        if (::tcsetpgrp(STDIN_FILENO, ::getpgrp()) != 0)
            return 8;
        return child.exitCode();
    });
    EXPECT_NE(session.readUntil("background"), "");
    EXPECT_TRUE(session.isOrdinary());
    session.type("\n");
    EXPECT_NE(session.readUntil("foreground"), "");
    EXPECT_TRUE(eventually([&] { return session.isSingleKeys(); }));
    session.type("x");
    EXPECT_NE(session.readUntil("behind"), "");
    session.type("y");
    EXPECT_EQ(session.exitCode(), 0);
}

TEST(ConsoleKeysTerminal, IsTerminalTells)
{
    const Pipe pipe;
    EXPECT_FALSE(isTerminal(pipe.writeEnd));
    EXPECT_FALSE(isTerminal(-1));
    TerminalSession session([] { return isTerminal(1) && isTerminal(2) ? 0 : 1; });
    EXPECT_EQ(session.exitCode(), 0);
}
