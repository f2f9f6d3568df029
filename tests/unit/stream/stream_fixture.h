// An engine over a scripted socket, driven by hand with the time as a number.
#pragma once

#include "stream/Engine.h"
#include "tests/support/fake_socket.h"
#include "tests/support/gvsp_packets.h"

#include <concepts>
#include <gmock/gmock.h>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace zuTest {

using gvsp::Block;
using gvsp::Bytes;

constexpr std::uint64_t us = 1000; ///< of the engine's nanoseconds
constexpr std::uint64_t ms = 1000000;

constexpr std::uint32_t cameraAddress = 0x0A000005;
constexpr std::uint16_t cameraPort = 20202;
constexpr unsigned packetSize = 136; ///< 100 bytes of payload in a packet, 88 with extended ids

inline zuPlatform::SocketAddress networkAddress(std::uint32_t address, std::uint16_t port)
{
    return {zuPlatform::hostToNetwork32(address), zuPlatform::hostToNetwork16(port)};
}

class StreamTest : public testing::Test, public zuStream::Queues {
protected:
    /// Memory with guards around it, which must stay as they are.
    struct Memory {
        static constexpr std::size_t guard = 64;
        explicit Memory(std::size_t size) : bytes(size + 2 * guard, 0xA5) {}
        std::uint8_t* data() { return bytes.data() + guard; }
        bool whole() const
        {
            const auto is = [](std::uint8_t byte) { return byte == 0xA5; };
            return std::all_of(bytes.begin(), bytes.begin() + guard, is) &&
                   std::all_of(bytes.end() - guard, bytes.end(), is);
        }
        Bytes bytes;
    };

    StreamTest()
    {
        FakeSockets::reset();
        settings.local = {0x0A000001, 5000};
        settings.source = {cameraAddress, 0};
        settings.packetSize = packetSize;
        settings.frameTimeout = std::chrono::milliseconds(100);
        settings.framesAtOnce = 4;
        settings.batch = 16;
    }
    ~StreamTest() override
    {
        for (const Memory& block : memory)
            EXPECT_TRUE(block.whole()) << "written outside of a buffer";
    }

    void start(std::size_t buffers = 8, std::size_t size = 1000)
    {
        engine.emplace(settings, *this);
        for (std::size_t i = 0; i < buffers; ++i)
            addBuffer(size);
    }
    zuStream::Record& addBuffer(std::size_t size)
    {
        memory.emplace_back(size);
        records.push_back(zuStream::makeRecord(settings.packetSize, memory.back().data(), size, nullptr));
        empty.push_back(records.back().get());
        return *records.back();
    }

    /// From the camera, to be read by the next `poll`.
    template <std::same_as<Bytes> Packet> // and no list in braces
    void send(const Packet& packet)
    {
        FakeSockets::pushDatagram(packet, networkAddress(cameraAddress, cameraPort));
    }
    void send(const std::vector<Bytes>& packets)
    {
        for (const Bytes& packet : packets)
            send(packet);
    }
    /// All but some of the packets.
    void sendWithout(const std::vector<Bytes>& packets, const std::vector<std::size_t>& lost)
    {
        for (std::size_t i = 0; i < packets.size(); ++i)
            if (std::find(lost.begin(), lost.end(), i) == lost.end())
                send(packets[i]);
    }
    /// Reads all that was sent.
    void poll(std::uint64_t at)
    {
        now = at;
        while (engine->poll(at) == settings.batch) {
        }
    }
    void poll() { poll(now); }
    /// Sends and reads.
    void play(const std::vector<Bytes>& packets)
    {
        send(packets);
        poll();
    }
    template <std::same_as<Bytes> Packet>
    void play(const Packet& packet)
    {
        send(packet);
        poll();
    }

    const zuStream::Statistics& statistics() const { return engine->statistics(); }

    std::vector<Bytes> monoFrame(const Block& block, std::size_t size = 950, std::uint64_t timestamp = 0)
    {
        gvsp::Picture picture;
        picture.width = 50;
        picture.height = static_cast<std::uint32_t>(size / 50);
        picture.timestamp = timestamp;
        return gvsp::imageFrame(block, picture, gvsp::pattern(size, block.id), packetSize);
    }
    /// Whether the frame that was delivered as number `index` is complete and holds what `monoFrame` had.
    void expectFrame(std::size_t index, std::uint64_t block, std::size_t size = 950)
    {
        ASSERT_GT(delivered.size(), index);
        const zuStream::Record& record = *delivered[index];
        EXPECT_EQ(record.frame().blockId, block);
        EXPECT_TRUE(record.frame().complete);
        EXPECT_EQ(record.frame().size, size);
        EXPECT_EQ(record.frame().missingPackets, 0u);
        EXPECT_TRUE(record.missing().empty());
        EXPECT_EQ(content(index), gvsp::pattern(size, block));
    }
    Bytes content(std::size_t index) const
    {
        const zuStream::Record& record = *delivered.at(index);
        return {record.data(), record.data() + record.frame().size};
    }
    const zuStream::Frame& frame(std::size_t index) const { return delivered.at(index)->frame(); }

    /// The requests so far, such as "7:3-5" for the packets 3 to 5 of block 7, "7:3-" for all from 3 on.
    std::vector<std::string> requests() const
    {
        std::vector<std::string> result;
        for (const SentDatagram& sent : FakeSockets::sent()) {
            const auto big = [&](std::size_t at, std::size_t width) {
                std::uint64_t value = 0;
                for (std::size_t i = 0; i < width; ++i)
                    value = value << 8 | sent.data.at(at + i);
                return value;
            };
            const bool extended = sent.data.size() == 28;
            const std::uint64_t last = big(16, 4);
            result.push_back(std::to_string(extended ? big(20, 8) : big(10, 2)) + ':' + std::to_string(big(12, 4)) +
                             '-' + (last == (extended ? 0xFFFFFFFF : 0xFFFFFF) ? "" : std::to_string(last)));
        }
        return result;
    }

    zuStream::Record* takeEmpty() override
    {
        if (empty.empty())
            return nullptr;
        zuStream::Record* const record = empty.front();
        empty.pop_front();
        return record;
    }
    void giveBack(zuStream::Record& record) override { empty.push_back(&record); }
    void deliver(zuStream::Record& record) override { delivered.push_back(&record); }

    zuStream::Settings settings;
    std::uint64_t now = 1000 * ms;
    std::optional<zuStream::Engine> engine;
    std::list<Memory> memory;
    std::vector<std::unique_ptr<zuStream::Record>> records;
    std::list<zuStream::Record*> empty;
    std::vector<zuStream::Record*> delivered;
};

} // namespace zuTest
