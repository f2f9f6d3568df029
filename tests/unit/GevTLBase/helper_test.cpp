// Formats, status codes, and the helpers that stand by themselves.
#include "GevTLBase/GevHelper.h"

#include "tests/support/log_lines.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <type_traits>

using namespace GEV;
using testing::ElementsAre;
using testing::IsEmpty;
using zuTest::lines;

namespace {

std::int32_t validate(std::uint16_t status, std::uint16_t command, std::uint16_t id, std::uint16_t expectedId,
                      std::uint16_t expectedCommand)
{
    const std::uint16_t words[] = {status, command, 4, id};
    std::uint8_t header[8];
    for (std::size_t i = 0; i < 4; ++i) {
        header[2 * i] = static_cast<std::uint8_t>(words[i] >> 8);
        header[2 * i + 1] = static_cast<std::uint8_t>(words[i]);
    }
    return ValidateAck(header, expectedId, expectedCommand);
}

const std::string parityLine = "err GVCP Mismatch between CMD Type and ACK Type, flushing stack for this socket";

} // namespace

TEST(BuildCmdHeader, WritesTheHeaderAndZeroesTheRest)
{
    std::uint8_t buffer[14];
    std::fill(std::begin(buffer), std::end(buffer), std::uint8_t{0xEE});
    BuildCmdHeader(buffer, 12, gvcpCode::readRegCmd, 0x1234);
    EXPECT_THAT(buffer,
                ElementsAre(0x42, 0x01, 0x00, 0x80, 0x00, 0x04, 0x12, 0x34, 0, 0, 0, 0, /* not its own */ 0xEE, 0xEE));
}

TEST(BuildCmdHeader, SizeEightHasLengthZero)
{
    std::uint8_t buffer[8];
    BuildCmdHeader(buffer, 8, gvcpCode::writeMemCmd, 0xFFFF);
    EXPECT_THAT(buffer, ElementsAre(0x42, 0x01, 0x00, 0x86, 0x00, 0x00, 0xFF, 0xFF));
}

TEST(BuildCmdHeader, SizeSevenThrowsAndWritesNothing)
{
    std::uint8_t buffer[8] = {9, 9, 9, 9, 9, 9, 9, 9};
    try {
        BuildCmdHeader(buffer, 7, gvcpCode::readRegCmd, 1);
        FAIL() << "nothing was thrown";
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ("Invalid Header Size", e.what());
    }
    EXPECT_THAT(buffer, testing::Each(9));
}

TEST(BuildCmdHeader, AnIdOfZeroBecomesOne)
{
    std::uint8_t buffer[8];
    BuildCmdHeader(buffer, 8, gvcpCode::readRegCmd, 0);
    EXPECT_EQ(0, buffer[6]);
    EXPECT_EQ(1, buffer[7]);
}

TEST(BuildCmdHeader, LengthOfTheLargestBlock)
{
    std::uint8_t buffer[524];
    BuildCmdHeader(buffer, sizeof buffer, gvcpCode::writeMemCmd, 1);
    EXPECT_EQ(0x02, buffer[4]);
    EXPECT_EQ(0x04, buffer[5]);
}

TEST(ValidateAck, SuccessLogsNothing)
{
    const zuTest::LogRecorder log;
    EXPECT_EQ(0, validate(0, 0x81, 7, 7, 0x81));
    EXPECT_THAT(lines(log), IsEmpty());
}

TEST(ValidateAck, AnEvenCommandIsNoAcknowledgeWhateverElseItSays)
{
    const zuTest::LogRecorder log;
    EXPECT_EQ(-10013, validate(0, 0x80, 7, 7, 0x80));
    EXPECT_EQ(-10013, validate(0x8006, 0x82, 9, 7, 0x81));
    EXPECT_EQ(-10013, validate(0, 0, 0, 7, 0x81));
    EXPECT_THAT(lines(log), ElementsAre(parityLine, parityLine, parityLine));
}

TEST(ValidateAck, AWrongIdOrAWrongOddCommandIsAMismatch)
{
    const zuTest::LogRecorder log;
    EXPECT_EQ(-10017, validate(0, 0x81, 8, 7, 0x81));
    EXPECT_EQ(-10017, validate(0, 0x83, 7, 7, 0x81));
    EXPECT_THAT(lines(log),
                ElementsAre("err GVCP Mismatch between CMD and ACK 8=7 - 129=129-> flushing stack for this socket",
                            "err GVCP Mismatch between CMD and ACK 7=7 - 131=129-> flushing stack for this socket"));
}

TEST(ValidateAck, AMismatchHidesItsStatus)
{
    const zuTest::LogRecorder log;
    EXPECT_EQ(-10017, validate(0x8006, 0x81, 0xFFFF, 1, 0x81));
    EXPECT_THAT(
        lines(log),
        ElementsAre("err GVCP Mismatch between CMD and ACK 65535=1 - 129=129-> flushing stack for this socket"));
}

struct StatusCase {
    std::uint16_t status;
    const char* text;
    std::int32_t result;
};

void PrintTo(const StatusCase& value, std::ostream* out) { *out << value.text; }

class StatusTable : public testing::TestWithParam<StatusCase> {};

TEST_P(StatusTable, ResultAndLine)
{
    const zuTest::LogRecorder log;
    EXPECT_EQ(GetParam().result, validate(GetParam().status, 0x83, 5, 5, 0x83));
    EXPECT_THAT(lines(log), ElementsAre(std::string("warn GVCP Status returned 0x") + GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(
    All, StatusTable,
    testing::Values(
        StatusCase{0x8001, "8001 => Command not implemented", -1003},
        StatusCase{0x8002, "8002 => Invalid Parameter", -1009}, StatusCase{0x8003, "8003 => Invalid Address", -1015},
        StatusCase{0x8004, "8004 => Address Write Protect", -10009},
        StatusCase{0x8005, "8005 => Bad Alignement", -10014}, StatusCase{0x8006, "8006 => Access Denied", -1005},
        StatusCase{0x8007, "8007 => Busy", -1004}, StatusCase{0x8008, "8008 => Local Problem", -10016},
        StatusCase{0x8009, "8009 => Ack doesn't match MSG", -10017},
        StatusCase{0x800A, "800a => Invalid Protocol Version", -10018},
        StatusCase{0x800B, "800b => Msg Response Timeout", -10012},
        StatusCase{0x800C, "800c => The requested packet is not available anymore", -10019},
        StatusCase{0x800D, "800d => Device internal Memory Overrun", -10011},
        StatusCase{0x800E, "800e => Invalid Header", -10015}, StatusCase{0x8FFF, "8fff => Generic Error", -1001},
        StatusCase{0x0001, "1 => Unknown Status Command", -1003},
        StatusCase{0x8000, "8000 => Unknown Status Command", -1003},
        StatusCase{0x800F, "800f => Unknown Status Command", -1003},
        StatusCase{0x8FFE, "8ffe => Unknown Status Command", -1003},
        StatusCase{0x9000, "9000 => Unknown Status Command", -1003},
        StatusCase{0xFFFF, "ffff => Unknown Status Command", -1003}));

TEST(IpToString, AddressAloneAndWithAPort)
{
    EXPECT_EQ("127.0.12.1", IpToString(0x7F000C01, 0));
    EXPECT_EQ("127.0.12.1:3956", IpToString(0x7F000C01, 3956));
    EXPECT_EQ("0.0.0.0", IpToString(0, 0));
    EXPECT_EQ("255.255.255.255:65535", IpToString(0xFFFFFFFF, 65535));
}

TEST(GevExceptionClass, CodeAndText)
{
    const GevException plain("words");
    EXPECT_EQ(-1001, plain.Code());
    EXPECT_STREQ("words", plain.what());
    const GevException coded(-10011, "other words");
    EXPECT_EQ(-10011, coded.Code());
    EXPECT_STREQ("other words", coded.what());
    const GevException copy(coded);
    EXPECT_EQ(-10011, copy.Code());
    EXPECT_STREQ("other words", copy.what());
}

TEST(GevExceptionClass, IsCaughtAsARuntimeErrorThatAPlainExceptionIsNot)
{
    EXPECT_THROW(throw GevException("x"), std::runtime_error);
    static_assert(!std::is_base_of_v<std::runtime_error, PlainException>);
    try {
        throw PlainException("kept");
    } catch (const std::exception& e) {
        EXPECT_STREQ("kept", e.what());
    }
}
