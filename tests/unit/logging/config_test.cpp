// Start-up configuration against a log service of the test's own. Each case has a process to itself, as each program
// configures its logging once.
#include "logging/config.h"

#include "logging/config_words.h"
#include "logging/log.h"
#include "logging/logsvc_client.h"
#include "platform/debug_channel.h"
#include "platform/text.h"
#include "tests/unit/logging/bytes.h"
#include "tests/unit/logging/fake_log_service.h"
#include "tests/unit/logging/support.h"

#include <chrono>
#include <iostream>

using namespace zuLogging;
using namespace zuTest;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

using Tree = boost::property_tree::ptree;

constexpr const char* retrieveFailed = "Failed to retrieve/decode the log configuration for module GEVSVC: ";
constexpr const char* configureFailed = "Failed to configure the logging infrastructure for module GEVSVC: ";

/// Text of the standard output stream.
class CapturedOutput {
public:
    explicit CapturedOutput(std::ostream& stream) : stream_(stream), previous_(stream.rdbuf(&buffer_)) {}
    ~CapturedOutput() { stream_.rdbuf(previous_); }
    std::string text() const { return buffer_.str(); }

private:
    std::stringbuf buffer_;
    std::ostream& stream_;
    std::streambuf* previous_;
};

/// Own names and a debugger channel, for each process that runs a case.
struct Setting {
    Setting() { useOwnObjectNames(); }
    ~Setting() { clear_targets(); }
    DebugListener debugger;
};

bool configure(const std::string& description = {}) { return configure_logging("GEVSVC", description, Tree()); }

void logOne(std::uint32_t level = log_info)
{
    const logstate log = make_numbered_logstate("Test");
    ZU_LOG(log, level, "the text");
}

/// Whether messages go to a log service. Its target is the only one that complains of a text that is none.
bool hasLogsvcTarget()
{
    const basic_timed_msgstate state = message("Probe", log_info);
    try {
        dispatch(state, nullptr, nullptr);
        return false;
    } catch (const LogSvcError&) {
        return true;
    }
}

std::string rootName() { return root_logstate("").path(); }
std::uint32_t rootLevels() { return root_logstate("").levels(); }

bool isLine(const std::string& line, const std::string& rest)
{
    return line.size() > rest.size() && line.substr(line.size() - rest.size()) == rest && line.substr(0, 2) == "20";
}

/// Configures by this reply, which has to fail in the first block with `words`.
void expectRetrieveFailure(const std::string& json, const std::string& words)
{
    Setting setting;
    const FakeLogService service(json);
    EXPECT_FALSE(configure());
    EXPECT_EQ(setting.debugger.next(), retrieveFailed + words);
    EXPECT_TRUE(setting.debugger.quiet());
    EXPECT_EQ(rootName(), "GEVSVC");
    EXPECT_EQ(rootLevels(), 0u);
}

/// The same for the second block: the root stays as it was.
void expectConfigureFailure(const std::string& json, const std::string& words)
{
    Setting setting;
    const FakeLogService service(json);
    EXPECT_FALSE(configure());
    EXPECT_EQ(setting.debugger.next(), configureFailed + words);
    EXPECT_TRUE(setting.debugger.quiet());
    EXPECT_EQ(rootName(), "");
    EXPECT_EQ(rootLevels(), 0u);
}

double secondsOf(const std::function<void()>& call)
{
    const auto start = std::chrono::steady_clock::now();
    call();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

} // namespace

TEST(Config, WithoutALogServiceItIsSilent)
{
    ZU_IN_FRESH_PROCESS({
        Setting setting;
        EXPECT_FALSE(configure());
        EXPECT_THAT(setting.debugger.next(),
                    testing::StartsWith(std::string(retrieveFailed) +
                                        "Failed to connect to the shared memory with connection info: "));
        EXPECT_TRUE(setting.debugger.quiet());
        EXPECT_EQ(rootName(), "GEVSVC");
        EXPECT_EQ(rootLevels(), 0u);
        EXPECT_EQ(make_numbered_logstate("GVCP").path(), "GEVSVC.GVCP.0");
    });
}

TEST(Config, AServiceThatDoesNotAnswerCostsAboutASecond)
{
    ZU_IN_FRESH_PROCESS({
        Setting setting;
        const FakeLogService service([](const Bytes&) { return Bytes(); });
        bool result = true;
        const double seconds = secondsOf([&] { result = configure(); });
        EXPECT_GE(seconds, 0.99);
        EXPECT_LT(seconds, 10);
        EXPECT_FALSE(result);
        EXPECT_EQ(setting.debugger.next(),
                  std::string(retrieveFailed) +
                      "Log client command execution failure when communicating with the server.");
        EXPECT_EQ(rootName(), "GEVSVC");
        EXPECT_THAT(service.requests(), SizeIs(2));
    });
}

TEST(Config, ABlockThatNobodyServesCostsAboutASecond)
{
    ZU_IN_FRESH_PROCESS({
        Setting setting;
        int error = 0;
        const Bytes content = connectionBlock(0x7F000B03, 9, 0x7F000B03, 9);
        const auto block = zuPlatform::SharedMemory::create("Global\\zuLogSvcConnectionInfo", content.size(), error);
        std::copy(content.begin(), content.end(), static_cast<std::uint8_t*>(block->map(content.size())));
        const double seconds = secondsOf([] { EXPECT_FALSE(configure()); });
        zuPlatform::SharedMemory::remove("Global\\zuLogSvcConnectionInfo");
        EXPECT_GE(seconds, 0.99);
        EXPECT_LT(seconds, 10);
    });
}

TEST(Config, AnInvalidBlock)
{
    ZU_IN_FRESH_PROCESS({
        Setting setting;
        int error = 0;
        const auto block = zuPlatform::SharedMemory::create("Global\\zuLogSvcConnectionInfo", 24, error);
        EXPECT_FALSE(configure());
        zuPlatform::SharedMemory::remove("Global\\zuLogSvcConnectionInfo");
        EXPECT_EQ(setting.debugger.next(), std::string(retrieveFailed) + "Failed to retrieve valid connection info");
    });
}

TEST(Config, ThePlainObjectNameServesToo)
{
    ZU_IN_FRESH_PROCESS({
        Setting setting;
        const FakeLogService service(
            [](const Bytes& request) {
                return acknowledgeOf(request, "{\"destination\":\"none\",\"level\":\"info\"}");
            },
            "zuLogSvcConnectionInfo");
        EXPECT_TRUE(configure());
        EXPECT_EQ(rootLevels(), 0x0Fu);
    });
}

TEST(Config, DestinationNoneEnablesAndGoesNowhere)
{
    ZU_IN_FRESH_PROCESS({
        Setting setting;
        const FakeLogService service("{\"destination\":\"none\",\"level\":\"all\"}");
        const CapturedOutput out(std::cout);
        EXPECT_TRUE(configure());
        EXPECT_EQ(rootName(), "GEVSVC");
        EXPECT_EQ(rootLevels(), 0xFFu);
        EXPECT_TRUE(make_numbered_logstate("Conn").is_enabled(log_debug, all_groups));
        logOne(log_debug);
        EXPECT_EQ(out.text(), "");
        EXPECT_TRUE(setting.debugger.quiet());
        EXPECT_THAT(service.requests(), SizeIs(1));
    });
}

TEST(Config, DestinationEvtlogIsAcceptedWithoutATarget)
{
    ZU_IN_FRESH_PROCESS({
        Setting setting;
        const FakeLogService service("{\"destination\":\"evtlog\",\"level\":\"info\"}");
        EXPECT_TRUE(configure());
        EXPECT_EQ(rootLevels(), 0x0Fu);
        logOne();
        EXPECT_TRUE(setting.debugger.quiet());
    });
}

TEST(Config, DestinationFile)
{
    ZU_IN_FRESH_PROCESS({
        Setting setting;
        const TemporaryFolder folder;
        const std::string path = folder / "log";
        const FakeLogService service("{\"destination\":\"file\",\"level\":\"warn\",\"file\":\"" + path + "\"}");
        EXPECT_TRUE(configure());
        logOne(log_info);
        logOne(log_warn);
        logOne(log_err);
        logOne(log_fatal);
        const auto lines = splitLines(readFile(path));
        ASSERT_THAT(lines, SizeIs(3));
        EXPECT_TRUE(isLine(lines[0], " GEVSVC.Test.0 [warn] the text")) << lines[0];
        EXPECT_TRUE(isLine(lines[1], " GEVSVC.Test.0 [err] the text")) << lines[1];
        EXPECT_TRUE(isLine(lines[2], " GEVSVC.Test.0 [fatal] the text")) << lines[2];
    });
}

TEST(Config, DestinationCout)
{
    ZU_IN_FRESH_PROCESS({
        Setting setting;
        const FakeLogService service("{\"destination\":\"cout\",\"level\":\"info\"}");
        const CapturedOutput out(std::cout);
        const CapturedOutput err(std::cerr);
        EXPECT_TRUE(configure());
        logOne();
        EXPECT_TRUE(isLine(out.text(), " GEVSVC.Test.0 [info] the text\n")) << out.text();
        EXPECT_EQ(err.text(), "");
    });
}

TEST(Config, DestinationCerr)
{
    ZU_IN_FRESH_PROCESS({
        Setting setting;
        const FakeLogService service("{\"destination\":\"cerr\",\"level\":\"info\"}");
        const CapturedOutput out(std::cout);
        const CapturedOutput err(std::cerr);
        EXPECT_TRUE(configure());
        logOne();
        EXPECT_TRUE(isLine(err.text(), " GEVSVC.Test.0 [info] the text\n")) << err.text();
        EXPECT_EQ(out.text(), "");
    });
}

TEST(Config, DestinationTrace)
{
    ZU_IN_FRESH_PROCESS({
        Setting setting;
        const FakeLogService service("{\"destination\":\"trace\",\"level\":\"info\"}");
        EXPECT_TRUE(configure());
        logOne();
        const std::string line = setting.debugger.next();
        EXPECT_TRUE(isLine(line, " GEVSVC.Test.0 [info] the text")) << line;
    });
}

TEST(Config, DestinationLogsvcTakesTheBlocksMessagePort)
{
    ZU_IN_FRESH_PROCESS({
        Setting setting;
        FakeLogService service("{\"destination\":\"logsvc\",\"level\":\"info\"}");
        EXPECT_TRUE(configure());
        logOne();
        const Bytes packet = service.messages().receive();
        ASSERT_GT(packet.size(), 40u);
        EXPECT_EQ(fieldOf(packet, 0, 2), 0xADDAu);
        const std::string text(packet.begin(), packet.end());
        EXPECT_NE(text.find("GEVSVC.Test.0"), text.npos);
        EXPECT_NE(text.find("the text"), text.npos);
        EXPECT_TRUE(hasLogsvcTarget());
        // The thread's element stands behind the level's.
        EXPECT_NE(text.find(std::string("\x08\0\x09\0", 4)), text.npos);
    });
}

TEST(Config, DestinationLogsvcWithASocketAddressAndNoThreadId)
{
    ZU_IN_FRESH_PROCESS({
        Setting setting;
        Port other("127.0.11.4");
        FakeLogService service("{\"destination\":\"logsvc\",\"level\":\"info\",\"thread_id\":\"off\",\"sockaddr\":"
                               "\"127.0.11.4:" +
                               std::to_string(other.number()) + "\"}");
        EXPECT_TRUE(configure());
        logOne();
        const Bytes packet = other.receive();
        ASSERT_GT(packet.size(), 40u);
        const std::string text(packet.begin(), packet.end());
        EXPECT_NE(text.find("the text"), text.npos);
        EXPECT_EQ(text.find(std::string("\x08\0\x09\0", 4)), text.npos);
        EXPECT_THAT(service.messages().receive(0), IsEmpty());
        // The command went to the service's own endpoint.
        EXPECT_THAT(service.requests(), SizeIs(1));
    });
}

TEST(Config, TheRequestNamesModuleProcessAndAttributes)
{
    ZU_IN_FRESH_PROCESS({
        Setting setting;
        const FakeLogService service("{\"destination\":\"none\",\"level\":\"none\"}");
        Tree attributes;
        attributes.put("extra", "value");
        EXPECT_TRUE(configure_logging("MODULE", "", attributes));
        EXPECT_EQ(payloadOf(service.requests().at(0)),
                  "{\"extra\":\"value\",\"module\":\"MODULE\",\"process\":\"test_logconfig\"}\n");
    });
}

TEST(Config, ADescriptionIsPassedOn)
{
    ZU_IN_FRESH_PROCESS({
        Setting setting;
        const FakeLogService service("{\"destination\":\"none\",\"level\":\"info\"}");
        EXPECT_TRUE(configure("what it is"));
        const auto requests = service.requests();
        ASSERT_THAT(requests, SizeIs(2));
        EXPECT_EQ(fieldOf(requests[1], 4, 2), 0x0041u);
        EXPECT_EQ(payloadOf(requests[1]), "{\"module\":\"GEVSVC\",\"description\":\"what it is\"}\n");
    });
}

TEST(Config, ARefusedDescriptionDoesNotMatter)
{
    ZU_IN_FRESH_PROCESS({
        Setting setting;
        const FakeLogService service([](const Bytes& request) {
            return fieldOf(request, 4, 2) == 1 ? acknowledgeOf(request, "{\"destination\":\"none\",\"level\":\"info\"}")
                                               : acknowledgeOf(request, "", 1);
        });
        EXPECT_TRUE(configure("what it is"));
        EXPECT_THAT(service.requests(), SizeIs(2));
        EXPECT_TRUE(setting.debugger.quiet());
        EXPECT_EQ(rootLevels(), 0x0Fu);
    });
}

TEST(Config, ADescriptionThatNobodyAnswersDoesNotMatterEither)
{
    ZU_IN_FRESH_PROCESS({
        Setting setting;
        const FakeLogService service([](const Bytes& request) {
            return fieldOf(request, 4, 2) == 1 ? acknowledgeOf(request, "{\"destination\":\"none\",\"level\":\"info\"}")
                                               : Bytes();
        });
        bool result = false;
        EXPECT_GE(secondsOf([&] { result = configure("what it is"); }), 0.99);
        EXPECT_TRUE(result);
        EXPECT_THAT(service.requests(), SizeIs(3));
        EXPECT_TRUE(setting.debugger.quiet());
        EXPECT_EQ(rootLevels(), 0x0Fu);
    });
}

TEST(Config, ARefusedRequest)
{
    ZU_IN_FRESH_PROCESS({
        Setting setting;
        const FakeLogService service([](const Bytes& request) { return acknowledgeOf(request, "{}", 1); });
        EXPECT_FALSE(configure());
        EXPECT_EQ(setting.debugger.next(),
                  std::string(retrieveFailed) + "The command was not successful (negative acknowledge received)");
    });
}

TEST(Config, AMissingFileKey)
{
    ZU_IN_FRESH_PROCESS({
        expectRetrieveFailure("{\"destination\":\"file\",\"level\":\"info\"}",
                              "The configuration set does not contain the requested parameter");
        const CapturedOutput out(std::cout);
        const CapturedOutput err(std::cerr);
        logOne(log_fatal);
        // Nor would anything come if the levels let it through: there is no target.
        DebugListener debugger;
        root_logstate("").set_levels(0xFF);
        logOne(log_fatal);
        EXPECT_EQ(out.text(), "");
        EXPECT_EQ(err.text(), "");
        EXPECT_FALSE(hasLogsvcTarget());
        EXPECT_TRUE(debugger.quiet());
    });
}

TEST(Config, AMissingDestination)
{
    ZU_IN_FRESH_PROCESS({
        expectRetrieveFailure("{\"level\":\"info\"}", "The configuration set does not contain the requested parameter");
    });
}

TEST(Config, AMissingLevel)
{
    ZU_IN_FRESH_PROCESS({
        expectRetrieveFailure("{\"destination\":\"cout\"}",
                              "The configuration set does not contain the requested parameter");
    });
}

TEST(Config, AnUnknownDestination)
{
    ZU_IN_FRESH_PROCESS({
        expectRetrieveFailure("{\"destination\":\"File\",\"level\":\"info\",\"file\":\"x\"}",
                              "Unknown log destination specified: File");
    });
}

TEST(Config, AnUnknownLevel)
{
    ZU_IN_FRESH_PROCESS({
        expectRetrieveFailure("{\"destination\":\"cout\",\"level\":\"INFO\"}", "Unknown log level specified: INFO");
    });
}

TEST(Config, AnUnknownBoolean)
{
    ZU_IN_FRESH_PROCESS({
        expectRetrieveFailure("{\"destination\":\"logsvc\",\"level\":\"info\",\"thread_id\":\"yes\"}",
                              "Unrecognized boolean value string specified: yes");
    });
}

TEST(Config, AReplyThatIsNoJson)
{
    ZU_IN_FRESH_PROCESS({ expectRetrieveFailure("{\"destination\"", "Failed to deserialize the configuration set"); });
}

TEST(Config, AnUnknownKeyIsIgnored)
{
    ZU_IN_FRESH_PROCESS({
        Setting setting;
        const FakeLogService service(
            "{\"more\":{\"a\":\"b\"},\"thread_id\":\"yes\",\"destination\":\"none\",\"level\":\"0x40\"}");
        EXPECT_TRUE(configure());
        EXPECT_EQ(rootLevels(), 0x40u);
    });
}

TEST(Config, AFileThatCannotBeOpened)
{
    ZU_IN_FRESH_PROCESS({
        const TemporaryFolder folder;
        const std::string path = folder / "missing/log";
        expectConfigureFailure("{\"destination\":\"file\",\"level\":\"info\",\"file\":\"" + path + "\"}",
                               "Error opening file: " + path);
    });
}

TEST(Config, ABadSocketAddress)
{
    ZU_IN_FRESH_PROCESS({
        expectConfigureFailure("{\"destination\":\"logsvc\",\"level\":\"info\",\"sockaddr\":\"127.0.0.1:0\"}",
                               "Failed to parse socket address string");
        EXPECT_FALSE(hasLogsvcTarget());
    });
}

TEST(Config, ABlockThatVanishesBeforeItsSecondReading)
{
    ZU_IN_FRESH_PROCESS({
        Setting setting;
        FakeLogService service([](const Bytes& request) {
            zuPlatform::SharedMemory::remove("Global\\zuLogSvcConnectionInfo");
            return acknowledgeOf(request, "{\"destination\":\"logsvc\",\"level\":\"info\"}");
        });
        EXPECT_FALSE(configure());
        EXPECT_THAT(setting.debugger.next(),
                    testing::StartsWith(std::string(configureFailed) +
                                        "Failed to connect to the shared memory with connection info: "));
        EXPECT_EQ(rootName(), "");
    });
}

TEST(Config, AModuleNameWithASeparatorLeavesTheFileSilent)
{
    ZU_IN_FRESH_PROCESS({
        Setting setting;
        const TemporaryFolder folder;
        const std::string path = folder / "log";
        const FakeLogService service("{\"destination\":\"file\",\"level\":\"info\",\"file\":\"" + path + "\"}");
        EXPECT_FALSE(configure_logging("GEV.SVC", "", Tree()));
        EXPECT_EQ(setting.debugger.next(), "Failed to configure the logging infrastructure for module GEV.SVC: Root "
                                           "name must not contain separator character");
        EXPECT_EQ(rootName(), "");
        EXPECT_EQ(rootLevels(), 0u);
        logOne(log_fatal);
        EXPECT_EQ(readFile(path), "");
        // The target is there.
        root_logstate("").set_levels(0x0F);
        logOne(log_fatal);
        EXPECT_THAT(splitLines(readFile(path)), SizeIs(1));
    });
}

TEST(Config, BothBlocksFail)
{
    ZU_IN_FRESH_PROCESS({
        Setting setting;
        EXPECT_FALSE(configure_logging("GEV.SVC", "", Tree()));
        EXPECT_THAT(setting.debugger.next(), testing::StartsWith("Failed to retrieve/decode the log configuration for "
                                                                 "module GEV.SVC: "));
        EXPECT_EQ(setting.debugger.next(), "Failed to configure the logging infrastructure for module GEV.SVC: Root "
                                           "name must not contain separator character");
        EXPECT_TRUE(setting.debugger.quiet());
    });
}

TEST(Config, ASecondCallAddsATargetAndKeepsTheName)
{
    ZU_IN_FRESH_PROCESS({
        Setting setting;
        const FakeLogService service("{\"destination\":\"cout\",\"level\":\"info\"}");
        EXPECT_TRUE(configure());
        const logstate child = get_logstate("child");
        EXPECT_FALSE(configure_logging("OTHER", "", Tree()));
        EXPECT_EQ(setting.debugger.next(), "Failed to configure the logging infrastructure for module OTHER: Root name "
                                           "can only be changed if no children are present");
        const CapturedOutput out(std::cout);
        ZU_LOG(child, log_info, "twice");
        EXPECT_THAT(splitLines(out.text()), SizeIs(2));
    });
}

TEST(Config, AReplyThatIsNotUtf8)
{
    ZU_IN_FRESH_PROCESS({
        expectRetrieveFailure("{\"destination\":\"file\",\"level\":\"info\",\"file\":\"/\xFF\"}",
                              "Failed to deserialize the configuration set");
    });
}

TEST(Words, Levels)
{
    const std::pair<const char*, std::uint32_t> good[] = {
        {"none", 0},     {"fatal", 1},
        {"err", 3},      {"error", 3},
        {"warn", 7},     {"warning", 7},
        {"info", 0x0F},  {"trace", 0x1F},
        {"debug", 0x3F}, {"all", 0xFF},
        {"0x3", 3},      {"0X3f", 0x3F},
        {"0x40", 0x40},  {"0xFFFFFFFE", 0xFFFFFFFE},
        {"0x0", 0},      {"0x00000000000000000001", 1},
    };
    for (const auto& [word, mask] : good)
        EXPECT_EQ(zuLogging::detail::parse_level(word), mask) << word;
    for (const std::string word : {"", "INFO", "Info", " info", "info ", "0x", "0X", "0xFFFFFFFF", "0x1FFFFFFFF",
                                   "0xFFFFFFFFFFFFFFFFFFFF", "3", "0x3g", "0x 3", "0x-3", "0x+3", "0xx", "errors"})
        EXPECT_EQ(failureOf<LogSvcError>([&] { zuLogging::detail::parse_level(word); }),
                  "Unknown log level specified: " + word);
}

TEST(Words, Destinations)
{
    using zuLogging::detail::LogDestination;
    using zuLogging::detail::parse_destination;
    const char* const words[] = {"none", "file", "cout", "cerr", "trace", "console", "evtlog", "logsvc"};
    for (int code = 0; code < 8; ++code)
        EXPECT_EQ(parse_destination(words[code]), static_cast<LogDestination>(code));
    for (const std::string word : {"", "None", "stdout", "file "})
        EXPECT_EQ(failureOf<LogSvcError>([&] { parse_destination(word); }),
                  "Unknown log destination specified: " + word);
}

TEST(Words, Booleans)
{
    for (const char* word : {"true", "on", "enabled", "1"})
        EXPECT_TRUE(zuLogging::detail::parse_boolean(word));
    for (const char* word : {"false", "off", "disabled", "0"})
        EXPECT_FALSE(zuLogging::detail::parse_boolean(word));
    for (const std::string word : {"", "yes", "True", "ON", "2", "true "})
        EXPECT_EQ(failureOf<LogSvcError>([&] { zuLogging::detail::parse_boolean(word); }),
                  "Unrecognized boolean value string specified: " + word);
}

TEST(Words, SocketAddresses)
{
    using zuLogging::detail::parse_sockaddr;
    const zuPlatform::SocketAddress expected{zuPlatform::hostToNetwork32(0x7F000B01),
                                             zuPlatform::hostToNetwork16(4660)};
    EXPECT_EQ(parse_sockaddr("127.0.11.1:4660"), expected);
    EXPECT_EQ(parse_sockaddr("127.0.11.1:4660\nand more"), expected);
    EXPECT_EQ(parse_sockaddr("127.0.11.1:65535").port, 0xFFFF);
    EXPECT_EQ(parse_sockaddr("0.0.0.0:1").address, 0u);
    for (const char* text : {"",
                             ":",
                             "127.0.11.1",
                             "127.0.11.1:",
                             "127.0.11.1:0",
                             "127.0.11.1:0123",
                             "127.0.11.1:65536",
                             "127.0.11.1:99999999999999999999999",
                             "127.0.11.1: 1",
                             "127.0.11.1:+1",
                             "127.0.11.1:-1",
                             "127.0.11.1:1x",
                             "127.0.11.1:1:2",
                             "127.0.11.1:\n1",
                             ":4660",
                             "localhost:4660",
                             "127.0.11:4660",
                             "127.0.11.256:4660",
                             "127.0.11.1.1:4660",
                             " 127.0.11.1:4660",
                             "::1:4660"})
        EXPECT_EQ(failureOf<LogSvcError>([&] { parse_sockaddr(text); }), "Failed to parse socket address string")
            << text;
}

TEST(Words, Keys)
{
    Tree settings;
    settings.put("destination", "cout");
    settings.put("outer.inner", "deep");
    using zuLogging::detail::mandatory_key;
    using zuLogging::detail::optional_key;
    EXPECT_EQ(mandatory_key(settings, "destination"), "cout");
    EXPECT_EQ(mandatory_key(settings, "outer.inner"), "deep");
    EXPECT_EQ(optional_key(settings, "destination", "other"), "cout");
    EXPECT_EQ(optional_key(settings, "sockaddr", "other"), "other");
    EXPECT_EQ(failureOf<LogSvcError>([&] { mandatory_key(settings, "level"); }),
              "The configuration set does not contain the requested parameter");
}
