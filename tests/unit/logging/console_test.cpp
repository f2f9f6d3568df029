// The console target, on a scripted console.
#include "logging/console.h"

#include "logging/config.h"
#include "logging/log.h"
#include "tests/unit/logging/fake_console.h"
#include "tests/unit/logging/fake_log_service.h"
#include "tests/unit/logging/support.h"

#include <set>
#include <thread>

using namespace zuLogging;
using namespace zuTest;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Target = basic_console_target<boost::mutex>;

class Console : public testing::Test {
protected:
    Console() { FakeConsole::reset(); }

    FakeConsole::State& fake = FakeConsole::state();
    std::vector<std::string> takeCalls() { return std::exchange(fake.calls, {}); }
};

} // namespace

TEST_F(Console, AttributeOfEachLevel)
{
    fake.window = true;
    Target target(make_console());
    const std::pair<std::uint32_t, int> attributes[] = {
        {log_fatal, 0xC0}, {log_err, 0x0C},  {log_warn, 0x0E}, {log_trace, 0x07},
        {log_debug, 0x70}, {log_info, 0x0F}, {0x40, 0x0F},     {0, 0x0F},
    };
    for (const auto& [level, attribute] : attributes) {
        fake.info.attributes = 0x1A;
        write(target, message("Console", level), std::string("text"));
        EXPECT_THAT(takeCalls(), ElementsAre("setAttribute " + std::to_string(attribute), "write text",
                                             "setAttribute 26", "write \n"));
        write(target, message("Console", level), std::wstring(L"text"));
        EXPECT_THAT(takeCalls(), ElementsAre("setAttribute " + std::to_string(attribute), "wide text",
                                             "setAttribute 26", "wide \n"));
    }
}

TEST_F(Console, WithoutColoursNothingIsSet)
{
    fake.window = true;
    const auto console = make_console();
    console->colored = false;
    Target target(console);
    write(target, message("Console", log_err), std::string("text"));
    EXPECT_THAT(takeCalls(), ElementsAre("write text", "write \n"));
}

TEST_F(Console, AnExistingOneIsTakenAsItIs)
{
    fake.window = true;
    {
        const auto console = make_console();
        EXPECT_FALSE(console->owned);
        EXPECT_TRUE(console->colored);
        EXPECT_EQ(console->width, 80);
        EXPECT_EQ(console->height, 25);
    }
    EXPECT_THAT(takeCalls(), IsEmpty());
}

TEST_F(Console, AMissingOneIsAllocatedSizedAndMinimised)
{
    fake.info.maxWidth = 120;
    fake.info.maxHeight = 60;
    fake.info.left = 3;
    fake.info.top = 4;
    {
        const auto console = make_console();
        EXPECT_TRUE(console->owned);
        EXPECT_THAT(takeCalls(), ElementsAre("allocate", "setBufferSize 80 9000", "setWindow 3 4 119 24", "minimise"));
    }
    EXPECT_THAT(takeCalls(), ElementsAre("release"));
}

TEST_F(Console, ASmallScreenLimitsTheWindow)
{
    fake.info.maxWidth = 40;
    fake.info.maxHeight = 10;
    make_console();
    EXPECT_EQ(takeCalls().at(2), "setWindow 0 0 39 9");
}

TEST_F(Console, TheWindowIsSetByWhatTheSizedBufferAllows)
{
    fake.info.maxWidth = 120;
    fake.info.maxHeight = 60;
    fake.infoWhenSized.emplace();
    fake.infoWhenSized->maxWidth = 70;
    fake.infoWhenSized->maxHeight = 20;
    fake.infoWhenSized->left = 5;
    fake.infoWhenSized->top = 6;
    make_console();
    EXPECT_EQ(takeCalls().at(2), "setWindow 5 6 69 19");
}

TEST_F(Console, WithoutInfoItIsNotSized)
{
    fake.hasInfo = false;
    const auto console = make_console();
    EXPECT_THAT(takeCalls(), ElementsAre("allocate", "minimise"));
}

TEST_F(Console, WithoutAWindowItIsNotMinimised)
{
    fake.hasInfo = false;
    fake.windowIsOne = false;
    const auto console = make_console();
    EXPECT_THAT(takeCalls(), ElementsAre("allocate"));
}

TEST_F(Console, TheParentsIsTheSecondChoice)
{
    fake.canAllocate = false;
    const auto console = make_console();
    EXPECT_TRUE(console->owned);
    EXPECT_THAT(takeCalls(), ElementsAre("allocate", "attachToParent", "minimise"));
}

TEST_F(Console, TextGoesToTheParentsConsoleAndNotToWhereItWentBefore)
{
    fake.canAllocate = false;
    fake.elsewhere = 5;
    Target target(make_console());
    fake.window = false; // so that it is attached to anew
    takeCalls();
    write(target, message("Console", log_info), std::string("text"));
    EXPECT_THAT(takeCalls(), ElementsAre("allocate", "attachToParent", "setAttribute 15", "write text",
                                         "setAttribute 7", "write \n"));
}

TEST_F(Console, TextGoesToTheAllocatedConsoleAndNotToWhereItWentBefore)
{
    fake.elsewhere = 5;
    fake.hasInfo = false;
    Target target(make_console());
    fake.window = false;
    takeCalls();
    write(target, message("Console", log_info), std::string("text"));
    EXPECT_THAT(takeCalls(), ElementsAre("allocate", "setAttribute 15", "write text", "setAttribute 7", "write \n"));
}

TEST_F(Console, WithNoneAtAllTheTextIsLost)
{
    fake.canAllocate = fake.canAttach = false;
    const auto console = make_console();
    EXPECT_FALSE(console->owned);
    EXPECT_EQ(console->ensure(), 0);
    takeCalls();
    Target target(console);
    write(target, message("Console", log_err), std::string("text"));
    EXPECT_THAT(takeCalls(), ElementsAre("allocate", "attachToParent", "write ", "write "));
}

TEST_F(Console, AClosedOneIsAllocatedAnewAtTheNextMessage)
{
    fake.window = true;
    Target target(make_console());
    write(target, message("Console", log_info), std::string("one"));
    takeCalls();
    fake.window = false;
    write(target, message("Console", log_info), std::string("two"));
    const auto calls = takeCalls();
    EXPECT_EQ(calls.at(0), "allocate");
    EXPECT_THAT(calls, testing::Contains("write two"));
    EXPECT_THAT(calls, testing::Not(testing::Contains("minimise")));
}

TEST_F(Console, AClosedOneThatWasAllocatedHereIsAllocatedAnewToo)
{
    fake.info.maxWidth = fake.info.maxHeight = 30;
    auto console = make_console();
    ASSERT_TRUE(console->owned);
    {
        Target target(console);
        fake.window = false; // closed by its user
        takeCalls();
        write(target, message("Console", log_info), std::string("two"));
        EXPECT_THAT(takeCalls(), ElementsAre("allocate", "setBufferSize 80 9000", "setWindow 0 0 29 24",
                                             "setAttribute 15", "write two", "setAttribute 7", "write \n"))
            << "and is not minimised";
        write(target, message("Console", log_info), std::string("three"));
        EXPECT_THAT(takeCalls(), ElementsAre("setAttribute 15", "write three", "setAttribute 7", "write \n"));
    }
    EXPECT_TRUE(console->owned);
    console.reset();
    EXPECT_THAT(takeCalls(), ElementsAre("release"));
}

TEST_F(Console, WritingGoesOnUntilAllIsOut)
{
    fake.window = true;
    Target target(make_console());
    fake.takes = {2, 1, 3};
    write(target, message("Console", log_info), std::string("abcdef"));
    EXPECT_THAT(takeCalls(),
                ElementsAre("setAttribute 15", "write ab", "write c", "write def", "setAttribute 7", "write \n"));
}

TEST_F(Console, NarrowTextStopsAtARefusal)
{
    fake.window = true;
    Target target(make_console());
    fake.takes = {2, 0};
    write(target, message("Console", log_info), std::string("abcdef"));
    EXPECT_THAT(takeCalls(), ElementsAre("setAttribute 15", "write ab", "write ", "setAttribute 7", "write \n"));
}

TEST_F(Console, WideTextGoesOnBehindARefusal)
{
    fake.window = true;
    Target target(make_console());
    fake.takes = {2, 0, 0, 1};
    write(target, message("Console", log_info), std::wstring(L"abcd"));
    EXPECT_THAT(takeCalls(), ElementsAre("setAttribute 15", "wide ab", "wide ", "wide ", "wide c", "wide d",
                                         "setAttribute 7", "wide \n"));
}

TEST_F(Console, LinesOfEightThreadsAndTwoTargetsNeverMix)
{
    // The scripted console has no lock of its own: the target's must do.
    fake.window = true;
    const auto console = make_console();
    Target targets[] = {Target(console), Target(console)};
    const auto msg = message("Console", log_err);
    constexpr int threads = 8;
    constexpr int each = 300;
    std::vector<std::thread> writers;
    for (int i = 0; i < threads; ++i)
        writers.emplace_back([&, i] {
            for (int number = 0; number < each; ++number)
                write(targets[i % 2], msg, std::to_string(i) + '-' + std::to_string(number));
        });
    for (std::thread& writer : writers)
        writer.join();
    const auto calls = takeCalls();
    ASSERT_EQ(calls.size(), 4u * threads * each);
    std::set<std::string> lines;
    for (std::size_t i = 0; i < calls.size(); i += 4) {
        ASSERT_EQ(calls[i], "setAttribute 12");
        lines.insert(calls[i + 1]);
        ASSERT_EQ(calls[i + 2], "setAttribute 7");
        ASSERT_EQ(calls[i + 3], "write \n");
    }
    EXPECT_EQ(lines.size(), static_cast<std::size_t>(threads * each));
}

TEST_F(Console, ATitleIsSet)
{
    fake.window = true;
    make_console("the title");
    EXPECT_THAT(takeCalls(), ElementsAre("setTitle the title"));
}

TEST_F(Console, ARefusedTitleIsASystemError)
{
    fake.window = true;
    fake.takesTitle = false;
    fake.error = 5;
    fake.errorWords = "Access is denied";
    try {
        make_console("title");
        FAIL();
    } catch (const zuLogging::system_error& failure) {
        EXPECT_EQ(failure.code, 5u);
        EXPECT_STREQ(failure.what(), "Access is denied");
    }
}

TEST_F(Console, ASystemErrorWithoutWordsHasItsNumber)
{
    EXPECT_STREQ(zuLogging::system_error(4711).what(), "Error 4711");
    EXPECT_EQ(zuLogging::system_error(4711).code, 4711u);
}

TEST_F(Console, AProcessThatIsConfiguredForItAllocatesAndMinimisesOne)
{
    ZU_IN_FRESH_PROCESS({
        useOwnObjectNames();
        const FakeLogService service("{\"destination\":\"console\",\"level\":\"info\"}");
        fake.info.maxWidth = fake.info.maxHeight = 30;
        EXPECT_TRUE(configure_logging("GEVSVC", "", boost::property_tree::ptree()));
        EXPECT_THAT(takeCalls(), ElementsAre("allocate", "setBufferSize 80 9000", "setWindow 0 0 29 24", "minimise"));
        logstate log = make_numbered_logstate("Test");
        ZU_LOG(log, log_err, "the text");
        const auto calls = takeCalls();
        ASSERT_EQ(calls.size(), 4u);
        EXPECT_EQ(calls[0], "setAttribute 12");
        EXPECT_THAT(calls[1], testing::MatchesRegex("write 20.* GEVSVC\\.Test\\.0 \\[err\\] the text"));
        EXPECT_EQ(calls[3], "write \n");
        clear_targets();
        EXPECT_THAT(takeCalls(), ElementsAre("release"));
    });
}
