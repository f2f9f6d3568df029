// The receiver whole, over loopback: its thread, queues and waits; losses; groups; its end.
#include "platform/clock.h"
#include "platform/thread.h"
#include "stream/Stream.h"
#include "tests/support/eventually.h"
#include "tests/support/gvsp_camera.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <gmock/gmock.h>
#include <list>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace zuTest;
using namespace std::chrono_literals;
using gvsp::Block;
using gvsp::Bytes;
using zuStream::Buffer;
using zuStream::Receiver;
using zuStream::Settings;
using zuStream::Statistics;

namespace {

constexpr std::uint32_t cameraAddress = 0x7F000D01;
constexpr std::uint32_t hostAddress = 0x7F000D02;
constexpr unsigned packetSize = 1436; ///< 1400 bytes in a packet

std::vector<Bytes> picture(const Block& block, std::uint32_t lines, Bytes* data = nullptr)
{
    gvsp::Picture made;
    made.width = 1000;
    made.height = lines;
    made.timestamp = block.id;
    const Bytes bytes = gvsp::pattern(std::size_t{1000} * lines, block.id);
    if (data)
        *data = bytes;
    return gvsp::imageFrame(block, made, bytes, packetSize);
}

class ReceiverTest : public testing::Test {
protected:
    ReceiverTest()
    {
        settings.local = {hostAddress, 0};
        settings.source = {cameraAddress, 0};
        settings.packetSize = packetSize;
        settings.frameTimeout = 10s;
        settings.framesAtOnce = 16;
        settings.resend.attempts = 1000;
        settings.resend.limit = 1000000;
    }
    void start(const CameraFaults& faults, std::size_t buffers, std::size_t size)
    {
        camera = std::make_unique<GvspCamera>(cameraAddress, faults);
        settings.resend.port = camera->port();
        receiver = std::make_unique<Receiver>(settings);
        for (std::size_t i = 0; i < buffers; ++i)
            receiver->queue(receiver->announce(memory.emplace_back(size).data(), size));
    }
    /// Sends, and waits until all that left has been read, so that no socket buffer overflows.
    void send(std::uint64_t block, const std::vector<Bytes>& packets, bool whole = false)
    {
        camera->send(block, packets, hostAddress, receiver->local().port, whole);
        ASSERT_TRUE(eventually([&] { return receiver->statistics().packets >= camera->sent(); }));
    }
    Buffer* wait() { return receiver->wait(patience); }
    /// Sends frames on a thread of its own, no more than so many ahead of `taken`. The first and the last come whole.
    std::jthread sender(std::uint64_t frames, std::uint64_t ahead,
                        const std::function<std::vector<Bytes>(std::uint64_t)>& make)
    {
        return std::jthread([this, frames, ahead, make] {
            for (std::uint64_t id = 1; id <= frames; ++id) {
                ASSERT_TRUE(eventually([&] { return taken + ahead >= id; }));
                send(id, make(id), id == 1 || id == frames);
            }
        });
    }

    Settings settings;
    std::list<Bytes> memory;
    std::unique_ptr<GvspCamera> camera;
    std::unique_ptr<Receiver> receiver;
    std::atomic<std::uint64_t> taken{0};
};

} // namespace

TEST_F(ReceiverTest, DeliversFramesBitForBit)
{
    for (const bool extended : {false, true})
        for (const std::chrono::microseconds gather : {0us, 1000us}) {
            settings.gather = gather;
            start({}, 4, 300000);
            for (std::uint64_t id = 1; id <= 20; ++id) {
                Bytes data;
                send(id, picture({id, extended}, 300, &data));
                Buffer* const buffer = wait();
                ASSERT_NE(buffer, nullptr);
                EXPECT_TRUE(buffer->frame().complete);
                EXPECT_EQ(buffer->frame().blockId, id);
                ASSERT_EQ(Bytes(buffer->data(), buffer->data() + buffer->frame().size), data);
                EXPECT_TRUE(receiver->queue(*buffer));
            }
            const Statistics counts = receiver->statistics();
            EXPECT_EQ(counts.framesComplete, 20u);
            EXPECT_EQ(counts.packets, camera->sent());
            EXPECT_GT(counts.batches, 0u);
            EXPECT_EQ(counts.socketDrops, 0u);
            EXPECT_EQ(counts.socketBufferAsked, settings.socketBuffer);
            EXPECT_GT(counts.socketBufferGranted, 0);
        }
}

namespace {

class LossTest : public ReceiverTest, public testing::WithParamInterface<int> {
protected:
    double rate() const { return GetParam() / 100.0; }
};

INSTANTIATE_TEST_SUITE_P(Percent, LossTest, testing::Values(1, 5));

} // namespace

TEST_P(LossTest, WithFirstSendingsLostNoFrameIsIncomplete)
{
    start({rate(), false, false, false, 11}, 20, 150000);
    constexpr std::uint64_t frames = 100;
    std::jthread thread = sender(frames, 12, [](std::uint64_t id) { return picture({id}, 150); });
    for (std::uint64_t id = 1; id <= frames; ++id) {
        Buffer* const buffer = wait();
        ASSERT_NE(buffer, nullptr);
        EXPECT_TRUE(buffer->frame().complete) << buffer->frame().missingPackets;
        EXPECT_EQ(buffer->frame().blockId, id);
        EXPECT_EQ(Bytes(buffer->data(), buffer->data() + buffer->frame().size),
                  gvsp::pattern(150000, buffer->frame().blockId));
        receiver->queue(*buffer);
        ++taken;
    }
    thread.join();
    const Statistics counts = receiver->statistics();
    EXPECT_EQ(counts.framesComplete, frames);
    EXPECT_EQ(counts.framesIncomplete, 0u);
    EXPECT_EQ(counts.framesSkipped, 0u);
    EXPECT_EQ(counts.packetsMissing, 0u);
    EXPECT_GT(camera->lostFirst(), 10980u * static_cast<unsigned>(GetParam()) / 150);
    EXPECT_EQ(counts.packetsResent, camera->lostFirst());
    EXPECT_TRUE(camera->unsent().empty());
    EXPECT_EQ(counts.malformed + counts.foreign, 0u);
}

TEST_P(LossTest, SmallFramesAreFetchedEvenIfTheyAreLostWhole)
{
    start({rate() * 4, false, false, false, 12}, 40, 2000);
    constexpr std::uint64_t frames = 1000;
    std::jthread thread = sender(frames, 12, [](std::uint64_t id) { return picture({id, true}, 2); });
    std::set<std::uint64_t> seen;
    for (std::uint64_t id = 1; id <= frames; ++id) {
        Buffer* const buffer = wait();
        ASSERT_NE(buffer, nullptr);
        EXPECT_TRUE(buffer->frame().complete);
        seen.insert(buffer->frame().blockId);
        EXPECT_EQ(Bytes(buffer->data(), buffer->data() + buffer->frame().size),
                  gvsp::pattern(2000, buffer->frame().blockId));
        receiver->queue(*buffer);
        ++taken;
    }
    thread.join();
    EXPECT_EQ(seen.size(), frames);
    EXPECT_EQ(receiver->statistics().framesSkipped, 0u);
}

TEST_P(LossTest, WithRequestsAndResendsLostTheStatisticsAreExact)
{
    settings.resend.attempts = 1;
    settings.resend.timeout = 100ms;
    settings.framesAtOnce = 64;
    constexpr std::uint64_t frames = 200;
    start({rate(), true, true, false, 13}, frames, 150000);
    for (std::uint64_t id = 1; id <= frames; ++id)
        send(id, picture({id}, 150), id == frames);
    std::uint64_t missing = 0;
    std::uint64_t complete = 0;
    std::vector<std::pair<std::uint64_t, std::uint32_t>> absent;
    for (std::uint64_t id = 1; id <= frames; ++id) {
        Buffer* const buffer = wait();
        ASSERT_NE(buffer, nullptr);
        const zuStream::Frame& frame = buffer->frame();
        ASSERT_EQ(frame.blockId, id);
        complete += frame.complete ? 1 : 0;
        missing += frame.missingPackets;
        if (!frame.hasLeader)
            absent.emplace_back(id, 0);
        const Bytes data = gvsp::pattern(150000, id);
        Bytes received(buffer->data(), buffer->data() + buffer->capacity());
        for (const zuStream::Range& range : buffer->missing()) {
            for (std::size_t at = range.offset; at < range.offset + range.size; at += 1400)
                absent.emplace_back(id, static_cast<std::uint32_t>(at / 1400 + 1));
            std::copy_n(data.begin() + static_cast<std::ptrdiff_t>(range.offset), range.size,
                        received.begin() + static_cast<std::ptrdiff_t>(range.offset));
        }
        EXPECT_EQ(received, data) << "beside what is missing all is there";
        if (!frame.hasTrailer)
            absent.emplace_back(id, 109);
    }
    // What came too late, on a busy machine, is missing from its frame though it was sent.
    const Statistics counts = receiver->statistics();
    const auto unsent = camera->unsent();
    std::uint64_t tooLate = 0;
    for (const auto& packet : absent)
        tooLate += unsent.count(packet) == 0 ? 1 : 0;
    EXPECT_EQ(absent.size() - tooLate, unsent.size()) << "all that never left is told";
    EXPECT_LE(tooLate, counts.late);
    EXPECT_GT(unsent.size(), 0u);
    EXPECT_EQ(counts.packetsMissing, absent.size());
    EXPECT_EQ(counts.packetsMissing, missing);
    EXPECT_EQ(counts.packetsAsked, camera->lostFirst());
    EXPECT_EQ(counts.packetsResent, camera->lostFirst() - absent.size());
    EXPECT_EQ(counts.framesComplete, complete);
    EXPECT_EQ(counts.framesComplete + counts.framesIncomplete, frames);
    EXPECT_EQ(counts.duplicates, 0u);
}

TEST_F(ReceiverTest, AWaitEndsInTimeAndWithTheReceiver)
{
    start({}, 1, 10000);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(receiver->wait(20ms), nullptr);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 20ms);
    EXPECT_EQ(receiver->wait(0ms), nullptr);
    std::atomic<bool> about{false};
    std::thread waiter([&] {
        about = true;
        EXPECT_EQ(receiver->wait(std::chrono::hours(10)), nullptr);
    });
    while (!about)
        zuPlatform::yieldThread();
    receiver->close();
    waiter.join();
    receiver->close();
    EXPECT_EQ(receiver->wait(std::chrono::hours(10)), nullptr);
}

TEST_F(ReceiverTest, WhatWasFilledCanBeTakenAfterTheEnd)
{
    start({}, 2, 10000);
    send(1, picture({1}, 10));
    ASSERT_TRUE(eventually([&] { return receiver->statistics().framesComplete == 1; }));
    receiver->close();
    Buffer* const buffer = receiver->wait(0ms);
    ASSERT_NE(buffer, nullptr);
    EXPECT_TRUE(buffer->frame().complete);
    EXPECT_EQ(receiver->statistics().framesComplete, 1u);
    EXPECT_EQ(receiver->wait(std::chrono::hours(1)), nullptr);
}

TEST_F(ReceiverTest, BuffersHaveOnePlaceAtATime)
{
    start({}, 0, 0);
    Bytes room(10000);
    int context = 0;
    Buffer& buffer = receiver->announce(room.data(), room.size(), &context);
    EXPECT_EQ(buffer.data(), room.data());
    EXPECT_EQ(buffer.capacity(), room.size());
    EXPECT_EQ(buffer.context(), &context);
    EXPECT_TRUE(receiver->queue(buffer));
    EXPECT_FALSE(receiver->queue(buffer));
    EXPECT_FALSE(receiver->revoke(buffer));
    EXPECT_THAT(receiver->takeBack(), testing::ElementsAre(&buffer));
    EXPECT_TRUE(receiver->takeBack().empty());
    EXPECT_TRUE(receiver->queue(buffer));
    send(1, picture({1}, 10));
    ASSERT_TRUE(eventually([&] { return receiver->statistics().framesComplete == 1; }));
    EXPECT_FALSE(receiver->queue(buffer)) << "filled, and not yet taken";
    EXPECT_FALSE(receiver->revoke(buffer));
    EXPECT_TRUE(receiver->takeBack().empty());
    EXPECT_EQ(wait(), &buffer);
    EXPECT_TRUE(receiver->revoke(buffer));
    EXPECT_THROW(receiver->announce(nullptr, 10), std::invalid_argument);
    EXPECT_THROW(receiver->announce(room.data(), 0), std::invalid_argument);
}

TEST_F(ReceiverTest, BuffersAreTakenBackDuringAFlood)
{
    start({}, 4, 100000);
    std::atomic<bool> done{false};
    const std::vector<Bytes> packets = picture({1, true}, 100);
    std::thread flood([&, port = receiver->local().port] {
        for (std::uint64_t id = 1; !done; ++id)
            camera->send(id % 64 + 1, packets, hostAddress, port);
    });
    for (int i = 0; i < 50; ++i) {
        std::vector<Buffer*> back;
        for (const auto end = std::chrono::steady_clock::now() + patience;
             back.size() < 4 && std::chrono::steady_clock::now() < end;) {
            for (Buffer* const buffer : receiver->takeBack())
                back.push_back(buffer);
            while (Buffer* const buffer = receiver->wait(0ms))
                back.push_back(buffer);
        }
        ASSERT_EQ(back.size(), 4u);
        for (Bytes& block : memory)
            std::fill(block.begin(), block.end(), static_cast<std::uint8_t>(i)); // it is the application's alone now
        for (Buffer* const buffer : back)
            EXPECT_TRUE(receiver->queue(*buffer));
    }
    done = true;
    flood.join();
}

TEST_F(ReceiverTest, AGroupIsSeenByTwo)
{
    settings.local = {0x7F000001, 35017};
    settings.group = 0xEF070709;
    settings.source = {0x7F000001, 0};
    settings.resend.enabled = false;
    Receiver first(settings);
    Receiver second(settings);
    EXPECT_EQ(first.local(), (zuStream::Endpoint{settings.group, 35017}));
    Bytes rooms[2] = {Bytes(20000), Bytes(20000)};
    first.queue(first.announce(rooms[0].data(), rooms[0].size()));
    second.queue(second.announce(rooms[1].data(), rooms[1].size()));

    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    const in_addr interface {
        htonl(INADDR_LOOPBACK)
    };
    ASSERT_EQ(::setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &interface, sizeof interface), 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(settings.group);
    to.sin_port = htons(35017);
    Bytes data;
    for (const Bytes& packet : picture({1}, 20, &data))
        ASSERT_GT(::sendto(fd, packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to), 0);
    ::close(fd);
    for (Receiver* const each : {&first, &second}) {
        Buffer* const buffer = each->wait(patience);
        ASSERT_NE(buffer, nullptr);
        EXPECT_TRUE(buffer->frame().complete);
        EXPECT_EQ(Bytes(buffer->data(), buffer->data() + buffer->frame().size), data);
    }
}

TEST_F(ReceiverTest, KnocksFromTheStreamsOwnPort)
{
    start({}, 0, 0);
    const zuPlatform::SocketPtr camera2 = zuPlatform::DatagramSocket::open();
    ASSERT_EQ(camera2->bind(zuPlatform::loopbackAt(0)), 0);
    zuPlatform::SocketAddress address;
    ASSERT_EQ(camera2->getLocalAddress(address), 0);
    EXPECT_TRUE(receiver->knock({0x7F000001, zuPlatform::networkToHost16(address.port)}));
    char room[10];
    zuPlatform::SocketAddress from;
    EXPECT_EQ(camera2->receive(room, sizeof room, 10000, &from).count, 0);
    EXPECT_EQ(zuPlatform::networkToHost16(from.port), receiver->local().port);
    EXPECT_EQ(zuPlatform::networkToHost32(from.address), receiver->local().address);
}

TEST_F(ReceiverTest, TheSystemsDropsAreTold)
{
    settings.socketBuffer = 4096;
    settings.gather = 500ms; // so that all is sent before the first is read
    settings.resend.enabled = false;
    settings.frameTimeout = 1s;
    start({}, 1, 300000);
    const std::vector<Bytes> packets = picture({1}, 300);
    camera->send(1, packets, hostAddress, receiver->local().port);
    ASSERT_TRUE(eventually([&] {
        const Statistics counts = receiver->statistics();
        return counts.packets != 0 && counts.packets + counts.socketDrops == packets.size();
    }));
    EXPECT_GT(receiver->statistics().socketDrops, 0u);
    const std::uint64_t drops = receiver->statistics().socketDrops;
    receiver->close();
    EXPECT_EQ(receiver->statistics().socketDrops, drops) << "and also at the end";
}

TEST_F(ReceiverTest, PriorityIsAskedForAndARefusalBorne)
{
    // Which of both it is depends on who runs this.
    start({}, 1, 20000);
    send(1, picture({1}, 20));
    ASSERT_NE(wait(), nullptr);
    std::thread asker([&] {
        const bool granted = zuPlatform::setCurrentThreadPriority(zuPlatform::ThreadPriority::timeCritical);
        EXPECT_EQ(receiver->statistics().priorityGranted, granted);
    });
    asker.join();
}
