// Packets that are asked for again, faults of the stream, and the camera's report of what it sent.
#include "tests/unit/gevsim/orders.h"
#include "tests/unit/gevsim/viewer.h"

#include "tools/gevsim/config.h"
#include "tools/gevsim/device.h"
#include "tools/gevsim/script.h"

#include <gmock/gmock.h>

using namespace gevsimTest;
using namespace std::chrono_literals;
using gevsim::Camera;
using gevsim::Config;
using gevsim::SentFrame;
using gevsim::StreamFault;
using testing::ElementsAre;
using Clock = std::chrono::steady_clock;
using Numbers = std::vector<std::uint32_t>;
namespace reg = gevsim::reg;
namespace feature = gevsim::feature;

namespace {

Config config()
{
    Config made;
    made.endpoint = {"127.0.13.1", 0};
    made.heartbeatTimeoutMs = 60000;
    made.sensorWidth = 64;
    made.sensorHeight = 32;
    made.resendFrames = 3;
    return made;
}

/// Frames of 64x16 in seven packets, each started by itself.
class StreamCase : public testing::Test {
protected:
    StreamCase()
    {
        viewer.open();
        viewer.write(feature::height, 16);
        viewer.write(feature::exposureTime, floatBits(10));
        viewer.write(feature::acquisitionMode, 1);
    }
    void shoot()
    {
        viewer.start();
        EXPECT_TRUE(camera.waitFor([&] { return camera.readRegister(feature::acquisitionStatus) == 0; }));
    }
    /// A frame of which all packets come.
    std::vector<Piece> take()
    {
        viewer.start();
        std::vector<Piece> pieces = viewer.frame();
        EXPECT_TRUE(camera.waitFor([&] { return camera.readRegister(feature::acquisitionStatus) == 0; }));
        return pieces;
    }
    SentFrame last() { return camera.sentFrames().back(); }
    void ask(const Bytes& request) { viewer.ask(camera, request); }
    Numbers lossOf(const std::string& line)
    {
        EXPECT_EQ(camera.execute(line), "");
        shoot();
        return last().missing;
    }
    /// What has come, up to a silence.
    std::vector<Piece> all()
    {
        std::vector<Piece> pieces;
        bool came = true;
        while (came) {
            Piece made = viewer.next(came, Viewer::shortly);
            if (came)
                pieces.push_back(std::move(made));
        }
        return pieces;
    }

    Camera camera{config()};
    Viewer viewer{camera};
};

} // namespace

TEST_F(StreamCase, PacketsComeAgainAsTheyWere)
{
    const std::vector<Piece> frame = take();
    ask(resend(1, 2, 3));
    EXPECT_EQ(text(viewer.next().bytes), text(frame[2].bytes));
    EXPECT_EQ(text(viewer.next().bytes), text(frame[3].bytes));
    ask(resend(1, 0, 0));
    EXPECT_EQ(text(viewer.next().bytes), text(frame[0].bytes)) << "the leader";
    ask(resend(1, 5, 0xFFFFFF));
    EXPECT_EQ(text(viewer.next().bytes), text(frame[5].bytes)) << "to the end";
    EXPECT_EQ(text(viewer.next().bytes), text(frame[6].bytes));
    ask(resend(1, 6, 40));
    EXPECT_EQ(text(viewer.next().bytes), text(frame[6].bytes)) << "what there is of it";
    EXPECT_TRUE(viewer.silent());
    const auto counters = camera.streamCounters();
    EXPECT_EQ(counters.requests, 4U);
    EXPECT_EQ(counters.resent, 6U);
    EXPECT_EQ(counters.unavailable, 0U);
    EXPECT_EQ(camera.counters().sent, camera.received(gevsim::Command::writeReg)) << "requests get no acknowledge";
}

TEST_F(StreamCase, PacketsSentAgainSayItInTheExtendedStatus)
{
    viewer.write(reg::gvcpConfiguration, 4);
    const std::vector<Piece> frame = take();
    ask(resend(1, 2, 2));
    Bytes again = frame[2].bytes;
    again[0] = 0x01;
    EXPECT_EQ(text(viewer.next().bytes), text(again)) << "status 0x0100";
}

TEST_F(StreamCase, PacketsSentAgainSayItInTheFlagsOfExtendedIds)
{
    viewer.write(reg::gvspConfiguration, 0x40000000);
    camera.setNextPicture(0x500000001);
    const std::vector<Piece> frame = take();
    ask(longResend(0x500000001, 2, 3));
    for (const std::size_t id : {2U, 3U}) {
        Bytes again = frame[id].bytes;
        again[3] = 0x01;
        EXPECT_EQ(text(viewer.next().bytes), text(again));
    }
    ask(longResend(0x500000001, 6, 0xFFFFFFFF));
    EXPECT_EQ(viewer.next().id, 6U);
    ask(longResend(1, 2, 2));
    EXPECT_EQ(text(viewer.next().bytes), "80 0c 00 01 83 00 00 00 00 00 00 00 00 00 00 01 00 00 00 02");
    ask(longResend(0x500000001, 7, 7));
    EXPECT_EQ(text(viewer.next().bytes), "80 0c 00 05 83 00 00 00 00 00 00 05 00 00 00 01 00 00 00 07")
        << "with the flag of a range";
}

TEST_F(StreamCase, WhatIsGoneIsSaidPacketByPacket)
{
    for (int i = 0; i < 4; ++i)
        take();
    ask(resend(2, 1, 1));
    EXPECT_EQ(viewer.next().content.size(), 220U) << "the third last is the oldest";
    ask(resend(1, 1, 3));
    EXPECT_EQ(text(viewer.next().bytes), "80 0c 00 01 03 00 00 01");
    EXPECT_EQ(text(viewer.next().bytes), "80 0c 00 01 03 00 00 02");
    EXPECT_EQ(text(viewer.next().bytes), "80 0c 00 01 03 00 00 03");
    ask(resend(900, 5, 0xFFFFFF));
    EXPECT_EQ(text(viewer.next().bytes), "80 0c 03 84 03 00 00 05");
    EXPECT_EQ(text(viewer.next().bytes), "80 0c 03 84 03 00 00 06");
    ask(resend(4, 7, 9));
    EXPECT_EQ(text(viewer.next().bytes), "80 0c 00 04 03 00 00 07") << "beyond the frame";
    ask(resend(4, 3, 2));
    EXPECT_EQ(text(viewer.next().bytes), "80 0c 00 04 03 00 00 03") << "backwards";
    EXPECT_TRUE(viewer.silent());
    EXPECT_EQ(camera.streamCounters().unavailable, 7U);
}

TEST_F(StreamCase, ExtendedStatusesTellWhy)
{
    viewer.write(reg::gvcpConfiguration, 4);
    for (int i = 0; i < 4; ++i)
        take();
    ask(resend(1, 1, 3));
    EXPECT_EQ(text(viewer.next().bytes), "80 11 00 01 03 00 00 03") << "this one and those before it";
    ask(resend(5, 1, 3));
    EXPECT_EQ(text(viewer.next().bytes), "80 10 00 05 03 00 00 01") << "not yet";
    EXPECT_TRUE(viewer.silent());
}

TEST_F(StreamCase, PacketsThatAreStillToComeAreNotYetAvailable)
{
    viewer.write(reg::gvcpConfiguration, 4);
    viewer.write(reg::streamPacketDelay, 400000000);
    viewer.start();
    EXPECT_EQ(viewer.next().id, 0U);
    ask(resend(1, 5, 5));
    EXPECT_EQ(text(viewer.next().bytes), "80 10 00 01 03 00 00 05") << "in the middle of the frame";
    EXPECT_EQ(viewer.next().id, 1U);
}

TEST_F(StreamCase, RequestsThatAreNoneAreIgnored)
{
    take();
    ask(resend(1, 2, 2, 1));
    Bytes cut = resend(1, 2, 2);
    cut.pop_back();
    ask(cut);
    gevsim::wire::put16(&cut[4], static_cast<std::uint32_t>(cut.size() - 8));
    ask(cut);
    ask(resend(1, 2, 2, 0, 0x10)); // extended by its flag, and too short for it
    EXPECT_TRUE(viewer.silent());
    EXPECT_EQ(camera.streamCounters().requests, 0U);
}

TEST_F(StreamCase, FramesFromBeforeTheChannelWasOpenedAreGone)
{
    take();
    take();
    viewer.write(reg::streamPort, 0);
    ask(resend(1, 2, 2));
    viewer.write(reg::streamPort, viewer.port);
    EXPECT_TRUE(viewer.silent()) << "closed: no answer";
    ask(resend(1, 2, 2));
    EXPECT_EQ(viewer.next().status, 0x800C);
    take();
    ask(resend(2, 2, 2));
    EXPECT_EQ(viewer.next().status, 0x800C) << "also behind the first new one";
}

TEST_F(StreamCase, TheSecondOfTwoFramesWithOneIdIsMeant)
{
    camera.setNextPicture(7);
    take();
    camera.setNextPicture(7 + 65535);
    const auto frame = take();
    EXPECT_EQ(frame[0].block, 7U);
    ask(resend(7, 1, 1));
    EXPECT_EQ(viewer.next().content, frame[1].content);
}

TEST(StreamOrders, RequestsAsTheRegistersUnderstandThem)
{
    Config made = config();
    RecordedOrders orders;
    const gevsim::Device::Time time{1000s};
    gevsim::Device device(made, time, orders);
    Bytes reply(gevsim::Device::replySize);
    for (const Bytes& request :
         {resend(0x1234, 0x01000002, 0xFFFFFFFF), longResend(0x123456789A, 0x01000002, 0xFFFFFFFF), resend(1, 1, 1, 2),
          resend(1, 1, 1, 0, 1)})
        EXPECT_EQ(device.handle(request.data(), request.size(), {"127.0.13.2", 4000}, time, reply.data()), 0U);
    EXPECT_THAT(orders.orders, ElementsAre("resend 4660 2-16777215", "resend 78187493530 16777218-4294967295 extended",
                                           "resend 1 1-1"));
}

// Faults.

TEST_F(StreamCase, LosesWhatItIsToldToLose)
{
    EXPECT_EQ(lossOf("stream lose"), (Numbers{0}));
    EXPECT_EQ(ids(all()), (Numbers{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(lossOf("stream lose trailer"), (Numbers{6}));
    EXPECT_EQ(ids(all()), (Numbers{0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(lossOf("stream lose data 2"), (Numbers{1, 2}));
    EXPECT_EQ(lossOf("stream lose packet=2-4 always"), (Numbers{2, 3, 4}));
    EXPECT_EQ(lossOf(""), (Numbers{2, 3, 4}));
    all();
    camera.clearFaults();
    EXPECT_EQ(lossOf(""), Numbers{});
    EXPECT_EQ(ids(all()), (Numbers{0, 1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(lossOf("stream lose every=3"), (Numbers{2, 5}));
    camera.clearFaults();
    EXPECT_EQ(lossOf("stream lose frame=9-9 leader"), Numbers{});
    EXPECT_EQ(lossOf(""), (Numbers{0}));
    EXPECT_EQ(camera.streamCounters().lost, 13U);
}

TEST_F(StreamCase, WhatWasLostCanBeHadByAResendAndCountsThen)
{
    EXPECT_EQ(lossOf("stream lose packet=2-3 2"), (Numbers{2, 3}));
    const auto came = all();
    EXPECT_EQ(ids(came), (Numbers{0, 1, 4, 5, 6}));
    ask(resend(1, 2, 2));
    EXPECT_EQ(viewer.next().id, 2U);
    EXPECT_TRUE(camera.waitFor([&] { return last().missing == Numbers{3}; }));
}

TEST_F(StreamCase, LosesResendsAndRequestsWhereItIsToldTo)
{
    camera.execute("stream lose packet=2 of=resends");
    EXPECT_EQ(lossOf("stream lose data 2 of=all"), (Numbers{1, 2}));
    all();
    camera.execute("stream lose data of=all");
    ask(resend(1, 2, 4));
    EXPECT_EQ(viewer.next().id, 4U) << "lost again, by one fault and the other";
    camera.execute("stream lose of=requests");
    ask(resend(1, 2, 2));
    EXPECT_TRUE(viewer.silent());
    ask(resend(1, 2, 2));
    EXPECT_EQ(viewer.next().id, 2U);
    EXPECT_TRUE(camera.waitFor([&] { return camera.streamCounters().resent == 2; }));
    const auto counters = camera.streamCounters();
    EXPECT_EQ(counters.lost, 2U);
    EXPECT_EQ(counters.resendsLost, 2U);
    EXPECT_EQ(counters.requests, 3U);
    EXPECT_EQ(counters.requestsLost, 1U);
}

TEST_F(StreamCase, FirstSendingsAreMeantWhereNothingElseIsSaid)
{
    camera.execute("stream lose packet=2 always");
    shoot();
    all();
    ask(resend(1, 2, 2));
    EXPECT_EQ(viewer.next().id, 2U);
}

TEST_F(StreamCase, RefusesResends)
{
    take();
    camera.execute("stream refuse 2");
    ask(resend(1, 2, 4));
    EXPECT_EQ(text(viewer.next().bytes), "80 0c 00 01 03 00 00 02");
    EXPECT_EQ(text(viewer.next().bytes), "80 0c 00 01 03 00 00 03");
    EXPECT_EQ(viewer.next().status, 0);
    camera.execute("stream refuse");
    ask(resend(1, 2, 2));
    ask(resend(1, 2, 2));
    EXPECT_EQ(viewer.next().status, 0x800C);
    EXPECT_EQ(viewer.next().status, 0x800C) << "for good";
    EXPECT_EQ(ids(take()).size(), 7U) << "first sendings are not refused";
}

TEST_F(StreamCase, RepeatsAndReordersAndDelays)
{
    camera.execute("stream repeat packet=2 by=2");
    EXPECT_EQ(ids(take()), (Numbers{0, 1, 2, 2, 2, 3, 4, 5, 6}));
    camera.execute("stream reorder packet=2 by=2");
    EXPECT_EQ(ids(take()), (Numbers{0, 1, 3, 4, 2, 5, 6}));
    camera.execute("stream reorder packet=5 by=9");
    viewer.start();
    EXPECT_EQ(ids(viewer.some(7)), (Numbers{0, 1, 2, 3, 4, 6, 5})) << "behind the trailer at the latest";
    EXPECT_TRUE(camera.waitFor([&] { return camera.readRegister(feature::acquisitionStatus) == 0; }));
    camera.execute("stream delay 300 packet=2");
    const auto begin = Clock::now();
    viewer.start();
    const auto pieces = viewer.some(7);
    EXPECT_EQ(ids(pieces), (Numbers{0, 1, 3, 4, 5, 6, 2}));
    EXPECT_GE(pieces[6].time - begin, 300ms);
    EXPECT_TRUE(camera.waitFor([&] { return last().missing.empty(); }));
    const auto counters = camera.streamCounters();
    EXPECT_EQ(counters.repeated, 2U);
    EXPECT_EQ(counters.reordered, 2U);
    EXPECT_EQ(counters.delayed, 1U);
    EXPECT_EQ(counters.packets, 30U);
}

TEST_F(StreamCase, DamagesInEachForm)
{
    const auto damaged = [&](const std::string& form) {
        camera.setNextPicture(5);
        camera.execute("stream corrupt packet=5 form=" + form);
        viewer.start();
        const auto pieces = viewer.some(7);
        EXPECT_TRUE(camera.waitFor([&] { return camera.readRegister(feature::acquisitionStatus) == 0; }));
        EXPECT_EQ(last().missing, (Numbers{5})) << form;
        return pieces[5].bytes;
    };
    camera.setNextPicture(5);
    const Bytes good = take()[5].bytes;
    ASSERT_EQ(good.size(), 152U);
    const auto head = [](const Bytes& bytes) { return text(Bytes(bytes.begin(), bytes.begin() + 8)); };
    Bytes expected = good;
    expected[80] ^= 0x55;
    EXPECT_EQ(text(damaged("payload")), text(expected));
    EXPECT_EQ(head(damaged("id")), "00 00 00 05 03 f0 00 05");
    EXPECT_EQ(head(damaged("block")), "00 00 00 50 03 00 00 05");
    EXPECT_EQ(head(damaged("format")), "00 00 00 05 0f 00 00 05");
    EXPECT_EQ(head(damaged("status")), "80 08 00 05 03 00 00 05");
    EXPECT_EQ(text(damaged("short")), text(Bytes(good.begin(), good.begin() + 76)));
    EXPECT_EQ(text(damaged("long")), text(join(good, Bytes(16, 0x55))));
    EXPECT_EQ(camera.streamCounters().corrupted, 7U);
    viewer.write(reg::gvspConfiguration, 0x40000000);
    EXPECT_EQ(big(damaged("block"), 8, 8), 0x50U);
    EXPECT_EQ(big(damaged("id"), 16, 4), 0xF0000005U);
}

TEST_F(StreamCase, StopsInTheMiddleUntilAcquisitionIsStartedAgain)
{
    viewer.write(feature::acquisitionMode, 0);
    camera.execute("stream stop packet=3 frame=2");
    viewer.start();
    EXPECT_EQ(viewer.frame().size(), 7U);
    EXPECT_EQ(ids(all()), (Numbers{0, 1, 2}));
    EXPECT_EQ(viewer.read(feature::acquisitionStatus), 1U) << "it says that it still runs";
    EXPECT_EQ(last().missing, (Numbers{3, 4, 5, 6}));
    EXPECT_TRUE(last().ended);
    viewer.stop();
    viewer.start();
    EXPECT_EQ(viewer.frame().size(), 7U);
}

TEST_F(StreamCase, LosesPowerInTheMiddle)
{
    viewer.write(feature::acquisitionMode, 0);
    camera.execute("stream restart packet=3 frame=2");
    viewer.start();
    EXPECT_EQ(viewer.frame().size(), 7U);
    EXPECT_EQ(ids(all()), (Numbers{0, 1, 2}));
    EXPECT_TRUE(camera.waitFor([&] { return !camera.control().held(); }));
    EXPECT_EQ(camera.readRegister(reg::streamPort), 0U);
    EXPECT_EQ(viewer.read(feature::height), 32U) << "as after power-up, and it answers";
    camera.execute("stream restart 86400000");
    viewer.open();
    viewer.start();
    EXPECT_TRUE(camera.waitFor([&] { return !camera.control().held(); }));
    viewer.control.send(readReg(0));
    EXPECT_TRUE(viewer.control.silent()) << "off";
}

TEST_F(StreamCase, ARateIsTheSameWithTheSameSeed)
{
    const auto lost = [&](const std::string& line) {
        camera.clearFaults();
        EXPECT_EQ(camera.execute(line), "");
        std::vector<Numbers> missing;
        for (int i = 0; i < 20; ++i) {
            shoot();
            missing.push_back(last().missing);
        }
        return missing;
    };
    const auto first = lost("stream lose rate=20 seed=5");
    EXPECT_EQ(lost("stream lose rate=20% seed=5"), first);
    EXPECT_NE(lost("stream lose rate=20 seed=6"), first);
    std::size_t sum = 0;
    for (const Numbers& missing : first)
        sum += missing.size();
    EXPECT_GT(sum, 10U);
    EXPECT_LT(sum, 60U) << "28 of 140 are to be expected";
}

TEST_F(StreamCase, TheReportSaysWhatReallyCame)
{
    viewer.write(feature::acquisitionMode, 2);
    viewer.write(feature::acquisitionFrameCount, 50);
    viewer.write(feature::frameRate, floatBits(500));
    camera.execute("stream lose rate=10 seed=3");
    camera.execute("stream reorder rate=10 seed=4 by=3");
    camera.execute("stream repeat rate=10 seed=5");
    shoot();
    std::map<std::uint64_t, std::set<std::uint32_t>> came;
    for (const Piece& made : all())
        came[made.block].insert(made.id);
    const auto frames = camera.sentFrames();
    ASSERT_EQ(frames.size(), 50U);
    std::size_t missing = 0;
    for (const SentFrame& frame : frames) {
        for (std::uint32_t id = 0; id < frame.packets; ++id) {
            const bool isMissing = std::count(frame.missing.begin(), frame.missing.end(), id) != 0;
            EXPECT_NE(isMissing, came[frame.block].count(id) != 0) << frame.block << " " << id;
            missing += isMissing;
        }
    }
    EXPECT_EQ(missing, camera.streamCounters().lost);
    EXPECT_GT(missing, 0U);
}

TEST_F(StreamCase, TheOldestFaultThatIsMeantIsTaken)
{
    camera.inject(StreamFault::lose().in(StreamFault::Packets::trailer));
    camera.inject(StreamFault::lose(2).ids(5, 6));
    shoot();
    EXPECT_EQ(last().missing, (Numbers{5, 6}));
    ASSERT_EQ(camera.streamFaults().size(), 1U);
    EXPECT_EQ(camera.streamFaults()[0].text(), "lose packet=5-6 count=1") << "the trailer met the older one";
}

TEST_F(StreamCase, FaultsByWords)
{
    const auto fault = [&](const std::string& line) {
        camera.clearFaults();
        EXPECT_EQ(camera.execute(line), "") << line;
        return camera.streamFaults().at(0).text();
    };
    EXPECT_EQ(fault("stream lose"), "lose count=1");
    EXPECT_EQ(fault("STREAM lose LEADER 3"), "lose leader count=3");
    EXPECT_EQ(fault("stream lose packet=3"), "lose packet=3 count=1");
    EXPECT_EQ(fault("stream lose packet=3-9 frame=2-"), "lose packet=3-9 frame=2- count=1");
    EXPECT_EQ(fault("stream lose rate=2.5 seed=7 of=all"), "lose rate=2.5 seed=7 of=all always");
    EXPECT_EQ(fault("stream lose every=4 5"), "lose every=4 count=5");
    EXPECT_EQ(fault("stream repeat"), "repeat count=1");
    EXPECT_EQ(fault("stream repeat by=2 always"), "repeat by=2 always");
    EXPECT_EQ(fault("stream reorder by=4"), "reorder by=4 count=1");
    EXPECT_EQ(fault("stream delay 20 data"), "delay 20 data count=1");
    EXPECT_EQ(fault("stream corrupt form=short trailer"), "corrupt trailer form=short count=1");
    EXPECT_EQ(fault("stream refuse"), "refuse always");
    EXPECT_EQ(fault("stream stop packet=4"), "stop packet=4 count=1");
    EXPECT_EQ(fault("stream restart 500 frame=3"), "restart 500 frame=3 count=1");
    EXPECT_EQ(fault("stream lose of=requests 2"), "lose of=requests count=2");
    camera.clearFaults();
    EXPECT_TRUE(camera.streamFaults().empty());
    for (const char* line : {"stream nonsense",
                             "stream lose 0",
                             "stream lose -1",
                             "stream lose packet=",
                             "stream lose packet=9-3",
                             "stream lose packet=x",
                             "stream lose rate=101",
                             "stream lose rate=5%x",
                             "stream lose by=2",
                             "stream delay",
                             "stream delay x",
                             "stream corrupt form=odd",
                             "stream lose form=id",
                             "stream refuse of=all",
                             "stream lose of=me",
                             "stream stop 3",
                             "stream restart 3 4",
                             "stream lose seed=x",
                             "stream next",
                             "stream next x",
                             "frames x",
                             "pulse 3",
                             "stream next 3 4"}) {
        EXPECT_THROW(gevsim::checkScriptLine(line), gevsim::ScriptError) << line;
        EXPECT_THROW(camera.execute(line), gevsim::ScriptError) << line;
    }
    EXPECT_TRUE(camera.streamFaults().empty());
}

TEST_F(StreamCase, TellsWhatItSent)
{
    EXPECT_EQ(camera.execute("frames"), "");
    camera.execute("stream next 70000");
    camera.execute("stream lose packet=2-3 2");
    camera.execute("stream lose trailer");
    shoot();
    const auto pieces = all();
    ask(resend(4465, 2, 2));
    EXPECT_EQ(viewer.next().id, 2U);
    ASSERT_TRUE(camera.waitFor([&] { return last().missing.size() == 2; }));
    const std::string line = camera.execute("frames");
    const SentFrame frame = last();
    EXPECT_EQ(line.substr(0, line.find(" crc ")),
              "picture 70000 block 4465 64x16+0+0 Mono8 time " + std::to_string(frame.timestamp) + " payload 1024");
    EXPECT_EQ(line.substr(line.find(" packets ")), " packets 7 missing 3,6");
    EXPECT_EQ(camera.execute("stream"), "stream open\n"
                                        "frames 1, packets 5, bytes 880, lost 3, repeated 0, reordered 0, delayed 0, "
                                        "corrupted 0, send errors 0\n"
                                        "requests 1, lost 0, packets sent again 1, lost 0, not available 0\n"
                                        "test packets 0, triggers missed 0");
    shoot();
    EXPECT_EQ(camera.execute("frames 1").substr(0, 14), "picture 70001 ");
    camera.clearLog();
    EXPECT_EQ(camera.execute("frames"), "");
    EXPECT_EQ(camera.streamCounters().packets, 0U);
}

TEST_F(StreamCase, TheTraceHasALineForEachPicture)
{
    std::mutex mutex;
    std::vector<std::string> lines;
    camera.setTrace([&](const std::string& text) {
        const std::lock_guard<std::mutex> lock(mutex);
        if (text.find("READREG") == std::string::npos)
            lines.push_back(text);
    });
    take();
    ask(resend(1, 2, 3));
    viewer.next();
    camera.setTrace({});
    ASSERT_GE(lines.size(), 4U);
    EXPECT_THAT(lines, testing::Contains("=> picture 1 block 1 64x16 Mono8 in 7 packets"));
    EXPECT_THAT(lines.back(), testing::EndsWith("PACKETRESEND id=7 no-ack block 1 packets 2 to 3"));
}

TEST_F(StreamCase, AFloodOfRequestsHasAnEnd)
{
    viewer.write(reg::streamPacketDelay, 100000000);
    take();
    for (int i = 0; i < 2000; ++i)
        ask(resend(1, 0, 0xFFFFFF));
    EXPECT_TRUE(camera.waitFor([&] { return camera.streamCounters().requests == 2000; }));
    EXPECT_TRUE(camera.waitFor([&] {
        const auto counters = camera.streamCounters();
        return counters.resent == 7 * (counters.requests - counters.requestsLost);
    }));
}
