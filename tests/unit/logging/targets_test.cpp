// The targets that write lines.
#include "logging/targets.h"

#include "logging/formatter.h"
#include "platform/text.h"
#include "tests/support/forked_child.h"
#include "tests/unit/logging/support.h"

#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <future>
#include <iostream>
#include <memory>
#include <thread>

using namespace zuLogging;
using namespace zuTest;
using testing::ElementsAre;

namespace {

using FileTarget = basic_file_target<boost::mutex>;
using OutTarget = basic_stdout_target<std_out, boost::mutex>;
using ErrTarget = basic_stdout_target<std_err, boost::mutex>;

template <typename Char>
class Captured {
public:
    explicit Captured(std::basic_ostream<Char>& stream) : stream_(stream), previous_(stream.rdbuf(&buffer_)) {}
    ~Captured() { stream_.rdbuf(previous_); }
    std::basic_string<Char> text() const { return buffer_.str(); }

private:
    std::basic_stringbuf<Char> buffer_;
    std::basic_ostream<Char>& stream_;
    std::basic_streambuf<Char>* previous_;
};

constexpr int writers = 8;
constexpr int linesEach = 400;

/// A line whose end tells whether all of it stands together; some are longer than a file buffer takes at once.
std::string wholeLine(int writer, int number)
{
    const std::size_t length = number % 7 == 0 ? 3000 : static_cast<std::size_t>(20 + number % 50);
    const std::string tag = std::to_string(writer) + '-' + std::to_string(number);
    return tag + std::string(length, static_cast<char>('a' + writer)) + tag;
}

void writeFromThreads(const std::vector<std::shared_ptr<basic_logtarget>>& targets)
{
    const auto msg = message("Threads", log_info);
    std::vector<std::thread> threads;
    for (int i = 0; i < writers; ++i)
        threads.emplace_back([&, i] {
            for (int number = 0; number < linesEach; ++number)
                write(*targets[static_cast<std::size_t>(i) % targets.size()], msg, wholeLine(i, number));
        });
    for (std::thread& thread : threads)
        thread.join();
}

void expectWholeLines(const std::string& text, int count)
{
    std::vector<std::string> expected;
    for (int i = 0; i < count; ++i)
        for (int number = 0; number < linesEach; ++number)
            expected.push_back(wholeLine(i, number));
    std::vector<std::string> found = splitLines(text);
    std::sort(expected.begin(), expected.end());
    std::sort(found.begin(), found.end());
    EXPECT_TRUE(found == expected) << found.size() << " lines, " << expected.size() << " expected";
}

} // namespace

TEST(StdoutTarget, WritesLines)
{
    OutTarget out;
    ErrTarget err;
    const auto msg = message("Std", log_info);
    const Captured<char> standard(std::cout);
    const Captured<char> failures(std::cerr);
    write(out, msg, std::string("one"));
    write(out, msg, std::string());
    write(err, msg, std::string("two"));
    EXPECT_EQ(standard.text(), "one\n\n");
    EXPECT_EQ(failures.text(), "two\n");
}

TEST(StdoutTarget, WritesWideLines)
{
    OutTarget out;
    ErrTarget err;
    const auto msg = message("Std", log_info);
    const Captured<wchar_t> standard(std::wcout);
    const Captured<wchar_t> failures(std::wcerr);
    write(out, msg, std::wstring(L"one \x20AC"));
    write(err, msg, std::wstring(L"two"));
    EXPECT_EQ(standard.text(), L"one \x20AC\n");
    EXPECT_EQ(failures.text(), L"two\n");
}

TEST(StdoutTarget, AFailedStreamIsSilent)
{
    OutTarget out;
    const Captured<char> standard(std::cout);
    std::cout.setstate(std::ios_base::failbit);
    EXPECT_NO_THROW(write(out, message("Std", log_info), std::string("lost")));
    std::cout.clear();
    EXPECT_EQ(standard.text(), "");
}

TEST(StdoutTarget, LinesOfEightThreadsAndTwoObjectsNeverMix)
{
    const Captured<char> standard(std::cout);
    writeFromThreads({std::make_shared<OutTarget>(), std::make_shared<OutTarget>()});
    expectWholeLines(standard.text(), writers);
}

TEST(StdoutTarget, ErrorLinesOfEightThreadsAndTwoObjectsNeverMix)
{
    const Captured<char> failures(std::cerr);
    writeFromThreads({std::make_shared<ErrTarget>(), std::make_shared<ErrTarget>()});
    expectWholeLines(failures.text(), writers);
}

TEST(StdoutTarget, TheTwoStreamsDoNotWaitForEachOther)
{
    /// A stream's buffer that keeps its writer until the other stream has been written to.
    class Waiting : public std::stringbuf {
    public:
        std::promise<void> reached;
        std::promise<void> other;
        bool otherWentOn = false;

    protected:
        std::streamsize xsputn(const char* data, std::streamsize count) override
        {
            reached.set_value();
            otherWentOn = other.get_future().wait_for(std::chrono::seconds(30)) == std::future_status::ready;
            return std::stringbuf::xsputn(data, count);
        }
    };
    const auto msg = message("Std", log_info);
    const Captured<char> failures(std::cerr);
    Waiting waiting;
    std::streambuf* const previous = std::cout.rdbuf(&waiting);
    std::thread writer([&] {
        OutTarget out;
        write(out, msg, std::string("one"));
    });
    waiting.reached.get_future().wait();
    ErrTarget err;
    write(err, msg, std::string("two"));
    waiting.other.set_value();
    writer.join();
    std::cout.rdbuf(previous);
    EXPECT_TRUE(waiting.otherWentOn);
    EXPECT_EQ(waiting.str(), "one\n");
    EXPECT_EQ(failures.text(), "two\n");
}

TEST(TraceTarget, WritesToTheDebuggerChannel)
{
    DebugListener channel;
    basic_trace_target target;
    const auto msg = message("Trace", log_info);
    write(target, msg, std::string("narrow line"));
    EXPECT_EQ(channel.next(), "narrow line");
    write(target, msg, std::wstring(L"wide line \x20AC"));
    EXPECT_EQ(channel.next(), "wide line \xE2\x82\xAC");
    const char text[] = "only a part";
    target.write(msg, text, text + 4);
    EXPECT_EQ(channel.next(), "only");
    EXPECT_TRUE(channel.quiet());
}

TEST(FileTarget, EachLineIsThereWhenWriteReturns)
{
    const TemporaryFolder folder;
    const auto msg = message("File", log_info);
    FileTarget target(make_file(folder / "log"));
    write(target, msg, std::string("one"));
    EXPECT_EQ(readFile(folder / "log"), "one\n");
    const std::string longLine(5000, 'x');
    write(target, msg, longLine);
    EXPECT_EQ(readFile(folder / "log"), "one\n" + longLine + '\n');
    write(target, msg, std::string(512, 'y'));
    write(target, msg, std::string(513, 'z'));
    EXPECT_THAT(splitLines(readFile(folder / "log")),
                ElementsAre("one", longLine, std::string(512, 'y'), std::string(513, 'z')));
}

TEST(FileTarget, AnEmptyTextWritesNothing)
{
    const TemporaryFolder folder;
    FileTarget target(make_file(folder / "log"));
    write(target, message("File", log_info), std::string());
    write(target, message("File", log_info), std::wstring());
    const char text[] = "x";
    target.write(message("File", log_info), text + 1, text);
    EXPECT_EQ(readFile(folder / "log"), "");
}

TEST(FileTarget, AnExistingFileIsAppendedTo)
{
    const TemporaryFolder folder;
    const auto msg = message("File", log_info);
    std::ofstream(folder / "log") << "before\n";
    write(*std::make_unique<FileTarget>(make_file(folder / "log")), msg, std::string("one"));
    write(*std::make_unique<FileTarget>(make_file(folder / "log")), msg, std::string("two"));
    EXPECT_EQ(readFile(folder / "log"), "before\none\ntwo\n");
}

TEST(FileTarget, WideTextIsWrittenAsUtf8)
{
    const TemporaryFolder folder;
    FileTarget target(make_file(folder / "log"));
    write(target, message("File", log_info), std::wstring(L"\xE4 \x20AC \x1F600"));
    EXPECT_EQ(readFile(folder / "log"), "\xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80\n");
    EXPECT_THROW(write(target, message("File", log_info), std::wstring(1, static_cast<wchar_t>(0xD800))),
                 base2::character_conversion_error);
}

TEST(FileTarget, FlushOnlyLeavesTheLineEndAway)
{
    const TemporaryFolder folder;
    const auto file = make_file(folder / "log");
    EXPECT_FALSE(file->flush_only);
    file->flush_only = true;
    FileTarget target(file);
    write(target, message("File", log_info), std::string("one"));
    EXPECT_EQ(readFile(folder / "log"), "one");
    write(target, message("File", log_info), std::string(2000, 'x'));
    EXPECT_EQ(readFile(folder / "log"), "one" + std::string(2000, 'x'));
}

TEST(FileTarget, APathIsUtf8)
{
    const TemporaryFolder folder;
    const std::string path = folder / "l\xC3\xB6g \xE2\x82\xAC";
    write(*std::make_unique<FileTarget>(make_file(path)), message("File", log_info), std::string("one"));
    EXPECT_EQ(readFile(path), "one\n");
    EXPECT_THROW(make_file(folder / "\xFF"), base2::character_conversion_error);
}

TEST(FileTarget, AMissingFolderIsAnError)
{
    const TemporaryFolder folder;
    const std::string path = folder / "missing/log";
    try {
        make_file(path);
        FAIL();
    } catch (const std::runtime_error& failure) {
        EXPECT_EQ(failure.what(), "Error opening file: " + path);
    }
    EXPECT_THROW(make_file(folder / ""), std::runtime_error);
}

TEST(FileTarget, AFailedFileIsSilent)
{
    const TemporaryFolder folder;
    const auto file = make_file(folder / "log");
    file->setstate(std::ios_base::badbit);
    FileTarget target(file);
    EXPECT_NO_THROW(write(target, message("File", log_info), std::string("lost")));
    EXPECT_EQ(readFile(folder / "log"), "");
}

TEST(FileTarget, LinesOfEightThreadsNeverMix)
{
    const TemporaryFolder folder;
    const auto file = make_file(folder / "log");
    writeFromThreads({std::make_shared<FileTarget>(file), std::make_shared<FileTarget>(file)});
    expectWholeLines(readFile(folder / "log"), writers);
}

TEST(FileTarget, TwoProcessesAppendToOneFile)
{
    const TemporaryFolder folder;
    const auto msg = message("Processes", log_info);
    std::vector<std::unique_ptr<ForkedChild>> children;
    for (int i = 0; i < 2; ++i)
        children.push_back(std::make_unique<ForkedChild>([&, i] {
            FileTarget target(make_file(folder / "log"));
            for (int number = 0; number < linesEach; ++number)
                write(target, msg, wholeLine(i, number));
            return 0;
        }));
    for (const auto& child : children)
        EXPECT_EQ(child->exitCode(), 0);
    expectWholeLines(readFile(folder / "log"), 2);
}

TEST(FileTarget, AFormatterBeforeItMakesWholeLines)
{
    const TemporaryFolder folder;
    basic_dateformatter<0> formatter(std::make_shared<FileTarget>(make_file(folder / "log")));
    const auto msg = message("Formatted", log_info);
    write(formatter, msg, std::string("a\nb\n"));
    write(formatter, msg, std::wstring(L"wide \xE4"));
    const std::string head = "2026-Nov-12 10:58:49.123456 " + msg.log.path() + " [info] ";
    EXPECT_THAT(splitLines(readFile(folder / "log")), ElementsAre(head + "a b", head + "wide \xC3\xA4"));
}
