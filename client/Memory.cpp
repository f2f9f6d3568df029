// Memory of any length at any address, in whole words.
#include "client/Memory.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>

namespace zuGevClient {

namespace {

constexpr std::uint64_t addressSpace = std::uint64_t{1} << 32;
constexpr std::size_t word = 4;

void requireRange(std::uint32_t address, std::size_t size)
{
    if (size > addressSpace - address)
        throw std::invalid_argument("The memory range leaves the camera's 32-bit address space");
}

} // namespace

void readMemory(WordAccess& access, std::uint32_t address, void* destination, std::size_t size)
{
    requireRange(address, size);
    auto* to = static_cast<std::uint8_t*>(destination);
    std::array<std::uint8_t, memoryChunk> buffer;
    std::uint64_t at = address;
    const std::uint64_t end = at + size;
    while (at < end) {
        const std::size_t lead = at % word;
        const std::uint64_t start = at - lead;
        const std::uint64_t roundedEnd = (end + word - 1) / word * word;
        const auto words = static_cast<std::size_t>(std::min<std::uint64_t>(roundedEnd - start, memoryChunk));
        access.readWords(static_cast<std::uint32_t>(start), buffer.data(), words);
        const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(words - lead, end - at));
        std::memcpy(to, buffer.data() + lead, count);
        to += count;
        at += count;
    }
}

void writeMemory(WordAccess& access, std::uint32_t address, const void* source, std::size_t size)
{
    requireRange(address, size);
    const auto* from = static_cast<const std::uint8_t*>(source);
    std::uint64_t at = address;
    std::size_t left = size;
    while (left > 0) {
        const std::size_t offset = at % word;
        std::size_t count;
        if (offset != 0 || left < word) {
            count = std::min(word - offset, left);
            access.patchWord(static_cast<std::uint32_t>(at - offset), offset, from, count);
        } else {
            count = std::min(left / word * word, memoryChunk);
            access.writeWords(static_cast<std::uint32_t>(at), from, count);
        }
        from += count;
        at += count;
        left -= count;
    }
}

} // namespace zuGevClient
