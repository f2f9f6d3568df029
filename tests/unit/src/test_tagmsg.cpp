// The tagged message: layout byte by byte, its bounds, and malformed lists.
#include "GevTLBase/IPCPipe/GevSvrTag.h"
#include "GevTLBase/IPCPipe/TagMsg.h"

#include <gtest/gtest.h>

#include <numeric>
#include <random>

using namespace zuIPCPipe;

namespace {

using Message = CTagMsg<TGevSvrTag>;
using Bytes = std::vector<std::uint8_t>;

Bytes used(Message& message) { return {message.Data(), message.Data() + message.UsedLength()}; }

/// Storage for a wrapped message, with a guard behind it.
struct Wrapped {
    static constexpr std::size_t guardSize = 64;
    Bytes bytes = Bytes(TagLayout::storage + guardSize, 0xEE);
    Wrapped() { std::fill_n(bytes.begin(), TagLayout::storage, 0); }
    bool guardIntact() const
    {
        return std::all_of(bytes.end() - guardSize, bytes.end(), [](std::uint8_t b) { return b == 0xEE; });
    }
};

/// Fills an empty message so that exactly `room` bytes are left between its terminator's offset and 0x800 less 8.
std::size_t lengthUpTo(std::size_t bound) { return bound - TagLayout::firstEntry - TagLayout::terminator; }

} // namespace

TEST(TagMsg, ClearGivesSizeTwelve)
{
    Message message;
    message.SetCommand(7);
    message.AddBinary(TagRegValue, "\1\2\3\4", 4);
    message.Clear();
    EXPECT_EQ(message.Size(), 12u);
    EXPECT_EQ(used(message), Bytes(12, 0));
}

TEST(TagMsg, ClearTagsKeepsTheCommandWord)
{
    Message message;
    message.SetCommand(0x80000007);
    message.AddBinary(TagRegValue, "\1\2\3\4", 4);
    message.ClearTags();
    EXPECT_EQ(message.Command(), 0x80000007u);
    EXPECT_TRUE(message.IsReply());
    EXPECT_EQ(message.UsedLength(), 12u);
}

TEST(TagMsg, FindTagOnAnEmptyMessageGivesNull)
{
    Message message;
    EXPECT_EQ(message.FindTag(TagAddress), nullptr);
    EXPECT_EQ(message.NextTag(message.FirstTag()), message.FirstTag());
}

TEST(TagMsg, NextTagLeadsFromEntryToEntryAndStaysAtTheTerminator)
{
    Message message;
    message.AddBinary(TagRegValue, "\1\2\3\4", 4);
    message.AddBinary(TagSuccess, "\1", 1);
    const Message::Entry first = message.FirstTag();
    const Message::Entry second = message.NextTag(first);
    EXPECT_EQ(first, message.FindTag(TagRegValue));
    EXPECT_EQ(second, message.FindTag(TagSuccess));
    EXPECT_EQ(second, first + 16);
    EXPECT_EQ(message.NextTag(second), message.EndTag());
    EXPECT_EQ(message.NextTag(message.EndTag()), message.EndTag());
}

TEST(TagMsg, SizeIsCountedAnewAndNotTheUsedLength)
{
    Wrapped storage;
    Message filled;
    filled.AddBinary(TagRegValue, "\1\2\3\4", 4);
    std::copy_n(filled.Data(), filled.UsedLength(), storage.bytes.begin());
    Message message(storage.bytes.data(), 2024, 2024); // with bytes of no matter behind the terminator
    EXPECT_EQ(message.Size(), 28u);
    EXPECT_EQ(message.UsedLength(), 2024u);
    message.UsedLength() = 5;
    EXPECT_EQ(message.Size(), 28u);
}

TEST(TagMsg, EntriesByteByByte)
{
    Message message;
    message.SetCommand(7);
    const std::uint32_t value = 0x11223344;
    ASSERT_TRUE(message.AddBinary(TagRegValue, &value, 4));
    const std::uint8_t success = 1;
    ASSERT_TRUE(message.AddBinary(TagSuccess, &success, 1));
    const Bytes expected = {7, 0, 0, 0, 16, 0, 0, 0,    0, 0,    0, 0, 0x09, 0, 0, 0x02, 0x44, 0x33, 0x22, 0x11, 13,
                            0, 0, 0, 0, 0,  0, 0, 0x0A, 0, 0x80, 0, 1, 0,    0, 0, 0,    0,    0,    0,    0};
    EXPECT_EQ(used(message), expected);
    EXPECT_EQ(message.Size(), expected.size());
}

TEST(TagMsg, AddBinaryReachingExactlyTheBoundSucceeds)
{
    Wrapped storage;
    Message message(storage.bytes.data(), 2024, 0);
    message.Clear();
    const std::size_t longest = lengthUpTo(TagLayout::bound);
    const Bytes value(longest + 1, 0x5A);
    EXPECT_FALSE(message.AddBinary(TagMemData, value.data(), longest + 1));
    EXPECT_EQ(message.Size(), 12u);
    EXPECT_TRUE(message.AddBinary(TagMemData, value.data(), longest));
    EXPECT_EQ(message.UsedLength(), TagLayout::storage);
    EXPECT_EQ(message.Size(), TagLayout::storage);
    EXPECT_TRUE(storage.guardIntact());
    EXPECT_FALSE(message.AddBinary(TagSuccess, "\1", 1));
    EXPECT_TRUE(storage.guardIntact());
    EXPECT_EQ(Message::ValueLength(message.FindTag(TagMemData)), longest);
}

TEST(TagMsg, OwnedMessageHoldsTheBoundToo)
{
    Message message;
    const std::size_t longest = lengthUpTo(TagLayout::bound);
    const Bytes value(longest + 1, 0x5A);
    EXPECT_FALSE(message.AddBinary(TagMemData, value.data(), longest + 1));
    EXPECT_TRUE(message.AddBinary(TagMemData, value.data(), longest));
    EXPECT_EQ(message.Capacity(), TagLayout::bound);
}

TEST(TagMsg, AddStringCountsItsNul)
{
    Message message;
    const std::size_t longest = lengthUpTo(TagLayout::bound) - 1;
    EXPECT_FALSE(message.AddString(TagMemData, std::string(longest + 1, 'x')));
    EXPECT_EQ(message.Size(), 12u);
    EXPECT_TRUE(message.AddString(TagMemData, std::string(longest, 'x')));
}

TEST(TagMsg, RegisterValueOfTwoBytesHasNoValueLength)
{
    Message message;
    message.AddBinary(TagRegValue, "\1\2", 2);
    EXPECT_EQ(Message::ValueLength(message.FindTag(TagRegValue)), 0u);
    std::uint32_t value = 77;
    EXPECT_FALSE(message.GetScalar(TagRegValue, value));
    EXPECT_EQ(value, 77u);
}

TEST(TagMsg, ValueLengthByWidthClass)
{
    const Bytes value(16, 1);
    const std::pair<std::uint32_t, std::uint64_t> classes[] = {
        {TagLayout::width1, 1}, {TagLayout::width2, 2}, {TagLayout::width4, 4}, {TagLayout::width8, 8}};
    for (const auto& [bits, width] : classes)
        for (std::uint64_t length = 0; length <= 9; ++length) {
            Message message;
            const auto tag = static_cast<TGevSvrTag>(bits | 0x55);
            message.AddBinary(tag, value.data(), length);
            EXPECT_EQ(Message::ValueLength(message.FindTag(tag)), length == width ? width : 0) << bits << " " << length;
        }
    Message message;
    message.AddBinary(TagMemData, Bytes(100, 3).data(), 100);
    EXPECT_EQ(Message::ValueLength(message.FindTag(TagMemData)), 100u);
}

TEST(TagMsg, StringComesBackWithItsNul)
{
    constexpr auto tag = static_cast<TGevSvrTag>(TagLayout::kindString | TagLayout::width1 | 0x70);
    Message message;
    ASSERT_TRUE(message.AddString(tag, "abc"));
    std::string text;
    ASSERT_TRUE(message.GetString(tag, text));
    EXPECT_EQ(text, std::string("abc\0", 4));
}

TEST(TagMsg, GetStringNeedsKindAndWidthOfTheTagGiven)
{
    constexpr auto noWidth = static_cast<TGevSvrTag>(TagLayout::kindString | 0x70);
    Message message;
    message.AddString(TagMemData, "abc");
    message.AddString(noWidth, "abc");
    std::string text = "unchanged";
    EXPECT_FALSE(message.GetString(TagMemData, text));
    EXPECT_FALSE(message.GetString(noWidth, text));
    EXPECT_FALSE(message.GetString(static_cast<TGevSvrTag>(TagLayout::kindString | TagLayout::width1), text));
    EXPECT_EQ(text, "unchanged");
}

TEST(TagMsg, GetBinaryLimited)
{
    Message message;
    const Bytes value = {1, 2, 3, 4, 5, 6, 7, 8};
    message.AddBinary(TagMemData, value.data(), value.size());
    Bytes out(8, 0);
    std::size_t length = 5;
    EXPECT_FALSE(message.GetBinaryLimited(TagMemData, out.data(), length, 8));
    EXPECT_EQ(length, 8u);
    EXPECT_EQ(out, Bytes(8, 0));
    EXPECT_TRUE(message.GetBinaryLimited(TagMemData, out.data(), length, 3));
    EXPECT_EQ(length, 8u);
    EXPECT_EQ(out, (Bytes{1, 2, 3, 0, 0, 0, 0, 0}));
    length = 100;
    EXPECT_TRUE(message.GetBinary(TagMemData, out.data(), length));
    EXPECT_EQ(length, 8u);
    EXPECT_EQ(out, value);
    EXPECT_FALSE(message.GetBinary(TagRegValue, out.data(), length));
    length = 9;
    message.AddBinary(TagRegValue, value.data(), 4);
    EXPECT_FALSE(message.GetBinary(TagRegValue, out.data(), length)) << "not of kind binary";
    EXPECT_EQ(length, 9u);
}

TEST(TagMsg, AppendTags)
{
    Message source;
    source.AddBinary(TagMemData, "abcdef", 6);
    const auto distance = static_cast<std::size_t>(source.EndTag() - source.FirstTag());
    Message message;
    message.AddBinary(TagSuccess, "\1", 1);
    EXPECT_FALSE(message.AppendTags(source.FirstTag(), distance - 1));
    EXPECT_EQ(message.Size(), 25u);
    ASSERT_TRUE(message.AppendTags(source.FirstTag(), distance));
    EXPECT_EQ(message.UsedLength(), 25u + distance);
    EXPECT_EQ(message.Size(), message.UsedLength());
    EXPECT_EQ(Message::ValueLength(message.FindTag(TagMemData)), 6u);

    Message full;
    full.AddBinary(TagMemData, Bytes(2000, 1).data(), 2000);
    const Bytes before = used(full);
    EXPECT_FALSE(full.AppendTags(source.FirstTag(), distance + 100));
    EXPECT_EQ(used(full), before);
}

TEST(TagMsg, WrappingKeepsWhatTheCallerSays)
{
    Wrapped storage;
    Message message(storage.bytes.data(), 2024, 99);
    EXPECT_EQ(message.Data(), storage.bytes.data());
    EXPECT_EQ(message.DataAlias(), message.Data());
    EXPECT_EQ(message.RawData(), message.Data());
    EXPECT_EQ(message.Capacity(), 2024u);
    EXPECT_EQ(message.UsedLength(), 99u);
    EXPECT_EQ(message.MessageId(), 0u);
    EXPECT_FALSE(message.Completed());
}

TEST(TagMsg, UnterminatedListEndsAtTheBufferAndTakesNothing)
{
    Wrapped storage;
    Message message(storage.bytes.data(), 2024, 2024);
    // One entry up to exactly the end of what can have been received: no terminator follows.
    const std::uint64_t length = 2020;
    std::memcpy(storage.bytes.data() + 4, &length, 8);
    const std::uint32_t tag = TagMemData;
    std::memcpy(storage.bytes.data() + 12, &tag, 4);
    ASSERT_NE(message.FindTag(TagMemData), nullptr);
    EXPECT_EQ(Message::ValueLength(message.FindTag(TagMemData)), 2008u);
    EXPECT_EQ(message.EndTag(), message.Data() + 2024);
    EXPECT_FALSE(message.AddBinary(TagSuccess, "\1", 1));
    EXPECT_EQ(message.UsedLength(), 2024u);
}

TEST(TagMsg, EntryThatLeadsOutsideIsAbsent)
{
    for (const std::uint64_t length : {std::uint64_t{2021}, std::uint64_t{0x7FFFFFFFFFFFFFFF}, ~std::uint64_t{0}}) {
        Wrapped storage;
        Message message(storage.bytes.data(), 2024, 2024);
        std::memcpy(storage.bytes.data() + 4, &length, 8);
        const std::uint32_t tag = TagMemData;
        std::memcpy(storage.bytes.data() + 12, &tag, 4);
        EXPECT_EQ(message.FindTag(TagMemData), nullptr);
        EXPECT_EQ(message.EndTag(), message.FirstTag());
        EXPECT_FALSE(message.AddBinary(TagSuccess, "\1", 1));
        message.ClearTags();
        EXPECT_TRUE(message.AddBinary(TagSuccess, "\1", 1)) << "a cleared message takes entries again";
    }
}

TEST(TagMsg, TruncationAtEveryByteStaysInside)
{
    Message whole;
    whole.SetCommand(2);
    const std::uint64_t address = 0x1000;
    whole.AddBinary(TagAddress, &address, 8);
    whole.AddBinary(TagMemData, Bytes(40, 9).data(), 40);
    whole.AddBinary(TagSuccess, "\1", 1);
    const Bytes bytes = used(whole);
    for (std::size_t cut = 4; cut <= bytes.size(); ++cut) {
        Wrapped storage;
        std::fill_n(storage.bytes.begin(), TagLayout::storage, 0xFF);
        std::copy_n(bytes.begin(), cut, storage.bytes.begin());
        Message message(storage.bytes.data(), cut, cut);
        std::uint64_t got = 0;
        EXPECT_EQ(message.GetScalar(TagAddress, got), cut >= 24) << cut;
        std::size_t room = 64;
        Bytes out(room);
        EXPECT_EQ(message.GetBinary(TagMemData, out.data(), room), cut >= 76) << cut;
        EXPECT_LE(message.EndTag(), message.Data() + cut);
        EXPECT_EQ(message.AddBinary(TagStatus, "\0\0\0\0", 4), cut == bytes.size()) << cut;
        EXPECT_TRUE(storage.guardIntact());
    }
}

TEST(TagMsg, RandomBytesNeverLeadOutside)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    for (int round = 0; round < 20000; ++round) {
        Wrapped storage;
        const std::size_t capacity = 12 + random() % 200;
        for (std::size_t i = 0; i < capacity; ++i)
            storage.bytes[i] = static_cast<std::uint8_t>(random() % (round % 2 == 0 ? 256 : 24));
        Message message(storage.bytes.data(), capacity, capacity);
        EXPECT_LE(message.EndTag(), message.Data() + capacity);
        for (const TGevSvrTag tag : {TagAddress, TagMemData, TagSuccess, static_cast<TGevSvrTag>(0)}) {
            std::string text;
            message.GetString(tag, text);
            Bytes out(capacity);
            std::size_t room = capacity;
            message.GetBinary(tag, out.data(), room);
        }
        message.AddBinary(TagMemData, Bytes(50, 1).data(), 50);
        EXPECT_TRUE(storage.guardIntact());
    }
}
