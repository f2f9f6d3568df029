// Every packet format and payload type, bit by bit as it was sent.
#include "tests/unit/stream/stream_fixture.h"

#include <cstring>

using namespace zuTest;
using testing::ElementsAre;
using zuStream::Range;
namespace payload = zuStream::payload;

namespace {

/// With 16-bit and with extended ids.
class FormatTest : public StreamTest, public testing::WithParamInterface<bool> {
protected:
    FormatTest() { block = {7, GetParam()}; }
    std::size_t full() const { return gvsp::payloadSize(packetSize, GetParam()); }
    Block block;
};

INSTANTIATE_TEST_SUITE_P(Ids, FormatTest, testing::Bool(),
                         [](const auto& extended) { return extended.param ? "Extended" : "Short"; });

} // namespace

TEST_P(FormatTest, AnImageWithAllItsWords)
{
    settings.tickFrequency = 125000000;
    start();
    gvsp::Picture picture;
    picture.pixelFormat = 0x01100003; // Mono10
    picture.width = 20;
    picture.height = 18;
    picture.offsetX = 0x01020304;
    picture.offsetY = 0x05060708;
    picture.paddingX = 8;
    picture.paddingY = 36;
    picture.field = 0x21;
    picture.timestamp = 250000001;
    const Bytes data = gvsp::pattern(18 * 48 + 36, 1);
    play(gvsp::imageFrame(block, picture, data, packetSize));
    ASSERT_EQ(delivered.size(), 1u);
    const zuStream::Frame& result = frame(0);
    EXPECT_TRUE(result.complete);
    EXPECT_FALSE(result.tooLarge);
    EXPECT_TRUE(result.hasLeader);
    EXPECT_TRUE(result.hasTrailer);
    EXPECT_EQ(result.blockId, 7u);
    EXPECT_EQ(result.extendedId, GetParam());
    EXPECT_EQ(result.packetFormat, 3);
    EXPECT_EQ(result.payloadType, payload::image);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.fieldId, 2);
    EXPECT_EQ(result.fieldCount, 1);
    EXPECT_EQ(result.timestamp, 250000001u);
    EXPECT_EQ(result.timestampNs, 2000000008u);
    EXPECT_FALSE(result.hasChunks);
    EXPECT_EQ(result.packets, (data.size() + full() - 1) / full() + 2);
    EXPECT_EQ(result.missingPackets, 0u);
    EXPECT_EQ(result.firstPacketNs, now);
    EXPECT_EQ(result.lastPacketNs, now);
    EXPECT_EQ(result.image.pixelFormat, 0x01100003u);
    EXPECT_EQ(result.image.width, 20u);
    EXPECT_EQ(result.image.height, 18u);
    EXPECT_EQ(result.image.offsetX, 0x01020304u);
    EXPECT_EQ(result.image.offsetY, 0x05060708u);
    EXPECT_EQ(result.image.paddingX, 8);
    EXPECT_EQ(result.image.paddingY, 36);
    EXPECT_EQ(result.image.linePitch(), 48u);
    EXPECT_EQ(result.image.size(), data.size());
    EXPECT_EQ(content(0), data);
    EXPECT_EQ(statistics().framesComplete, 1u);
    EXPECT_EQ(statistics().packets, result.packets);
}

TEST_P(FormatTest, APictureThatFillsItsPacketsExactly)
{
    start(8, 10 * full());
    gvsp::Picture picture;
    picture.width = static_cast<std::uint32_t>(full());
    picture.height = 10;
    const Bytes data = gvsp::pattern(10 * full(), 1);
    play(gvsp::imageFrame(block, picture, data, packetSize));
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_TRUE(frame(0).complete);
    EXPECT_EQ(frame(0).packets, 12u);
    EXPECT_EQ(content(0), data);
}

TEST_P(FormatTest, ALowerHeightOfTheTrailerCounts)
{
    start();
    gvsp::Picture picture;
    picture.width = 50;
    picture.height = 19;
    const Bytes data = gvsp::pattern(12 * 50, 1);
    for (const bool leaderLast : {false, true}) {
        std::vector<Bytes> packets = gvsp::frame(block, gvsp::imageLeader(block, picture), data, packetSize, 1, {12});
        if (leaderLast)
            std::rotate(packets.begin(), packets.begin() + 1, packets.end());
        play(packets);
        ASSERT_EQ(delivered.size(), block.id - 6);
        EXPECT_TRUE(delivered.back()->frame().complete);
        EXPECT_EQ(delivered.back()->frame().image.height, 12u);
        EXPECT_EQ(delivered.back()->frame().size, 600u);
        ++block.id;
    }
}

TEST_P(FormatTest, ATrailerWithoutHeightLeavesTheLeaders)
{
    start();
    gvsp::Picture picture;
    picture.width = 50;
    picture.height = 19;
    play(gvsp::frame(block, gvsp::imageLeader(block, picture), gvsp::pattern(950, 7), packetSize, 1, {0}));
    expectFrame(0, 7);
    EXPECT_EQ(frame(0).image.height, 19u);
}

TEST_P(FormatTest, AShorterPictureThanPromisedIsIncomplete)
{
    start();
    gvsp::Picture picture;
    picture.width = 50;
    picture.height = 19;
    play(gvsp::frame(block, gvsp::imageLeader(block, picture), gvsp::pattern(600, 1), packetSize, 1, {19}));
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_FALSE(frame(0).complete);
    EXPECT_EQ(frame(0).missingPackets, 0u);
    EXPECT_EQ(frame(0).size, 600u);
}

TEST_P(FormatTest, RawData)
{
    start();
    const Bytes data = gvsp::pattern(333, 1);
    play(gvsp::frame(block, gvsp::sizedLeader(block, 2, 0x1122334455667788, data.size()), data, packetSize, 2, {}));
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_TRUE(frame(0).complete);
    EXPECT_EQ(frame(0).payloadType, payload::raw);
    EXPECT_EQ(frame(0).timestamp, 0x1122334455667788u);
    EXPECT_EQ(frame(0).timestampNs, 0u) << "the frequency isn't known";
    EXPECT_EQ(frame(0).announcedSize, 333u);
    EXPECT_EQ(content(0), data);
}

TEST_P(FormatTest, AFileWithItsName)
{
    start();
    const Bytes data = gvsp::pattern(444, 1);
    play(gvsp::frame(block, gvsp::sizedLeader(block, 3, 5, data.size(), "settings.txt"), data, packetSize, 3, {}));
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_TRUE(frame(0).complete);
    EXPECT_EQ(frame(0).payloadType, payload::file);
    EXPECT_STREQ(frame(0).fileName.data(), "settings.txt");
    EXPECT_EQ(content(0), data);
}

TEST_P(FormatTest, ALongFileNameIsCut)
{
    start();
    const std::string name(400, 'n');
    play(gvsp::frame(block, gvsp::sizedLeader(block, 3, 5, 10, name), gvsp::pattern(10, 1), packetSize, 3, {}));
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_EQ(std::strlen(frame(0).fileName.data()), 255u);
}

TEST_P(FormatTest, ChunkData)
{
    start();
    const Bytes data = gvsp::pattern(450, 1);
    play(gvsp::frame(block, gvsp::plainLeader(block, 4, 6), data, packetSize, 4, {450}));
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_TRUE(frame(0).complete);
    EXPECT_EQ(frame(0).payloadType, payload::chunkData);
    EXPECT_TRUE(frame(0).hasChunks);
    EXPECT_EQ(frame(0).chunkLength, 450u);
    EXPECT_EQ(frame(0).timestamp, 6u);
    EXPECT_EQ(content(0), data);
}

TEST_P(FormatTest, ExtendedChunk)
{
    start();
    gvsp::Picture picture;
    picture.width = 20;
    picture.height = 20;
    const Bytes data = gvsp::pattern(400 + 77, 1);
    play(gvsp::frame(block, gvsp::imageLeader(block, picture, 5), data, packetSize, 5, {477, 19, 0xABCD}));
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_TRUE(frame(0).complete);
    EXPECT_EQ(frame(0).payloadType, payload::extendedChunk);
    EXPECT_TRUE(frame(0).hasChunks);
    EXPECT_EQ(frame(0).image.height, 19u);
    EXPECT_EQ(frame(0).chunkLength, 477u);
    EXPECT_EQ(frame(0).chunkLayout, 0xABCDu);
    EXPECT_EQ(content(0), data);
}

TEST_P(FormatTest, AnImageWithChunksBehindIt)
{
    start();
    gvsp::Picture picture;
    picture.width = 20;
    picture.height = 20;
    const Bytes data = gvsp::pattern(400 + 60, 1);
    play(gvsp::frame(block, gvsp::imageLeader(block, picture, 0x4001), data, packetSize, 0x4001, {20, 460, 0x1234}));
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_TRUE(frame(0).complete);
    EXPECT_EQ(frame(0).payloadType, payload::image | payload::chunkBit);
    EXPECT_TRUE(frame(0).hasChunks);
    EXPECT_EQ(frame(0).image.height, 20u);
    EXPECT_EQ(frame(0).chunkLength, 460u);
    EXPECT_EQ(frame(0).chunkLayout, 0x1234u);
    EXPECT_EQ(content(0), data);
}

TEST_P(FormatTest, RawAndChunkDataWithChunks)
{
    start();
    const Bytes data = gvsp::pattern(260, 1);
    play(gvsp::frame(block, gvsp::sizedLeader(block, 0x4002, 1, 200), data, packetSize, 0x4002, {260, 9}));
    ++block.id;
    play(gvsp::frame(block, gvsp::plainLeader(block, 0x4004, 1), data, packetSize, 0x4004, {260, 261, 10}));
    ASSERT_EQ(delivered.size(), 2u);
    EXPECT_TRUE(frame(0).complete);
    EXPECT_EQ(frame(0).chunkLength, 260u);
    EXPECT_EQ(frame(0).chunkLayout, 9u);
    EXPECT_TRUE(frame(1).complete);
    EXPECT_EQ(frame(1).chunkLength, 261u);
    EXPECT_EQ(frame(1).chunkLayout, 10u);
}

namespace {

std::vector<gvsp::PartInfo> threeParts()
{
    std::vector<gvsp::PartInfo> parts(3);
    parts[0].picture = {0x01080001, 17, 10, 1, 2, 3, 4, 0, 0};
    parts[0].data = gvsp::pattern(204, 1);
    parts[1].dataType = 5;
    parts[1].purpose = 0x0102;
    parts[1].region = 0x0304;
    parts[1].source = 9;
    parts[1].data = gvsp::pattern(1, 2);
    parts[2].picture = {0x01100007, 30, 5, 0, 0, 0, 0, 0, 0};
    parts[2].data = gvsp::pattern(300, 3);
    return parts;
}

Bytes together(const std::vector<gvsp::PartInfo>& parts)
{
    Bytes all;
    for (const gvsp::PartInfo& part : parts)
        all.insert(all.end(), part.data.begin(), part.data.end());
    return all;
}

} // namespace

TEST_P(FormatTest, MultiPart)
{
    settings.packetSize = 196;
    start();
    const std::vector<gvsp::PartInfo> parts = threeParts();
    play(gvsp::multiPartFrame(block, parts, 196, 77));
    ASSERT_EQ(delivered.size(), 1u);
    const zuStream::Frame& result = frame(0);
    EXPECT_TRUE(result.complete);
    EXPECT_EQ(result.packetFormat, 7);
    EXPECT_EQ(result.payloadType, payload::multiPart);
    EXPECT_EQ(result.timestamp, 77u);
    ASSERT_EQ(result.partCount, 3u);
    EXPECT_EQ(result.parts[0].offset, 0u);
    EXPECT_EQ(result.parts[1].offset, 204u);
    EXPECT_EQ(result.parts[2].offset, 205u);
    EXPECT_EQ(result.parts[0].size, 204u);
    EXPECT_EQ(result.parts[0].dataType, 1);
    EXPECT_EQ(result.parts[0].image.width, 17u);
    EXPECT_EQ(result.parts[0].image.height, 10u);
    EXPECT_EQ(result.parts[0].image.offsetX, 1u);
    EXPECT_EQ(result.parts[0].image.offsetY, 2u);
    EXPECT_EQ(result.parts[0].image.paddingX, 3);
    EXPECT_EQ(result.parts[0].image.paddingY, 4);
    EXPECT_EQ(result.parts[1].dataType, 5);
    EXPECT_EQ(result.parts[1].purpose, 0x0102);
    EXPECT_EQ(result.parts[1].region, 0x0304);
    EXPECT_EQ(result.parts[1].source, 9);
    EXPECT_EQ(result.parts[2].image.pixelFormat, 0x01100007u);
    EXPECT_EQ(content(0), together(parts));
}

TEST_P(FormatTest, MultiPartInAnyOrder)
{
    settings.packetSize = 264;
    start();
    const std::vector<gvsp::PartInfo> parts = threeParts();
    std::vector<Bytes> packets = gvsp::multiPartFrame(block, parts, 264, 77);
    std::reverse(packets.begin(), packets.end());
    play(packets);
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_TRUE(frame(0).complete);
    EXPECT_EQ(content(0), together(parts));
    EXPECT_EQ(statistics().duplicates + statistics().malformed + statistics().packetsMissing, 0u);
}

TEST_P(FormatTest, WhatIsMissingOfAMultiPartFrame)
{
    settings.packetSize = 240;
    settings.resend.enabled = false;
    start();
    const std::vector<gvsp::PartInfo> parts = threeParts();
    const std::vector<Bytes> packets = gvsp::multiPartFrame(block, parts, 240, 77);
    ASSERT_EQ(packets.size(), 7u) << "the parts take 2, 1 and 2 packets";
    sendWithout(packets, {3, 5});
    poll();
    poll(now + 100 * ms);
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_FALSE(frame(0).complete);
    EXPECT_EQ(frame(0).missingPackets, 2u);
    const std::size_t part = gvsp::payloadSize(240, GetParam()) - 8;
    EXPECT_THAT(delivered[0]->missing(), ElementsAre(Range{204, 1}, Range{205 + part, 300 - part}));
}

TEST_P(FormatTest, AllIn)
{
    settings.packetSize = 400;
    settings.tickFrequency = 1000;
    start();
    gvsp::Picture picture;
    picture.width = 20;
    picture.height = 10;
    picture.timestamp = 3;
    const Bytes data = gvsp::pattern(200, 1);
    const auto leader = gvsp::imageLeader(block, picture);
    const std::size_t header = gvsp::headerSize(GetParam());
    const Bytes packet = gvsp::header(block, 4, 0)
                             .put(Bytes(leader.begin() + static_cast<std::ptrdiff_t>(header), leader.end()))
                             .put(0, 2)
                             .put(1, 2)
                             .put(10, 4)
                             .put(data);
    play(packet);
    play(packet);
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_TRUE(frame(0).complete);
    EXPECT_EQ(frame(0).packetFormat, 4);
    EXPECT_EQ(frame(0).packets, 1u);
    EXPECT_EQ(frame(0).timestampNs, 3 * ms);
    EXPECT_EQ(frame(0).image.height, 10u);
    EXPECT_EQ(content(0), data);
    EXPECT_EQ(statistics().late, 1u);
    ++block.id;
    play(Bytes(gvsp::header(block, 4, 0).put(Bytes(20, 0))));
    EXPECT_EQ(delivered.size(), 1u) << "cut";
    EXPECT_EQ(statistics().malformed, 1u);
}

TEST_P(FormatTest, JpegOfASizeThatIsNotKnown)
{
    start();
    const Bytes data = gvsp::pattern(250, 1);
    play(gvsp::frame(block, gvsp::sizedLeader(block, 6, 5, 0), data, packetSize, 6, {}));
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_TRUE(frame(0).complete);
    EXPECT_EQ(frame(0).payloadType, payload::jpeg);
    EXPECT_EQ(content(0), data);
}

TEST_P(FormatTest, OtherFormatsAreBytesWithTheirType)
{
    start();
    // H.264 has packets of any length.
    const std::size_t sizes[] = {30, 88, 1, 60};
    std::vector<Bytes> packets = {gvsp::header(block, 1, 0).put(0, 2).put(8, 2).put(Bytes(28, 7))};
    Bytes all;
    for (const std::size_t size : sizes) {
        const Bytes data = gvsp::pattern(size, size);
        packets.push_back(gvsp::payload(block, static_cast<std::uint32_t>(packets.size()), data, 5));
        all.insert(all.end(), data.begin(), data.end());
    }
    packets.push_back(gvsp::trailer(block, 5, 8, {}));
    play(packets);
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_TRUE(frame(0).complete);
    EXPECT_EQ(frame(0).payloadType, payload::h264);
    EXPECT_EQ(frame(0).packetFormat, 5);
    EXPECT_EQ(content(0), all);
    EXPECT_EQ(frame(0).size, all.size());
}

TEST_P(FormatTest, ShorterPacketsThanSetAreMovedTogether)
{
    start(8, 2000);
    gvsp::Picture picture;
    picture.width = 50;
    picture.height = 19;
    const Bytes data = gvsp::pattern(950, 1);
    std::vector<Bytes> packets = gvsp::imageFrame(block, picture, data, packetSize - 30);
    play(packets);
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_TRUE(frame(0).complete);
    EXPECT_EQ(content(0), data);
}

TEST_P(FormatTest, AnErrorStatusIsKept)
{
    start();
    std::vector<Bytes> packets = monoFrame(block);
    packets[3][0] = 0x80;
    packets[3][1] = 0x0D;
    packets[4][0] = 0x01; // a packet resent is no error
    play(packets);
    expectFrame(0, 7);
    EXPECT_EQ(frame(0).status, 0x800D);
}

TEST_F(StreamTest, MultiZoneIsAnImage)
{
    start();
    gvsp::Picture picture;
    picture.width = 40;
    picture.height = 5;
    picture.timestamp = 9;
    const Block block;
    const Bytes leader = gvsp::header(block, 1, 0)
                             .put(0, 2)
                             .put(9, 2)
                             .put(picture.timestamp, 8)
                             .put(0, 4)
                             .put(picture.pixelFormat, 4)
                             .put(gvsp::geometry(picture));
    std::vector<Bytes> packets = {leader};
    for (const Bytes& packet : gvsp::payloads(block, gvsp::pattern(200, 1), packetSize, 6))
        packets.push_back(packet);
    packets.push_back(gvsp::trailer(block, 3, 9, {5}));
    play(packets);
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_TRUE(frame(0).complete);
    EXPECT_EQ(frame(0).payloadType, payload::multiZone);
    EXPECT_EQ(frame(0).packetFormat, 6);
    EXPECT_EQ(frame(0).image.width, 40u);
    EXPECT_EQ(frame(0).image.height, 5u);
}

TEST(ImageTest, LinesAndSizes)
{
    zuStream::Image image;
    image.pixelFormat = 0x010C0047; // Mono12p
    image.width = 10;
    image.height = 3;
    EXPECT_EQ(image.linePitch(), 15u);
    EXPECT_EQ(image.size(), 45u);
    image.width = 11;
    EXPECT_EQ(image.linePitch(), 0u) << "132 bits";
    EXPECT_EQ(image.size(), 50u) << "396 bits run on";
    image.paddingX = 2;
    EXPECT_EQ(image.size(), 3u * 19) << "lines with padding begin at bytes";
    image.paddingY = 5;
    EXPECT_EQ(image.size(), 3u * 19 + 5);
    image = {};
    EXPECT_EQ(image.size(), 0u);
    image.pixelFormat = 0x02FF0000;
    image.width = 0xFFFFFFFF;
    image.height = 0xFFFFFFFF;
    image.paddingX = image.paddingY = 0xFFFF;
    EXPECT_EQ(image.size(), ~std::uint64_t{0}) << "more than 64 bits count";
}
