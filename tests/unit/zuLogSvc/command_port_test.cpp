// What the command port answers.
#include "tests/unit/zuLogSvc/support.h"

#include "tools/zuLogSvc/command_port.h"
#include "tools/zuLogSvc/protocol.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

namespace {

using namespace zuLogSvc;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using zuTest::bytes;

class Commands : public ::testing::Test {
protected:
    void useSettings(const std::string& text)
    {
        std::vector<TextError> errors;
        auto fresh = std::make_shared<const Settings>(parseSettings(text, errors));
        ASSERT_THAT(errors, IsEmpty());
        port.setSettings(fresh);
    }
    /// Status and payload of the answer; the rest is checked to fit the request.
    std::pair<int, std::string> ask(std::uint16_t command, const std::string& payload)
    {
        const Packet answer = port.handle(encodeCommand(command, 0x1234, payload), viewer);
        CommandPacket packet;
        const Fault fault = decodeAcknowledge(answer, packet);
        EXPECT_EQ(fault, nullptr) << fault;
        EXPECT_EQ(packet.header.command, command | 0x8000);
        EXPECT_EQ(packet.header.id, 0x1234);
        return {packet.header.status, std::string(packet.payload)};
    }

    zuTest::TestClock clock;
    Followers followers;
    std::vector<std::string> notes;
    const zuPlatform::SocketAddress viewer = zuPlatform::loopbackAt(zuPlatform::hostToNetwork16(40000));
    CommandPort port{std::make_shared<const Settings>(), followers, clock,
                     [this](std::uint32_t level, const std::string& text) {
                         notes.push_back(std::string(level == 4 ? "warn " : "info ") + text);
                     }};
};

TEST_F(Commands, WithoutSettingsEverythingGoesHereAtLevelInfo)
{
    const Packet answer =
        port.handle(bytes("ca ac 00 00 01 00 00 00 34 12 29 00 "
                          "7b 22 \"module\" 22 3a 22 \"GEVSVC\" 22 2c 22 \"process\" 22 3a 22 \"zuGevSvc\" 22 7d 0a"),
                    viewer);
    EXPECT_EQ(answer, bytes("ca ac 00 00 01 80 00 00 34 12 27 00 "
                            "7b 22 \"destination\" 22 3a 22 \"logsvc\" 22 2c 22 \"level\" 22 3a 22 \"info\" 22 7d"));
    EXPECT_THAT(notes, ElementsAre("info module \"GEVSVC\" of process \"zuGevSvc\" asks for its settings: no rule, so "
                                   "destination logsvc, level info"));
}

TEST_F(Commands, RulesAnswer)
{
    useSettings(R"({"rules": [{"process": "zu*", "destination": "cerr", "level": "warn"}]})");
    EXPECT_EQ(ask(1, R"({"a":{"b":"c"},"module":"GEVSVC","process":"zuGevSvc"})").second,
              R"({"destination":"cerr","level":"warn"})");
    EXPECT_EQ(ask(1, R"({"module":"GEVSVC"})").second, R"({"destination":"logsvc","level":"info"})");
    EXPECT_THAT(notes,
                Contains("info module \"GEVSVC\" of process \"zuGevSvc\" asks for its settings: rule 0, destination "
                         "cerr, level warn"));
    useSettings("{}");
    EXPECT_EQ(ask(1, R"({"module":"GEVSVC","process":"zuGevSvc"})").second,
              R"({"destination":"logsvc","level":"info"})");
}

TEST_F(Commands, NamesThatAreNoUtf8AreBorne) { EXPECT_EQ(ask(1, "{\"module\":\"\xff\"}").first, 0); }

TEST_F(Commands, DescriptionsAreTakenAndShown)
{
    EXPECT_EQ(ask(0x41, R"({"module":"GEVSVC","description":"cameras"})"), (std::pair<int, std::string>{0, ""}));
    EXPECT_THAT(notes, ElementsAre("info module \"GEVSVC\": cameras"));
}

TEST_F(Commands, WhatIsNoJsonGetsANegativeAcknowledge)
{
    for (const char* payload : {"", "{", "[]", "7", "{\"module\":\"a\"} x"}) {
        EXPECT_EQ(ask(1, payload).first, statusBadPayload) << payload;
        EXPECT_EQ(ask(0x41, payload).first, statusBadPayload) << payload;
    }
    EXPECT_EQ(ask(1, std::string(1388, '[')).first, statusBadPayload);
    EXPECT_EQ(port.badDatagrams(), 11u);
}

TEST_F(Commands, UnknownCommandsGetANegativeAcknowledge)
{
    EXPECT_EQ(ask(2, "{}").first, statusUnknownCommand);
    EXPECT_EQ(ask(0x0101, "").first, statusUnknownCommand);
}

TEST_F(Commands, WhatIsNoRequestGetsNoAnswer)
{
    EXPECT_THAT(port.handle({}, viewer), IsEmpty());
    // An acknowledge above all, or two services could answer each other for ever.
    EXPECT_THAT(port.handle(bytes("ca ac 00 00 01 80 00 00 00 00 00 00"), viewer), IsEmpty());
    EXPECT_THAT(port.handle(zuTest::datagramOf(zuTest::someMessage("t")), viewer), IsEmpty());
    EXPECT_EQ(port.badDatagrams(), 3u);
}

TEST_F(Commands, EveryLengthOfGarbageIsCountedAndToldSeldom)
{
    std::mt19937 random(3);
    for (std::size_t size = 0; size <= 1401; ++size) {
        Packet datagram(size);
        for (auto& byte : datagram)
            byte = static_cast<std::uint8_t>(random());
        EXPECT_THAT(port.handle(datagram, viewer), IsEmpty());
        port.tick();
    }
    EXPECT_EQ(port.badDatagrams(), 1402u);
    EXPECT_THAT(notes,
                ElementsAre("warn 1 bad datagrams at the command port, the latest from 127.0.0.1:40000, 0 bytes: "
                            "shorter than a header"));
    clock.steady += 10'000;
    port.tick();
    ASSERT_EQ(notes.size(), 2u);
    EXPECT_EQ(notes[1],
              "warn 1401 bad datagrams at the command port, the latest from 127.0.0.1:40000, 1401 bytes: wrong "
              "magic");
}

TEST_F(Commands, ManyRequestsAreAnsweredButNotAllTold)
{
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(ask(1, "{}").first, 0);
    EXPECT_EQ(notes.size(), 20u);
    clock.steady += 1000;
    port.tick();
    EXPECT_EQ(notes.back(), "info 80 more requests answered");
    for (int i = 0; i < 23; ++i)
        ask(1, "{}");
    port.tick();
    EXPECT_EQ(notes.size(), 41u);
    port.tick(true);
    EXPECT_EQ(notes.back(), "info 3 more requests answered") << "at the end they don't wait for the second";
}

TEST_F(Commands, ViewersAreTaken)
{
    EXPECT_EQ(ask(cmdFollow, R"({"levels":15})").first, 0);
    EXPECT_FALSE(followers.none());
    EXPECT_EQ(ask(cmdUnfollow, "").first, 0);
    EXPECT_TRUE(followers.none());
    EXPECT_EQ(ask(cmdFollow, "nonsense").first, statusBadPayload);
    for (std::uint16_t i = 0; i < Followers::maxFollowers; ++i)
        followers.follow(zuPlatform::loopbackAt(i), {}, clock.steady);
    EXPECT_EQ(ask(cmdFollow, "{}"), (std::pair<int, std::string>{statusRefused, "it has as many viewers as it takes"}));
}

TEST_F(Commands, ViewersAreRefusedWhereTheSettingsSaySo)
{
    useSettings(R"({"follow": false})");
    EXPECT_EQ(ask(cmdFollow, "{}"),
              (std::pair<int, std::string>{statusRefused, "its settings do not let viewers follow"}));
    EXPECT_TRUE(followers.none());
}

} // namespace
