// gevctl ip over real interfaces: what it says of a camera of a wrong subnet, that what it tells to type mends it, and
// what it refuses.
#include "bench/own_network.h"
#include "tests/support/child_process.h"
#include "tests/unit/client/network_camera.h"
#include "tools/gevctl/commands.h"
#include "tools/gevsim/camera.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <sstream>

namespace {

using namespace gevctl;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using zuGevClient::IpAddress;
using zuTest::must;
using zuTest::NetworkCamera;

const IpAddress stranger{0x0A090815, 0xFFFFFF00, 0}; // 10.9.8.21
const IpAddress fitting{0xC0A80716, 0xFFFFFF00, 0};  // 192.168.7.22

struct GevctlNetworkTest : testing::Test {
    std::atomic<bool> stop{false};
    std::string out, err;

    void SetUp() override
    {
        if (!zuTest::isInstalled("ip"))
            GTEST_SKIP() << "ip is not installed (apt-get install iproute2)";
        try {
            zuBench::enterOwnNetwork();
        } catch (const std::runtime_error& error) {
            GTEST_SKIP() << error.what();
        }
        try {
            must("ip link add probe type veth peer name eborp");
            must("ip link del probe");
        } catch (const std::runtime_error& error) {
            GTEST_SKIP() << "no cables here: " << error.what();
        }
    }

    /// A camera on a cable of its own; the near end is 192.168.N.1/24.
    static std::unique_ptr<NetworkCamera> plug(const std::string& name, const std::string& subnet, std::uint8_t number,
                                               const IpAddress& ip, const NetworkCamera::Behaviour& behaviour = {})
    {
        auto camera = std::make_unique<NetworkCamera>(name, number, ip, behaviour);
        must("ip addr add 192.168." + subnet + ".1/24 broadcast + dev " + name);
        return camera;
    }

    int gevctl(const std::string& line)
    {
        std::istringstream words(line);
        std::vector<std::string> arguments;
        for (std::string word; words >> word;)
            arguments.push_back(word);
        const Parsed parsed = parseCommandLine(arguments);
        EXPECT_TRUE(parsed.options) << parsed.err;
        if (!parsed.options)
            return parsed.exitCode;
        std::istringstream input;
        std::ostringstream output, errors;
        const int code = run(*parsed.options, {input, output, errors, false, false, stop});
        out = output.str();
        err = errors.str();
        return code;
    }
    Json json() const { return Json::parse(out); }
};

TEST_F(GevctlNetworkTest, aWrongSubnetIsSaidAndWhatIsToBeTypedMendsIt)
{
    const auto camera = plug("near0", "7", 1, stranger);
    const std::string remark =
        "02:00:5E:10:00:01: The address 10.9.8.21/24 of this camera does not fit near0, which has "
        "192.168.7.1/24.\nUntil its next start it can be reached after this, if nobody else has "
        "the address:\n    gevctl ip force 02:00:5E:10:00:01 192.168.7.21/24 -i near0\n";
    EXPECT_EQ(gevctl("ip list -w 300"), 0);
    EXPECT_EQ(out, "02:00:5E:10:00:01  10.9.8.21/24  none  Cabled  SN1  (near0, wrong subnet)\n");
    EXPECT_EQ(err, remark);
    EXPECT_EQ(gevctl("discover -w 300"), 0);
    EXPECT_EQ(err, remark);
    EXPECT_EQ(gevctl("ip list -w 300 -q"), 0);
    EXPECT_EQ(err, "");
    EXPECT_EQ(gevctl("ip list -w 300 --json"), 0);
    EXPECT_EQ(err, "");
    EXPECT_EQ(json()["cameras"][0]["fits"], false);
    EXPECT_EQ(json()["cameras"][0]["interface"], "near0");
    EXPECT_EQ(json()["cameras"][0]["interfaceAddress"], "192.168.7.1/24");
    EXPECT_EQ(json()["cameras"][0]["proposedAddress"], "192.168.7.21");

    const std::string mend = "gevctl ";
    const std::size_t at = remark.find("    gevctl ") + 4 + mend.size();
    EXPECT_EQ(gevctl(remark.substr(at) + " -w 300"), 0) << err;
    EXPECT_EQ(out, "02:00:5E:10:00:01 has 192.168.7.21/24\n");
    EXPECT_EQ(err, "Until its next start; to have the camera keep it: gevctl ip persistent -c 192.168.7.21 "
                   "192.168.7.21/24\n");
    EXPECT_EQ(camera->ip(), (IpAddress{0xC0A80715, 0xFFFFFF00, 0}));
    EXPECT_EQ(gevctl("ip list -w 300"), 0);
    EXPECT_EQ(out, "02:00:5E:10:00:01  192.168.7.21/24  none  Cabled  SN1  (near0)\n");
    EXPECT_EQ(err, "");
}

TEST_F(GevctlNetworkTest, aSubnetWithoutRoomIsSaid)
{
    const auto camera = std::make_unique<NetworkCamera>("near0", 1, stranger, NetworkCamera::Behaviour{});
    must("ip addr add 192.168.7.1/32 dev near0");
    EXPECT_EQ(gevctl("ip list -w 300"), 0);
    EXPECT_THAT(err, HasSubstr("That subnet has no room for it: give near0 a wider one.\n"));
}

TEST_F(GevctlNetworkTest, theCameraIsMeantByAnyOfItsNames)
{
    const auto one = plug("near0", "7", 1, stranger);
    const auto two = plug("near1", "8", 2, fitting);
    EXPECT_EQ(gevctl("ip force SN1 192.168.7.30 -w 300 --json"), 0) << err;
    EXPECT_EQ(json(), Json::parse(R"({"mac":"02:00:5E:10:00:01","ip":"192.168.7.30","subnetMask":"255.255.255.0",
                                      "gateway":"0.0.0.0","interface":"near0","acknowledged":true,"found":true})"));
    EXPECT_EQ(gevctl("ip force 192.168.7.22 192.168.8.31 -w 300"), 0) << err; // on its own interface
    EXPECT_EQ(two->ip().address, 0xC0A8081Fu);
    EXPECT_EQ(gevctl("ip force 02-00-5e-10-00-02 192.168.8.32 --gateway 192.168.8.1 -w 300"), 0) << err;
    EXPECT_EQ(two->ip(), (IpAddress{0xC0A80820, 0xFFFFFF00, 0xC0A80801}));
    EXPECT_EQ(one->ip().address, 0xC0A8071Eu);
}

TEST_F(GevctlNetworkTest, whatForceRefuses)
{
    const auto one = plug("near0", "7", 1, stranger);
    const auto two = plug("near1", "8", 2, stranger);
    const auto refused = [&](const std::string& line, int code, const std::string& text) {
        EXPECT_EQ(gevctl(line + " -w 300"), code) << line;
        EXPECT_THAT(err, HasSubstr(text)) << line;
    };
    refused("ip force nobody 192.168.7.30", exitCamera, "No camera 'nobody' has answered; gevctl ip list shows");
    refused(
        "ip force 10.9.8.21 192.168.7.30", exitFailure,
        "Several cameras are called '10.9.8.21': say which by its MAC address: 02:00:5E:10:00:01, 02:00:5E:10:00:02");
    refused("ip force SN1 192.168.8.30", exitFailure,
            "192.168.8.30 does not fit near0, which has 192.168.7.1/24; --anyway sends it all the same");
    refused("ip force SN1 192.168.7.1", exitFailure, "192.168.7.1 is the address of this machine's near0");
    refused("ip force SN1 192.168.7.255", exitFailure, "192.168.7.255 is the broadcast address of its subnet");
    EXPECT_EQ(one->ip(), stranger);
    EXPECT_EQ(two->ip(), stranger);
    EXPECT_EQ(gevctl("ip force SN1 192.168.7.30 -w 300"), 0) << err;
    refused("ip force SN2 192.168.7.30/16", exitFailure, "does not fit near1");
    refused("ip force SN2 192.168.7.30/24 --anyway", exitFailure,
            "The camera 02:00:5E:10:00:01 has the address 192.168.7.30");
    EXPECT_EQ(gevctl("ip force SN2 10.1.1.30/24 --anyway -w 300"), 0) << err;
    EXPECT_EQ(two->ip(), (IpAddress{0x0A01011E, 0xFFFFFF00, 0}));
}

TEST_F(GevctlNetworkTest, aCameraThatRefusesOrDoesNotObey)
{
    NetworkCamera::Behaviour held;
    held.obeysForce = false;
    held.forceStatus = 0x8006;
    const auto camera = plug("near0", "7", 1, stranger, held);
    EXPECT_EQ(gevctl("ip force SN1 192.168.7.30 -w 300"), exitCamera);
    EXPECT_EQ(err, "gevctl: The camera 02:00:5E:10:00:01 refuses the address: access denied (status -1005)\n");
    NetworkCamera::Behaviour deaf;
    deaf.obeysForce = false;
    const auto other = plug("near1", "8", 2, stranger, deaf);
    EXPECT_EQ(gevctl("ip force SN2 192.168.8.30 -w 300"), exitCamera);
    EXPECT_EQ(err, "gevctl: The camera 02:00:5E:10:00:02 has acknowledged 192.168.8.30, but does not answer there\n");
}

TEST_F(GevctlNetworkTest, aMacAddressThatNobodyHasFound)
{
    NetworkCamera::Behaviour mute;
    mute.discoverable = false;
    const auto camera = plug("near0", "7", 1, stranger, mute);
    EXPECT_EQ(gevctl("ip force 02:00:5E:10:00:01 192.168.7.30/24 -w 300 --anyway"), 0) << err;
    EXPECT_EQ(camera->ip().address, 0xC0A8071Eu);
    EXPECT_EQ(gevctl("ip force 02:00:5E:10:00:01 192.168.9.30 -w 300"), exitFailure);
    EXPECT_THAT(err, HasSubstr("192.168.9.30 does not fit near0"));
}

TEST_F(GevctlNetworkTest, anewTellsTheCameraAlone)
{
    const auto camera = plug("near0", "7", 1, stranger);
    EXPECT_EQ(gevctl("ip force SN1 0.0.0.0 -w 300"), 0) << err;
    EXPECT_EQ(out, "02:00:5E:10:00:01 was told to look for an address anew\n");
    EXPECT_EQ(err, "");
    EXPECT_EQ(camera->ip(), stranger);
}

TEST_F(GevctlNetworkTest, nobody)
{
    const auto camera = plug("near0", "7", 1, stranger);
    EXPECT_EQ(gevctl("ip list -i lo -w 50"), 0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "No camera has answered.\n");
    EXPECT_EQ(gevctl("ip list -i none"), exitFailure);
    EXPECT_THAT(err, HasSubstr("There is no network interface 'none'"));
}

TEST_F(GevctlNetworkTest, theSimulatedCameraTakesAnAddressToo)
{
    gevsim::Config config;
    config.endpoint = gevsim::Endpoint("127.0.15.1", gevsim::gvcpPort);
    config.broadcastDiscovery = true;
    config.userName = "Left";
    const gevsim::Camera camera(config);
    EXPECT_EQ(gevctl("ip force Left 127.0.15.9 -i lo -w 500"), 0) << err;
    EXPECT_EQ(out.substr(17), " has 127.0.15.9/8\n");
    EXPECT_EQ(camera.readRegister(gevsim::reg::currentIp), 0x7F000F09u);
    EXPECT_EQ(gevctl("ip list -i lo -w 500"), 0) << err;
    EXPECT_THAT(out, AllOf(HasSubstr("127.0.15.9/8"), HasSubstr("\"Left\"  (lo)\n")));
    EXPECT_EQ(gevctl("ip force Left 0.0.0.0 -i lo -w 500"), 0) << err;
    EXPECT_EQ(camera.readRegister(gevsim::reg::currentIp), 0x7F000F01u);
}

} // namespace
