#include "stream/Record.h"
#include "stream/gvsp.h"

namespace zuStream {

namespace {

void add(std::vector<Range>& ranges, std::size_t begin, std::size_t end)
{
    if (begin >= end)
        return;
    if (!ranges.empty() && ranges.back().offset + ranges.back().size == begin)
        ranges.back().size += end - begin;
    else
        ranges.push_back({begin, end - begin});
}

} // namespace

Buffer::Buffer(void* data, std::size_t capacity, void* context)
    : data_(static_cast<std::uint8_t*>(data)), capacity_(capacity), context_(context)
{
}

std::vector<Range> Buffer::missing() const
{
    const auto& record = static_cast<const Record&>(*this);
    std::vector<Range> ranges;
    if (frame_.complete)
        return ranges;
    // The end of the data: of a picture it is known, else a whole packet is missing.
    const std::uint64_t promised = frame_.payloadType == payload::image ? frame_.image.size() : frame_.announcedSize;
    const std::size_t end =
        promised != 0 ? static_cast<std::size_t>(std::min<std::uint64_t>(promised, capacity_)) : capacity_;
    if (!record.multiPart) {
        const std::uint32_t trailer = std::min(record.lastId, record.slots + 1);
        for (std::uint32_t id = record.firstMissing(1, trailer); id < trailer;
             id = record.firstMissing(id + 1, trailer))
            add(ranges, (id - 1) * record.payload, std::min(end, id * record.payload));
        return ranges;
    }
    const std::size_t payload = record.payload - gvsp::multiPartHeaderSize;
    std::uint32_t id = 1;
    for (std::size_t i = 0; i < frame_.partCount; ++i) {
        const Part& part = frame_.parts[i];
        for (std::uint64_t at = 0; at < part.size && part.offset + at < capacity_ && id < record.ids();
             at += payload, ++id)
            if (id >= record.lastId || !record.has(id)) // behind the trailer none came
                add(ranges, part.offset + static_cast<std::size_t>(at),
                    static_cast<std::size_t>(
                        std::min<std::uint64_t>(capacity_, part.offset + std::min(part.size, at + payload))));
    }
    return ranges;
}

} // namespace zuStream
