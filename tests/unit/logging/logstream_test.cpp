// Streams, message states and the dispatch to targets.
#include "tests/unit/logging/support.h"

#include "logging/log.h"
#include "logging/timestamp.h"

#include <sstream>
#include <thread>

using namespace zuLogging;
using namespace zuTest;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

class Stream : public testing::Test {
protected:
    Stream()
    {
        log.set_levels(0x3F);
        add_plain_target(target);
    }
    ~Stream() override { detail::set_local_clock_for_testing(nullptr); }

    const CleanTargets clean;
    logstate log = make_numbered_logstate("Stream");
    const std::shared_ptr<CollectingTarget> target = std::make_shared<CollectingTarget>();
};

} // namespace

TEST_F(Stream, CarriesLevelGroupLocationAndText)
{
    const group_id group = logstate::register_group("StreamGroup");
    basic_logstream<char>(log) << warning << location("file.cpp(12)") << group << "value " << 42 << ' ' << 1.5;
    ASSERT_THAT(target->lines(), ElementsAre("value 42 1.5"));
    const basic_timed_msgstate& state = target->states.at(0);
    EXPECT_EQ(state.level, log_warn);
    EXPECT_EQ(state.group, group);
    EXPECT_EQ(state.location, "file.cpp(12)");
    EXPECT_EQ(state.log.node(), log.node());
    EXPECT_THAT(state.records, IsEmpty());
}

TEST_F(Stream, EachManipulatorSetsItsLevel)
{
    basic_logstream<char>(log) << fatal << "x";
    basic_logstream<char>(log) << error << "x";
    basic_logstream<char>(log) << warning << "x";
    basic_logstream<char>(log) << info << "x";
    basic_logstream<char>(log) << trace << "x";
    basic_logstream<char>(log) << debug << "x";
    std::vector<std::uint32_t> levels;
    for (const auto& state : target->states)
        levels.push_back(state.level);
    EXPECT_THAT(levels, ElementsAre(1, 2, 4, 8, 0x10, 0x20));
}

TEST_F(Stream, SetLevelReturnsTheFormerOne)
{
    basic_logstream<char> stream(log);
    EXPECT_EQ(set_level(stream, log_info), 0u);
    EXPECT_EQ(set_level(stream, log_err), log_info);
}

TEST_F(Stream, ManipulatorsDoNothingToOtherStreams)
{
    std::ostringstream other;
    other << info << all_groups << location("somewhere") << "text";
    EXPECT_EQ(set_level(other, log_err), 0u);
    EXPECT_EQ(other.str(), "text");
    std::ostream none(nullptr);
    none << info << all_groups << location("x");
    EXPECT_EQ(set_level(none, log_err), 0u);
}

TEST_F(Stream, APlainStringStaysText)
{
    basic_logstream<char>(log) << info << std::string("file.cpp(12)");
    EXPECT_THAT(target->lines(), ElementsAre("file.cpp(12)"));
    EXPECT_EQ(target->states.at(0).location, "");
}

TEST_F(Stream, TextWithoutALevelSendsNothing)
{
    EXPECT_NO_THROW(basic_logstream<char>(log) << "lost");
    EXPECT_THAT(target->lines(), IsEmpty());
}

TEST_F(Stream, ALevelWithoutTextSendsNothing)
{
    basic_logstream<char>(log) << info;
    EXPECT_THAT(target->lines(), IsEmpty());
}

TEST_F(Stream, ALevelThatTheNodeStopsSendsNothing)
{
    log.set_levels(0x0F);
    basic_logstream<char>(log) << debug << "lost";
    EXPECT_THAT(target->lines(), IsEmpty());
}

TEST_F(Stream, TheMaskCountsAtTheMomentOfSending)
{
    {
        basic_logstream<char> stream(log);
        stream << info << "lost";
        log.set_levels(0);
    }
    EXPECT_THAT(target->lines(), IsEmpty());
}

TEST_F(Stream, AThrowingTargetLeavesTheCallerAlone)
{
    target->before = [] { throw std::runtime_error("target"); };
    EXPECT_NO_THROW(basic_logstream<char>(log) << info << "lost");
    target->before = [] { throw 1; };
    EXPECT_NO_THROW(basic_logstream<char>(log) << info << "lost");
    target->before = nullptr;
    basic_logstream<char>(log) << info << "arrives";
    EXPECT_THAT(target->lines(), ElementsAre("arrives"));
}

TEST_F(Stream, EachFlushEndsAMessage)
{
    basic_logstream<char> stream(log);
    stream << info << "one" << std::flush << error << "two" << std::endl;
    EXPECT_THAT(target->lines(), ElementsAre("one", "two\n"));
    EXPECT_EQ(target->states.at(1).level, log_err);
}

TEST_F(Stream, AFlushResetsTheLevel)
{
    {
        basic_logstream<char> stream(log);
        stream << info << "one" << std::flush << "dropped";
    }
    EXPECT_THAT(target->lines(), ElementsAre("one"));
    {
        basic_logstream<char> stream(log);
        stream << "dropped" << std::flush << info << "two";
    }
    EXPECT_THAT(target->lines(), ElementsAre("one", "two"));
}

TEST_F(Stream, AFlushClearsLocationAndGroup)
{
    {
        basic_logstream<char> stream(log);
        stream << info << location("here") << logstate::register_group("cleared") << "one" << std::flush << info
               << "two" << std::flush;
        // An empty message resets them too.
        stream << info << location("here") << logstate::register_group("cleared") << std::flush << info << "three";
    }
    ASSERT_THAT(target->lines(), ElementsAre("one", "two", "three"));
    EXPECT_EQ(target->states.at(0).location, "here");
    for (const std::size_t i : {1, 2}) {
        EXPECT_EQ(target->states.at(i).location, "");
        EXPECT_EQ(target->states.at(i).group, all_groups);
    }
}

TEST_F(Stream, RecordsTravelAndAreCleared)
{
    log_record record;
    record.fill(7);
    {
        basic_logstream<char> stream(log);
        static_cast<basic_logbuf<char>*>(stream.rdbuf())->state.records.assign(2, record);
        stream << info << "one" << std::flush << info << "two";
    }
    ASSERT_THAT(target->states, SizeIs(2));
    EXPECT_THAT(target->states[0].records, ElementsAre(record, record));
    EXPECT_THAT(target->states[1].records, IsEmpty());
}

TEST_F(Stream, AFailedFlushIsTheStreamsOwnAffair)
{
    target->before = [] { throw std::runtime_error("target"); };
    basic_logstream<char> stream(log);
    stream << info << "text" << std::flush;
    EXPECT_TRUE(stream.bad());
    stream.clear();
    stream.exceptions(std::ios_base::badbit);
    EXPECT_THROW(stream << std::flush, std::runtime_error);
    target->before = nullptr;
}

TEST_F(Stream, TheTimeIsThatOfDispatch)
{
    static boost::posix_time::ptime now;
    now = moment("2026-Nov-12 10:58:49.123456");
    detail::set_local_clock_for_testing([] { return now; });
    {
        basic_logstream<char> stream(log);
        stream << info << "late";
        now = moment("2027-Jan-02 03:04:05");
    }
    EXPECT_EQ(target->states.at(0).time, now);
}

TEST_F(Stream, TheClockIsReadForEnabledMessagesOnly)
{
    static int reads;
    reads = 0;
    detail::set_local_clock_for_testing([] {
        ++reads;
        return moment("2026-Nov-12 10:58:49");
    });
    basic_logstream<char>(log) << "no level";
    basic_logstream<char>(log) << info;
    EXPECT_EQ(reads, 0);
    basic_logstream<char>(log) << info << "text";
    EXPECT_EQ(reads, 1);
}

TEST_F(Stream, TheZoneIsTheSystems)
{
    ASSERT_EQ(setenv("TZ", "XXX-05:30", 1), 0);
    tzset();
    const auto before = boost::posix_time::microsec_clock::universal_time();
    const auto local = detail::local_now();
    const auto after = boost::posix_time::microsec_clock::universal_time();
    unsetenv("TZ");
    tzset();
    const boost::posix_time::time_duration zone(5, 30, 0);
    EXPECT_GE(local, before + zone);
    EXPECT_LE(local, after + zone);
}

TEST_F(Stream, ThePathFormWalksTheTree)
{
    get_logstate("").set_levels(0);
    logstate node = get_logstate("ByPath");
    node.set_levels(0x0F);
    basic_logstream<char>("ByPath") << info << "text";
    EXPECT_THAT(target->lines(), ElementsAre("text"));
    EXPECT_EQ(target->states.at(0).log.node(), node.node());
    EXPECT_THROW(basic_logstream<char>("a..b"), std::logic_error);
}

TEST_F(Stream, EmbeddedNewlinesTravelAsTheyAre)
{
    basic_logstream<char>(log) << info << "a\nb\n";
    EXPECT_THAT(target->lines(), ElementsAre("a\nb\n"));
}

TEST_F(Stream, AnUnregisteredGroupLosesTheMessageBehindEarlierTargets)
{
    const auto formatted = std::make_shared<CollectingTarget>();
    const auto last = std::make_shared<CollectingTarget>();
    add_formatted_target(formatted);
    add_plain_target(last);
    EXPECT_NO_THROW(basic_logstream<char>(log) << info << group_id(std::uint64_t{1} << 63) << "text");
    EXPECT_THAT(target->lines(), ElementsAre("text"));
    EXPECT_THAT(formatted->lines(), IsEmpty());
    EXPECT_THAT(last->lines(), IsEmpty());
}

TEST_F(Stream, TheMacroEvaluatesNothingWhenDisabled)
{
    log.set_levels(0x0F);
    int evaluated = 0;
    ZU_LOG(log, log_debug, "value " << ++evaluated);
    EXPECT_EQ(evaluated, 0);
    ZU_LOG(log, log_info, "value " << ++evaluated);
    EXPECT_EQ(evaluated, 1);
    EXPECT_THAT(target->lines(), ElementsAre("value 1"));
}

TEST_F(Stream, TheMacroGivesErrorsAndWarningsALocation)
{
    const group_id group = logstate::register_group("macro");
    ZU_LOG(log, log_info, "info");
    ZU_LOG(log, log_err, "error");
    ZU_LOG_GROUP(log, log_warn, group, "warning");
    ASSERT_THAT(target->states, SizeIs(3));
    EXPECT_EQ(target->states[0].location, "");
    EXPECT_THAT(target->states[1].location, testing::MatchesRegex(".*logstream_test\\.cpp\\([0-9]+\\)"));
    EXPECT_THAT(target->states[2].location, testing::MatchesRegex(".*logstream_test\\.cpp\\([0-9]+\\)"));
    EXPECT_EQ(target->states[2].group, group);
}

TEST(Dispatch, AnEmptyListTakesEverything)
{
    const CleanTargets clean;
    logstate log = make_numbered_logstate("Empty");
    log.set_levels(0xFF);
    EXPECT_NO_THROW(basic_logstream<char>(log) << info << "nowhere");
}

TEST(Dispatch, TargetsGetMessagesInTheOrderOfAdding)
{
    const CleanTargets clean;
    std::vector<int> order;
    std::vector<std::shared_ptr<CollectingTarget>> targets;
    for (int i = 0; i < 3; ++i) {
        targets.push_back(std::make_shared<CollectingTarget>());
        targets.back()->before = [&order, i] { order.push_back(i); };
        add_plain_target(targets.back());
    }
    const basic_timed_msgstate msg = message("Order", log_info);
    const std::string text = "text";
    dispatch(msg, text.data(), text.data() + text.size());
    EXPECT_THAT(order, ElementsAre(0, 1, 2));
}

TEST(Dispatch, AThrowerKeepsTheMessageFromLaterTargets)
{
    const CleanTargets clean;
    const auto first = std::make_shared<CollectingTarget>();
    const auto thrower = std::make_shared<CollectingTarget>();
    const auto last = std::make_shared<CollectingTarget>();
    thrower->before = [] { throw std::runtime_error("target"); };
    for (const auto& target : {first, thrower, last})
        add_plain_target(target);
    const basic_timed_msgstate msg = message("Thrower", log_info);
    const std::string text = "text";
    EXPECT_THROW(dispatch(msg, text.data(), text.data() + text.size()), std::runtime_error);
    EXPECT_THAT(first->lines(), ElementsAre("text"));
    EXPECT_THAT(last->lines(), IsEmpty());
    // The list is free again: a target can be added, which takes it exclusively.
    thrower->before = nullptr;
    add_plain_target(std::make_shared<CollectingTarget>());
    dispatch(msg, text.data(), text.data() + text.size());
    EXPECT_THAT(last->lines(), ElementsAre("text"));
}

TEST(Dispatch, TheFilterOfAllAccepts)
{
    basic_logtargetfilter_all filter;
    EXPECT_TRUE(filter.accept(message("Filter", 0)));
}

TEST(Dispatch, ClearingReleasesTheTargets)
{
    const CleanTargets clean;
    auto target = std::make_shared<CollectingTarget>();
    const std::weak_ptr<CollectingTarget> watch = target;
    add_formatted_target(std::move(target));
    EXPECT_FALSE(watch.expired());
    clear_targets();
    EXPECT_TRUE(watch.expired());
}

TEST(Dispatch, ClearingWhileThreadsLogIsSound)
{
    const CleanTargets clean;
    logstate log = make_numbered_logstate("Clearing");
    log.set_levels(0xFF);
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back([&] {
            while (!stop)
                basic_logstream<char>(log) << info << "text";
        });
    for (int i = 0; i < 100; ++i) {
        add_formatted_target(std::make_shared<CollectingTarget>());
        clear_targets();
    }
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
}
