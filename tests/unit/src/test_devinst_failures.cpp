// What a client is told, and what is logged, when a command fails with an exception that is none of the camera link's;
// and a camera that can't be given back.
#include "devinst_support.h"

#include "GevTLBase/GevException.h"

#include <gtest/gtest.h>

using namespace zuTest;
using gevsim::Command;
using gevsim::Fault;
using std::chrono::milliseconds;

namespace {

constexpr std::uint32_t base = gevsim::region::memory;

/// The camera asks for patience, and the client can't be told.
struct DevInstUnreachable : testing::Test, LogRecorder, InstanceOf<UnreachableClient> {
    DevInstUnreachable() : InstanceOf("127.0.16.4") { link(); }

    /// PENDING_ACK in place of the answer to this command, the `after`+1st of its kind: nobody would wait for one, and
    /// the next command would find it.
    void delay(Command command, std::uint32_t after = 0)
    {
        if (after != 0)
            camera.inject(Fault::none(after).only(command));
        camera.inject(Fault::pendingAck(milliseconds(700)).withoutAnswer().only(command));
        clear();
    }
};

} // namespace

TEST_F(DevInstUnreachable, ReadRegIsReportedAsSuccessWithoutAValue)
{
    delay(Command::readReg);
    EXPECT_EQ(run(Build(CmdReadReg).u64(TagAddress, 0x0934)),
              Build(CmdReadReg | replyFlag).u64(TagAddress, 0x0934).u8(TagSuccess, 1).done());
    expectLines(*this, "Pipe ReadReg from addr0x934 caused std::exception: nobody there", zuLogging::log_err, "DevIns");
}

TEST_F(DevInstUnreachable, WriteRegIsAnsweredWithoutTags)
{
    delay(Command::writeReg);
    EXPECT_EQ(run(Build(CmdWriteReg).u64(TagAddress, gevsim::feature::testValue).u32(TagRegValue, 1)),
              Build(CmdWriteReg | replyFlag).done());
    std::ostringstream words;
    words << "WriteReg to addr0x" << std::hex << gevsim::feature::testValue
          << " caused std::exception: nobody there"; // the prefix stands once
    expectLines(*this, words.str(), zuLogging::log_err, "DevIns");
}

TEST_F(DevInstUnreachable, ReadMemIsReportedAsSuccessWithoutData)
{
    delay(Command::readMem);
    EXPECT_EQ(run(Build(CmdReadMem).u64(TagAddress, base).u64(TagLength, 8)),
              Build(CmdReadMem | replyFlag).u64(TagAddress, base).u64(TagLength, 8).u8(TagSuccess, 1).done());
    expectLines(*this, "Pipe ReadMem from addr0x10000 caused std::exception: nobody there", zuLogging::log_err,
                "DevIns");
}

TEST_F(DevInstUnreachable, WriteMemIsReportedAsSuccessWithoutStatus)
{
    delay(Command::writeMem);
    EXPECT_EQ(run(Build(CmdWriteMem).u64(TagAddress, base).u64(TagLength, 4).bytes(TagMemData, {1, 2, 3, 4})),
              Build(CmdWriteMem | replyFlag)
                  .u64(TagAddress, base)
                  .u64(TagLength, 4)
                  .bytes(TagMemData, {1, 2, 3, 4})
                  .u8(TagSuccess, 1)
                  .done());
    expectLines(*this, "Writemem to addr0x10000 caused std::exception: nobody there", zuLogging::log_err, "DevIns");
}

TEST_F(DevInstUnreachable, TheLoggedAddressIsThatOfTheFailingStep)
{
    delay(Command::readMem, 2); // the first 0x240 bytes are two commands
    run(Build(CmdReadMem).u64(TagAddress, base).u64(TagLength, 0x250));
    expectLines(*this, "Pipe ReadMem from addr0x10240 caused std::exception: nobody there", zuLogging::log_err,
                "DevIns");
    delay(Command::writeMem, 2);
    run(Build(CmdWriteMem).u64(TagAddress, base).u64(TagLength, 0x250));
    expectLines(*this, "Writemem to addr0x10240 caused std::exception: nobody there", zuLogging::log_err, "DevIns");
    // The head of an unaligned access and its tail are words of their own.
    delay(Command::readMem);
    run(Build(CmdReadMem).u64(TagAddress, base + 2).u64(TagLength, 6));
    expectLines(*this, "Pipe ReadMem from addr0x10000 caused std::exception: nobody there", zuLogging::log_err,
                "DevIns");
    delay(Command::readMem, 1);
    run(Build(CmdReadMem).u64(TagAddress, base).u64(TagLength, 6));
    expectLines(*this, "Pipe ReadMem from addr0x10004 caused std::exception: nobody there", zuLogging::log_err,
                "DevIns");
}

namespace {

struct DevInstRefused : testing::Test, LogRecorder, InstanceOf<ScriptedClient> {
    DevInstRefused() : InstanceOf("127.0.16.5") {}
    void oneTry()
    {
        run(Build(CmdSetAckTimeout).u32(TagAckTimeout, 20));
        run(Build(CmdSetRetries).u32(TagRetries, 1));
    }
};

} // namespace

TEST_F(DevInstRefused, RefusalsAreErrorsOfTheInstance)
{
    link();
    camera.inject(Fault::status(gevsim::Status::writeProtect, 3).only(Command::writeReg));
    run(Build(CmdWriteReg).u64(TagAddress, 0x4).u32(TagRegValue, 1));
    expectLines(*this, "WriteReg to addr 0x0x4 caused exception: Unable to send GVCP WriteReg", zuLogging::log_err,
                "DevIns");
    camera.inject(Fault::status(gevsim::Status::writeProtect).only(Command::writeMem));
    run(Build(CmdWriteMem).u64(TagAddress, base).u64(TagLength, 4));
    expectLines(*this, "Writemem to addr0x10000 caused std::exception: Error executing WriteMem", zuLogging::log_err,
                "DevIns");
    oneTry();
    camera.silence(milliseconds::max());
    run(Build(CmdCheckLink));
    expectLines(*this, "CheckLink failed : ReadReg returned error", zuLogging::log_err, "DevIns");
}

TEST_F(DevInstRefused, DataThatOutgrowTheBufferLeaveItZero)
{
    link();
    camera.writeMemory(base, Bytes(16, 0xEE));
    constexpr std::size_t most = 0x20000;
    for (const std::size_t size : {most, most + 1}) {
        // More than the pipe carries, so straight to the handler.
        Bytes storage(most + 0x800, 0);
        Message message(storage.data(), storage.size(), 0);
        message.SetCommand(CmdWriteMem);
        message.ClearTags();
        const std::uint64_t address = base;
        const std::uint64_t length = 8;
        message.AddBinary(TagAddress, &address, sizeof address);
        message.AddBinary(TagLength, &length, sizeof length);
        // By hand, past the bound of `AddBinary`: length, tag, value; the terminator is there.
        std::uint8_t* const entry = message.EndTag();
        const std::uint64_t entryLength = size + TagLayout::entryValue;
        const std::uint32_t tag = TagMemData;
        std::memcpy(entry, &entryLength, sizeof entryLength);
        std::memcpy(entry + TagLayout::entryTag, &tag, sizeof tag);
        std::memset(entry + TagLayout::entryValue, 0x77, size);
        std::size_t replyLength = 0;
        client->msgHandler(storage.data(), storage.size(), replyLength, [](unsigned) {});
        storage.resize(replyLength);
        EXPECT_EQ(storage, Build(CmdWriteMem | replyFlag).u32(TagStatus, 0).u8(TagSuccess, 1).done()) << size;
        Bytes expected(16, 0xEE);
        std::fill_n(expected.begin(), 8, size > most ? std::uint8_t{0} : std::uint8_t{0x77});
        EXPECT_EQ(camera.readMemory(base, 16), expected) << size;
    }
    for (const Record& record : records())
        EXPECT_NE(record.level, zuLogging::log_err) << record.text;
}

TEST_F(DevInstRefused, CommandsWithoutAReplyLeaveTheMessageAsItWas)
{
    for (const std::uint32_t command :
         {std::uint32_t{CmdLinkShutdown}, 0u, 5u, 17u, 18u, 23u, 1000u, CmdLinkShutdown | replyFlag}) {
        Bytes storage(TagLayout::storage, 0xA5);
        const Bytes request = Build(command).u32(TagRegValue, 7).bytes(TagMemData, Bytes(50, 3)).done();
        std::copy(request.begin(), request.end(), storage.begin());
        const Bytes before = storage;
        std::size_t length = 4711;
        client->msgHandler(storage.data(), 2024, length, [](unsigned) {});
        EXPECT_EQ(storage, before) << command;
        EXPECT_EQ(length, 4711u) << command;
    }
}

TEST_F(DevInstRefused, LevelsOfACommandsLines)
{
    using namespace zuLogging;
    const std::string self = pointerText(instance.get());
    clear();
    run(Build(CmdLink).u32(TagLinkMode, 3));
    expectLines(*this, " Devinst " + self + " got cmd 1", log_debug, "DevIns");
    expectLines(*this, "Pipe : Link", log_info, "DevIns");
    expectLines(*this, "IPC Cmd Done " + self, log_debug, "DevIns");
    run(Build(CmdLinkShutdown));
    expectLines(*this, " Devinst " + self + " got cmd 20", log_debug, "DevIns");
    expectLines(*this, "Link Shutdown on " + self, log_debug, "DevIns");
    expectLines(*this, "IPC Cmd Done " + self, log_debug, "DevIns");
    run(Build(17));
    expectLines(*this, " Devinst " + self + " got cmd 17", log_debug, "DevIns");
    expectLines(*this, "Invalid pipe command", log_err, "DevIns");
    run(Build(CmdBindSocket).u32(TagLocalIp, 0x7F001005).u16(TagLocalPort, 0));
    expectLines(*this, "Bind socket to IP 0x7f001005 on port 0", log_info, "DevIns");
    run(Build(CmdSetDestination).u32(TagDestIp, 0x7F001005).u16(TagDestPort, 9));
    expectLines(*this, "Set Destination for socket to0x7f001005 ,port 9", log_info, "DevIns");
    const std::string client0x = hexDigits(client.get());
    const std::string instance0x = hexDigits(instance.get());
    instance.reset();
    expectLines(*this, "DevInst DTOR 0x" + instance0x + " connected to IPC 0x" + client0x, log_info, "DevIns");
}

namespace {

/// Two lives in one: the fixture's camera is not used.
struct LinkShutdownTest : DevInstRefused {
    LinkShutdownTest()
    {
        control->isLinked = [] { return true; };
        DevInstProbe::setControl(*instance, control);
        clear();
    }
    ~LinkShutdownTest() override
    {
        control->isLinked = [] { return false; };
        control->unlink = nullptr;
    }
    /// Makes the next `times` calls of `Unlink` throw.
    void refuse(int times)
    {
        control->unlink = [times]() mutable {
            if (times-- > 0)
                throw GEV::GevException(-1001, "the camera is stubborn");
        };
    }
    std::shared_ptr<FailingControl> control = std::make_shared<FailingControl>();
};

} // namespace

TEST_F(LinkShutdownTest, UnlinksOnce)
{
    refuse(0);
    instance->LinkShutdown();
    EXPECT_EQ(control->unlinks, 1);
    control->isLinked = [] { return false; };
    instance->LinkShutdown();
    EXPECT_EQ(control->unlinks, 1) << "there is nothing to give back";
}

TEST_F(LinkShutdownTest, UnlinksAgainAfterARefusalAndSaysNothing)
{
    refuse(1);
    client->disconnectHandler();
    EXPECT_EQ(control->unlinks, 2);
    EXPECT_EQ(gone, std::vector{instance.get()});
    EXPECT_EQ(texts("DevIns"), std::vector<std::string>());
}

TEST_F(LinkShutdownTest, LogsTheSecondRefusalAndGoesOn)
{
    refuse(2);
    client->disconnectHandler();
    EXPECT_EQ(control->unlinks, 2);
    expectLines(*this, "Link Shutdown caused exception: the camera is stubborn", zuLogging::log_debug, "DevIns");
    EXPECT_EQ(gone, std::vector{instance.get()}) << "the instance goes its way all the same";
}

TEST_F(LinkShutdownTest, UnlinksAlsoWhenItCannotBeToldWhetherItIsLinked)
{
    refuse(0);
    control->isLinked = []() -> bool { throw GEV::GevException("no idea"); };
    instance->LinkShutdown();
    EXPECT_EQ(control->unlinks, 1);
    EXPECT_EQ(texts("DevIns"), std::vector<std::string>());
}

TEST_F(LinkShutdownTest, LetsAnyOtherExceptionOut)
{
    control->unlink = [] { throw std::runtime_error("out of threads"); };
    EXPECT_THROW(instance->LinkShutdown(), std::runtime_error);
    EXPECT_EQ(control->unlinks, 1);
}

TEST_F(LinkShutdownTest, AnInstanceIsGoneForEverybodyThoughItsEndThrows)
{
    auto other = std::make_shared<ScriptedClient>();
    int destroyed = 0;
    auto* const doomed = new zuGevDaemon::CDevInst(other, {}, [&](zuGevDaemon::CDevInst*) { ++destroyed; });
    DevInstProbe::setControl(*doomed, control);
    control->unlink = [] { throw std::runtime_error("out of threads"); };
    EXPECT_THROW(delete doomed, std::runtime_error);
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(other.use_count(), 1);
}

TEST_F(LinkShutdownTest, CheckLinkLogsAnyExceptionAsItsOwn)
{
    for (const bool own : {true, false}) {
        clear();
        control->hasControl = [own]() -> bool {
            if (own)
                throw GEV::GevException("no idea");
            throw std::runtime_error("no idea");
        };
        EXPECT_EQ(run(Build(CmdCheckLink)), Build(CmdCheckLink | replyFlag).u8(TagSuccess, 0).done());
        expectLines(*this, "CheckLink failed : no idea", zuLogging::log_err, "DevIns");
    }
}

namespace {

/// The camera of the fixture, behind a link of which a test may let operations fail.
struct DevInstHalfBroken : DevInstRefused {
    DevInstHalfBroken()
    {
        DevInstProbe::setControl(*instance, control);
        run(Build(CmdSetDestination).u32(TagDestIp, camera.ip()).u16(TagDestPort, camera.port()));
    }
    std::shared_ptr<FailingControl> control = std::make_shared<FailingControl>();
};

template <typename TException>
std::function<void()> throws()
{
    return [] { throw TException("no idea"); };
}

} // namespace

TEST_F(DevInstHalfBroken, AGoodLinkWhoseCheckFailsIsNoSuccess)
{
    for (const auto& fail : {throws<GEV::GevException>(), throws<std::runtime_error>()}) {
        control->hasControl = [&]() -> bool {
            fail();
            return true;
        };
        EXPECT_EQ(run(Build(CmdLink).u32(TagLinkMode, 3)),
                  Build(CmdLink | replyFlag).u32(TagLinkMode, 3).u8(TagLinkState, 0).u8(TagSuccess, 0).done());
        EXPECT_TRUE(camera.control().held()) << "the link itself was good";
        run(Build(CmdUnlink));
    }
    control->hasControl = nullptr;
    EXPECT_EQ(run(Build(CmdLink).u32(TagLinkMode, 3)),
              Build(CmdLink | replyFlag).u32(TagLinkMode, 3).u8(TagLinkState, 1).u8(TagSuccess, 1).done());
}

TEST_F(DevInstHalfBroken, ALocalAddressThatCannotBeHadIsSentAsZero)
{
    for (const auto& fail : {throws<GEV::GevException>(), throws<std::runtime_error>()}) {
        control->localAddress = fail;
        EXPECT_EQ(
            run(Build(CmdGetLocalAddress)),
            Build(CmdGetLocalAddress | replyFlag).u32(TagLocalIp, 0).u16(TagLocalPort, 0).u8(TagSuccess, 0).done());
    }
}
