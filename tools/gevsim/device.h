// The camera without its sockets: takes a command datagram and makes its acknowledge. Time is handed in. Not locked:
// the camera's lock guards it. Allocates nothing after its construction.
#pragma once

#include "tools/gevsim/address_space.h"
#include "tools/gevsim/privilege.h"
#include "tools/gevsim/registers.h"
#include "tools/gevsim/stream_types.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>

namespace gevsim {

struct Config;

class Device {
public:
    using Time = Privilege::Time;
    /// Room that `handle` and `refuse` need for an acknowledge.
    static constexpr std::size_t replySize = 576;

    /// A new address, as FORCEIP asks for it; ip 0: the one that the camera would have after power-up.
    struct Move {
        std::uint32_t ip = 0, mask = 0, gateway = 0;
    };

    /// `stream` gets what the registers ask of the stream.
    Device(const Config& config, Time now, StreamOrders& stream);

    /// Whether the datagram is a command: a header with the key 0x42 and an even code. Everything else gets no answer.
    static bool isCommand(const std::uint8_t* data, std::size_t size);

    /// Carries out a command. Returns the size of the acknowledge in `reply`, 0 if the command wants none.
    std::size_t handle(const std::uint8_t* data, std::size_t size, const Endpoint& from, Time now, std::uint8_t* reply);

    /// Answers a command with a status and does not carry it out.
    static std::size_t refuse(const std::uint8_t* data, std::uint16_t status, std::uint8_t* reply);

    /// What a command has asked for, and whoever has the sockets must see to; each is told once.
    std::optional<Move> takeMove() { return std::exchange(move_, std::nullopt); }
    bool takeReset() { return std::exchange(reset_, false); }

    /// Acquisition came to its end by itself.
    void acquisitionEnded(std::uint64_t session);
    void pulseLine() { stream_.trigger(TriggerSource::line); }

    /// CCP 0, registers and memory as after power-up.
    void powerCycle(Time now);

    /// Drops control of a silent holder. True if it did.
    bool expire(Time now);
    Time controlDeadline() const { return privilege_.deadline(heartbeatTimeout()); }

    const Control& control() const { return privilege_.control(); }
    void forceControl(const Control& control, Time now);

    /// Registers and memory, past protection and privilege. `setRegister` has the effects of a write by the holder, and
    /// at CCP gives control to nobody in particular. Throws std::out_of_range.
    std::uint32_t getRegister(std::uint32_t address) const { return space_.get(address); }
    void setRegister(std::uint32_t address, std::uint32_t value, Time now);
    AddressSpace& space() { return space_; }
    const AddressSpace& space() const { return space_; }

private:
    struct Request;
    std::size_t discovery(const Request& request);
    std::size_t readRegs(const Request& request);
    std::size_t writeRegs(const Request& request);
    std::size_t readMem(const Request& request);
    std::size_t writeMem(const Request& request);
    std::size_t forceIp(const Request& request);
    void packetResend(const Request& request);
    /// Success, or why a register that may be written doesn't take this value.
    Status checkValue(std::uint32_t address, std::uint32_t value) const;
    Status writeReg(std::uint32_t address, std::uint32_t value, const Endpoint& from, Time now);
    void store(std::uint32_t address, std::uint32_t value, Time now);
    void showControl();
    void closeChannels();
    bool streamOpen() const;
    bool locked() const;
    float longestExposure() const;
    StreamSetup streamSetup() const;
    void configureStream();
    std::uint32_t heartbeatTimeout() const;

    AddressSpace space_;
    Privilege privilege_;
    Time timestampStart_;
    StreamOrders& stream_;
    std::uint64_t session_ = 0;
    std::optional<Move> move_;
    bool reset_ = false;
    const bool anyoneWhileFree_;
    const bool strictWriteMem_;
    const bool keepsStream_;
};

} // namespace gevsim
