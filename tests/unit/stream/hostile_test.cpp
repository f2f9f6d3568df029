// Everything from outside is hostile. The fixture's guards around each buffer tell a write beyond it.
#include "tests/unit/stream/stream_fixture.h"

#include <limits>
#include <random>

using namespace zuTest;
namespace payload = zuStream::payload;

namespace {

/// A frame of every kind.
std::vector<std::vector<Bytes>> allKinds(bool extended, unsigned size)
{
    Block block{7, extended};
    gvsp::Picture picture;
    picture.width = 20;
    picture.height = 12;
    std::vector<gvsp::PartInfo> parts(2);
    parts[0].data = gvsp::pattern(120, 1);
    parts[1].data = gvsp::pattern(130, 2);
    const Bytes data = gvsp::pattern(240, 1);
    std::vector<std::vector<Bytes>> kinds;
    kinds.push_back(gvsp::imageFrame(block, picture, data, size));
    kinds.push_back(gvsp::frame(block, gvsp::sizedLeader(block, 2, 1, 240), data, size, 2, {}));
    kinds.push_back(gvsp::frame(block, gvsp::sizedLeader(block, 3, 1, 240, "name"), data, size, 3, {}));
    kinds.push_back(gvsp::frame(block, gvsp::plainLeader(block, 4, 1), data, size, 4, {240}));
    kinds.push_back(gvsp::frame(block, gvsp::imageLeader(block, picture, 5), data, size, 5, {240, 12, 1}));
    kinds.push_back(gvsp::frame(block, gvsp::imageLeader(block, picture, 0x4001), data, size, 0x4001, {12, 240, 1}));
    kinds.push_back(gvsp::frame(block, gvsp::sizedLeader(block, 6, 1, 240), data, size, 6, {}));
    kinds.push_back(gvsp::multiPartFrame(block, parts, size, 1));
    return kinds;
}

} // namespace

TEST_F(StreamTest, TruncatedAtEveryByte)
{
    settings.resend.enabled = false;
    settings.packetSize = 192; // three parts
    for (const bool extended : {false, true})
        for (const std::vector<Bytes>& packets : allKinds(extended, settings.packetSize)) {
            std::size_t whole = 0;
            for (std::size_t cut = 0; cut < packets.size(); ++cut)
                for (std::size_t size = 0; size <= packets[cut].size(); ++size) {
                    FakeSockets::reset();
                    delivered.clear();
                    empty.clear();
                    start(1, 300);
                    for (std::size_t i = 0; i < packets.size(); ++i)
                        send(i == cut
                                 ? Bytes(packets[i].begin(), packets[i].begin() + static_cast<std::ptrdiff_t>(size))
                                 : packets[i]);
                    poll(1000 * ms);
                    poll(1100 * ms);
                    ASSERT_EQ(delivered.size(), 1u);
                    whole += frame(0).complete ? 1 : 0;
                    if (size == packets[cut].size()) {
                        ASSERT_TRUE(frame(0).complete) << cut;
                    } else if (size < gvsp::headerSize(extended)) {
                        ASSERT_FALSE(frame(0).complete) << cut << " at " << size;
                        ASSERT_EQ(statistics().malformed, 1u) << cut << " at " << size;
                    }
                    records.clear();
                    memory.clear();
                }
            EXPECT_GE(whole, packets.size());
        }
}

TEST_F(StreamTest, ACutLeaderOrTrailerIsMalformed)
{
    settings.resend.enabled = false;
    const Block block{7};
    gvsp::Picture picture;
    picture.width = 20;
    picture.height = 12;
    for (const Bytes& leader :
         {gvsp::imageLeader(block, picture), gvsp::imageLeader(block, picture, 5), gvsp::sizedLeader(block, 2, 1, 2),
          gvsp::sizedLeader(block, 3, 1, 2, "n"), gvsp::plainLeader(block, 4, 1), gvsp::sizedLeader(block, 6, 1, 2),
          gvsp::multiPartFrame({7, true}, std::vector<gvsp::PartInfo>(2), packetSize, 1).front()}) {
        FakeSockets::reset();
        start(1);
        play(Bytes(leader.begin(), leader.end() - 1));
        EXPECT_EQ(statistics().malformed, 1u);
        play(leader);
        EXPECT_EQ(statistics().malformed, 1u);
    }
    for (const auto& [type, words] : std::vector<std::pair<std::uint16_t, std::vector<std::uint32_t>>>{
             {1, {5}}, {2, {}}, {4, {5}}, {5, {5, 5, 5}}, {0x4001, {5, 5, 5}}, {0x4002, {5, 5}}, {0x4004, {5, 5, 5}}}) {
        const Bytes trailer = gvsp::trailer(block, 3, type, words);
        FakeSockets::reset();
        start(1);
        play(Bytes(trailer.begin(), trailer.end() - 1));
        EXPECT_EQ(statistics().malformed, 1u) << type;
        play(trailer);
        EXPECT_EQ(statistics().malformed, 1u) << type;
    }
}

TEST_F(StreamTest, ALeaderLargerThanAnyDatagramIsMalformed)
{
    start();
    Bytes leader = monoFrame({7}).front();
    leader.resize(577);
    play(leader);
    EXPECT_EQ(statistics().malformed, 1u);
    leader.resize(576);
    play(leader);
    EXPECT_EQ(statistics().malformed, 1u);
}

TEST_F(StreamTest, PacketsThatContradictThemselvesOrTheirFrame)
{
    start();
    const Block block{7};
    const std::vector<Bytes> packets = monoFrame(block);
    play(packets[0]);
    const std::vector<Bytes> wrong = {gvsp::payload(block, 0, Bytes(10)),        // a leader's id
                                      gvsp::payload(block, 5, {}),               // nothing in it
                                      gvsp::payload(block, 5, Bytes(101)),       // more than a packet holds
                                      gvsp::payload(block, 5, Bytes(2000)),      // more than anything holds
                                      gvsp::trailer(block, 0, 1, {19}),          // a leader's id
                                      gvsp::header(block, 9, 5).put(Bytes(10)),  // no known format
                                      gvsp::header(block, 0, 5).put(Bytes(10)),  // neither
                                      gvsp::header(block, 4, 0).put(packets[0]), // all in one, behind a leader
                                      gvsp::header(block, 7, 5).put(Bytes(20)),  // a part in a picture
                                      gvsp::header(block, 1, 1).put(Bytes(40)),  // a leader in the midst
                                      Bytes(7),
                                      Bytes(0),
                                      Bytes(19, 0x83)};
    std::uint64_t expected = 0;
    for (const Bytes& packet : wrong) {
        play(packet);
        ++expected;
        // All in one with a leader's id is a duplicate of that leader.
        const std::uint64_t seen = statistics().malformed + statistics().duplicates;
        EXPECT_EQ(seen, expected) << expected << " of " << wrong.size();
    }
    EXPECT_EQ(statistics().duplicates, 1u);
    play({packets.begin() + 1, packets.begin() + 6});
    play(gvsp::trailer(block, 5, 1, {19})); // a packet with this id and payload is there
    play(gvsp::trailer(block, 3, 1, {19})); // packets behind it are there
    EXPECT_EQ(statistics().malformed, expected + 1);
    play({packets.begin() + 6, packets.end() - 2});
    play(packets.back());
    play(gvsp::payload(block, 11, Bytes(10))); // the trailer's id
    play(gvsp::payload(block, 12, Bytes(10))); // behind the trailer
    play(gvsp::trailer(block, 12, 1, {19}));   // another trailer
    EXPECT_EQ(statistics().malformed, expected + 4);
    play(packets[10]);
    expectFrame(0, 7);
}

TEST_F(StreamTest, APartThatDoesNotFit)
{
    settings.packetSize = 192;
    settings.resend.enabled = false;
    std::vector<gvsp::PartInfo> parts(2);
    parts[0].data = gvsp::pattern(120, 1);
    parts[1].data = gvsp::pattern(130, 2);
    const Block block{7, true};
    const auto packets = gvsp::multiPartFrame(block, parts, 192, 1);
    const auto part = [&](std::uint32_t packet, unsigned number, std::uint64_t offset, std::size_t size) {
        return Bytes(gvsp::header(block, 7, packet).put(number, 1).put(0, 1).put(offset, 6).put(Bytes(size, 0xEE)));
    };
    start();
    play(packets[0]);
    std::uint64_t expected = 0;
    for (const Bytes& packet :
         {part(1, 2, 0, 10), part(1, 255, 0, 10), part(1, 0, 120, 1), part(1, 0, 121, 1), part(1, 0, 111, 10),
          part(1, 0, 0xFFFFFFFFFFFF, 10), part(1, 0, 0, 0), part(0, 0, 0, 10), part(0xFFFFFFFF, 0, 0, 10)}) {
        play(packet);
        EXPECT_EQ(statistics().malformed, ++expected);
    }
    play({packets.begin() + 1, packets.end()});
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_TRUE(frame(0).complete);
}

TEST_F(StreamTest, PartsLargerThanTheirBuffer)
{
    settings.packetSize = 192;
    settings.resend.enabled = false;
    std::vector<gvsp::PartInfo> parts(3);
    for (gvsp::PartInfo& part : parts)
        part.data = gvsp::pattern(200, 1);
    start(1, 250);
    play(gvsp::multiPartFrame({7, true}, parts, 192, 1));
    poll(now + 100 * ms);
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_TRUE(frame(0).tooLarge);
    EXPECT_FALSE(frame(0).complete);
    EXPECT_EQ(frame(0).size, 250u);
    Bytes first = content(0);
    first.resize(200);
    EXPECT_EQ(first, parts[0].data);
    EXPECT_EQ(frame(0).parts[2].offset, 250u);
    EXPECT_GT(statistics().beyondBuffer, 0u);
}

TEST_F(StreamTest, FewerPartsThanPromisedAreIncomplete)
{
    settings.packetSize = 192;
    std::vector<gvsp::PartInfo> parts(2);
    parts[0].data = gvsp::pattern(120, 1);
    parts[1].data = gvsp::pattern(130, 2);
    const Block block{7, true};
    start();
    const auto packets = gvsp::multiPartFrame(block, parts, 192, 1);
    play({packets[0], packets[1]});
    Bytes trailer = packets.back();
    trailer[19] = 2; // its packet id
    play(trailer);
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_FALSE(frame(0).complete);
    EXPECT_EQ(frame(0).missingPackets, 0u);
    EXPECT_FALSE(delivered[0]->missing().empty());
}

TEST_F(StreamTest, ALeaderThatComesLastMayTellThatItNeverFitted)
{
    start(1, 900);
    gvsp::Picture picture;
    picture.width = 50;
    picture.height = 30;
    const Block block{7};
    std::vector<Bytes> packets =
        gvsp::frame(block, gvsp::imageLeader(block, picture), gvsp::pattern(900, 1), packetSize, 1, {30});
    std::rotate(packets.begin(), packets.begin() + 1, packets.end());
    play(packets);
    poll(now + 100 * ms);
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_TRUE(frame(0).tooLarge);
    EXPECT_EQ(frame(0).packets, 11u);
    EXPECT_EQ(frame(0).missingPackets, 0u);
}

TEST_F(StreamTest, AFrameLargerThanItsBuffer)
{
    start(2, 450);
    play(monoFrame({7}));
    poll(now + 2 * ms);
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_FALSE(frame(0).complete);
    EXPECT_TRUE(frame(0).tooLarge);
    EXPECT_EQ(frame(0).size, 450u);
    EXPECT_EQ(frame(0).packets, 12u);
    EXPECT_EQ(frame(0).missingPackets, 0u) << "of what it holds";
    Bytes first = gvsp::pattern(950, 7);
    first.resize(450);
    EXPECT_EQ(content(0), first);
    EXPECT_EQ(statistics().beyondBuffer, 6u) << "the fifth in part, five others whole";
    EXPECT_TRUE(requests().empty());
    sendWithout(monoFrame({8}), {2});
    poll();
    poll(now + 2 * ms);
    EXPECT_THAT(requests(), testing::ElementsAre("8:2-2"));
}

TEST_F(StreamTest, LeadersThatPromiseTerabytes)
{
    settings.resend.enabled = false;
    for (const bool extended : {false, true}) {
        FakeSockets::reset();
        delivered.clear();
        start(8);
        Block block{7, extended};
        gvsp::Picture picture;
        picture.width = picture.height = 0xFFFFFFFF;
        picture.pixelFormat = 0x02FF0000;
        for (const Bytes& leader : {gvsp::imageLeader(block, picture),
                                    gvsp::sizedLeader({8, extended}, 2, 1, std::numeric_limits<std::uint64_t>::max()),
                                    gvsp::sizedLeader({9, extended}, 3, 1, std::uint64_t{1} << 40, "n")}) {
            play(leader);
            play(gvsp::payload(block, 1, gvsp::pattern(80, 1)));
            play(gvsp::trailer(block, extended ? 0xFFFFFFFF : 0xFFFFFF, 1, {0xFFFFFFFF}));
            poll(now + 100 * ms);
            ASSERT_EQ(delivered.size(), block.id - 6);
            EXPECT_TRUE(delivered.back()->frame().tooLarge);
            EXPECT_FALSE(delivered.back()->frame().complete);
            EXPECT_EQ(delivered.back()->frame().size, 80u);
            EXPECT_FALSE(delivered.back()->missing().empty());
            ++block.id;
        }
    }
}

TEST_F(StreamTest, IdsFarBeyondTheFrame)
{
    start();
    for (const std::uint32_t id : {12u, 100u, 0xFFFFFFFEu, 0xFFFFFFFFu}) {
        Block block{id + 7ull, true};
        const std::uint64_t before = statistics().beyondBuffer;
        play(gvsp::payload(block, id, Bytes(10)));
        EXPECT_EQ(statistics().beyondBuffer, before + (id > 12 ? 1 : 0)) << id;
        play(Bytes(gvsp::header({block.id, true, 0x800C, 0}, 3, id)));
        play(Bytes(gvsp::header({block.id, true, 0x8011, 0}, 3, id)));
    }
    for (int i = 0; i < 200; ++i)
        poll(now + 10 * ms);
    EXPECT_EQ(delivered.size(), 4u);
    EXPECT_LT(requests().size(), 100u);
}

TEST_F(StreamTest, APictureLeaderMayExceedSmallPackets)
{
    settings.packetSize = 64;
    start();
    gvsp::Picture picture;
    picture.width = 10;
    picture.height = 10;
    for (const bool extended : {false, true}) {
        const Block block{7, extended};
        play(gvsp::imageFrame(block, picture, gvsp::pattern(100, 7), 64));
        ASSERT_EQ(delivered.size(), extended ? 2u : 1u);
        EXPECT_TRUE(delivered.back()->frame().complete);
    }
}

TEST_F(StreamTest, AFloodOfBlocksTakesNoMoreThanItsShare)
{
    settings.resend.enabled = false;
    settings.deliverIncomplete = false;
    start(6);
    play(monoFrame({100}, 950, 1));
    std::mt19937_64 random(7);
    for (int i = 0; i < 3000; ++i) {
        gvsp::Picture picture;
        picture.timestamp = random();
        send(gvsp::imageLeader({random() | 1, true}, picture));
        send(gvsp::payload({random() | 1, true}, static_cast<std::uint32_t>(random()), Bytes(random() % 120)));
        poll(now + 1);
    }
    EXPECT_GE(statistics().restarts + statistics().late, 3000u);
    EXPECT_EQ(delivered.size(), 1u);
    now += ms;
    play(monoFrame({1}, 950, 2));
    ASSERT_EQ(delivered.size(), 2u);
    expectFrame(1, 1);
}

TEST_F(StreamTest, RandomBytes)
{
    std::mt19937 random(99);
    settings.packetSize = 192;
    start(8, 700);
    for (int i = 0; i < 20000; ++i) {
        // Mostly small numbers in the right places, so that frames are met.
        Bytes packet(random() % 160);
        for (std::uint8_t& byte : packet)
            byte = static_cast<std::uint8_t>(random() % 4 == 0 ? random() : random() % 3 == 0 ? 1 : 0);
        if (packet.size() > 4)
            packet[4] = static_cast<std::uint8_t>((random() % 2) << 7 | random() % 9);
        send(packet);
        if (i % 7 == 0) {
            poll(now + ms);
            for (zuStream::Record* const record : delivered) {
                record->missing();
                empty.push_back(record);
            }
            delivered.clear();
        }
    }
    EXPECT_GT(statistics().malformed, 0u);
    EXPECT_GT(statistics().framesIncomplete, 0u);
}

TEST_F(StreamTest, SettingsThatCannotBeMeant)
{
    const auto refused = [&](auto change) {
        zuStream::Settings wrong = settings;
        change(wrong);
        EXPECT_THROW(zuStream::Engine(wrong, *this), std::invalid_argument);
    };
    refused([](auto& s) { s.packetSize = 63; });
    refused([](auto& s) { s.packetSize = 65536; });
    refused([](auto& s) { s.framesAtOnce = 1; });
    refused([](auto& s) { s.batch = 0; });
    refused([](auto& s) { s.gather = std::chrono::microseconds(-1); });
    refused([](auto& s) { s.gather = std::chrono::seconds(1); });
    refused([](auto& s) { s.frameTimeout = std::chrono::microseconds(0); });
    refused([](auto& s) { s.tickFrequency = 10000000001; });
    refused([](auto& s) { s.socketBuffer = -1; });
    refused([](auto& s) { s.group = 0x0A000001; });
    refused([](auto& s) { s.source.address = 0; });
    refused([](auto& s) { s.resend.burst = 0; });
    refused([](auto& s) { s.resend.timeout = std::chrono::microseconds(0); });
    EXPECT_EQ(FakeSockets::opened(), 0u);
}

TEST_F(StreamTest, TheSocketIsMadeAsAsked)
{
    settings.socketBuffer = 5000000;
    FakeSockets::setGrantedBuffer(212992);
    start();
    EXPECT_THAT(FakeSockets::calls(),
                testing::ElementsAre("0 open", "0 setReceiveBuffer 5000000", "0 getReceiveBuffer",
                                     "0 bind 10.0.0.1:5000", "0 getLocalAddress", "0 setNonBlocking"));
    EXPECT_EQ(statistics().socketBufferAsked, 5000000);
    EXPECT_EQ(statistics().socketBufferGranted, 212992);
    EXPECT_EQ(engine->local(), (zuStream::Endpoint{0x0A000001, 5000}));
    FakeSockets::reset();
    settings.group = 0xEF010203;
    start();
    EXPECT_THAT(FakeSockets::calls(), testing::Contains("0 joinGroup 239.1.2.3:5000 on 10.0.0.1"));
    EXPECT_EQ(engine->local(), (zuStream::Endpoint{0xEF010203, 5000}));
}

TEST_F(StreamTest, ARefusedSocketIsAnErrorWithItsCode)
{
    using Call = FakeSockets::Call;
    for (const Call call : {Call::open, Call::bind, Call::getLocalAddress, Call::getReceiveBuffer}) {
        FakeSockets::reset();
        FakeSockets::fail(call, 98);
        try {
            start();
            ADD_FAILURE();
        } catch (const zuStream::StreamError& error) {
            EXPECT_EQ(error.code(), 98);
        }
    }
    settings.group = 0xEF010203;
    FakeSockets::fail(Call::joinGroup, 19);
    EXPECT_THROW(start(), zuStream::StreamError);
    settings.group = 0;
    FakeSockets::fail(Call::setReceiveBuffer, 1);
    EXPECT_NO_THROW(start()) << "what is granted tells";
}
