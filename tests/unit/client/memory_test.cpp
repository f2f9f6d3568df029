// Cutting of memory accesses, against a memory that takes whole words only.
#include "client/Memory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;
using testing::ElementsAre;
using testing::IsEmpty;

/// Remembers every access as text and fails those that a camera would not take.
class WordMemory : public zuGevClient::WordAccess {
public:
    explicit WordMemory(std::uint32_t base, std::size_t size) : base_(base), bytes(size)
    {
        std::iota(bytes.begin(), bytes.end(), std::uint8_t{1});
    }

    void readWords(std::uint32_t address, std::uint8_t* destination, std::size_t size) override
    {
        note("read", address, size);
        std::copy_n(at(address, size), size, destination);
    }
    void writeWords(std::uint32_t address, const std::uint8_t* source, std::size_t size) override
    {
        note("write", address, size);
        std::copy_n(source, size, at(address, size));
    }
    void patchWord(std::uint32_t address, std::size_t offset, const std::uint8_t* source, std::size_t size) override
    {
        note("patch+" + std::to_string(offset) + "/" + std::to_string(size), address, 4);
        if (offset + size > 4)
            throw std::logic_error("patch leaves its word");
        std::copy_n(source, size, at(address, 4) + offset);
    }

    std::uint32_t base_;
    Bytes bytes;
    std::vector<std::string> accesses;

private:
    void note(const std::string& what, std::uint32_t address, std::size_t size)
    {
        if (address % 4 != 0 || size % 4 != 0 || size == 0 || size > zuGevClient::memoryChunk)
            throw std::logic_error("not in whole words: " + what);
        accesses.push_back(what + " " + std::to_string(address - base_) + " " + std::to_string(size));
    }
    std::uint8_t* at(std::uint32_t address, std::size_t size)
    {
        if (address < base_ || address - base_ + size > bytes.size())
            throw std::logic_error("outside the memory");
        return bytes.data() + (address - base_);
    }
};

constexpr std::uint32_t base = 0x10000;

TEST(MemoryCutTest, chunkFitsRequestAndFailureReply)
{
    // Command word, address, length, data and their heads, status, success, terminator.
    constexpr std::size_t reply = 4 + 20 + 20 + 12 + zuGevClient::memoryChunk + 16 + 13 + 8;
    static_assert(reply <= 2024 && zuGevClient::memoryChunk % 4 == 0);
    static_assert(4 + 20 + 20 + 12 + zuGevClient::memoryChunk + 8 <= 2024);
}

TEST(MemoryCutTest, nothingIsNoAccess)
{
    WordMemory memory(base, 64);
    zuGevClient::readMemory(memory, base + 1, nullptr, 0);
    zuGevClient::writeMemory(memory, base + 1, nullptr, 0);
    EXPECT_THAT(memory.accesses, IsEmpty());
}

TEST(MemoryCutTest, alignedReadIsOneCommandPerChunk)
{
    WordMemory memory(base, 4096);
    Bytes read(1664 + 8);
    zuGevClient::readMemory(memory, base, read.data(), read.size());
    EXPECT_THAT(memory.accesses, ElementsAre("read 0 1664", "read 1664 8"));
    EXPECT_TRUE(std::equal(read.begin(), read.end(), memory.bytes.begin()));
}

TEST(MemoryCutTest, unalignedReadTakesTheWordsAround)
{
    WordMemory memory(base, 64);
    Bytes read(5);
    zuGevClient::readMemory(memory, base + 3, read.data(), read.size());
    EXPECT_THAT(memory.accesses, ElementsAre("read 0 8"));
    EXPECT_EQ(read, Bytes(memory.bytes.begin() + 3, memory.bytes.begin() + 8));
}

TEST(MemoryCutTest, alignedWriteNeedsNoPatch)
{
    WordMemory memory(base, 4096);
    const Bytes data(1664 + 4, 0xEE);
    zuGevClient::writeMemory(memory, base + 4, data.data(), data.size());
    EXPECT_THAT(memory.accesses, ElementsAre("write 4 1664", "write 1668 4"));
}

TEST(MemoryCutTest, writeWithinOneWord)
{
    WordMemory memory(base, 64);
    const Bytes data{0xAA, 0xBB};
    zuGevClient::writeMemory(memory, base + 5, data.data(), data.size());
    EXPECT_THAT(memory.accesses, ElementsAre("patch+1/2 4 4"));
}

TEST(MemoryCutTest, writeWithHeadBodyAndTail)
{
    WordMemory memory(base, 64);
    const Bytes data(3 + 8 + 2, 0xCC);
    zuGevClient::writeMemory(memory, base + 1, data.data(), data.size());
    EXPECT_THAT(memory.accesses, ElementsAre("patch+1/3 0 4", "write 4 8", "patch+0/2 12 4"));
}

TEST(MemoryCutTest, lastBytesOfTheAddressSpace)
{
    WordMemory memory(0xFFFFFFF0, 16);
    Bytes read(7);
    zuGevClient::readMemory(memory, 0xFFFFFFF9, read.data(), read.size());
    EXPECT_EQ(read, Bytes(memory.bytes.begin() + 9, memory.bytes.end()));
    zuGevClient::writeMemory(memory, 0xFFFFFFFF, read.data(), 1);
    EXPECT_EQ(memory.bytes[15], read[0]);
    memory.accesses.clear();
    EXPECT_THROW(zuGevClient::readMemory(memory, 0xFFFFFFF9, read.data(), 8), std::invalid_argument);
    EXPECT_THROW(zuGevClient::writeMemory(memory, 0xFFFFFFFF, read.data(), 2), std::invalid_argument);
    EXPECT_THAT(memory.accesses, IsEmpty());
}

TEST(MemoryCutTest, everySmallRangeIsExact)
{
    for (std::uint32_t start = 0; start < 8; ++start)
        for (std::size_t size = 0; size < 24; ++size) {
            WordMemory memory(base, 40);
            const Bytes before = memory.bytes;
            Bytes read(size);
            zuGevClient::readMemory(memory, base + start, read.data(), size);
            ASSERT_EQ(read, Bytes(before.begin() + start, before.begin() + start + static_cast<std::ptrdiff_t>(size)));
            const Bytes data(size, 0xD7);
            zuGevClient::writeMemory(memory, base + start, data.data(), size);
            Bytes expected = before;
            std::fill_n(expected.begin() + start, size, std::uint8_t{0xD7});
            ASSERT_EQ(memory.bytes, expected) << "start " << start << " size " << size;
        }
}

TEST(MemoryCutTest, randomRangesAreExact)
{
    const char* const given = std::getenv("ZU_TEST_SEED");
    const unsigned seed = given != nullptr ? static_cast<unsigned>(std::atol(given)) : std::random_device{}();
    SCOPED_TRACE("ZU_TEST_SEED=" + std::to_string(seed));
    std::mt19937 random(seed);
    WordMemory memory(base, 16384);
    Bytes expected = memory.bytes;
    for (int i = 0; i < 300; ++i) {
        const std::size_t start = random() % expected.size();
        const std::size_t size = random() % (expected.size() - start + 1);
        Bytes data(size);
        std::generate(data.begin(), data.end(), [&] { return static_cast<std::uint8_t>(random()); });
        zuGevClient::writeMemory(memory, base + static_cast<std::uint32_t>(start), data.data(), size);
        std::copy(data.begin(), data.end(), expected.begin() + static_cast<std::ptrdiff_t>(start));
        ASSERT_EQ(memory.bytes, expected);
        Bytes read(size);
        zuGevClient::readMemory(memory, base + static_cast<std::uint32_t>(start), read.data(), size);
        ASSERT_EQ(read, data);
    }
}

} // namespace
