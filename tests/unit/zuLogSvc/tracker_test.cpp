// Missing numbers, rate limits, filters, the queue.
#include "tests/unit/zuLogSvc/support.h"

#include "tools/zuLogSvc/datagram_queue.h"
#include "tools/zuLogSvc/follow_filter.h"
#include "tools/zuLogSvc/followers.h"
#include "tools/zuLogSvc/protocol.h"
#include "tools/zuLogSvc/rate_limit.h"
#include "tools/zuLogSvc/sequence_tracker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>

namespace {

using namespace zuLogSvc;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Sequences : public ::testing::Test {
protected:
    static SequenceKey client(std::uint16_t port = 0x409c, std::uint16_t command = cmdMessage,
                              std::uint64_t process = 812)
    {
        return {zuPlatform::hostToNetwork32(zuPlatform::loopbackAddress), port, command, process};
    }
    void see(std::initializer_list<std::uint64_t> numbers, std::uint64_t now = 0)
    {
        for (const std::uint64_t number : numbers)
            tracker.seen(client(), number, now);
    }

    std::vector<std::string> told;
    SequenceTracker tracker{[this](const SequenceGap& gap) { told.push_back(describe(gap)); }};
    static constexpr std::uint64_t later = SequenceTracker::patienceMs;
    const std::string who = "process 812 (127.0.0.1:40000): ";
};

TEST_F(Sequences, WithoutHolesAreSilent)
{
    see({1, 2, 3, 4});
    tracker.tell(later);
    EXPECT_THAT(told, IsEmpty());
    EXPECT_FALSE(tracker.waiting());
}

TEST_F(Sequences, AHoleIsToldOnceItIsOldEnough)
{
    see({1, 2, 5});
    tracker.tell(later - 1);
    EXPECT_THAT(told, IsEmpty());
    EXPECT_TRUE(tracker.waiting());
    tracker.tell(later);
    tracker.tell(later * 2);
    EXPECT_THAT(told, ElementsAre(who + "2 messages, 3 to 4, are missing"));
}

TEST_F(Sequences, OneMissingNumber)
{
    see({1, 3});
    tracker.tell(0, true);
    EXPECT_THAT(told, ElementsAre(who + "message 2 is missing"));
}

TEST_F(Sequences, NumbersThatComeLateFillTheHole)
{
    see({1, 6, 3, 5, 2, 4});
    tracker.tell(later);
    EXPECT_THAT(told, IsEmpty());
}

TEST_F(Sequences, AHoleThatIsFilledInPartIsToldInParts)
{
    see({1, 10, 5, 6});
    tracker.tell(later);
    EXPECT_THAT(told, ElementsAre(who + "3 messages, 2 to 4, are missing", who + "3 messages, 7 to 9, are missing"));
}

TEST_F(Sequences, ANumberTwiceIsNoHole)
{
    see({1, 2, 2, 3, 3, 1});
    tracker.tell(later, true);
    EXPECT_THAT(told, IsEmpty());
}

TEST_F(Sequences, WhatCameBeforeTheServiceIsToldAsSuch)
{
    see({100, 101, 104});
    tracker.tell(later);
    EXPECT_THAT(told, ElementsAre(who + "99 messages, 1 to 99, not seen: sent before this log service started, or lost",
                                  who + "2 messages, 102 to 103, are missing"));
}

TEST_F(Sequences, CommandsPortsAndProcessesCountApart)
{
    tracker.seen(client(0x409c, cmdMessage, 1), 1, 0);
    tracker.seen(client(0x409c, cmdMessageWithRecords, 1), 1, 0);
    tracker.seen(client(0x419c, cmdMessage, 1), 1, 0);
    tracker.seen(client(0x409c, cmdMessage, 2), 1, 0);
    tracker.seen(client(0x409c, cmdMessageWithRecords, 1), 3, 0);
    tracker.tell(later);
    EXPECT_EQ(tracker.clients(), 4u);
    EXPECT_THAT(told, ElementsAre("process 1 (127.0.0.1:40000): message 2 with records is missing"));
}

TEST_F(Sequences, TheLatestProcessOfASourceIsKnown)
{
    const std::uint32_t address = client().address;
    EXPECT_FALSE(tracker.latestProcess(address, 0x409c, cmdMessage));
    tracker.seen(client(0x409c, cmdMessage, 900), 1, 10);
    tracker.seen(client(0x409c, cmdMessage, 800), 1, 20);
    tracker.seen(client(0x419c, cmdMessage, 1000), 1, 30);
    EXPECT_EQ(tracker.latestProcess(address, 0x409c, cmdMessage), 800u);
    tracker.seen(client(0x409c, cmdMessage, 900), 2, 40);
    EXPECT_EQ(tracker.latestProcess(address, 0x409c, cmdMessage), 900u);
    EXPECT_EQ(tracker.latestProcess(address, 0x419c, cmdMessage), 1000u);
    EXPECT_FALSE(tracker.latestProcess(address, 0x409c, cmdMessageWithRecords));
    EXPECT_FALSE(tracker.latestProcess(address + 1, 0x409c, cmdMessage));
}

TEST_F(Sequences, AFarLowerNumberIsANewSequence)
{
    see({1, 2});
    see({1'000'000});
    see({1, 2, 4});
    tracker.tell(later);
    EXPECT_THAT(told, ElementsAre(who + "999997 messages, 3 to 999999, are missing", who + "message 3 is missing"));
}

TEST_F(Sequences, ExtremeNumbersAreBorne)
{
    see({~std::uint64_t{0}, 0, 1, ~std::uint64_t{0} - 1, ~std::uint64_t{0}});
    tracker.tell(later);
    EXPECT_THAT(told,
                ElementsAre(who + "18446744073709551612 messages, 2 to 18446744073709551613, not seen: sent before "
                                  "this log service started, or lost"));
}

TEST_F(Sequences, MemoryIsBounded)
{
    for (std::uint64_t number = 1; number < 2000; number += 2)
        see({number});
    EXPECT_EQ(told.size(), 999u - SequenceTracker::maxOpen);
    for (std::uint32_t i = 0; i < 3 * SequenceTracker::maxClients; ++i)
        tracker.seen({i, 0, cmdMessage, 0}, 1, i + 1);
    EXPECT_LE(tracker.clients(), SequenceTracker::maxClients);
    EXPECT_EQ(told.size(), 999u);
    // The youngest are those that stayed.
    const std::size_t before = tracker.clients();
    tracker.seen({3 * SequenceTracker::maxClients - 1, 0, cmdMessage, 0}, 2, 99999);
    EXPECT_EQ(tracker.clients(), before);
}

TEST(EventCounter, TellsTheFirstAtOnceAndTheRestTogether)
{
    EventCounter counter(1000);
    EXPECT_FALSE(counter.due(0));
    counter.add(1, "a");
    auto due = counter.due(5);
    ASSERT_TRUE(due);
    EXPECT_EQ(due->count, 1u);
    counter.add(2, "b");
    counter.add(3, "c");
    EXPECT_FALSE(counter.due(1004));
    due = counter.due(1005);
    ASSERT_TRUE(due);
    EXPECT_EQ(due->count, 5u);
    EXPECT_EQ(due->latest, "c");
    EXPECT_FALSE(counter.due(99999));
    counter.add(1, "d");
    EXPECT_TRUE(counter.due(1006, true));
    EXPECT_EQ(counter.total(), 7u);
}

TEST(EventGate, HoldsBackWhatIsTooMuch)
{
    EventGate gate(2, 1000);
    EXPECT_TRUE(gate.pass(5000));
    EXPECT_TRUE(gate.pass(5001));
    EXPECT_FALSE(gate.pass(5002));
    EXPECT_FALSE(gate.pass(5999));
    EXPECT_EQ(gate.takeHeld(5999), 0u);
    EXPECT_EQ(gate.takeHeld(6000), 2u);
    EXPECT_EQ(gate.takeHeld(6000), 0u);
    EXPECT_TRUE(gate.pass(6000));
    EXPECT_TRUE(gate.pass(6001));
    EXPECT_FALSE(gate.pass(6002));
    EXPECT_EQ(gate.takeHeld(6002), 0u);
    EXPECT_EQ(gate.takeHeld(6002, true), 1u);
    EXPECT_EQ(gate.takeHeld(6002, true), 0u);
}

TEST(FollowFilter, PassesByLevelLoggerAndGroup)
{
    const LogMessage message = zuTest::someMessage("t"); // GEVSVC.Conn.0, IPConnection, warn
    const auto accepts = [&](std::uint32_t levels, std::vector<std::string> loggers, std::vector<std::string> groups) {
        return FollowFilter{levels, std::move(loggers), std::move(groups)}.accepts(message);
    };
    EXPECT_TRUE(FollowFilter{}.accepts(message));
    EXPECT_TRUE(accepts(0x07, {}, {}));
    EXPECT_FALSE(accepts(0x03, {}, {}));
    for (const char* logger : {"GEVSVC", "GEVSVC.Conn", "GEVSVC.Conn.0", "Conn", "Conn.0", "GEVSVC.*", "C?nn", "*.0"})
        EXPECT_TRUE(accepts(0xFF, {logger}, {})) << logger;
    for (const char* logger : {"GEVSV", "GEVSVC.Con", "Conn.1", "0", "conn", "GEVSVC.Conn.0.1", ""})
        EXPECT_FALSE(accepts(0xFF, {logger}, {})) << logger;
    EXPECT_TRUE(accepts(0xFF, {"GVCP", "Conn"}, {}));
    EXPECT_TRUE(accepts(0xFF, {}, {"IPConnection"}));
    EXPECT_TRUE(accepts(0xFF, {}, {"x", "IP*"}));
    EXPECT_FALSE(accepts(0xFF, {}, {"IP"}));
    EXPECT_FALSE(accepts(0xFF, {"Conn"}, {"GEVError"}));
    EXPECT_FALSE(accepts(0xFF, {"GVCP"}, {"IPConnection"}));
}

TEST(FollowFilter, MessagesWithoutGroupOrLevel)
{
    LogMessage message = zuTest::someMessage("t");
    message.group.clear();
    EXPECT_FALSE((FollowFilter{0xFF, {}, {"*"}}).accepts(message));
    message.level = 0;
    EXPECT_TRUE((FollowFilter{0x01, {}, {}}).accepts(message));
}

TEST(FollowFilter, TheServicesOwnWarningsAlwaysPass)
{
    LogMessage message = zuTest::someMessage("messages are missing");
    message.logger = ownLogger;
    EXPECT_TRUE((FollowFilter{0x01, {"Conn"}, {"x"}}).accepts(message));
    message.level = 8;
    EXPECT_FALSE((FollowFilter{0x01, {"Conn"}, {"x"}}).accepts(message));
}

TEST(FollowFilter, GoesThroughJson)
{
    const FollowFilter filter{0x0F, {"Conn", "a\"b"}, {"IPConnection"}};
    const std::string json = filterToJson(filter);
    EXPECT_EQ(json, R"({"levels":15,"loggers":["Conn","a\"b"],"groups":["IPConnection"]})");
    const auto back = filterFromJson(json);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->levels, 15u);
    EXPECT_EQ(back->loggers, filter.loggers);
    EXPECT_EQ(back->groups, filter.groups);
    for (const std::string& bad :
         {std::string(), std::string("[]"), std::string("{"), std::string("{\"levels\":-1}"), std::string("{\"x\":1}"),
          std::string("{\"loggers\":\"a\"}"), std::string("{\"groups\":[1]}"), std::string("{\"levels\":15}x"),
          "{\"groups\":[\"" + std::string(600, 'x') + "\"]}"})
        EXPECT_FALSE(filterFromJson(bad)) << bad;
}

TEST(Followers, AreTakenRenewedForgottenAndLimited)
{
    Followers followers;
    const auto local = [](std::uint16_t port) { return zuPlatform::loopbackAt(port); };
    EXPECT_TRUE(followers.none());
    EXPECT_EQ(followers.follow({zuPlatform::hostToNetwork32(0x0A000001), 1}, {}, 0), Followers::Answer::notLocal);
    EXPECT_EQ(followers.follow(local(1), {}, 0), Followers::Answer::added);
    EXPECT_EQ(followers.follow(local(1), {}, 10), Followers::Answer::renewed);
    for (std::uint16_t port = 2; port <= Followers::maxFollowers; ++port)
        EXPECT_EQ(followers.follow(local(port), {}, 10), Followers::Answer::added);
    EXPECT_EQ(followers.follow(local(99), {}, 10), Followers::Answer::full);
    followers.unfollow(local(5));
    EXPECT_EQ(followers.follow(local(99), {}, 10), Followers::Answer::added);
    EXPECT_FALSE(followers.none());
    EXPECT_EQ(followers.follow(local(1), {}, 10 + Followers::expiryMs + 1), Followers::Answer::added);
}

class Queue : public ::testing::Test {
protected:
    static bool push(DatagramQueue& queue, const std::string& text)
    {
        const Packet data(text.begin(), text.end());
        return queue.push({QueuedDatagram::Kind::message, zuPlatform::loopbackAt(7), data});
    }
    static std::vector<std::string> all(Batch& batch)
    {
        std::vector<std::string> out;
        QueuedDatagram entry;
        while (batch.next(entry)) {
            EXPECT_EQ(entry.from, zuPlatform::loopbackAt(7));
            out.emplace_back(entry.bytes.begin(), entry.bytes.end());
        }
        return out;
    }
};

TEST_F(Queue, KeepsOrderAndContent)
{
    DatagramQueue queue(1000);
    EXPECT_TRUE(push(queue, "one"));
    EXPECT_TRUE(push(queue, ""));
    EXPECT_TRUE(push(queue, "three"));
    Batch batch;
    EXPECT_TRUE(queue.take(batch, 0));
    EXPECT_THAT(all(batch), ElementsAre("one", "", "three"));
    EXPECT_TRUE(queue.take(batch, 0));
    EXPECT_TRUE(batch.empty());
}

TEST_F(Queue, RefusesAndCountsWhatDoesNotFit)
{
    DatagramQueue queue(200);
    EXPECT_TRUE(push(queue, std::string(100, 'a')));
    EXPECT_FALSE(push(queue, std::string(100, 'b')));
    EXPECT_TRUE(push(queue, "c"));
    EXPECT_EQ(queue.refused(), 1u);
    Batch batch;
    queue.take(batch, 0);
    EXPECT_THAT(all(batch), ElementsAre(std::string(100, 'a'), "c"));
    EXPECT_TRUE(push(queue, std::string(100, 'b')));
}

TEST_F(Queue, GivesWhatWaitsAfterTheClose)
{
    DatagramQueue queue(1000);
    push(queue, "last");
    queue.close();
    EXPECT_FALSE(push(queue, "too late"));
    Batch batch;
    EXPECT_TRUE(queue.take(batch, 60000));
    EXPECT_THAT(all(batch), ElementsAre("last"));
    EXPECT_FALSE(queue.take(batch, 60000));
}

TEST_F(Queue, WakesItsWaiter)
{
    DatagramQueue queue(1000);
    std::thread other([&] { push(queue, "x"); });
    Batch batch;
    EXPECT_TRUE(queue.take(batch, 60000));
    EXPECT_THAT(all(batch), ElementsAre("x"));
    other.join();
    std::thread waker([&] { queue.wake(); });
    EXPECT_TRUE(queue.take(batch, 60000));
    EXPECT_TRUE(batch.empty());
    waker.join();
}

} // namespace
