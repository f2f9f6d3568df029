// Settings: what is good, what is wrong and where, and what clients are told.
#include "tests/unit/zuLogSvc/support.h"

#include "tools/zuLogSvc/settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace zuLogSvc;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

std::vector<std::string> errorsOf(const std::string& text)
{
    std::vector<TextError> errors;
    parseSettings(text, errors);
    std::vector<std::string> out;
    for (const TextError& error : errors)
        out.push_back(describe("f", error));
    return out;
}

Settings good(const std::string& text)
{
    std::vector<TextError> errors;
    Settings settings = parseSettings(text, errors);
    EXPECT_THAT(errors, IsEmpty()) << (errors.empty() ? "" : describe("f", errors[0]));
    return settings;
}

TEST(Settings, AnEmptyObjectIsTheDefault)
{
    const Settings settings = good("{}");
    EXPECT_THAT(settings.rules, IsEmpty());
    ASSERT_EQ(settings.outputs.size(), 1u);
    EXPECT_EQ(settings.outputs[0], OutputSettings{});
    EXPECT_TRUE(settings.follow);
    EXPECT_EQ(settings.commandPort, 0);
    EXPECT_EQ(configurationReply(findRule(settings, "GEVSVC", "zuGevSvc")),
              R"({"destination":"logsvc","level":"info"})");
}

TEST(Settings, EveryKeyIsRead)
{
    const Settings settings = good(R"({
        // comments are allowed
        "rules": [
            {"module": "GEVSVC", "process": "zu*", "destination": "file", "level": "0x1f", "file": "/var/log/d.log"},
            {"destination": "logsvc", "level": "debug", "sockaddr": "127.0.0.1:99", "thread_id": false}
        ],
        "outputs": [
            {"type": "stdout", "format": "json"},
            {"type": "file", "path": "/x/y.log", "format": "line", "show": ["process", "thread", "location"],
             "rotate_size": "10M", "rotate_age": "1d", "keep": 3}
        ],
        "follow": false, "command_port": 1000, "message_port": 1001, "receive_buffer": "1M", "queue": 65536
    })");
    ASSERT_EQ(settings.rules.size(), 2u);
    EXPECT_EQ(settings.rules[0], (Rule{"GEVSVC", "zu*", "file", "0x1f", "/var/log/d.log", {}, {}}));
    EXPECT_EQ(settings.rules[1], (Rule{"*", "*", "logsvc", "debug", {}, "127.0.0.1:99", "off"}));
    ASSERT_EQ(settings.outputs.size(), 2u);
    EXPECT_EQ(settings.outputs[0].line.format, Format::json);
    EXPECT_EQ(settings.outputs[1].path, "/x/y.log");
    EXPECT_EQ(settings.outputs[1].rotateSize, 10u * 1024 * 1024);
    EXPECT_EQ(settings.outputs[1].rotateAge, 86400u);
    EXPECT_EQ(settings.outputs[1].keep, 3u);
    EXPECT_TRUE(settings.outputs[1].line.process && settings.outputs[1].line.thread &&
                settings.outputs[1].line.location);
    EXPECT_FALSE(settings.follow);
    EXPECT_EQ(settings.commandPort, 1000);
    EXPECT_EQ(settings.messagePort, 1001);
    EXPECT_EQ(settings.receiveBuffer, 1024u * 1024);
    EXPECT_EQ(settings.queue, 65536u);
}

TEST(Settings, TheFirstRuleThatMatchesHolds)
{
    const Settings settings = good(R"({"rules": [
        {"module": "GEVSVC", "process": "other", "destination": "none", "level": "none"},
        {"module": "GEV*", "process": "zu?evSvc", "destination": "cout", "level": "warn"},
        {"module": "GEVSVC", "destination": "cerr", "level": "all"}]})");
    EXPECT_EQ(findRule(settings, "GEVSVC", "other"), &settings.rules[0]);
    EXPECT_EQ(findRule(settings, "GEVSVC", "zuGevSvc"), &settings.rules[1]);
    EXPECT_EQ(findRule(settings, "GEVX", "zuGevSvc"), &settings.rules[1]);
    EXPECT_EQ(findRule(settings, "GEVSVC", ""), &settings.rules[2]);
    EXPECT_EQ(findRule(settings, "gevsvc", "zuGevSvc"), nullptr);
}

TEST(Settings, RepliesHoldStringsAndOnlyWhatTheDestinationReads)
{
    const Rule file{"*", "*", "file", "info", "/logs/a \"b\".log", "127.0.0.1:9", "off"};
    EXPECT_EQ(configurationReply(&file), R"({"destination":"file","level":"info","file":"/logs/a \"b\".log"})");
    const Rule service{"*", "*", "logsvc", "0x3f", "/x", "127.0.0.1:9", "off"};
    EXPECT_EQ(configurationReply(&service),
              R"({"destination":"logsvc","level":"0x3f","sockaddr":"127.0.0.1:9","thread_id":"off"})");
    const Rule none{"*", "*", "none", "all", "/x", "127.0.0.1:9", "off"};
    EXPECT_EQ(configurationReply(&none), R"({"destination":"none","level":"all"})");
}

TEST(Settings, WrongJsonIsToldWithLineAndColumn)
{
    EXPECT_THAT(errorsOf("{\n  \"rules\": [ }\n}"), ElementsAre(HasSubstr("f:2:14: no valid JSON: syntax error")));
    EXPECT_THAT(errorsOf(""), ElementsAre(HasSubstr("f:1:1: no valid JSON")));
    EXPECT_THAT(errorsOf("{\"queue\": 1,\n\n\n"), ElementsAre(HasSubstr("f:4:")));
    EXPECT_THAT(errorsOf("{} x"), ElementsAre(HasSubstr("f:1:")));
    EXPECT_THAT(errorsOf("{\"a\": \"\xff\"}"), ElementsAre(HasSubstr("no valid JSON")));
    EXPECT_THAT(errorsOf(std::string(100000, '[')), ElementsAre(HasSubstr("nested too deeply")));
}

TEST(Settings, WrongRulesAreToldWithLineAndPlace)
{
    const std::string text = "{\"rules\": [\n"
                             " {\"destination\": \"logsvc\", \"level\": \"info\"},\n"
                             " {\"module\": 5,\n"
                             "  \"destination\": \"File\",\n"
                             "  \"level\": \"INFO\"},\n"
                             " {\"destination\": \"file\",\n"
                             "  \"level\": \"0x\", \"thread_id\": \"yes\"},\n"
                             " {\"level\": \"info\", \"bogus\": 1,\n"
                             "  \"sockaddr\": \"127.0.0.1:0\"},\n"
                             " 7,\n"
                             " {\"destination\": \"file\", \"level\": \"info\", \"file\": \"relative.log\"}\n"
                             "]}";
    EXPECT_THAT(errorsOf(text), ElementsAre("f:3: /rules/1/module: must be a string",
                                            HasSubstr("f:4: /rules/1/destination: unknown destination \"File\""),
                                            HasSubstr("f:5: /rules/1/level: unknown level \"INFO\""),
                                            HasSubstr("f:6: /rules/2: \"file\" is missing"),
                                            HasSubstr("f:7: /rules/2/level: unknown level \"0x\""),
                                            HasSubstr("f:7: /rules/2/thread_id: must be true or false"),
                                            HasSubstr("f:8: /rules/3/bogus: unknown key; known here: module, process"),
                                            HasSubstr("f:8: /rules/3: \"destination\" is missing"),
                                            HasSubstr("f:9: /rules/3/sockaddr: must be an IPv4 address"),
                                            "f:10: /rules/4: must be an object",
                                            HasSubstr("f:11: /rules/5/file: must be an absolute path")));
}

TEST(Settings, WrongOutputsAreToldWithLineAndPlace)
{
    const std::string text = "{\"outputs\": [\n"
                             " {\"type\": \"tape\"},\n"
                             " {\"format\": \"xml\"},\n"
                             " {\"type\": \"file\"},\n"
                             " {\"type\": \"file\", \"path\": \"/a\", \"rotate_size\": 5},\n"
                             " {\"type\": \"file\", \"path\": \"/b\", \"rotate_age\": \"5s\"},\n"
                             " {\"type\": \"file\", \"path\": \"/c\", \"keep\": 0, \"show\": [\"pid\"]},\n"
                             " {\"type\": \"file\", \"path\": \"/d\", \"show\": \"process\"},\n"
                             " {\"type\": \"file\", \"path\": \"/d\"},\n"
                             " {\"type\": \"stdout\", \"path\": \"/e\"}\n"
                             "]}";
    EXPECT_THAT(
        errorsOf(text),
        ElementsAre(
            HasSubstr("f:2: /outputs/0/type: unknown type \"tape\""), "f:3: /outputs/1: \"type\" is missing",
            HasSubstr("f:3: /outputs/1/format: unknown format"),
            HasSubstr("f:3: /outputs/1: the same place as output 0"), "f:4: /outputs/2: \"path\" is missing",
            HasSubstr("f:5: /outputs/3/rotate_size: must be a size"),
            HasSubstr("f:6: /outputs/4/rotate_age: must be a time"), HasSubstr("f:7: /outputs/5/show: must be a list"),
            HasSubstr("f:7: /outputs/5/keep: must be a whole"), HasSubstr("f:8: /outputs/6/show: must be a list"),
            HasSubstr("f:9: /outputs/7: the same place as output 6"),
            HasSubstr("f:10: /outputs/8/path: goes with the type \"file\" only"),
            HasSubstr("/outputs/8: the same place as output 0"), HasSubstr("/outputs/8: the same place as output 1")));
}

TEST(Settings, OtherMistakes)
{
    EXPECT_THAT(errorsOf("[]"), ElementsAre("f:1: must be an object"));
    EXPECT_THAT(errorsOf("{\"rules\": {}}"), ElementsAre("f:1: /rules: must be a list"));
    EXPECT_THAT(errorsOf("{\"follow\": 1}"), ElementsAre("f:1: /follow: must be true or false"));
    EXPECT_THAT(errorsOf("{\"command_port\": 70000}"),
                ElementsAre(HasSubstr("f:1: /command_port: must be a whole number")));
    EXPECT_THAT(errorsOf("{\"command_port\": 5,\n\"message_port\": 5}"),
                ElementsAre("f:2: /message_port: must differ from the command port"));
    EXPECT_THAT(errorsOf("{\"queue\": 10,\n\"queue\": 100000}"),
                ElementsAre("f:2: /queue: this key is already there, at line 1"));
    EXPECT_THAT(errorsOf("{\"a/b~\": 1}"), ElementsAre(HasSubstr("f:1: /a~1b~0: unknown key")));
    EXPECT_THAT(errorsOf("{\"rules\": [{\"destination\": \"file\", \"level\": \"info\", \"file\": \"/" +
                         std::string(1400, 'x') + "\"}]}"),
                ElementsAre(HasSubstr("/rules/0: the reply made of this rule has more than 1388 bytes")));
    EXPECT_THAT(errorsOf("{\"rules\": [{\"destination\": \"file\", \"level\": \"info\", \"file\": \"/l\"}],\n"
                         "\"outputs\": [{\"type\": \"file\", \"path\": \"/l\"}]}"),
                ElementsAre(HasSubstr("f:1: /rules/0/file: the service itself writes this file")));
}

TEST(Settings, TheLineOfANumberAtTheEndOfItsLineIsRight)
{
    EXPECT_THAT(errorsOf("{\"rules\": [\n1\n,\n2\n]}"),
                ElementsAre("f:2: /rules/0: must be an object", "f:4: /rules/1: must be an object"));
}

TEST(Settings, FilesThatCannotBeReadAreToldSo)
{
    const zuTest::TemporaryFolder folder;
    std::vector<TextError> errors;
    loadSettings(folder.file("missing"), errors);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(describe("f", errors[0]), "f: cannot be read");
    errors.clear();
    loadSettings(folder.path().string(), errors);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].reason, "cannot be read");
    errors.clear();
    zuTest::writeFile(folder.file("large"), "{}" + std::string(1024 * 1024, ' '));
    loadSettings(folder.file("large"), errors);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].reason, "larger than 1 MiB");
    errors.clear();
    zuTest::writeFile(folder.file("good"), "{\"follow\": false}");
    EXPECT_FALSE(loadSettings(folder.file("good"), errors).follow);
    EXPECT_THAT(errors, IsEmpty());
}

TEST(Settings, ThePackagedFileIsGood)
{
    std::vector<TextError> errors;
    const Settings settings = loadSettings(ZU_PACKAGED_SETTINGS, errors);
    EXPECT_THAT(errors, IsEmpty()) << (errors.empty() ? "" : describe("", errors[0]));
    const Rule* rule = findRule(settings, "GEVSVC", "zuGevSvc");
    ASSERT_NE(rule, nullptr);
    EXPECT_EQ(rule->destination, "logsvc");
    EXPECT_EQ(rule->level, "info");
}

} // namespace
