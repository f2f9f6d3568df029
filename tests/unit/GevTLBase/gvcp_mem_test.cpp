// The two memory commands.
#include "gvcp_fixture.h"

#include <numeric>
#include <thread>

using namespace GEV;
using namespace gevTest;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

Bytes counting(std::size_t size, std::uint8_t first = 1)
{
    Bytes data(size);
    std::iota(data.begin(), data.end(), first);
    return data;
}

class GvcpMem : public Gvcp {
protected:
    GvcpMem() { gvcp.hasCcp = true; }

    /// Reads into a buffer of exactly `size` bytes, so that a sanitizer sees every byte too far.
    Bytes readMem(std::uint64_t address, std::size_t size)
    {
        Bytes data(size, 0xEE);
        gvcp.ReadMem(address, size, data.data(), None());
        return data;
    }
    void writeMem(std::uint64_t address, const Bytes& data)
    {
        gvcp.WriteMem(address, static_cast<std::uint32_t>(data.size()), data.data(), None());
    }
    /// Answers READMEM with the low byte of each address, and WRITEMEM with success.
    void respondWell()
    {
        connection.respond([](FakeConnection& c, const Bytes& sent) {
            if (big16(sent, 2) == 0x84)
                c.push(readMemAck(big16(sent, 6), counting(big16(sent, 14), sent[11])));
            else
                c.push(writeMemAck(big16(sent, 6)));
            return 0;
        });
    }
    static Bytes readMemCommand(std::uint16_t id, std::uint32_t address, std::uint16_t count)
    {
        Bytes data{
            0x42, 0x01, 0x00, 0x84, 0x00, 0x08, static_cast<std::uint8_t>(id >> 8), static_cast<std::uint8_t>(id)};
        for (const std::uint8_t byte : fromBig32(address))
            data.push_back(byte);
        for (const std::uint8_t byte : fromBig32(count))
            data.push_back(byte);
        return data;
    }
};

} // namespace

// --- ReadMem

TEST_F(GvcpMem, ReadMemBytesAndLog)
{
    respondWell();
    EXPECT_EQ(counting(8, 0x10), readMem(0x9876543200000010, 8));
    EXPECT_THAT(connection.sent(), ElementsAre(readMemCommand(1, 0x10, 8)));
    EXPECT_THAT(gvcpLines(),
                ElementsAre("info GVCP.# Successful ReadMem from addr 10986060914742001680 : num bytes 8"));
    EXPECT_THAT(gvcp.wakes, ElementsAre(0, 0));
}

TEST_F(GvcpMem, ReadMemOfFiveAsksForEightAndCopiesFive)
{
    respondWell();
    EXPECT_EQ(counting(5, 0x40), readMem(0x40, 5));
    EXPECT_THAT(connection.sent(), ElementsAre(readMemCommand(1, 0x40, 8)));
}

TEST_F(GvcpMem, ReadMemOf512IsOneCommand)
{
    respondWell();
    EXPECT_EQ(counting(512, 0), readMem(0x100, 512));
    EXPECT_THAT(connection.sent(), ElementsAre(readMemCommand(1, 0x100, 512)));
}

TEST_F(GvcpMem, ReadMemOf513IsTwoTheSecondAsksForFourAndCopiesOne)
{
    respondWell();
    EXPECT_EQ(counting(513, 0), readMem(0x100, 513));
    EXPECT_THAT(connection.sent(), ElementsAre(readMemCommand(1, 0x100, 512), readMemCommand(2, 0x300, 4)));
}

TEST_F(GvcpMem, ReadMemOfNothingSendsNothingAndSucceeds)
{
    gvcp.ReadMem(0x10, 0, nullptr, None());
    EXPECT_THAT(connection.sent(), IsEmpty());
    EXPECT_THAT(gvcpLines(), ElementsAre("info GVCP.# Successful ReadMem from addr 16 : num bytes 0"));
    EXPECT_THAT(gvcp.wakes, ElementsAre(0));
}

TEST_F(GvcpMem, ReadMemWithoutRetriesFailsEvenForNothing)
{
    gvcp.retries = 0;
    const GevException e = failureOf([&] { gvcp.ReadMem(0x10, 0, nullptr, None()); });
    EXPECT_EQ(0, e.Code());
    EXPECT_STREQ("ReadReg returned error", e.what());
}

TEST_F(GvcpMem, ReadMemNeedsNoControl)
{
    gvcp.hasCcp = false;
    respondWell();
    EXPECT_THAT(readMem(0, 4), SizeIs(4));
}

TEST_F(GvcpMem, ReadMemThatTimesOutThrowsCodeZero)
{
    const GevException e = failureOf([&] { readMem(0x10, 6); });
    EXPECT_EQ(0, e.Code());
    EXPECT_STREQ("ReadReg returned error", e.what());
    EXPECT_THAT(gvcpLines(), ElementsAre("err GVCP.# error reading 6 bytes from 16Timeout receiving GVCP Ack",
                                         "err GVCP.# error reading 6 bytes from 16Timeout receiving GVCP Ack",
                                         "err GVCP.# error reading 6 bytes from 16Timeout receiving GVCP Ack"));
    ASSERT_THAT(connection.sent(), SizeIs(3));
    EXPECT_THAT(connection.sent(), Each(readMemCommand(1, 0x10, 8))) << "same datagram, same id";
}

TEST_F(GvcpMem, ReadMemCountsItsFailuresOverTheWholeTransfer)
{
    int commands = 0;
    connection.respond([&commands](FakeConnection& c, const Bytes& sent) {
        ++commands; // every second one is lost: the first attempt of each block
        if (commands % 2 == 0)
            c.push(readMemAck(big16(sent, 6), Bytes(big16(sent, 14))));
        return 0;
    });
    const GevException e = failureOf([&] { readMem(0, 5 * 512); });
    EXPECT_EQ(0, e.Code());
    const std::vector<Bytes> sent = connection.sent();
    ASSERT_THAT(sent, SizeIs(5)) << "the third loss, in the third block, is the last";
    EXPECT_EQ(readMemCommand(3, 0x400, 512), sent[4]);
}

TEST_F(GvcpMem, ReadMemSendFails)
{
    connection.respond([](FakeConnection&, const Bytes&) { return -1001; });
    EXPECT_EQ(-1001, failureOf([&] { readMem(0x10, 4); }).Code());
    EXPECT_THAT(gvcpLines(), testing::AllOf(SizeIs(3), Each("err GVCP.# error reading 4 bytes from 16No Ack")));
}

TEST_F(GvcpMem, ReadMemStatusErrorIsResentAndItsCodeThrown)
{
    for (int i = 0; i < 3; ++i)
        connection.push(ack(0x8003, 0x85, 1, counting(8)));
    Bytes data{1, 2, 0, 0, 9};
    const GevException e = failureOf([&] { gvcp.ReadMem(0x10, 5, data.data(), None()); });
    EXPECT_EQ(-1015, e.Code());
    std::uint32_t word = 0;
    std::memcpy(&word, data.data(), sizeof word);
    EXPECT_THAT(gvcpLines(),
                testing::Contains("warn GVCP.# ReadMem returned error " + std::to_string(word) + " @ 16").Times(3));
    EXPECT_THAT(gvcpLines(),
                testing::Contains("err GVCP.# error reading 5 bytes from 16Invalid Acknowledge Size").Times(3));
    EXPECT_THAT(connection.sent(), SizeIs(3));
}

TEST_F(GvcpMem, ReadMemStatusErrorOfADestinationShorterThanAWord)
{
    for (int i = 0; i < 3; ++i)
        connection.push(ack(0x8003, 0x85, 1));
    EXPECT_EQ(-1015, failureOf([&] { readMem(0x10, 1); }).Code());
    EXPECT_THAT(gvcpLines(), testing::Contains("warn GVCP.# ReadMem returned error 238 @ 16").Times(3));
}

TEST_F(GvcpMem, ReadMemAnswerOfLessIsAskedForTheRest)
{
    connection.push(readMemAck(1, counting(4)));
    connection.push(readMemAck(2, counting(4, 5)));
    EXPECT_EQ(counting(8), readMem(0x10, 8));
    EXPECT_THAT(connection.sent(), ElementsAre(readMemCommand(1, 0x10, 8), readMemCommand(2, 0x14, 4)));
}

TEST_F(GvcpMem, ReadMemShortAnswerIsTakenForPaddedToo)
{
    // 5 bytes are asked for as 8: of the 4 that come 3 count as padding, yet all 4 as read.
    connection.push(readMemAck(1, {1, 2, 3, 4}));
    connection.push(readMemAck(2, {5, 6, 7, 8}));
    EXPECT_EQ((Bytes{1, 0xEE, 0xEE, 0xEE, 5}), readMem(0x10, 5));
    EXPECT_THAT(connection.sent(), ElementsAre(readMemCommand(1, 0x10, 8), readMemCommand(2, 0x14, 4)));
}

TEST_F(GvcpMem, ReadMemAnswerShorterThanItsPaddingFailsTheAttempt)
{
    connection.push(readMemAck(1, {1, 2}));
    connection.push(readMemAck(1, counting(8)));
    EXPECT_EQ(counting(5), readMem(0x10, 5));
    EXPECT_EQ("err GVCP.# error reading 5 bytes from 16Invalid Acknowledge Size", gvcpLines().at(0));
}

TEST_F(GvcpMem, ReadMemAnswerThatIsTooLongStaysInsideTheDestination)
{
    connection.push(readMemAck(1, counting(64)));
    EXPECT_EQ(counting(5), readMem(0x10, 5));
    EXPECT_THAT(connection.sent(), SizeIs(1));
}

TEST_F(GvcpMem, ReadMemLongAnswerInsideTheTransferCountsWhole)
{
    connection.push(readMemAck(1, counting(516)));
    connection.push(readMemAck(2, counting(84)));
    const Bytes data = readMem(0, 600);
    EXPECT_TRUE(std::equal(data.begin(), data.begin() + 516, counting(516).begin()));
    EXPECT_THAT(connection.sent(), ElementsAre(readMemCommand(1, 0, 512), readMemCommand(2, 516, 84)));
}

TEST_F(GvcpMem, ReadMemAcceptsAnEmptyAnswerAndAsksAgain)
{
    connection.push(readMemAck(1, {}));
    connection.push(readMemAck(2, counting(4)));
    EXPECT_EQ(counting(4), readMem(0x10, 4));
    EXPECT_THAT(connection.sent(), ElementsAre(readMemCommand(1, 0x10, 4), readMemCommand(2, 0x10, 4)));
}

TEST_F(GvcpMem, ReadMemGoesOnAskingADeviceThatIsSlowToHaveData)
{
    constexpr std::uint16_t emptyAnswers = 1000;
    connection.respond([](FakeConnection& c, const Bytes& sent) {
        const std::uint16_t id = big16(sent, 6);
        c.push(readMemAck(id, id > emptyAnswers ? counting(4) : Bytes{}));
        return 0;
    });
    EXPECT_EQ(counting(4), readMem(0x10, 4));
    EXPECT_THAT(connection.sent(), SizeIs(emptyAnswers + 1));
    EXPECT_THAT(gvcpLines(), ElementsAre("info GVCP.# Successful ReadMem from addr 16 : num bytes 4"));
}

TEST_F(GvcpMem, ReadMemEndsAgainstADeviceThatAnswersNothingForEver)
{
    connection.respond([](FakeConnection& c, const Bytes& sent) {
        c.push(readMemAck(big16(sent, 6), {}));
        return 0;
    });
    EXPECT_STREQ("ReadReg returned error", failureOf([&] { readMem(0x10, 4); }).what());
    EXPECT_THAT(connection.sent(), SizeIs(1024 + 3)) << "each further one is a failed attempt";
}

TEST_F(GvcpMem, ReadMemAnswersCutAtEveryByte)
{
    const Bytes whole = readMemAck(1, counting(8));
    for (std::size_t size = 1; size <= whole.size(); ++size) {
        SCOPED_TRACE(size);
        connection.forget();
        gvcp.requestId = 0;
        gvcp.retries = 1;
        std::memset(gvcp.rxBuffer.get(), 0xEE, 64);
        connection.push(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
        if (size < 12) { // not even the smallest acknowledge
            failureOf([&] { readMem(0x10, 8); });
            EXPECT_THAT(connection.sent(), SizeIs(1));
            EXPECT_EQ(std::string("err GVCP.# error reading 8 bytes from 16Invalid Acknowledge Size"),
                      gvcpLines().back());
            continue;
        }
        // What came counts, and the rest is asked for.
        const std::size_t got = size - 12;
        if (got < 8)
            connection.push(readMemAck(2, counting(12, static_cast<std::uint8_t>(got + 1))));
        EXPECT_EQ(counting(8), readMem(0x10, 8)) << "the padding of the second answer is no data";
    }
}

TEST_F(GvcpMem, ReadMemAfterADrainTakesTheSizeOfWhatWasDrained)
{
    connection.push(readMemAck(0, counting(512))); // late, and much larger than what is asked for
    connection.push(readMemAck(1, counting(4)));
    EXPECT_EQ(counting(4), readMem(0x10, 4));
    connection.push(readRegAck(1, 0)); // late, and smaller
    connection.push(readMemAck(2, counting(8)));
    EXPECT_EQ(counting(8), readMem(0x10, 8));
    EXPECT_THAT(connection.sent(), SizeIs(2));
}

TEST_F(GvcpMem, ReadMemAfterAFailedReceiveInTheDrainTakesNothing)
{
    gvcp.retries = 1;
    connection.push(readRegAck(0, 0));
    FakeConnection::Answer oversized{resultCode::timeout, readMemAck(1, counting(560)), -1};
    connection.pushAnswer(oversized);
    failureOf([&] { readMem(0x10, 4); });
    EXPECT_EQ("err GVCP.# error reading 4 bytes from 16Invalid Acknowledge Size", gvcpLines().back());
}

TEST_F(GvcpMem, ReadMemTellsPendingAcks)
{
    connection.push(pendingAck(1, 70));
    connection.push(readMemAck(1, counting(4)));
    std::vector<std::uint32_t> told;
    Bytes data(4);
    gvcp.ReadMem(0, 4, data.data(), [&](std::uint32_t milliseconds) { told.push_back(milliseconds); });
    EXPECT_THAT(told, ElementsAre(70));
    EXPECT_EQ(counting(4), data);
}

// --- WriteMem

TEST_F(GvcpMem, WriteMemBytesAndLog)
{
    respondWell();
    writeMem(0x9876543200000010, {1, 2, 3, 4, 5});
    EXPECT_THAT(connection.sent(), ElementsAre(Bytes{0x42, 0x01, 0x00, 0x86, 0x00, 0x09, 0x00, 0x01, 0x00, 0x00, 0x00,
                                                     0x10, 1, 2, 3, 4, 5}));
    EXPECT_THAT(gvcpLines(), ElementsAre("info GVCP.# [GEVError] Successful WriteMem to addr 10986060914742001680 : "
                                         "num bytes  5"));
    EXPECT_THAT(gvcp.wakes, ElementsAre(0, 0));
}

TEST_F(GvcpMem, WriteMemOf513Sends512AndThenOneUnpadded)
{
    respondWell();
    const Bytes data = counting(513);
    writeMem(0x100, data);
    const std::vector<Bytes> sent = connection.sent();
    ASSERT_THAT(sent, SizeIs(2));
    ASSERT_THAT(sent[0], SizeIs(524));
    EXPECT_EQ(0x100u, big32(sent[0], 8));
    EXPECT_EQ(516, big16(sent[0], 4));
    EXPECT_TRUE(std::equal(sent[0].begin() + 12, sent[0].end(), data.begin()));
    EXPECT_EQ((Bytes{0x42, 0x01, 0x00, 0x86, 0x00, 0x05, 0x00, 0x02, 0x00, 0x00, 0x03, 0x00, data[512]}), sent[1]);
}

TEST_F(GvcpMem, WriteMemOfNothingSendsNothingAndSucceeds)
{
    gvcp.WriteMem(0x10, 0, nullptr, None());
    EXPECT_THAT(connection.sent(), IsEmpty());
    EXPECT_THAT(gvcpLines(), ElementsAre("info GVCP.# [GEVError] Successful WriteMem to addr 16 : num bytes  0"));
    EXPECT_THAT(gvcp.wakes, ElementsAre(0));
}

TEST_F(GvcpMem, WriteMemWithoutControlThrowsBeforeTheLock)
{
    gvcp.hasCcp = false;
    const Bytes data(4);
    // Another thread holds the lock for all that time.
    gvcp.commandMutex.lock();
    std::int32_t code = 0;
    std::string text;
    std::thread([&] {
        try {
            writeMem(0x10, data);
        } catch (const GevException& e) {
            code = e.Code();
            text = e.what();
        }
    }).join();
    gvcp.commandMutex.unlock();
    EXPECT_EQ(-1001, code);
    EXPECT_EQ("WriteReg failed: NO CCP", text);
    EXPECT_THAT(connection.sent(), IsEmpty());
    EXPECT_THAT(gvcpLines(), IsEmpty());
}

TEST_F(GvcpMem, WriteMemThatTimesOutReportsSuccess)
{
    writeMem(0x10, {1, 2, 3, 4});
    ASSERT_THAT(connection.sent(), SizeIs(3));
    EXPECT_THAT(connection.sent(), Each(connection.sent()[0]));
    const std::string failed = "err GVCP.# Error executing WriteMem : Timeout receiving GVCP Ack";
    EXPECT_THAT(gvcpLines(), ElementsAre(failed, failed, failed,
                                         "info GVCP.# [GEVError] Successful WriteMem to addr 16 : num bytes  4"));
    EXPECT_THAT(gvcp.wakes, IsEmpty()) << "its budget is spent";
}

TEST_F(GvcpMem, WriteMemStatusErrorEndsAtOnce)
{
    connection.push(ack(0x8004, 0x87, 1));
    const GevException e = failureOf([&] { writeMem(0x10, {1, 0, 0, 0}); });
    EXPECT_EQ(-10009, e.Code());
    EXPECT_STREQ("Error executing WriteMem", e.what());
    EXPECT_THAT(connection.sent(), SizeIs(1));
    EXPECT_THAT(gvcpLines(), ElementsAre("warn GVCP Status returned 0x8004 => Address Write Protect",
                                         "warn GVCP.#  Invalid acknowledge: -10009",
                                         "warn GVCP.# [GEVError] WriteMem returned error 1 @ 16"));
}

TEST_F(GvcpMem, WriteMemMismatchAfterTheDrainEndsAtOnce)
{
    connection.push(writeMemAck(9));
    EXPECT_EQ(-10017, failureOf([&] { writeMem(0x10, {1, 2}); }).Code());
    EXPECT_THAT(connection.sent(), SizeIs(1));
    EXPECT_EQ("warn GVCP.# [GEVError] WriteMem returned error 513 @ 16", gvcpLines().back())
        << "a source shorter than a word";
}

TEST_F(GvcpMem, WriteMemLateAcknowledgeAndTheRightOneBehindIt)
{
    connection.push(writeMemAck(0));
    connection.push(writeMemAck(1));
    writeMem(0x10, {1, 2, 3, 4});
    EXPECT_THAT(connection.sent(), SizeIs(1));
}

TEST_F(GvcpMem, WriteMemSendFailsThrowsItsCode)
{
    connection.respond([](FakeConnection&, const Bytes&) { return -1001; });
    EXPECT_EQ(-1001, failureOf([&] { writeMem(0x10, {1, 2, 3, 4}); }).Code());
    EXPECT_THAT(connection.sent(), SizeIs(3));
    const std::string failed = "err GVCP.# Error executing WriteMem : Failure sending datagram";
    EXPECT_THAT(gvcpLines(),
                ElementsAre(failed, failed, failed, "warn GVCP.# [GEVError] WriteMem returned error 67305985 @ 16"));
}

TEST_F(GvcpMem, WriteMemSendThatFailsOnceIsResent)
{
    int commands = 0;
    connection.respond([&commands](FakeConnection& c, const Bytes&) {
        if (++commands == 1)
            return -1001;
        c.push(writeMemAck(1));
        return 0;
    });
    writeMem(0x10, {1, 2, 3, 4});
    EXPECT_THAT(connection.sent(), SizeIs(2));
}

TEST_F(GvcpMem, WriteMemCountsItsFailuresOverTheWholeTransfer)
{
    int commands = 0;
    connection.respond([&commands](FakeConnection& c, const Bytes& sent) {
        if (++commands % 2 == 0)
            c.push(writeMemAck(big16(sent, 6)));
        return 0;
    });
    writeMem(0, Bytes(5 * 512)); // reports success all the same
    EXPECT_THAT(connection.sent(), SizeIs(5));
}

TEST_F(GvcpMem, WriteMemBadPendingAckIsResentThenReportsSuccess)
{
    connection.respond([](FakeConnection& c, const Bytes&) {
        c.push(pendingAck(0x4444, 10));
        return 0;
    });
    writeMem(0x10, {1, 2, 3, 4});
    EXPECT_THAT(connection.sent(), SizeIs(3));
    EXPECT_EQ("err GVCP.# Error executing WriteMem : Pending Ack with invalid Req ID", gvcpLines().at(0));
}

TEST_F(GvcpMem, WriteMemAcknowledgeCutAtEveryByte)
{
    const Bytes whole = writeMemAck(1);
    for (std::size_t size = 1; size <= whole.size(); ++size) {
        SCOPED_TRACE(size);
        connection.forget();
        gvcp.requestId = 0;
        std::memset(gvcp.rxBuffer.get(), 0xEE, 64);
        connection.push(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
        if (size < 8)
            EXPECT_EQ(size < 4 ? -10013 : -10017, failureOf([&] { writeMem(0x10, {1, 2, 3, 4}); }).Code());
        else
            writeMem(0x10, {1, 2, 3, 4});
        EXPECT_THAT(connection.sent(), SizeIs(1));
    }
}
