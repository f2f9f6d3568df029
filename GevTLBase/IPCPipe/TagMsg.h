// The tagged message: a command word and a list of typed entries in one flat buffer. Belongs to one thread at a time.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace zuIPCPipe {

/// Layout of a message, little-endian and unaligned: the command word, entries of {length 8, tag 4, value}, and a
/// terminator of length 0. An entry's length is its value's plus 12.
namespace TagLayout {
inline constexpr std::size_t firstEntry = 4;
inline constexpr std::size_t entryTag = 8;
inline constexpr std::size_t entryValue = 12;
inline constexpr std::size_t terminator = 8;
inline constexpr std::size_t bound = 0x800; ///< what `AddBinary` and `AddString` hold themselves to
/// An entry that just passes the bound ends, with its head and the terminator, this far behind the start. Every buffer
/// that a message wraps has so much storage, whatever its capacity.
inline constexpr std::size_t storage = bound + entryValue;

inline constexpr std::uint32_t widthMask = 0x07800000;
inline constexpr std::uint32_t width1 = 0x00800000;
inline constexpr std::uint32_t width2 = 0x01000000;
inline constexpr std::uint32_t width4 = 0x02000000;
inline constexpr std::uint32_t width8 = 0x04000000;
inline constexpr std::uint32_t kindMask = 0x70000000;
inline constexpr std::uint32_t kindString = 0x20000000;
inline constexpr std::uint32_t kindBinary = 0x40000000;
} // namespace TagLayout

/// A message over its own buffer of 0x800 bytes, or wrapped around a received one without a copy. No operation throws.
/// A walk over the entries ends at an entry that leads out of the buffer as it does at the terminator; such an entry's
/// value is absent, and nothing can be added behind it.
template <typename TTag>
class CTagMsg {
public:
    using Entry = std::uint8_t*;

    CTagMsg() : ownedBuffer(TagLayout::storage), used(0), capacity(TagLayout::bound) { ClearAll(); }

    /// Wraps `TagLayout::storage` bytes at `data`, of which `capacityBytes` can hold received data.
    CTagMsg(void* data, std::uint64_t capacityBytes, std::uint64_t usedBytes)
        : used(usedBytes), capacity(capacityBytes), externalBuffer(static_cast<std::uint8_t*>(data)),
          walkEnd(static_cast<std::size_t>(capacity))
    {
    }

    virtual ~CTagMsg() = default;
    CTagMsg(const CTagMsg&) = delete;
    CTagMsg& operator=(const CTagMsg&) = delete;

    virtual std::uint8_t* DataAlias() { return Data(); }
    /// Adds the text and its NUL; false, and nothing changed, if it does not fit.
    virtual bool AddString(TTag tag, const std::string& text) { return Add(tag, text.c_str(), text.size() + 1); }
    virtual bool AddBinary(TTag tag, const void* value, std::size_t length) { return Add(tag, value, length); }
    virtual void Clear() { ClearAll(); }
    /// Drops all entries; the command word stays.
    virtual void ClearTags() { DropTags(); }
    /// Copies the entries of the list at `source`, whose terminator lies within `maxLength` plus 8 bytes.
    virtual bool AppendTags(const void* source, std::size_t maxLength);
    virtual bool AppendAllTags(const void* source) { return AppendTags(source, TagLayout::bound); }
    virtual bool IsReply() { return (Load<std::uint32_t>(Data()) & 0x80000000u) != 0; }
    virtual std::uint8_t* Data() { return Start(); }
    virtual std::uint64_t Size() { return static_cast<std::uint64_t>(EndTag() - Data()) + TagLayout::terminator; }
    virtual std::uint64_t& MessageId() { return messageId; }
    /// All bytes of the value, the terminating NUL among them.
    virtual bool GetString(TTag tag, std::string& out);
    /// `length` is the room at `out`; a value that needs more is not copied, and `length` tells its size.
    virtual bool GetBinaryLimited(TTag tag, void* out, std::size_t& length, std::size_t limit);
    virtual bool GetBinary(TTag tag, void* out, std::size_t& length)
    {
        return GetBinaryLimited(tag, out, length, ~std::size_t{0});
    }
    virtual bool& Completed() { return completed; }
    virtual std::uint64_t Capacity() { return capacity; }
    virtual std::uint64_t& UsedLength() { return used; }
    virtual Entry FirstTag() { return Data() + TagLayout::firstEntry; }
    virtual Entry NextTag(Entry entry) { return IsEntry(entry) ? entry + Load<std::uint64_t>(entry) : entry; }
    virtual Entry EndTag()
    {
        Entry entry = FirstTag();
        while (IsEntry(entry))
            entry += Load<std::uint64_t>(entry);
        return entry;
    }
    /// The first entry with exactly this tag, or null.
    virtual Entry FindTag(TTag tag)
    {
        for (Entry entry = FirstTag(); IsEntry(entry); entry += Load<std::uint64_t>(entry))
            if (Room(entry) >= TagLayout::entryValue &&
                Load<std::uint32_t>(entry + TagLayout::entryTag) == static_cast<std::uint32_t>(tag))
                return entry;
        return nullptr;
    }
    virtual std::uint8_t* RawData() { return Data(); }

    /// The value's length; 0 if it differs from the width class of the entry's tag.
    static std::uint64_t ValueLength(const std::uint8_t* entry)
    {
        const auto length = Load<std::uint64_t>(entry);
        if (length < TagLayout::entryValue)
            return 0;
        const std::uint64_t value = length - TagLayout::entryValue;
        switch (Load<std::uint32_t>(entry + TagLayout::entryTag) & TagLayout::widthMask) {
        case TagLayout::width1:
            return value == 1 ? 1 : 0;
        case TagLayout::width2:
            return value == 2 ? 2 : 0;
        case TagLayout::width4:
            return value == 4 ? 4 : 0;
        case TagLayout::width8:
            return value == 8 ? 8 : 0;
        default:
            return value;
        }
    }

    static const std::uint8_t* Value(const std::uint8_t* entry) { return entry + TagLayout::entryValue; }

    /// Reads a number if the entry is there and as wide as `TValue`; `out` stays otherwise.
    template <typename TValue>
    bool GetScalar(TTag tag, TValue& out)
    {
        const Entry entry = FindTag(tag);
        if (entry == nullptr || ValueLength(entry) != sizeof(TValue))
            return false;
        out = Load<TValue>(Value(entry));
        return true;
    }

    std::uint32_t Command() { return Load<std::uint32_t>(Data()); }
    void SetCommand(std::uint32_t word) { Store(Data(), word); }

private:
    template <typename TValue>
    static TValue Load(const std::uint8_t* from)
    {
        TValue value;
        std::memcpy(&value, from, sizeof value);
        return value;
    }
    template <typename TValue>
    static void Store(std::uint8_t* to, TValue value)
    {
        std::memcpy(to, &value, sizeof value);
    }

    std::uint8_t* Start() { return externalBuffer != nullptr ? externalBuffer : ownedBuffer.data(); }
    std::size_t Room(const std::uint8_t* at)
    {
        const auto offset = static_cast<std::size_t>(at - Start());
        return offset < walkEnd ? walkEnd - offset : 0;
    }
    bool HasTerminator(const std::uint8_t* at)
    {
        return Room(at) >= TagLayout::terminator && Load<std::uint64_t>(at) == 0;
    }
    /// An entry that lies wholly within the buffer.
    bool IsEntry(const std::uint8_t* at)
    {
        const std::size_t room = Room(at);
        if (room < TagLayout::terminator)
            return false;
        const auto length = Load<std::uint64_t>(at);
        return length != 0 && length <= room;
    }
    void ClearAll()
    {
        Store<std::uint32_t>(Start(), 0);
        DropTags();
    }
    void DropTags()
    {
        Store<std::uint64_t>(Start() + TagLayout::firstEntry, 0);
        used = TagLayout::firstEntry + TagLayout::terminator;
    }
    bool Add(TTag tag, const void* value, std::size_t length);

    bool completed = false;
    std::vector<std::uint8_t> ownedBuffer;
    std::uint64_t used;
    std::uint64_t capacity;
    std::uint8_t* externalBuffer = nullptr;
    std::uint64_t messageId = 0;
    std::size_t walkEnd = TagLayout::bound; ///< no walk goes beyond; grows with what is added
};

template <typename TTag>
bool CTagMsg<TTag>::Add(TTag tag, const void* value, std::size_t length)
{
    const Entry entry = EndTag();
    const auto offset = static_cast<std::size_t>(entry - Data());
    if (!HasTerminator(entry) || length > TagLayout::bound ||
        offset + length + TagLayout::terminator > TagLayout::bound)
        return false;
    Store(entry + TagLayout::entryTag, static_cast<std::uint32_t>(tag));
    if (length != 0)
        std::memcpy(entry + TagLayout::entryValue, value, length);
    Store<std::uint64_t>(entry, length + TagLayout::entryValue);
    const std::size_t end = offset + TagLayout::entryValue + length;
    Store<std::uint64_t>(Data() + end, 0);
    used = end + TagLayout::terminator;
    walkEnd = std::max(walkEnd, static_cast<std::size_t>(used));
    return true;
}

template <typename TTag>
bool CTagMsg<TTag>::AppendTags(const void* source, std::size_t maxLength)
{
    const auto* const list = static_cast<const std::uint8_t*>(source);
    std::size_t distance = 0;
    while (const auto length = Load<std::uint64_t>(list + distance)) {
        if (length > maxLength - distance)
            return false;
        distance += static_cast<std::size_t>(length);
    }
    const Entry end = EndTag();
    const auto offset = static_cast<std::size_t>(end - Data());
    if (!HasTerminator(end) || used > capacity || distance + TagLayout::terminator > capacity - used ||
        offset + distance + TagLayout::terminator > capacity)
        return false;
    std::memcpy(end, list, distance + TagLayout::terminator);
    used = offset + distance + TagLayout::terminator;
    return true;
}

template <typename TTag>
bool CTagMsg<TTag>::GetString(TTag tag, std::string& out)
{
    const auto bits = static_cast<std::uint32_t>(tag);
    const Entry entry = FindTag(tag);
    if (entry == nullptr || (bits & TagLayout::kindMask) != TagLayout::kindString ||
        (bits & TagLayout::widthMask) != TagLayout::width1)
        return false;
    const auto length = Load<std::uint64_t>(entry);
    if (length < TagLayout::entryValue)
        return false;
    out.assign(reinterpret_cast<const char*>(Value(entry)), static_cast<std::size_t>(length - TagLayout::entryValue));
    return true;
}

template <typename TTag>
bool CTagMsg<TTag>::GetBinaryLimited(TTag tag, void* out, std::size_t& length, std::size_t limit)
{
    const Entry entry = FindTag(tag);
    if (entry == nullptr || (static_cast<std::uint32_t>(tag) & TagLayout::kindMask) != TagLayout::kindBinary)
        return false;
    const auto needed = static_cast<std::size_t>(ValueLength(entry));
    const bool fits = needed <= length;
    length = needed;
    if (!fits)
        return false;
    if (const std::size_t count = std::min(needed, limit); count != 0)
        std::memcpy(out, Value(entry), count);
    return true;
}

} // namespace zuIPCPipe
