// Features by name beside a stranger who reads them directly: the same names, the same values, of its own camera
// simulator and of ours.
#include "daemon_under_test.h"
#include "features/CameraFeatures.h"
#include "tools/gevsim/camera.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <map>
#include <regex>
#include <sstream>

using namespace zuTest;
using namespace zuGevClient;
using namespace zuGevFeatures;

namespace {

constexpr const char* fakeCamera = "arv-fake-gv-camera-0.8";
constexpr const char* reader = "arv-tool-0.8";

struct Listed {
    std::string path; ///< categories and name
    std::string access;
    std::vector<std::string> entries;
    friend bool operator==(const Listed&, const Listed&) = default;
    friend void PrintTo(const Listed& listed, std::ostream* out)
    {
        *out << listed.path << " [" << listed.access << "] " << testing::PrintToString(listed.entries);
    }
};

/// The reader's tree: "    Integer : [RW] 'Width'", entries and members indented below.
std::vector<Listed> parseTree(const std::string& text)
{
    static const std::regex line(R"(^( *)(\w+) *: (?:\[(\w+)\] )?'([^']*)')");
    std::vector<Listed> features;
    std::vector<std::string> path;
    std::istringstream lines(text);
    for (std::string one; std::getline(lines, one);) {
        std::smatch match;
        if (!std::regex_search(one, match, line))
            continue;
        const std::size_t depth = match[1].length() / 4;
        if (match[2] == "EnumEntry") {
            features.back().entries.push_back(match[4]);
            continue;
        }
        path.resize(depth);
        path.push_back(match[4]);
        if (match[2] == "Category")
            continue;
        std::string whole;
        for (std::size_t i = 1; i < path.size(); ++i)
            whole += "/" + path[i];
        features.push_back({whole, match[3], {}});
    }
    for (Listed& feature : features)
        std::sort(feature.entries.begin(), feature.entries.end());
    return features;
}

std::vector<Listed> ours(Features& features)
{
    std::vector<Listed> listed;
    for (const Feature& feature : features.list()) {
        if (feature.kind == Kind::category)
            continue;
        const State state = features.state(feature.name);
        // The reader says nothing of what isn't available.
        static const std::map<Access, const char*> words = {
            {Access::readOnly, "RO"}, {Access::writeOnly, "WO"}, {Access::readWrite, "RW"}};
        // Nor does it look at what locks a feature, as the selected kind of chunk does here.
        const bool locked = feature.name == "ChunkEnable" && state.access == Access::readOnly;
        const auto access = words.find(locked ? Access::readWrite : state.access);
        Listed one{"/" + feature.category + "/" + feature.name, access != words.end() ? access->second : "", {}};
        for (const Entry& entry : state.entries)
            one.entries.push_back(entry.name);
        std::sort(one.entries.begin(), one.entries.end());
        listed.push_back(std::move(one));
    }
    return listed;
}

/// What the reader reads: "Integer : [RW] 'Width' = 512".
std::map<std::string, std::string> parseValues(const std::string& text)
{
    static const std::regex line(R"('([^']*)' = (?:'(.*)'|(\S+)))");
    std::map<std::string, std::string> values;
    std::istringstream lines(text);
    for (std::string one; std::getline(lines, one);) {
        std::smatch match;
        if (std::regex_search(one, match, line))
            values[match[1]] = match[2].matched ? match[2] : match[3];
    }
    return values;
}

void compare(const std::string& address, std::size_t least)
{
    Connection connection;
    connection.setDestination(*parseEndpoint(address));
    std::unique_ptr<Features> features;
    // The simulator says nothing when it is up: the first answer tells.
    for (int attempt = 0; !features && attempt < 30; ++attempt) {
        try {
            features = openFeatures(connection);
        } catch (const CameraError&) {
            // not yet
        }
    }
    ASSERT_TRUE(features);
    const std::vector<Listed> listed = parseTree(runCommand({reader, "-a", address, "features"}).output);
    ASSERT_GT(listed.size(), least);
    EXPECT_EQ(ours(*features), listed);

    const auto values = parseValues(runCommand({reader, "-a", address, "values"}).output);
    ASSERT_GT(values.size(), least / 2);
    for (const auto& [name, text] : values) {
        if (name == "GevCCP")
            continue; // the reader itself holds the camera while it reads
        const Value value = features->get(name);
        if (const auto* const real = std::get_if<double>(&value))
            EXPECT_FLOAT_EQ(static_cast<float>(*real), std::stof(text)) << name;
        else
            EXPECT_EQ(features->getText(name), text) << name;
    }
}

} // namespace

TEST(IndependentFeatures, TheSameOfItsOwnSimulator)
{
    if (!isInstalled(fakeCamera) || !isInstalled(reader))
        GTEST_SKIP() << fakeCamera << " or " << reader
                     << " is not installed (apt-get install aravis-tools aravis-tools-cli)";
    DaemonUnderTest daemon;
    ChildProcess camera({fakeCamera, "-i", "127.0.0.1", "-s", "ZU_FEATURES"});
    compare("127.0.0.1", 20);

    Connection connection;
    connection.setDestination({0x7F000001, gvcpPort});
    connection.link(LinkMode::control());
    const auto features = openFeatures(connection);
    features->set("Width", 256);
    EXPECT_EQ(connection.readRegister(0x100), 256u);
    EXPECT_EQ(features->integer("PayloadSize"), 256 * features->integer("Height"));
    features->set("PixelFormat", "Mono16");
    EXPECT_EQ(connection.readRegister(0x128), 0x01100007u);
    features->set("ExposureTimeAbs", 2500.0);
    EXPECT_EQ(features->real("ExposureTimeAbs"), 2500.0);
    EXPECT_THROW(features->set("Width", 99999), FeatureError);
    features->execute("AcquisitionStart");
    EXPECT_TRUE(features->waitForEnd("AcquisitionStart", std::chrono::seconds(10)));
    EXPECT_EQ(connection.readRegister(0x124), 1u);
    features->execute("AcquisitionStop");

    const Saved saved = features->save();
    EXPECT_THAT(saved.problems, testing::IsEmpty());
    features->set("Width", 512);
    EXPECT_THAT(features->load(saved.json).problems, testing::IsEmpty());
    EXPECT_EQ(connection.readRegister(0x100), 256u);
    EXPECT_EQ(features->get("TriggerSelector"), Value("FrameStart"));
}

TEST(IndependentFeatures, TheSameOfOurSimulator)
{
    if (!isInstalled(reader))
        GTEST_SKIP() << reader << " is not installed (apt-get install aravis-tools-cli)";
    DaemonUnderTest daemon;
    for (const bool zipped : {false, true}) {
        gevsim::Config config;
        config.endpoint = gevsim::Endpoint("127.0.17.9", gvcpPort);
        config.zippedXml = zipped;
        config.userName = "Left";
        const gevsim::Camera camera(config);
        compare("127.0.17.9", 20);
    }
}
