// The line of a message, byte by byte.
#include "tests/unit/logging/support.h"

#include "logging/formatter.h"
#include "logging/timestamp.h"
#include "platform/text.h"

#include <random>

using namespace zuLogging;
using namespace zuTest;

namespace {

std::string line(const basic_timed_msgstate& msg, const std::string& text)
{
    const auto target = std::make_shared<CollectingTarget>();
    basic_dateformatter<0> formatter(target);
    write(formatter, msg, text);
    EXPECT_EQ(target->states.at(0).location, msg.location);
    return target->lines().at(0);
}

std::wstring line(const basic_timed_msgstate& msg, const std::wstring& text)
{
    const auto target = std::make_shared<CollectingTarget>();
    basic_dateformatter<0> formatter(target);
    write(formatter, msg, text);
    return target->wide.at(0);
}

std::string stamp(const boost::posix_time::ptime& time)
{
    std::string text = "before ";
    detail::append_timestamp(text, time);
    EXPECT_EQ(text.substr(0, 7), "before ");
    return text.substr(7);
}

} // namespace

TEST(Formatter, LineWithAGroup)
{
    ZU_IN_FRESH_PROCESS({
        set_root_name("GEVSVC");
        const auto msg = message("Conn.0", log_warn, logstate::register_group("IPConnection"));
        EXPECT_EQ(line(msg, std::string("No destination for SendTo.")),
                  "2026-Nov-12 10:58:49.123456 GEVSVC.Conn.0 [IPConnection|warn] No destination for SendTo.");
    });
}

TEST(Formatter, LineWithoutAGroup)
{
    ZU_IN_FRESH_PROCESS({
        set_root_name("GEVSVC");
        EXPECT_EQ(line(message("main", log_info), std::string("Enter service")),
                  "2026-Nov-12 10:58:49.123456 GEVSVC.main [info] Enter service");
    });
}

TEST(Formatter, AWholeSecondHasNoFraction)
{
    ZU_IN_FRESH_PROCESS({
        set_root_name("GEVSVC");
        auto msg = message("main", log_info);
        msg.time = moment("2026-Nov-12 10:58:49");
        EXPECT_EQ(line(msg, std::string("Enter service")), "2026-Nov-12 10:58:49 GEVSVC.main [info] Enter service");
    });
}

TEST(Formatter, AnUnnamedRootHasOneBlankBeforeTheBracket)
{
    ZU_IN_FRESH_PROCESS(
        { EXPECT_EQ(line(message("", log_err), std::string("x")), "2026-Nov-12 10:58:49.123456 [err] x"); });
}

TEST(Formatter, LineBreaksBecomeBlanks)
{
    const auto msg = message("Breaks", log_info);
    const std::string head = line(msg, std::string());
    EXPECT_EQ(head.substr(head.size() - 6), "[info]");
    const std::pair<std::string, std::string> cases[] = {
        {"a\nb\n", " a b"}, {"a\n\nb", " a  b"},  {"\n", " "}, {"\na", "  a"},    {"a", " a"},
        {"a\n\n", " a "},   {"a\r\nb", " a\r b"}, {" ", "  "}, {"\n\n\n", "   "},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(line(msg, text), head + expected) << testing::PrintToString(text);
        const std::wstring wide(text.begin(), text.end());
        const std::string both = head + expected;
        EXPECT_EQ(line(msg, wide), std::wstring(both.begin(), both.end())) << testing::PrintToString(text);
    }
    const std::string zero("a\0b", 3);
    EXPECT_EQ(line(msg, zero), head + ' ' + zero);
}

TEST(Formatter, LevelWords)
{
    const std::pair<std::uint32_t, std::string> words[] = {
        {1, "fatal"},    {2, "err"},       {4, "warn"},   {8, "info"},   {0x10, "trace"},
        {0x20, "debug"}, {0x40, "unknwn"}, {3, "unknwn"}, {0, "unknwn"}, {0x80000000, "unknwn"},
    };
    for (const auto& [level, word] : words)
        EXPECT_THAT(line(message("Words", level), std::string("x")), testing::EndsWith(" [" + word + "] x")) << level;
}

TEST(Formatter, TheWideTwinWritesTheSameLine)
{
    const group_id group = logstate::register_group("WideGroup");
    const auto msg = message("Wide", log_trace, group);
    const std::string narrow = line(msg, std::string("one\ntwo"));
    EXPECT_EQ(line(msg, std::wstring(L"one\ntwo")), std::wstring(narrow.begin(), narrow.end()));
    const auto umlaut = message("W\xC3\xA4rme", log_info);
    const std::string path = umlaut.log.path();
    EXPECT_EQ(line(umlaut, std::wstring(L"\x20AC")),
              L"2026-Nov-12 10:58:49.123456 " + zuPlatform::utf8ToWide(path.data(), path.data() + path.size()) +
                  L" [info] \x20AC");
}

TEST(Formatter, LocationAndRecordsDoNotAppear)
{
    auto msg = message("Plain", log_err);
    const std::string plain = line(msg, std::string("x"));
    msg.location = "file.cpp(12)";
    msg.records.resize(2);
    EXPECT_EQ(line(msg, std::string("x")), plain);
}

TEST(Formatter, AMalformedGroupThrows)
{
    EXPECT_THROW(line(message("Bad", log_err, group_id(3)), std::string("x")), std::invalid_argument);
    EXPECT_THROW(line(message("Bad", log_err, group_id(std::uint64_t{1} << 63)), std::string("x")),
                 std::invalid_argument);
    EXPECT_THROW(line(message("Bad", log_err, group_id(3)), std::wstring(L"x")), std::invalid_argument);
    EXPECT_THROW(line(message("Bad", log_err, group_id(std::uint64_t{1} << 63)), std::wstring(L"x")),
                 std::invalid_argument);
}

TEST(Formatter, APathThatIsNotUtf8HasNoWideLine)
{
    const auto msg = message("Bad\xFF", log_err);
    EXPECT_THAT(line(msg, std::string("x")), testing::HasSubstr("Bad\xFF [err] x"));
    EXPECT_THROW(line(msg, std::wstring(L"x")), base2::character_conversion_error);
}

TEST(Formatter, AnotherPrefixStandsBeforeTheText)
{
    struct Own : detail::basic_textformatter<0> {
        using basic_textformatter::basic_textformatter;
        void prefix(std::basic_ostream<wchar_t>& out, const basic_msgstate&) override { out << L"wide" << 7; }
        void prefix(std::basic_ostream<char>& out, const basic_msgstate&) override { out << "narrow" << 'x' << 7; }
    };
    const auto target = std::make_shared<CollectingTarget>();
    Own formatter(target);
    write(formatter, message("Own", log_info), std::string("text"));
    write(formatter, message("Own", log_info), std::wstring(L"text"));
    EXPECT_EQ(target->lines().at(0), "narrowx7 text");
    EXPECT_EQ(target->wide.at(0), L"wide7 text");
}

TEST(Timestamp, IsTheSimpleStringOfTheLibrary)
{
    using namespace boost::posix_time;
    using boost::gregorian::date;
    for (int month = 1; month <= 12; ++month) {
        const ptime time(date(2026, static_cast<unsigned short>(month), 9), time_duration(3, 4, 5, 60708));
        EXPECT_EQ(stamp(time), to_simple_string(time));
    }
    const ptime edges[] = {
        ptime(date(1400, 1, 1)),
        ptime(date(1970, 1, 1), time_duration(0, 0, 0, 1)),
        ptime(date(2000, 2, 29), time_duration(23, 59, 59, 999999)),
        ptime(date(9999, 12, 31), time_duration(23, 59, 59, 999999)),
        ptime(date(2026, 11, 12), time_duration(10, 58, 49, 100000)),
        ptime(not_a_date_time),
        ptime(pos_infin),
        ptime(neg_infin),
        ptime(date(boost::date_time::not_a_date_time), time_duration(1, 2, 3)),
        ptime(date(2026, 1, 1), time_duration(not_a_date_time)),
    };
    for (const ptime& time : edges)
        EXPECT_EQ(stamp(time), to_simple_string(time));
    EXPECT_EQ(stamp(ptime(not_a_date_time)), "not-a-date-time");
    EXPECT_EQ(stamp(ptime(pos_infin)), "+infinity");
    EXPECT_EQ(stamp(ptime(neg_infin)), "-infinity");

    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 random(seed);
    const ptime first(date(1400, 1, 1));
    const auto span = static_cast<std::uint64_t>((ptime(date(9999, 12, 31)) - first).total_microseconds());
    for (int i = 0; i < 5000; ++i) {
        const ptime time = first + microseconds(static_cast<std::int64_t>(random() % span));
        ASSERT_EQ(stamp(time), to_simple_string(time));
    }
}
