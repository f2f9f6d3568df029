// Whole commands, from the command line to what is printed, with the daemon's instances and a simulated camera in this
// process.
#include "src/InstanceBook.h"
#include "tests/support/files.h"
#include "tests/unit/IPCPipe/pipe_support.h"
#include "tools/gevctl/commands.h"
#include "tools/gevsim/camera.h"
#include "tools/gevsim/genicam.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

namespace {

using namespace gevctl;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using Bytes = std::vector<std::uint8_t>;
using NlohmannJson = nlohmann::json;

constexpr std::uint32_t memoryBase = gevsim::region::memory;

gevsim::Config cameraConfig(bool zipped = false)
{
    gevsim::Config config;
    config.endpoint = gevsim::Endpoint("127.0.15.3", 0);
    config.zippedXml = zipped;
    config.userName = "Left";
    return config;
}

/// A stream buffer that can be read while another thread writes to it.
class Capture : public std::streambuf {
public:
    std::string text() const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return text_;
    }

protected:
    int overflow(int character) override
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        text_ += static_cast<char>(character);
        return character;
    }
    std::streamsize xsputn(const char* data, std::streamsize size) override
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        text_.append(data, static_cast<std::size_t>(size));
        return size;
    }

private:
    mutable std::mutex mutex_;
    std::string text_;
};

struct GevctlTest : testing::Test {
    zuTest::OwnNames names;
    std::shared_ptr<zuIPCPipe::CMgrServer> manager =
        std::make_shared<zuIPCPipe::CMgrServer>(&zuGevDaemon::OnClientConnect);
    gevsim::Camera camera{cameraConfig()};
    const zuTest::TemporaryFolder folder;
    std::atomic<bool> stop{false};
    std::string out, err, in;
    bool terminal = false;

    ~GevctlTest() override
    {
        manager.reset();
        zuGevDaemon::CollectGarbage();
    }

    /// Runs a command line, in which CAMERA stands for the camera's address.
    int gevctl(const std::string& line)
    {
        std::istringstream words(line);
        std::vector<std::string> arguments;
        for (std::string word; words >> word;)
            arguments.push_back(word == "CAMERA" ? address() : word);
        const Parsed parsed = parseCommandLine(arguments);
        EXPECT_TRUE(parsed.options) << parsed.err;
        if (!parsed.options)
            return parsed.exitCode;
        std::istringstream input(in);
        std::ostringstream output, errors;
        const int code = run(*parsed.options, {input, output, errors, terminal, terminal, stop});
        out = output.str();
        err = errors.str();
        return code;
    }
    std::string address() const { return "127.0.15.3:" + std::to_string(camera.port()); }
    NlohmannJson json() const { return NlohmannJson::parse(out); }
    std::string file(const std::string& name) const { return folder / name; }
    static Bytes content(const std::string& name)
    {
        const std::string text = zuTest::readFile(name);
        return {text.begin(), text.end()};
    }
};

TEST_F(GevctlTest, registersPlainAndJson)
{
    EXPECT_EQ(gevctl("reg write -c CAMERA 0xA050 0x1234 0xA060 7"), 0) << err;
    EXPECT_EQ(out, "0x0000A050: 0x00001234 written\n0x0000A060: 0x00000007 written\n");
    EXPECT_EQ(camera.readRegister(0xA050), 0x1234u);
    EXPECT_EQ(camera.readRegister(gevsim::reg::ccp), 0u); // given back
    EXPECT_EQ(gevctl("reg read -c CAMERA 0xA050 0xA060"), 0);
    EXPECT_EQ(out, "0x0000A050: 0x00001234 4660\n0x0000A060: 0x00000007 7\n");
    EXPECT_EQ(gevctl("reg read -c CAMERA 0xA050 --json"), 0);
    EXPECT_EQ(json(),
              NlohmannJson::parse(R"({"registers":[{"address":"0x0000A050","value":4660,"hex":"0x00001234"}]})"));
    EXPECT_EQ(gevctl("reg write -c CAMERA 0xA050 1 --json"), 0);
    EXPECT_EQ(json()["written"][0]["value"], 1);
}

TEST_F(GevctlTest, cameraErrorsAreFour)
{
    EXPECT_EQ(gevctl("reg read -c CAMERA 0x0F000000"), exitCamera);
    EXPECT_THAT(err, AllOf(StartsWith("gevctl: Reading register 0x0F000000: invalid address"), HasSubstr("-1015")));
    EXPECT_EQ(gevctl("reg read -c CAMERA 0x0F000000 --json"), exitCamera);
    EXPECT_EQ(NlohmannJson::parse(err)["error"]["status"], -1015);
    EXPECT_EQ(NlohmannJson::parse(err)["error"]["kind"], "camera");
    EXPECT_EQ(out, "");
    camera.writeRegister(gevsim::reg::ccp, gevsim::ccpValue::control);
    EXPECT_EQ(gevctl("reg write -c CAMERA 0xA050 1"), exitCamera);
    EXPECT_THAT(err, HasSubstr("another application may hold it"));
    camera.silence(gevsim::Camera::Milliseconds::max());
    EXPECT_EQ(gevctl("info -c CAMERA --ack-timeout 20 --retries 1"), exitCamera);
    EXPECT_THAT(err, HasSubstr("does not answer"));
}

TEST_F(GevctlTest, noDaemonIsThree)
{
    manager.reset();
    for (const char* const line : {"status", "info -c CAMERA", "reg read -c CAMERA 0", "watch -c CAMERA"})
        EXPECT_EQ(gevctl(line), exitNoDaemon) << line;
    EXPECT_EQ(gevctl("status --json"), exitNoDaemon);
    EXPECT_EQ(NlohmannJson::parse(err)["error"]["kind"], "daemon");
}

TEST_F(GevctlTest, otherFailuresAreOne)
{
    EXPECT_EQ(gevctl("mem write -c CAMERA 0x10000 /no/such/file"), exitFailure);
    EXPECT_THAT(err, HasSubstr("/no/such/file"));
    EXPECT_EQ(gevctl("mem read -c CAMERA 0x10000 4 -o /no/such/folder/file"), exitFailure);
    stop = true;
    EXPECT_EQ(gevctl("mem read -c CAMERA 0x10000 4"), exitFailure);
    EXPECT_EQ(err, "gevctl: Interrupted\n");
}

TEST_F(GevctlTest, info)
{
    EXPECT_EQ(gevctl("info -c CAMERA"), 0) << err;
    EXPECT_THAT(out, AllOf(HasSubstr("model:                  gevsim\n"), HasSubstr("userName:               Left\n"),
                           HasSubstr("access:                 free\n")));
    EXPECT_EQ(gevctl("info -c CAMERA --json"), 0);
    EXPECT_EQ(json()["manufacturer"], "Simulated Optics");
    EXPECT_EQ(json()["ip"], "127.0.15.3");
    EXPECT_EQ(json()["heartbeatTimeoutMs"], 3000);
    EXPECT_EQ(json()["streamChannels"], camera.readRegister(gevsim::reg::numberOfStreamChannels));
}

TEST_F(GevctlTest, memoryToScreenFileAndOutput)
{
    Bytes bytes(50001);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<std::uint8_t>(i * 31);
    camera.writeMemory(memoryBase, bytes);
    EXPECT_EQ(gevctl("mem read -c CAMERA 0x10001 5"), 0);
    EXPECT_THAT(out, StartsWith("00010001  1F 3E 5D 7C 9B "));
    EXPECT_EQ(gevctl("mem read -c CAMERA 0x10001 3 --json"), 0);
    EXPECT_EQ(json()["data"], "1f3e5d");
    EXPECT_EQ(gevctl("mem read -c CAMERA 0x10000 50001 -o " + file("dump.bin")), 0) << err;
    EXPECT_EQ(content(file("dump.bin")), bytes);
    EXPECT_THAT(out, StartsWith("50001 bytes written to"));
    EXPECT_EQ(err, ""); // no bar where nobody watches
    EXPECT_EQ(gevctl("mem read -c CAMERA 0x10000 100 -o -"), 0);
    EXPECT_EQ(Bytes(out.begin(), out.end()), Bytes(bytes.begin(), bytes.begin() + 100));
}

TEST_F(GevctlTest, memoryFromFileInputAndLine)
{
    Bytes bytes(30003, 0xA7);
    std::ofstream(file("in.bin"), std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), 30003);
    terminal = true;
    EXPECT_EQ(gevctl("mem write -c CAMERA 0x10001 " + file("in.bin") + " --verify"), 0) << err;
    EXPECT_THAT(err, AllOf(HasSubstr("Writing ["), HasSubstr("Verifying ["), HasSubstr("100 %")));
    EXPECT_EQ(out, "30003 bytes written at 0x00010001, verified\n");
    EXPECT_EQ(camera.readMemory(memoryBase + 1, 30003), bytes);
    EXPECT_EQ(camera.readMemory(memoryBase, 1)[0], 0);
    EXPECT_EQ(camera.readRegister(gevsim::reg::ccp), 0u);
    EXPECT_EQ(gevctl("mem write -c CAMERA 0x10001 " + file("in.bin") + " -q"), 0);
    EXPECT_EQ(err + out, "");
    in = "abc";
    EXPECT_EQ(gevctl("mem write -c CAMERA 0x10002 -"), 0);
    EXPECT_EQ(camera.readMemory(memoryBase + 2, 3), (Bytes{'a', 'b', 'c'}));
    EXPECT_EQ(gevctl("mem write -c CAMERA 0x10002 -d 01:02"), 0);
    EXPECT_EQ(camera.readMemory(memoryBase + 2, 3), (Bytes{1, 2, 'c'}));
    in.clear();
    EXPECT_EQ(gevctl("mem write -c CAMERA 0x10002 -"), 0);
    EXPECT_EQ(out, "0 bytes written at 0x00010002\n");
}

TEST_F(GevctlTest, xmlAsItIs)
{
    EXPECT_EQ(gevctl("xml -c CAMERA"), 0) << err;
    EXPECT_EQ(out, gevsim::genicamXml());
    EXPECT_EQ(gevctl("xml -c CAMERA --url"), 0);
    EXPECT_THAT(out, HasSubstr("gevsim.xml;20000000;"));
    EXPECT_EQ(gevctl("xml -c CAMERA -o " + file("camera.xml") + " --json"), 0);
    EXPECT_EQ(json()["size"], gevsim::genicamXml().size());
    const Bytes saved = content(file("camera.xml"));
    EXPECT_EQ(std::string(saved.begin(), saved.end()), gevsim::genicamXml());
}

TEST_F(GevctlTest, xmlUnzipped)
{
    gevsim::Config config = cameraConfig(true);
    config.endpoint = gevsim::Endpoint("127.0.15.4", 0);
    const gevsim::Camera zipped(config);
    const std::string target = "127.0.15.4:" + std::to_string(zipped.port());
    EXPECT_EQ(gevctl("xml -c " + target), 0) << err;
    EXPECT_EQ(out, gevsim::genicamXml());
    EXPECT_EQ(gevctl("xml --raw -c " + target), 0);
    const auto archive = gevsim::makeGenicamFile(true).bytes;
    EXPECT_EQ(Bytes(out.begin(), out.end()), archive);
}

TEST_F(GevctlTest, timeouts)
{
    EXPECT_EQ(gevctl("timeouts get -c CAMERA"), 0) << err;
    EXPECT_THAT(out, AllOf(HasSubstr("ackTimeoutMs:       300\n"), HasSubstr("retries:            3\n"),
                           HasSubstr("heartbeatTimeoutMs: 3000\n")));
    EXPECT_EQ(gevctl("timeouts set -c CAMERA --heartbeat 5000 --retries 8 --json"), 0) << err;
    EXPECT_EQ(json()["heartbeatTimeoutMs"], 5000);
    EXPECT_EQ(json()["heartbeatMarginMs"], 4500);
    EXPECT_EQ(camera.readRegister(gevsim::reg::heartbeatTimeout), 5000u);
}

TEST_F(GevctlTest, statusAndCheck)
{
    EXPECT_EQ(gevctl("status"), 0);
    EXPECT_THAT(out, StartsWith("daemon: running\nport:   "));
    EXPECT_EQ(gevctl("status -c CAMERA --json"), 0) << err;
    EXPECT_EQ(json()["access"], "free");
    camera.setControl({gevsim::ccpValue::control, gevsim::Endpoint("127.0.15.9", 555)});
    EXPECT_EQ(gevctl("status -c CAMERA --json"), 0) << err;
    EXPECT_EQ(json()["access"], "controlled");
    EXPECT_EQ(json()["heldBy"], "127.0.15.9:555");
    camera.setControl({0, gevsim::Endpoint(0, 0)});
    EXPECT_EQ(gevctl("check -c CAMERA -a exclusive -l 127.0.15.5 --json"), 0) << err;
    EXPECT_EQ(json()["holds"], true);
    EXPECT_EQ(json()["privilege"], "0x00000001");
    EXPECT_THAT(json()["local"].get<std::string>(), StartsWith("127.0.15.5:"));
    EXPECT_EQ(camera.readRegister(gevsim::reg::ccp), 0u);
}

TEST_F(GevctlTest, watchTellsWhatHappensAndGivesTheCameraBack)
{
    Capture captured;
    std::ostream output(&captured);
    std::istringstream input;
    std::ostringstream errors;
    const Parsed parsed = parseCommandLine({"watch", "-c", address(), "--json"});
    int code = -1;
    std::thread watcher([&] { code = run(*parsed.options, {input, output, errors, false, false, stop}); });
    const auto printed = [&](const std::string& what) {
        return zuTest::eventually([&] { return captured.text().find("\"event\":\"" + what) != std::string::npos; });
    };
    EXPECT_TRUE(printed("linked"));
    camera.powerCycle();
    EXPECT_TRUE(printed("control lost"));
    EXPECT_TRUE(printed("reconnected"));
    stop = true; // as Ctrl-C does
    watcher.join();
    EXPECT_EQ(code, 0) << errors.str();
    EXPECT_EQ(camera.readRegister(gevsim::reg::ccp), 0u);
    std::istringstream lines(captured.text());
    std::vector<std::string> told;
    for (std::string line; std::getline(lines, line);)
        told.push_back(NlohmannJson::parse(line)["event"]);
    EXPECT_EQ(told.front(), "linked");
    EXPECT_EQ(told.back(), "unlinked");
}

TEST_F(GevctlTest, watchEndsAfterItsTimeAndWhenTheDaemonGoes)
{
    EXPECT_EQ(gevctl("watch -c CAMERA --for 50"), 0) << err;
    EXPECT_THAT(out, AllOf(HasSubstr("  linked\n"), HasSubstr("  unlinked\n")));
    const auto parsed = parseCommandLine({"watch", "-c", address()});
    Capture captured;
    std::ostream output(&captured);
    std::istringstream input;
    std::ostringstream errors;
    int code = -1;
    std::thread watcher([&] { code = run(*parsed.options, {input, output, errors, false, false, stop}); });
    EXPECT_TRUE(zuTest::eventually([&] { return captured.text().find("linked") != std::string::npos; }));
    manager.reset();
    watcher.join();
    EXPECT_EQ(code, exitNoDaemon);
    EXPECT_THAT(errors.str(), HasSubstr("The daemon is gone"));
}

/// The standard output of a program whose reader goes after the first line.
class OneLineReader : public std::streambuf {
public:
    int lines() const { return lines_; }

private:
    int_type overflow(int_type character) override
    {
        if (lines_ != 0)
            return traits_type::eof();
        if (character == '\n')
            ++lines_;
        return character;
    }
    std::atomic<int> lines_{0};
};

TEST_F(GevctlTest, watchEndsWithItsReader)
{
    const auto parsed = parseCommandLine({"watch", "-c", address()});
    OneLineReader reader;
    std::ostream output(&reader);
    std::istringstream input;
    std::ostringstream errors;
    int code = -1;
    std::thread watcher([&] { code = run(*parsed.options, {input, output, errors, false, false, stop}); });
    EXPECT_TRUE(zuTest::eventually([&] { return reader.lines() == 1; }));
    camera.powerCycle();
    watcher.join();
    EXPECT_EQ(code, exitFailure) << errors.str();
    EXPECT_EQ(camera.readRegister(gevsim::reg::ccp), 0u);
}

TEST_F(GevctlTest, discoverByAddress)
{
    manager.reset(); // not needed
    EXPECT_EQ(gevctl("discover --address " + address() + " --wait 1000 --json"), 0) << err;
    ASSERT_EQ(json()["cameras"].size(), 1u);
    EXPECT_EQ(json()["cameras"][0]["model"], "gevsim");
    EXPECT_EQ(json()["cameras"][0]["address"], address());
    EXPECT_EQ(gevctl("discover --address " + address() + " --wait 1000"), 0);
    EXPECT_THAT(out, AllOf(StartsWith("127.0.15.3  "), HasSubstr("  gevsim  "), HasSubstr("  \"Left\"  (lo)\n")));
    EXPECT_EQ(gevctl("discover --address 127.0.15.250 --wait 50"), 0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "No camera has answered.\n");
    EXPECT_EQ(gevctl("discover -i no-such-interface"), exitFailure);
}

TEST_F(GevctlTest, featuresAreListedAsATreeAndAsJson)
{
    EXPECT_EQ(gevctl("feature list -c CAMERA"), 0) << err;
    EXPECT_THAT(out, AllOf(HasSubstr("\nImageFormatControl\n"), HasSubstr("\n  Width "),
                           HasSubstr("  16 to 640 in steps of 4\n"), HasSubstr("  Mono8, Mono10, "),
                           HasSubstr("  (command)\n"), HasSubstr("(read only)\n"), HasSubstr(" 10000 us ")));
    EXPECT_EQ(gevctl("feature list -c CAMERA --json"), 0);
    std::map<std::string, NlohmannJson> byName;
    const NlohmannJson listed = json();
    for (const auto& feature : listed["features"])
        byName[feature["name"]] = feature;
    EXPECT_EQ(byName["Width"]["value"], 640);
    EXPECT_EQ(byName["Width"]["maximum"], 640);
    EXPECT_EQ(byName["Width"]["category"], "ImageFormatControl");
    EXPECT_EQ(byName["ExposureTime"]["unit"], "us");
    EXPECT_EQ(byName["PixelFormat"]["entries"][0]["name"], "Mono8");
    EXPECT_EQ(byName["AcquisitionStart"]["kind"], "command");
    EXPECT_EQ(camera.writesTo(gevsim::reg::ccp).size(), 0u); // looking takes no control
}

TEST_F(GevctlTest, featuresAreReadAndSet)
{
    EXPECT_EQ(gevctl("feature set -c CAMERA ExposureTime=5000 PixelFormat=Mono16"), 0) << err;
    EXPECT_THAT(out, AllOf(StartsWith("ExposureTime: 5000 us\n"), HasSubstr("\nPixelFormat: Mono16\n"),
                           HasSubstr("\n  PayloadSize: 307200 -> 614400\n")));
    EXPECT_EQ(camera.readRegister(gevsim::feature::pixelFormat), 0x01100007u);
    EXPECT_EQ(camera.readRegister(gevsim::reg::ccp), 0u); // given back
    EXPECT_EQ(gevctl("feature get -c CAMERA ExposureTime"), 0);
    EXPECT_EQ(out, "5000 us\n");
    EXPECT_EQ(gevctl("feature get -c CAMERA ExposureTime PixelFormat"), 0);
    EXPECT_EQ(out, "ExposureTime: 5000 us\nPixelFormat: Mono16\n");
    EXPECT_EQ(gevctl("feature get -c CAMERA Width --json"), 0);
    EXPECT_EQ(json()["features"][0]["value"], 640);
    EXPECT_EQ(gevctl("feature set -c CAMERA Width=320 --json"), 0);
    EXPECT_EQ(json()["set"][0]["value"], 320);
    EXPECT_THAT(json()["set"][0]["changes"].dump(), HasSubstr("\"PayloadSize\""));
    EXPECT_EQ(gevctl("feature run -c CAMERA AcquisitionStart"), 0);
    EXPECT_EQ(out, "AcquisitionStart: done\n");
    EXPECT_EQ(camera.readRegister(gevsim::feature::acquisitionStatus), 1u);
    EXPECT_EQ(gevctl("feature describe -c CAMERA PixelFormat"), 0);
    EXPECT_THAT(out, AllOf(StartsWith("PixelFormat\n"), HasSubstr("  entry:        Mono8 (17301505)\n")));
}

TEST_F(GevctlTest, aRefusedFeatureIsFiveAndSaysWhatIsAllowed)
{
    EXPECT_EQ(gevctl("feature set -c CAMERA Width=99999"), exitFeature);
    EXPECT_EQ(err, "gevctl: Width can't be set to 99999: allowed is 16 to 640 in steps of 4\n");
    EXPECT_EQ(gevctl("feature get -c CAMERA Widht --json"), exitFeature);
    EXPECT_EQ(NlohmannJson::parse(err)["error"]["kind"], "feature");
    EXPECT_EQ(gevctl("feature set -c CAMERA -a monitor Width=320"), exitCamera);
    EXPECT_THAT(err, HasSubstr("nobody holds the camera"));
    stop = true;
    EXPECT_EQ(gevctl("feature list -c CAMERA"), exitFailure);
    EXPECT_EQ(err, "gevctl: Interrupted\n");
}

TEST_F(GevctlTest, whatTheCameraRoundsIsTold)
{
    // The camera keeps whole hundreds.
    camera.onCommand([&](const gevsim::Datagram&) {
        if (camera.readRegister(gevsim::feature::testValue) % 100 != 0)
            camera.writeRegister(gevsim::feature::testValue, 100);
    });
    EXPECT_EQ(gevctl("feature set -c CAMERA TestValue=123"), 0) << err;
    EXPECT_EQ(out, "TestValue: 100, which the camera made of 123\n");
    camera.onCommand({});
}

TEST_F(GevctlTest, featuresAreSavedAndLoadedAfterAPowerCycle)
{
    EXPECT_EQ(gevctl("feature set -c CAMERA ExposureTime=5000 PixelFormat=Mono16 Width=320"), 0) << err;
    EXPECT_EQ(gevctl("feature save -c CAMERA -o " + file("saved.json")), 0) << err;
    EXPECT_THAT(out, HasSubstr(" values written to "));
    camera.powerCycle();
    EXPECT_EQ(camera.readRegister(gevsim::feature::width), 640u);
    EXPECT_EQ(gevctl("feature load -c CAMERA " + file("saved.json")), 0) << err;
    EXPECT_THAT(out, HasSubstr(" values stand as they were saved\n"));
    EXPECT_EQ(camera.readRegister(gevsim::feature::width), 320u);
    EXPECT_EQ(camera.readRegister(gevsim::feature::pixelFormat), 0x01100007u);
    EXPECT_EQ(gevctl("feature save -c CAMERA"), 0);
    EXPECT_EQ(json()["format"], "zugev-features");
    in =
        R"({"format":"zugev-features","version":1,"features":[{"name":"Width","value":7},{"name":"Height","value":100}]})";
    EXPECT_EQ(gevctl("feature load -c CAMERA -"), exitFeature);
    EXPECT_THAT(err, HasSubstr("Width can't be set to 7: allowed is 16 to 640"));
    EXPECT_EQ(camera.readRegister(gevsim::feature::height), 100u);
    in = "{}";
    EXPECT_EQ(gevctl("feature load -c CAMERA -"), exitFeature);
}

TEST_F(GevctlTest, namesAndEntriesAreCompletedFromACache)
{
    ASSERT_EQ(setenv("XDG_CACHE_HOME", folder.path().c_str(), 1), 0);
    EXPECT_EQ(gevctl("feature complete -c CAMERA"), 0) << err;
    EXPECT_THAT(out, AllOf(HasSubstr("\nWidth\n"), HasSubstr("\nPixelFormat\n")));
    const auto described = [&] { return camera.commands(gevsim::Command::readMem, gevsim::region::xml).size(); };
    EXPECT_EQ(described(), 1u);
    EXPECT_EQ(gevctl("feature complete -c CAMERA PixelFormat="), 0) << err;
    EXPECT_THAT(out, AllOf(StartsWith("Mono8\n"), HasSubstr("\nMono16\n")));
    EXPECT_EQ(gevctl("feature complete -c CAMERA ReverseX="), 0);
    EXPECT_EQ(out, "true\nfalse\n");
    EXPECT_EQ(described(), 1u); // only the first has fetched it
    for (const auto& cached : std::filesystem::directory_iterator(folder.path() / "zugevsvc"))
        std::filesystem::resize_file(cached.path(), 100);
    EXPECT_EQ(gevctl("feature complete -c CAMERA ReverseX="), 0);
    EXPECT_EQ(described(), 2u);
    unsetenv("XDG_CACHE_HOME");
}

TEST_F(GevctlTest, addressesThatACameraKeeps)
{
    EXPECT_EQ(gevctl("ip show -c CAMERA"), 0) << err;
    EXPECT_THAT(out, AllOf(HasSubstr("ip:                   127.0.15.3\n"), HasSubstr("userName:             Left\n")));
    EXPECT_EQ(gevctl("ip persistent -c CAMERA 127.0.15.9/8 --gateway 127.0.15.1 --json"), 0) << err;
    EXPECT_EQ(json()["persistentIp"], "127.0.15.9");
    EXPECT_EQ(json()["persistentSubnetMask"], "255.0.0.0");
    EXPECT_EQ(json()["persistentGateway"], "127.0.15.1");
    EXPECT_THAT(json()["on"].get<std::string>(), StartsWith("persistent"));
    EXPECT_EQ(err, "");
    EXPECT_EQ(camera.readRegister(gevsim::reg::persistentIp), 0x7F000F09u);
    EXPECT_EQ(camera.readRegister(gevsim::reg::persistentSubnetMask), 0xFF000000u);
    EXPECT_EQ(camera.readRegister(gevsim::reg::persistentGateway), 0x7F000F01u);
    EXPECT_EQ(camera.readRegister(gevsim::reg::ccp), 0u); // given back

    EXPECT_EQ(gevctl("ip dhcp -c CAMERA on"), 0) << err;
    EXPECT_THAT(out, HasSubstr("dhcp, link-local\n"));
    EXPECT_THAT(err, AllOf(StartsWith("In force from the camera's next start"), HasSubstr("gevctl ip force ")));
    EXPECT_EQ(camera.readRegister(gevsim::reg::currentIpConfiguration) & 7, 6u);
    EXPECT_EQ(gevctl("ip persistent -c CAMERA on -q"), 0) << err;
    EXPECT_EQ(err, "");
    EXPECT_EQ(camera.readRegister(gevsim::reg::currentIpConfiguration) & 7, 7u);
    EXPECT_EQ(gevctl("ip persistent -c CAMERA off"), 0) << err;
    EXPECT_EQ(camera.readRegister(gevsim::reg::currentIpConfiguration) & 7, 6u);
    EXPECT_EQ(gevctl("ip dhcp -c CAMERA off"), 0) << err;
    EXPECT_EQ(camera.readRegister(gevsim::reg::currentIpConfiguration) & 7, 4u);
    EXPECT_EQ(gevctl("ip persistent -c CAMERA on"), 0) << err;
    EXPECT_EQ(gevctl("ip link-local -c CAMERA on"), 0) << err;
    EXPECT_EQ(camera.readRegister(gevsim::reg::currentIpConfiguration) & 7, 4u);

    const auto before = camera.received(gevsim::Command::writeReg);
    for (const char* const line : {"ip show -c CAMERA", "ip persistent -c CAMERA", "ip dhcp -c CAMERA",
                                   "ip link-local -c CAMERA", "ip name -c CAMERA"}) {
        EXPECT_EQ(gevctl(line), 0) << err;
        EXPECT_EQ(err, "") << line;
    }
    EXPECT_EQ(camera.received(gevsim::Command::writeReg), before); // to look changes nothing
    EXPECT_EQ(gevctl("ip persistent -c CAMERA 127.0.0.0/8"), exitFailure);
    EXPECT_THAT(err, HasSubstr("127.0.0.0 is the address of the subnet itself"));
}

TEST_F(GevctlTest, aCamerasName)
{
    EXPECT_EQ(gevctl("ip name -c CAMERA"), 0) << err;
    EXPECT_EQ(out, "Left\n");
    EXPECT_EQ(gevctl("ip name -c CAMERA Right --json"), 0) << err;
    EXPECT_EQ(json()["userName"], "Right");
    EXPECT_EQ(camera.readMemory(gevsim::reg::userDefinedName, 16),
              (Bytes{'R', 'i', 'g', 'h', 't', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(camera.readRegister(gevsim::reg::ccp), 0u);
    EXPECT_EQ(gevctl("ip name -c CAMERA ARightNameThatIsLong"), exitFailure);
    EXPECT_THAT(err, HasSubstr("has at most 16 bytes"));
    EXPECT_EQ(gevctl("ip name -c CAMERA"), 0);
    EXPECT_EQ(out, "Right\n");
}

} // namespace
