// Making, naming and queueing of faults.
#include "tools/gevsim/fault.h"

#include "tools/gevsim/wire.h"

#include <algorithm>

namespace gevsim {

namespace {

Fault make(Fault::Kind kind, std::uint32_t count)
{
    Fault fault;
    fault.kind = kind;
    fault.count = count;
    return fault;
}

std::string milliseconds(Fault::Milliseconds time) { return " " + std::to_string(time.count()); }

const char* formName(Fault::PendingForm form)
{
    switch (form) {
    case Fault::PendingForm::good:
        return "good";
    case Fault::PendingForm::wrongId:
        return "wrong-id";
    case Fault::PendingForm::shortLength:
        return "short-length";
    case Fault::PendingForm::errorStatus:
        return "error-status";
    case Fault::PendingForm::truncated:
        return "truncated";
    }
    return "";
}

} // namespace

Fault Fault::none(std::uint32_t n) { return make(Kind::none, n); }
Fault Fault::drop(std::uint32_t n) { return make(Kind::drop, n); }
Fault Fault::dropAck(std::uint32_t n) { return make(Kind::dropAck, n); }
Fault Fault::duplicate(std::uint32_t n) { return make(Kind::duplicate, n); }
Fault Fault::hold(std::uint32_t n) { return make(Kind::hold, n); }
Fault Fault::evenCode(std::uint32_t n) { return make(Kind::evenCode, n); }
Fault Fault::foreignCode(std::uint32_t n) { return make(Kind::foreignCode, n); }

Fault Fault::delay(Milliseconds time, std::uint32_t n)
{
    Fault fault = make(Kind::delay, n);
    fault.time = time;
    return fault;
}

Fault Fault::reorder(std::uint32_t n, Milliseconds wait)
{
    Fault fault = make(Kind::reorder, n);
    fault.time = wait;
    return fault;
}

Fault Fault::status(std::uint16_t status, std::uint32_t n)
{
    Fault fault = make(Kind::status, n);
    fault.value = status;
    return fault;
}

Fault Fault::status(Status status, std::uint32_t n) { return Fault::status(static_cast<std::uint16_t>(status), n); }

Fault Fault::wrongId(std::int16_t added, std::uint32_t n)
{
    Fault fault = make(Kind::wrongId, n);
    fault.value = static_cast<std::uint16_t>(added);
    return fault;
}

Fault Fault::ackCode(std::uint16_t code, std::uint32_t n)
{
    Fault fault = make(Kind::ackCode, n);
    fault.value = code;
    return fault;
}

Fault Fault::pendingAck(Milliseconds t, std::uint32_t times, std::uint32_t n)
{
    Fault fault = make(Kind::pendingAck, n);
    fault.time = t;
    fault.times = times;
    fault.interval = t / 2;
    return fault;
}

Fault Fault::shorter(std::uint32_t bytes, std::uint32_t n)
{
    Fault fault = make(Kind::resize, n);
    fault.bytes = -static_cast<std::int32_t>(bytes);
    return fault.only(Command::readMem);
}

Fault Fault::longer(std::uint32_t bytes, std::uint32_t n)
{
    Fault fault = make(Kind::resize, n);
    fault.bytes = static_cast<std::int32_t>(bytes);
    return fault.only(Command::readMem);
}

Fault Fault::truncate(std::uint32_t bytes, std::uint32_t n)
{
    Fault fault = make(Kind::truncate, n);
    fault.bytes = static_cast<std::int32_t>(bytes);
    return fault.only(Command::readMem);
}

Fault Fault::raw(std::vector<std::uint8_t> content, bool ownId, std::uint32_t n)
{
    Fault fault = make(Kind::raw, n);
    fault.content = std::move(content);
    fault.ownId = ownId;
    return fault;
}

Fault Fault::only(Command kindOfCommand) const
{
    Fault fault = *this;
    fault.command = kindOfCommand;
    return fault;
}

Fault Fault::every(Milliseconds betweenPendings) const
{
    Fault fault = *this;
    fault.interval = betweenPendings;
    return fault;
}

Fault Fault::malformed(PendingForm pendingForm) const
{
    Fault fault = *this;
    fault.form = pendingForm;
    return fault;
}

Fault Fault::withoutAnswer() const
{
    Fault fault = *this;
    fault.answer = false;
    return fault;
}

std::string Fault::text() const
{
    std::string text;
    switch (kind) {
    case Kind::none:
        text = "none";
        break;
    case Kind::drop:
        text = "drop";
        break;
    case Kind::dropAck:
        text = "drop-ack";
        break;
    case Kind::delay:
        text = "delay" + milliseconds(time);
        break;
    case Kind::duplicate:
        text = "duplicate";
        break;
    case Kind::reorder:
        text = "reorder wait=" + std::to_string(time.count());
        break;
    case Kind::hold:
        text = "hold";
        break;
    case Kind::status:
        text = "status " + hex(value, 4);
        break;
    case Kind::wrongId:
        text = "wrong-id " + std::to_string(static_cast<std::int16_t>(value));
        break;
    case Kind::ackCode:
        text = "ack-code " + hex(value, 4);
        break;
    case Kind::evenCode:
        text = "even";
        break;
    case Kind::foreignCode:
        text = "foreign";
        break;
    case Kind::pendingAck:
        text = "pending" + milliseconds(time) + " times=" + std::to_string(times) +
               " every=" + std::to_string(interval.count()) + " form=" + formName(form) + (answer ? "" : " answer=no");
        break;
    case Kind::resize:
        text = (bytes < 0 ? "short " : "long ") + std::to_string(bytes < 0 ? -std::int64_t{bytes} : bytes);
        break;
    case Kind::truncate:
        text = "truncate " + std::to_string(bytes);
        break;
    case Kind::raw:
        text = "raw of " + std::to_string(content.size()) + " bytes";
        break;
    }
    text += count == always ? " always" : " count=" + std::to_string(count);
    if (command)
        text += " " + codeName(static_cast<std::uint16_t>(*command));
    return text;
}

std::optional<Fault> FaultQueue::take(std::uint16_t code)
{
    const auto found = std::find_if(faults_.begin(), faults_.end(), [code](const Fault& fault) {
        return !fault.command || static_cast<std::uint16_t>(*fault.command) == code;
    });
    if (found == faults_.end())
        return std::nullopt;
    if (found->count == Fault::always)
        return *found;
    --found->count;
    Fault taken = *found;
    if (found->count == 0)
        faults_.erase(found);
    return taken;
}

} // namespace gevsim
