// What a frame costs in the steady state: no allocation. The counting allocator needs a program of its own.
#include "platform/socket.h"
#include "stream/Stream.h"
#include "tests/support/eventually.h"
#include "tests/support/gvsp_packets.h"
#include "tests/unit/gevsim/allocations.h"

#include <gtest/gtest.h>

using namespace zuTest;
using zuStream::Buffer;

TEST(StreamSteady, AFrameAllocatesNothing)
{
    zuStream::Settings settings;
    settings.local = {0x7F000E01, 0};
    settings.source = {0x7F000E02, 0};
    settings.packetSize = 536;
    settings.resend.timeout = std::chrono::milliseconds(2);
    settings.resend.attempts = 1;
    zuStream::Receiver receiver(settings);
    gvsp::Bytes rooms[3] = {gvsp::Bytes(20000), gvsp::Bytes(20000), gvsp::Bytes(20000)};
    for (gvsp::Bytes& room : rooms)
        receiver.queue(receiver.announce(room.data(), room.size()));
    const zuPlatform::SocketPtr camera = zuPlatform::DatagramSocket::open();
    ASSERT_EQ(camera->bind({zuPlatform::hostToNetwork32(settings.source.address), 0}), 0);
    const zuPlatform::SocketAddress to{zuPlatform::hostToNetwork32(receiver.local().address),
                                       zuPlatform::hostToNetwork16(receiver.local().port)};

    // Complete ones, ones in which packets are missing, and parts whose leader comes late.
    std::vector<std::vector<gvsp::Bytes>> frames;
    gvsp::Picture picture;
    picture.width = 100;
    picture.height = 150;
    std::vector<gvsp::PartInfo> parts(2);
    parts[0].data = parts[1].data = gvsp::pattern(2000, 1);
    for (std::uint64_t id = 1; id <= 60; ++id) {
        std::vector<gvsp::Bytes> packets;
        if (id % 3 == 2) {
            packets = gvsp::multiPartFrame({id, true}, parts, 536, id);
            std::swap(packets[0], packets[3]);
        } else {
            packets = gvsp::imageFrame({id, true}, picture, gvsp::pattern(15000, id), 536);
        }
        if (id % 3 == 0)
            packets.erase(packets.begin() + 5);
        frames.push_back(std::move(packets));
    }
    std::uint64_t before = 0;
    unsigned complete = 0;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        if (i == 12)
            before = gevsimTest::allocations();
        for (const gvsp::Bytes& packet : frames[i])
            camera->sendTo(packet.data(), packet.size(), to);
        Buffer* const buffer = receiver.wait(patience);
        ASSERT_NE(buffer, nullptr);
        complete += buffer->frame().complete ? 1 : 0;
        receiver.queue(*buffer);
    }
    EXPECT_EQ(gevsimTest::allocations() - before, 0u);
    EXPECT_EQ(complete, 40u);
}
