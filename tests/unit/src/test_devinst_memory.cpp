// How a memory access of any address and length is cut into accesses of the camera link.
#include "scripted_client.h"
#include "tests/support/recording_target.h"
#include "tools/gevsim/camera.h"

#include <gtest/gtest.h>

#include <numeric>

using namespace zuTest;
using gevsim::Command;
using gevsim::Fault;

namespace {

constexpr std::uint32_t base = gevsim::region::memory;

struct DevInstMemory : testing::Test {
    LogRecorder log;
    gevsim::Camera camera{"127.0.16.2", 0};
    std::shared_ptr<ScriptedClient> client = std::make_shared<ScriptedClient>();
    std::unique_ptr<zuGevDaemon::CDevInst> instance = std::make_unique<zuGevDaemon::CDevInst>(
        client, [](zuGevDaemon::CDevInst*) {}, [](zuGevDaemon::CDevInst*) {});
    Bytes content = Bytes(4096);

    void SetUp() override
    {
        for (std::size_t i = 0; i < content.size(); ++i)
            content[i] = static_cast<std::uint8_t>(i * 7 + i / 256);
        camera.writeMemory(base, content);
        run(Build(CmdSetDestination).u32(TagDestIp, camera.ip()).u16(TagDestPort, camera.port()));
        run(Build(CmdLink).u32(TagLinkMode, 3));
        camera.clearLog();
        log.clear();
    }
    Bytes run(const Build& request) { return client->command(request); }
    void oneTry()
    {
        run(Build(CmdSetAckTimeout).u32(TagAckTimeout, 20));
        run(Build(CmdSetRetries).u32(TagRetries, 1));
    }

    static Build readRequest(std::uint64_t address, std::uint64_t length)
    {
        Build request(CmdReadMem);
        request.u64(TagAddress, address).u64(TagLength, length);
        return request;
    }
    static Bytes reply(std::uint64_t address, const Bytes& data)
    {
        Build expected(CmdReadMem | replyFlag);
        expected.u64(TagAddress, address).u64(TagLength, data.size()).bytes(TagMemData, data);
        return expected.u32(TagStatus, 0).u8(TagSuccess, 1).done();
    }
    static Bytes written() { return Build(CmdWriteMem | replyFlag).u32(TagStatus, 0).u8(TagSuccess, 1).done(); }
    Bytes part(std::size_t offset, std::size_t length) const
    {
        return {content.begin() + static_cast<std::ptrdiff_t>(offset),
                content.begin() + static_cast<std::ptrdiff_t>(offset + length)};
    }
    struct Step {
        Command command;
        std::uint32_t address;
        std::size_t bytes;
        friend bool operator==(const Step&, const Step&) = default;
    };
    /// READMEM and WRITEMEM commands that reached the camera.
    std::vector<Step> steps() const
    {
        std::vector<Step> result;
        for (const auto& datagram : camera.received())
            if (datagram.is(Command::readMem))
                result.push_back({Command::readMem, datagram.address(), datagram.value() & 0xFFFF});
            else if (datagram.is(Command::writeMem))
                result.push_back({Command::writeMem, datagram.address(), datagram.bytes.size() - 12});
        return result;
    }
};

using Steps = std::vector<DevInstMemory::Step>;

void PrintTo(const DevInstMemory::Step& step, std::ostream* out)
{
    *out << (step.command == Command::readMem ? "read " : "write ") << std::hex << step.address << " " << std::dec
         << step.bytes;
}

} // namespace

TEST_F(DevInstMemory, ReadOf0x244BytesIsTwoAccesses)
{
    EXPECT_EQ(client->command(readRequest(base, 0x244)), reply(base, part(0, 0x244)));
    EXPECT_EQ(steps(), (Steps{{Command::readMem, base, 512},
                              {Command::readMem, base + 512, 64},
                              {Command::readMem, base + 0x240, 4}}));
}

TEST_F(DevInstMemory, ReadOfFiveBytesEndsWithAWord)
{
    EXPECT_EQ(client->command(readRequest(base, 5)), reply(base, part(0, 5)));
    EXPECT_EQ(steps(), (Steps{{Command::readMem, base, 4}, {Command::readMem, base + 4, 4}}));
}

TEST_F(DevInstMemory, ReadAtRemainderTwoOpensWithTheWordsLastBytes)
{
    EXPECT_EQ(client->command(readRequest(base + 2, 6)), reply(base + 2, part(2, 6)));
    EXPECT_EQ(steps(), (Steps{{Command::readMem, base, 4}, {Command::readMem, base + 4, 4}}));
}

TEST_F(DevInstMemory, ReadAtRemainderOneTakesOneByteAndStaysUnaligned)
{
    camera.inject(Fault::none(1));
    run(readRequest(base + 1, 5));
    EXPECT_EQ(steps().front(), (DevInstMemory::Step{Command::readMem, base, 4}));
    EXPECT_EQ(steps().at(1), (DevInstMemory::Step{Command::readMem, base + 2, 4}));
}

TEST_F(DevInstMemory, ReadAtRemainderThreeTakesThreeBytes)
{
    run(readRequest(base + 3, 7));
    EXPECT_EQ(steps().front(), (DevInstMemory::Step{Command::readMem, base, 4}));
    EXPECT_EQ(steps().at(1), (DevInstMemory::Step{Command::readMem, base + 6, 4}));
}

TEST_F(DevInstMemory, HeadOfAReadIsTheEndOfItsWordAndTheTailTheBegin)
{
    const auto got = [&](std::size_t remainder, Bytes expected) {
        EXPECT_EQ(client->command(readRequest(base + remainder, expected.size())), reply(base + remainder, expected))
            << remainder;
    };
    got(1, {content[3]});
    got(3, {content[1], content[2], content[3]});
    got(1, {content[3], content[0], content[1]});
    got(2, {content[2], content[3], content[4]});
}

TEST_F(DevInstMemory, HeadOfAWriteIsTheEndOfItsWord)
{
    const auto write = [&](std::size_t remainder, const Bytes& data) {
        camera.writeMemory(base, content);
        camera.clearLog();
        EXPECT_EQ(run(Build(CmdWriteMem)
                          .u64(TagAddress, base + remainder)
                          .u64(TagLength, data.size())
                          .bytes(TagMemData, data)),
                  written());
        return camera.readMemory(base, 8);
    };
    const auto with = [&](const Bytes& word) {
        Bytes expected = part(0, 8);
        std::copy(word.begin(), word.end(), expected.begin());
        return expected;
    };
    EXPECT_EQ(write(1, {9}), with({content[0], content[1], content[2], 9}));
    EXPECT_EQ(write(3, {7, 8, 9}), with({content[0], 7, 8, 9}));
    EXPECT_EQ(write(1, {7, 8, 9}), with({content[0], content[1], content[2], 7})) << "and nothing of the tail";
    EXPECT_EQ(steps(), (Steps{{Command::readMem, base, 4}, {Command::writeMem, base, 4}, {Command::readMem, base, 4}}));
}

TEST_F(DevInstMemory, ReadOfNothing)
{
    EXPECT_EQ(client->command(readRequest(base, 0)), reply(base, {}));
    EXPECT_TRUE(steps().empty());
}

TEST_F(DevInstMemory, LongestReadThatFitsTheReply)
{
    EXPECT_EQ(client->command(readRequest(base, 1928)), reply(base, part(0, 1928)));
    EXPECT_EQ(reply(base, part(0, 1931)).size(), 2024u);
}

TEST_F(DevInstMemory, DataBeyondTheBoundAreMissingWithoutAWord)
{
    Build expected(CmdReadMem | replyFlag);
    expected.u64(TagAddress, base).u64(TagLength, 2000).u32(TagStatus, 0).u8(TagSuccess, 1);
    EXPECT_EQ(client->command(readRequest(base, 2000)), expected.done());
}

TEST_F(DevInstMemory, ReadBeyondThePayloadGrowsPastItAndNotOutside)
{
    const Bytes got = client->command(readRequest(base, 1996));
    Build expected(CmdReadMem | replyFlag);
    expected.u64(TagAddress, base).u64(TagLength, 1996).bytes(TagMemData, part(0, 1996));
    EXPECT_EQ(got, expected.done()) << "neither status nor success fit behind it";
    EXPECT_GT(got.size(), 2024u);
}

TEST_F(DevInstMemory, RefusedReadHasNoDataAndNoLine)
{
    oneTry();
    log.clear();
    camera.inject(Fault::status(gevsim::Status::invalidAddress));
    EXPECT_EQ(client->command(readRequest(base, 8)), Build(CmdReadMem | replyFlag)
                                                         .u64(TagAddress, base)
                                                         .u64(TagLength, 8)
                                                         .u32(TagStatus, static_cast<std::uint32_t>(-1015))
                                                         .u8(TagSuccess, 0)
                                                         .done());
    EXPECT_EQ(log.texts("DevIns").size(), 1u) << "the closing line alone";
}

TEST_F(DevInstMemory, MemoryExhaustionIsLeftToTheDelivery)
{
    EXPECT_THROW(client->command(readRequest(base, ~std::uint64_t{0} - 3)), std::bad_alloc);
    for (const Record& record : log.records())
        EXPECT_NE(record.level, zuLogging::log_err) << record.text;
    EXPECT_TRUE(steps().empty());
}

TEST_F(DevInstMemory, LengthBelowTheHeadFails)
{
    EXPECT_EQ(client->command(readRequest(base + 2, 1)), Build(CmdReadMem | replyFlag)
                                                             .u64(TagAddress, base + 2)
                                                             .u64(TagLength, 1)
                                                             .u32(TagStatus, static_cast<std::uint32_t>(-1009))
                                                             .u8(TagSuccess, 0)
                                                             .done());
    EXPECT_TRUE(steps().empty());
}

TEST_F(DevInstMemory, WriteOfAlignedWords)
{
    const Bytes data = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(run(Build(CmdWriteMem).u64(TagAddress, base).u64(TagLength, 8).bytes(TagMemData, data)), written());
    EXPECT_EQ(camera.readMemory(base, 8), data);
    EXPECT_EQ(steps(), (Steps{{Command::writeMem, base, 8}}));
}

TEST_F(DevInstMemory, WriteOfSixBytesLeavesTheLastTwo)
{
    const Bytes data = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(run(Build(CmdWriteMem).u64(TagAddress, base).u64(TagLength, 6).bytes(TagMemData, data)), written());
    EXPECT_EQ(camera.readMemory(base, 8), (Bytes{1, 2, 3, 4, content[4], content[5], content[6], content[7]}));
    EXPECT_EQ(steps(), (Steps{{Command::writeMem, base, 4}, {Command::readMem, base + 4, 4}}));
}

TEST_F(DevInstMemory, WriteAtRemainderTwoReadsAndWritesTheWord)
{
    const Bytes data = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(run(Build(CmdWriteMem).u64(TagAddress, base + 2).u64(TagLength, 6).bytes(TagMemData, data)), written());
    EXPECT_EQ(camera.readMemory(base, 8), (Bytes{content[0], content[1], 1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(steps(),
              (Steps{{Command::readMem, base, 4}, {Command::writeMem, base, 4}, {Command::writeMem, base + 4, 4}}));
}

TEST_F(DevInstMemory, LengthDecidesHowMuchIsWritten)
{
    EXPECT_EQ(run(Build(CmdWriteMem).u64(TagAddress, base).u64(TagLength, 0x244).bytes(TagMemData, {9, 9, 9, 9})),
              written());
    Bytes expected(0x244, 0);
    std::fill_n(expected.begin(), 4, std::uint8_t{9});
    EXPECT_EQ(camera.readMemory(base, 0x244), expected);
    EXPECT_EQ(steps(), (Steps{{Command::writeMem, base, 512},
                              {Command::writeMem, base + 512, 64},
                              {Command::writeMem, base + 0x240, 4}}));
}

TEST_F(DevInstMemory, WithoutDataZerosAreWritten)
{
    EXPECT_EQ(run(Build(CmdWriteMem).u64(TagAddress, base).u64(TagLength, 4)), written());
    EXPECT_EQ(camera.readMemory(base, 4), Bytes(4, 0));
}

TEST_F(DevInstMemory, WriteShorterThanItsHeadFailsBeforeAnythingIsSent)
{
    const std::pair<std::uint64_t, std::uint64_t> cases[] = {{2, 1}, {3, 1}, {3, 2}, {1, 0}};
    for (const auto& [remainder, length] : cases) {
        const std::uint64_t address = base + remainder;
        EXPECT_EQ(
            run(Build(CmdWriteMem).u64(TagAddress, address).u64(TagLength, length).bytes(TagMemData, {1, 2, 3, 4})),
            Build(CmdWriteMem | replyFlag)
                .u64(TagAddress, address)
                .u64(TagLength, length)
                .bytes(TagMemData, {1, 2, 3, 4})
                .u32(TagStatus, static_cast<std::uint32_t>(-1009))
                .u8(TagSuccess, 0)
                .done())
            << remainder << " " << length;
    }
    EXPECT_TRUE(steps().empty());
}

TEST_F(DevInstMemory, LengthOfTheWholeBufferIsWritten)
{
    camera.writeMemory(base, Bytes(0x20004, 0xEE));
    EXPECT_EQ(run(Build(CmdWriteMem).u64(TagAddress, base).u64(TagLength, 0x20000)), written());
    Bytes expected(0x20004, 0);
    std::fill_n(expected.end() - 4, 4, std::uint8_t{0xEE});
    EXPECT_TRUE(camera.readMemory(base, 0x20004) == expected);
}

TEST_F(DevInstMemory, LengthBeyondTheBufferFailsBeforeAnythingIsWritten)
{
    EXPECT_EQ(run(Build(CmdWriteMem).u64(TagAddress, base).u64(TagLength, 0x20001)),
              Build(CmdWriteMem | replyFlag)
                  .u64(TagAddress, base)
                  .u64(TagLength, 0x20001)
                  .u32(TagStatus, static_cast<std::uint32_t>(-1009))
                  .u8(TagSuccess, 0)
                  .done());
    EXPECT_TRUE(steps().empty());
}

TEST_F(DevInstMemory, RefusedWriteKeepsTheRequestsTags)
{
    camera.inject(Fault::status(gevsim::Status::writeProtect).only(Command::writeMem));
    EXPECT_EQ(run(Build(CmdWriteMem).u64(TagAddress, base).u64(TagLength, 4).bytes(TagMemData, {1, 2, 3, 4})),
              Build(CmdWriteMem | replyFlag)
                  .u64(TagAddress, base)
                  .u64(TagLength, 4)
                  .bytes(TagMemData, {1, 2, 3, 4})
                  .u32(TagStatus, static_cast<std::uint32_t>(-10009))
                  .u8(TagSuccess, 0)
                  .done());
    EXPECT_TRUE(log.contains("Writemem to addr0x10000 caused std::exception: Error executing WriteMem"));
    EXPECT_EQ(steps().size(), 1u) << "no resend";
}

TEST_F(DevInstMemory, WriteThatTimesOutIsReportedAsSuccess)
{
    oneTry();
    camera.silence(std::chrono::milliseconds::max());
    EXPECT_EQ(run(Build(CmdWriteMem).u64(TagAddress, base).u64(TagLength, 4).bytes(TagMemData, {1, 2, 3, 4})),
              written());
}

TEST_F(DevInstMemory, ReadThatTimesOutCarriesCodeZero)
{
    oneTry();
    camera.silence(std::chrono::milliseconds::max());
    EXPECT_EQ(client->command(readRequest(base, 8)), Build(CmdReadMem | replyFlag)
                                                         .u64(TagAddress, base)
                                                         .u64(TagLength, 8)
                                                         .u32(TagStatus, 0)
                                                         .u8(TagSuccess, 0)
                                                         .done());
}
