// The logger tree and the group table.
#include "tests/unit/logging/bytes.h"
#include "tests/unit/logging/support.h"

#include <boost/thread/lock_types.hpp>

#include <atomic>
#include <thread>

using namespace zuLogging;
using namespace zuTest;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

void prune()
{
    const boost::unique_lock<boost::shared_mutex> lock(tree_mutex());
    prune_children(root_logstate(""));
}

} // namespace

TEST(Logstate, NothingIsEnabledBeforeConfiguration)
{
    ZU_IN_FRESH_PROCESS({
        logstate node = get_logstate("a.b");
        EXPECT_EQ(node.levels(), 0u);
        EXPECT_EQ(root_logstate("").levels(), 0u);
        EXPECT_EQ(get_logstate("a").levels(), 0u);
        for (std::uint32_t level = 1; level != 0; level <<= 1)
            EXPECT_FALSE(node.is_enabled(level, all_groups));
    });
}

TEST(Logstate, EmptyPathGivesTheRoot)
{
    ZU_IN_FRESH_PROCESS({
        EXPECT_EQ(get_logstate("").node(), root_logstate("").node());
        EXPECT_EQ(get_logstate("").path(), "");
        EXPECT_EQ(get_logstate("child").path(), "child");
        EXPECT_EQ(get_logstate("child.inner").path(), "child.inner");
        EXPECT_EQ(get_logstate("child").node()->parent, root_logstate("").node());
    });
}

TEST(Logstate, TheFirstCallNamesTheRoot)
{
    ZU_IN_FRESH_PROCESS({
        EXPECT_EQ(root_logstate("first").path(), "first");
        EXPECT_EQ(root_logstate("second").path(), "first");
    });
}

TEST(Logstate, TheRootsNameAsFirstPieceIsTheRoot)
{
    ZU_IN_FRESH_PROCESS({
        set_root_name("X");
        EXPECT_EQ(get_logstate("X").node(), root_logstate("").node());
        logstate child = get_logstate("X.X");
        EXPECT_EQ(child.path(), "X.X");
        EXPECT_EQ(child.node()->parent, root_logstate("").node());
        EXPECT_EQ(get_logstate("X.X.X").path(), "X.X.X");
        EXPECT_EQ(get_logstate("X.main").node(), get_logstate("main").node());
        EXPECT_EQ(get_logstate("main.X").path(), "X.main.X");
    });
}

TEST(Logstate, PathPiecesAreTrimmed) { EXPECT_EQ(get_logstate("trim.b").node(), get_logstate(" trim .\tb\n").node()); }

TEST(Logstate, EmptyPiecesAreRefused)
{
    for (const char* path : {"a..b", ".a", "a.", "  ", ".", "a. .b"})
        EXPECT_EQ(failureOf<std::logic_error>([&] { get_logstate(path); }),
                  "Invalid path: logger entity names must not be empty")
            << path;
}

TEST(Logstate, OnlyLaterChildrenInheritTheMask)
{
    ZU_IN_FRESH_PROCESS({
        logstate root = root_logstate("");
        const logstate early = get_logstate("early");
        EXPECT_EQ(root.set_levels(0x0F), 0u);
        EXPECT_EQ(root.set_levels(0x0F), 0x0Fu);
        logstate late = get_logstate("late");
        EXPECT_EQ(early.levels(), 0u);
        EXPECT_EQ(late.levels(), 0x0Fu);
        EXPECT_EQ(get_logstate("early.child").levels(), 0u);
        EXPECT_EQ(root.set_levels(0x3F), 0x0Fu);
        EXPECT_EQ(late.levels(), 0x0Fu);
        EXPECT_TRUE(late.is_enabled(log_info, all_groups));
        EXPECT_FALSE(late.is_enabled(log_trace, all_groups));
    });
}

TEST(Logstate, CopiesShareTheNode)
{
    logstate node = make_numbered_logstate("Copies");
    const logstate copy = node;
    node.set_levels(log_err);
    EXPECT_EQ(copy.levels(), log_err);
    EXPECT_EQ(copy.path(), node.path());
}

TEST(Logstate, NumberedLoggersTakeTheLowestFreeNumber)
{
    std::vector<logstate> held;
    for (const char* path : {"Conn.0", "Conn.1", "Conn.3", "Conn.abc", "Conn.12x"})
        held.push_back(get_logstate(path));
    const logstate two = make_numbered_logstate("Conn");
    EXPECT_EQ(two.path(), get_logstate("Conn").path() + ".2");
    EXPECT_EQ(make_numbered_logstate("Conn").path(), get_logstate("Conn").path() + ".4");
    held.erase(held.begin());
    EXPECT_EQ(make_numbered_logstate("Conn").path(), get_logstate("Conn").path() + ".0");
}

TEST(Logstate, NumberedChildOfTheRoot)
{
    ZU_IN_FRESH_PROCESS({
        const logstate zero = make_numbered_logstate("");
        EXPECT_EQ(zero.path(), "0");
        EXPECT_EQ(make_numbered_logstate("").path(), "1");
    });
}

TEST(Logstate, OnlyWholeNumbersCount)
{
    // The last is all ones, which stands for no number.
    const std::vector<std::string> names = {"abc", "0x", "12x", "1 1", "18446744073709551615", "99999999999999999999"};
    std::vector<logstate> held;
    for (const std::string& name : names)
        held.push_back(get_logstate("Whole." + name));
    EXPECT_EQ(make_numbered_logstate("Whole").path(), get_logstate("Whole").path() + ".0");
    const logstate leading = get_logstate("Whole.00");
    EXPECT_EQ(make_numbered_logstate("Whole").path(), get_logstate("Whole").path() + ".1");
}

TEST(Logstate, ADeadNodeIsMadeAnew)
{
    logstate parent = get_logstate("Dying");
    {
        logstate child = get_logstate("Dying.child");
        child.set_levels(0x3F);
        parent.set_levels(0x01);
        EXPECT_EQ(get_logstate("Dying.child").levels(), 0x3Fu);
    }
    EXPECT_EQ(get_logstate("Dying.child").levels(), 0x01u);
}

TEST(Logstate, ANodeKeepsItsAncestors)
{
    const logstate leaf = get_logstate("keep.the.ancestors");
    const std::weak_ptr<detail::inner_logstate> top = leaf.node()->parent->parent;
    EXPECT_EQ(top.lock(), get_logstate("keep").node());
}

TEST(Logstate, PruningDropsDeadEntriesAtAllDepths)
{
    ZU_IN_FRESH_PROCESS({
        const logstate live = get_logstate("live.inner");
        for (const char* path : {"dead.deep", "live.dead", "live.inner.dead", "zz"})
            get_logstate(path);
        prune();
        const auto& root = *root_logstate("").node();
        EXPECT_THAT(root.children, SizeIs(1));
        EXPECT_THAT(root.children.at("live").lock()->children, SizeIs(1));
        EXPECT_THAT(live.node()->children, IsEmpty());
        EXPECT_EQ(get_logstate("live.inner").node(), live.node());
    });
}

TEST(RootName, WithASeparatorIsRefused)
{
    ZU_IN_FRESH_PROCESS({
        for (const char* name : {"a.b", ".", " . "})
            EXPECT_EQ(failureOf<std::invalid_argument>([&] { set_root_name(name); }),
                      "Root name must not contain separator character");
        EXPECT_EQ(root_logstate("").path(), "");
    });
}

TEST(RootName, IsTrimmed)
{
    ZU_IN_FRESH_PROCESS({
        set_root_name(" a ");
        EXPECT_EQ(root_logstate("").path(), "a");
        set_root_name("\t");
        EXPECT_EQ(root_logstate("").path(), "");
    });
}

TEST(RootName, CannotChangeWhileAChildLives)
{
    ZU_IN_FRESH_PROCESS({
        set_root_name("a");
        {
            logstate child = get_logstate("child");
            EXPECT_EQ(failureOf<std::runtime_error>([] { set_root_name("b"); }),
                      "Root name can only be changed if no children are present");
            EXPECT_EQ(root_logstate("").path(), "a");
            set_root_name(" a ");
        }
        set_root_name("b");
        EXPECT_EQ(root_logstate("").path(), "b");
    });
}

TEST(Groups, TheSixtyFifthIsRefused)
{
    ZU_IN_FRESH_PROCESS({
        for (int i = 0; i < 64; ++i)
            EXPECT_EQ(logstate::register_group("g" + std::to_string(i)).value(), std::uint64_t{1} << i);
        EXPECT_EQ(failureOf<std::length_error>([] { logstate::register_group("one more"); }),
                  "Exceeded maximal available groups");
        for (int i = 0; i < 64; ++i)
            EXPECT_EQ(logstate::register_group("g" + std::to_string(i)).value(), std::uint64_t{1} << i);
    });
}

TEST(Groups, NamesAreTrimmedAndCaseSensitive)
{
    EXPECT_EQ(logstate::register_group("  x "), logstate::register_group("x"));
    EXPECT_NE(logstate::register_group("X"), logstate::register_group("x"));
    EXPECT_EQ(group_name(logstate::register_group(" x ").value()), "x");
}

TEST(Groups, EmptyNamesAreRefused)
{
    for (const char* name : {"", "  ", "\t\n"})
        EXPECT_EQ(failureOf<std::invalid_argument>([&] { logstate::register_group(name); }),
                  "Group name must not be empty");
}

TEST(Groups, IdsAreChecked)
{
    const group_id known = logstate::register_group("checked");
    EXPECT_EQ(make_group(known.value()), known);
    EXPECT_EQ(make_group(all_groups.value()), all_groups);
    for (const std::uint64_t id : {std::uint64_t{0}, std::uint64_t{3}, known.value() | 1u << 20 | 1u << 21,
                                   std::uint64_t{1} << 63, ~std::uint64_t{1}})
        EXPECT_EQ(failureOf<std::invalid_argument>([&] { make_group(id); }), "Invalid group ID: not registered") << id;
}

TEST(Groups, NamesOfWrongIds)
{
    for (const std::uint64_t id : {std::uint64_t{0}, std::uint64_t{3}, all_groups.value()})
        EXPECT_EQ(failureOf<std::invalid_argument>([&] { group_name(id); }), "Invalid group id") << id;
    EXPECT_EQ(failureOf<std::invalid_argument>([] { group_name(std::uint64_t{1} << 63); }), "Group id not registered");
}

TEST(Groups, EnableAMessageTogetherWithItsLevel)
{
    logstate node = make_numbered_logstate("GroupTest");
    node.set_levels(0x0F);
    EXPECT_FALSE(node.is_enabled(log_info, group_id(0)));
    EXPECT_TRUE(node.is_enabled(log_info, all_groups));
    EXPECT_TRUE(node.is_enabled(log_info, logstate::register_group("enabled")));
    EXPECT_FALSE(node.is_enabled(log_debug, all_groups));
    EXPECT_FALSE(node.is_enabled(0, all_groups));
    EXPECT_TRUE(node.is_enabled(log_debug | log_info, all_groups));
}

TEST(Concurrency, ManyThreadsUseTreeAndGroups)
{
    constexpr int threads = 8;
    constexpr int rounds = 300;
    std::atomic<int> wrong{0};
    logstate shared = get_logstate("Shared");
    std::vector<std::thread> workers;
    for (int i = 0; i < threads; ++i)
        workers.emplace_back([&, i] {
            for (int round = 0; round < rounds; ++round) {
                const logstate mine = make_numbered_logstate("Shared");
                const logstate same = get_logstate("Shared.same");
                wrong += mine.path().rfind("Shared.", 0) != 0 && mine.path().find(".Shared.") == std::string::npos;
                wrong += get_logstate("Shared.same").node() != same.node();
                shared.set_levels(static_cast<std::uint32_t>(round + i));
                shared.is_enabled(log_info, all_groups);
                wrong += logstate::register_group("shared group").value() == 0;
                if (round % 50 == 0)
                    prune();
            }
        });
    for (std::thread& worker : workers)
        worker.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(make_numbered_logstate("Shared").path(), shared.path() + ".0");
}

TEST(Concurrency, TheRootIsRenamedWhileOthersReadItsName)
{
    ZU_IN_FRESH_PROCESS({
        set_root_name("name0");
        std::atomic<bool> stop{false};
        std::atomic<int> wrong{0};
        std::thread reader([&] {
            while (!stop)
                wrong += root_logstate("").path().rfind("name", 0) != 0;
        });
        for (int i = 1; i < 200; ++i)
            set_root_name("name" + std::to_string(i));
        stop = true;
        reader.join();
        EXPECT_EQ(wrong, 0);
    });
}
