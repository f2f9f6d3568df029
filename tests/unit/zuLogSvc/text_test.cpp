// Time stamps, words, wildcards, UTF-8 and lines.
#include "tests/unit/zuLogSvc/support.h"

#include "tools/zuLogSvc/line_format.h"
#include "tools/zuLogSvc/utf8.h"
#include "tools/zuLogSvc/words.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <random>

namespace {

using namespace zuLogSvc;
using zuTest::someMessage;
using zuTest::someTime;

TEST(TimeStamp, ReadsLikeTheDaemons)
{
    EXPECT_EQ(formatTime(someTime), "2026-Nov-12 10:58:49.123456");
    EXPECT_EQ(formatTime(someTime - 123456), "2026-Nov-12 10:58:49");
    EXPECT_EQ(formatTime(someTime - 123455), "2026-Nov-12 10:58:49.000001");
    EXPECT_EQ(formatTime(0), "1400-Jan-01 00:00:00");
    EXPECT_EQ(formatIsoTime(someTime), "2026-11-12T10:58:49.123456");
    EXPECT_EQ(formatIsoTime(0), "1400-01-01T00:00:00.000000");
}

TEST(TimeStamp, AgreesWithTheCalendarOnEveryDay)
{
    const boost::gregorian::date first(1400, 1, 1);
    for (long day = 0; day < 3'141'085; day += 1) {
        const std::string expected = boost::gregorian::to_simple_string(first + boost::gregorian::days(day));
        ASSERT_EQ(formatTime(static_cast<std::uint64_t>(day) * 86'400'000'000), expected + " 00:00:00");
        if (day > 300'000 && day < 3'000'000)
            day += 6; // all days of the first and last centuries, every week between them
    }
}

TEST(TimeStamp, BeyondTheYear9999IsNone)
{
    EXPECT_EQ(formatTime(std::uint64_t{3'141'085} * 86'400'000'000 - 1), "9999-Dec-31 23:59:59.999999");
    EXPECT_EQ(formatTime(std::uint64_t{3'141'085} * 86'400'000'000), "not-a-date-time");
    EXPECT_EQ(formatTime(~std::uint64_t{0}), "not-a-date-time");
    EXPECT_EQ(formatIsoTime(~std::uint64_t{0}), "");
}

TEST(TimeStamp, SystemClockGivesLocalTime)
{
    const auto now = boost::posix_time::microsec_clock::local_time();
    const std::string text = formatTime(systemClock().localMicroseconds());
    const auto difference = boost::posix_time::time_from_string(text) - now;
    EXPECT_GE(difference, boost::posix_time::seconds(0));
    EXPECT_LT(difference, boost::posix_time::minutes(5));
}

TEST(Words, LevelsGiveMasks)
{
    EXPECT_EQ(levelMask("none"), 0u);
    EXPECT_EQ(levelMask("fatal"), 1u);
    EXPECT_EQ(levelMask("err"), 3u);
    EXPECT_EQ(levelMask("error"), 3u);
    EXPECT_EQ(levelMask("warn"), 7u);
    EXPECT_EQ(levelMask("warning"), 7u);
    EXPECT_EQ(levelMask("info"), 0x0Fu);
    EXPECT_EQ(levelMask("trace"), 0x1Fu);
    EXPECT_EQ(levelMask("debug"), 0x3Fu);
    EXPECT_EQ(levelMask("all"), 0xFFu);
    EXPECT_EQ(levelMask("0x3"), 3u);
    EXPECT_EQ(levelMask("0X40"), 0x40u);
    for (const char* word : {"", "INFO", "0x", "0xFFFFFFFF", "0x100000000", "0xg", "3", "info "})
        EXPECT_FALSE(levelMask(word)) << word;
    EXPECT_STREQ(levelWord(0x40), "unknwn");
    EXPECT_STREQ(levelWord(0), "unknwn");
    EXPECT_STREQ(levelWord(0x20), "debug");
}

TEST(Words, BooleansAndDestinations)
{
    for (const char* word : {"true", "on", "enabled", "1"})
        EXPECT_EQ(booleanWord(word), true);
    for (const char* word : {"false", "off", "disabled", "0"})
        EXPECT_EQ(booleanWord(word), false);
    EXPECT_FALSE(booleanWord("yes"));
    EXPECT_FALSE(booleanWord("On"));
    for (const char* word : {"none", "file", "cout", "cerr", "trace", "console", "evtlog", "logsvc"})
        EXPECT_TRUE(isDestination(word));
    EXPECT_FALSE(isDestination("File"));
    EXPECT_FALSE(isDestination(""));
}

TEST(Words, SocketAddresses)
{
    EXPECT_TRUE(isSocketAddress("127.0.0.1:4000"));
    EXPECT_TRUE(isSocketAddress("10.0.0.1:65535"));
    for (const char* text : {"", "127.0.0.1", "127.0.0.1:", "127.0.0.1:0", "127.0.0.1:0123", "127.0.0.1:65536",
                             "127.0.0.1:1x", "127.0.0:1", "host:1", ":1", "127.0.0.1:+1"})
        EXPECT_FALSE(isSocketAddress(text)) << text;
}

TEST(Words, Wildcards)
{
    EXPECT_TRUE(matchesWildcard("*", ""));
    EXPECT_TRUE(matchesWildcard("", ""));
    EXPECT_TRUE(matchesWildcard("GEV*", "GEVSVC"));
    EXPECT_TRUE(matchesWildcard("*SVC", "GEVSVC"));
    EXPECT_TRUE(matchesWildcard("*E*S*", "GEVSVC"));
    EXPECT_TRUE(matchesWildcard("?EVSV?", "GEVSVC"));
    EXPECT_TRUE(matchesWildcard("a*b*c", "aXbYbZc"));
    EXPECT_FALSE(matchesWildcard("", "x"));
    EXPECT_FALSE(matchesWildcard("gev*", "GEVSVC"));
    EXPECT_FALSE(matchesWildcard("GEV", "GEVSVC"));
    EXPECT_FALSE(matchesWildcard("GEVSVC?", "GEVSVC"));
    EXPECT_FALSE(matchesWildcard("a*b*c", "aXbYbZ"));
    EXPECT_FALSE(matchesWildcard(std::string(40, '*') + "b", std::string(2000, 'a')));
}

TEST(Words, SizesAndDurations)
{
    EXPECT_EQ(parseSize("10"), 10u);
    EXPECT_EQ(parseSize("64k"), 65536u);
    EXPECT_EQ(parseSize("10M"), 10u * 1024 * 1024);
    EXPECT_EQ(parseSize("1G"), 1024u * 1024 * 1024);
    for (const char* text : {"", "k", "10MB", "-1", "1.5M", "99999999999999999999", "18446744073709551615k"})
        EXPECT_FALSE(parseSize(text)) << text;
    EXPECT_EQ(parseDuration("90s"), 90u);
    EXPECT_EQ(parseDuration("15m"), 900u);
    EXPECT_EQ(parseDuration("1d"), 86400u);
    for (const char* text : {"", "1", "d", "1w", "1d2h"})
        EXPECT_FALSE(parseDuration(text)) << text;
}

TEST(Utf8, BadSequencesAreReplaced)
{
    const std::string bad = "\xef\xbf\xbd";
    EXPECT_EQ(sanitizeUtf8("a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"), "a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80");
    EXPECT_EQ(sanitizeUtf8("\xff"), bad);
    EXPECT_EQ(sanitizeUtf8("\xc0\x80"), bad + bad);           // overlong
    EXPECT_EQ(sanitizeUtf8("\xe0\x80\x80"), bad + bad + bad); // overlong
    EXPECT_EQ(sanitizeUtf8("\xed\xa0\x80"), bad + bad + bad); // surrogate
    EXPECT_EQ(sanitizeUtf8("\xf4\x90\x80\x80"), bad + bad + bad + bad);
    EXPECT_EQ(sanitizeUtf8("\xe2\x82"), bad + bad);
    EXPECT_EQ(sanitizeUtf8("\xc3x"), bad + "x");
}

TEST(Utf8, RandomBytesBecomeValidJsonText)
{
    std::mt19937 random(20261112);
    for (int round = 0; round < 5000; ++round) {
        std::string text(random() % 40, '\0');
        for (char& c : text)
            c = static_cast<char>(random());
        const std::string clean = sanitizeUtf8(text);
        EXPECT_NO_THROW(nlohmann::json(clean).dump());
        EXPECT_EQ(sanitizeUtf8(clean), clean);
    }
}

TEST(Utf8, CodePages)
{
    EXPECT_EQ(narrowToUtf8("\x80\x81\xe9", 1252), "\xe2\x82\xac\xef\xbf\xbd\xc3\xa9");
    EXPECT_EQ(narrowToUtf8("\xe9", 28591), "\xc3\xa9");
    EXPECT_EQ(narrowToUtf8("a\xe9", 20127), "a\xef\xbf\xbd");
    EXPECT_EQ(narrowToUtf8("\xc3\xa9\xe9", 932), "\xc3\xa9\xef\xbf\xbd");
}

TEST(Utf8, Utf16)
{
    const auto convert = [](const std::string& text) {
        const Packet data = zuTest::bytes(text);
        return utf16ToUtf8(data.data(), data.size());
    };
    EXPECT_EQ(convert("41 00 ac 20 3d d8 00 de"), "A\xe2\x82\xac\xf0\x9f\x98\x80");
    EXPECT_EQ(convert("3d d8 41 00"), "\xef\xbf\xbd"
                                      "A");
    EXPECT_EQ(convert("00 de"), "\xef\xbf\xbd");
    EXPECT_EQ(convert("3d d8"), "\xef\xbf\xbd");
    EXPECT_EQ(convert("41 00 42"), "A\xef\xbf\xbd");
    EXPECT_EQ(convert(""), "");
}

TEST(Line, IsTheDaemonsOwn)
{
    LogMessage message = someMessage("No destination for SendTo.");
    EXPECT_EQ(formatLine(message, 0, {}),
              "2026-Nov-12 10:58:49.123456 GEVSVC.Conn.0 [IPConnection|warn] No destination for SendTo.");
    message.group.clear();
    message.logger = "GEVSVC.main";
    message.level = 8;
    message.text = "Enter service";
    message.time = someTime - 123456;
    EXPECT_EQ(formatLine(message, 0, {}), "2026-Nov-12 10:58:49 GEVSVC.main [info] Enter service");
}

TEST(Line, BreaksBecomeBlanksAsInTheDaemon)
{
    LogMessage message = someMessage("a\nb\n");
    const std::string start = "2026-Nov-12 10:58:49.123456 GEVSVC.Conn.0 [IPConnection|warn]";
    EXPECT_EQ(formatLine(message, 0, {}), start + " a b");
    message.text = "a\n\nb";
    EXPECT_EQ(formatLine(message, 0, {}), start + " a  b");
    message.text = "\n";
    EXPECT_EQ(formatLine(message, 0, {}), start + " ");
    message.text.clear();
    EXPECT_EQ(formatLine(message, 0, {}), start);
    message.logger.clear();
    message.group.clear();
    message.level = 0x40;
    message.text = "x";
    EXPECT_EQ(formatLine(message, 0, {}), "2026-Nov-12 10:58:49.123456 [unknwn] x");
}

TEST(Line, NeverHoldsControlCharacters)
{
    LogMessage message = someMessage("bell\a esc\x1b[2J cr\r c1\xc2\x9b tab\t del\x7f");
    message.logger = "a\nb";
    message.group = "g\x1b";
    message.location = "x\ny";
    LineOptions options;
    options.location = true;
    EXPECT_EQ(formatLine(message, 0, options),
              "2026-Nov-12 10:58:49.123456 a\\x0ab [g\\x1b|warn] bell\\x07 esc\\x1b[2J cr\\x0d c1\\x9b tab\t del\\x7f "
              "{x\\x0ay}");
}

TEST(Line, ABackspaceIsEscapedWhereTheDaemonsOwnLineHasTheByte)
{
    EXPECT_EQ(formatLine(someMessage("No destination for SendTo. Connection not bound\n\b"), 0, {}),
              "2026-Nov-12 10:58:49.123456 GEVSVC.Conn.0 [IPConnection|warn] No destination for SendTo. Connection not "
              "bound \\x08");
}

TEST(Line, ShowsProcessThreadAndLocationWhereAskedFor)
{
    const LogMessage message = someMessage("t");
    LineOptions options;
    const std::string start = formatLine(message, 0, {});
    options.process = true;
    EXPECT_EQ(formatLine(message, 0, options), start + " {pid 812}");
    options.thread = true;
    EXPECT_EQ(formatLine(message, 0, options), start + " {pid 812, tid 815}");
    options.location = true;
    EXPECT_EQ(formatLine(message, 0, options), start + " {pid 812, tid 815, src/SockConnection.cpp(77)}");
    LogMessage bare = message;
    bare.process.reset();
    bare.thread.reset();
    bare.location.clear();
    EXPECT_EQ(formatLine(bare, 0, options), start);
}

TEST(Line, MarksCutMessages)
{
    LogMessage message = someMessage("t");
    const std::string start = formatLine(message, 0, {});
    message.textCut = true;
    message.incomplete = true;
    EXPECT_EQ(formatLine(message, 0, {}), start + " [cut]");
    message.textCut = false;
    EXPECT_EQ(formatLine(message, 0, {}), start + " [incomplete]");
}

TEST(Line, WithoutATimeHasThatOfArrival)
{
    LogMessage message = someMessage("t");
    message.time.reset();
    EXPECT_EQ(formatLine(message, someTime, {}), formatLine(someMessage("t"), 0, {}));
}

TEST(Line, ColoursGoByLevel)
{
    LogMessage message = someMessage("t");
    LineOptions options;
    options.colour = true;
    EXPECT_EQ(formatLine(message, 0, options), "\x1b[93m" + formatLine(message, 0, {}) + "\x1b[0m");
    message.level = 2;
    EXPECT_EQ(formatLine(message, 0, options), "\x1b[91m" + formatLine(message, 0, {}) + "\x1b[0m");
}

TEST(Line, JsonSaysEverything)
{
    LogMessage message = someMessage("a \"b\"\nc", 9);
    message.textCut = true;
    message.incomplete = true;
    message.hasRecords = true;
    message.records = 2;
    LineOptions options;
    options.format = Format::json;
    EXPECT_EQ(formatLine(message, 0, options),
              R"j({"time":"2026-11-12T10:58:49.123456","logger":"GEVSVC.Conn.0","level":"warn",)j"
              R"j("group":"IPConnection","text":"a \"b\"\nc","process":812,"thread":815,)j"
              R"j("location":"src/SockConnection.cpp(77)","sequence":9,"records":2,"cut":true,"incomplete":true})j");
    LogMessage bare;
    bare.level = 8;
    bare.text = "x";
    EXPECT_EQ(formatLine(bare, someTime, options),
              R"({"time":"2026-11-12T10:58:49.123456","logger":"","level":"info","text":"x"})");
}

TEST(Line, ShowWords)
{
    LineOptions options;
    EXPECT_TRUE(parseShow("thread,process", options));
    EXPECT_TRUE(options.process && options.thread && !options.location);
    EXPECT_TRUE(parseShow("location", options));
    EXPECT_TRUE(options.location);
    for (const char* bad : {"", "process,", "pid", ",process", "process thread"})
        EXPECT_FALSE(parseShow(bad, options)) << bad;
}

} // namespace
