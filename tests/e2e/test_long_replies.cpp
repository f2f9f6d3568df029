// Replies that outgrow what a message can carry, through the real daemon and from a camera: the instance that built one
// falls silent for good, and all others are served.
#include "bench/raw_pipe.h"
#include "client/GevClient.h"
#include "daemon_under_test.h"
#include "hostile.h"
#include "tools/gevsim/camera.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

using namespace zuTest;
using namespace zuIPCPipe;

namespace {

using Message = CTagMsg<TGevSvrTag>;

template <typename T>
void add(Message& message, TGevSvrTag tag, T value)
{
    ASSERT_TRUE(message.AddBinary(tag, &value, sizeof value));
}

struct LongReplies : testing::Test {
    DaemonUnderTest daemon;
    gevsim::Camera camera{"127.0.17.12", 0};

    /// A client whose instance has the camera as its destination.
    std::unique_ptr<Target> aimed()
    {
        auto target = std::make_unique<Target>();
        Message message;
        message.SetCommand(CmdSetDestination);
        add(message, TagDestIp, camera.ip());
        add(message, TagDestPort, camera.port());
        target->ask(message);
        EXPECT_TRUE(target->reply());
        return target;
    }
    void readMemory(Target& target, std::uint64_t length)
    {
        Message message;
        message.SetCommand(CmdReadMem);
        add(message, TagAddress, std::uint64_t{gevsim::region::memory});
        add(message, TagLength, length);
        target.ask(message);
    }
    /// A command that is always answered, of an instance that listens.
    static void askRetries(Target& target)
    {
        Message message;
        message.SetCommand(CmdGetRetries);
        target.ask(message);
    }
    void expectService()
    {
        zuGevClient::Connection client;
        client.setDestination({camera.ip(), camera.port()});
        EXPECT_TRUE(client.link(zuGevClient::LinkMode::control()));
        EXPECT_EQ(client.readMemory(gevsim::region::memory, 5000), camera.readMemory(gevsim::region::memory, 5000));
    }
    /// Nothing has come back to what was asked, though another client was served from its start to its end meanwhile.
    void expectDeaf(Target& target, const std::string& what)
    {
        expectService();
        EXPECT_FALSE(target.reply(1)) << what;
        // Not at once: it would take the place of a command that is not yet read.
        askRetries(target);
        expectService();
        EXPECT_FALSE(target.reply(1)) << what;
    }
};

} // namespace

TEST_F(LongReplies, AddressBehindARequestThatFillsTheMessage)
{
    const auto target = aimed();
    Message message;
    message.SetCommand(CmdGetLocalAddress);
    const Bytes filler(2000, 0xAB);
    ASSERT_TRUE(message.AddBinary(TagMemData, filler.data(), filler.size()));
    ASSERT_EQ(message.UsedLength(), 2024u) << "as much as a message carries";
    // Nothing tells when the instance has taken it, and the next command would replace one that it has not.
    bool deaf = false;
    for (int attempt = 0; attempt < 20 && !deaf; ++attempt) {
        target->ask(message);
        expectService();
        askRetries(*target);
        expectService();
        deaf = !target->reply(1);
    }
    EXPECT_TRUE(deaf);
}

TEST_F(LongReplies, MemoryThatLeavesNoRoomForTheTagsBehindIt)
{
    camera.writeMemory(gevsim::region::memory, Bytes(2048, 0x5C));
    for (const std::uint64_t length : {1932u, 1944u, 1960u, 1996u}) {
        const auto target = aimed();
        camera.clearLog();
        readMemory(*target, length);
        ASSERT_TRUE(camera.waitForReceived(gevsim::Command::readMem, 7)) << "it was carried out";
        expectDeaf(*target, std::to_string(length));
    }
}

TEST_F(LongReplies, MemoryThatJustFitsIsAnsweredAndMemoryThatDoesNotIsLeftOut)
{
    camera.writeMemory(gevsim::region::memory, Bytes(2048, 0x5C));
    const auto target = aimed();
    const auto entries = [&](std::uint64_t length) {
        readMemory(*target, length);
        const auto datagram = target->reply();
        if (!datagram)
            throw std::runtime_error("no reply");
        Bytes payload(datagram->begin() + sizeof(Header), datagram->end());
        const std::size_t size = payload.size();
        payload.resize(TagLayout::storage);
        Message reply(payload.data(), 2024, size);
        std::uint32_t status = 99;
        std::uint8_t success = 99;
        EXPECT_TRUE(reply.GetScalar(TagStatus, status));
        EXPECT_EQ(status, 0u);
        EXPECT_TRUE(reply.GetScalar(TagSuccess, success));
        EXPECT_EQ(success, 1);
        const auto data = reply.FindTag(TagMemData);
        return std::make_pair(size, data != nullptr ? Message::ValueLength(data) : std::uint64_t{0});
    };
    EXPECT_EQ(entries(1931), std::make_pair(std::size_t{2024}, std::uint64_t{1931}));
    EXPECT_EQ(entries(2000), std::make_pair(std::size_t{81}, std::uint64_t{0}));
    EXPECT_EQ(entries(8), std::make_pair(std::size_t{101}, std::uint64_t{8})) << "the instance is served on";
}
