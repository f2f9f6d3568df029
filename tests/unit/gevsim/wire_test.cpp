// Datagrams as words.
#include "tests/unit/gevsim/client.h"

using namespace gevsimTest;
using gevsim::Command;
using gevsim::Endpoint;

namespace {

std::string commandText(const Bytes& data) { return gevsim::describeCommand(data.data(), data.size()); }
std::string ackText(const Bytes& data) { return gevsim::describeAcknowledge(data.data(), data.size()); }

} // namespace

TEST(Wire, DescribesCommands)
{
    EXPECT_EQ(commandText(readReg(0x0A00, 7)), "READREG id=7 [0x00000A00]");
    EXPECT_EQ(commandText(command(Command::readReg, 7, bytes("00000004 00000938"))),
              "READREG id=7 [0x00000004] [0x00000938]");
    EXPECT_EQ(commandText(writeReg(0x0A00, 2, 8)), "WRITEREG id=8 [0x00000A00]=0x00000002");
    EXPECT_EQ(commandText(readMem(0x10000, 512, 9)), "READMEM id=9 [0x00010000] 512 bytes");
    EXPECT_EQ(commandText(writeMem(0x10000, Bytes(5), 9)), "WRITEMEM id=9 [0x00010000] 5 bytes");
    EXPECT_EQ(commandText(bytes("42 00 00 02 00 00 ff ff")), "DISCOVERY id=65535 no-ack");
    EXPECT_EQ(commandText(bytes("42 01 12 34 00 00 00 01")), "0x1234 id=1");
    EXPECT_EQ(commandText(bytes("42 01 00 80 00 09 00 01 00 00 00 00")),
              "READREG id=1 [0x00000000] (length field 9, payload 4)");
    EXPECT_EQ(commandText(bytes("43 01 00")), "malformed, 3 bytes: 43 01 00");
    EXPECT_EQ(commandText(Bytes(20, 0)), "malformed, 20 bytes: 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 ...");
}

TEST(Wire, DescribesAcknowledges)
{
    EXPECT_EQ(ackText(bytes("0000 0081 0004 0007 00000002")), "READREG_ACK id=7 =0x00000002");
    EXPECT_EQ(ackText(bytes("8006 0083 0004 0008 0000 0000")), "WRITEREG_ACK id=8 status=0x8006");
    EXPECT_EQ(ackText(bytes("0000 0085 0008 0009 00010000 01020304")), "READMEM_ACK id=9 [0x00010000] 4 bytes");
    EXPECT_EQ(ackText(bytes("0000 0089 0004 0009 0000 01f4")), "PENDING_ACK id=9 500 ms");
    EXPECT_EQ(ackText(bytes("0000 0089")), "malformed, 4 bytes: 00 00 00 89");
}

TEST(Wire, DescribesEveryTruncation)
{
    for (const Bytes& whole :
         {writeReg(0x0A00, 2), readMem(0x10000, 512), bytes("0000 0085 0008 0009 00010000 01020304"),
          bytes("0000 0089 0004 0009 0000 01f4")}) {
        for (std::size_t size = 0; size < whole.size(); ++size) {
            const Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
            EXPECT_FALSE(commandText(cut).empty());
            EXPECT_FALSE(ackText(cut).empty());
        }
    }
}

TEST(Wire, CommandsByName)
{
    EXPECT_EQ(gevsim::commandByName("ReadMem"), Command::readMem);
    EXPECT_EQ(gevsim::commandByName("0x80"), Command::readReg);
    EXPECT_EQ(gevsim::commandByName("0xFFFE"), static_cast<Command>(0xFFFE));
    EXPECT_FALSE(gevsim::commandByName("0x12345"));
    EXPECT_FALSE(gevsim::commandByName("0x"));
    EXPECT_FALSE(gevsim::commandByName("read"));
    EXPECT_FALSE(gevsim::commandByName(""));
}

TEST(Wire, Endpoints)
{
    EXPECT_EQ(Endpoint("127.0.13.1", 3956).text(), "127.0.13.1:3956");
    EXPECT_EQ(Endpoint("127.0.13.1", 3956), Endpoint(0x7F000D01, 3956));
    EXPECT_EQ(Endpoint(), Endpoint("127.0.0.1", 0));
    EXPECT_THROW(Endpoint("127.0.13", 1), std::invalid_argument);
    EXPECT_THROW(Endpoint("", 1), std::invalid_argument);
}
