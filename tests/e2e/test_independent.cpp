// Strangers as witnesses: another maker's camera simulator at the daemon's end, and a protocol analyser on the traffic.
#include "client/GevClient.h"
#include "daemon_under_test.h"
#include "tests/support/files.h"
#include "tools/gevsim/camera.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>

using namespace zuTest;
using namespace zuGevClient;

namespace {

constexpr const char* fakeCamera = "arv-fake-gv-camera-0.8";

/// The bootstrap register block of the standard, as text.
std::string text(Connection& connection, std::uint32_t address, std::size_t size)
{
    const auto bytes = connection.readMemory(address, size);
    const std::string all(bytes.begin(), bytes.end());
    return all.substr(0, all.find('\0'));
}

} // namespace

TEST(IndependentCamera, LinkRegistersAndMemory)
{
    if (!isInstalled(fakeCamera))
        GTEST_SKIP() << fakeCamera << " is not installed (apt-get install aravis-tools)";
    DaemonUnderTest daemon;
    ChildProcess camera({fakeCamera, "-i", "127.0.0.1", "-s", "ZU_E2E"});
    Connection connection;
    connection.setDestination({0x7F000001, gvcpPort});
    // The simulator says nothing when it is up: the first answer tells.
    std::uint32_t timeout = 0;
    for (int attempt = 0; timeout == 0 && attempt < 30; ++attempt) {
        try {
            timeout = connection.readRegister(0x0938);
        } catch (const CameraError&) {
            // not yet
        }
    }
    EXPECT_EQ(timeout, 3000u);
    ASSERT_TRUE(connection.link(LinkMode::control()));
    EXPECT_EQ(connection.readRegister(0x0A00), 2u);
    EXPECT_EQ(text(connection, 0x0048, 32), "Aravis");
    EXPECT_EQ(text(connection, 0x00D8, 16), "ZU_E2E");
    EXPECT_EQ(text(connection, 0x0200, 512).substr(0, 6), "Local:");
    constexpr std::uint32_t width = 0x100; // a feature register of the simulator
    connection.writeRegister(width, 320);
    EXPECT_EQ(connection.readRegister(width), 320u);
    const std::vector<std::uint8_t> value{0, 0, 2, 0};
    connection.writeMemory(width, value.data(), value.size());
    EXPECT_EQ(connection.readRegister(width), 512u);
    EXPECT_TRUE(connection.checkLink());
    connection.unlink();
    EXPECT_EQ(connection.readRegister(0x0A00), 0u);
}

TEST(IndependentAnalyser, NoMalformedAndNoUnansweredCommand)
{
    if (!isInstalled("tshark"))
        GTEST_SKIP() << "tshark is not installed (apt-get install tshark)";
    DaemonUnderTest daemon;
    gevsim::Camera camera("127.0.17.4", gvcpPort);
    const TemporaryFolder folder;
    const std::string file = folder / "capture.pcapng";
    {
        ChildProcess capture({"tshark", "-i", "lo", "-f", "udp port 3956 and host 127.0.17.4", "-w", file, "-P", "-l"});
        if (!capture.waitForOutput("Capturing on"))
            GTEST_SKIP() << "no capture permitted here: " << capture.output();
        Connection connection;
        connection.setDestination({camera.ip(), camera.port()});
        // The analyser is listening once it has printed a datagram.
        for (int attempt = 0; attempt < 100 && capture.output().find("GVCP") == std::string::npos; ++attempt) {
            connection.readRegister(0x0004);
            capture.waitForOutput("GVCP", std::chrono::milliseconds(200));
        }
        ASSERT_TRUE(connection.link(LinkMode::control()));
        connection.writeRegister(gevsim::feature::testValue, 0xCAFE);
        EXPECT_EQ(connection.readRegister(gevsim::feature::testValue), 0xCAFEu);
        const std::vector<std::uint8_t> data(3000, 7);
        connection.writeMemory(gevsim::region::memory, data.data(), data.size());
        EXPECT_EQ(connection.readMemory(gevsim::region::memory, data.size()), data);
        camera.inject(gevsim::Fault::pendingAck(std::chrono::milliseconds(200)));
        connection.readRegister(0x0004);
        connection.unlink();
        // What was captured is complete when the answer with a register that is asked for only now has gone by:
        // nothing more comes.
        connection.readRegister(gevsim::reg::numberOfInterfaces);
        EXPECT_TRUE(capture.waitForOutput("READREG_ACK [Number of network interfaces]")) << capture.output();
        connection.close();
        capture.signal(SIGINT);
        capture.wait();
    }
    std::vector<std::string> command{"tshark", "-r", file, "-T", "fields", "-E", "separator=,"};
    for (const char* field :
         {"udp.srcport", "udp.dstport", "gvcp.cmd.command", "gvcp.ack", "gvcp.cmd.req_id", "_ws.malformed"}) {
        command.emplace_back("-e");
        command.emplace_back(field);
    }
    const Finished read = runCommand(command);
    ASSERT_EQ(read.end.status, 0) << read.output;
    std::map<std::string, int> open; // commands without their acknowledge, by port and id
    int commands = 0;
    int acknowledges = 0;
    std::istringstream lines(read.output);
    for (std::string line; std::getline(lines, line);) {
        std::vector<std::string> fields;
        std::istringstream parts(line);
        for (std::string part; std::getline(parts, part, ',');)
            fields.push_back(part);
        fields.resize(6);
        if (fields[0].find_first_not_of("0123456789") != std::string::npos || fields[0].empty())
            continue; // what the analyser says about itself
        EXPECT_EQ(fields[5], "") << line;
        if (fields[1] == "3956") {
            EXPECT_NE(fields[2], "") << "a command that the analyser does not know: " << line;
            ++commands;
            open[fields[0] + "/" + fields[4]] = 1;
        } else if (fields[3] != "0x0089") {
            ++acknowledges;
            EXPECT_EQ(open.erase(fields[1] + "/" + fields[4]), 1u) << "an acknowledge that nobody asked for: " << line;
        }
    }
    EXPECT_GT(commands, 20);
    EXPECT_GT(acknowledges, 20);
    EXPECT_TRUE(open.empty()) << open.size() << " commands without answer";
}
