// Independent implementations: a protocol analyser (tshark) reads what the tests' encoder sends as it is meant, and so
// do our requests; and an independent camera (arv-fake-gv-camera-0.8) sends to the receiver.
#include "platform/clock.h"
#include "platform/socket.h"
#include "stream/Stream.h"
#include "stream/gvsp.h"
#include "tests/support/child_process.h"
#include "tests/support/gvsp_packets.h"

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <list>
#include <sstream>

using namespace zuTest;
using namespace std::chrono_literals;
using gvsp::Block;
using gvsp::Bytes;
using testing::HasSubstr;

namespace {

/// A capture file of UDP datagrams.
class Capture {
public:
    Capture()
    {
        path_ = (std::filesystem::temp_directory_path() /
                 ("gvsp-" + std::to_string(zuPlatform::steadyNanoseconds()) + ".pcap"))
                    .string();
        little(0xa1b2c3d4, 4);
        little(2, 2);
        little(4, 2);
        little(0, 8);
        little(65535, 4);
        little(101, 4); // raw IP
    }
    ~Capture() { std::filesystem::remove(path_); }
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    void add(const Bytes& datagram, std::uint16_t port)
    {
        const Bytes packet = gvsp::Writer()
                                 .put(0x4500, 2)
                                 .put(28 + datagram.size(), 2)
                                 .put(0, 4)
                                 .put(64, 1)
                                 .put(17, 1)
                                 .put(0, 2)
                                 .put(0x7F000001, 4)
                                 .put(0x7F000001, 4)
                                 .put(20202, 2)
                                 .put(port, 2)
                                 .put(8 + datagram.size(), 2)
                                 .put(0, 2)
                                 .put(datagram);
        little(0, 8);
        little(packet.size(), 4);
        little(packet.size(), 4);
        bytes_.insert(bytes_.end(), packet.begin(), packet.end());
    }
    /// Each packet's fields, separated by commas; a packet a line.
    std::vector<std::string> read(const std::vector<std::string>& fields)
    {
        std::ofstream(path_, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes_.data()), static_cast<std::streamsize>(bytes_.size()));
        std::vector<std::string> command = {"tshark", "-r",     path_, "-d",         "udp.port==5600,gvsp",
                                            "-T",     "fields", "-E",  "separator=,"};
        for (const std::string& field : fields)
            command.insert(command.end(), {"-e", field});
        const Finished finished = runCommand(command);
        EXPECT_TRUE(finished.end.exited && finished.end.status == 0) << finished.output;
        std::vector<std::string> lines;
        std::istringstream text(finished.output);
        for (std::string line; std::getline(text, line);)
            if (line.find("Running as user") == line.npos)
                lines.push_back(line);
        return lines;
    }

private:
    void little(std::uint64_t value, int width)
    {
        for (int i = 0; i < width; ++i)
            bytes_.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
    std::string path_;
    Bytes bytes_;
};

} // namespace

TEST(IndependentReader, ReadsTheTestsPacketsAsMeant)
{
    if (!isInstalled("tshark"))
        GTEST_SKIP() << "tshark is not installed";
    Capture capture;
    gvsp::Picture picture{0x01100003, 640, 480, 11, 12, 13, 14, 0x21, 0x1122334455667788};
    const Bytes data = gvsp::pattern(100, 1);
    std::vector<gvsp::PartInfo> parts(2);
    parts[0].picture = picture;
    parts[0].purpose = 3;
    parts[0].region = 4;
    parts[0].source = 5;
    parts[0].data = data;
    parts[1].data = data;
    const auto add = [&](const std::vector<Bytes>& packets) {
        for (const Bytes& packet : packets)
            capture.add(packet, 5600);
    };
    add(gvsp::imageFrame({7}, picture, data, 1500));
    add(gvsp::imageFrame({0x1122334455667788, true, 0x0100, 0x0003}, picture, data, 1500));
    add(gvsp::frame({9}, gvsp::sizedLeader({9}, 2, 99, 100), data, 1500, 2, {}));
    add(gvsp::frame({10}, gvsp::plainLeader({10}, 4, 99), data, 1500, 4, {100}));
    add(gvsp::frame({11}, gvsp::imageLeader({11}, picture, 5), data, 1500, 5, {100, 480, 77}));
    add(gvsp::frame({12}, gvsp::imageLeader({12}, picture, 0x4001), data, 1500, 0x4001, {480, 100, 78}));
    add(gvsp::multiPartFrame({13, true}, parts, 1500, 99));
    const auto lines = capture.read({"gvsp.status",
                                     "gvsp.blockid16",
                                     "gvsp.blockid64",
                                     "gvsp.format",
                                     "gvsp.packetid24",
                                     "gvsp.packetid32",
                                     "gvsp.payloadtype",
                                     "gvsp.timestamp",
                                     "gvsp.pixel",
                                     "gvsp.sizex",
                                     "gvsp.sizey",
                                     "gvsp.offsetx",
                                     "gvsp.offsety",
                                     "gvsp.paddingx",
                                     "gvsp.paddingy",
                                     "gvsp.fieldid",
                                     "gvsp.fieldcount",
                                     "gvsp.payloaddatasize",
                                     "gvsp.payloadlength",
                                     "gvsp.chunkdatapayloadlengthhex",
                                     "gvsp.chunklayoutidhex",
                                     "_ws.malformed"});
    ASSERT_EQ(lines.size(), 6u * 3 + 4);
    EXPECT_EQ(lines[0], "0x0000,7,,0x01,0,,0x0001,0x1122334455667788,0x01100003,640,480,11,12,13,14,0x02,0x01,,,,,");
    EXPECT_EQ(lines[1], "0x0000,7,,0x03,1,,,,,,,,,,,,,,,,,");
    EXPECT_EQ(lines[2], "0x0000,7,,0x02,2,,0x0001,,,,480,,,,,,,,,,,");
    EXPECT_EQ(lines[3], "0x0100,,1234605616436508552,0x81,,0,0x0001,0x1122334455667788,0x01100003,640,480,11,12,13,14,"
                        "0x02,0x01,,,,,");
    EXPECT_EQ(lines[4], "0x0100,,1234605616436508552,0x83,,1,,,,,,,,,,,,,,,,");
    EXPECT_EQ(lines[6], "0x0000,9,,0x01,0,,0x0002,0x0000000000000063,,,,,,,,,,100,,,,");
    EXPECT_EQ(lines[8], "0x0000,9,,0x02,2,,0x0002,,,,,,,,,,,,,,,");
    EXPECT_EQ(lines[9], "0x0000,10,,0x01,0,,0x0004,0x0000000000000063,,,,,,,,,,,,,,");
    EXPECT_EQ(lines[11], "0x0000,10,,0x02,2,,0x0004,,,,,,,,,,,,100,,,");
    EXPECT_EQ(lines[14], "0x0000,11,,0x02,2,,0x0005,,,,480,,,,,,,,100,,0x0000004d,");
    EXPECT_EQ(lines[17], "0x0000,12,,0x02,2,,0x4001,,,,480,,,,,,,,,0x00000064,0x0000004e,");
    EXPECT_THAT(lines[18], HasSubstr(",13,0x81,,0,0x000a,0x0000000000000063"));
    EXPECT_THAT(lines[19], HasSubstr(",13,0x87,,1,"));
    EXPECT_THAT(lines[21], HasSubstr(",13,0x82,,3,0x000a"));

    const auto part =
        capture.read({"gvsp.numparts", "gvsp.multipartdatatype", "gvsp.partlength", "gvsp.sourceid",
                      "gvsp.datapurposeid", "gvsp.regionid", "gvsp.partid", "gvsp.addressoffset", "_ws.malformed"});
    EXPECT_EQ(part.at(20), ",,,,,,0x01,0x0000000000000000,");
    EXPECT_THAT(part.at(18), HasSubstr("2,"));
}

TEST(IndependentReader, ReadsOurRequests)
{
    if (!isInstalled("tshark"))
        GTEST_SKIP() << "tshark is not installed";
    Capture capture;
    std::array<std::uint8_t, zuStream::gvsp::extendedResendSize> command;
    for (const bool extended : {false, true}) {
        const std::uint64_t block = extended ? 0x1122334455667788 : 0x1234;
        const std::size_t size = zuStream::gvsp::writeResend({3, block, extended, 5, 70000, false}, 0x4321, command);
        capture.add(Bytes(command.begin(), command.begin() + static_cast<std::ptrdiff_t>(size)), 3956);
    }
    const auto lines = capture.read({"gvcp.cmd.command", "gvcp.cmd.flag.acq_required", "gvcp.cmd.flag.64bitid",
                                     "gvcp.cmd.payloadlength", "gvcp.cmd.req_id", "gvcp.cmd.resend.streamchannelindex",
                                     "gvcp.cmd.resend.blockid", "gvcp.cmd.resend.extendedblockid",
                                     "gvcp.cmd.resend.firstpacketid", "gvcp.cmd.resend.lastpacketid", "_ws.malformed"});
    EXPECT_THAT(lines,
                testing::ElementsAre("0x0040,0,0,0x000c,0x4321,0x0003,0x1234,,0x000005,0x011170,",
                                     "0x0040,0,1,0x0014,0x4321,0x0003,,0x1122334455667788,0x00000005,0x00011170,"));
}

namespace {

/// The independent camera at work. Its registers are written without control, which it doesn't ask for.
class FakeCamera {
public:
    FakeCamera() : process_({"arv-fake-gv-camera-0.8", "-i", "127.0.0.1"})
    {
        socket_ = zuPlatform::DatagramSocket::open();
    }
    /// False if it doesn't answer in time.
    bool write(std::uint32_t address, std::uint32_t value)
    {
        const Bytes command = gvsp::Writer().put(0x42010082, 4).put(8, 2).put(++id_, 2).put(address, 4).put(value, 4);
        for (int attempt = 0; attempt < 100; ++attempt) {
            socket_->sendTo(command.data(), command.size(), zuPlatform::loopbackAt(zuPlatform::hostToNetwork16(3956)));
            std::uint8_t answer[64];
            const auto result = socket_->receive(answer, sizeof answer, 200, nullptr);
            if (result.kind == zuPlatform::ReceiveResult::Kind::received && result.count >= 8 && answer[3] == 0x83 &&
                (answer[6] << 8 | answer[7]) == id_)
                return true;
        }
        return false;
    }

private:
    ChildProcess process_;
    zuPlatform::SocketPtr socket_;
    std::uint16_t id_ = 0;
};

} // namespace

TEST(IndependentSender, ItsPicturesArriveWhole)
{
    if (!isInstalled("arv-fake-gv-camera-0.8"))
        GTEST_SKIP() << "arv-fake-gv-camera-0.8 is not installed (package aravis-tools)";
    FakeCamera camera;
    ASSERT_TRUE(camera.write(0xA00, 2)) << "the camera doesn't answer";
    for (const unsigned packetSize : {1400u, 8000u}) {
        zuStream::Settings settings;
        settings.local = {0x7F000001, 0};
        settings.source = {0x7F000001, 0};
        settings.packetSize = packetSize;
        settings.tickFrequency = 1000000000;
        settings.resend.enabled = false; // it has no resends
        zuStream::Receiver receiver(settings);
        std::list<Bytes> memory;
        for (int i = 0; i < 5; ++i) {
            Bytes& room = memory.emplace_back(512 * 256);
            receiver.queue(receiver.announce(room.data(), room.size()));
        }
        ASSERT_TRUE(camera.write(0x100, 512) && camera.write(0x104, 256) && camera.write(0x128, 0x01080001));
        ASSERT_TRUE(camera.write(0x138, 20000)); // frames in 20 ms
        ASSERT_TRUE(camera.write(0xD04, packetSize) && camera.write(0xD18, 0x7F000001));
        ASSERT_TRUE(camera.write(0xD00, receiver.local().port) && camera.write(0x12C, 0) && camera.write(0x124, 1));
        std::uint64_t last = 0;
        std::uint64_t timestamp = 0;
        for (int i = 0; i < 20; ++i) {
            zuStream::Buffer* const buffer = receiver.wait(patience);
            ASSERT_NE(buffer, nullptr);
            const zuStream::Frame& frame = buffer->frame();
            if (i == 0 && !frame.complete) { // begun before
                receiver.queue(*buffer);
                continue;
            }
            EXPECT_TRUE(frame.complete) << i;
            EXPECT_EQ(frame.payloadType, zuStream::payload::image);
            EXPECT_EQ(frame.image.pixelFormat, 0x01080001u);
            EXPECT_EQ(frame.image.width, 512u);
            EXPECT_EQ(frame.image.height, 256u);
            EXPECT_EQ(frame.size, 512u * 256);
            EXPECT_EQ(frame.packets, (512 * 256 + packetSize - 37) / (packetSize - 36) + 2);
            EXPECT_GT(frame.blockId, last);
            EXPECT_GT(frame.timestampNs, timestamp);
            last = frame.blockId;
            timestamp = frame.timestampNs;
            // Its pattern is a ramp that grows by one from pixel to pixel, in both directions.
            const auto pixel = [&](std::size_t x, std::size_t y) { return buffer->data()[y * 512 + x]; };
            unsigned wrong = 0;
            for (std::size_t y = 1; y < 256; ++y)
                for (std::size_t x = 1; x < 512; ++x)
                    wrong += pixel(x, y) == static_cast<std::uint8_t>(pixel(x - 1, y) + 1) &&
                                     pixel(x, y) == static_cast<std::uint8_t>(pixel(x, y - 1) + 1)
                                 ? 0
                                 : 1;
            EXPECT_LT(wrong, 512u * 256 / 50) << "but where the ramp ends";
            receiver.queue(*buffer);
        }
        const zuStream::Statistics counts = receiver.statistics();
        EXPECT_EQ(counts.malformed, 0u);
        EXPECT_EQ(counts.duplicates, 0u);
        EXPECT_EQ(counts.foreign, 0u);
        ASSERT_TRUE(camera.write(0x124, 0) && camera.write(0xD00, 0));
    }
}
