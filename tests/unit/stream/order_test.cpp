// Which frame a packet belongs to: any order, twice, late, of others; frames that overlap; ids that wrap, jump and
// begin anew; buffers that are wanting.
#include "tests/unit/stream/stream_fixture.h"

#include <random>

using namespace zuTest;

TEST_F(StreamTest, FramesComeInTheBuffersAsQueued)
{
    start(3);
    for (std::uint64_t id = 1; id <= 3; ++id)
        play(monoFrame({id}));
    for (std::size_t i = 0; i < 3; ++i) {
        expectFrame(i, i + 1);
        EXPECT_EQ(delivered[i], records[i].get());
    }
    EXPECT_EQ(statistics().framesComplete, 3u);
    EXPECT_EQ(statistics().packets, 36u);
    EXPECT_EQ(statistics().bytes, 3u * (44 + 10 * 8 + 950 + 16));
    EXPECT_EQ(statistics().packetsMissing, 0u);
    EXPECT_TRUE(requests().empty());
}

TEST_F(StreamTest, PacketsInAnyOrder)
{
    std::mt19937 random(20);
    for (int i = 0; i < 200; ++i) {
        delivered.clear();
        FakeSockets::reset();
        settings.batch = 1 + static_cast<unsigned>(i % 16);
        start(2);
        play(monoFrame({5})); // so that places are expected for what follows
        std::vector<Bytes> packets = monoFrame({6, false});
        std::shuffle(packets.begin(), packets.end(), random);
        play(packets);
        ASSERT_EQ(delivered.size(), 2u) << i;
        expectFrame(1, 6);
        ASSERT_EQ(statistics().duplicates, 0u);
        ASSERT_EQ(statistics().malformed, 0u);
    }
}

TEST_F(StreamTest, PacketsOfManyFramesInAnyOrder)
{
    std::mt19937 random(21);
    for (int i = 0; i < 200; ++i) {
        delivered.clear();
        FakeSockets::reset();
        settings.batch = 1 + static_cast<unsigned>(i % 32);
        start(5);
        const bool extended = i % 2 != 0;
        play(monoFrame({9, extended}));
        std::vector<Bytes> packets;
        for (std::uint64_t id = 10; id < 14; ++id)
            for (const Bytes& packet : monoFrame({id, extended}))
                packets.push_back(packet);
        std::shuffle(packets.begin() + 1, packets.end(), random);
        play(packets);
        ASSERT_EQ(delivered.size(), 5u) << i;
        for (std::size_t k = 1; k < 5; ++k)
            expectFrame(k, 9 + k);
        ASSERT_EQ(statistics().framesComplete, 5u);
    }
}

TEST_F(StreamTest, PacketsTwice)
{
    start();
    play(monoFrame({4}));
    const std::vector<Bytes> packets = monoFrame({5});
    for (const Bytes& packet : packets) {
        send(packet);
        send(packet);
    }
    poll();
    expectFrame(1, 5);
    EXPECT_EQ(statistics().duplicates, packets.size() - 1);
    EXPECT_EQ(statistics().late, 1u) << "the second trailer";
}

TEST_F(StreamTest, ADuplicateWithOtherBytesChangesNothing)
{
    start();
    std::vector<Bytes> packets = monoFrame({5});
    Bytes forged = packets[3];
    std::fill(forged.begin() + 8, forged.end(), 0xEE);
    packets.insert(packets.begin() + 4, forged);
    play(packets);
    expectFrame(0, 5);
    EXPECT_EQ(statistics().duplicates, 1u);
}

TEST_F(StreamTest, PacketsOfAnEndedFrameAreLate)
{
    start();
    const std::vector<Bytes> packets = monoFrame({5});
    play(packets);
    play(packets);
    EXPECT_EQ(delivered.size(), 1u);
    EXPECT_EQ(statistics().late, packets.size());
    play(monoFrame({6}));
    play(packets[4]);
    expectFrame(1, 6);
    EXPECT_EQ(statistics().late, packets.size() + 1);
    EXPECT_EQ(statistics().restarts, 0u);
}

TEST_F(StreamTest, ForeignSendersAreCounted)
{
    settings.source.port = cameraPort;
    start();
    play(monoFrame({4}));
    for (const Bytes& packet : monoFrame({5})) {
        Bytes other = packet;
        other.back() ^= 0xFF;
        FakeSockets::pushDatagram(other, networkAddress(cameraAddress + 1, cameraPort));
        FakeSockets::pushDatagram(other, networkAddress(cameraAddress, cameraPort + 1));
        send(packet);
    }
    poll();
    expectFrame(1, 5);
    EXPECT_EQ(statistics().foreign, 24u);
    EXPECT_EQ(statistics().packets, 48u) << "they were read all the same";
}

TEST_F(StreamTest, WithoutASourceAnybodyMaySend)
{
    settings.source = {};
    settings.resend.enabled = false;
    start();
    for (const Bytes& packet : monoFrame({5}))
        FakeSockets::pushDatagram(packet, networkAddress(0x01020304, 5));
    poll();
    expectFrame(0, 5);
}

TEST_F(StreamTest, FramesOverlap)
{
    start();
    const std::vector<Bytes> first = monoFrame({1});
    const std::vector<Bytes> second = monoFrame({2});
    send({first.begin(), first.end() - 1});
    send({second.begin(), second.begin() + 4});
    poll();
    EXPECT_TRUE(delivered.empty());
    play(first.back());
    expectFrame(0, 1);
    play({second.begin() + 4, second.end()});
    expectFrame(1, 2);
    EXPECT_TRUE(requests().empty());
}

TEST_F(StreamTest, AFrameWaitsForItsPredecessor)
{
    start();
    const std::vector<Bytes> first = monoFrame({1});
    sendWithout(first, {3});
    play(monoFrame({2}));
    EXPECT_TRUE(delivered.empty());
    play(first[3]);
    ASSERT_EQ(delivered.size(), 2u);
    expectFrame(0, 1);
    expectFrame(1, 2);
}

TEST_F(StreamTest, ADuplicateForAFrameThatWaitsChangesNothing)
{
    start();
    const std::vector<Bytes> first = monoFrame({1});
    sendWithout(first, {3});
    const std::vector<Bytes> second = monoFrame({2});
    play(second);
    Bytes forged = second[2];
    forged.back() ^= 0xFF;
    play(forged);
    EXPECT_EQ(statistics().duplicates, 1u);
    play(first[3]);
    ASSERT_EQ(delivered.size(), 2u);
    expectFrame(1, 2);
}

TEST_F(StreamTest, TooManyFramesAtOnceEndTheOldest)
{
    start(); // four at once
    for (std::uint64_t id = 1; id <= 5; ++id)
        send(monoFrame({id}).front());
    poll();
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_EQ(frame(0).blockId, 1u);
    EXPECT_FALSE(frame(0).complete);
    EXPECT_EQ(frame(0).packets, 12u);
    EXPECT_EQ(frame(0).missingPackets, 11u);
    EXPECT_EQ(statistics().packetsMissing, 11u);
}

TEST_F(StreamTest, ShortIdsWrapTo1)
{
    start();
    play(monoFrame({65534}));
    play(monoFrame({65535}));
    play(monoFrame({1}));
    play(monoFrame({2}));
    ASSERT_EQ(delivered.size(), 4u);
    expectFrame(2, 1);
    expectFrame(3, 2);
    EXPECT_EQ(engine->deadline(), zuStream::never) << "nothing is missed";
    EXPECT_EQ(statistics().framesSkipped, 0u);
    EXPECT_EQ(statistics().restarts, 0u);
}

TEST_F(StreamTest, ExtendedIdsWrapToo)
{
    start();
    const std::uint64_t last = ~std::uint64_t{0};
    play(monoFrame({last, true}));
    play(monoFrame({1, true}));
    ASSERT_EQ(delivered.size(), 2u);
    EXPECT_EQ(frame(0).blockId, last);
    expectFrame(1, 1);
    EXPECT_EQ(statistics().restarts, 0u);
}

TEST_F(StreamTest, Block0IsNoBlock)
{
    start();
    play(monoFrame({0}));
    EXPECT_EQ(statistics().malformed, 12u);
    EXPECT_EQ(statistics().framesWithoutBuffer, 0u);
    EXPECT_TRUE(delivered.empty());
}

TEST_F(StreamTest, SkippedBlocksAreCounted)
{
    settings.resend.enabled = false;
    start();
    play(monoFrame({10}));
    play(monoFrame({14}));
    EXPECT_EQ(statistics().framesSkipped, 3u);
    play(monoFrame({14 + 1000}));
    EXPECT_EQ(statistics().framesSkipped, 3u + 999);
    EXPECT_EQ(statistics().restarts, 0u);
    play(monoFrame({1014 + 1001}));
    EXPECT_EQ(statistics().framesSkipped, 3u + 999) << "too many to have been lost";
    EXPECT_EQ(statistics().restarts, 1u);
    ASSERT_EQ(delivered.size(), 4u);
    expectFrame(3, 2015);
}

TEST_F(StreamTest, ACameraThatCountsAnew)
{
    start();
    for (std::uint64_t id = 1; id <= 5; ++id)
        play(monoFrame({id}, 950, 1000 + id));
    for (std::uint64_t id = 1; id <= 5; ++id)
        play(monoFrame({id}, 950, 5 + id));
    EXPECT_EQ(delivered.size(), 8u) << "as many as there are buffers";
    expectFrame(5, 1);
    EXPECT_EQ(statistics().framesComplete, 8u);
    EXPECT_EQ(statistics().framesWithoutBuffer, 2u);
    EXPECT_EQ(statistics().restarts, 1u);
    EXPECT_EQ(statistics().late, 0u);
}

TEST_F(StreamTest, ARestartEndsWhatWasBegun)
{
    start();
    play(monoFrame({500}));
    sendWithout(monoFrame({501}), {4});
    play(monoFrame({1}));
    ASSERT_EQ(delivered.size(), 3u);
    EXPECT_EQ(frame(1).blockId, 501u);
    EXPECT_EQ(frame(1).missingPackets, 1u);
    expectFrame(2, 1);
    EXPECT_EQ(statistics().restarts, 1u);
}

TEST_F(StreamTest, ARestartWithoutTimestampsIsSeenWhenTheOldIsForgotten)
{
    start();
    play(monoFrame({1}));
    now += 200 * ms;
    play(monoFrame({1}));
    ASSERT_EQ(delivered.size(), 2u);
    EXPECT_EQ(statistics().restarts, 1u);
}

TEST_F(StreamTest, ARestartWhoseLeaderIsLostIsSeenAfterSilence)
{
    settings.resend.enabled = false;
    start();
    play(monoFrame({500}));
    const std::vector<Bytes> packets = monoFrame({1});
    play(packets[2]);
    EXPECT_EQ(statistics().late, 1u);
    now += 200 * ms;
    sendWithout(packets, {0});
    poll();
    poll(now + 100 * ms);
    ASSERT_EQ(delivered.size(), 2u);
    EXPECT_EQ(frame(1).blockId, 1u);
    EXPECT_FALSE(frame(1).hasLeader);
    EXPECT_EQ(frame(1).missingPackets, 1u);
    EXPECT_EQ(frame(1).payloadType, 0);
}

TEST_F(StreamTest, OtherIdsAreARestart)
{
    start();
    play(monoFrame({5}));
    play(monoFrame({6, true})[3]);
    EXPECT_EQ(statistics().late, 1u) << "no leader";
    play(monoFrame({6, true}));
    play(monoFrame({7, true}));
    expectFrame(1, 6);
    expectFrame(2, 7);
    EXPECT_EQ(statistics().restarts, 1u);
}

TEST_F(StreamTest, WithoutBuffersFramesAreDroppedWhole)
{
    start(1);
    play(monoFrame({1}));
    play(monoFrame({2}));
    const std::vector<Bytes> third = monoFrame({3});
    play({third.begin(), third.begin() + 6});
    addBuffer(1000); // too late for it
    play({third.begin() + 6, third.end()});
    play(monoFrame({4}));
    ASSERT_EQ(delivered.size(), 2u);
    expectFrame(1, 4);
    EXPECT_EQ(statistics().framesWithoutBuffer, 2u);
    EXPECT_EQ(statistics().unwanted, 24u);
    EXPECT_EQ(statistics().framesSkipped, 0u);
    EXPECT_EQ(statistics().packetsMissing, 0u);
    EXPECT_EQ(statistics().late, 0u);
    EXPECT_TRUE(requests().empty());
}

TEST_F(StreamTest, IncompleteFramesAreDroppedIfNotWanted)
{
    settings.deliverIncomplete = false;
    settings.resend.enabled = false;
    start(1);
    for (std::uint64_t id = 1; id <= 3; ++id) {
        sendWithout(monoFrame({id}), {4});
        poll(now + 10 * ms);
        poll(now + 100 * ms);
    }
    EXPECT_TRUE(delivered.empty());
    EXPECT_EQ(statistics().framesDropped, 3u) << "one buffer, again and again";
    EXPECT_EQ(statistics().framesIncomplete, 0u);
    EXPECT_EQ(statistics().framesWithoutBuffer, 0u);
    EXPECT_EQ(statistics().packetsMissing, 3u);
    play(monoFrame({4}));
    expectFrame(0, 4);
}

TEST_F(StreamTest, PayloadThatComesAsExpectedIsNotMoved)
{
    // The scripted socket lays each datagram where the engine told it, so a copy would show as a place in the areas.
    start();
    play(monoFrame({1}));
    const std::vector<Bytes> packets = monoFrame({2});
    send(packets);
    now += ms;
    std::vector<zuStream::Target> targets(12);
    engine->assembler().plan(targets);
    for (std::uint32_t i = 0; i < 12; ++i) {
        EXPECT_EQ(targets[i].block, 2u);
        EXPECT_EQ(targets[i].packet, i);
        if (i == 0 || i == 11) {
            EXPECT_EQ(targets[i].data, nullptr) << "leader and trailer";
        } else {
            EXPECT_EQ(targets[i].data, records[1]->data() + (i - 1) * 100);
            EXPECT_EQ(targets[i].size, 100u);
        }
    }
    poll();
    expectFrame(1, 2);
    EXPECT_EQ(delivered[1], records[1].get()) << "the planned buffer was used";
    // In the midst of a frame, up to the end of the next.
    const std::vector<Bytes> third = monoFrame({3});
    play({third.begin(), third.begin() + 4});
    targets.resize(12);
    engine->assembler().plan(targets);
    EXPECT_EQ(targets[0].packet, 4u);
    EXPECT_EQ(targets[0].data, records[2]->data() + 300);
    EXPECT_EQ(targets[8].block, 4u);
    EXPECT_EQ(targets[8].data, nullptr);
    EXPECT_EQ(targets[9].data, records[3]->data());
    play({third.begin() + 4, third.end()});
    expectFrame(2, 3);
}

TEST_F(StreamTest, ABufferIsNotLaidBeyond)
{
    start(2, 250);
    play(monoFrame({1}, 250));
    std::vector<zuStream::Target> targets(4);
    engine->assembler().plan(targets);
    EXPECT_EQ(targets[3].size, 50u);
}

TEST_F(StreamTest, AbandonedBuffersComeBack)
{
    start(5);
    play(monoFrame({1}));
    const std::vector<Bytes> second = monoFrame({2});
    play({second.begin(), second.begin() + 5});
    poll();
    std::vector<zuStream::Record*> back;
    engine->assembler().abandon([&](zuStream::Record& record) { back.push_back(&record); });
    EXPECT_THAT(back, testing::UnorderedElementsAre(records[1].get(), records[2].get()))
        << "the one being filled, and the one that was to be next";
    EXPECT_EQ(engine->deadline(), zuStream::never);
    play({second.begin() + 5, second.end()});
    EXPECT_EQ(statistics().unwanted, 7u);
    EXPECT_EQ(statistics().framesIncomplete, 0u);
    play(monoFrame({3}));
    expectFrame(1, 3);
}
