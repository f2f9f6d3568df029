// Discovery and FORCEIP over real interfaces: cameras on cables of their own, in a network that this process makes for
// itself, with subnets that fit and others that don't.
#include "bench/own_network.h"
#include "client/GevDiscovery.h"
#include "tests/support/child_process.h"
#include "tests/unit/client/network_camera.h"
#include "tools/gevsim/camera.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

namespace {

using namespace zuGevClient;
using namespace std::chrono_literals;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using zuTest::Heard;
using zuTest::must;
using zuTest::NetworkCamera;

constexpr std::uint32_t everybody = 0xFFFFFFFF;
const IpAddress fitting{0xC0A80716, 0xFFFFFF00, 0};  // 192.168.7.22
const IpAddress stranger{0x0A090815, 0xFFFFFF00, 0}; // 10.9.8.21
const LocalInterface near0{"near0", 0xC0A80701, 0xFFFFFF00, false};
const LocalInterface near1{"near1", 0xC0A80801, 0xFFFFFF00, false};

struct NetworkTest : testing::Test {
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

    /// A camera on a cable of the interface.
    std::unique_ptr<NetworkCamera> plug(const LocalInterface& local, std::uint8_t number, const IpAddress& ip,
                                        const NetworkCamera::Behaviour& behaviour = {})
    {
        auto camera = std::make_unique<NetworkCamera>(local.name, number, ip, behaviour);
        must("ip addr add " + toString(Endpoint{local.address, 0}) + "/24 broadcast + dev " + local.name);
        return camera;
    }

    static DiscoveryRequest brief(const std::vector<std::string>& interfaces = {})
    {
        DiscoveryRequest request;
        request.interfaces = interfaces;
        request.wait = 400ms;
        return request;
    }

    static std::vector<std::vector<std::uint8_t>> forces(const NetworkCamera& camera)
    {
        std::vector<std::vector<std::uint8_t>> result;
        for (const Heard& one : camera.heard())
            if (one.bytes.size() > 3 && one.bytes[3] == 4)
                result.push_back(one.bytes);
        return result;
    }

    template <typename TAction>
    static std::pair<std::int32_t, std::string> failure(TAction action)
    {
        try {
            action();
        } catch (const CameraError& error) {
            return {error.status(), error.what()};
        }
        return {0, "none"};
    }
};

TEST_F(NetworkTest, interfacesThatAreUp)
{
    const auto camera = plug(near0, 1, fitting);
    EXPECT_THAT(localInterfaces(), ElementsAre(LocalInterface{"lo", 0x7F000001, 0xFF000000, true}, near0));
    must("ip link set near0 down");
    EXPECT_THAT(localInterfaces(), ElementsAre(LocalInterface{"lo", 0x7F000001, 0xFF000000, true}));
}

TEST_F(NetworkTest, aCameraOfTheSubnetIsFound)
{
    const auto camera = plug(near0, 1, fitting);
    const auto found = discover(brief());
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].info.mac, camera->mac());
    EXPECT_EQ(found[0].info.ip, fitting);
    EXPECT_EQ(found[0].info.model, "Cabled");
    EXPECT_EQ(found[0].from, (Endpoint{fitting.address, 3956}));
    EXPECT_EQ(found[0].seenOn, near0);
    EXPECT_TRUE(found[0].fits());
}

TEST_F(NetworkTest, whatIsAsked)
{
    const auto camera = plug(near0, 1, fitting);
    discover(brief());
    // Everybody and the subnet, at first without the permission to broadcast the answer, which not every camera knows.
    const std::vector<std::uint8_t> first{0x42, 0x01, 0x00, 0x02, 0, 0, 0x5A, 0x43};
    const std::vector<std::uint8_t> second{0x42, 0x11, 0x00, 0x02, 0, 0, 0x5A, 0x43};
    const std::vector<Heard> heard = camera->heard();
    ASSERT_EQ(heard.size(), 4u);
    EXPECT_EQ(heard[0].bytes, first);
    EXPECT_EQ(heard[0].to, everybody);
    EXPECT_EQ(heard[1].bytes, first);
    EXPECT_EQ(heard[1].to, 0xC0A807FFu);
    EXPECT_EQ(heard[2].bytes, second);
    EXPECT_EQ(heard[2].to, everybody);
    EXPECT_EQ(heard[3].bytes, second);
    EXPECT_EQ(heard[3].to, 0xC0A807FFu);
}

TEST_F(NetworkTest, aCameraOfAnotherSubnetIsFoundAndDoesNotFit)
{
    const auto camera = plug(near0, 1, stranger);
    const auto found = discover(brief());
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].info.ip, stranger);
    EXPECT_EQ(found[0].from.address, stranger.address);
    EXPECT_EQ(found[0].seenOn, near0);
    EXPECT_FALSE(found[0].fits());
    EXPECT_EQ(proposeAddress(found[0], found), 0xC0A80715u);
}

TEST_F(NetworkTest, aCameraThatCanOnlyAnswerByABroadcastIsFound)
{
    NetworkCamera::Behaviour behaviour;
    behaviour.answersDirectly = false;
    const auto camera = plug(near0, 1, stranger, behaviour);
    const auto found = discover(brief());
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].info.mac, camera->mac());
    EXPECT_EQ(found[0].seenOn, near0);
}

TEST_F(NetworkTest, eachInterfaceFindsItsOwn)
{
    const auto one = plug(near0, 1, fitting);
    const auto two = plug(near1, 2, stranger);
    const auto all = discover(brief());
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].info.mac, two->mac()); // 10. before 192.
    EXPECT_EQ(all[0].seenOn, near1);
    EXPECT_EQ(all[1].info.mac, one->mac());
    EXPECT_EQ(all[1].seenOn, near0);
    const std::size_t heard = two->heard().size();
    for (const char* const name : {"near0", "192.168.7.1"}) {
        const auto only = discover(brief({name}));
        ASSERT_EQ(only.size(), 1u) << name;
        EXPECT_EQ(only[0].info.mac, one->mac()) << name;
    }
    EXPECT_EQ(two->heard().size(), heard);
}

TEST_F(NetworkTest, aCameraOnTwoInterfacesIsThereForEach)
{
    const auto one = plug(near0, 1, stranger);
    const auto same = plug(near1, 1, stranger);
    const auto found = discover(brief());
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0].seenOn, near0);
    EXPECT_EQ(found[1].seenOn, near1);
}

TEST_F(NetworkTest, ofSeveralAddressesTheOneThatFitsCounts)
{
    const std::vector<std::vector<std::string>> orders{{"192.168.9.1", "10.9.8.1"}, {"10.9.8.1", "192.168.9.1"}};
    for (const auto& order : orders) {
        const auto camera = plug(near0, 1, stranger);
        for (const std::string& address : order)
            must("ip addr add " + address + "/24 broadcast + dev near0");
        const auto found = discover(brief());
        ASSERT_EQ(found.size(), 1u);
        EXPECT_EQ(found[0].seenOn.address, 0x0A090801u);
        EXPECT_TRUE(found[0].fits());
        must("ip link del near0");
    }
}

TEST_F(NetworkTest, anAddressIsAskedAlone)
{
    const auto one = plug(near0, 1, fitting);
    DiscoveryRequest request;
    request.targets = {{fitting.address, gvcpPort}};
    request.wait = 300ms;
    const auto found = discover(request);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].seenOn, near0);
    for (const Heard& question : one->heard())
        EXPECT_EQ(question.to, fitting.address);
}

TEST_F(NetworkTest, aCameraBeyondTheSubnetIsSeenOnNoInterface)
{
    const auto camera = plug(near0, 1, stranger);
    must("ip route add 10.9.8.21 dev near0");
    DiscoveryRequest request;
    request.targets = {{stranger.address, gvcpPort}};
    request.wait = 300ms;
    const auto found = discover(request);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].seenOn, LocalInterface{});
    EXPECT_TRUE(found[0].fits());
}

TEST_F(NetworkTest, loopbackOnlyWhenItIsNamed)
{
    gevsim::Config config;
    config.endpoint = gevsim::Endpoint("127.0.0.1", gevsim::gvcpPort);
    config.broadcastDiscovery = true;
    const gevsim::Camera camera(config);
    EXPECT_THAT(discover(brief()), IsEmpty());
    const auto found = discover(brief({"lo"}));
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].info.model, "gevsim");
    EXPECT_EQ(found[0].seenOn.name, "lo");
    EXPECT_TRUE(found[0].fits());
}

TEST_F(NetworkTest, interfacesThatDontWork)
{
    EXPECT_THAT([] { discover(brief({"none"})); },
                testing::ThrowsMessage<Error>("There is no network interface 'none' with an IPv4 address"));
    must("ip link add off type veth peer name ffo");
    must("ip addr add 192.168.5.1/24 broadcast + dev off");
    EXPECT_THAT([] { discover(brief({"off"})); }, testing::ThrowsMessage<Error>("The network interface 'off' is down"));
    DiscoveryRequest unreachable;
    unreachable.targets = {{stranger.address, gvcpPort}};
    EXPECT_THAT([&] { discover(unreachable); },
                testing::ThrowsMessage<Error>("No discovery could be sent on any interface"));
    ForceIpRequest request;
    request.ip = fitting;
    EXPECT_THAT([&] { forceIp(request); }, testing::ThrowsMessage<Error>("No address could be sent on any interface"));
    request.interfaces = {"off"};
    EXPECT_THAT([&] { forceIp(request); }, testing::ThrowsMessage<Error>("The network interface 'off' is down"));
}

TEST_F(NetworkTest, stopEndsTheSearch)
{
    const auto camera = plug(near0, 1, fitting);
    DiscoveryRequest request;
    request.wait = 600s;
    request.stop = [&] { return !camera->heard().empty(); };
    discover(request);
    ForceIpRequest force;
    force.mac = {{1, 2, 3, 4, 5, 6}};
    force.ip = fitting;
    force.wait = 600s;
    force.stop = [&] { return !forces(*camera).empty(); };
    EXPECT_THROW(forceIp(force), CameraError);
}

TEST_F(NetworkTest, forceIpBringsACameraIntoTheSubnet)
{
    const auto camera = plug(near0, 1, stranger);
    const auto bystander = plug(near1, 2, stranger);
    ForceIpRequest request;
    request.mac = camera->mac();
    request.ip = {0xC0A80717, 0xFFFFFF00, 0xC0A807FE};
    request.interfaces = {"near0"};
    const ForcedIp forced = forceIp(request);
    EXPECT_TRUE(forced.acknowledged);
    ASSERT_TRUE(forced.camera);
    EXPECT_EQ(forced.camera->info.ip, request.ip);
    EXPECT_EQ(forced.camera->from, (Endpoint{0xC0A80717, 3956}));
    EXPECT_TRUE(forced.camera->fits());
    EXPECT_EQ(camera->ip(), request.ip);
    EXPECT_EQ(bystander->ip(), stranger);
    EXPECT_THAT(bystander->heard(), IsEmpty());
    std::vector<std::uint8_t> expected{0x42, 0x01, 0, 4, 0, 56, 0x5A, 0x46, 0, 0, 0x02, 0x00, 0x5E, 0x10, 0, 1};
    expected.resize(64);
    const std::vector<std::uint8_t> address{192, 168, 7, 23}, mask{255, 255, 255, 0}, gateway{192, 168, 7, 254};
    std::copy(address.begin(), address.end(), expected.begin() + 28);
    std::copy(mask.begin(), mask.end(), expected.begin() + 44);
    std::copy(gateway.begin(), gateway.end(), expected.begin() + 60);
    ASSERT_FALSE(forces(*camera).empty());
    EXPECT_EQ(forces(*camera)[0], expected);
    const auto found = discover(brief({"near0"}));
    ASSERT_EQ(found.size(), 1u);
    EXPECT_TRUE(found[0].fits());
}

TEST_F(NetworkTest, forceIpWithoutAnAcknowledge)
{
    NetworkCamera::Behaviour behaviour;
    behaviour.acknowledgesForce = false;
    const auto camera = plug(near0, 1, stranger, behaviour);
    ForceIpRequest request;
    request.mac = camera->mac();
    request.ip = fitting;
    const ForcedIp forced = forceIp(request);
    EXPECT_FALSE(forced.acknowledged);
    ASSERT_TRUE(forced.camera);
    EXPECT_EQ(forced.camera->info.ip, fitting);
}

TEST_F(NetworkTest, forceIpIsRepeatedUntilItIsHeard)
{
    NetworkCamera::Behaviour behaviour;
    behaviour.forcesMissed = 2;
    const auto camera = plug(near0, 1, stranger, behaviour);
    ForceIpRequest request;
    request.mac = camera->mac();
    request.ip = fitting;
    request.wait = 1500ms;
    EXPECT_TRUE(forceIp(request).camera);
    const auto sent = forces(*camera);
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ(sent[0][1], 0x01);
    EXPECT_EQ(sent[1][1], 0x11);
    EXPECT_EQ(sent[2][1], 0x11);
}

TEST_F(NetworkTest, forceIpThatNobodyAnswers)
{
    const auto camera = plug(near0, 1, stranger);
    ForceIpRequest request;
    request.mac = {{0x02, 0, 0, 0, 0, 9}};
    request.ip = fitting;
    request.wait = 300ms;
    const auto [status, text] = failure([&] { forceIp(request); });
    EXPECT_EQ(status, Status::timeout);
    EXPECT_EQ(text, "No camera 02:00:00:00:00:09 has answered or shown the new address (status -1011)");
    EXPECT_EQ(camera->ip(), stranger);
    EXPECT_EQ(forces(*camera).size(), 3u);
}

TEST_F(NetworkTest, forceIpThatTheCameraRefuses)
{
    NetworkCamera::Behaviour behaviour;
    behaviour.obeysForce = false;
    behaviour.forceStatus = 0x8006;
    const auto camera = plug(near0, 1, stranger, behaviour);
    ForceIpRequest request;
    request.mac = camera->mac();
    request.ip = fitting;
    const auto [status, text] = failure([&] { forceIp(request); });
    EXPECT_EQ(status, Status::accessDenied);
    EXPECT_EQ(text, "The camera 02:00:5E:10:00:01 refuses the address: access denied (status -1005)");
}

TEST_F(NetworkTest, forceIpThatIsAcknowledgedButNotDone)
{
    NetworkCamera::Behaviour behaviour;
    behaviour.obeysForce = false;
    const auto camera = plug(near0, 1, stranger, behaviour);
    ForceIpRequest request;
    request.mac = camera->mac();
    request.ip = fitting;
    request.wait = 400ms;
    const ForcedIp forced = forceIp(request);
    EXPECT_TRUE(forced.acknowledged);
    EXPECT_FALSE(forced.camera);
    EXPECT_EQ(forces(*camera).size(), 1u);
}

TEST_F(NetworkTest, forceIpWithZerosIsSentOnce)
{
    NetworkCamera::Behaviour behaviour;
    behaviour.acknowledgesForce = false;
    const auto camera = plug(near0, 1, stranger, behaviour);
    ForceIpRequest request;
    request.mac = camera->mac();
    request.wait = 300ms;
    const ForcedIp forced = forceIp(request);
    EXPECT_FALSE(forced.acknowledged);
    EXPECT_FALSE(forced.camera);
    EXPECT_EQ(camera->heard().size(), 1u); // and nothing is looked for
}

TEST_F(NetworkTest, anAddressThatCantBeIsNotSent)
{
    const auto camera = plug(near0, 1, stranger);
    ForceIpRequest request;
    request.mac = camera->mac();
    for (const IpAddress& bad : {IpAddress{0xC0A80700, 0xFFFFFF00, 0}, IpAddress{0, 0xFFFFFF00, 0},
                                 IpAddress{0xC0A80717, 0, 0}, IpAddress{0xC0A80717, 0xFFFFFF00, 1}}) {
        request.ip = bad;
        EXPECT_THROW(forceIp(request), std::invalid_argument);
    }
    EXPECT_THAT(camera->heard(), IsEmpty());
}

} // namespace
