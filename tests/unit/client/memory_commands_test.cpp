// Memory through the pipe: sizes, the daemon's odd ends, and a success that is none.
#include "tests/unit/client/scripted_daemon.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>
#include <thread>

namespace {

using namespace zuTest;
using namespace zuGevClient;
using namespace zuIPCPipe;
using namespace std::chrono_literals;

struct ClientMemoryTest : testing::Test {
    ScriptedDaemon daemon;
    Connection connection;
    Bytes pattern = Bytes(10000);

    ClientMemoryTest()
    {
        std::iota(pattern.begin(), pattern.end(), std::uint8_t{3});
        daemon.setMemory(0x10000, pattern);
        daemon.clearSeen();
    }
};

TEST_F(ClientMemoryTest, readsAnyLengthInCommandsThatFit)
{
    Bytes read(9001);
    connection.readMemory(0x10003, read.data(), read.size());
    EXPECT_EQ(read, Bytes(pattern.begin() + 3, pattern.begin() + 9004));
    const auto seen = daemon.seen();
    EXPECT_EQ(seen.size(), 6u);
    for (const Seen& one : seen) {
        EXPECT_EQ(one.command, CmdReadMem);
        EXPECT_LE(number(one.bytes, 36, 8), 1664u); // TagLength
        EXPECT_EQ(number(one.bytes, 16, 8) % 4, 0u);
    }
    EXPECT_EQ(connection.readMemory(0x10000, 3), Bytes(pattern.begin(), pattern.begin() + 3));
}

TEST_F(ClientMemoryTest, writesTheLastBytesToo)
{
    const Bytes data(2001, 0xA5);
    connection.writeMemory(0x10001, data.data(), data.size());
    EXPECT_EQ(daemon.memory(0x10001, 2001), data);
    EXPECT_EQ(daemon.memory(0x10000, 1)[0], pattern[0]);
    EXPECT_EQ(daemon.memory(0x10000 + 2002, 10), Bytes(pattern.begin() + 2002, pattern.begin() + 2012));
    for (const Seen& one : daemon.seen())
        EXPECT_LE(one.bytes.size() + 29, 2024u); // a failure adds status and success
}

TEST_F(ClientMemoryTest, failureCarriesTheStatus)
{
    daemon.on(CmdReadMem, [](Message& m, std::size_t& length, const auto&) {
        refuse(m, length, -1015);
        return true;
    });
    daemon.on(CmdWriteMem, [](Message& m, std::size_t& length, const auto&) {
        refuse(m, length, -1001);
        return true;
    });
    std::uint32_t word = 0;
    try {
        connection.readMemory(0x20000, &word, 4);
        FAIL();
    } catch (const CameraError& error) {
        EXPECT_EQ(error.status(), Status::invalidAddress);
        EXPECT_STREQ(error.what(), "Reading 4 bytes at 0x00020000: invalid address (status -1015)");
    }
    try {
        connection.writeMemory(0x20000, &word, 4);
        FAIL();
    } catch (const CameraError& error) {
        EXPECT_EQ(error.status(), Status::generalFailure);
        EXPECT_THAT(error.what(), testing::HasSubstr("only by who holds control"));
    }
}

TEST_F(ClientMemoryTest, statusZeroWithoutSuccessIsATimeout)
{
    daemon.on(CmdReadMem, [](Message& m, std::size_t& length, const auto&) {
        refuse(m, length, 0);
        return true;
    });
    std::uint32_t word = 0;
    try {
        connection.readMemory(0x20000, &word, 4);
        FAIL();
    } catch (const CameraError& error) {
        EXPECT_EQ(error.status(), Status::timeout);
    }
}

TEST_F(ClientMemoryTest, aReplyWithOtherThanTheDataAskedForIsAnError)
{
    daemon.on(CmdReadMem, [](Message& m, std::size_t& length, const auto&) {
        const std::int32_t status = 0;
        const std::uint8_t success = 1;
        m.AddBinary(TagMemData, &status, 3);
        m.AddBinary(TagStatus, &status, 4);
        m.SetCommand(m.Command() | replyFlag);
        m.AddBinary(TagSuccess, &success, 1);
        length = m.UsedLength();
        return true;
    });
    std::uint32_t word = 0;
    EXPECT_THROW(connection.readMemory(0x20000, &word, 4), DaemonError);
}

/// The daemon reports success when every attempt of a write has timed out; only the time that passed tells.
TEST_F(ClientMemoryTest, aWriteThatTookAsLongAsItsTimeoutsIsReadBack)
{
    connection.setAckTimeout(20ms);
    connection.setRetries(1);
    const auto lost = [](Message& m, std::size_t& length, const auto&) {
        std::this_thread::sleep_for(30ms); // the camera's silence
        m.ClearTags();
        const std::int32_t status = 0;
        const std::uint8_t success = 1;
        m.AddBinary(TagStatus, &status, 4);
        m.SetCommand(m.Command() | replyFlag);
        m.AddBinary(TagSuccess, &success, 1);
        length = m.UsedLength();
        return true;
    };
    daemon.on(CmdWriteMem, lost);
    const Bytes data(8, 0x77);
    try {
        connection.writeMemory(0x10000, data.data(), data.size());
        FAIL();
    } catch (const CameraError& error) {
        EXPECT_EQ(error.status(), Status::timeout);
    }
    EXPECT_EQ(daemon.count(CmdWriteMem), 2u);

    // Slow, but done.
    daemon.on(CmdWriteMem, [](Message&, std::size_t&, const auto&) {
        std::this_thread::sleep_for(30ms);
        return false;
    });
    daemon.clearSeen();
    connection.writeMemory(0x10000, data.data(), data.size());
    EXPECT_EQ(daemon.commands(), (std::vector<std::uint32_t>{CmdWriteMem, CmdReadMem}));
    EXPECT_EQ(daemon.memory(0x10000, 8), data);
}

TEST_F(ClientMemoryTest, threadsWritingWithinOneWordLoseNothing)
{
    constexpr int rounds = 50;
    std::vector<std::thread> threads;
    for (std::uint32_t i = 0; i < 4; ++i)
        threads.emplace_back([&, i] {
            for (int round = 1; round <= rounds; ++round) {
                const auto value = static_cast<std::uint8_t>(round);
                connection.writeMemory(0x10000 + i, &value, 1);
                std::uint8_t back = 0;
                connection.readMemory(0x10000 + i, &back, 1);
                ASSERT_EQ(back, value);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(daemon.memory(0x10000, 4), Bytes(4, rounds));
}

} // namespace
