// The wire formats, byte by byte, and every way in which a datagram can be wrong.
#include "tests/unit/zuLogSvc/support.h"

#include "tools/zuLogSvc/packet_decoder.h"
#include "tools/zuLogSvc/packet_encoder.h"
#include "tools/zuLogSvc/protocol.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using namespace zuLogSvc;
using zuTest::bytes;

/// A message packet without records, as a client sends it.
Packet goldenMessage()
{
    return bytes("da ad 01 00 01 01 00 00 34 12 a3 00" // magic, flags, command, status, id, length
                 "a3 00 00 00"                         // size, flags
                 "05 00 00 00 00 00 00 00"             // sequence
                 "05 00 00 00 00 00 00 00"             // and again
                 "00 00 00 00 00 00 00 00"             // reserved
                 "08 00 02 00 80 6e 9c 2c 8e 47 46 00" // time
                 "0d 00 03 00 \"GEVSVC.Conn.0\""
                 "08 00 04 00 04 00 00 00 00 00 00 00" // level
                 "08 00 09 00 2f 03 00 00 00 00 00 00" // thread
                 "08 00 08 00 2c 03 00 00 00 00 00 00" // process
                 "0c 00 05 00 \"IPConnection\""
                 "08 00 0a 00 e9 fd 00 00 00 00 00 00" // code page
                 "1a 00 01 00 \"No destination for SendTo.\""
                 "08 00 06 00 \"a.cpp(7)\"");
}

LogMessage goldenFields()
{
    LogMessage message = zuTest::someMessage("No destination for SendTo.", 5);
    message.location = "a.cpp(7)";
    return message;
}

void expectGoldenFields(const LogMessage& message)
{
    EXPECT_EQ(message.command, 0x0101);
    EXPECT_EQ(message.sequence, 5u);
    EXPECT_EQ(message.time, zuTest::someTime);
    EXPECT_EQ(message.logger, "GEVSVC.Conn.0");
    EXPECT_EQ(message.level, 4u);
    EXPECT_EQ(message.thread, 815u);
    EXPECT_EQ(message.process, 812u);
    EXPECT_EQ(message.group, "IPConnection");
    EXPECT_EQ(message.codePage, 65001u);
    EXPECT_EQ(message.text, "No destination for SendTo.");
    EXPECT_EQ(message.location, "a.cpp(7)");
    EXPECT_EQ(message.records, 0u);
    EXPECT_FALSE(message.hasRecords);
    EXPECT_FALSE(message.textCut);
    EXPECT_FALSE(message.incomplete);
}

std::string faultOf(const Packet& datagram)
{
    LogMessage message;
    const Fault fault = decodeMessage(datagram, message);
    return fault == nullptr ? "" : fault;
}

/// A message packet with these elements behind a container head with these flags.
Packet messageWith(const std::string& elements, std::uint16_t flags = 0, std::uint16_t command = cmdMessage)
{
    Packet container(Container::bytes);
    const Packet more = bytes(elements);
    container.insert(container.end(), more.begin(), more.end());
    store16(container.data() + Container::size, static_cast<std::uint16_t>(container.size()));
    store16(container.data() + Container::flags, flags);
    store64(container.data() + Container::sequence, 1);
    store64(container.data() + Container::sequenceAgain, 1);
    return encodeMessage(command, 0, container);
}

TEST(MessagePacket, DecodesGoldenBytes)
{
    LogMessage message;
    ASSERT_EQ(decodeMessage(goldenMessage(), message), nullptr);
    expectGoldenFields(message);
}

TEST(MessagePacket, EncodesGoldenBytes)
{
    EXPECT_EQ(encodeMessage(cmdMessage, 0x1234, encodeContainer(goldenFields())), goldenMessage());
}

TEST(MessagePacket, WithRecordsDecodesAndEncodesGoldenBytes)
{
    // One record of 264 bytes goes before the other elements.
    Packet golden = bytes("da ad 01 00 02 01 00 00 01 00 4c 01"
                          "4c 01 04 00"
                          "02 00 00 00 00 00 00 00 02 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"
                          "08 01 07 00");
    golden.insert(golden.end(), 264, 0xAB);
    const Packet rest = bytes("01 00 03 00 \"X\""
                              "08 00 04 00 08 00 00 00 00 00 00 00"
                              "00 00 05 00"
                              "02 00 01 00 \"hi\""
                              "00 00 06 00"
                              "0b 00 06 00");
    golden.insert(golden.end(), rest.begin(), rest.end() - 4);
    golden[10] = golden[12] = static_cast<std::uint8_t>(golden.size() - 12);
    golden[11] = golden[13] = static_cast<std::uint8_t>((golden.size() - 12) >> 8);
    LogMessage message;
    ASSERT_EQ(decodeMessage(golden, message), nullptr);
    EXPECT_EQ(message.command, 0x0102);
    EXPECT_EQ(message.sequence, 2u);
    EXPECT_EQ(message.records, 1u);
    EXPECT_TRUE(message.hasRecords);
    EXPECT_EQ(message.logger, "X");
    EXPECT_EQ(message.group, "");
    EXPECT_EQ(message.text, "hi");
    EXPECT_FALSE(message.time);
    EXPECT_FALSE(message.process);

    LogMessage fields;
    fields.sequence = 2;
    fields.logger = "X";
    fields.level = 8;
    fields.text = "hi";
    EXPECT_EQ(encodeMessage(cmdMessageWithRecords, 1, encodeContainer(fields, std::string(264, '\xAB'))), golden);
}

TEST(MessagePacket, RecordsThatDoNotFitLeaveAnEmptyContainer)
{
    LogMessage message;
    ASSERT_EQ(decodeMessage(messageWith("", 5, cmdMessageWithRecords), message), nullptr);
    EXPECT_TRUE(message.hasRecords);
    EXPECT_TRUE(message.incomplete);
    EXPECT_EQ(message.records, 0u);
    const Packet container = encodeContainer(goldenFields(), std::string(264 * 6, 'r'));
    EXPECT_EQ(container.size(), Container::bytes);
    EXPECT_EQ(load16(container.data() + Container::flags), 5u);
}

TEST(MessagePacket, TextOf2000BytesFillsThePacketAndPushesTheLocationOut)
{
    LogMessage fields = goldenFields();
    fields.text = std::string(2000, 't');
    fields.location.clear();
    const Packet packet = encodeMessage(cmdMessage, 0, encodeContainer(fields));
    EXPECT_EQ(packet.size(), 1400u);
    LogMessage message;
    ASSERT_EQ(decodeMessage(packet, message), nullptr);
    EXPECT_TRUE(message.textCut);
    EXPECT_TRUE(message.incomplete);
    // 28 head, 5 numbers of 12, heads and text of logger and group, the text's own head.
    EXPECT_EQ(message.text, std::string(1388 - 28 - 5 * 12 - 17 - 16 - 4, 't'));
}

TEST(MessagePacket, EmptyLocationIsAnElementOfFourBytes)
{
    LogMessage fields = goldenFields();
    fields.location.clear();
    const Packet packet = encodeMessage(cmdMessage, 0, encodeContainer(fields));
    const Packet end(packet.end() - 4, packet.end());
    EXPECT_EQ(end, bytes("00 00 06 00"));
    EXPECT_EQ(faultOf(packet), "");
}

TEST(MessagePacket, WideTextIsRead)
{
    LogMessage message;
    // "a", U+00E9, U+1F600
    ASSERT_EQ(decodeMessage(messageWith("08 00 01 01 61 00 e9 00 3d d8 00 de"), message), nullptr);
    EXPECT_EQ(message.text, "a\xc3\xa9\xf0\x9f\x98\x80");
}

TEST(MessagePacket, CutTextLosesTheBrokenCharacterAtItsEnd)
{
    LogMessage message;
    ASSERT_EQ(decodeMessage(messageWith("03 00 01 00 61 e2 82", 2), message), nullptr);
    EXPECT_EQ(message.text, "a");
    ASSERT_EQ(decodeMessage(messageWith("05 00 01 01 61 00 3d d8 00", 2), message), nullptr);
    EXPECT_EQ(message.text, "a");
    ASSERT_EQ(decodeMessage(messageWith("03 00 01 00 61 e2 82", 0), message), nullptr);
    EXPECT_EQ(message.text, "a\xef\xbf\xbd\xef\xbf\xbd");
}

TEST(MessagePacket, NarrowTextIsReadByTheCodePage)
{
    LogMessage message;
    ASSERT_EQ(decodeMessage(messageWith("08 00 0a 00 e4 04 00 00 00 00 00 00 02 00 01 00 80 e9"), message), nullptr);
    EXPECT_EQ(message.text, "\xe2\x82\xac\xc3\xa9");
}

TEST(MessagePacket, EveryTruncationIsRefused)
{
    const Packet golden = goldenMessage();
    for (std::size_t size = 0; size < golden.size(); ++size) {
        const Packet cut(golden.begin(), golden.begin() + static_cast<std::ptrdiff_t>(size));
        EXPECT_NE(faultOf(cut), "") << size;
    }
}

TEST(MessagePacket, EveryTruncationWithLengthsToMatchStaysInside)
{
    // Lengths that agree with the datagram let the walk go up to the cut; only a cut between two elements is a message.
    const Packet golden = goldenMessage();
    std::size_t good = 0;
    for (std::size_t size = Header::bytes + Container::bytes; size < golden.size(); ++size) {
        // Exactly sized storage: a read behind the end is seen by the sanitizer.
        Packet cut(golden.begin(), golden.begin() + static_cast<std::ptrdiff_t>(size));
        store16(cut.data() + Header::length, static_cast<std::uint16_t>(size - Header::bytes));
        store16(cut.data() + Header::bytes + Container::size, static_cast<std::uint16_t>(size - Header::bytes));
        good += faultOf(cut).empty() ? 1 : 0;
    }
    EXPECT_EQ(good, 9u);
}

TEST(MessagePacket, WhatIsWrongIsSaid)
{
    const auto changed = [](std::size_t at, std::uint8_t value) {
        Packet packet = goldenMessage();
        packet[at] = value;
        return packet;
    };
    EXPECT_EQ(faultOf({}), "shorter than a header");
    EXPECT_EQ(faultOf(changed(0, 0)), "wrong magic");
    EXPECT_EQ(faultOf(changed(2, 0)), "wrong flags or status");
    EXPECT_EQ(faultOf(changed(2, 3)), "wrong flags or status");
    EXPECT_EQ(faultOf(changed(6, 1)), "wrong flags or status");
    EXPECT_EQ(faultOf(changed(4, 3)), "unknown message command");
    EXPECT_EQ(faultOf(changed(10, 0xa2)), "length differs from the datagram's");
    EXPECT_EQ(faultOf(changed(11, 0xff)), "payload too long");
    EXPECT_EQ(faultOf(changed(12, 0xa2)), "the container's size differs from the length");
    EXPECT_EQ(faultOf(changed(14, 8)), "unknown container flags");
    EXPECT_EQ(faultOf(changed(16, 6)), "the two sequence numbers differ");
    EXPECT_EQ(faultOf(changed(42, 0)), "unknown element type");
    EXPECT_EQ(faultOf(changed(42, 11)), "unknown element type");
    EXPECT_EQ(faultOf(changed(43, 1)), "an element's width is wrong");
    EXPECT_EQ(faultOf(changed(41, 0xff)), "an element leads past the end");
    EXPECT_EQ(faultOf(messageWith("07 00 02 00 00 00 00 00 00 00 00")), "a number of the wrong size");
    EXPECT_EQ(faultOf(messageWith("01 00 07 00 00")), "records of the wrong size");
    EXPECT_EQ(faultOf(messageWith("00 00 06 00 00 00 06 00")), "an element comes twice");
    EXPECT_EQ(faultOf(messageWith("00 00 01 02")), "an element's width is wrong");
    EXPECT_EQ(faultOf(messageWith("00 00 06")), "an element's head is cut off");
    EXPECT_EQ(faultOf(encodeCommand(cmdGetConfiguration, 1, "{}")), "not a message");
    EXPECT_EQ(faultOf(encodeMessage(cmdMessage, 1, {})), "shorter than a container's head");
    EXPECT_EQ(faultOf(Packet(1401, 0)), "wrong magic");
}

TEST(MessagePacket, RandomChangesNeverLeaveTheBuffer)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (int round = 0; round < 20000; ++round) {
        Packet packet = goldenMessage();
        for (int changes = static_cast<int>(random() % 4); changes >= 0; --changes)
            packet[random() % packet.size()] = static_cast<std::uint8_t>(random());
        LogMessage message;
        if (decodeMessage(packet, message) == nullptr) {
            EXPECT_LE(message.text.size() + message.logger.size() + message.group.size(), 3 * packet.size());
        }
    }
}

TEST(CommandPacket, DecodesGoldenBytes)
{
    const Packet golden = bytes("ca ac 00 00 01 00 00 00 cd ab 14 00 7b \"..............\"");
    Packet request = bytes("ca ac 00 00 01 00 00 00 cd ab 03 00 7b 7d 0a");
    CommandPacket packet;
    ASSERT_EQ(decodeCommand(request, packet), nullptr);
    EXPECT_EQ(packet.header.command, cmdGetConfiguration);
    EXPECT_EQ(packet.header.id, 0xabcd);
    EXPECT_EQ(packet.payload, "{}\n");
    EXPECT_EQ(encodeCommand(cmdGetConfiguration, 0xabcd, "{}\n"), request);
    EXPECT_STREQ(decodeCommand(golden, packet), "length differs from the datagram's");
    request[4] = 0x41;
    ASSERT_EQ(decodeCommand(request, packet), nullptr);
    EXPECT_EQ(packet.header.command, cmdSetDescription);
}

TEST(CommandPacket, AcknowledgeHasGoldenBytes)
{
    CommandPacket request;
    const Packet datagram = encodeCommand(cmdGetConfiguration, 0xabcd, "{}");
    ASSERT_EQ(decodeCommand(datagram, request), nullptr);
    EXPECT_EQ(encodeAcknowledge(request.header, 0, "ok"), bytes("ca ac 00 00 01 80 00 00 cd ab 02 00 \"ok\""));
    request.header.command = cmdSetDescription;
    EXPECT_EQ(encodeAcknowledge(request.header, 2, ""), bytes("ca ac 00 00 41 80 02 00 cd ab 00 00"));
    EXPECT_THROW(encodeAcknowledge(request.header, 0, std::string(1389, 'x')), std::length_error);
    EXPECT_EQ(encodeAcknowledge(request.header, 0, std::string(1388, 'x')).size(), 1400u);
}

TEST(CommandPacket, WhatIsWrongIsSaid)
{
    const auto fault = [](const std::string& text) {
        CommandPacket packet;
        const Packet datagram = bytes(text);
        const Fault words = decodeCommand(datagram, packet);
        return std::string(words == nullptr ? "" : words);
    };
    EXPECT_EQ(fault("ca ac 00 00 01 00 00 00 00 00 00"), "shorter than a header");
    EXPECT_EQ(fault("cb ac 00 00 01 00 00 00 00 00 00 00"), "wrong magic");
    EXPECT_EQ(fault("da ad 00 00 01 00 00 00 00 00 00 00"), "not a command");
    EXPECT_EQ(fault("ca ac 00 00 01 80 00 00 00 00 00 00"), "an acknowledge, not a request");
    EXPECT_EQ(fault("ca ac 01 00 01 00 00 00 00 00 00 00"), "flags or status in a request");
    EXPECT_EQ(fault("ca ac 00 00 01 00 01 00 00 00 00 00"), "flags or status in a request");
    EXPECT_EQ(fault("ca ac 00 00 01 00 00 00 00 00 01 00"), "length differs from the datagram's");
    EXPECT_EQ(fault("ca ac 00 00 01 00 00 00 00 00 6d 05"), "payload too long");
    EXPECT_EQ(fault("ca ac 00 00 01 00 00 00 00 00 00 00"), "");
}

TEST(FollowedPacket, CarriesNumberAndMessage)
{
    const Packet container = encodeContainer(goldenFields());
    const Packet packet = encodeFollowed(0x0102030405060708, cmdMessage, container);
    EXPECT_EQ(Packet(packet.begin(), packet.begin() + 28),
              bytes("da ad 01 00 81 07 00 00 00 00 b3 00 08 07 06 05 04 03 02 01 01 01 00 00 00 00 00 00"));
    std::uint64_t number = 0;
    LogMessage message;
    ASSERT_EQ(decodeFollowed(packet, number, message), nullptr);
    EXPECT_EQ(number, 0x0102030405060708u);
    expectGoldenFields(message);
    for (std::size_t size = 0; size < packet.size(); ++size)
        EXPECT_NE(decodeFollowed(Bytes(packet.data(), size), number, message), nullptr) << size;
    EXPECT_EQ(encodeFollowEnds(), bytes("da ad 01 00 82 07 00 00 00 00 00 00"));
}

} // namespace
