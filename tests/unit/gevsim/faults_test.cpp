// Every fault, as a client sees it.
#include "tests/unit/gevsim/client.h"

#include "tools/gevsim/camera.h"

#include <future>

using namespace gevsimTest;
using namespace std::chrono_literals;
using gevsim::Camera;
using gevsim::Command;
using gevsim::Config;
using gevsim::Datagram;
using gevsim::Fault;
using Clock = std::chrono::steady_clock;
namespace reg = gevsim::reg;
namespace region = gevsim::region;
namespace feature = gevsim::feature;

namespace {

Config config()
{
    Config made;
    made.endpoint = {"127.0.13.1", 0};
    made.writesNeedControl = false;
    return made;
}

class Faults : public testing::Test {
protected:
    Camera camera{config()};
    Client client{camera.endpoint()};
    const std::string good = "00 00 00 81 00 04 00 07 00 01 00 02"; ///< acknowledge of READREG 0, id 7

    Bytes read(std::uint16_t id = 7) { return client.ask(readReg(reg::version, id)); }
    /// Sends commands that the camera finds together, so that it takes them one right after the other.
    void sendTogether(const std::vector<Bytes>& commands)
    {
        std::promise<void> sent;
        const std::shared_future<void> all = sent.get_future().share();
        camera.onCommand([all](const Datagram&) { all.wait(); });
        for (const Bytes& data : commands)
            client.send(data);
        sent.set_value();
    }
    void expectGoodAgain() { EXPECT_EQ(text(read()), good); }
};

} // namespace

TEST_F(Faults, DropLosesTheCommand)
{
    camera.inject(Fault::drop(2));
    client.send(writeReg(feature::testValue, 1));
    client.send(writeReg(feature::testValue, 2));
    EXPECT_EQ(idOf(client.ask(readReg(feature::testValue, 9))), 9);
    EXPECT_EQ(camera.readRegister(feature::testValue), 0U);
    EXPECT_EQ(camera.counters().lost, 2U);
    EXPECT_TRUE(camera.received()[0].lost);
    EXPECT_FALSE(camera.received()[2].lost);
}

TEST_F(Faults, DropAckCarriesTheCommandOut)
{
    camera.inject(Fault::dropAck());
    client.send(writeReg(feature::testValue, 5));
    EXPECT_EQ(idOf(client.ask(readReg(feature::testValue, 9))), 9);
    EXPECT_EQ(camera.readRegister(feature::testValue), 5U);
    EXPECT_EQ(camera.sent().size(), 1U);
}

TEST_F(Faults, DelayedAnswersComeNotTooEarly)
{
    camera.inject(Fault::delay(120ms));
    const auto begin = Clock::now();
    EXPECT_EQ(text(read()), good);
    EXPECT_GE(Clock::now() - begin, 120ms);
    expectGoodAgain();
}

TEST_F(Faults, DelayedAnswersAreOvertakenByLaterOnes)
{
    camera.inject(Fault::delay(300ms));
    sendTogether({readReg(reg::version, 1), readReg(reg::version, 2)});
    EXPECT_EQ(idOf(client.receive()), 2);
    EXPECT_EQ(idOf(client.receive()), 1);
}

TEST_F(Faults, DuplicateSendsTheAnswerTwice)
{
    camera.inject(Fault::duplicate());
    EXPECT_EQ(text(read()), good);
    EXPECT_EQ(text(client.receive()), good);
    expectGoodAgain();
    EXPECT_TRUE(client.silent());
}

TEST_F(Faults, ReorderSendsTheLastAnswerFirst)
{
    camera.inject(Fault::reorder(3, 60s));
    client.send(readReg(reg::version, 1));
    client.send(readReg(reg::version, 2));
    EXPECT_TRUE(client.silent());
    client.send(readReg(reg::version, 3));
    EXPECT_EQ(idOf(client.receive()), 3);
    EXPECT_EQ(idOf(client.receive()), 2);
    EXPECT_EQ(idOf(client.receive()), 1);
    expectGoodAgain();
}

TEST_F(Faults, ReorderDoesNotWaitForever)
{
    camera.inject(Fault::reorder(3, 300ms));
    const auto begin = Clock::now();
    sendTogether({readReg(reg::version, 1), readReg(reg::version, 2)});
    EXPECT_EQ(idOf(client.receive()), 2);
    EXPECT_GE(Clock::now() - begin, 300ms);
    EXPECT_EQ(idOf(client.receive()), 1);
}

TEST_F(Faults, HeldAnswersWaitForTheirRelease)
{
    camera.inject(Fault::hold(2));
    client.send(readReg(reg::version, 1));
    client.send(readReg(reg::version, 2));
    ASSERT_TRUE(camera.waitFor([&] { return camera.heldAnswers() == 2; }));
    EXPECT_EQ(idOf(client.ask(readReg(reg::version, 3))), 3);
    EXPECT_EQ(camera.release(1), 1U);
    EXPECT_EQ(idOf(client.receive()), 1);
    EXPECT_EQ(camera.release(), 1U);
    EXPECT_EQ(idOf(client.receive()), 2);
    EXPECT_EQ(camera.release(), 0U);
}

TEST_F(Faults, StatusRefusesAndDoesNothing)
{
    camera.inject(Fault::status(0x8123));
    EXPECT_EQ(text(client.ask(writeReg(feature::testValue, 5, 8))), "81 23 00 83 00 04 00 08 00 00 00 00");
    EXPECT_EQ(camera.readRegister(feature::testValue), 0U);
    camera.inject(Fault::busy());
    EXPECT_EQ(text(read()), "80 07 00 81 00 00 00 07");
    camera.inject(Fault::denied());
    EXPECT_EQ(text(client.ask(readMem(region::memory, 4, 8))), "80 06 00 85 00 00 00 08");
    camera.inject(Fault::status(gevsim::Status::localProblem));
    EXPECT_EQ(client.status(writeMem(region::memory, Bytes(4, 1))), 0x8008);
    expectGoodAgain();
}

TEST_F(Faults, WrongId)
{
    camera.inject(Fault::wrongId());
    EXPECT_EQ(text(read()), "00 00 00 81 00 04 00 08 00 01 00 02");
    camera.inject(Fault::wrongId(-1));
    EXPECT_EQ(idOf(read()), 6);
}

TEST_F(Faults, OtherAcknowledgeCodes)
{
    camera.inject(Fault::evenCode());
    EXPECT_EQ(text(read()), "00 00 00 80 00 04 00 07 00 01 00 02");
    camera.inject(Fault::foreignCode(2));
    EXPECT_EQ(codeOf(read()), 0x0083);
    EXPECT_EQ(codeOf(client.ask(readMem(region::memory, 4))), 0x0081);
    camera.inject(Fault::ackCode(0x1235));
    EXPECT_EQ(codeOf(read()), 0x1235);
    expectGoodAgain();
}

TEST_F(Faults, PendingAckThenTheAnswer)
{
    camera.inject(Fault::pendingAck(100ms, 3));
    const auto begin = Clock::now();
    EXPECT_EQ(text(read()), "00 00 00 89 00 04 00 07 00 00 00 64");
    EXPECT_EQ(text(client.receive()), "00 00 00 89 00 04 00 07 00 00 00 64");
    EXPECT_EQ(text(client.receive()), "00 00 00 89 00 04 00 07 00 00 00 64");
    EXPECT_GE(Clock::now() - begin, 100ms) << "half of T between them";
    EXPECT_EQ(text(client.receive()), good);
    EXPECT_GE(Clock::now() - begin, 150ms);
    expectGoodAgain();
}

TEST_F(Faults, PendingAckOfZeroIsFollowedAtOnce)
{
    camera.inject(Fault::pendingAck(0ms));
    EXPECT_EQ(text(read()), "00 00 00 89 00 04 00 07 00 00 00 00");
    EXPECT_EQ(text(client.receive()), good);
}

TEST_F(Faults, PendingAckWithoutAnAnswer)
{
    camera.inject(Fault::pendingAck(40ms).every(1ms).withoutAnswer());
    EXPECT_EQ(codeOf(read()), 0x0089);
    EXPECT_TRUE(client.silent());
}

TEST_F(Faults, MalformedPendingAcks)
{
    const auto pending = [&](Fault::PendingForm form) {
        camera.inject(Fault::pendingAck(200ms).every(0ms).malformed(form));
        const Bytes first = read();
        EXPECT_EQ(text(client.receive()), good);
        return text(first);
    };
    EXPECT_EQ(pending(Fault::PendingForm::wrongId), "00 00 00 89 00 04 00 08 00 00 00 c8");
    EXPECT_EQ(pending(Fault::PendingForm::shortLength), "00 00 00 89 00 03 00 07 00 00 00 c8");
    EXPECT_EQ(pending(Fault::PendingForm::errorStatus), "8f ff 00 89 00 04 00 07 00 00 00 c8");
    EXPECT_EQ(pending(Fault::PendingForm::truncated), "00 00 00 89 00 04 00 07");
}

TEST_F(Faults, ShortReadMemAnswers)
{
    camera.writeMemory(region::memory, bytes("01 02 03 04 05 06 07 08"));
    const auto shorter = [&](std::uint32_t by) {
        camera.inject(Fault::shorter(by));
        return text(client.ask(readMem(region::memory, 8, 2)));
    };
    EXPECT_EQ(shorter(1), "00 00 00 85 00 0b 00 02 00 01 00 00 01 02 03 04 05 06 07");
    EXPECT_EQ(shorter(8), "00 00 00 85 00 04 00 02 00 01 00 00");
    EXPECT_EQ(shorter(9), "00 00 00 85 00 03 00 02 00 01 00");
    EXPECT_EQ(shorter(12), "00 00 00 85 00 00 00 02");
    EXPECT_EQ(shorter(13), "00 00 00 85 00 0c 00") << "no whole header to tell a length in";
    EXPECT_EQ(shorter(500), "");
}

TEST_F(Faults, OverlongReadMemAnswers)
{
    camera.inject(Fault::longer(3));
    EXPECT_EQ(text(client.ask(readMem(region::memory, 4, 2))),
              "00 00 00 85 00 0b 00 02 00 01 00 00 00 00 00 00 a5 a5 a5");
    camera.inject(Fault::longer(2000));
    EXPECT_EQ(client.ask(readMem(region::memory, 512)).size(), 12U + 512 + 2000);
}

TEST_F(Faults, TruncatedAnswersKeepTheirLengthField)
{
    camera.inject(Fault::truncate(6));
    EXPECT_EQ(text(client.ask(readMem(region::memory, 8, 2))), "00 00 00 85 00 0c 00 02 00 01 00 00 00 00");
}

TEST_F(Faults, RawBytesInPlaceOfTheAnswer)
{
    camera.inject(Fault::raw(bytes("00 00 00 81 00 04 ff ff 12 34 56 78")));
    EXPECT_EQ(text(read()), "00 00 00 81 00 04 00 07 12 34 56 78");
    camera.inject(Fault::raw(bytes("00 00 00 81 00 04 ff ff"), false));
    EXPECT_EQ(text(read()), "00 00 00 81 00 04 ff ff");
    camera.inject(Fault::raw(bytes("01 02")));
    EXPECT_EQ(text(read()), "01 02");
    camera.inject(Fault::raw({}));
    EXPECT_EQ(text(read()), "");
}

TEST_F(Faults, OnlyCommandsOfTheirKindMeetThem)
{
    camera.inject(Fault::busy().only(Command::writeReg));
    camera.inject(Fault::status(0x8123).only(Command::readMem));
    expectGoodAgain();
    EXPECT_EQ(client.status(readMem(region::memory, 4)), 0x8123);
    EXPECT_EQ(client.status(writeReg(feature::testValue, 1)), 0x8007);
    EXPECT_EQ(client.status(writeReg(feature::testValue, 1)), 0);
    EXPECT_TRUE(camera.faults().empty());
}

TEST_F(Faults, TakeTurnsInTheirOrder)
{
    camera.inject(Fault::none(1));
    camera.inject(Fault::busy(2));
    camera.inject(Fault::denied());
    EXPECT_EQ(statusOf(read()), 0);
    EXPECT_EQ(statusOf(read()), 0x8007);
    ASSERT_EQ(camera.faults().size(), 2U);
    EXPECT_EQ(camera.faults()[0].text(), "status 0x8007 count=1");
    EXPECT_EQ(statusOf(read()), 0x8007);
    EXPECT_EQ(statusOf(read()), 0x8006);
    EXPECT_EQ(statusOf(read()), 0);
}

TEST_F(Faults, AlwaysLastsUntilItIsCleared)
{
    camera.inject(Fault::busy(Fault::always));
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(statusOf(read()), 0x8007);
    camera.clearFaults();
    expectGoodAgain();
}

TEST_F(Faults, ClearingSendsWhatWasHeldBack)
{
    camera.inject(Fault::hold());
    camera.inject(Fault::reorder(5, 60s));
    client.send(readReg(reg::version, 1));
    client.send(readReg(reg::version, 2));
    ASSERT_TRUE(camera.waitForReceived(Command::readReg, 2));
    camera.clearFaults();
    EXPECT_EQ(idOf(client.receive()), 1);
    EXPECT_EQ(idOf(client.receive()), 2);
    EXPECT_TRUE(camera.faults().empty());
}

TEST_F(Faults, FaultsOfUnacknowledgedCommandsSendNothing)
{
    camera.inject(Fault::pendingAck(10ms));
    camera.inject(Fault::busy());
    client.send(command(Command::readReg, 1, word(0), 0));
    client.send(command(Command::readReg, 2, word(0), 0));
    expectGoodAgain();
    EXPECT_EQ(camera.counters().sent, 1U);
}

TEST_F(Faults, SilenceEnds)
{
    camera.silence(150ms);
    const auto begin = Clock::now();
    Bytes answer;
    for (bool came = false; !came;) {
        client.send(readReg(reg::version, 7));
        answer = client.receive(came, 10);
        ASSERT_LT(Clock::now() - begin, 20s);
    }
    EXPECT_GE(Clock::now() - begin, 140ms);
    EXPECT_EQ(text(answer), good);
    EXPECT_GE(camera.counters().lost, 1U);
}

TEST_F(Faults, SilenceForGoodEndsWhenToldSo)
{
    camera.silence(Camera::Milliseconds::max());
    client.send(readReg(reg::version, 1));
    EXPECT_TRUE(client.silent());
    camera.endSilence();
    expectGoodAgain();
}

TEST_F(Faults, SilenceLosesAnswersThatAreDue)
{
    camera.inject(Fault::delay(400ms));
    client.send(readReg(reg::version, 1));
    ASSERT_TRUE(camera.waitForReceived(Command::readReg));
    camera.silence(Camera::Milliseconds::max());
    bool came = true;
    client.receive(came, 700);
    EXPECT_FALSE(came);
    camera.endSilence();
    EXPECT_TRUE(client.silent()) << "lost, and not late";
}

TEST_F(Faults, PowerCycleForgetsControlRegistersMemoryAndAnswers)
{
    EXPECT_EQ(client.status(writeReg(reg::ccp, 2)), 0);
    EXPECT_EQ(client.status(writeReg(feature::testValue, 5)), 0);
    EXPECT_EQ(client.status(writeMem(region::memory, Bytes(4, 5))), 0);
    camera.inject(Fault::hold());
    client.send(readReg(0));
    ASSERT_TRUE(camera.waitFor([&] { return camera.heldAnswers() == 1; }));
    camera.powerCycle();
    EXPECT_EQ(camera.heldAnswers(), 0U);
    EXPECT_FALSE(camera.control().held());
    EXPECT_EQ(valueOf(client.ask(readReg(reg::ccp, 3))), 0U);
    EXPECT_EQ(camera.readRegister(feature::testValue), 0U);
    EXPECT_EQ(camera.readRegister(region::memory), 0U);
}

TEST_F(Faults, PowerCycleStaysOffForAsLongAsAsked)
{
    const auto begin = Clock::now();
    camera.powerCycle(150ms);
    for (bool came = false; !came;) {
        client.send(readReg(reg::version, 7));
        client.receive(came, 10);
        ASSERT_LT(Clock::now() - begin, 20s);
    }
    EXPECT_GE(Clock::now() - begin, 150ms);
}

TEST_F(Faults, LossIsTheSameForTheSameSeed)
{
    const auto run = [&](std::uint64_t seed) {
        camera.clearLog();
        camera.setLoss(0.5, seed);
        std::string pattern;
        for (std::uint16_t id = 1; id <= 64; ++id)
            client.send(readReg(reg::version, id));
        EXPECT_TRUE(camera.waitForReceived(Command::readReg, 64));
        camera.setLoss(0, seed);
        for (const Datagram& datagram : camera.received())
            pattern += datagram.lost ? '-' : 'x';
        for (bool came = true; came;)
            client.receive(came, 50);
        return pattern + " " + std::to_string(camera.counters().sent);
    };
    const std::string first = run(42);
    EXPECT_NE(first.find('-'), std::string::npos);
    EXPECT_NE(first.find('x'), std::string::npos);
    EXPECT_EQ(run(42), first);
    EXPECT_NE(run(43), first);
}

TEST_F(Faults, LossOfEverythingAndOfNothing)
{
    camera.setLoss(1, 1);
    client.send(readReg(0));
    EXPECT_TRUE(client.silent());
    camera.setLoss(0, 1);
    for (int i = 0; i < 50; ++i)
        expectGoodAgain();
}
