// The command language.
#include "tests/unit/gevsim/client.h"

#include "tools/gevsim/camera.h"
#include "tools/gevsim/script.h"

using namespace gevsimTest;
using gevsim::Camera;
using gevsim::Command;
using gevsim::ScriptError;
namespace reg = gevsim::reg;
namespace region = gevsim::region;
namespace feature = gevsim::feature;

namespace {

class Script : public testing::Test {
protected:
    static gevsim::Config config()
    {
        gevsim::Config made;
        made.endpoint = {"127.0.13.1", 0};
        made.heartbeatTimeoutMs = 60000;
        return made;
    }
    Camera camera{config()};

    /// The fault that a line makes.
    std::string fault(const std::string& line)
    {
        camera.clearFaults();
        EXPECT_EQ(camera.execute(line), "");
        const auto faults = camera.faults();
        return faults.size() == 1 ? faults[0].text() : std::to_string(faults.size()) + " faults";
    }
};

} // namespace

TEST_F(Script, MakesFaults)
{
    EXPECT_EQ(fault("drop"), "drop count=1");
    EXPECT_EQ(fault("drop 3 readmem"), "drop count=3 READMEM");
    EXPECT_EQ(fault("DROP readmem 3"), "drop count=3 READMEM");
    EXPECT_EQ(fault("drop-ack always"), "drop-ack always");
    EXPECT_EQ(fault("delay 250 2"), "delay 250 count=2");
    EXPECT_EQ(fault("duplicate 0x80"), "duplicate count=1 READREG");
    EXPECT_EQ(fault("reorder"), "reorder wait=1000 count=2");
    EXPECT_EQ(fault("reorder 4 wait=50"), "reorder wait=50 count=4");
    EXPECT_EQ(fault("hold 2"), "hold count=2");
    EXPECT_EQ(fault("status 0x8123 2"), "status 0x8123 count=2");
    EXPECT_EQ(fault("status access-denied writereg"), "status 0x8006 count=1 WRITEREG");
    EXPECT_EQ(fault("status write-protect"), "status 0x8004 count=1");
    EXPECT_EQ(fault("busy 5"), "status 0x8007 count=5");
    EXPECT_EQ(fault("denied"), "status 0x8006 count=1");
    EXPECT_EQ(fault("wrong-id"), "wrong-id 1 count=1");
    EXPECT_EQ(fault("ack-code 0x0083"), "ack-code 0x0083 count=1");
    EXPECT_EQ(fault("even"), "even count=1");
    EXPECT_EQ(fault("foreign 2"), "foreign count=2");
    EXPECT_EQ(fault("pending 500"), "pending 500 times=1 every=250 form=good count=1");
    EXPECT_EQ(fault("pending 500 times=3 every=10 form=short-length answer=no 2 readmem"),
              "pending 500 times=3 every=10 form=short-length answer=no count=2 READMEM");
    EXPECT_EQ(fault("pending 9 form=wrong-id"), "pending 9 times=1 every=4 form=wrong-id count=1");
    EXPECT_EQ(fault("pending 9 form=error-status"), "pending 9 times=1 every=4 form=error-status count=1");
    EXPECT_EQ(fault("pending 9 form=truncated"), "pending 9 times=1 every=4 form=truncated count=1");
    EXPECT_EQ(fault("short 510"), "short 510 count=1 READMEM");
    EXPECT_EQ(fault("long 3 any"), "long 3 count=1");
    EXPECT_EQ(fault("truncate 4 readreg"), "truncate 4 count=1 READREG");
    EXPECT_EQ(fault("raw 0102ff"), "raw of 3 bytes count=1");
    EXPECT_EQ(fault("none 2   # a comment"), "none count=2");
}

TEST_F(Script, EmptyLinesAndCommentsDoNothing)
{
    EXPECT_EQ(camera.execute(""), "");
    EXPECT_EQ(camera.execute("   \t"), "");
    EXPECT_EQ(camera.execute("# drop"), "");
    EXPECT_TRUE(camera.faults().empty());
}

TEST_F(Script, WhatIsNotUnderstoodChangesNothing)
{
    for (const char* line : {"nonsense",
                             "drop x",
                             "drop 0",
                             "drop -1",
                             "drop 4294967296",
                             "delay",
                             "delay x",
                             "delay -1",
                             "delay 10 wait=3",
                             "status",
                             "status 0x10000",
                             "status nothing",
                             "ack-code",
                             "pending",
                             "pending 65536",
                             "pending 5 form=odd",
                             "pending 5 times=x",
                             "pending 5 answer=maybe",
                             "short",
                             "raw",
                             "raw 123",
                             "raw 0g",
                             "silence",
                             "silence x",
                             "silence 5 6",
                             "speak now",
                             "power-cycle x",
                             "loss",
                             "loss 101",
                             "loss -1",
                             "loss x",
                             "loss 5 7",
                             "loss 5 seed=x",
                             "release x",
                             "clear all",
                             "read",
                             "read 2",
                             "read 0x100000000",
                             "write 0x10000",
                             "write 0x10000 x",
                             "info 1",
                             "help me",
                             "reorder wait=",
                             "drop =5"}) {
        EXPECT_THROW(camera.execute(line), ScriptError) << line;
        EXPECT_THROW(gevsim::checkScriptLine(line), ScriptError) << line;
    }
    EXPECT_TRUE(camera.faults().empty());
    EXPECT_THROW(camera.execute("read 0xF0000000"), ScriptError) << "no such register";
}

TEST_F(Script, ErrorsSayWhatIsWrong)
{
    try {
        camera.execute("drop 3 readme");
        FAIL();
    } catch (const ScriptError& error) {
        EXPECT_NE(std::string(error.what()).find("'readme'"), std::string::npos) << error.what();
        EXPECT_NE(std::string(error.what()).find("readmem"), std::string::npos) << error.what();
    }
}

TEST_F(Script, CheckingChangesNothing)
{
    gevsim::checkScriptLine("drop 3");
    gevsim::checkScriptLine("write 0x10000 5");
    EXPECT_TRUE(camera.faults().empty());
    EXPECT_EQ(camera.readRegister(region::memory), 0U);
}

TEST_F(Script, ReadsAndWritesRegisters)
{
    EXPECT_EQ(camera.execute("write 0x10000 0xdeadBEEF"), "");
    EXPECT_EQ(camera.readRegister(region::memory), 0xDEADBEEFU);
    EXPECT_EQ(camera.execute("read 65536"), "0xDEADBEEF");
    EXPECT_EQ(camera.execute("write 0x0A00 2"), "");
    EXPECT_TRUE(camera.control().held());
}

TEST_F(Script, SilenceAndItsEnd)
{
    Client client(camera.endpoint());
    EXPECT_EQ(camera.execute("silence always"), "");
    client.send(readReg(0, 1));
    ASSERT_TRUE(camera.waitForReceived(Command::readReg));
    EXPECT_EQ(camera.execute("speak"), "");
    EXPECT_EQ(idOf(client.ask(readReg(0, 2))), 2);
    EXPECT_EQ(camera.execute("silence 86400000"), "");
    client.send(readReg(0, 3));
    ASSERT_TRUE(camera.waitForReceived(Command::readReg, 3));
    EXPECT_EQ(camera.execute("clear"), "");
    EXPECT_EQ(idOf(client.ask(readReg(0, 4))), 4);
}

TEST_F(Script, PowerCycle)
{
    camera.writeRegister(feature::testValue, 5);
    camera.writeRegister(reg::ccp, 2);
    EXPECT_EQ(camera.execute("power-cycle"), "");
    EXPECT_EQ(camera.readRegister(feature::testValue), 0U);
    EXPECT_FALSE(camera.control().held());
    Client client(camera.endpoint());
    EXPECT_EQ(client.status(readReg(0)), 0);
    EXPECT_EQ(camera.execute("power-cycle 86400000"), "");
    client.send(readReg(0));
    ASSERT_TRUE(camera.waitForReceived(Command::readReg, 2));
    EXPECT_TRUE(camera.received()[1].lost);
}

TEST_F(Script, LossTellsItsSeed)
{
    EXPECT_EQ(camera.execute("loss 100 seed=77"), "loss with seed=77");
    EXPECT_EQ(camera.execute("loss 2.5%"), "loss with seed=1");
    EXPECT_EQ(camera.execute("loss 0"), "");
}

TEST_F(Script, ReleasesHeldAnswers)
{
    Client client(camera.endpoint());
    EXPECT_EQ(camera.execute("hold 2"), "");
    client.send(readReg(0, 1));
    client.send(readReg(0, 2));
    ASSERT_TRUE(camera.waitFor([&] { return camera.heldAnswers() == 2; }));
    EXPECT_EQ(camera.execute("release 1"), "released 1");
    EXPECT_EQ(idOf(client.receive()), 1);
    EXPECT_EQ(camera.execute("release"), "released 1");
    EXPECT_EQ(idOf(client.receive()), 2);
}

TEST_F(Script, InformationNamesControlCountsAndFaults)
{
    Client client(camera.endpoint());
    client.ask(writeReg(reg::ccp, 0x00010006));
    camera.execute("drop 2 readmem");
    EXPECT_EQ(camera.execute("info"), "camera " + camera.endpoint().text() + "\ncontrol held, switchover by " +
                                          client.endpoint().text() +
                                          "\ndatagrams received 1, sent 1, lost 0, malformed 0, held back 0"
                                          "\nfault drop count=2 READMEM");
    camera.writeRegister(reg::ccp, 0);
    EXPECT_NE(camera.execute("info").find("control free"), std::string::npos);
}

TEST_F(Script, HelpNamesEveryWord)
{
    const std::string help = camera.execute("help");
    for (const char* word : {"none",   "drop", "drop-ack", "delay",    "duplicate", "reorder", "hold",        "release",
                             "status", "busy", "denied",   "wrong-id", "ack-code",  "even",    "foreign",     "pending",
                             "short",  "long", "truncate", "raw",      "silence",   "speak",   "power-cycle", "loss",
                             "clear",  "read", "write",    "info",     "help",      "stream",  "frames",      "pulse"})
        EXPECT_NE(help.find(std::string("    ") + word + " "), std::string::npos) << word;
}
