// The camera's commands: golden bytes of acknowledges, statuses, and everything that gets no answer.
#include "tests/unit/gevsim/client.h"

#include "tools/gevsim/camera.h"

#include <cstring>

using namespace gevsimTest;
using gevsim::Camera;
using gevsim::Command;
using gevsim::Config;
namespace reg = gevsim::reg;
namespace region = gevsim::region;
namespace feature = gevsim::feature;

namespace {

const char* const cameraIp = "127.0.13.1";

Config freeForAll()
{
    Config config;
    config.endpoint = {cameraIp, 0};
    config.writesNeedControl = false;
    return config;
}

} // namespace

TEST(Commands, ReadRegAcknowledgeBytes)
{
    Camera camera(cameraIp, 0);
    camera.writeRegister(feature::testValue, 0x12345678);
    Client client(camera.endpoint());
    EXPECT_EQ(text(client.ask(bytes("42 01 00 80 00 04 00 07 00 00 a0 50"))), "00 00 00 81 00 04 00 07 12 34 56 78");
}

TEST(Commands, ReadRegOfSeveralRegisters)
{
    Camera camera(cameraIp, 0);
    Client client(camera.endpoint());
    EXPECT_EQ(text(client.ask(bytes("42 01 00 80 00 08 ff ff 00 00 00 00 00 00 09 38"))),
              "00 00 00 81 00 08 ff ff 00 01 00 02 00 00 0b b8");
}

TEST(Commands, ReadRegStopsAtTheFirstBadRegisterAndSendsWhatItRead)
{
    Camera camera(cameraIp, 0);
    Client client(camera.endpoint());
    EXPECT_EQ(text(client.ask(command(Command::readReg, 3, bytes("00000000 0000b000 00000004")))),
              "80 03 00 81 00 04 00 03 00 01 00 02");
    EXPECT_EQ(text(client.ask(command(Command::readReg, 3, bytes("00000002")))), "80 05 00 81 00 00 00 03");
}

TEST(Commands, ReadRegTakesUpTo135Registers)
{
    Camera camera(cameraIp, 0);
    Client client(camera.endpoint());
    const Bytes most(4 * 135, 0);
    EXPECT_EQ(client.ask(command(Command::readReg, 1, most)).size(), 8U + 4 * 135);
    EXPECT_EQ(client.status(command(Command::readReg, 1, Bytes(4 * 136, 0))), 0x8002);
    EXPECT_EQ(client.status(command(Command::readReg, 1, {})), 0x8002);
    EXPECT_EQ(client.status(command(Command::readReg, 1, Bytes(6, 0))), 0x8002);
}

TEST(Commands, WriteRegAcknowledgeBytes)
{
    Camera camera(freeForAll());
    Client client(camera.endpoint());
    EXPECT_EQ(text(client.ask(bytes("42 01 00 82 00 08 00 09 00 00 a0 50 de ad be ef"))),
              "00 00 00 83 00 04 00 09 00 00 00 01");
    EXPECT_EQ(camera.readRegister(feature::testValue), 0xDEADBEEF);
}

TEST(Commands, WriteRegOfSeveralTellsHowManyWereWritten)
{
    Camera camera(freeForAll());
    Client client(camera.endpoint());
    EXPECT_EQ(text(client.ask(command(Command::writeReg, 1, bytes("0000a050 00000001 00000d18 00000002")))),
              "00 00 00 83 00 04 00 01 00 00 00 02");
    EXPECT_EQ(
        text(client.ask(command(Command::writeReg, 2, bytes("0000a050 00000005 0000a000 00000002 00000d18 00000009")))),
        "80 04 00 83 00 04 00 02 00 00 00 01");
    EXPECT_EQ(camera.readRegister(feature::testValue), 5U);
    EXPECT_EQ(camera.readRegister(reg::streamDestination), 2U);
}

TEST(Commands, WriteRegStatuses)
{
    Camera camera(freeForAll());
    Client client(camera.endpoint());
    EXPECT_EQ(client.status(writeReg(reg::version, 0)), 0x8004);
    EXPECT_EQ(client.status(writeReg(region::xml, 0)), 0x8004);
    EXPECT_EQ(client.status(writeReg(feature::testValue + 2, 0)), 0x8005);
    EXPECT_EQ(client.status(writeReg(0xF0000000, 0)), 0x8003);
    EXPECT_EQ(client.status(command(Command::writeReg, 1, Bytes(4, 0))), 0x8002);
    EXPECT_EQ(client.status(command(Command::writeReg, 1, Bytes(8 * 68, 0))), 0x8002);
}

TEST(Commands, ReadMemAcknowledgeBytes)
{
    Camera camera(cameraIp, 0);
    camera.writeMemory(region::memory, bytes("01 02 03 04 05 06 07 08"));
    Client client(camera.endpoint());
    EXPECT_EQ(text(client.ask(bytes("42 01 00 84 00 08 00 05 00 01 00 00 00 00 00 08"))),
              "00 00 00 85 00 0c 00 05 00 01 00 00 01 02 03 04 05 06 07 08");
}

TEST(Commands, ReadMemStatuses)
{
    Config config = freeForAll();
    config.memorySize = 1024;
    Camera camera(config);
    Client client(camera.endpoint());
    EXPECT_EQ(client.ask(readMem(region::memory, 536)).size(), 12U + 536);
    EXPECT_EQ(client.status(readMem(region::memory, 540)), 0x8002);
    EXPECT_EQ(client.status(readMem(region::memory, 0)), 0x8002);
    EXPECT_EQ(client.status(readMem(region::memory, 5)), 0x8005);
    EXPECT_EQ(client.status(readMem(region::memory + 1, 4)), 0x8005);
    EXPECT_EQ(client.status(readMem(region::memory + 1020, 4)), 0);
    EXPECT_EQ(client.status(readMem(region::memory + 1020, 8)), 0x8003);
    EXPECT_EQ(client.status(readMem(0xFFFFFFFC, 512)), 0x8003);
    EXPECT_EQ(client.status(command(Command::readMem, 1, Bytes(4, 0))), 0x8002);
}

TEST(Commands, WriteMemAcknowledgeBytes)
{
    Camera camera(freeForAll());
    Client client(camera.endpoint());
    EXPECT_EQ(text(client.ask(writeMem(region::memory + 4, bytes("aa bb cc dd"), 11))),
              "00 00 00 87 00 04 00 0b 00 00 00 04");
    EXPECT_EQ(text(camera.readMemory(region::memory, 12)), "00 00 00 00 aa bb cc dd 00 00 00 00");
}

TEST(Commands, WriteMemTakesUnpaddedLengthsUnlessStrict)
{
    Config config = freeForAll();
    Camera lenient(config);
    Client client(lenient.endpoint());
    EXPECT_EQ(text(client.ask(writeMem(region::memory, bytes("aa bb cc dd ee")))),
              "00 00 00 87 00 04 00 01 00 00 00 05");
    EXPECT_EQ(text(lenient.readMemory(region::memory, 8)), "aa bb cc dd ee 00 00 00");

    config.strictWriteMem = true;
    Camera strict(config);
    Client other(strict.endpoint());
    EXPECT_EQ(text(other.ask(writeMem(region::memory, bytes("aa")))), "80 05 00 87 00 04 00 01 00 00 00 00");
    EXPECT_EQ(other.status(writeMem(region::memory, bytes("aabbccdd"))), 0);
}

TEST(Commands, WriteMemStatuses)
{
    Camera camera(freeForAll());
    Client client(camera.endpoint());
    EXPECT_EQ(client.status(writeMem(region::memory, Bytes(536, 1))), 0);
    EXPECT_EQ(client.status(writeMem(region::memory, Bytes(540, 1))), 0x8002);
    EXPECT_EQ(client.status(writeMem(region::memory, {})), 0x8002);
    EXPECT_EQ(client.status(writeMem(region::memory + 2, Bytes(4, 1))), 0x8005);
    EXPECT_EQ(client.status(writeMem(region::memory + 1024 * 1024 - 4, Bytes(8, 1))), 0x8003);
    EXPECT_EQ(client.status(writeMem(region::xml, Bytes(4, 1))), 0x8004);
    EXPECT_EQ(client.status(writeMem(reg::ccp, Bytes(4, 1))), 0x8004);
    EXPECT_EQ(client.status(writeMem(reg::userDefinedName, Bytes(16, 'x'))), 0);
    EXPECT_EQ(client.status(writeMem(reg::userDefinedName, Bytes(20, 'x'))), 0x8004);
}

TEST(Commands, UnknownCommandIsNotImplemented)
{
    Camera camera(cameraIp, 0);
    Client client(camera.endpoint());
    EXPECT_EQ(text(client.ask(bytes("42 01 77 76 00 00 00 02"))), "80 01 77 77 00 00 00 02");
    EXPECT_EQ(client.status(command(Command::action, 1, Bytes(12, 0))), 0x8001);
}

TEST(Commands, HeaderThatContradictsItselfIsRefused)
{
    Camera camera(cameraIp, 0);
    Client client(camera.endpoint());
    EXPECT_EQ(text(client.ask(bytes("42 01 00 80 00 08 00 02 00 00 00 00"))), "80 0e 00 81 00 00 00 02");
    EXPECT_EQ(client.status(readReg(0, 0)), 0x800E) << "id 0";
}

TEST(Commands, WhatIsNoCommandGetsNoAnswer)
{
    Camera camera(cameraIp, 0);
    Client client(camera.endpoint());
    client.send(bytes("43 01 00 80 00 04 00 07 00 00 00 00")); // another key
    client.send(bytes("42 01 00 81 00 04 00 07 00 00 00 00")); // an acknowledge
    client.send(bytes("42 01 00 80 00 04 00"));
    client.send({});
    client.send(Bytes(4000, 0x42));
    EXPECT_EQ(idOf(client.ask(readReg(0, 77))), 77) << "the first answer is to the first command";
    EXPECT_EQ(camera.counters().malformed, 5U);
    EXPECT_EQ(camera.counters().received, 6U);
    EXPECT_EQ(camera.counters().sent, 1U);
}

TEST(Commands, NoAcknowledgeWithoutTheFlag)
{
    Camera camera(freeForAll());
    Client client(camera.endpoint());
    client.send(command(Command::writeReg, 1, bytes("0000a050 00000063"), 0));
    EXPECT_EQ(idOf(client.ask(readReg(feature::testValue, 2))), 2);
    EXPECT_EQ(camera.readRegister(feature::testValue), 0x63U);
}

TEST(Commands, EveryTruncationOfEveryCommandIsAnsweredWithAnErrorOrNotAtAll)
{
    Camera camera(freeForAll());
    Client client(camera.endpoint());
    for (const Bytes& whole : {readReg(0), writeReg(feature::testValue, 1), readMem(region::memory, 8),
                               writeMem(region::memory, Bytes(8, 1)), command(Command::discovery, 1, Bytes(4, 0))}) {
        for (std::size_t size = 0; size < whole.size(); ++size) {
            Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
            if (size < 8) {
                client.send(cut);
                continue;
            }
            EXPECT_EQ(client.status(cut), 0x800E) << text(cut);
            gevsim::wire::put16(&cut[4], static_cast<std::uint32_t>(size - 8));
            if (gevsim::wire::get16(&cut[2]) == 0x0002 || (gevsim::wire::get16(&cut[2]) == 0x0086 && size > 12))
                EXPECT_EQ(client.status(cut), 0) << text(cut);
            else
                EXPECT_EQ(client.status(cut), 0x8002) << text(cut);
        }
    }
}

TEST(Commands, DiscoveryAcknowledgeIsTheBeginningOfTheRegisters)
{
    Config config;
    config.endpoint = {cameraIp, 0};
    config.manufacturer = "Maker";
    config.model = "Model";
    config.version = "Ver";
    config.info = "Info";
    config.serial = "SN1";
    config.userName = "Name";
    config.mac = 0x0211223344EE;
    Camera camera(config);
    Client client(camera.endpoint());
    const Bytes ack = client.ask(bytes("42 11 00 02 00 00 00 21"));
    ASSERT_EQ(ack.size(), 256U);
    Bytes expected = bytes("00 00 00 03 00 f8 00 21"
                           "00 01 00 02 80 00 00 01 00 00 02 11 22 33 44 ee 00 00 00 07 00 00 00 05");
    expected.resize(256);
    const auto put = [&](std::size_t address, const Bytes& value) {
        std::copy(value.begin(), value.end(), expected.begin() + static_cast<std::ptrdiff_t>(8 + address));
    };
    const auto putText = [&](std::size_t address, const std::string& value) {
        put(address, {value.begin(), value.end()});
    };
    put(0x24, bytes("7f 00 0d 01"));
    put(0x34, bytes("ff 00 00 00"));
    putText(0x48, "Maker");
    putText(0x68, "Model");
    putText(0x88, "Ver");
    putText(0xA8, "Info");
    putText(0xD8, "SN1");
    putText(0xE8, "Name");
    EXPECT_EQ(text(ack), text(expected));
}

TEST(Commands, BootstrapRegistersOfAFreshCamera)
{
    Camera camera(cameraIp, 0);
    EXPECT_EQ(camera.readRegister(reg::numberOfInterfaces), 1U);
    EXPECT_EQ(camera.readRegister(reg::numberOfMessageChannels), 1U);
    EXPECT_EQ(camera.readRegister(reg::numberOfStreamChannels), 1U);
    EXPECT_EQ(camera.readRegister(reg::gvcpCapability), 0xF8600027U);
    EXPECT_EQ(camera.readRegister(reg::heartbeatTimeout), 3000U);
    EXPECT_EQ(camera.readRegister(reg::tickFrequencyHigh), 0U);
    EXPECT_EQ(camera.readRegister(reg::tickFrequencyLow), 1000000000U);
    EXPECT_EQ(camera.readRegister(reg::ccp), 0U);
    EXPECT_EQ(camera.readMemory(reg::secondUrl, 512), Bytes(512, 0));
    EXPECT_THROW(camera.readRegister(0xB000), std::out_of_range);
    EXPECT_THROW(camera.readRegister(2), std::out_of_range);
}

TEST(Commands, TextsThatAreTooLongKeepTheirFinalZero)
{
    Config config;
    config.endpoint = {cameraIp, 0};
    config.serial = std::string(40, 's');
    Camera camera(config);
    const Bytes serial = camera.readMemory(reg::serialNumber, 16);
    EXPECT_EQ(std::string(serial.begin(), serial.end()), std::string(15, 's') + '\0');
}

TEST(Commands, TimestampLatches)
{
    Camera camera(freeForAll());
    Client client(camera.endpoint());
    const auto latched = [&] {
        EXPECT_EQ(client.status(writeReg(reg::timestampControl, 2)), 0);
        return std::uint64_t{camera.readRegister(reg::timestampHigh)} << 32 | camera.readRegister(reg::timestampLow);
    };
    const std::uint64_t first = latched();
    const std::uint64_t second = latched();
    EXPECT_GT(first, 0U);
    EXPECT_GT(second, first);
    EXPECT_EQ(camera.readRegister(reg::timestampControl), 0U);
    EXPECT_EQ(client.status(writeReg(reg::timestampControl, 1)), 0);
    // What was latched stays until the next latch.
    EXPECT_EQ(std::uint64_t{camera.readRegister(reg::timestampHigh)} << 32 | camera.readRegister(reg::timestampLow),
              second);
}

TEST(Commands, AcquisitionCommandsClearThemselves)
{
    Camera camera(freeForAll());
    Client client(camera.endpoint());
    EXPECT_EQ(client.status(writeReg(feature::acquisitionStart, 1)), 0);
    EXPECT_EQ(camera.readRegister(feature::acquisitionStart), 0U);
    EXPECT_EQ(camera.readRegister(feature::acquisitionStatus), 1U);
    EXPECT_EQ(client.status(writeReg(feature::acquisitionStop, 1)), 0);
    EXPECT_EQ(camera.readRegister(feature::acquisitionStatus), 0U);
}

TEST(Commands, TwoCamerasOnOneAddressAreAnError)
{
    Camera camera(cameraIp, 0);
    EXPECT_THROW(Camera(camera.endpoint()), std::runtime_error);
    EXPECT_THROW(Camera("0.0.0.0", 0), std::invalid_argument);
    EXPECT_THROW(Camera("no address", 0), std::invalid_argument);
    Config config;
    config.memorySize = 6;
    EXPECT_THROW(Camera{config}, std::invalid_argument);
}
