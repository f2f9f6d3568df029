// What a device may answer: the input is cut into datagrams, which a connection hands to the four commands as answers.
//
// Input: byte 0 chooses the command (bits 0 and 1), the byte swap (bit 2) and the swap argument (bit 3); bytes 1 and 2
// are the size of a memory transfer, big-endian, up to 2047. Then datagrams, each behind a word: bits 0 to 9 are its
// size, bit 15 is a receive that fails in place of a datagram, bit 14 puts the present request id into it, and bit 13
// the acknowledge code of the command. Without further datagrams every receive times out.
#include "GevTLBase/GVCP_impl.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace {

constexpr std::uint16_t sizeBits = 0x03FF;
constexpr std::uint16_t failBit = 0x8000;
constexpr std::uint16_t idBit = 0x4000;
constexpr std::uint16_t codeBit = 0x2000;

class FuzzConnection {
public:
    void load(const std::uint8_t* data, std::size_t size)
    {
        next_ = data;
        left_ = size;
    }

    std::int32_t Bind(std::uint32_t, std::uint16_t) { return 0; }
    std::int32_t SetDestination(std::uint32_t, std::uint16_t) { return 0; }

    std::int32_t Send(const void* buffer, std::uint32_t size, std::int32_t& count)
    {
        // A resend, or the next block: what a device sees must be whole.
        if (size < GEV::gvcpWire::readRegSize || GEV::getBig16(buffer, GEV::gvcpWire::lengthAt) + 8u != size)
            std::abort();
        command_ = GEV::getBig16(buffer, GEV::gvcpWire::commandAt);
        id_ = GEV::getBig16(buffer, GEV::gvcpWire::requestIdAt);
        if (id_ == 0)
            std::abort();
        count = static_cast<std::int32_t>(size);
        return 0;
    }

    std::int32_t Receive(void* buffer, std::uint32_t size, std::uint32_t, std::uint32_t*, std::uint16_t*,
                         std::int32_t& count)
    {
        count = 0;
        if (left_ < 2)
            return GEV::resultCode::timeout;
        const std::uint16_t word = GEV::getBig16(next_, 0);
        skip(2);
        if ((word & failBit) != 0) {
            count = (word & 1) != 0 ? -1 : 0;
            return GEV::resultCode::timeout;
        }
        const std::size_t whole = std::min<std::size_t>(word & sizeBits, left_);
        const std::size_t taken = std::min<std::size_t>(whole, size);
        auto* const bytes = static_cast<std::uint8_t*>(buffer);
        if (taken != 0)
            std::memcpy(bytes, next_, taken);
        skip(whole);
        if ((word & idBit) != 0 && taken >= 8)
            GEV::putBig16(bytes, GEV::gvcpWire::ackIdAt, id_);
        if ((word & codeBit) != 0 && taken >= 4)
            GEV::putBig16(bytes, GEV::gvcpWire::ackCommandAt, static_cast<std::uint16_t>(command_ + 1));
        if (whole == 0)
            return GEV::resultCode::closed;
        if (whole > size) { // as a socket reports a datagram that did not fit
            count = -1;
            return GEV::resultCode::timeout;
        }
        count = static_cast<std::int32_t>(taken);
        return 0;
    }

private:
    void skip(std::size_t size)
    {
        next_ += size;
        left_ -= size;
    }

    const std::uint8_t* next_ = nullptr;
    std::size_t left_ = 0;
    std::uint16_t command_ = 0;
    std::uint16_t id_ = 0;
};

class FuzzGvcp : public GEV::CGVCP<FuzzConnection> {
public:
    FuzzGvcp()
    {
        SetConnection(std::make_shared<FuzzConnection>());
        hasCcp = true;
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < 3)
        return 0;
    static FuzzGvcp& gvcp = *new FuzzGvcp; // its buffers keep what earlier inputs left there, as a link's do
    gvcp.GetConnection()->load(data + 3, size - 3);
    const std::size_t transfer = GEV::getBig16(data, 1) & 0x07FF;
    const bool swap = (data[0] & 8) != 0;
    gvcp.SetByteSwap((data[0] & 4) != 0);
    const auto pending = [](std::uint32_t milliseconds) {
        if (milliseconds > 0xFFFF)
            std::abort();
    };
    try {
        std::uint32_t value = 0;
        std::vector<std::uint8_t> memory(transfer); // exactly as large as asked for
        switch (data[0] & 3) {
        case 0:
            gvcp.ReadReg(0x0A00, value, swap, pending);
            break;
        case 1:
            gvcp.WriteReg(0x0A00, 2, swap, pending);
            break;
        case 2:
            gvcp.ReadMem(0x1000, memory.size(), memory.data(), pending);
            break;
        default:
            gvcp.WriteMem(0x1000, static_cast<std::uint32_t>(memory.size()), memory.data(), pending);
            break;
        }
    } catch (const GEV::GevException&) {
        // The device said no, or nothing that makes sense.
    }
    return 0;
}
