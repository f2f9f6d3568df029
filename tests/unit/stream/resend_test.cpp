// Missing packets: noticed, asked for in runs, paced, limited, given up in time, told exactly.
#include "tests/unit/stream/stream_fixture.h"

using namespace zuTest;
using testing::ElementsAre;
using testing::IsEmpty;
using zuStream::Range;

namespace {

class ResendTest : public StreamTest {
protected:
    ResendTest()
    {
        settings.resend.delay = std::chrono::milliseconds(2);
        settings.resend.timeout = std::chrono::milliseconds(10);
        settings.resend.attempts = 3;
    }
};

} // namespace

TEST_F(ResendTest, ARunIsAskedForOnceTheDelayIsOver)
{
    start();
    const std::vector<Bytes> packets = monoFrame({7});
    sendWithout(packets, {3, 4, 5, 8});
    poll(1000 * ms);
    EXPECT_EQ(engine->deadline(), 1002 * ms);
    poll(1002 * ms - 1);
    EXPECT_THAT(requests(), IsEmpty());
    poll(1002 * ms);
    EXPECT_THAT(requests(), ElementsAre("7:3-5", "7:8-8"));
    EXPECT_EQ(engine->deadline(), 1012 * ms);
    poll(1003 * ms);
    EXPECT_EQ(requests().size(), 2u);
    play({packets[8], packets[5], packets[4], packets[3]});
    expectFrame(0, 7);
    EXPECT_EQ(statistics().packetsAsked, 4u);
    EXPECT_EQ(statistics().requests, 2u);
    EXPECT_EQ(statistics().packetsResent, 4u);
    EXPECT_EQ(statistics().packetsMissing, 0u);
    poll(1030 * ms);
    EXPECT_EQ(requests().size(), 2u);
}

TEST_F(ResendTest, TheCommandOnTheWire)
{
    settings.resend.channel = 2;
    settings.resend.port = 4000;
    start();
    sendWithout(monoFrame({0x1234}), {3, 4});
    poll();
    poll(now + 2 * ms);
    ASSERT_EQ(FakeSockets::sent().size(), 1u);
    const SentDatagram sent = FakeSockets::sent()[0];
    EXPECT_EQ(sent.socket, 0u) << "the stream's own";
    EXPECT_EQ(sent.to, networkAddress(cameraAddress, 4000));
    EXPECT_THAT(sent.data, ElementsAre(0x42, 0, 0, 0x40, 0, 12, 0, 1, 0, 2, 0x12, 0x34, 0, 0, 0, 3, 0, 0, 0, 4));
}

TEST_F(ResendTest, TheCommandWithExtendedIds)
{
    start();
    sendWithout(monoFrame({0x1122334455667788, true}), {3, 5});
    poll();
    poll(now + 2 * ms);
    ASSERT_EQ(FakeSockets::sent().size(), 2u);
    EXPECT_THAT(FakeSockets::sent()[1].data, ElementsAre(0x42, 0x10, 0, 0x40, 0, 20, 0, 2, 0, 0, 0, 0, 0, 0, 0, 5, 0, 0,
                                                         0, 5, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88));
}

TEST_F(ResendTest, RequestIdsLeaveOut0)
{
    settings.resend.attempts = 60000;
    settings.resend.limit = 1000000;
    settings.resend.burst = 1000000;
    settings.frameTimeout = std::chrono::hours(1);
    start();
    sendWithout(monoFrame({1}), {2, 4});
    for (int i = 0; i < 32770; ++i)
        poll(now + 10 * ms);
    const std::vector<SentDatagram> sent = FakeSockets::sent();
    ASSERT_GT(sent.size(), 65537u);
    const auto id = [&](std::size_t i) { return sent[i].data[6] << 8 | sent[i].data[7]; };
    EXPECT_EQ(id(0), 1);
    EXPECT_EQ(id(65534), 65535);
    EXPECT_EQ(id(65535), 1);
}

TEST_F(ResendTest, IsRepeatedAndGivenUp)
{
    start();
    sendWithout(monoFrame({7}), {3});
    poll(1000 * ms);
    for (const std::uint64_t at : {1002, 1012, 1022}) {
        poll(at * ms - 1);
        const std::size_t before = requests().size();
        poll(at * ms);
        EXPECT_EQ(requests().size(), before + 1) << at;
    }
    poll(1032 * ms - 1);
    EXPECT_TRUE(delivered.empty());
    EXPECT_EQ(engine->deadline(), 1032 * ms);
    poll(1032 * ms);
    EXPECT_EQ(requests().size(), 3u);
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_FALSE(frame(0).complete);
    EXPECT_TRUE(frame(0).hasLeader);
    EXPECT_TRUE(frame(0).hasTrailer);
    EXPECT_EQ(frame(0).packets, 12u);
    EXPECT_EQ(frame(0).missingPackets, 1u);
    EXPECT_THAT(delivered[0]->missing(), ElementsAre(Range{200, 100}));
    EXPECT_EQ(statistics().packetsAsked, 3u);
    EXPECT_EQ(statistics().packetsResent, 0u);
    EXPECT_EQ(statistics().packetsMissing, 1u);
    EXPECT_EQ(statistics().framesIncomplete, 1u);
    EXPECT_EQ(engine->deadline(), zuStream::never);
}

TEST_F(ResendTest, AResentPacketThatComesAfterTheLastAttemptIsTaken)
{
    start();
    const std::vector<Bytes> packets = monoFrame({7});
    sendWithout(packets, {3});
    poll(1000 * ms);
    for (const std::uint64_t at : {1002, 1012, 1022, 1031})
        poll(at * ms);
    play(packets[3]);
    expectFrame(0, 7);
    EXPECT_EQ(statistics().packetsResent, 1u);
}

TEST_F(ResendTest, WhatIsOnlyOutOfOrderIsNotAskedFor)
{
    start();
    std::vector<Bytes> packets = monoFrame({7});
    std::swap(packets[3], packets[6]);
    send({packets.begin(), packets.begin() + 5});
    poll(1000 * ms);
    send({packets.begin() + 5, packets.end()});
    poll(1001 * ms);
    expectFrame(0, 7);
    EXPECT_THAT(requests(), IsEmpty());
    EXPECT_EQ(statistics().packetsResent, 0u);
}

TEST_F(ResendTest, TheTailIsMissedWhenTheNextFrameBegins)
{
    start();
    const std::vector<Bytes> packets = monoFrame({7});
    send({packets.begin(), packets.begin() + 9});
    poll(1000 * ms);
    play(monoFrame({8}).front());
    poll(1002 * ms);
    EXPECT_THAT(requests(), ElementsAre("7:9-11"));
    play({packets[9], packets[10], packets[11]});
    expectFrame(0, 7);
    EXPECT_EQ(statistics().packetsResent, 3u);
}

TEST_F(ResendTest, TheTailIsMissedAfterSilence)
{
    start();
    const std::vector<Bytes> packets = monoFrame({7});
    send({packets.begin(), packets.begin() + 11});
    poll(1000 * ms);
    EXPECT_EQ(engine->deadline(), 1010 * ms);
    poll(1010 * ms - 1);
    poll(1010 * ms);
    EXPECT_EQ(engine->deadline(), 1012 * ms);
    EXPECT_THAT(requests(), IsEmpty());
    poll(1012 * ms);
    EXPECT_THAT(requests(), ElementsAre("7:11-11"));
    play(packets[11]);
    expectFrame(0, 7);
}

TEST_F(ResendTest, ALeaderAloneMayHaveToWaitForItsExposure)
{
    start();
    const std::vector<Bytes> packets = monoFrame({7});
    play(packets.front());
    poll(now + 50 * ms);
    EXPECT_THAT(requests(), IsEmpty());
    play({packets.begin() + 1, packets.end()});
    expectFrame(0, 7);
    play(monoFrame({8}).front());
    EXPECT_EQ(engine->deadline(), now + 100 * ms);
    poll(now + 100 * ms);
    ASSERT_EQ(delivered.size(), 2u);
    EXPECT_EQ(frame(1).missingPackets, 11u);
}

TEST_F(ResendTest, TheLeaderIsAskedForToo)
{
    start();
    const std::vector<Bytes> packets = monoFrame({7});
    sendWithout(packets, {0});
    poll();
    poll(now + 2 * ms);
    EXPECT_THAT(requests(), ElementsAre("7:0-0"));
    play(packets[0]);
    expectFrame(0, 7);
}

TEST_F(ResendTest, WithoutLeaderAndTrailerTheFrameBeforeTellsHowManyThereAre)
{
    start();
    play(monoFrame({6}));
    const std::vector<Bytes> packets = monoFrame({7});
    sendWithout(packets, {0, 10, 11});
    poll();
    play(monoFrame({8}).front());
    poll(now + 2 * ms);
    EXPECT_THAT(requests(), ElementsAre("7:0-0", "7:10-11"));
    for (int i = 0; i < 3; ++i)
        poll(now + 10 * ms);
    ASSERT_EQ(delivered.size(), 2u);
    EXPECT_EQ(frame(1).packets, 12u);
    EXPECT_EQ(frame(1).missingPackets, 3u);
    EXPECT_THAT(delivered[1]->missing(), ElementsAre(Range{900, 100}));
}

TEST_F(ResendTest, OfAnUnknownLengthAllThatFollowsIsAskedFor)
{
    start();
    const Block block{7};
    const Bytes data = gvsp::pattern(450, 1);
    const std::vector<Bytes> packets = gvsp::frame(block, gvsp::plainLeader(block, 4, 6), data, packetSize, 4, {450});
    send({packets.begin(), packets.begin() + 3});
    poll(1000 * ms);
    poll(1010 * ms);
    poll(1012 * ms);
    EXPECT_THAT(requests(), ElementsAre("7:3-"));
    play({packets[3], packets[4]}); // and again the rest is lost
    poll(1020 * ms);
    poll(1022 * ms);
    EXPECT_THAT(requests(), ElementsAre("7:3-", "7:5-"));
    play({packets[5], packets[6]});
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_TRUE(frame(0).complete);
    EXPECT_EQ(content(0), data);
}

TEST_F(ResendTest, AFrameLostWholeIsFetched)
{
    start();
    play(monoFrame({6}));
    play(monoFrame({8}));
    expectFrame(1, 8);
    EXPECT_EQ(engine->deadline(), now + 2 * ms);
    poll(now + 2 * ms);
    EXPECT_THAT(requests(), ElementsAre("7:0-0"));
    const std::vector<Bytes> packets = monoFrame({7});
    play(packets[0]);
    poll(now + 2 * ms);
    EXPECT_THAT(requests(), ElementsAre("7:0-0", "7:1-11"));
    play({packets.begin() + 1, packets.end()});
    ASSERT_EQ(delivered.size(), 3u);
    expectFrame(2, 7);
    EXPECT_EQ(statistics().framesSkipped, 0u);
    EXPECT_EQ(statistics().packetsResent, 12u);
}

TEST_F(ResendTest, FramesAreFetchedAcrossTheWrap)
{
    start();
    play(monoFrame({65535}));
    play(monoFrame({2}));
    poll(now + 2 * ms);
    EXPECT_THAT(requests(), ElementsAre("1:0-0"));
    play(monoFrame({1}));
    expectFrame(2, 1);
}

TEST_F(ResendTest, AFrameThatNeverWasCostsNoBuffer)
{
    start(2);
    play(monoFrame({6}));
    play(monoFrame({8}));
    ASSERT_EQ(delivered.size(), 2u);
    for (const std::uint64_t wait : {2, 10, 10, 10})
        poll(now + wait * ms);
    EXPECT_THAT(requests(), ElementsAre("7:0-0", "7:0-0", "7:0-0"));
    EXPECT_EQ(delivered.size(), 2u);
    EXPECT_EQ(statistics().framesSkipped, 1u);
    EXPECT_EQ(statistics().framesWithoutBuffer, 0u);
    EXPECT_EQ(engine->deadline(), zuStream::never);
    play(monoFrame({7})[0]);
    EXPECT_EQ(statistics().late, 1u);
}

TEST_F(ResendTest, ACameraThatSaysItDroppedAFrameIsNotAskedForIt)
{
    start();
    play(monoFrame({6, true}));
    play(monoFrame({8, true, 0, 0x0002}));
    poll(now + 2 * ms);
    EXPECT_THAT(requests(), IsEmpty());
    EXPECT_EQ(statistics().framesSkipped, 1u);
}

TEST_F(ResendTest, FramesAreFetchedAsLongAsThereIsRoom)
{
    start(); // four at once
    play(monoFrame({6}));
    play(monoFrame({11}));
    poll(now + 2 * ms);
    EXPECT_THAT(requests(), IsEmpty());
    EXPECT_EQ(statistics().framesSkipped, 4u);
    play(monoFrame({15}));
    poll(now + 2 * ms);
    EXPECT_THAT(requests(), ElementsAre("12:0-0", "13:0-0", "14:0-0"));
    play(monoFrame({17}));
    poll(now + 2 * ms);
    EXPECT_EQ(requests().size(), 3u) << "none ends for one that may never have been";
    EXPECT_EQ(statistics().framesSkipped, 5u) << "16 is given up, and 12 to 14 are looked for";
    EXPECT_EQ(delivered.size(), 4u);
}

TEST_F(ResendTest, APaceIsKept)
{
    settings.resend.burst = 3;
    settings.resend.pace = std::chrono::milliseconds(4);
    start();
    sendWithout(monoFrame({7}), {2, 3, 4, 5, 6, 8});
    poll(1000 * ms);
    poll(1002 * ms);
    EXPECT_THAT(requests(), ElementsAre("7:2-4"));
    EXPECT_EQ(engine->deadline(), 1006 * ms);
    poll(1006 * ms - 1);
    EXPECT_EQ(requests().size(), 1u);
    poll(1006 * ms);
    EXPECT_THAT(requests(), ElementsAre("7:2-4", "7:5-6", "7:8-8"));
}

TEST_F(ResendTest, ThePaceIsForAllFramesTogether)
{
    settings.resend.burst = 1;
    start();
    sendWithout(monoFrame({7}), {2});
    sendWithout(monoFrame({8}), {3});
    poll(1000 * ms);
    poll(1002 * ms);
    EXPECT_THAT(requests(), ElementsAre("7:2-2"));
    poll(1003 * ms);
    EXPECT_THAT(requests(), ElementsAre("7:2-2", "8:3-3"));
}

TEST_F(ResendTest, AFrameHasALimit)
{
    settings.resend.limit = 4;
    start();
    sendWithout(monoFrame({7}), {1, 2, 3});
    poll(1000 * ms);
    poll(1002 * ms);
    poll(1012 * ms);
    EXPECT_THAT(requests(), ElementsAre("7:1-3", "7:1-1"));
    poll(1022 * ms);
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_EQ(requests().size(), 2u);
    EXPECT_EQ(frame(0).missingPackets, 3u);
}

TEST_F(ResendTest, WithoutResendsAFrameEndsSoonAfterTheNextBegan)
{
    settings.resend.enabled = false;
    start();
    sendWithout(monoFrame({7}), {3, 11});
    poll(1000 * ms);
    send(monoFrame({8}));
    poll(1005 * ms);
    EXPECT_TRUE(delivered.empty());
    EXPECT_EQ(engine->deadline(), 1010 * ms);
    poll(1015 * ms);
    EXPECT_THAT(requests(), IsEmpty());
    ASSERT_EQ(delivered.size(), 2u);
    EXPECT_EQ(frame(0).missingPackets, 2u);
    EXPECT_FALSE(frame(0).hasTrailer);
    expectFrame(1, 8);
}

TEST_F(ResendTest, WithoutResendsTheLastFrameEndsAfterItsTimeout)
{
    settings.resend.enabled = false;
    start();
    sendWithout(monoFrame({7}), {11});
    poll(1000 * ms);
    EXPECT_EQ(engine->deadline(), 1100 * ms);
    poll(1100 * ms - 1);
    EXPECT_TRUE(delivered.empty());
    poll(1100 * ms);
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_EQ(frame(0).missingPackets, 1u);
    EXPECT_TRUE(delivered[0]->missing().empty()) << "of the data nothing";
}

TEST_F(ResendTest, AFrameThatStillGrowsIsNotEnded)
{
    settings.resend.enabled = false;
    start();
    const std::vector<Bytes> packets = monoFrame({7});
    play(packets[0]);
    play(monoFrame({8})[0]);
    for (std::size_t i = 1; i < packets.size(); ++i) {
        now += ms;
        play(packets[i]);
    }
    expectFrame(0, 7);
}

TEST_F(ResendTest, AnUnavailablePacketIsGivenUpAtOnce)
{
    start();
    sendWithout(monoFrame({7}), {3, 5});
    poll(1000 * ms);
    poll(1002 * ms);
    play(Bytes(gvsp::header({7, false, 0x800C, 0}, 3, 3)));
    play(Bytes(gvsp::header({7, false, 0x800C, 0}, 3, 3)));
    EXPECT_TRUE(delivered.empty()) << "the other may come yet";
    play(Bytes(gvsp::header({7, false, 0x8012, 0}, 3, 5)));
    poll(now + 2 * ms);
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_EQ(frame(0).missingPackets, 2u);
    EXPECT_EQ(frame(0).status, 0x8012);
    EXPECT_EQ(statistics().packetsUnavailable, 2u);
    EXPECT_EQ(requests().size(), 2u);
}

TEST_F(ResendTest, AllBeforeAPacketMayBeGone)
{
    start();
    const std::vector<Bytes> packets = monoFrame({7});
    sendWithout(packets, {1, 3, 5, 8});
    poll(1000 * ms);
    poll(1002 * ms);
    play(Bytes(gvsp::header({7, false, 0x8011, 0}, 3, 5)));
    EXPECT_EQ(statistics().packetsUnavailable, 3u);
    play(packets[8]);
    poll(now + 2 * ms);
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_THAT(delivered[0]->missing(), ElementsAre(Range{0, 100}, Range{200, 100}, Range{400, 100}));
}

TEST_F(ResendTest, APacketThatIsNotYetThereIsAskedForLater)
{
    start();
    const std::vector<Bytes> packets = monoFrame({7});
    sendWithout(packets, {3});
    poll(1000 * ms);
    poll(1002 * ms);
    for (const std::uint16_t status : {0x8010, 0x8014}) {
        const std::size_t before = requests().size();
        poll(now + 5 * ms);
        play(Bytes(gvsp::header({7, false, status, 0}, 3, 3)));
        poll(now + 10 * ms - 1);
        EXPECT_EQ(requests().size(), before);
        poll(now + 1);
        EXPECT_EQ(requests().size(), before + 1);
    }
    EXPECT_EQ(statistics().packetsUnavailable, 0u);
    play(packets[3]);
    expectFrame(0, 7);
}

TEST_F(ResendTest, ATrailerThatComesBeforeExpectedEndsTheSearch)
{
    start();
    play(monoFrame({6}));
    // Of chunk data the length isn't known, so it is taken to be as the frame before.
    const Block block{7};
    const std::vector<Bytes> packets =
        gvsp::frame(block, gvsp::plainLeader(block, 4, 6), gvsp::pattern(250, 1), packetSize, 4, {250});
    play({packets[0], packets[1]});
    play(monoFrame({8}).front());
    poll(now + 2 * ms);
    EXPECT_THAT(requests(), ElementsAre("7:2-11"));
    play({packets[2], packets[3], packets[4]});
    ASSERT_EQ(delivered.size(), 2u);
    EXPECT_TRUE(frame(1).complete);
    EXPECT_EQ(frame(1).packets, 5u);
}

TEST_F(ResendTest, AnUnsentRequestIsRepeatedInTime)
{
    start();
    FakeSockets::fail(FakeSockets::Call::sendTo, 11);
    sendWithout(monoFrame({7}), {3});
    poll(1000 * ms);
    poll(1002 * ms);
    EXPECT_THAT(requests(), IsEmpty());
    poll(1012 * ms);
    EXPECT_THAT(requests(), ElementsAre("7:3-3"));
}
