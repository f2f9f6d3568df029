// Independent readers of the camera's stream: a protocol analyser, and another GigE Vision client with its own
// receiver.
#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/unit/gevsim/viewer.h"

#include <fstream>
#include <map>
#include <sstream>

using namespace gevsimTest;
using gevsim::Camera;
using gevsim::Config;
namespace reg = gevsim::reg;
namespace feature = gevsim::feature;
namespace pixel = gevsim::pixel;

namespace {

constexpr std::uint16_t capturedPort = 20202;

/// A capture file of datagrams between two made-up addresses.
class Capture {
public:
    Capture()
    {
        // Little-endian, as the magic number says; the link carries IPv4 as it is.
        for (const std::uint32_t value : {0xA1B2C3D4U, 0x00040002U, 0U, 0U, 65535U, 228U})
            little(value);
    }
    void add(const Bytes& datagram, std::uint16_t from, std::uint16_t to)
    {
        const auto size = static_cast<std::uint32_t>(datagram.size() + 28);
        for (const std::uint32_t value : {0U, count_++, size, size})
            little(value);
        Bytes head = bytes("45 00 0000 0000 4000 40 11 0000 0a000001 0a000002 0000 0000 0000 0000");
        gevsim::wire::put16(&head[2], size);
        gevsim::wire::put16(&head[20], from);
        gevsim::wire::put16(&head[22], to);
        gevsim::wire::put16(&head[24], size - 20);
        content_ = join(join(std::move(content_), head), datagram);
    }
    void save(const std::string& file) const
    {
        std::ofstream(file, std::ios::binary)
            .write(reinterpret_cast<const char*>(content_.data()), static_cast<std::streamsize>(content_.size()));
    }

private:
    void little(std::uint32_t value)
    {
        for (int i = 0; i < 4; ++i)
            content_.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }

    Bytes content_;
    std::uint32_t count_ = 0;
};

std::string run(const std::vector<std::string>& command)
{
    const zuTest::Finished finished =
        zuTest::runCommand(command, zuTest::patience, zuTest::ChildProcess::Output::apart);
    EXPECT_TRUE(finished.end.exited && finished.end.status == 0) << finished.errors;
    return finished.output;
}

class Analyser : public testing::Test {
protected:
    void SetUp() override
    {
        if (!zuTest::isInstalled("tshark"))
            GTEST_SKIP() << "tshark is not installed (apt-get install tshark)";
    }

    /// Values of these fields, a line for each datagram; what is malformed has a word at the line's end.
    std::vector<std::string> read(const Capture& capture, const std::vector<std::string>& fields,
                                  const std::string& protocol = "gvsp")
    {
        const std::string file = folder / "stream.pcap";
        capture.save(file);
        std::vector<std::string> command = {
            "tshark", "-r",     file, "-d",         "udp.port==" + std::to_string(capturedPort) + "," + protocol,
            "-T",     "fields", "-E", "separator=,"};
        for (const std::string& field : fields)
            command.insert(command.end(), {"-e", field});
        command.insert(command.end(), {"-e", "_ws.malformed", "-e", "_ws.expert.message"});
        return zuTest::splitLines(run(command));
    }

    zuTest::TemporaryFolder folder;
};

Config config()
{
    Config made;
    made.endpoint = {"127.0.13.1", 0};
    made.heartbeatTimeoutMs = 60000;
    made.sensorWidth = 64;
    made.sensorHeight = 32;
    return made;
}

} // namespace

TEST_F(Analyser, DecodesEveryPacketAndFindsNothingMalformed)
{
    Camera camera(config());
    Viewer viewer(camera);
    viewer.open(576);
    viewer.write(feature::acquisitionMode, 1);
    viewer.write(feature::width, 48);
    viewer.write(feature::offsetX, 8);
    viewer.write(feature::height, 16);
    viewer.write(feature::offsetY, 6);
    Capture capture;
    std::vector<std::string> expected;
    std::uint64_t number = 0;
    for (const std::uint32_t extended : {0U, 0x40000000U}) {
        viewer.write(reg::gvspConfiguration, extended);
        for (const std::uint32_t chunks : {0U, 1U, 2U}) { // none, in the old way, in the new one
            viewer.write(feature::chunkMode, chunks != 0);
            viewer.write(reg::streamConfiguration, chunks / 2);
            const std::string type = chunks == 0 ? "0x0001" : chunks == 1 ? "0x0004" : "0x4001";
            for (const auto& [format, name] : pixel::names) {
                viewer.write(feature::pixelFormat, format);
                viewer.start();
                const std::vector<Piece> pieces = viewer.frame();
                ASSERT_TRUE(camera.waitFor([&] { return camera.readRegister(feature::acquisitionStatus) == 0; }));
                ++number;
                const gevsim::SentFrame frame = camera.sentFrames().back();
                ASSERT_EQ(pieces.size(), frame.packets);
                for (const Piece& made : pieces) {
                    capture.add(made.bytes, 40000, capturedPort);
                    char time[32], value[32];
                    std::snprintf(time, sizeof time, "0x%016llx", static_cast<unsigned long long>(frame.timestamp));
                    std::snprintf(value, sizeof value, "0x%08x", static_cast<unsigned>(format));
                    const std::string block = std::to_string(number), id = std::to_string(made.id);
                    std::string line = "0x0000,";
                    line += extended == 0 ? block + ",," + id + ",," : "," + block + ",," + id + ",";
                    line += (extended == 0 ? "0x0" : "0x8") + std::to_string(made.format) + ",";
                    line += made.format == 3 ? "," : type + ",";
                    if (made.format == 1)
                        line +=
                            std::string(time) + (chunks == 1 ? ",,,,,,," : "," + std::string(value) + ",48,16,8,6,,");
                    else
                        line += made.format == 2 && chunks != 1 ? ",,,16,,,," : ",,,,,,,";
                    expected.push_back(line);
                }
            }
        }
    }
    // Again, not to be had, and for a test.
    const auto add = [&](const std::string& line) {
        capture.add(viewer.next().bytes, 40000, capturedPort);
        expected.push_back(line);
    };
    viewer.ask(camera, longResend(number, 0, 0));
    char time[32];
    std::snprintf(time, sizeof time, "0x%016llx",
                  static_cast<unsigned long long>(camera.sentFrames().back().timestamp));
    add("0x0000,," + std::to_string(number) + ",,0,0x81,0x4001," + time + ",0x02100032,48,16,8,6,,");
    viewer.ask(camera, longResend(900, 2, 2));
    add("0x800c,,900,,2,0x83,,,,,,,,,");
    viewer.ask(camera, resend(900, 2, 2));
    add("0x800c,900,,2,,0x03,,,,,,,,,");
    viewer.write(reg::streamPacketSize, 0x80000000 | 1000);
    add("0x0000,,0,,0,0x83,,,,,,,,,");

    const std::vector<std::string> lines =
        read(capture, {"gvsp.status", "gvsp.blockid16", "gvsp.blockid64", "gvsp.packetid24", "gvsp.packetid32",
                       "gvsp.format", "gvsp.payloadtype", "gvsp.timestamp", "gvsp.pixel", "gvsp.sizex", "gvsp.sizey",
                       "gvsp.offsetx", "gvsp.offsety"});
    ASSERT_EQ(lines.size(), expected.size());
    EXPECT_GT(lines.size(), 200U);
    for (std::size_t i = 0; i < lines.size(); ++i)
        ASSERT_EQ(lines[i], expected[i]) << "datagram " << i;
}

TEST_F(Analyser, UnderstandsTheRequestsThatTheCameraUnderstands)
{
    Capture capture;
    capture.add(resend(0x1234, 2, 0xFFFFFF), 40000, capturedPort);
    capture.add(longResend(0x123456789A, 2, 70000), 40000, capturedPort);
    const std::vector<std::string> lines =
        read(capture,
             {"gvcp.cmd.command", "gvcp.cmd.resend.blockid", "gvcp.cmd.resend.firstpacketid",
              "gvcp.cmd.resend.lastpacketid", "gvcp.cmd.resend.extendedblockid"},
             "gvcp");
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0], "0x0040,0x1234,0x000002,0xffffff,,,");
    EXPECT_EQ(lines[1], "0x0040,,0x00000002,0x00011170,0x000000123456789a,,");
}

namespace {

class OtherReceiver : public testing::Test {
protected:
    void SetUp() override
    {
        if (!zuTest::isInstalled(tool))
            GTEST_SKIP() << "arv-camera-test-0.8 is not installed (apt-get install aravis-tools)";
    }

    /// Runs it for some seconds and gives its statistics by their names. It may ask for all that a frame lacks, and has
    /// time for it: its socket's buffer holds little, and this machine may have no time for its thread.
    std::map<std::string, std::uint64_t> receive(std::vector<std::string> arguments, std::string& output)
    {
        arguments.insert(arguments.begin(),
                         {tool, "-n", "127.0.13.71", "--no-packet-socket", "--duration=2", "-q", "2.0", "-m", "5000"});
        output = run(arguments);
        std::map<std::string, std::uint64_t> statistics;
        std::istringstream lines(output);
        for (std::string line; std::getline(lines, line);) {
            const std::size_t equals = line.find(" = ");
            if (line.compare(0, 2, "n_") == 0 && equals != std::string::npos)
                statistics[line.substr(0, line.find(' '))] = std::stoull(line.substr(equals + 3));
        }
        return statistics;
    }

    /// Each complete; as many as the camera has sent, but for those at the beginning and the end.
    void complete(std::vector<std::string> arguments)
    {
        camera.clearLog();
        std::string output;
        const auto statistics = receive(std::move(arguments), output);
        for (const char* name : {"n_failures", "n_timeouts", "n_aborted", "n_missing_frames", "n_size_mismatch_errors",
                                 "n_error_packets", "n_ignored_packets"})
            EXPECT_EQ(statistics.at(name), 0U) << name << "\n" << output;
        EXPECT_GE(statistics.at("n_completed_buffers"), 10U) << output;
        EXPECT_LE(statistics.at("n_completed_buffers"), camera.streamCounters().frames + 1) << output;
        EXPECT_GE(statistics.at("n_completed_buffers") + 3, camera.streamCounters().frames) << output;
        EXPECT_FALSE(camera.streamOpen());
    }

    static Config config()
    {
        Config made;
        made.endpoint = {"127.0.13.71", gevsim::gvcpPort};
        return made;
    }
    const std::string tool = "arv-camera-test-0.8";
    Camera camera{config()};
};

} // namespace

TEST_F(OtherReceiver, GetsEveryFrame) { complete({"-f", "20", "-e", "10000", "-i", "1400", "-w", "320", "-h", "240"}); }

TEST_F(OtherReceiver, GetsEveryFrameOfOtherFormatsWithChunks)
{
    complete({"-f", "20", "-e", "10000", "-i", "4000", "-w", "320", "-h", "240", "-u", "FrameID,Timestamp,ExposureTime",
              "--features", "PixelFormat=Mono12Packed"});
}

TEST_F(OtherReceiver, GetsEveryFrameWithExtendedIds)
{
    camera.writeRegister(reg::gvspConfiguration, 0x40000000);
    complete({"-f", "20", "-e", "10000", "-i", "1400", "-w", "160", "-h", "120", "--features", "PixelFormat=RGB8"});
}

TEST_F(OtherReceiver, GetsEveryFrameByResends)
{
    camera.execute("stream lose data rate=1 seed=9");
    complete({"-f", "20", "-e", "10000", "-i", "1400", "-w", "320", "-h", "240"});
    EXPECT_GT(camera.streamCounters().lost, 0U);
    EXPECT_GE(camera.streamCounters().resent, camera.streamCounters().lost);
}
