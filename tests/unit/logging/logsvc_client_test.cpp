// The connection block and the commands, on scripted sockets and objects.
#include "logging/logsvc_client.h"

#include "logging/config.h"
#include "logging/logsvc_exchange.h"
#include "logging/timestamp.h"
#include "platform/text.h"
#include "tests/support/fake_shared_memory.h"
#include "tests/support/fake_socket.h"
#include "tests/support/fake_socket_library.h"
#include "tests/unit/logging/bytes.h"
#include "tests/unit/logging/fake_process.h"
#include "tests/unit/logging/support.h"

#include <boost/interprocess/exceptions.hpp>

#include <cerrno>

using namespace zuLogging;
using namespace zuTest;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

using Tree = boost::property_tree::ptree;
using FakeSockets::Call;
using zuPlatform::SendResult;

const zuPlatform::SocketAddress service{zuPlatform::hostToNetwork32(0x7F000B01), zuPlatform::hostToNetwork16(4000)};
// The service's address with another port, and its port with another address.
const zuPlatform::SocketAddress stranger{zuPlatform::hostToNetwork32(0x7F000B01), zuPlatform::hostToNetwork16(4001)};
const zuPlatform::SocketAddress namesake{zuPlatform::hostToNetwork32(0x7F000B02), zuPlatform::hostToNetwork16(4000)};

constexpr const char* noAnswer = "Log client command execution failure when communicating with the server.";

/// 2026-Nov-12 10:58:49.123456 in microseconds since 1970, of which the low 16 bits are the id.
constexpr std::uint64_t sinceEpoch = 1794481129123456;
constexpr auto requestId = static_cast<std::uint16_t>(sinceEpoch & 0xFFFF);

class Client : public testing::Test {
protected:
    Client()
    {
        FakeSockets::reset();
        FakeSockets::setInstantTimeouts(true);
        FakeSocketLibrary::reset();
        FakeProcess::setExecutablePath("/usr/bin/program.bin");
        zuLogging::detail::set_local_clock_for_testing([] { return moment("2026-Nov-12 10:58:49.123456"); });
    }
    ~Client() override { zuLogging::detail::set_local_clock_for_testing(nullptr); }

    /// Each request gets these answers.
    void answer(std::function<std::vector<Bytes>(const Bytes&)> answers)
    {
        FakeSockets::onSend([answers](const SentDatagram& request) {
            for (const Bytes& each : answers(request.data))
                FakeSockets::pushDatagram(each, service);
            return SendResult{static_cast<std::ptrdiff_t>(request.data.size()), 0};
        });
    }
    void answerWith(const std::string& json)
    {
        answer([json](const Bytes& request) { return std::vector<Bytes>{acknowledgeOf(request, json)}; });
    }

    static std::string configFailure(const Tree& attributes = Tree())
    {
        return failureOf<LogSvcError>([&] { LogSvcClient(service).get_config("MODULE", attributes); });
    }
    static std::string descriptionFailure(const std::string& module, const std::string& description)
    {
        return failureOf<LogSvcError>([&] { LogSvcClient(service).set_description(module, description); });
    }
};

} // namespace

TEST_F(Client, TheSocketIsSetUp)
{
    {
        const LogSvcClient client(service);
        EXPECT_EQ(FakeSocketLibrary::requested(), 0x0202);
        EXPECT_THAT(FakeSockets::calls(),
                    ElementsAre("0 open", "0 setReceiveBuffer 131072", "0 setSendBuffer 131072", "0 setNonBlocking"));
        EXPECT_EQ(FakeSocketLibrary::stops(), 0u);
        EXPECT_EQ(FakeSockets::alive(), 1u);
    }
    EXPECT_EQ(FakeSocketLibrary::stops(), 1u);
    EXPECT_EQ(FakeSockets::alive(), 0u);
}

TEST_F(Client, TheLibraryRefusesToStart)
{
    FakeSocketLibrary::setError(10091);
    EXPECT_EQ(configFailure(), "Winsock startup failed");
    EXPECT_EQ(FakeSocketLibrary::stops(), 0u);
}

TEST_F(Client, AnotherLibraryVersionIsRefused)
{
    FakeSocketLibrary::setObtained(0x0102);
    EXPECT_EQ(configFailure(), "Requested Winsock version not supported by this system");
    EXPECT_EQ(FakeSocketLibrary::stops(), 1u);
    EXPECT_EQ(FakeSockets::opened(), 0u);
}

TEST_F(Client, ThereIsNoSocket)
{
    FakeSockets::fail(Call::open, EMFILE);
    EXPECT_EQ(configFailure(), "Failed to create the log client socket");
    EXPECT_EQ(FakeSocketLibrary::stops(), 1u);
}

TEST_F(Client, RefusedSocketOptionsDoNotMatter)
{
    for (const Call call : {Call::setReceiveBuffer, Call::setSendBuffer, Call::setNonBlocking})
        FakeSockets::fail(call, EPERM);
    answerWith("{}");
    EXPECT_EQ(configFailure(), "nothing thrown");
}

TEST_F(Client, TheConfigurationRequestToTheByte)
{
    answerWith("{\"destination\":\"none\"}");
    LogSvcClient client(service);
    const Tree reply = client.get_config("GEVSVC", Tree());
    EXPECT_EQ(reply.get<std::string>("destination"), "none");
    const auto sent = FakeSockets::sent();
    ASSERT_THAT(sent, SizeIs(1));
    EXPECT_EQ(sent[0].to, service);
    EXPECT_EQ(sent[0].data, commandPacket(0x0001, requestId, "{\"module\":\"GEVSVC\",\"process\":\"program\"}\n"));
}

TEST_F(Client, AttributesStandFirstAndOwnKeysReplaceTheirs)
{
    answerWith("{}");
    Tree attributes;
    attributes.put("process", "theirs");
    attributes.put("extra.inner", "value");
    LogSvcClient(service).get_config("M\xC3\x96/\"", attributes);
    EXPECT_EQ(payloadOf(FakeSockets::sent().at(0).data),
              "{\"process\":\"program\",\"extra\":{\"inner\":\"value\"},\"module\":\"M\xC3\x96\\/\\\"\"}\n");
}

TEST_F(Client, AProcessWithoutANameLeavesTheKeyOut)
{
    answerWith("{}");
    FakeProcess::setExecutablePath("");
    LogSvcClient(service).get_config("M", Tree());
    EXPECT_EQ(payloadOf(FakeSockets::sent().back().data), "{\"module\":\"M\"}\n");
}

TEST_F(Client, WithoutABlockNobodyIsAsked)
{
    ZU_IN_FRESH_PROCESS({
        FakeSharedMemory::reset();
        EXPECT_FALSE(configure_logging("M", "what it is", Tree()));
        EXPECT_THAT(FakeSharedMemory::calls(),
                    ElementsAre("open read Global\\zuLogSvcConnectionInfo", "open read zuLogSvcConnectionInfo"));
        EXPECT_EQ(FakeSockets::opened(), 0u);
        EXPECT_THAT(FakeSockets::sent(), IsEmpty());
        EXPECT_EQ(root_logstate("").path(), "M");
        EXPECT_EQ(root_logstate("").levels(), 0u);
    });
}

TEST_F(Client, ADescriptionThatNobodyAnswersIsSentTwice)
{
    EXPECT_EQ(descriptionFailure("GEVSVC", "what it is"), noAnswer);
    const auto sent = FakeSockets::sent();
    ASSERT_THAT(sent, SizeIs(2));
    EXPECT_EQ(sent[0].data, sent[1].data);
    EXPECT_EQ(payloadOf(sent[1].data), "{\"module\":\"GEVSVC\",\"description\":\"what it is\"}\n");
}

TEST_F(Client, AProcessNameThatIsNotUtf8IsTheCallersTrouble)
{
    answerWith("{\"destination\":\"none\",\"level\":\"all\"}");
    FakeProcess::setExecutablePath("/usr/bin/\xFF\xFF");
    EXPECT_THROW(LogSvcClient(service).get_config("M", Tree()), base2::character_conversion_error);
    FakeSharedMemory::reset();
    FakeSharedMemory::put("Global\\zuLogSvcConnectionInfo", connectionBlock(0x7F000B01, 4000, 0x7F000B01, 4001));
    EXPECT_THROW(configure_logging("M", "", Tree()), base2::character_conversion_error);
    EXPECT_THAT(FakeSockets::sent(), IsEmpty());
    EXPECT_EQ(root_logstate("").levels(), 0u);
    FakeSharedMemory::reset();
}

TEST_F(Client, OnlyTheStemHasToBeUtf8)
{
    answerWith("{\"destination\":\"none\",\"level\":\"all\"}");
    FakeProcess::setExecutablePath("/usr/\xFF\xC3/\xE4/\x80/b\xC3\xA4r.bin");
    LogSvcClient(service).get_config("M", Tree());
    EXPECT_EQ(payloadOf(FakeSockets::sent().back().data), "{\"module\":\"M\",\"process\":\"b\xC3\xA4r\"}\n");
}

TEST_F(Client, AFolderThatIsNotUtf8HoldsNoConfigurationUp)
{
    ZU_IN_FRESH_PROCESS({
        answerWith("{\"destination\":\"none\",\"level\":\"info\"}");
        FakeSharedMemory::put("Global\\zuLogSvcConnectionInfo", connectionBlock(0x7F000B01, 4000, 0x7F000B01, 4001));
        FakeProcess::setExecutablePath("/home/b\xE4r/program");
        EXPECT_TRUE(configure_logging("M", "", Tree()));
        EXPECT_EQ(root_logstate("").levels(), 0x0Fu);
    });
}

TEST_F(Client, ALongExecutablePathIsCutUnnoticed)
{
    answerWith("{}");
    const std::string folder(300, 'f');
    FakeProcess::setExecutablePath('/' + folder + "/program");
    LogSvcClient(service).get_config("M", Tree());
    EXPECT_EQ(payloadOf(FakeSockets::sent().back().data),
              "{\"module\":\"M\",\"process\":\"" + std::string(260, 'f') + "\"}\n");
    // Characters count, not bytes; a byte that belongs to none counts as one.
    FakeProcess::setExecutablePath("/\xFF\xC3/\xE2\x82\xAC\xF0\x9F\x98\x80/" + folder);
    LogSvcClient(service).get_config("M", Tree());
    EXPECT_EQ(payloadOf(FakeSockets::sent().back().data),
              "{\"module\":\"M\",\"process\":\"" + std::string(261 - 7, 'f') + "\"}\n");
    std::string wide;
    for (int i = 0; i < 300; ++i)
        wide += "\xC3\xA4";
    FakeProcess::setExecutablePath('/' + wide);
    LogSvcClient(service).get_config("M", Tree());
    EXPECT_EQ(payloadOf(FakeSockets::sent().back().data),
              "{\"module\":\"M\",\"process\":\"" + wide.substr(0, 520) + "\"}\n");
}

TEST_F(Client, AnAttributeSetThatIsNoJson)
{
    Tree attributes;
    attributes.put("key", "data beside");
    attributes.put("key.child", "a child");
    EXPECT_EQ(configFailure(attributes), "Failed to serialize the attrtibute set");
    EXPECT_THAT(FakeSockets::sent(), IsEmpty());
}

TEST_F(Client, TheAttributeSetHasALimit)
{
    answerWith("{}");
    const std::size_t rest = std::string("{\"a\":\"\",\"module\":\"MODULE\",\"process\":\"program\"}\n").size();
    Tree attributes;
    attributes.put("a", std::string(1388 - rest, 'x'));
    EXPECT_EQ(configFailure(attributes), "nothing thrown");
    EXPECT_THAT(FakeSockets::sent().at(0).data, SizeIs(1400));
    attributes.put("a", std::string(1389 - rest, 'x'));
    EXPECT_EQ(configFailure(attributes), "The log configuration attribute list is too long");
    EXPECT_THAT(FakeSockets::sent(), SizeIs(1));
}

TEST_F(Client, ACommandPacketHasALimit)
{
    zuLogging::detail::packet buffer;
    EXPECT_EQ(zuLogging::detail::build_command(buffer, 1, 2, std::string(1388, 'x')), 1400u);
    EXPECT_EQ(failureOf<LogSvcError>([&] { zuLogging::detail::build_command(buffer, 1, 2, std::string(1389, 'x')); }),
              "The command packet data are out of range");
}

TEST_F(Client, AReplyThatIsNoJson)
{
    for (const char* reply : {"", "{", "{\"a\":}", "text", "{} more"}) {
        answerWith(reply);
        EXPECT_EQ(configFailure(), "Failed to deserialize the configuration set") << reply;
    }
}

TEST_F(Client, TheLongestReply)
{
    const std::string json = "{\"a\":\"" + std::string(1388 - 8, 'x') + "\"}";
    ASSERT_THAT(json, SizeIs(1388));
    answerWith(json);
    EXPECT_EQ(LogSvcClient(service).get_config("M", Tree()).get<std::string>("a"), std::string(1380, 'x'));
}

TEST_F(Client, TheDescriptionToTheByte)
{
    answer([](const Bytes& request) { return std::vector<Bytes>{acknowledgeOf(request, "not looked at")}; });
    LogSvcClient(service).set_description("GEVSVC", "what it is");
    EXPECT_EQ(FakeSockets::sent().at(0).data,
              commandPacket(0x0041, requestId, "{\"module\":\"GEVSVC\",\"description\":\"what it is\"}\n"));
}

TEST_F(Client, ADescriptionNeedsAModule)
{
    EXPECT_EQ(descriptionFailure("", "text"), "Trying to set description for a module with empty name");
    EXPECT_EQ(descriptionFailure("", ""), "Trying to set description for a module with empty name");
}

TEST_F(Client, AnEmptyDescriptionIsNotSent)
{
    EXPECT_EQ(descriptionFailure("M", ""), "nothing thrown");
    EXPECT_THAT(FakeSockets::sent(), IsEmpty());
}

TEST_F(Client, ADescriptionHasALimit)
{
    answerWith("");
    const std::size_t rest = std::string("{\"module\":\"M\",\"description\":\"\"}\n").size();
    EXPECT_EQ(descriptionFailure("M", std::string(1388 - rest, 'x')), "nothing thrown");
    EXPECT_EQ(descriptionFailure("M", std::string(1389 - rest, 'x')),
              "The module name/description combination is too long");
}

TEST_F(Client, StaleDatagramsAreReadAway)
{
    answerWith("{}");
    LogSvcClient client(service);
    FakeSockets::pushDatagram(Bytes(10), service);
    FakeSockets::pushDatagram(commandPacket(0x8001, requestId, "stale"), service);
    FakeSockets::pushDatagram(Bytes(1024), stranger);
    EXPECT_NO_THROW(client.get_config("M", Tree()));
    EXPECT_THAT(FakeSockets::sent(), SizeIs(1));
}

TEST_F(Client, AStaleDatagramThatIsTooLongFailsTheCommand)
{
    answerWith("{}");
    LogSvcClient client(service);
    FakeSockets::pushDatagram(Bytes(1025), service);
    EXPECT_EQ(failureOf<LogSvcError>([&] { client.get_config("M", Tree()); }),
              "Failed to read out invalid previous data from the log client socket");
    EXPECT_THAT(FakeSockets::sent(), IsEmpty());
}

TEST_F(Client, NoAnswerInTwoAttempts)
{
    EXPECT_EQ(configFailure(), noAnswer);
    const auto sent = FakeSockets::sent();
    ASSERT_THAT(sent, SizeIs(2));
    EXPECT_EQ(sent[0].data, sent[1].data);
    EXPECT_EQ(FakeSockets::countCalls("0 receive 500"), 2u);
}

TEST_F(Client, TheSecondAttemptCounts)
{
    int count = 0;
    answer([&](const Bytes& request) {
        return ++count == 1 ? std::vector<Bytes>() : std::vector<Bytes>{acknowledgeOf(request, "{}")};
    });
    EXPECT_EQ(configFailure(), "nothing thrown");
}

TEST_F(Client, AFailedSendIsAnAttempt)
{
    answerWith("{}");
    FakeSockets::fail(Call::sendTo, EAGAIN, 1);
    EXPECT_EQ(configFailure(), "nothing thrown");
    EXPECT_EQ(FakeSockets::countCalls("0 receive 500"), 1u);
    FakeSockets::reset();
    FakeSockets::setInstantTimeouts(true);
    FakeSockets::fail(Call::sendTo, EAGAIN, 2);
    EXPECT_EQ(configFailure(), noAnswer);
}

TEST_F(Client, AStrangersDatagramEndsTheAttempt)
{
    for (const auto& from : {stranger, namesake}) {
        FakeSockets::reset();
        FakeSockets::setInstantTimeouts(true);
        FakeSockets::onSend([from](const SentDatagram& request) {
            FakeSockets::pushDatagram(acknowledgeOf(request.data, "{}"), from);
            return SendResult{static_cast<std::ptrdiff_t>(request.data.size()), 0};
        });
        EXPECT_EQ(configFailure(), noAnswer);
        EXPECT_THAT(FakeSockets::sent(), SizeIs(2));
    }
}

TEST_F(Client, AFailedReceiveEndsTheAttempt)
{
    int count = 0;
    FakeSockets::onSend([&](const SentDatagram& request) {
        if (++count == 1)
            FakeSockets::pushReceive({zuPlatform::ReceiveResult::Kind::receiveFailed, 0, ECONNREFUSED});
        else
            FakeSockets::pushDatagram(acknowledgeOf(request.data, "{}"), service);
        return SendResult{static_cast<std::ptrdiff_t>(request.data.size()), 0};
    });
    EXPECT_EQ(configFailure(), "nothing thrown");
    EXPECT_EQ(count, 2);
}

TEST_F(Client, AnAnswerThatIsTooLongEndsTheAttempt)
{
    answer([](const Bytes& request) { return std::vector<Bytes>{acknowledgeOf(request, std::string(1389, 'x'))}; });
    EXPECT_EQ(configFailure(), noAnswer);
}

TEST_F(Client, AWrongIdFailsAtOnce)
{
    answer([](const Bytes& request) {
        Bytes wrong = acknowledgeOf(request, "{}");
        wrong[8] ^= 1;
        return std::vector<Bytes>{wrong, acknowledgeOf(request, "{}")};
    });
    EXPECT_EQ(configFailure(), "The received acknowledge does not match the actual request");
    EXPECT_THAT(FakeSockets::sent(), SizeIs(1));
}

TEST_F(Client, EveryTruncatedAcknowledgeIsMalformed)
{
    const std::string json = "{\"destination\":\"none\"}";
    for (std::size_t size = 0; size < 12 + json.size(); ++size) {
        answer([&](const Bytes& request) {
            Bytes cut = acknowledgeOf(request, json);
            cut.resize(size);
            return std::vector<Bytes>{cut};
        });
        EXPECT_EQ(configFailure(), "Received malformed acknowledge packet") << size;
    }
}

TEST_F(Client, AcknowledgesAreCheckedInOrder)
{
    constexpr const char* malformed = "Received malformed acknowledge packet";
    constexpr const char* mismatch = "The received acknowledge does not match the actual request";
    constexpr const char* flagged = "The received acknowledge contains unsupported flags";
    constexpr const char* negative = "The command was not successful (negative acknowledge received)";
    struct Case {
        const char* name;
        std::function<void(Bytes&)> change;
        const char* failure;
    };
    const Case cases[] = {
        {"as it should be", [](Bytes&) {}, "nothing thrown"},
        {"magic", [](Bytes& packet) { packet[0] = 0xCB; }, malformed},
        {"the magic of messages", [](Bytes& packet) { packet[0] = packet[1] = 0xDA; }, malformed},
        {"length too small", [](Bytes& packet) { packet[10] -= 1; }, malformed},
        {"length too large", [](Bytes& packet) { packet[10] += 1; }, malformed},
        {"length out of range", [](Bytes& packet) { packet[10] = packet[11] = 0xFF; }, malformed},
        {"a byte too many", [](Bytes& packet) { packet.push_back(0); }, malformed},
        {"the request's command", [](Bytes& packet) { packet[5] = 0x00; }, mismatch},
        {"another command", [](Bytes& packet) { packet[4] = 0x41; }, mismatch},
        {"id", [](Bytes& packet) { packet[9] ^= 0x80; }, mismatch},
        {"flag 0", [](Bytes& packet) { packet[2] = 1; }, flagged},
        {"flag 15", [](Bytes& packet) { packet[3] = 0x80; }, flagged},
        {"status 1", [](Bytes& packet) { packet[6] = 1; }, negative},
        {"status 0x8000", [](Bytes& packet) { packet[7] = 0x80; }, negative},
        {"magic before id", [](Bytes& packet) { packet[0] = packet[8] = 0; }, malformed},
        {"id before flags", [](Bytes& packet) { packet[2] = packet[9] ^= 0x80; }, mismatch},
        {"flags before status", [](Bytes& packet) { packet[2] = packet[6] = 1; }, flagged},
    };
    for (const Case& each : cases) {
        answer([&](const Bytes& request) {
            Bytes changed = acknowledgeOf(request, "{}");
            each.change(changed);
            return std::vector<Bytes>{changed};
        });
        EXPECT_EQ(configFailure(), each.failure) << each.name;
    }
}

namespace {

class Block : public testing::Test {
protected:
    Block() { FakeSharedMemory::reset(); }
    static std::string failure()
    {
        return failureOf<LogSvcError>([] { read_connection_info(); });
    }
    const Bytes good = connectionBlock(0x7F000B01, 4000, 0x7F000B02, 5000);
};

constexpr const char* globalName = "Global\\zuLogSvcConnectionInfo";
constexpr const char* plainName = "zuLogSvcConnectionInfo";
constexpr const char* invalid = "Failed to retrieve valid connection info";

} // namespace

TEST_F(Block, IsRead)
{
    FakeSharedMemory::put(globalName, good);
    const connection_info info = read_connection_info();
    EXPECT_EQ(info.version, 1u);
    EXPECT_EQ(info.size, 24u);
    EXPECT_EQ(info.command_address, 0x7F000B01u);
    EXPECT_EQ(info.command_port, 4000);
    EXPECT_EQ(info.message_address, 0x7F000B02u);
    EXPECT_EQ(info.message_port, 5000);
    EXPECT_THAT(FakeSharedMemory::calls(), ElementsAre(std::string("open read ") + globalName));
}

TEST_F(Block, ThePlainNameIsTriedSecond)
{
    FakeSharedMemory::put(plainName, good);
    EXPECT_EQ(read_connection_info().command_port, 4000);
    EXPECT_THAT(FakeSharedMemory::calls(),
                ElementsAre(std::string("open read ") + globalName, std::string("open read ") + plainName));
}

TEST_F(Block, IsMissing)
{
    FakeSharedMemory::fail(FakeSharedMemory::Call::open, EACCES, 1);
    FakeSharedMemory::fail(FakeSharedMemory::Call::open, ENOENT, 1, 1);
    const boost::interprocess::interprocess_exception expected(boost::interprocess::error_info(ENOENT),
                                                               "Shared memory error");
    EXPECT_EQ(failure(),
              std::string("Failed to connect to the shared memory with connection info: ") + expected.what());
}

TEST_F(Block, CannotBeMapped)
{
    FakeSharedMemory::put(globalName, {});
    EXPECT_THAT(failure(), testing::StartsWith("Failed to connect to the shared memory with connection info: "));
}

TEST_F(Block, IsLonger)
{
    Bytes longer = connectionBlock(0x7F000B01, 4000, 0x7F000B02, 5000, 7, 4096);
    longer.resize(4096);
    FakeSharedMemory::put(globalName, longer);
    EXPECT_EQ(read_connection_info().message_port, 5000);
}

TEST_F(Block, IsTruncated)
{
    for (std::size_t size = 1; size < good.size(); ++size) {
        FakeSharedMemory::put(globalName, Bytes(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size)));
        EXPECT_EQ(failure(), invalid) << size;
    }
}

TEST_F(Block, HasWrongFields)
{
    const Bytes wrong[] = {
        connectionBlock(0x7F000B01, 4000, 0x7F000B02, 5000, 0, 24),
        connectionBlock(0x7F000B01, 4000, 0x7F000B02, 5000, 1, 16),
        connectionBlock(0x7F000B01, 4000, 0x7F000B02, 5000, 1, 23),
        connectionBlock(0x7F000B01, 4000, 0x7F000B02, 5000, 1, 24, 0),
        connectionBlock(0x7F000B01, 4000, 0x7F000B02, 5000, 1, 24, 0xABABBABB),
        Bytes(24),
    };
    for (const Bytes& block : wrong) {
        FakeSharedMemory::put(globalName, block);
        EXPECT_EQ(failure(), invalid);
    }
}
