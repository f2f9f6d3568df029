// Features of a simulated camera, through the library and the daemon's own instances in this process: what they say is
// compared with the camera's registers.
#include "features/CameraFeatures.h"
#include "src/InstanceBook.h"
#include "tests/unit/IPCPipe/pipe_support.h"
#include "tools/gevsim/camera.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <cstring>
#include <thread>

namespace {

using namespace zuGevFeatures;
using namespace zuTest;
using namespace std::chrono_literals;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using Reason = FeatureError::Reason;
namespace reg = gevsim::reg;
namespace feature = gevsim::feature;

gevsim::Config cameraConfig(const std::string& ip, bool zipped)
{
    gevsim::Config config;
    config.endpoint = gevsim::Endpoint(ip, 0);
    config.zippedXml = zipped;
    config.userName = "Left";
    return config;
}

struct CameraFeaturesTest : testing::TestWithParam<bool> {
    OwnNames names;
    std::shared_ptr<zuIPCPipe::CMgrServer> manager =
        std::make_shared<zuIPCPipe::CMgrServer>(&zuGevDaemon::OnClientConnect);
    gevsim::Camera camera;
    std::unique_ptr<zuGevClient::Connection> connection = connect(camera);

    CameraFeaturesTest() : camera(cameraConfig("127.0.19.1", false)) {}
    explicit CameraFeaturesTest(bool zipped) : camera(cameraConfig("127.0.19.1", zipped)) {}
    ~CameraFeaturesTest() override
    {
        connection.reset();
        manager.reset();
        zuGevDaemon::CollectGarbage();
    }

    static std::unique_ptr<zuGevClient::Connection> connect(const gevsim::Camera& to)
    {
        auto connection = std::make_unique<zuGevClient::Connection>();
        connection->setDestination({to.ip(), to.port()});
        return connection;
    }
    void link() { connection->link(zuGevClient::LinkMode::control()); }
    float floatAt(std::uint32_t address) const
    {
        const std::uint32_t bits = camera.readRegister(address);
        float value = 0;
        std::memcpy(&value, &bits, sizeof value);
        return value;
    }
};

struct ZippedOrNot : CameraFeaturesTest {
    ZippedOrNot() : CameraFeaturesTest(GetParam()) {}
};

TEST_P(ZippedOrNot, saysWhatTheRegistersHold)
{
    link();
    const auto features = openFeatures(*connection);
    const auto kindOf = [&](const char* name) { return features->describe(name).kind; };
    EXPECT_EQ(kindOf("Width"), Kind::integer);
    EXPECT_EQ(features->integer("Width"), camera.readRegister(feature::width));
    features->set("Width", 320);
    EXPECT_EQ(camera.readRegister(feature::width), 320u);

    EXPECT_EQ(kindOf("ExposureTime"), Kind::real);
    EXPECT_EQ(features->describe("ExposureTime").unit, "us");
    EXPECT_EQ(features->real("ExposureTime"), floatAt(feature::exposureTime));
    features->setText("ExposureTime", "5000");
    EXPECT_EQ(floatAt(feature::exposureTime), 5000.0F);

    EXPECT_EQ(kindOf("ReverseX"), Kind::boolean);
    features->set("ReverseX", true);
    EXPECT_EQ(camera.readRegister(feature::reverseX), 1u);
    EXPECT_TRUE(features->boolean("ReverseX"));

    EXPECT_EQ(kindOf("DeviceUserID"), Kind::text);
    EXPECT_EQ(features->get("DeviceUserID"), Value("Left"));
    features->set("DeviceUserID", "Right");
    const auto bytes = camera.readMemory(reg::userDefinedName, 6);
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), std::string("Right", 6));

    EXPECT_EQ(kindOf("PixelFormat"), Kind::enumeration);
    features->set("PixelFormat", "Mono16");
    EXPECT_EQ(camera.readRegister(feature::pixelFormat), 0x01100007u);
    EXPECT_EQ(features->get("PixelFormat"), Value("Mono16"));

    EXPECT_EQ(kindOf("AcquisitionStart"), Kind::command);
    features->execute("AcquisitionStart");
    EXPECT_TRUE(features->waitForEnd("AcquisitionStart", 10s));
    EXPECT_EQ(camera.readRegister(feature::acquisitionStatus), 1u);
    features->execute("AcquisitionStop");
    EXPECT_EQ(camera.readRegister(feature::acquisitionStatus), 0u);

    const Outcome outcome = features->setAndTell("Height", 100);
    bool payload = false;
    for (const Change& change : outcome.changes)
        payload = payload || change.feature == "PayloadSize";
    EXPECT_TRUE(payload);
    EXPECT_EQ(features->integer("PayloadSize"), 320 * 100 * 2);
}

INSTANTIATE_TEST_SUITE_P(Description, ZippedOrNot, testing::Bool());

TEST_F(CameraFeaturesTest, withoutALinkReadingWorksAndSettingSaysWhoHolds)
{
    const auto features = openFeatures(*connection);
    EXPECT_EQ(features->integer("Width"), 640);
    try {
        features->set("Width", 320);
        FAIL() << "set without control";
    } catch (const zuGevClient::CameraError& error) {
        EXPECT_EQ(error.status(), zuGevClient::Status::accessDenied);
        EXPECT_THAT(error.what(),
                    AllOf(HasSubstr("Width can't be set to 320: "), HasSubstr("nobody holds the camera")));
    }
    const auto other = connect(camera);
    other->bind({0x7F001302, 0});
    other->link(zuGevClient::LinkMode::control());
    for (const char* const name : {"Width", "DeviceUserID"}) {
        try {
            features->setText(name, "320");
            FAIL() << "set while another holds it";
        } catch (const zuGevClient::CameraError& error) {
            EXPECT_THAT(error.what(), HasSubstr("the camera is held by 127.0.19.2:")) << name;
        }
    }
    EXPECT_EQ(features->integer("Width"), 640);
}

TEST_F(CameraFeaturesTest, savedAndLoadedAfterAPowerCycle)
{
    link();
    const auto features = openFeatures(*connection);
    features->setText("ExposureTime", "5000");
    features->setText("PixelFormat", "Mono16");
    features->setText("Width", "320");
    features->setText("TestText", "hello");
    const Saved saved = features->save();
    EXPECT_THAT(saved.problems, IsEmpty());
    const auto json = nlohmann::json::parse(saved.json);
    EXPECT_EQ(json["features"].size(), saved.values);
    for (const auto& item : json["features"])
        EXPECT_NE(item["name"], "GevSCPHostPort");
    camera.powerCycle();
    EXPECT_EQ(camera.readRegister(feature::width), 640u);
    EXPECT_EQ(camera.readRegister(feature::pixelFormat), 0x01080001u);
    connection->unlink();
    link();
    const Loaded loaded = features->load(saved.json);
    EXPECT_THAT(loaded.problems, IsEmpty());
    EXPECT_EQ(loaded.values, saved.values);
    EXPECT_EQ(camera.readRegister(feature::width), 320u);
    EXPECT_EQ(camera.readRegister(feature::pixelFormat), 0x01100007u);
    EXPECT_EQ(floatAt(feature::exposureTime), 5000.0F);
    EXPECT_EQ(features->get("TestText"), Value("hello"));
}

TEST_F(CameraFeaturesTest, aSilentCameraIsAnErrorForEachCall)
{
    connection->setAckTimeout(20ms);
    connection->setRetries(1);
    const auto features = openFeatures(*connection);
    camera.silence(gevsim::Camera::Milliseconds::max());
    for (int i = 0; i < 2; ++i) {
        try {
            features->get("Width");
            FAIL();
        } catch (const zuGevClient::CameraError& error) {
            EXPECT_EQ(error.status(), zuGevClient::Status::timeout);
            EXPECT_THAT(error.what(), HasSubstr("Width can't be read: "));
        }
        EXPECT_THROW(features->state("Width"), zuGevClient::CameraError);
    }
    camera.endSilence();
    EXPECT_EQ(features->integer("Width"), 640);
}

TEST_F(CameraFeaturesTest, descriptionsThatAreNotThere)
{
    const auto refused = [&](const char* url, const char* words) {
        gevsim::Camera other(cameraConfig("127.0.19.3", false));
        std::vector<std::uint8_t> text(512);
        std::memcpy(text.data(), url, std::strlen(url));
        // The URL is the camera's own, so it is replaced on its way.
        struct Port : ConnectionPort {
            using ConnectionPort::ConnectionPort;
            std::vector<std::uint8_t> url;
            void readMemory(std::uint32_t address, void* to, std::size_t size) override
            {
                ConnectionPort::readMemory(address, to, size);
                if (address == 0x200 && size <= url.size())
                    std::memcpy(to, url.data(), size);
            }
        };
        auto port = std::make_shared<Port>(*connection);
        port->url = text;
        try {
            openFeatures(port);
            FAIL() << url;
        } catch (const FeatureError& error) {
            EXPECT_EQ(error.reason(), Reason::description);
            EXPECT_THAT(error.what(), HasSubstr(words)) << url;
        }
    };
    refused("", "names no description");
    refused("http://example.com/camera.xml", "keeps its description elsewhere: http://example.com/camera.xml");
    refused("Local:camera.xml;20000000;FFFFFFF", "larger than can be meant");
    refused("Local:camera.xml;10000;100", "damaged"); // memory that is all zeros
    refused("Local:camera.zip;200;20", "damaged");
}

/// Eight threads set, read and list on one camera. ZU_FEATURES_SECONDS says for how long.
TEST_F(CameraFeaturesTest, eightThreadsOnOneCamera)
{
    const char* const asked = std::getenv("ZU_FEATURES_SECONDS");
    const auto seconds = std::chrono::seconds(asked != nullptr ? std::atoi(asked) : 2);
    link();
    const auto features = openFeatures(*connection);
    const auto end = std::chrono::steady_clock::now() + seconds;
    std::atomic<std::uint64_t> done{0};
    std::vector<std::thread> threads;
    for (int number = 0; number < 8; ++number) {
        threads.emplace_back([&, number] {
            const std::string own = "thread" + std::to_string(number);
            while (std::chrono::steady_clock::now() < end) {
                switch (number) {
                case 0:
                    features->set("PixelFormat", done % 2 == 0 ? "Mono8" : "Mono16");
                    break;
                case 1:
                    EXPECT_THAT(std::get<std::string>(features->get("PixelFormat")), HasSubstr("Mono"));
                    break;
                case 2:
                    EXPECT_FALSE(
                        features->setAndTell("Width", 16 + 4 * static_cast<std::int64_t>(done % 100)).text.empty());
                    break;
                case 3:
                    EXPECT_EQ(features->integer("PayloadSize") % 4, 0);
                    break;
                case 4:
                    for (const Feature& one : features->list())
                        EXPECT_EQ(features->state(one.name).problem, "");
                    break;
                case 5:
                    EXPECT_THROW(features->set("Height", 99999), FeatureError);
                    break;
                case 6:
                    EXPECT_THAT(features->save().problems, IsEmpty());
                    break;
                default:
                    features->set("TestText", own);
                    EXPECT_EQ(features->getText("TestText"), own);
                }
                ++done;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_GT(done, 8u);
}

TEST_F(CameraFeaturesTest, camerasDoNotWaitForEachOther)
{
    gevsim::Camera other(cameraConfig("127.0.19.4", false));
    const auto toOther = connect(other);
    const auto slow = openFeatures(*connection);
    const auto quick = openFeatures(*toOther);
    connection->setAckTimeout(5s);
    connection->setRetries(1);
    camera.inject(gevsim::Fault::hold());
    std::atomic<bool> ended{false};
    std::thread waiting([&] {
        EXPECT_EQ(slow->integer("Width"), 640);
        ended = true;
    });
    EXPECT_TRUE(camera.waitFor([&] { return camera.heldAnswers() == 1; }));
    EXPECT_EQ(quick->integer("Width"), 640);
    EXPECT_FALSE(ended);
    camera.release();
    waiting.join();
}

TEST_F(CameraFeaturesTest, whoWaitsForALostDaemonFailsAtOnceAfterIt)
{
    const auto features = openFeatures(*connection);
    connection->setAckTimeout(20ms);
    connection->setRetries(1);
    manager.reset();
    zuGevDaemon::CollectGarbage();
    const auto elapsed = [&] {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_THROW(features->get("Width"), zuGevClient::NoDaemonError);
        return std::chrono::steady_clock::now() - start;
    };
    elapsed();
    EXPECT_LT(elapsed(), 1s);
}

} // namespace
