// What may come to a stream's port: datagrams of the camera and of others, in batches, with time between them.
//
// Input: byte 0 chooses the packet size (bits 0 and 1), resends (bit 2), whether incomplete frames are wanted (bit 3),
// frames at once (bit 4) and large buffers (bit 5). Then steps by their first byte: 0 is time (a byte of milliseconds
// follows), 1 a datagram as it stands (as `Input::datagram`), 2 one with a good header: format and extended bit,
// block, packet id and status (a byte each) before the datagram's body, 3 the same of another sender, 4 a whole
// picture: block and lines. What is delivered is queued again.
#include "fuzz/fuzz_input.h"
#include "stream/Engine.h"
#include "tests/support/fake_socket.h"
#include "tests/support/gvsp_packets.h"

#include <list>
#include <memory>

using namespace zuFuzz;
namespace gvsp = zuTest::gvsp;
namespace FakeSockets = zuTest::FakeSockets;

namespace {

constexpr std::uint32_t cameraAddress = 0x0A000005;

zuPlatform::SocketAddress sender(std::uint32_t address)
{
    return {zuPlatform::hostToNetwork32(address), zuPlatform::hostToNetwork16(20202)};
}

class Harness final : public zuStream::Queues {
public:
    explicit Harness(std::uint8_t choice)
    {
        static constexpr unsigned sizes[] = {64, 136, 192, 1500};
        settings_.source = {cameraAddress, 0};
        settings_.packetSize = sizes[choice & 3];
        settings_.resend.enabled = (choice & 4) != 0;
        settings_.deliverIncomplete = (choice & 8) != 0;
        settings_.framesAtOnce = (choice & 16) != 0 ? 6 : 2;
        settings_.batch = 8;
        settings_.frameTimeout = std::chrono::milliseconds(100);
        FakeSockets::reset();
        engine_ = std::make_unique<zuStream::Engine>(settings_, *this);
        for (int i = 0; i < 4; ++i) {
            // Of exactly the size that is told, for the sanitizer to see what goes beyond.
            Bytes& room = memory_.emplace_back((choice & 32) != 0 ? 5000 : 333);
            records_.push_back(zuStream::makeRecord(settings_.packetSize, room.data(), room.size(), nullptr));
            empty_.push_back(records_.back().get());
        }
    }

    unsigned packetSize() const { return settings_.packetSize; }
    void poll()
    {
        while (engine_->poll(now_) == settings_.batch) {
        }
        check(engine_->deadline() >= now_);
    }
    void wait(unsigned ms)
    {
        poll();
        now_ += ms * std::uint64_t{1000000};
        poll();
    }
    void end()
    {
        // Whatever came, all frames end in time.
        for (int i = 0; i < 4000 && engine_->deadline() != zuStream::never; ++i) {
            now_ = std::max(now_ + 1, engine_->deadline());
            poll();
        }
        check(engine_->deadline() == zuStream::never);
        std::size_t back = empty_.size();
        engine_->assembler().abandon([&](zuStream::Record&) { ++back; });
        check(back == records_.size());
        const zuStream::Statistics& counts = engine_->statistics();
        check(counts.packetsAsked >= counts.requests);
        check(counts.packets >= counts.foreign + counts.malformed + counts.duplicates + counts.late + counts.unwanted);
    }

private:
    zuStream::Record* takeEmpty() override
    {
        if (empty_.empty())
            return nullptr;
        zuStream::Record* const record = empty_.front();
        empty_.pop_front();
        return record;
    }
    void giveBack(zuStream::Record& record) override { empty_.push_back(&record); }
    void deliver(zuStream::Record& record) override
    {
        const zuStream::Frame& frame = record.frame();
        check(frame.size <= record.capacity());
        check(frame.missingPackets <= frame.packets);
        check(!frame.complete || (frame.hasLeader && frame.hasTrailer && !frame.tooLarge && frame.missingPackets == 0));
        std::size_t at = 0;
        for (const zuStream::Range& range : record.missing()) {
            check(range.size != 0 && range.offset >= at && range.size <= record.capacity() - range.offset);
            at = range.offset + range.size;
        }
        check(!frame.complete || at == 0);
        for (std::size_t i = 0; i < frame.partCount; ++i) {
            check(frame.parts[i].offset <= record.capacity());
            check(!frame.complete || frame.parts[i].size <= record.capacity() - frame.parts[i].offset);
        }
        // An application reads what came.
        unsigned sum = 0;
        for (std::size_t i = 0; i < frame.size; ++i)
            sum += record.data()[i];
        check(sum <= 255 * frame.size);
        empty_.push_back(&record);
    }

    zuStream::Settings settings_;
    std::unique_ptr<zuStream::Engine> engine_;
    std::list<Bytes> memory_;
    std::vector<std::unique_ptr<zuStream::Record>> records_;
    std::list<zuStream::Record*> empty_;
    std::uint64_t now_ = 1000000000;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    Harness harness(input.byte());
    while (!input.empty()) {
        const std::uint8_t step = input.byte();
        switch (step % 5) {
        case 0:
            harness.wait(input.byte());
            break;
        case 1:
            FakeSockets::pushDatagram(input.datagram(), sender(cameraAddress));
            break;
        case 2:
        case 3: {
            const std::uint8_t format = input.byte();
            gvsp::Block block{input.byte(), (format & 0x80) != 0};
            const std::uint8_t packet = input.byte();
            block.status = static_cast<std::uint16_t>(input.byte());
            if (block.status != 0)
                block.status = static_cast<std::uint16_t>(0x8000 | block.status);
            FakeSockets::pushDatagram(gvsp::header(block, format & 0x0F, packet, format >> 4 & 7).put(input.datagram()),
                                      sender(cameraAddress + (step % 5 == 3 ? 1 : 0)));
            break;
        }
        default: {
            const std::uint8_t block = input.byte();
            gvsp::Picture picture;
            picture.width = 20;
            picture.height = input.byte();
            picture.timestamp = block;
            for (const gvsp::Bytes& packet :
                 gvsp::imageFrame({block, (step & 0x80) != 0}, picture,
                                  gvsp::pattern(std::size_t{20} * picture.height, block), harness.packetSize()))
                FakeSockets::pushDatagram(packet, sender(cameraAddress));
            break;
        }
        }
    }
    harness.poll();
    harness.end();
    return 0;
}
