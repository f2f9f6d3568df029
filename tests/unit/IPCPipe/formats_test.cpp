// The buffer, the exceptions and the structures that travel.
#include "tests/unit/IPCPipe/pipe_support.h"

#include <algorithm>
#include <type_traits>

namespace zuTest {
namespace {

using namespace zuIPCPipe;

TEST(InstanceMsg, StartsZeroFilledWithItsHeaderSizeAndTheLengthOfAHeader)
{
    const instance_msg message;
    ASSERT_EQ(message.buffer.size(), 2048u);
    EXPECT_EQ(message.buffer[0], 24);
    EXPECT_TRUE(std::all_of(message.buffer.begin() + 1, message.buffer.end(), [](auto b) { return b == 0; }));
    EXPECT_EQ(message.sendLength, 24u);
}

TEST(InstanceMsg, TakesAPayloadOf2024BytesAndNotOneMore)
{
    instance_msg message;
    message.SetPayloadSize(2024);
    EXPECT_EQ(message.sendLength, 2048u);
    EXPECT_EQ(thrown([&] { message.SetPayloadSize(2025); }), "IPCException: Buffer overflow");
    EXPECT_EQ(thrown([&] { message.SetPayloadSize(~std::size_t{0}); }), "IPCException: Buffer overflow");
    EXPECT_EQ(message.sendLength, 2048u);
    message.SetPayloadSize(0);
    EXPECT_EQ(message.sendLength, 24u);
    EXPECT_EQ(message.buffer[0], 24) << "the header's size field does not follow the payload";
}

TEST(IPCExceptions, FormOneFamilyUnderRuntimeError)
{
    static_assert(std::is_base_of_v<std::runtime_error, IPCException>);
    static_assert(std::is_base_of_v<IPCException, IPCTimeoutException>);
    static_assert(std::is_base_of_v<IPCException, IPCSocketException>);
    static_assert(std::is_base_of_v<IPCException, IPCAbortException>);
    static_assert(!std::is_base_of_v<IPCTimeoutException, IPCAbortException>);
    EXPECT_STREQ(IPCTimeoutException("Wait for Ack failed").what(), "Wait for Ack failed");
}

TEST(Formats, HaveTheirFieldsWhereTheyBelong)
{
    MgrDatagram datagram{10000, 0x01020304, 0x0605, 0x0807, 0x0A09, 0x0C0B};
    const Bytes expected{0x10, 0x27, 0, 0, 4, 3, 2, 1, 5, 6, 7, 8, 9, 10, 11, 12};
    EXPECT_EQ(Bytes(reinterpret_cast<std::uint8_t*>(&datagram), reinterpret_cast<std::uint8_t*>(&datagram) + 16),
              expected);
    instance_msg m;
    m.header().seq = 0x11223344;
    m.header().flags = 0x18;
    m.header().timeout = 500;
    m.header().index = 7;
    EXPECT_EQ(Bytes(m.buffer.begin(), m.buffer.begin() + 24), message(0x18, 7, 0x11223344, 500));
    EXPECT_EQ(m.payload(), m.buffer.data() + 24);
}

} // namespace
} // namespace zuTest
