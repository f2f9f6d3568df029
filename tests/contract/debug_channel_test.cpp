// Diagnostic text as the system log gets it; a socket of the test's own stands for the log.
#include "platform/debug_channel.h"
#include "tests/contract/contract_support.h"
#include "tests/support/files.h"
#include "tests/support/local_inbox.h"

#include <cerrno>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <optional>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace zuPlatform;
using namespace zuTest;
using testing::ElementsAre;

class DebugChannelTest : public testing::Test {
protected:
    DebugChannelTest()
    {
        listen();
        setDebugChannelForTesting(path());
    }
    ~DebugChannelTest() override { setDebugChannelForTesting("/dev/log"); }

    std::string path() const { return folder_ / "log"; }
    void listen() { log_.emplace(path()); }
    void stop() { log_.reset(); }

    /// The next record without what stands before its text, or "none" if none is queued.
    std::string next()
    {
        const auto received = log_->receive(0);
        if (!received)
            return "none";
        const std::string& record = *received;
        const std::string head = "<15>test_contract[" + std::to_string(::getpid()) + "]: ";
        EXPECT_EQ(record.substr(0, head.size()), head);
        return record.substr(std::min(head.size(), record.size()));
    }
    std::vector<std::string> all()
    {
        std::vector<std::string> result;
        for (std::string text = next(); text != "none"; text = next())
            result.push_back(text);
        return result;
    }

private:
    const TemporaryFolder folder_;
    std::optional<LocalInbox> log_;
};

TEST_F(DebugChannelTest, ALineIsARecordAtDebugPriority)
{
    debugOutput("hello\n");
    EXPECT_THAT(all(), ElementsAre("hello"));
}

TEST_F(DebugChannelTest, TextWaitsForItsLineEnd)
{
    debugOutput("one ");
    debugOutput("line");
    EXPECT_EQ(next(), "none");
    debugOutput("\n");
    EXPECT_THAT(all(), ElementsAre("one line"));
    debugOutput("a\nb\nrest");
    EXPECT_THAT(all(), ElementsAre("a", "b"));
    debugOutput("\n\n");
    EXPECT_THAT(all(), ElementsAre("rest", ""));
    debugOutput("");
    debugOutput(static_cast<const char*>(nullptr));
    debugOutput(static_cast<const wchar_t*>(nullptr));
    EXPECT_EQ(next(), "none");
}

TEST_F(DebugChannelTest, WideTextIsUtf8)
{
    debugOutput(L"caf\u00e9 \U0001F600\n");
    EXPECT_THAT(all(), ElementsAre("caf\xc3\xa9 \xf0\x9f\x98\x80"));
    debugOutput("mixed ");
    const wchar_t bad[] = {L'<', static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0x110000), L'>', L'\n', 0};
    debugOutput(bad);
    EXPECT_THAT(all(), ElementsAre("mixed <?"
                                   "?>"));
}

TEST_F(DebugChannelTest, ThreadsDoNotMix)
{
    debugOutput("first ");
    std::thread([] { debugOutput("other thread's\n"); }).join();
    debugOutput("thread's\n");
    EXPECT_THAT(all(), ElementsAre("other thread's", "first thread's"));
}

TEST_F(DebugChannelTest, ALongLineIsCutAndNothingIsLost)
{
    std::string text;
    while (text.size() < 30000)
        text += std::to_string(text.size()) + ' ';
    debugOutput((text + '\n').c_str());
    std::string joined;
    for (const std::string& part : all()) {
        EXPECT_LE(part.size(), 8192u);
        joined += part;
    }
    EXPECT_EQ(joined, text);
    debugOutput("next\n");
    EXPECT_THAT(all(), ElementsAre("next"));
}

TEST_F(DebugChannelTest, ALogThatIsGoneOrFullCostsNothing)
{
    stop();
    errno = 123;
    debugOutput("nobody\n");
    EXPECT_EQ(errno, 123);
    listen();
    debugOutput("somebody\n");
    EXPECT_THAT(all(), ElementsAre("somebody"));
    // More than any queue holds, and nobody reads: this returns.
    const Stopwatch watch;
    for (int i = 0; i < 20000; ++i)
        debugOutput("flood\n");
    EXPECT_LT(watch.elapsed(), 60s);
    const std::size_t kept = all().size();
    EXPECT_GT(kept, 0u);
    EXPECT_LT(kept, 20000u);
    setDebugChannelForTesting(std::string(200, 'p'));
    debugOutput("no such path can be\n");
    EXPECT_EQ(next(), "none");
}

TEST_F(DebugChannelTest, ManyThreadsWriteWholeLines)
{
    std::vector<std::thread> threads;
    std::atomic<int> running{4};
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&, i] {
            for (int k = 0; k < 100; ++k) {
                debugOutput(std::string(50, static_cast<char>('a' + i)).c_str());
                debugOutput("\n");
            }
            --running;
        });
    // A full queue drops records, so only whether they are whole is certain.
    std::size_t count = 0;
    const auto take = [&] {
        for (const std::string& line : all()) {
            EXPECT_EQ(line, std::string(50, line.empty() ? '?' : line[0]));
            ++count;
        }
    };
    while (running > 0)
        take();
    for (std::thread& thread : threads)
        thread.join();
    take();
    EXPECT_GT(count, 0u);
}

TEST_F(DebugChannelTest, ItsSocketIsNotInherited)
{
    // In a process of its own, where nothing was sent before.
    EXPECT_EQ(inChild([this] {
                  const std::set<int> before = openDescriptors();
                  setDebugChannelForTesting(path());
                  debugOutput("open\n");
                  for (const int fd : openDescriptors())
                      if (!before.count(fd) && !(::fcntl(fd, F_GETFD) & FD_CLOEXEC))
                          return 1;
                  return openDescriptors().size() <= before.size() + 1 ? 0 : 2;
              }),
              0);
}
