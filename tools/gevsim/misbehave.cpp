// Faulty acknowledges, byte by byte.
#include "tools/gevsim/misbehave.h"

#include <algorithm>

namespace gevsim {

using namespace wire;

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t filler = 0xA5;
constexpr std::uint16_t errorStatus = 0x8FFF;
constexpr std::size_t pendingPayload = 4;

Bytes pendingAck(const Fault& fault, std::uint16_t id)
{
    Bytes bytes(headerSize + pendingPayload);
    putAckHeader(bytes.data(), 0, pendingAckCode, pendingPayload, id);
    put16(&bytes[atPendingTime], static_cast<std::uint16_t>(std::clamp<std::int64_t>(fault.time.count(), 0, 0xFFFF)));
    switch (fault.form) {
    case Fault::PendingForm::good:
        break;
    case Fault::PendingForm::wrongId:
        put16(&bytes[atId], static_cast<std::uint16_t>(id + fault.value + (fault.value == 0 ? 1 : 0)));
        break;
    case Fault::PendingForm::shortLength:
        put16(&bytes[atLength], pendingPayload - 1);
        break;
    case Fault::PendingForm::errorStatus:
        put16(&bytes[atStatus], fault.value != 0 ? fault.value : errorStatus);
        break;
    case Fault::PendingForm::truncated:
        // The header promises a payload that isn't there.
        bytes.resize(fault.bytes > 0 ? std::min<std::size_t>(static_cast<std::size_t>(fault.bytes), bytes.size())
                                     : headerSize);
        break;
    }
    return bytes;
}

void resize(Bytes& bytes, std::int64_t by)
{
    const std::int64_t size = std::clamp<std::int64_t>(static_cast<std::int64_t>(bytes.size()) + by, 0, 65000);
    bytes.resize(static_cast<std::size_t>(size), filler);
    if (bytes.size() >= headerSize)
        put16(&bytes[atLength], static_cast<std::uint32_t>(bytes.size() - headerSize));
}

} // namespace

void misbehave(const Fault& fault, const std::uint8_t* command, const std::uint8_t* reply, std::size_t replySize,
               const Endpoint& to, std::chrono::steady_clock::time_point now, std::vector<Outgoing>& out)
{
    const std::uint16_t code = get16(command + atCode);
    const std::uint16_t id = get16(command + atId);
    Bytes bytes(reply, reply + replySize);
    auto due = now;
    bool twice = false;
    switch (fault.kind) {
    case Fault::Kind::delay:
        due += fault.time;
        break;
    case Fault::Kind::duplicate:
        twice = true;
        break;
    case Fault::Kind::wrongId:
        put16(&bytes[atId], static_cast<std::uint16_t>(id + fault.value));
        break;
    case Fault::Kind::ackCode:
        put16(&bytes[atCode], fault.value);
        break;
    case Fault::Kind::evenCode:
        put16(&bytes[atCode], code);
        break;
    case Fault::Kind::foreignCode:
        put16(&bytes[atCode],
              static_cast<std::uint16_t>(
                  (code == static_cast<std::uint16_t>(Command::readReg) ? Command::writeReg : Command::readReg)) +
                  1u);
        break;
    case Fault::Kind::pendingAck:
        for (std::uint32_t i = 0; i < fault.times; ++i) {
            out.push_back({due, to, pendingAck(fault, id)});
            due += fault.interval;
        }
        if (!fault.answer)
            return;
        break;
    case Fault::Kind::resize:
        resize(bytes, fault.bytes);
        break;
    case Fault::Kind::truncate:
        bytes.resize(bytes.size() -
                     std::min<std::size_t>(bytes.size(), static_cast<std::size_t>(std::max(0, fault.bytes))));
        break;
    case Fault::Kind::raw:
        bytes = fault.content;
        if (fault.ownId && bytes.size() >= headerSize)
            put16(&bytes[atId], id);
        break;
    default:
        break;
    }
    if (twice)
        out.push_back({due, to, bytes});
    out.push_back({due, to, std::move(bytes)});
}

} // namespace gevsim
