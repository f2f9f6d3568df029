// The writing thread.
#include "tools/zuLogSvc/message_writer.h"

#include "platform/process.h"
#include "platform/thread.h"
#include "tools/zuLogSvc/command_port.h"
#include "tools/zuLogSvc/packet_encoder.h"
#include "tools/zuLogSvc/protocol.h"

namespace zuLogSvc {
namespace {

constexpr std::uint32_t levelWarn = 0x04;
constexpr std::uint32_t tickMs = 250;
constexpr unsigned housekeepingEvery = 4096; // messages

} // namespace

MessageWriter::MessageWriter(DatagramQueue& queue, Followers& followers,
                             std::shared_ptr<zuPlatform::DatagramSocket> socket, const Clock& clock, Outputs outputs,
                             std::function<void(const std::string&)> trouble)
    : queue_(queue), followers_(followers), socket_(std::move(socket)), clock_(clock), outputs_(std::move(outputs)),
      trouble_(std::move(trouble)), tracker_([this](const SequenceGap& gap) { tellGap(gap); })
{
}

void MessageWriter::run()
{
    zuPlatform::nameCurrentThread("zu-log-write");
    Batch batch;
    while (queue_.take(batch, tickMs)) {
        takeNewOutputs();
        QueuedDatagram entry;
        nowMs_ = clock_.steadyMilliseconds();
        for (unsigned count = 1; batch.next(entry); ++count) {
            process(entry);
            if (count % housekeepingEvery == 0)
                housekeeping(false);
        }
        housekeeping(false);
        flush();
    }
    takeNewOutputs();
    flush();
    for (const auto& output : outputs_)
        givenUpCount_.fetch_add(output->giveUp(), std::memory_order_relaxed);
    housekeeping(true);
    flush();
}

void MessageWriter::process(const QueuedDatagram& entry)
{
    LogMessage message;
    if (entry.kind == QueuedDatagram::Kind::own) {
        if (decodeContainer(entry.bytes, cmdMessage, message) == nullptr)
            emit(message, entry.bytes);
        return;
    }
    if (const Fault fault = decodeMessage(entry.bytes, message)) {
        badCount_.fetch_add(1, std::memory_order_relaxed);
        bad_.add(1, describeBad(fault, entry.bytes.size(), entry.from));
        return;
    }
    messageCount_.fetch_add(1, std::memory_order_relaxed);
    // Records can leave no room for the process.
    const auto process = message.process ? message.process
                                         : tracker_.latestProcess(entry.from.address, entry.from.port, message.command);
    if (process)
        tracker_.seen({entry.from.address, entry.from.port, message.command, *process}, message.sequence, nowMs_);
    emit(message, entry.bytes.subspan(Header::bytes));
}

void MessageWriter::emit(const LogMessage& message, Bytes container)
{
    const std::uint64_t arrival = message.time ? *message.time : clock_.localMicroseconds();
    for (const auto& output : outputs_)
        output->write(message, arrival);
    followers_.forward(*socket_, message, container, nowMs_);
}

void MessageWriter::ownMessage(std::uint32_t level, const std::string& text)
{
    const LogMessage message = makeOwnMessage(level, text, clock_);
    emit(message, encodeContainer(message));
}

void MessageWriter::tellGap(const SequenceGap& gap)
{
    missingCount_.fetch_add(gap.last - gap.first + 1, std::memory_order_relaxed);
    if (gaps_.pass(nowMs_))
        ownMessage(levelWarn, describe(gap));
}

void MessageWriter::housekeeping(bool final)
{
    nowMs_ = clock_.steadyMilliseconds();
    tracker_.tell(nowMs_, final);
    if (const std::uint64_t held = gaps_.takeHeld(nowMs_, final))
        ownMessage(levelWarn, std::to_string(held) + " more places where messages are missing");
    if (const std::uint64_t refused = queue_.refused(); refused != refusedSeen_) {
        refused_.add(refused - refusedSeen_, "");
        refusedSeen_ = refused;
    }
    if (const auto due = refused_.due(nowMs_, final))
        ownMessage(levelWarn,
                   std::to_string(due->count) + " datagrams not taken: the outputs are slower than the clients");
    if (const auto due = bad_.due(nowMs_, final))
        ownMessage(levelWarn,
                   std::to_string(due->count) + " bad datagrams at the message port, the latest " + due->latest);
    for (const auto& output : outputs_) {
        collectLost(*output);
        if (const std::string words = output->takeTrouble(); !words.empty()) {
            trouble_(output->name() + ": " + words);
            ownMessage(levelWarn, output->name() + ": " + words);
        }
    }
    if (const auto due = lost_.due(nowMs_, final)) {
        const std::string words = std::to_string(due->count) + " lines lost, the latest at " + due->latest;
        trouble_(words);
        ownMessage(levelWarn, words);
    }
}

void MessageWriter::collectLost(Output& output)
{
    if (const std::uint64_t lines = output.takeLost()) {
        lostCount_.fetch_add(lines, std::memory_order_relaxed);
        lost_.add(lines, output.name());
    }
}

void MessageWriter::replaceOutputs(Outputs outputs)
{
    std::optional<Outputs> unused(std::move(outputs)); // becomes those of a call before, if they have not been taken
    {
        const std::lock_guard lock(mutex_);
        newOutputs_.swap(unused);
    }
    queue_.wake();
}

void MessageWriter::takeNewOutputs()
{
    std::optional<Outputs> fresh;
    {
        const std::lock_guard lock(mutex_);
        fresh.swap(newOutputs_);
    }
    if (!fresh)
        return;
    flush();
    for (const auto& output : *fresh)
        for (const auto& old : outputs_)
            output->takeOver(*old);
    for (const auto& old : outputs_) {
        old->giveUp();
        collectLost(*old);
    }
    outputs_ = std::move(*fresh);
}

void MessageWriter::flush()
{
    for (const auto& output : outputs_)
        output->flush();
}

WriterCounts MessageWriter::counts() const
{
    return {messageCount_.load(std::memory_order_relaxed), badCount_.load(std::memory_order_relaxed),
            missingCount_.load(std::memory_order_relaxed), queue_.refused(),
            lostCount_.load(std::memory_order_relaxed),    givenUpCount_.load(std::memory_order_relaxed)};
}

LogMessage makeOwnMessage(std::uint32_t level, const std::string& text, const Clock& clock)
{
    LogMessage message;
    message.command = cmdMessage;
    message.time = clock.localMicroseconds();
    message.logger = ownLogger;
    message.level = level;
    message.text = text;
    message.process = zuPlatform::currentProcessId();
    message.codePage = 65001;
    return message;
}

} // namespace zuLogSvc
