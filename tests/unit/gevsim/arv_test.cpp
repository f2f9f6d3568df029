// An independent GigE Vision client, arv-tool-0.8, with the simulated camera.
#include "tests/support/child_process.h"

#include "tools/gevsim/camera.h"

#include <gtest/gtest.h>

using gevsim::Camera;
using gevsim::Command;
using gevsim::Config;
namespace reg = gevsim::reg;
namespace region = gevsim::region;
namespace feature = gevsim::feature;

namespace {

class ArvList : public testing::Test {
protected:
    void SetUp() override
    {
        if (!zuTest::isInstalled(tool))
            GTEST_SKIP() << "arv-tool-0.8 is not installed (package aravis-tools-cli)";
    }

    std::string run(const std::vector<std::string>& command)
    {
        const zuTest::Finished finished = zuTest::runCommand(command, zuTest::patience, Output::apart);
        EXPECT_TRUE(finished.end.exited && finished.end.status == 0) << finished.errors;
        return finished.output;
    }
    std::string runTool(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), tool);
        return run(arguments);
    }

    using Output = zuTest::ChildProcess::Output;
    const std::string tool = "arv-tool-0.8";
};

/// With the GenICam file plain and zipped.
class ArvTool : public ArvList, public testing::WithParamInterface<bool> {};

Config config(bool zipped)
{
    Config made;
    made.endpoint = {"127.0.13.70", gevsim::gvcpPort};
    made.zippedXml = zipped;
    made.userName = "left camera";
    return made;
}

} // namespace

TEST_P(ArvTool, ReadsAllFeatures)
{
    Camera camera(config(GetParam()));
    const std::string values = runTool({"-a", "127.0.13.70", "values"});
    for (const char* line :
         {"'DeviceVendorName' = 'Simulated Optics'", "'DeviceModelName' = 'gevsim'", "'DeviceUserID' = 'left camera'",
          "'DeviceTemperature' = 36.5 C", "'Width' = 640", "'PixelFormat' = 'Mono8'", "'ReverseX' = false",
          "'ExposureTime' = 10000 us", "'PayloadSize' = 307200", "'GevHeartbeatTimeout' = 3000"})
        EXPECT_NE(values.find(line), std::string::npos) << line << "\n" << values;
    EXPECT_EQ(camera.counters().malformed, 0U);
    EXPECT_EQ(camera.counters().received, camera.counters().sent) << "everything was answered";
}

TEST_P(ArvTool, ControlsFeaturesRegistersAndGivesControlBack)
{
    Camera camera(config(GetParam()));
    const std::string output =
        runTool({"-a", "127.0.13.70", "control", "Width=320", "Width", "Gain=3.5", "Gain", "ReverseX=true", "ReverseX",
                 "PixelFormat=Mono16", "PixelFormat", "TestText=hello", "TestText", "AcquisitionStart",
                 "AcquisitionStatus", "R[0x10000]=0x11223344", "R[0x10000]"});
    for (const char* line :
         {"Width = 320", "Gain = 3.5 dB", "ReverseX = true", "PixelFormat = Mono16", "TestText = hello",
          "AcquisitionStart executed", "AcquisitionStatus = 1", "R[0x00010000] = 0x11223344"})
        EXPECT_NE(output.find(line), std::string::npos) << line << "\n" << output;
    EXPECT_EQ(camera.readRegister(feature::width), 320U);
    EXPECT_EQ(camera.readRegister(region::memory), 0x11223344U);
    EXPECT_FALSE(camera.control().held()) << "given back";
    const std::vector<std::uint32_t> ccp = camera.writesTo(reg::ccp);
    ASSERT_FALSE(ccp.empty());
    EXPECT_NE(ccp.front() & 3U, 0U);
    EXPECT_EQ(ccp.back(), 0U);
}

TEST_P(ArvTool, SetsUpTheStreamByFeatures)
{
    Camera camera(config(GetParam()));
    camera.writeRegister(gevsim::reg::streamPacketSize, 0x40000000 | 1400);
    const std::string output = runTool({"-a",
                                        "127.0.13.70",
                                        "control",
                                        "OffsetX=0",
                                        "Width=320",
                                        "OffsetX=320",
                                        "OffsetX",
                                        "PixelFormat=Mono12Packed",
                                        "PixelSize",
                                        "PayloadSize",
                                        "ChunkModeActive=true",
                                        "PayloadSize",
                                        "ChunkSelector=Timestamp",
                                        "ChunkEnable=false",
                                        "PayloadSize",
                                        "ChunkSelector=ExposureTime",
                                        "ChunkEnable",
                                        "FramePeriod=10000",
                                        "AcquisitionFrameRate",
                                        "AcquisitionMode=MultiFrame",
                                        "AcquisitionFrameCount=7",
                                        "TriggerMode=On",
                                        "TriggerSource=Line1",
                                        "GevSCPSPacketSize=1500",
                                        "GevSCPHostPort",
                                        "GevSCPD=1000",
                                        "GevGVSPExtendedIDMode=On",
                                        "GevSCCFGExtendedChunkData=true",
                                        "GevCurrentIPConfigurationDHCP=true"});
    for (const char* line :
         {"OffsetX = 320", "PixelSize = 12", "PayloadSize = 230400", "PayloadSize = 230456", "PayloadSize = 230440",
          "ChunkEnable = true", "AcquisitionFrameRate = 100 Hz", "GevSCPHostPort = 0"})
        EXPECT_NE(output.find(line), std::string::npos) << line << "\n" << output;
    const std::pair<std::uint32_t, std::uint32_t> registers[] = {
        {feature::pixelFormat, 0x010C0006},
        {feature::chunkMode, 1},
        {feature::chunkEnable + 4, 1},
        {feature::chunkEnable + 8, 0},
        {feature::chunkEnable + 12, 1},
        {feature::frameRate, 0x42C80000},
        {feature::acquisitionMode, 2},
        {feature::acquisitionFrameCount, 7},
        {feature::triggerMode, 1},
        {feature::triggerSource, 1},
        {reg::streamPacketSize, 0x40000000 | 1500}, // what stands beside a part of a register stays
        {reg::streamPacketDelay, 1000},
        {reg::gvspConfiguration, 0x40000000},
        {reg::streamConfiguration, 1},
        {reg::currentIpConfiguration, 7},
    };
    for (const auto& [address, value] : registers)
        EXPECT_EQ(camera.readRegister(address), value) << std::hex << address;
}

TEST_P(ArvTool, BoundsAndAvailabilityHangOnOtherFeatures)
{
    Camera camera(config(GetParam()));
    // What the tool refuses, it ends with an error.
    const auto told = [&](const std::vector<std::string>& more) {
        std::vector<std::string> command = {
            tool, "-a", "127.0.13.70", "--range-check=enable", "--access-check=enable", "control"};
        command.insert(command.end(), more.begin(), more.end());
        zuTest::runCommand(command);
    };
    EXPECT_EQ(camera.readRegister(feature::frameRate), 0x41C80000U) << "25, so 40 ms";
    told({"ExposureTime=40000"});
    EXPECT_EQ(camera.readRegister(feature::exposureTime), 0x471C4000U);
    told({"ExposureTime=40001"});
    EXPECT_EQ(camera.readRegister(feature::exposureTime), 0x471C4000U);
    told({"AcquisitionFrameRateEnable=false", "ExposureTime=200000"});
    EXPECT_EQ(camera.readRegister(feature::exposureTime), 0x48435000U);
    const auto listed = [&](const std::string& name) {
        return runTool({"-a", "127.0.13.70", "values"}).find("'" + name + "'") != std::string::npos;
    };
    EXPECT_FALSE(listed("AcquisitionFrameCount")) << "of no mode but MultiFrame";
    EXPECT_FALSE(listed("TriggerSoftware"));
    EXPECT_FALSE(listed("AcquisitionFrameRate"));
    told({"AcquisitionMode=MultiFrame", "TriggerMode=On", "AcquisitionFrameRateEnable=true"});
    EXPECT_TRUE(listed("AcquisitionFrameCount"));
    EXPECT_TRUE(listed("TriggerSoftware"));
    EXPECT_TRUE(listed("AcquisitionFrameRate"));
    EXPECT_EQ(camera.readRegister(feature::exposureTime), 0x471C4000U) << "as long as a period is";
    told({"Width=320", "OffsetX=324"});
    EXPECT_EQ(camera.readRegister(feature::width), 320U);
    EXPECT_EQ(camera.readRegister(feature::offsetX), 0U) << "320 at most";
}

INSTANTIATE_TEST_SUITE_P(File, ArvTool, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& zipped) { return zipped.param ? "zipped" : "plain"; });

namespace {

/// Two cameras ($0), and the tool ($1) once they listen.
const char* const listScript = R"(
dir=$(mktemp -d) || exit 1
mkfifo "$dir/out"
"$0" -n 2 --no-input > "$dir/out" &
camera=$!
exec 3< "$dir/out"
rm -r "$dir"
read -r first <&3 && read -r second <&3 || exit 1
"$1"
result=$?
kill $camera
wait $camera || exit 1
exit $result
)";

} // namespace

TEST_F(ArvList, FindsTheCamerasOnTheLoopbackInterface)
{
    // The tool asks on every interface. Where the system allows, it is given a network that has none but loopback.
    std::vector<std::string> command = {"unshare", "--user", "--map-root-user", "--net", "/bin/sh", "-c"};
    std::vector<std::string> probe = command;
    probe.push_back("ip link set lo up");
    const bool ownNetwork = zuTest::isInstalled("unshare") && zuTest::runCommand(probe).end.status == 0;
    if (!ownNetwork)
        command = {"/bin/sh", "-c"};
    const std::string script = (ownNetwork ? "ip link set lo up || exit 1" : "") + std::string(listScript);
    command.insert(command.end(), {script, zuTest::builtProgram("gevsim"), tool});
    const std::string output = run(command);
    EXPECT_NE(output.find("Simulated Optics-gevsim-7F000001-3956 (127.0.0.1)"), std::string::npos) << output;
    EXPECT_NE(output.find("Simulated Optics-gevsim-7F000002-3956 (127.0.0.2)"), std::string::npos) << output;
}
