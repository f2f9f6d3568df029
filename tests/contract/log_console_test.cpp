// The console for log lines, on a terminal of the test's own and without one.
#include "platform/log_console.h"

#include "platform/error.h"
#include "tests/contract/contract_support.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

using namespace zuPlatform;
using namespace zuTest;
using testing::HasSubstr;

namespace {

std::size_t put(LogConsole::Handle handle, const std::string& text)
{
    return LogConsole::write(handle, text.data(), text.size());
}

} // namespace

TEST(LogConsole, WithoutATerminalThereIsNone)
{
    EXPECT_EQ(inChild([] {
                  ::setsid(); // a new session has no terminal
                  if (LogConsole::hasWindow() || LogConsole::isWindow() || LogConsole::outputHandle() != 0)
                      return 1;
                  if (LogConsole::allocate() || lastError() != ENXIO)
                      return 2;
                  if (LogConsole::attachToParent())
                      return 3;
                  if (put(0, "text") != 0 || LogConsole::write(0, L"text", 4) != 0 || put(1, "text") != 0)
                      return 4;
                  LogConsole::Info info;
                  if (LogConsole::getInfo(0, info) || LogConsole::setAttribute(0, 7) || LogConsole::setTitle("t"))
                      return 5;
                  if (LogConsole::setBufferSize(0, 1, 1) || LogConsole::setWindow(0, 0, 0, 1, 1))
                      return 6;
                  LogConsole::minimise();
                  LogConsole::release();
                  return 0;
              }),
              0);
}

TEST(LogConsole, IsTheControllingTerminal)
{
    TerminalSession session(
        [] {
            // Whatever the standard handles are. The copy keeps the terminal from being hung up.
            [[maybe_unused]] const int copy = ::fcntl(0, F_DUPFD, 10);
            for (const int fd : {0, 1, 2})
                ::close(fd);
            if (LogConsole::hasWindow() || LogConsole::outputHandle() != 0 || !LogConsole::allocate())
                return 1;
            if (!LogConsole::hasWindow() || !LogConsole::isWindow())
                return 2;
            const LogConsole::Handle handle = LogConsole::outputHandle();
            if (handle <= 2 || !(::fcntl(static_cast<int>(handle), F_GETFD) & FD_CLOEXEC))
                return 3;
            LogConsole::Info info;
            if (!LogConsole::getInfo(handle, info) || info.attributes != 0x07)
                return 4;
            if (info.maxWidth != 132 || info.maxHeight != 43 || info.left != 0 || info.top != 0 || info.right != 131 ||
                info.bottom != 42)
                return 5;
            if (put(handle, "narrow\n") != 7 || LogConsole::write(handle, L"w\u00efd\u20ac\n", 5) != 5)
                return 6;
            if (LogConsole::setBufferSize(handle, 132, 9000) || LogConsole::setWindow(handle, 0, 0, 131, 42))
                return 7;
            LogConsole::release();
            if (LogConsole::hasWindow() || LogConsole::outputHandle() != 0 || put(handle, "gone") != 0)
                return 8;
            return LogConsole::attachToParent() && put(LogConsole::outputHandle(), "again") == 5 ? 0 : 9;
        },
        132, 43);
    EXPECT_THAT(session.readUntil("again"), HasSubstr("narrow\r\nw\xc3\xaf"
                                                      "d\xe2\x82\xac\r\nagain"));
    EXPECT_EQ(session.exitCode(), 0);
}

TEST(LogConsole, AttributesAreColours)
{
    struct Case {
        std::uint16_t attributes;
        const char* sequence;
    };
    // Blue 1, green 2, red 4, bright 8; the background four bits higher.
    static const Case cases[] = {
        {0xC0, "\x1b[0;30;101m"}, {0x0C, "\x1b[0;91m"}, {0x0E, "\x1b[0;93m"},    {0x07, "\x1b[0m"},
        {0x70, "\x1b[0;30;47m"},  {0x0F, "\x1b[0;97m"}, {0x01, "\x1b[0;34m"},    {0x02, "\x1b[0;32m"},
        {0x04, "\x1b[0;31m"},     {0x08, "\x1b[0;90m"}, {0x17, "\x1b[0;37;44m"}, {0x97, "\x1b[0;37;104m"},
        {0xBF, "\x1b[0;97;106m"}, {0x07, "\x1b[0m"},
    };
    TerminalSession session([] {
        LogConsole::allocate();
        const LogConsole::Handle handle = LogConsole::outputHandle();
        for (const Case& each : cases) {
            LogConsole::Info info;
            if (!LogConsole::setAttribute(handle, each.attributes) || put(handle, "<>") != 2 ||
                !LogConsole::getInfo(handle, info) || info.attributes != each.attributes)
                return 1;
        }
        put(handle, "end");
        return 0;
    });
    std::string expected;
    for (const Case& each : cases)
        expected += std::string(each.sequence) + "<>";
    EXPECT_EQ(session.readUntil("end"), expected + "end");
    EXPECT_EQ(session.exitCode(), 0);
}

TEST(LogConsole, ATitleCannotEscape)
{
    TerminalSession session([] {
        LogConsole::allocate();
        return LogConsole::setTitle("a\ab\x1b]c\nd") && put(LogConsole::outputHandle(), "end") == 3 ? 0 : 1;
    });
    EXPECT_EQ(session.readUntil("end"), "\x1b]0;a b ]c d\aend");
    EXPECT_EQ(session.exitCode(), 0);
}

TEST(LogConsole, WideTextOfAnyLengthAndContent)
{
    TerminalSession session([] {
        LogConsole::allocate();
        const LogConsole::Handle handle = LogConsole::outputHandle();
        std::wstring text(3000, L'\u00e9');
        text += static_cast<wchar_t>(0xD800);
        text += L'!';
        return LogConsole::write(handle, text.data(), text.size()) == text.size() &&
                       LogConsole::write(handle, L"", 0) == 0
                   ? 0
                   : 1;
    });
    std::string expected;
    for (int i = 0; i < 3000; ++i)
        expected += "\xc3\xa9";
    EXPECT_EQ(session.readUntil("!"), expected + "?!");
    EXPECT_EQ(session.exitCode(), 0);
}

TEST(LogConsole, ATerminalThatTakesNoTextIsGivenUp)
{
    const Pipe result;
    TerminalSession session([&] {
        LogConsole::allocate();
        const LogConsole::Handle handle = LogConsole::outputHandle();
        const std::string text(1 << 20, 'x');
        const std::size_t first = put(handle, text);
        if (first == 0 || first == text.size())
            return 1;
        const Stopwatch watch;
        for (int i = 0; i < 1000; ++i)
            if (put(handle, text) != 0)
                return 2;
        // Only the first time is waited for.
        if (watch.elapsed() > 60s)
            return 3;
        result.send("r");
        return eventually([&] { return put(handle, "back") == 4; }) ? 0 : 4;
    });
    EXPECT_EQ(result.read(1), "r");
    EXPECT_NE(session.readUntil("back"), "");
    EXPECT_EQ(session.exitCode(), 0);
}

TEST(LogConsole, WritesInTheBackgroundDoNotStopTheProcess)
{
    TerminalSession session([] {
        termios settings{};
        ::tcgetattr(0, &settings);
        settings.c_lflag |= TOSTOP;
        ::tcsetattr(0, TCSANOW, &settings);
        ForkedChild child([] {
            ::setpgid(0, 0);
            return LogConsole::allocate() && put(LogConsole::outputHandle(), "background") == 10 ? 0 : 1;
        });
        return child.exitCode();
    });
    EXPECT_EQ(session.exitCode(), 0);
}

TEST(LogConsole, AHungUpTerminalIsNone)
{
    const Pipe result;
    TerminalSession session([&] {
        ::signal(SIGHUP, SIG_IGN);
        LogConsole::allocate();
        const LogConsole::Handle handle = LogConsole::outputHandle();
        put(handle, "ready");
        const bool noticed = eventually([] { return !LogConsole::hasWindow(); });
        result.send(noticed && put(handle, "x") == 0 && !LogConsole::isWindow() && !LogConsole::allocate() ? "ok"
                                                                                                           : "no");
        return 0;
    });
    EXPECT_NE(session.readUntil("ready"), "");
    session.hangUp();
    EXPECT_EQ(result.read(2), "ok");
}

TEST(SystemErrors, HaveTheirText)
{
    EXPECT_EQ(errorText(EACCES), std::strerror(EACCES));
    EXPECT_EQ(errorText(123456), "");
    EXPECT_EQ(errorText(0xFFFFFFFF), "");
    errno = ENOENT;
    EXPECT_EQ(lastError(), static_cast<std::uint32_t>(ENOENT));
}
