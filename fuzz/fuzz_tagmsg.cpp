// The tagged message as the daemon meets it: a received buffer of any content, searched and added to.
#include "GevTLBase/IPCPipe/GevSvrTag.h"
#include "GevTLBase/IPCPipe/TagMsg.h"

#include <cstdlib>

using namespace zuIPCPipe;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    constexpr std::size_t payload = 2024;
    const std::size_t capacity = std::min(std::max<std::size_t>(size, 12), payload);
    std::vector<std::uint8_t> storage(TagLayout::storage, 0);
    std::copy_n(data, std::min(size, capacity), storage.begin());
    CTagMsg<TGevSvrTag> message(storage.data(), capacity, capacity);

    for (const TGevSvrTag tag : {TagAddress, TagLength, TagMemData, TagSuccess, TagRegValue}) {
        std::uint64_t wide = 0;
        std::uint32_t word = 0;
        std::uint8_t byte = 0;
        message.GetScalar(tag, wide);
        message.GetScalar(tag, word);
        message.GetScalar(tag, byte);
        std::string text;
        message.GetString(tag, text);
        std::vector<std::uint8_t> out(0x20000);
        std::size_t room = out.size();
        if (message.GetBinary(tag, out.data(), room) && room > capacity)
            std::abort();
    }
    const std::vector<std::uint8_t> value(size % 600, 0x5A);
    if (message.AddBinary(TagMemData, value.data(), value.size()) && message.UsedLength() > TagLayout::storage)
        std::abort();
    message.AddString(TagSuccess, "text");
    CTagMsg<TGevSvrTag> other;
    other.AppendTags(message.FirstTag(), capacity - 12);
    message.ClearTags();
    if (!message.AddBinary(TagSuccess, "\1", 1) || message.UsedLength() != 25)
        std::abort();
    return 0;
}
