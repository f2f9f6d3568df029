// Files with rotation, and streams: no line is lost or torn.
#include "tests/unit/zuLogSvc/support.h"

#include "tools/zuLogSvc/output.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace zuLogSvc;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using zuTest::eventually;
using zuTest::readFile;
using zuTest::someMessage;
using zuTest::splitLines;
using zuTest::TestClock;

constexpr std::uint64_t second = 1'000'000;
constexpr std::uint64_t day = 86'400 * second;

class Files : public ::testing::Test {
protected:
    Files()
    {
        settings.type = OutputSettings::Type::file;
        settings.path = folder.file("log");
        // Files have the system's times; the test's clock starts with it.
        clock.local = systemClock().localMicroseconds() / day * day + day / 2;
    }
    static void write(Output& output, const std::string& text)
    {
        output.write(someMessage(text), 0);
        output.flush();
    }
    std::vector<std::string> texts(const std::string& name) const
    {
        std::vector<std::string> out;
        for (const std::string& line : splitLines(readFile(folder.file(name))))
            out.push_back(line.substr(line.find(']') + 2));
        return out;
    }
    bool exists(const std::string& name) const { return std::filesystem::exists(folder.file(name)); }

    zuTest::TemporaryFolder folder;
    OutputSettings settings;
    TestClock clock;
    const std::size_t lineSize = formatLine(someMessage("0"), 0, {}).size() + 1;
};

TEST_F(Files, AreAppendedTo)
{
    zuTest::writeFile(settings.path, "old line\n");
    {
        FileOutput output(settings, clock);
        write(output, "1");
    }
    EXPECT_EQ(readFile(settings.path), "old line\n" + formatLine(someMessage("1"), 0, {}) + "\n");
}

TEST_F(Files, ALineLeftUnfinishedIsEnded)
{
    zuTest::writeFile(settings.path, "torn by a cra");
    FileOutput output(settings, clock);
    write(output, "1");
    EXPECT_EQ(readFile(settings.path), "torn by a cra\n" + formatLine(someMessage("1"), 0, {}) + "\n");
}

TEST_F(Files, InAMissingFolderCannotBeOpened)
{
    settings.path = folder.file("missing/log");
    try {
        FileOutput output(settings, clock);
        FAIL() << "opened";
    } catch (const OutputError& error) {
        EXPECT_THAT(error.what(), HasSubstr("missing/log: cannot be opened: No such file"));
    }
}

TEST_F(Files, RotateBySizeBetweenTwoLines)
{
    settings.rotateSize = lineSize * 2;
    settings.keep = 2;
    FileOutput output(settings, clock);
    for (const char* text : {"1", "2", "3", "4", "5"})
        write(output, text);
    EXPECT_THAT(texts("log"), ElementsAre("5"));
    EXPECT_THAT(texts("log.1"), ElementsAre("3", "4"));
    EXPECT_THAT(texts("log.2"), ElementsAre("1", "2"));
    write(output, "6");
    write(output, "7");
    EXPECT_THAT(texts("log"), ElementsAre("7"));
    EXPECT_THAT(texts("log.1"), ElementsAre("5", "6"));
    EXPECT_THAT(texts("log.2"), ElementsAre("3", "4"));
    EXPECT_FALSE(exists("log.3"));
}

TEST_F(Files, RotateBySizeWithinABatch)
{
    settings.rotateSize = lineSize * 2;
    FileOutput output(settings, clock);
    for (const char* text : {"1", "2", "3"})
        output.write(someMessage(text), 0);
    output.flush();
    EXPECT_THAT(texts("log"), ElementsAre("3"));
    EXPECT_THAT(texts("log.1"), ElementsAre("1", "2"));
}

TEST_F(Files, SizeOfAnEarlierRunCounts)
{
    settings.rotateSize = lineSize * 2;
    {
        FileOutput output(settings, clock);
        write(output, "1");
        write(output, "2");
    }
    FileOutput output(settings, clock);
    write(output, "3");
    EXPECT_THAT(texts("log"), ElementsAre("3"));
    EXPECT_THAT(texts("log.1"), ElementsAre("1", "2"));
}

TEST_F(Files, ALineLargerThanTheSizeStaysWhole)
{
    settings.rotateSize = 10;
    FileOutput output(settings, clock);
    write(output, "1");
    write(output, "2");
    EXPECT_THAT(texts("log"), ElementsAre("2"));
    EXPECT_THAT(texts("log.1"), ElementsAre("1"));
}

TEST_F(Files, RotateByAgeWithTheFirstLineOfANewPeriod)
{
    settings.rotateAge = 86400;
    FileOutput output(settings, clock);
    write(output, "1");
    clock.local += day / 2 - 1;
    write(output, "2");
    clock.local += 1; // midnight
    EXPECT_FALSE(exists("log.1"));
    write(output, "3");
    clock.local += day;
    write(output, "4");
    EXPECT_THAT(texts("log"), ElementsAre("4"));
    EXPECT_THAT(texts("log.1"), ElementsAre("3"));
    EXPECT_THAT(texts("log.2"), ElementsAre("1", "2"));
}

TEST_F(Files, AgeOfAnEarlierRunCounts)
{
    settings.rotateAge = 86400;
    {
        FileOutput output(settings, clock);
        write(output, "1");
    }
    // The file was last written now; two days on, that is another period.
    std::filesystem::last_write_time(settings.path,
                                     std::filesystem::file_time_type::clock::now() - std::chrono::hours(48));
    FileOutput output(settings, clock);
    write(output, "2");
    EXPECT_THAT(texts("log"), ElementsAre("2"));
    EXPECT_THAT(texts("log.1"), ElementsAre("1"));
}

TEST_F(Files, AFailedRotationLosesNothing)
{
    settings.rotateSize = lineSize;
    settings.keep = 1;
    // A folder that is not empty stands where the old file is to go.
    std::filesystem::create_directories(folder.file("log.1/x"));
    FileOutput output(settings, clock);
    write(output, "1");
    write(output, "2");
    EXPECT_THAT(texts("log"), ElementsAre("1", "2"));
    EXPECT_THAT(output.takeTrouble(), HasSubstr("cannot be rotated"));
    write(output, "3");
    EXPECT_EQ(output.takeTrouble(), "");
    std::filesystem::remove_all(folder.file("log.1"));
    clock.steady += 10'000; // not tried again before
    write(output, "4");
    EXPECT_THAT(texts("log"), ElementsAre("4"));
    EXPECT_THAT(texts("log.1"), ElementsAre("1", "2", "3"));
}

TEST_F(Files, AFileThatWasMovedAwayIsMadeAnewAtTheRotation)
{
    settings.rotateSize = lineSize * 2;
    FileOutput output(settings, clock);
    write(output, "1");
    write(output, "2");
    std::filesystem::rename(settings.path, folder.file("taken"));
    write(output, "3");
    EXPECT_THAT(texts("taken"), ElementsAre("1", "2"));
    EXPECT_THAT(texts("log"), ElementsAre("3"));
}

// Writes as a disk does that has this many bytes free.
std::atomic<std::size_t> freeBytes;
std::size_t writeWhileFree(const void* data, std::size_t, std::size_t size, std::FILE* file)
{
    const std::size_t taken = std::min(size, freeBytes.load());
    freeBytes -= taken;
    const std::size_t written = std::fwrite(data, 1, taken, file);
    errno = taken < size ? ENOSPC : 0;
    return written;
}

TEST_F(Files, ALineCutByAFullDiskIsCompletedLater)
{
    freeBytes = lineSize + 10;
    settings.rotateSize = lineSize * 3;
    FileOutput output(settings, clock, writeWhileFree);
    for (const char* text : {"1", "2", "3"})
        write(output, text);
    EXPECT_EQ(readFile(settings.path).size(), lineSize + 10);
    EXPECT_THAT(output.takeTrouble(), HasSubstr("No space left"));
    EXPECT_EQ(output.takeTrouble(), "");
    // Due for rotation, but the line in the middle is completed first.
    write(output, "4");
    EXPECT_FALSE(exists("log.1"));
    freeBytes = 1'000'000;
    clock.steady += 60'000;
    write(output, "5");
    EXPECT_THAT(texts("log.1"), ElementsAre("1", "2", "3", "4"));
    EXPECT_THAT(texts("log"), ElementsAre("5"));
    EXPECT_EQ(output.takeLost(), 0u);
}

TEST_F(Files, WhatAFullDiskDoesNotTakeIsBoundedAndCounted)
{
    freeBytes = 0;
    FileOutput output(settings, clock, writeWhileFree);
    const std::string large(1'000'000, 'x');
    for (int i = 0; i < 12; ++i)
        write(output, large);
    const std::uint64_t lost = output.takeLost();
    EXPECT_EQ(lost, 12 - FileOutput::waitingLimit / large.size());
    freeBytes = 100'000'000;
    output.flush();
    EXPECT_EQ(splitLines(readFile(settings.path)).size(), 12 - lost);
    EXPECT_EQ(output.takeLost(), 0u);
}

TEST_F(Files, ANewOutputTakesOverALineThatTheOldOneHasBegun)
{
    freeBytes = 10;
    FileOutput old(settings, clock, writeWhileFree);
    write(old, "1");
    FileOutput fresh(settings, clock);
    fresh.takeOver(old);
    write(fresh, "2");
    EXPECT_THAT(texts("log"), ElementsAre("1", "2"));
}

TEST_F(Files, ANewOutputWritesToTheFileOfTheNameAfterARotation)
{
    settings.rotateSize = lineSize * 2;
    FileOutput old(settings, clock);
    write(old, "1");
    write(old, "2");
    FileOutput fresh(settings, clock); // on the file that is renamed next
    write(old, "3");
    EXPECT_THAT(texts("log.1"), ElementsAre("1", "2"));
    fresh.takeOver(old);
    write(fresh, "4");
    EXPECT_THAT(texts("log.1"), ElementsAre("1", "2"));
    EXPECT_THAT(texts("log"), ElementsAre("3", "4"));
    write(fresh, "5");
    EXPECT_THAT(texts("log"), ElementsAre("5"));
}

TEST_F(Files, AnOutputThatIsNeverUsedLeavesABegunLineAlone)
{
    freeBytes = 10;
    FileOutput old(settings, clock, writeWhileFree);
    write(old, "1");
    {
        const FileOutput unused(settings, clock);
    }
    freeBytes = 1'000'000;
    write(old, "2");
    EXPECT_THAT(texts("log"), ElementsAre("1", "2"));
}

TEST_F(Files, WhatStillWaitsIsGivenUpAndCounted)
{
    freeBytes = lineSize + 10;
    FileOutput output(settings, clock, writeWhileFree);
    EXPECT_EQ(output.giveUp(), 0u);
    for (const char* text : {"1", "2", "3"})
        write(output, text);
    EXPECT_EQ(output.takeLost(), 0u);
    EXPECT_EQ(output.giveUp(), 2u) << "the one that was cut, and the one that was not begun";
    EXPECT_EQ(output.takeLost(), 2u);
    EXPECT_EQ(output.giveUp(), 0u);
    freeBytes = 1'000'000;
    output.flush();
    EXPECT_EQ(readFile(settings.path).size(), lineSize + 10);
}

TEST_F(Files, TheEndOfAnEarlierRunsLineIsNoLineGivenUp)
{
    zuTest::writeFile(settings.path, "torn by a cra");
    freeBytes = 0;
    FileOutput output(settings, clock, writeWhileFree);
    write(output, "1");
    EXPECT_EQ(output.giveUp(), 1u);
}

TEST_F(Files, TakingOverFromAFinishedOutputAddsNothing)
{
    FileOutput old(settings, clock);
    old.write(someMessage("1"), 0);
    FileOutput fresh(settings, clock);
    old.flush();
    fresh.takeOver(old);
    write(fresh, "2");
    EXPECT_THAT(texts("log"), ElementsAre("1", "2"));
}

TEST_F(Files, ReadersNeverSeeATornOrMissingLine)
{
    constexpr int lines = 20000;
    settings.rotateSize = 16384;
    settings.keep = 10000;
    std::atomic<bool> done{false};
    std::atomic<std::uint64_t> read{0};
    const std::size_t digits = 8;
    const auto text = [&](int number) {
        const std::string plain = std::to_string(number);
        return std::string(digits - plain.size(), '0') + plain;
    };
    const std::size_t length = formatLine(someMessage(text(0)), 0, {}).size();
    const auto reader = [&] {
        while (!done) {
            const std::string content = readFile(settings.path);
            // A line that is being written has no end yet; all others are whole and follow each other.
            const std::string whole = content.substr(0, content.rfind('\n') + 1);
            int expected = -1;
            for (const std::string& line : splitLines(whole)) {
                ASSERT_EQ(line.size(), length) << line;
                const int number = std::stoi(line.substr(length - digits));
                if (expected >= 0) {
                    ASSERT_EQ(number, expected);
                }
                expected = number + 1;
                ++read;
            }
        }
    };
    std::thread one(reader), two(reader);
    {
        FileOutput output(settings, clock);
        for (int number = 0; number < lines; ++number) {
            output.write(someMessage(text(number)), 0);
            if (number % 7 == 0)
                output.flush();
        }
        output.flush();
        EXPECT_TRUE(eventually([&] { return read > 0; }));
    }
    done = true;
    one.join();
    two.join();

    std::string all;
    int files = 0;
    for (; exists("log." + std::to_string(files + 1)); ++files)
        all.insert(0, readFile(folder.file("log." + std::to_string(files + 1))));
    EXPECT_GT(files, 50);
    all += readFile(settings.path);
    const auto written = splitLines(all);
    ASSERT_EQ(written.size(), static_cast<std::size_t>(lines));
    for (int number = 0; number < lines; ++number)
        ASSERT_EQ(written[static_cast<std::size_t>(number)], formatLine(someMessage(text(number)), 0, {}));
}

TEST_F(Files, TwoWritersShareAFile)
{
    FileOutput one(settings, clock), two(settings, clock);
    std::thread other([&] {
        for (int i = 0; i < 1000; ++i)
            write(two, "two");
    });
    for (int i = 0; i < 1000; ++i)
        write(one, "one");
    other.join();
    const auto lines = texts("log");
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "one"), 1000);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "two"), 1000);
    EXPECT_EQ(lines.size(), 2000u);
}

TEST_F(Files, AreNeverColoured)
{
    settings.line.colour = true;
    FileOutput output(settings, clock);
    write(output, "1");
    EXPECT_EQ(readFile(settings.path), formatLine(someMessage("1"), 0, {}) + "\n");
}

TEST_F(Files, StreamsTakeLinesAndLoseThemWhenTheyFail)
{
    std::FILE* file = std::fopen(settings.path.c_str(), "w");
    ASSERT_NE(file, nullptr);
    {
        StreamOutput output(file, {});
        output.write(someMessage("1"), 0);
        EXPECT_EQ(readFile(settings.path), "");
        output.flush();
        EXPECT_EQ(readFile(settings.path), formatLine(someMessage("1"), 0, {}) + "\n");
        EXPECT_EQ(output.takeTrouble(), "");
    }
    std::fclose(file);
    file = std::fopen(settings.path.c_str(), "r"); // refuses writes
    StreamOutput output(file, {});
    write(output, "2");
    EXPECT_EQ(output.takeLost(), 1u);
    EXPECT_THAT(output.takeTrouble(), HasSubstr("cannot write: Bad file descriptor"));
    write(output, "3");
    EXPECT_EQ(output.takeLost(), 1u);
    EXPECT_EQ(output.takeTrouble(), "");
    EXPECT_EQ(output.giveUp(), 1u) << "of the last flush";
    std::fclose(file);
}

} // namespace
