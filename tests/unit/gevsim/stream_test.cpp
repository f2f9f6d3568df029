// Pictures as packets: golden bytes, modes, triggers, ids, chunks, sizes, paces, and the end of the channel.
#include "tests/unit/gevsim/viewer.h"

#include "tools/gevsim/gvsp.h"

#include <gmock/gmock.h>

#include <memory>

using namespace gevsimTest;
using namespace std::chrono_literals;
using gevsim::Camera;
using gevsim::Config;
using gevsim::SentFrame;
using Clock = std::chrono::steady_clock;
namespace reg = gevsim::reg;
namespace feature = gevsim::feature;
namespace pixel = gevsim::pixel;

namespace {

Config config()
{
    Config made;
    made.endpoint = {"127.0.13.1", 0};
    made.heartbeatTimeoutMs = 60000;
    made.sensorWidth = 64;
    made.sensorHeight = 32;
    return made;
}

class Streams : public testing::Test {
protected:
    /// One picture of 64x16 in packets of 256 bytes: four whole packets of 220 bytes, and one of 144.
    void single()
    {
        viewer.open();
        viewer.write(feature::height, 16);
        viewer.write(feature::acquisitionMode, 1);
    }
    /// Pictures without end, as fast as they come.
    void fast()
    {
        viewer.open();
        viewer.write(feature::exposureTime, floatBits(100));
        viewer.write(feature::frameRate, floatBits(200));
    }
    bool ended()
    {
        return camera.waitFor([&] { return camera.readRegister(feature::acquisitionStatus) == 0; });
    }

    Camera camera{config()};
    Viewer viewer{camera};
};

std::string timeOf(const SentFrame& frame)
{
    Bytes time(8);
    gevsim::wire::put32(&time[0], static_cast<std::uint32_t>(frame.timestamp >> 32));
    gevsim::wire::put32(&time[4], static_cast<std::uint32_t>(frame.timestamp));
    return text(time);
}

} // namespace

TEST_F(Streams, TheBytesOfAFrame)
{
    single();
    viewer.write(feature::offsetY, 4);
    viewer.start();
    const std::vector<Piece> pieces = viewer.frame();
    ASSERT_EQ(pieces.size(), 7U);
    ASSERT_TRUE(ended());
    const SentFrame frame = camera.sentFrames().at(0);
    EXPECT_EQ(text(pieces[0].bytes), "00 00 00 01 01 00 00 00 00 00 00 01 " + timeOf(frame) +
                                         " 01 08 00 01 00 00 00 40 00 00 00 10 00 00 00 00 00 00 00 04 00 00 00 00");
    for (std::uint32_t id = 1; id <= 5; ++id) {
        const Bytes& bytes = pieces[id].bytes;
        EXPECT_EQ(bytes.size(), id < 5 ? 256U - 28 : 8U + 144) << "the size counts the headers of IP and UDP";
        EXPECT_EQ(text(Bytes(bytes.begin(), bytes.begin() + 8)), "00 00 00 01 03 00 00 0" + std::to_string(id));
    }
    EXPECT_EQ(text(pieces[6].bytes), "00 00 00 01 02 00 00 06 00 00 00 01 00 00 00 10");
    Bytes picture(64 * 16);
    gevsim::Picture made;
    made.sensorHeight = 32;
    made.width = 64;
    made.height = 16;
    made.offsetY = 4;
    made.number = 1;
    gevsim::Painter().paint(made, picture.data());
    EXPECT_EQ(payload(pieces), picture);
    EXPECT_EQ(frame.picture, made);
    EXPECT_EQ(frame.packets, 7U);
    EXPECT_TRUE(frame.ended);
    EXPECT_TRUE(frame.missing.empty());
    EXPECT_EQ(gevsim::payloadOf(frame), picture);
}

TEST_F(Streams, TheBytesOfAFrameWithExtendedIds)
{
    single();
    viewer.write(reg::gvspConfiguration, 0x40000000);
    camera.setNextPicture(0x0000000123456789);
    viewer.start();
    const std::vector<Piece> pieces = viewer.frame();
    ASSERT_EQ(pieces.size(), 7U) << "208 bytes in a packet";
    ASSERT_TRUE(ended());
    const SentFrame frame = camera.sentFrames().at(0);
    const std::string block = " 00 00 00 01 23 45 67 89 ";
    EXPECT_EQ(text(pieces[0].bytes), "00 00 00 00 81 00 00 00" + block + "00 00 00 00 00 00 00 01 " + timeOf(frame) +
                                         " 01 08 00 01 00 00 00 40 00 00 00 10 00 00 00 00 00 00 00 00 00 00 00 00");
    EXPECT_EQ(pieces[1].bytes.size(), 256U - 28);
    EXPECT_EQ(text(Bytes(pieces[5].bytes.begin(), pieces[5].bytes.begin() + 20)),
              "00 00 00 00 83 00 00 00" + block + "00 00 00 05");
    EXPECT_EQ(text(pieces[6].bytes), "00 00 00 00 82 00 00 00" + block + "00 00 00 06 00 00 00 01 00 00 00 10");
    EXPECT_EQ(payload(pieces), gevsim::payloadOf(frame));
    EXPECT_EQ(frame.block, 0x123456789U);
}

TEST_F(Streams, TheBytesOfChunks)
{
    single();
    viewer.write(feature::chunkMode, 1);
    viewer.write(feature::exposureTime, floatBits(2000));
    viewer.start();
    std::vector<Piece> pieces = viewer.frame();
    ASSERT_TRUE(ended());
    SentFrame frame = camera.sentFrames().at(0);
    EXPECT_EQ(text(pieces.front().content), "00 00 00 04 " + timeOf(frame));
    EXPECT_EQ(text(pieces.back().content), "00 00 00 04 00 00 04 38") << "1024 bytes of picture and 56 of chunks";
    Bytes all = payload(pieces);
    ASSERT_EQ(all.size(), 1080U);
    EXPECT_EQ(text(Bytes(all.begin() + 1024, all.end())), "10 00 00 00 00 00 04 00 "
                                                          "00 00 00 00 00 00 00 01 10 00 00 01 00 00 00 08 " +
                                                              timeOf(frame) +
                                                              " 10 00 00 02 00 00 00 08 "
                                                              "40 9f 40 00 00 00 00 00 10 00 00 03 00 00 00 08");
    EXPECT_EQ(gevsim::payloadOf(frame), all);

    viewer.write(reg::streamConfiguration, 1);
    viewer.write(feature::chunkEnable + 8, 0);
    viewer.write(feature::chunkEnable + 12, 0);
    viewer.start();
    pieces = viewer.frame();
    ASSERT_TRUE(ended());
    frame = camera.sentFrames().at(1);
    EXPECT_EQ(text(pieces.front().content),
              "00 00 40 01 " + timeOf(frame) +
                  " 01 08 00 01 00 00 00 40 00 00 00 10 00 00 00 00 00 00 00 00 00 00 00 00");
    EXPECT_EQ(text(pieces.back().content), "00 00 40 01 00 00 00 10 00 00 04 18 00 00 00 01");
    all = payload(pieces);
    ASSERT_EQ(all.size(), 1048U);
    EXPECT_EQ(text(Bytes(all.begin() + 1024, all.end())),
              "10 00 00 00 00 00 04 00 00 00 00 00 00 00 00 02 10 00 00 01 00 00 00 08");
    EXPECT_EQ(gevsim::payloadOf(frame), all);
}

TEST_F(Streams, EveryFormatArrivesAsTheCameraSays)
{
    single();
    std::size_t count = 0;
    for (const auto& [format, name] : pixel::names) {
        viewer.write(feature::pixelFormat, format);
        viewer.start();
        const std::vector<Piece> pieces = viewer.frame();
        ASSERT_TRUE(ended());
        const SentFrame frame = camera.sentFrames().at(count++);
        EXPECT_EQ(big(pieces.front().content, 12, 4), format) << name;
        EXPECT_EQ(payload(pieces).size(), 1024U * pixel::bits(format) / 8) << name;
        EXPECT_EQ(payload(pieces), gevsim::payloadOf(frame)) << name;
        EXPECT_EQ(frame.picture.format, format) << name;
    }
}

TEST_F(Streams, ShortIdsRunFrom1To65535)
{
    single();
    camera.setNextPicture(65535);
    for (const std::uint64_t block : {65535U, 1U, 2U}) {
        viewer.start();
        EXPECT_EQ(viewer.frame().front().block, block);
        ASSERT_TRUE(ended());
    }
    EXPECT_EQ(camera.sentFrames().at(1).picture.number, 65536U) << "the picture goes on";
}

TEST_F(Streams, BlocksBeginWithOneWhenTheChannelIsOpened)
{
    single();
    viewer.start();
    EXPECT_EQ(viewer.frame().front().block, 1U);
    ASSERT_TRUE(ended());
    viewer.start();
    EXPECT_EQ(viewer.frame().front().block, 2U) << "and go on from acquisition to acquisition";
    ASSERT_TRUE(ended());
    viewer.write(reg::streamPort, 0);
    viewer.write(reg::streamPort, viewer.port);
    viewer.start();
    EXPECT_EQ(viewer.frame().front().block, 1U);
}

TEST_F(Streams, SingleAndSeveralFramesEndByThemselves)
{
    single();
    viewer.start();
    viewer.frame();
    ASSERT_TRUE(ended());
    EXPECT_EQ(viewer.read(feature::acquisitionStatus), 0U);
    EXPECT_TRUE(viewer.silent());
    viewer.write(feature::acquisitionMode, 2);
    viewer.write(feature::acquisitionFrameCount, 3);
    viewer.write(feature::exposureTime, floatBits(100));
    viewer.write(feature::frameRate, floatBits(100));
    viewer.start();
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(viewer.frame().size(), 7U);
    ASSERT_TRUE(ended());
    EXPECT_TRUE(viewer.silent());
    EXPECT_EQ(camera.streamCounters().frames, 4U);
}

TEST_F(Streams, ContinuousUntilTheStop)
{
    fast();
    viewer.start();
    for (std::uint64_t block = 1; block <= 20; ++block)
        EXPECT_EQ(viewer.frame().front().block, block);
    viewer.stop();
    // The frame under way may be finished; then there is nothing any more.
    bool came = true;
    const auto end = Clock::now() + 20s;
    while (came && Clock::now() < end)
        viewer.next(came, Viewer::shortly);
    EXPECT_FALSE(came);
    EXPECT_EQ(viewer.read(feature::acquisitionStatus), 0U);
    viewer.start();
    viewer.frame();
}

TEST_F(Streams, TheFrameRateIsKept)
{
    fast();
    viewer.write(feature::frameRate, floatBits(50));
    viewer.start();
    for (int i = 0; i < 11; ++i)
        viewer.frame();
    const std::vector<SentFrame> frames = camera.sentFrames();
    ASSERT_GE(frames.size(), 11U);
    EXPECT_GE(frames[10].timestamp - frames[0].timestamp, 200000000U) << "ten periods, no matter how late packets were";
    EXPECT_LE(frames[10].timestamp - frames[0].timestamp, 5000000000U);
}

TEST_F(Streams, APictureComesBehindItsExposure)
{
    single();
    viewer.write(feature::frameRate, floatBits(2));
    viewer.write(feature::exposureTime, floatBits(300000));
    const auto begin = Clock::now();
    viewer.start();
    const auto pieces = viewer.frame();
    EXPECT_GE(pieces.front().time - begin, 300ms);
}

TEST_F(Streams, GainAndExposureMakeItBrighter)
{
    single();
    viewer.write(feature::gain, floatBits(6));
    viewer.write(feature::exposureTime, floatBits(20000));
    viewer.start();
    viewer.frame();
    ASSERT_TRUE(ended());
    EXPECT_EQ(camera.sentFrames().at(0).picture.brightness, 1022U)
        << "256, twice for the exposure, 1.995 times for 6 dB";
}

TEST_F(Streams, ASoftwareTriggerMakesOnePicture)
{
    fast();
    viewer.write(feature::triggerMode, 1);
    viewer.start();
    EXPECT_TRUE(viewer.silent());
    for (std::uint64_t block = 1; block <= 3; ++block) {
        viewer.write(feature::triggerSoftware, 1);
        EXPECT_EQ(viewer.frame().front().block, block);
    }
    EXPECT_EQ(viewer.read(feature::triggerSoftware), 0U);
    camera.pulseLine();
    EXPECT_TRUE(viewer.silent()) << "of another source";
    EXPECT_EQ(camera.streamCounters().triggersMissed, 0U);
    viewer.write(feature::triggerMode, 0);
    EXPECT_EQ(viewer.frame().front().block, 4U) << "off while it waits: they run again";
}

TEST_F(Streams, APulseOnTheLineMakesOnePicture)
{
    fast();
    viewer.write(feature::triggerMode, 1);
    viewer.write(feature::triggerSource, 1);
    EXPECT_EQ(camera.execute("pulse"), "");
    EXPECT_EQ(camera.streamCounters().triggersMissed, 1U) << "nothing waits for it";
    viewer.start();
    EXPECT_EQ(camera.execute("pulse"), "");
    EXPECT_EQ(viewer.frame().front().block, 1U);
    viewer.write(feature::triggerSoftware, 1);
    EXPECT_TRUE(viewer.silent());
}

TEST_F(Streams, OneTriggerWaitsAndMoreAreMissed)
{
    fast();
    viewer.write(feature::frameRate, floatBits(1));
    viewer.write(feature::exposureTime, floatBits(500000));
    viewer.write(feature::triggerMode, 1);
    viewer.start();
    viewer.write(feature::triggerSoftware, 1);
    // Taken as soon as the camera exposes; then the next one waits.
    ASSERT_TRUE(camera.waitFor([&] {
        const auto before = camera.streamCounters().triggersMissed;
        camera.writeRegister(feature::triggerSoftware, 1);
        return camera.streamCounters().triggersMissed == before;
    }));
    const auto before = camera.streamCounters().triggersMissed;
    viewer.write(feature::triggerSoftware, 1);
    EXPECT_EQ(camera.streamCounters().triggersMissed, before + 1);
    viewer.frame();
    viewer.frame();
    EXPECT_TRUE(viewer.silent());
    EXPECT_EQ(camera.streamCounters().frames, 2U);
}

TEST_F(Streams, ATestPacketHasTheSizeThatIsAskedFor)
{
    viewer.open();
    for (const std::uint32_t size : {1500U, 8000U}) {
        viewer.write(reg::streamPacketSize, 0x80000000 | size);
        const Piece test = viewer.next();
        EXPECT_EQ(test.bytes.size(), size - 28);
        EXPECT_EQ(text(Bytes(test.bytes.begin(), test.bytes.begin() + 8)), "00 00 00 00 03 00 00 00");
        EXPECT_EQ(viewer.read(reg::streamPacketSize), size) << "the bit clears itself";
    }
    EXPECT_TRUE(viewer.silent());
    EXPECT_EQ(camera.streamCounters().testPackets, 2U);
    viewer.write(reg::gvspConfiguration, 0x40000000);
    viewer.write(reg::streamPacketSize, 0xC0000000 | 1400);
    const Piece test = viewer.next();
    EXPECT_EQ(test.bytes.size(), 1400U - 28);
    EXPECT_TRUE(test.extended);
    EXPECT_EQ(viewer.read(reg::streamPacketSize), 0x40000000U | 1400);
    viewer.write(reg::streamPort, 0);
    viewer.write(reg::streamPacketSize, 0x80000000 | 1400);
    EXPECT_TRUE(viewer.silent()) << "with the channel closed there are none";
}

TEST_F(Streams, PacketSizesAreBroughtIntoBounds)
{
    viewer.open();
    for (const auto& [asked, got] :
         {std::pair{0U, 256U}, {259U, 256U}, {1502U, 1500U}, {9001U, 9000U}, {65535U, 9000U}}) {
        viewer.write(reg::streamPacketSize, asked);
        EXPECT_EQ(viewer.read(reg::streamPacketSize), got);
    }
}

TEST_F(Streams, PacketsKeepTheirDelay)
{
    single();
    viewer.write(reg::streamPacketDelay, 5000000);
    const auto begin = Clock::now();
    viewer.start();
    const auto pieces = viewer.frame();
    ASSERT_EQ(pieces.size(), 7U);
    EXPECT_GE(pieces.back().time - begin, 10ms + 30ms) << "the exposure, and six times 5 ms";
}

TEST(StreamSpeed, TheLinkIsNoFasterThanItSays)
{
    Config made = config();
    made.linkSpeed = 10;
    made.sensorWidth = made.sensorHeight = 512;
    Camera camera(made);
    Viewer viewer(camera);
    viewer.open(1400);
    viewer.write(feature::acquisitionMode, 1);
    const auto begin = Clock::now();
    viewer.start();
    const auto pieces = viewer.frame();
    // 262144 bytes are 210 ms at ten megabits, less one batch that leaves at once.
    EXPECT_GE(pieces.back().time - begin, 170ms);
    EXPECT_EQ(camera.readRegister(reg::linkSpeed), 10U);
    EXPECT_EQ(payload(pieces), gevsim::payloadOf(camera.sentFrames().at(0)));
}

TEST(StreamSpeed, WithoutALinkSpeedItIsAsFastAsCanBe)
{
    Config made = config();
    made.linkSpeed = 0;
    made.sensorWidth = made.sensorHeight = 512;
    Camera camera(made);
    Viewer viewer(camera);
    viewer.open(8000);
    viewer.write(feature::acquisitionMode, 1);
    viewer.start();
    const auto pieces = viewer.frame();
    EXPECT_EQ(payload(pieces), gevsim::payloadOf(camera.sentFrames().at(0)));
    EXPECT_EQ(camera.readRegister(reg::linkSpeed), 10000U);
}

TEST_F(Streams, PacketsComeFromThePortThatTheCameraNames)
{
    EXPECT_EQ(viewer.read(reg::streamCapability), 0xC0000000U) << "source port, short ids";
    EXPECT_EQ(viewer.read(reg::streamChannelCapability), 3U);
    EXPECT_EQ(viewer.read(reg::streamSourcePort), 0U);
    single();
    const std::uint32_t named = viewer.read(reg::streamSourcePort);
    viewer.start();
    EXPECT_EQ(viewer.frame().front().from, gevsim::Endpoint(camera.ip(), static_cast<std::uint16_t>(named)));
    EXPECT_EQ(viewer.set(reg::streamSourcePort, 5), 0x8004);
}

TEST_F(Streams, NothingComesWhileTheChannelIsClosed)
{
    viewer.write(reg::ccp, 2);
    viewer.write(reg::streamDestination, viewer.ip);
    viewer.start();
    EXPECT_TRUE(viewer.silent());
    EXPECT_FALSE(camera.streamOpen());
    EXPECT_EQ(viewer.read(feature::acquisitionStatus), 1U);
    viewer.write(reg::streamPort, viewer.port);
    EXPECT_EQ(viewer.next().id, 0U) << "and with its opening an acquisition goes on";
    EXPECT_TRUE(camera.streamOpen());
}

TEST_F(Streams, SizeAndFormatAreLockedWhilePicturesAreSent)
{
    fast();
    EXPECT_EQ(viewer.read(feature::parametersLocked), 0U);
    viewer.start();
    EXPECT_EQ(viewer.read(feature::parametersLocked), 1U);
    for (const std::uint32_t address :
         {feature::width, feature::height, feature::pixelFormat, feature::chunkMode, feature::chunkEnable + 4})
        EXPECT_EQ(viewer.set(address, camera.readRegister(address)), 0x8004) << std::hex << address;
    viewer.write(feature::offsetX, 0);
    viewer.stop();
    EXPECT_EQ(viewer.read(feature::parametersLocked), 0U);
    viewer.write(feature::width, 32);
    viewer.write(feature::pixelFormat, pixel::rgb8);
}

TEST_F(Streams, ValuesOutOfBoundsAreRefused)
{
    viewer.write(reg::ccp, 2);
    const std::pair<std::uint32_t, std::uint32_t> bad[] = {
        {feature::width, 12},
        {feature::width, 18},
        {feature::width, 68},
        {feature::height, 15},
        {feature::height, 34},
        {feature::offsetX, 4},
        {feature::offsetY, 2},
        {feature::pixelFormat, 0x01080002},
        {feature::acquisitionMode, 3},
        {feature::acquisitionFrameCount, 0},
        {feature::triggerSelector, 1},
        {feature::triggerMode, 2},
        {feature::triggerSource, 2},
        {feature::chunkSelector, 4},
        {feature::chunkMode, 2},
        {feature::frameRate, floatBits(0.05F)},
        {feature::frameRate, floatBits(1001)},
        {feature::frameRate, 0x7FC00000},
        {feature::exposureTime, floatBits(9)},
        {feature::exposureTime, floatBits(40001)},
        {feature::gain, floatBits(25)},
        {feature::gain, floatBits(-1)},
    };
    for (const auto& [address, value] : bad) {
        const std::uint32_t before = camera.readRegister(address);
        EXPECT_EQ(viewer.set(address, value), 0x8002) << std::hex << address << " " << value;
        EXPECT_EQ(camera.readRegister(address), before);
        EXPECT_EQ(viewer.control.status(writeMem(address, word(value))), 0x8002) << std::hex << address;
        EXPECT_EQ(camera.readRegister(address), before);
    }
    viewer.write(feature::width, 32);
    viewer.write(feature::offsetX, 32);
    EXPECT_EQ(viewer.set(feature::width, 36), 0x8002) << "it begins in the middle";
    viewer.write(feature::frameRate, floatBits(100));
    EXPECT_EQ(viewer.read(feature::exposureTime), floatBits(10000)) << "as long as a period is";
    viewer.write(feature::frameRate, floatBits(1000));
    EXPECT_EQ(viewer.read(feature::exposureTime), floatBits(1000)) << "shortened by the rate";
    viewer.write(feature::frameRateEnable, 0);
    viewer.write(feature::exposureTime, floatBits(1000000));
    viewer.write(feature::chunkEnable, 0);
    EXPECT_EQ(viewer.read(feature::chunkEnable), 1U) << "the picture's own";
}

TEST_F(Streams, RegistersThatATestHasWrittenDoNoHarm)
{
    single();
    camera.writeRegister(feature::width, 63);
    camera.writeRegister(feature::height, 0xFFFFFFFF);
    camera.writeRegister(feature::offsetX, 0xFFFFFFFF);
    camera.writeRegister(feature::pixelFormat, 5);
    camera.writeRegister(feature::frameRate, 0x7FC00000);
    camera.writeRegister(feature::exposureTime, 0xFFFFFFFF);
    camera.writeRegister(reg::streamPacketSize, 0);
    viewer.start();
    const auto pieces = viewer.frame();
    ASSERT_TRUE(ended());
    const SentFrame frame = camera.sentFrames().at(0);
    EXPECT_EQ(frame.picture.width, 60U);
    EXPECT_EQ(frame.picture.height, 32U);
    EXPECT_EQ(frame.picture.offsetX, 4U);
    EXPECT_EQ(payload(pieces), gevsim::payloadOf(frame));
}

// The end of control.

TEST_F(Streams, TheChannelClosesWhenControlIsGivenBack)
{
    fast();
    viewer.write(reg::messagePort, 5000);
    viewer.start();
    viewer.frame();
    viewer.write(reg::ccp, 0);
    EXPECT_EQ(viewer.read(reg::streamPort), 0U);
    EXPECT_EQ(viewer.read(reg::messagePort), 0U);
    EXPECT_EQ(viewer.read(feature::acquisitionStatus), 0U);
    EXPECT_FALSE(camera.streamOpen());
    bool came = true;
    const auto end = Clock::now() + 20s;
    while (came && Clock::now() < end)
        viewer.next(came, Viewer::shortly);
    EXPECT_FALSE(came);
}

TEST(StreamEnd, TheChannelClosesWhenTheHolderFallsSilent)
{
    Config made = config();
    made.heartbeatTimeoutMs = 300;
    Camera camera(made);
    Viewer viewer(camera);
    viewer.open();
    viewer.start();
    viewer.frame();
    ASSERT_TRUE(camera.waitFor([&] { return !camera.streamOpen(); }));
    EXPECT_EQ(camera.readRegister(reg::streamPort), 0U);
    EXPECT_EQ(camera.counters().controlLost, 1U);
}

TEST(StreamEnd, TheChannelClosesByItselfWithoutAnybodyWhoAsks)
{
    // Nobody touches the camera: its own clock ends control, and frames end with it.
    Config made = config();
    made.heartbeatTimeoutMs = 500;
    Camera camera(made);
    Viewer viewer(camera);
    viewer.open();
    viewer.start();
    Clock::time_point last{};
    const auto begin = Clock::now();
    for (bool came = true; came && Clock::now() < begin + 20s;) {
        const Piece made2 = viewer.next(came, 400);
        if (came)
            last = made2.time;
    }
    EXPECT_LT(last - begin, 10s);
    EXPECT_GE(last - begin, 300ms);
}

TEST(StreamEnd, ACameraThatDoesNotKeepTheRulesGoesOn)
{
    Config made = config();
    made.keepsStream = true;
    Camera camera(made);
    Viewer viewer(camera);
    viewer.open();
    viewer.start();
    viewer.write(reg::ccp, 0);
    EXPECT_TRUE(camera.streamOpen());
    EXPECT_EQ(viewer.read(reg::streamPort), viewer.port);
    viewer.frame();
    const auto first = camera.streamCounters().frames;
    EXPECT_TRUE(camera.waitFor([&] { return camera.streamCounters().frames > first + 2; }));
}

TEST_F(Streams, UnconditionalStreamingIsAskedForByARegister)
{
    fast();
    viewer.write(reg::streamConfiguration, 2);
    viewer.start();
    viewer.write(reg::ccp, 0);
    EXPECT_TRUE(camera.streamOpen());
    const auto first = camera.streamCounters().frames;
    EXPECT_TRUE(camera.waitFor([&] { return camera.streamCounters().frames > first + 2; }));
}

TEST_F(Streams, AChangeOfTheHolderLeavesTheChannelOpen)
{
    viewer.write(reg::ccp, 0x00070006);
    viewer.open();
    viewer.write(reg::ccp, 0x00070006);
    Client other(camera.endpoint(), 0x7F000D03);
    EXPECT_EQ(other.status(writeReg(reg::ccp, 0x00070002)), 0);
    EXPECT_TRUE(camera.streamOpen());
}

TEST_F(Streams, APowerCycleEndsTheStream)
{
    fast();
    viewer.start();
    viewer.frame();
    camera.powerCycle();
    EXPECT_FALSE(camera.streamOpen());
    EXPECT_EQ(camera.readRegister(reg::streamPort), 0U);
    EXPECT_EQ(camera.readRegister(feature::acquisitionStatus), 0U);
    EXPECT_EQ(camera.readRegister(feature::frameRate), floatBits(25));
}

TEST_F(Streams, DeviceResetIsAPowerCycleBehindTheAcknowledge)
{
    viewer.write(reg::ccp, 2);
    viewer.write(feature::testValue, 5);
    EXPECT_EQ(viewer.set(feature::deviceReset, 1), 0);
    EXPECT_TRUE(camera.waitFor([&] { return camera.readRegister(feature::testValue) == 0; }));
    EXPECT_FALSE(camera.control().held());
}

TEST_F(Streams, SilenceIsSilenceOfTheStreamToo)
{
    fast();
    viewer.start();
    viewer.frame();
    camera.silence(Camera::Milliseconds::max());
    const auto frames = camera.streamCounters().frames;
    ASSERT_TRUE(camera.waitFor([&] { return camera.streamCounters().frames > frames + 3; }));
    EXPECT_GT(camera.streamCounters().lost, 0U);
    EXPECT_FALSE(camera.sentFrames().at(camera.sentFrames().size() - 2).missing.empty());
    camera.endSilence();
    bool came = true;
    const auto end = Clock::now() + 20s;
    std::uint64_t block = 0;
    while (Clock::now() < end && block <= frames + 3)
        block = viewer.next(came, Viewer::patience).block;
    EXPECT_GT(block, frames + 3);
}

TEST_F(Streams, ACameraEndsInTheMiddleOfASlowFrame)
{
    auto slow = std::make_unique<Camera>(config());
    Viewer other(*slow, 0x7F000D04);
    other.open();
    other.write(reg::streamPacketDelay, 4000000000U);
    other.start();
    other.next();
    const auto begin = Clock::now();
    slow.reset();
    EXPECT_LT(Clock::now() - begin, 3s) << "before the next packet";
}

TEST_F(Streams, ClosingEndsAFrameAtTheNextPacket)
{
    single();
    viewer.write(reg::streamPacketDelay, 300000000);
    viewer.start();
    viewer.next();
    viewer.write(reg::streamPort, 0);
    EXPECT_TRUE(camera.waitFor([&] {
        const auto frames = camera.sentFrames();
        return frames.size() == 1 && frames[0].ended;
    }));
    EXPECT_FALSE(camera.sentFrames().at(0).missing.empty());
    EXPECT_EQ(camera.streamCounters().frames, 0U);
}

TEST_F(Streams, GoesToAGroupThatSeveralHaveJoined)
{
    constexpr std::uint32_t group = 0xEFFF0D01;
    constexpr std::uint16_t port = 20213;
    single();
    viewer.write(reg::streamPort, 0);
    viewer.write(reg::streamDestination, group);
    viewer.write(reg::streamPort, port);
    const auto member = [&] {
        const zuPlatform::SocketPtr socket = zuPlatform::DatagramSocket::open();
        EXPECT_EQ(socket->joinGroup({zuPlatform::hostToNetwork32(group), zuPlatform::hostToNetwork16(port)},
                                    zuPlatform::hostToNetwork32(camera.ip())),
                  0);
        return socket;
    };
    const zuPlatform::SocketPtr members[] = {member(), member()};
    viewer.start();
    ASSERT_TRUE(ended());
    for (const zuPlatform::SocketPtr& socket : members) {
        std::vector<Piece> pieces;
        while (pieces.size() < 7) {
            Bytes buffer(2000);
            const auto result = socket->receive(buffer.data(), buffer.size(), Viewer::patience, nullptr);
            ASSERT_EQ(result.kind, zuPlatform::ReceiveResult::Kind::received);
            buffer.resize(static_cast<std::size_t>(result.count));
            pieces.push_back(piece(buffer));
        }
        EXPECT_EQ(payload(pieces), gevsim::payloadOf(camera.sentFrames().at(0)));
    }
}

TEST(StreamVersion, ACameraOfVersion2StartsWithExtendedIds)
{
    Config made = config();
    made.extendedIds = true;
    Camera camera(made);
    EXPECT_EQ(camera.readRegister(reg::version), 0x00020000U);
    EXPECT_EQ(camera.readRegister(reg::gvspConfiguration), 0x40000000U);
    Viewer viewer(camera);
    viewer.open();
    viewer.start();
    EXPECT_TRUE(viewer.next().extended);
}

TEST(StreamVersion, SensorsThatCannotBe)
{
    for (const auto& [width, height] : {std::pair{12U, 32U}, {18U, 32U}, {64U, 17U}, {16388U, 32U}, {64U, 0U}}) {
        Config made = config();
        made.sensorWidth = width;
        made.sensorHeight = height;
        EXPECT_THROW(Camera{made}, std::invalid_argument) << width << "x" << height;
    }
}
