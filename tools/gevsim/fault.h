// Faults: what is to go wrong with the next commands. Values and a queue of them; the camera's lock guards the queue.
#pragma once

#include "tools/gevsim/wire.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace gevsim {

/// One fault, made by the functions below and refined by `only`, as in
/// `camera.inject(Fault::pendingAck(500ms, 3).only(Command::readMem))`. Each command meets at most one fault: the
/// oldest that waits for a command of its kind. Counts are in commands; `always` never runs out.
struct Fault {
    using Milliseconds = std::chrono::milliseconds;
    static constexpr std::uint32_t always = 0;

    enum class Kind {
        none,        ///< takes its turn, so that a later fault meets a later command
        drop,        ///< the command is lost on its way: nothing is done
        dropAck,     ///< the command is carried out, its acknowledge is lost
        delay,       ///< the acknowledge comes late
        duplicate,   ///< the acknowledge comes twice
        reorder,     ///< acknowledges gather, and come in reverse order
        hold,        ///< the acknowledge waits for Camera::release
        status,      ///< refused with a status, and not carried out
        wrongId,     ///< acknowledge of another command's id
        ackCode,     ///< acknowledge with another code
        evenCode,    ///< acknowledge with the command's code, which is even
        foreignCode, ///< acknowledge of another kind of command
        pendingAck,  ///< PENDING_ACK first
        resize,      ///< acknowledge shorter or longer than it should be, its length field telling so
        truncate,    ///< acknowledge cut short, its length field as if it weren't
        raw,         ///< other bytes in place of the acknowledge
    };
    enum class PendingForm { good, wrongId, shortLength, errorStatus, truncated };

    Kind kind = Kind::none;
    std::uint32_t count = 1;
    std::optional<Command> command; ///< empty: any command

    Milliseconds time{0};     ///< delay; most that reorder waits; T of PENDING_ACK
    Milliseconds interval{0}; ///< between PENDING_ACKs, and from the last to the acknowledge
    std::uint32_t times = 1;  ///< PENDING_ACKs per command
    PendingForm form = PendingForm::good;
    bool answer = true;                ///< whether the acknowledge follows the PENDING_ACKs
    std::uint16_t value = 0;           ///< status, acknowledge code, or what is added to the id
    std::int32_t bytes = 0;            ///< added by resize (negative: taken away), or cut off by truncate
    std::vector<std::uint8_t> content; ///< of raw
    bool ownId = true;                 ///< raw: the command's id is put into the content, if it is long enough

    static Fault none(std::uint32_t n = 1);
    static Fault drop(std::uint32_t n = 1);
    static Fault dropAck(std::uint32_t n = 1);
    static Fault delay(Milliseconds time, std::uint32_t n = 1);
    static Fault duplicate(std::uint32_t n = 1);
    /// The next n acknowledges in reverse order, or as many as have gathered when `wait` is over.
    static Fault reorder(std::uint32_t n, Milliseconds wait = Milliseconds(1000));
    static Fault hold(std::uint32_t n = 1);
    static Fault status(Status status, std::uint32_t n = 1);
    static Fault status(std::uint16_t status, std::uint32_t n = 1);
    static Fault busy(std::uint32_t n = 1) { return status(Status::busy, n); }
    static Fault denied(std::uint32_t n = 1) { return status(Status::accessDenied, n); }
    static Fault wrongId(std::int16_t added = 1, std::uint32_t n = 1);
    static Fault ackCode(std::uint16_t code, std::uint32_t n = 1);
    static Fault evenCode(std::uint32_t n = 1);
    static Fault foreignCode(std::uint32_t n = 1);
    /// `times` PENDING_ACKs that announce T, the first at once; the next one, and in the end the acknowledge, each
    /// after T/2.
    static Fault pendingAck(Milliseconds t, std::uint32_t times = 1, std::uint32_t n = 1);
    /// By default for READMEM.
    static Fault shorter(std::uint32_t bytes, std::uint32_t n = 1);
    static Fault longer(std::uint32_t bytes, std::uint32_t n = 1);
    static Fault truncate(std::uint32_t bytes, std::uint32_t n = 1);
    static Fault raw(std::vector<std::uint8_t> content, bool ownId = true, std::uint32_t n = 1);

    Fault only(Command kindOfCommand) const;
    Fault every(Milliseconds betweenPendings) const;
    Fault malformed(PendingForm pendingForm) const;
    Fault withoutAnswer() const;

    std::string text() const; ///< "drop 3 READMEM"
};

class FaultQueue {
public:
    void add(const Fault& fault) { faults_.push_back(fault); }
    void clear() { faults_.clear(); }
    bool empty() const { return faults_.empty(); }
    const std::vector<Fault>& faults() const { return faults_; }

    /// The fault that a command meets, with the count that is left after it; none if there is none for it.
    std::optional<Fault> take(std::uint16_t code);

private:
    std::vector<Fault> faults_;
};

} // namespace gevsim
