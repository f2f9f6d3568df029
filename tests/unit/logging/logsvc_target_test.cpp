// Message packets, byte by byte, and what becomes of a message that can't be sent.
#include "logging/logsvc_target.h"

#include "logging/log.h"
#include "logging/logsvc_packet.h"
#include "logging/timestamp.h"
#include "platform/text.h"
#include "tests/support/fake_socket.h"
#include "tests/support/fake_socket_library.h"
#include "tests/unit/logging/bytes.h"
#include "tests/unit/logging/fake_process.h"
#include "tests/unit/logging/support.h"
#include "tools/zuLogSvc/packet_decoder.h"

#include <unistd.h>

#include <cerrno>
#include <set>
#include <thread>

using namespace zuLogging;
using namespace zuTest;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

using FakeSockets::Call;

const zuPlatform::SocketAddress service{zuPlatform::hostToNetwork32(0x7F000B01), zuPlatform::hostToNetwork16(5000)};

/// The id of a packet at the time that the clock shows.
constexpr auto packetId = static_cast<std::uint16_t>(1794481129123456 & 0xFFFF);
/// 2026-Nov-12 10:58:49.123456 since 1400-Jan-01.
constexpr std::uint64_t stamped = 19781924329123456;

std::uint64_t threadId() { return static_cast<std::uint64_t>(::gettid()); }

/// The elements of a plain message up to its text.
Layout plainHead(const basic_timed_msgstate& msg, const std::string& group = {}, bool withThread = true)
{
    Layout elements;
    elements.numberElement(2, stamped).element(3, msg.log.path()).numberElement(4, msg.level);
    if (withThread)
        elements.numberElement(9, threadId());
    elements.numberElement(8, FakeProcess::processId).element(5, group).numberElement(10, 65001);
    return elements;
}

class LogSvcTarget : public testing::Test {
protected:
    LogSvcTarget()
    {
        FakeSockets::reset();
        FakeSocketLibrary::reset();
        zuLogging::detail::set_local_clock_for_testing([] { return moment("2026-Nov-12 10:58:49.123456"); });
    }
    ~LogSvcTarget() override { zuLogging::detail::set_local_clock_for_testing(nullptr); }

    static Bytes lastSent() { return FakeSockets::sent().back().data; }

    basic_timed_msgstate msg = message("Sender.0", log_warn);
};

log_record recordOf(unsigned char value)
{
    log_record record;
    record.fill(value);
    return record;
}

} // namespace

TEST_F(LogSvcTarget, TheSocketIsSetUp)
{
    {
        const basic_logsvc_target target(service, true);
        EXPECT_THAT(FakeSockets::calls(), testing::ElementsAre("0 open", "0 setReceiveBuffer 131072",
                                                               "0 setSendBuffer 131072", "0 setNonBlocking"));
    }
    EXPECT_EQ(FakeSocketLibrary::stops(), 1u);
    EXPECT_EQ(FakeSockets::alive(), 0u);
}

TEST_F(LogSvcTarget, FailuresOfItsSocket)
{
    const auto failure = [] { return failureOf<LogSvcError>([] { basic_logsvc_target(service, true); }); };
    FakeSockets::fail(Call::open, EMFILE);
    EXPECT_EQ(failure(), "Failed to create the log client socket");
    FakeSocketLibrary::setObtained(0x0101);
    EXPECT_EQ(failure(), "Requested Winsock version not supported by this system");
    FakeSocketLibrary::setError(1);
    EXPECT_EQ(failure(), "Winsock startup failed");
}

TEST_F(LogSvcTarget, APlainMessageToTheByte)
{
    basic_logsvc_target target(service, true);
    msg.location = "src/file.cpp(12)";
    write(target, msg, std::string("a text\nof two lines"));
    ASSERT_THAT(FakeSockets::sent(), SizeIs(1));
    EXPECT_EQ(FakeSockets::sent()[0].to, service);
    EXPECT_EQ(lastSent(),
              messagePacket(0x0101, packetId, 1, 0,
                            plainHead(msg).element(1, "a text\nof two lines").element(6, "src/file.cpp(12)").bytes));
}

TEST_F(LogSvcTarget, TheHeadOfAPacketInHexadecimal)
{
    basic_logsvc_target target(service, false);
    write(target, msg, std::string("x"));
    const Bytes packet = lastSent();
    const std::string path = msg.log.path();
    const Bytes start = {0xDA, 0xAD, 0x01, 0x00, 0x01, 0x01, 0x00, 0x00};
    EXPECT_EQ(Bytes(packet.begin(), packet.begin() + 8), start);
    EXPECT_EQ(fieldOf(packet, 10, 2), packet.size() - 12);
    EXPECT_EQ(fieldOf(packet, 12, 2), packet.size() - 12);
    // Behind the container's head of 28 bytes, the time: 8 bytes of type 2.
    const Bytes time = {0x08, 0x00, 0x02, 0x00, 0x80, 0x6E, 0x9C, 0x2C, 0x8E, 0x47, 0x46, 0x00};
    EXPECT_EQ(Bytes(packet.begin() + 40, packet.begin() + 52), time);
    // The last element is the empty location, 4 bytes.
    const Bytes end = {0x01, 0x00, 0x01, 0x00, 'x', 0x00, 0x00, 0x06, 0x00};
    EXPECT_EQ(Bytes(packet.end() - 9, packet.end()), end);
    EXPECT_EQ(packet.size(), 12u + 28 + 12 + 4 + path.size() + 12 + 12 + 4 + 12 + 5 + 4);
}

TEST_F(LogSvcTarget, AMessageWithAGroup)
{
    basic_logsvc_target target(service, true);
    msg.group = logstate::register_group("BufferHandling");
    write(target, msg, std::string("text"));
    EXPECT_EQ(lastSent(), messagePacket(0x0101, packetId, 1, 0,
                                        plainHead(msg, "BufferHandling").element(1, "text").element(6, "").bytes));
}

TEST_F(LogSvcTarget, AnUnknownGroupLosesTheMessageAndItsNumber)
{
    basic_logsvc_target target(service, true);
    msg.group = group_id(std::uint64_t{1} << 63);
    EXPECT_THROW(write(target, msg, std::string("text")), std::invalid_argument);
    EXPECT_THAT(FakeSockets::sent(), IsEmpty());
    msg.group = all_groups;
    write(target, msg, std::string("text"));
    EXPECT_EQ(fieldOf(lastSent(), 16, 8), 2u);
}

TEST_F(LogSvcTarget, AMessageWithRecordsToTheByte)
{
    basic_logsvc_target target(service, true);
    msg.records = {recordOf(1), recordOf(2)};
    write(target, msg, std::string("text"));
    Layout elements;
    elements.element(7, std::string(264, '\1') + std::string(264, '\2'));
    const Bytes rest = plainHead(msg).element(1, "text").element(6, "").bytes;
    elements.bytes.insert(elements.bytes.end(), rest.begin(), rest.end());
    EXPECT_EQ(lastSent(), messagePacket(0x0102, packetId, 1, 4, elements.bytes));
}

TEST_F(LogSvcTarget, RecordsThatDoNotFitLeaveNothing)
{
    basic_logsvc_target target(service, true);
    msg.records.assign(6, recordOf(1));
    write(target, msg, std::string("text"));
    EXPECT_EQ(lastSent(), messagePacket(0x0102, packetId, 1, 1 | 4, {}));
    // Five of them take 1324 of 1360 bytes; time and path still fit, depending on its length.
    msg.records.resize(5);
    write(target, msg, std::string("text"));
    EXPECT_EQ(fieldOf(lastSent(), 14, 2), 1u | 4u);
    EXPECT_EQ(fieldOf(lastSent(), 40, 2), 5u * 264);
}

TEST_F(LogSvcTarget, EachKindCountsForItself)
{
    basic_logsvc_target target(service, true);
    auto withRecords = msg;
    withRecords.records.resize(1);
    std::vector<std::pair<std::uint64_t, std::uint64_t>> numbers;
    for (const auto* each : {&msg, &withRecords, &withRecords, &msg, &msg}) {
        write(target, *each, std::string("text"));
        EXPECT_EQ(fieldOf(lastSent(), 16, 8), fieldOf(lastSent(), 24, 8));
        numbers.emplace_back(fieldOf(lastSent(), 4, 2), fieldOf(lastSent(), 16, 8));
    }
    using Pair = std::pair<std::uint64_t, std::uint64_t>;
    EXPECT_THAT(numbers,
                testing::ElementsAre(Pair(0x101, 1), Pair(0x102, 1), Pair(0x102, 2), Pair(0x101, 2), Pair(0x101, 3)));
}

TEST_F(LogSvcTarget, CopiesShareTheNumbers)
{
    basic_logsvc_target target(service, true);
    basic_logsvc_target copy(target);
    write(target, msg, std::string("text"));
    write(copy, msg, std::string("text"));
    EXPECT_EQ(fieldOf(lastSent(), 16, 8), 2u);
    EXPECT_EQ(FakeSockets::opened(), 1u);
}

TEST_F(LogSvcTarget, WithoutThreadIdsThereIsNoSuchElement)
{
    basic_logsvc_target target(service, false);
    write(target, msg, std::string("text"));
    const Bytes plain = plainHead(msg, "", false).element(1, "text").element(6, "").bytes;
    EXPECT_EQ(lastSent(), messagePacket(0x0101, packetId, 1, 0, plain));
    msg.records.resize(1);
    write(target, msg, std::string("text"));
    Layout elements;
    elements.element(7, std::string(264, '\0'));
    elements.bytes.insert(elements.bytes.end(), plain.begin(), plain.end());
    EXPECT_EQ(lastSent(), messagePacket(0x0102, packetId, 1, 4, elements.bytes));
}

TEST_F(LogSvcTarget, ALongTextFillsTheDatagram)
{
    basic_logsvc_target target(service, true);
    write(target, msg, std::string(2000, 'x'));
    const Layout head = plainHead(msg);
    const std::size_t room = 1388 - 28 - head.bytes.size() - 4;
    EXPECT_THAT(lastSent(), SizeIs(1400));
    EXPECT_EQ(lastSent(),
              messagePacket(0x0101, packetId, 1, 1 | 2, Layout(head).element(1, std::string(room, 'x')).bytes));
}

TEST_F(LogSvcTarget, TextsAroundTheLimit)
{
    basic_logsvc_target target(service, true);
    msg.location = "location";
    const Layout head = plainHead(msg);
    const std::size_t room = 1388 - 28 - head.bytes.size() - 4;
    for (std::size_t size = room - 20; size <= room + 3; ++size) {
        write(target, msg, std::string(size, 'x'));
        const bool cut = size > room;
        const bool located = size + 12 <= room;
        Layout elements = head;
        elements.element(1, std::string(std::min(size, room), 'x'));
        if (located)
            elements.element(6, "location");
        const std::uint64_t sequence = fieldOf(lastSent(), 16, 8);
        EXPECT_EQ(lastSent(),
                  messagePacket(0x0101, packetId, sequence,
                                static_cast<std::uint16_t>((located ? 0 : 1) | (cut ? 2 : 0)), elements.bytes))
            << size - room;
    }
}

TEST_F(LogSvcTarget, WideTextIsUtf16)
{
    basic_logsvc_target target(service, true);
    write(target, msg, std::wstring(L"a\x20AC\x1F600"));
    EXPECT_EQ(lastSent(),
              messagePacket(
                  0x0101, packetId, 1, 0,
                  plainHead(msg).element(1, std::string("a\0\xAC\x20\x3D\xD8\x00\xDE", 8), 1).element(6, "").bytes));
    write(target, msg, std::wstring());
    EXPECT_EQ(lastSent(), messagePacket(0x0101, packetId, 2, 0, plainHead(msg).element(1, "", 1).element(6, "").bytes));
    EXPECT_THROW(write(target, msg, std::wstring(1, static_cast<wchar_t>(0xDC00))), base2::character_conversion_error);
    write(target, msg, std::string());
    EXPECT_EQ(fieldOf(lastSent(), 16, 8), 4u);
}

TEST_F(LogSvcTarget, WideTextIsCutByBytes)
{
    basic_logsvc_target target(service, true);
    write(target, msg, std::wstring(1000, L'x'));
    const Layout head = plainHead(msg);
    const std::size_t room = 1388 - 28 - head.bytes.size() - 4;
    std::string text;
    for (int i = 0; i < 1000; ++i)
        text += std::string("x\0", 2);
    EXPECT_EQ(lastSent(),
              messagePacket(0x0101, packetId, 1, 1 | 2, Layout(head).element(1, text.substr(0, room), 1).bytes));
}

TEST_F(LogSvcTarget, InconstantData)
{
    basic_logsvc_target target(service, true);
    const std::string words = "Constructing an input log message container from inconstant data";
    const char text[] = "text";
    const wchar_t wide[] = L"text";
    const auto failure = [&](const auto* begin, const auto* end) {
        return failureOf<LogSvcError>([&] { target.write(msg, begin, end); });
    };
    const char* const none = nullptr;
    const wchar_t* const wideNone = nullptr;
    EXPECT_EQ(failure(none, none), words);
    EXPECT_EQ(failure(none, text), words);
    EXPECT_EQ(failure(text, none), words);
    EXPECT_EQ(failure(text + 1, text), words);
    EXPECT_EQ(failure(wideNone, wideNone), words);
    EXPECT_EQ(failure(wide + 1, wide), words);
    EXPECT_EQ(failure(text, text), "nothing thrown");
    // The numbers of the failed ones are used up.
    EXPECT_EQ(fieldOf(lastSent(), 16, 8), 7u);
}

TEST_F(LogSvcTarget, AFailedSendIsTriedOnceMore)
{
    basic_logsvc_target target(service, true);
    FakeSockets::fail(Call::sendTo, EAGAIN, 1);
    write(target, msg, std::string("text"));
    EXPECT_EQ(fieldOf(lastSent(), 16, 8), 1u);
}

TEST_F(LogSvcTarget, TwoFailedSendsLoseTheMessageAndItsNumber)
{
    basic_logsvc_target target(service, true);
    FakeSockets::fail(Call::sendTo, EAGAIN, 2);
    EXPECT_EQ(failureOf<LogSvcError>([&] { write(target, msg, std::string("text")); }),
              "Log client command execution failure when communicating with the server.");
    write(target, msg, std::string("text"));
    EXPECT_EQ(fieldOf(lastSent(), 16, 8), 2u);
    EXPECT_EQ(FakeSockets::countCalls("0 receive 0"), 0u);
}

TEST_F(LogSvcTarget, AStreamSurvivesALostMessage)
{
    const CleanTargets clean;
    logstate log = make_numbered_logstate("Lossy");
    log.set_levels(0xFF);
    add_plain_target(std::make_shared<basic_logsvc_target>(service, true));
    FakeSockets::fail(Call::sendTo, EAGAIN, 2);
    EXPECT_NO_THROW(ZU_LOG(log, log_info, "lost"));
    ZU_LOG(log, log_info, "sent");
    ASSERT_THAT(FakeSockets::sent(), SizeIs(1));
    EXPECT_EQ(fieldOf(lastSent(), 16, 8), 2u);
}

TEST_F(LogSvcTarget, EveryThreadSendsItsOwnNumber)
{
    basic_logsvc_target target(service, true);
    constexpr int threads = 8;
    constexpr int each = 50;
    std::vector<std::thread> workers;
    for (int i = 0; i < threads; ++i)
        workers.emplace_back([&] {
            for (int k = 0; k < each; ++k)
                write(target, msg, std::string("text"));
        });
    for (std::thread& worker : workers)
        worker.join();
    std::set<std::uint64_t> numbers;
    std::set<std::uint64_t> ids;
    for (const SentDatagram& sent : FakeSockets::sent()) {
        numbers.insert(fieldOf(sent.data, 16, 8));
        zuLogSvc::LogMessage decoded;
        ASSERT_EQ(zuLogSvc::decodeMessage(sent.data, decoded), nullptr);
        ids.insert(decoded.thread.value_or(0));
    }
    EXPECT_THAT(numbers, SizeIs(threads * each));
    EXPECT_EQ(*numbers.rbegin(), static_cast<std::uint64_t>(threads * each));
    EXPECT_THAT(ids, SizeIs(threads));
}

TEST_F(LogSvcTarget, TheServicesDecoderReadsTheSame)
{
    basic_logsvc_target target(service, true);
    msg.group = logstate::register_group("IPConnection");
    msg.location = "src/file.cpp(12)";
    msg.records.resize(2);
    write(target, msg, std::string("the t\xC3\xA4xt"));
    zuLogSvc::LogMessage decoded;
    const Bytes packet = lastSent();
    ASSERT_EQ(zuLogSvc::decodeMessage(packet, decoded), nullptr);
    EXPECT_EQ(decoded.command, 0x0102);
    EXPECT_EQ(decoded.sequence, 1u);
    EXPECT_EQ(decoded.time, stamped);
    EXPECT_EQ(decoded.logger, msg.log.path());
    EXPECT_EQ(decoded.level, log_warn);
    EXPECT_EQ(decoded.group, "IPConnection");
    EXPECT_EQ(decoded.text, "the t\xC3\xA4xt");
    EXPECT_EQ(decoded.location, "src/file.cpp(12)");
    EXPECT_EQ(decoded.process, FakeProcess::processId);
    EXPECT_EQ(decoded.thread, threadId());
    EXPECT_EQ(decoded.codePage, 65001u);
    EXPECT_EQ(decoded.records, 2u);
    EXPECT_TRUE(decoded.hasRecords);
    EXPECT_FALSE(decoded.textCut);
    EXPECT_FALSE(decoded.incomplete);
}

namespace {

Bytes built(const zuLogging::detail::pattern& order, const basic_msgstate& msg, const std::string& text)
{
    zuLogging::detail::packet buffer;
    buffer.fill(0xEE);
    const std::size_t size =
        zuLogging::detail::build_message(buffer, 0x0101, 7, 9, order, msg, {text.data(), text.size(), false});
    // The target sets the header's flag.
    Bytes packet(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(size));
    EXPECT_EQ(packet[2], 0);
    packet[2] = 1;
    return packet;
}

} // namespace

TEST_F(LogSvcTarget, APatternHasTypesOneToTenOnly)
{
    for (const int type : {0, 11, 255})
        EXPECT_EQ(failureOf<LogSvcError>([&] { built({static_cast<std::uint8_t>(type)}, msg, "text"); }),
                  "Invalid pattern used when constructing the log message container");
}

TEST_F(LogSvcTarget, NumbersNeedTheirRoom)
{
    // A location of this size leaves `room` bytes behind it.
    for (const std::size_t room : {0, 1, 3, 4, 11, 12, 13}) {
        msg.location.assign(1360 - 4 - room, 'l');
        Layout elements;
        elements.element(6, msg.location);
        const bool fits = room >= 12;
        if (fits)
            elements.numberElement(4, log_warn);
        EXPECT_EQ(built({6, 4}, msg, ""), messagePacket(0x0101, 7, 9, fits ? 0 : 1, elements.bytes)) << room;
    }
}

TEST_F(LogSvcTarget, AStringThatDoesNotFitEndsTheMessage)
{
    msg.location.assign(1357, 'l');
    EXPECT_EQ(built({4, 6, 1}, msg, "text"), messagePacket(0x0101, 7, 9, 1, Layout().numberElement(4, log_warn).bytes));
}

TEST_F(LogSvcTarget, TheTextGoesInWhereFourBytesAreLeft)
{
    msg.location.assign(1360 - 8, 'l');
    EXPECT_EQ(built({6, 1, 4}, msg, "text"),
              messagePacket(0x0101, 7, 9, 1 | 2, Layout().element(6, msg.location).element(1, "").bytes));
    EXPECT_EQ(built({6, 1}, msg, ""),
              messagePacket(0x0101, 7, 9, 0, Layout().element(6, msg.location).element(1, "").bytes));
}

TEST_F(LogSvcTarget, NoRecordsAddNothing)
{
    EXPECT_EQ(built({7, 4}, msg, ""), messagePacket(0x0101, 7, 9, 0, Layout().numberElement(4, log_warn).bytes));
}
