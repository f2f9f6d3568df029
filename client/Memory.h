// Cuts an access of any length and address into accesses of whole words at word addresses, since that is all that
// reaches a camera unharmed. Blocks as the functions that it is given do.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zuGevClient {

/// Most bytes of one command. Request and failure reply hold the tags of both, so up to 1931 would fit; the daemon cuts
/// at 576 bytes and each of these at 512, and three blocks of 576, 576 and 512 bytes make the fewest camera commands
/// for each byte near that limit.
inline constexpr std::size_t memoryChunk = 1664;

/// What a cut access runs on. Addresses and sizes are multiples of 4, sizes at most memoryChunk.
class WordAccess {
public:
    virtual ~WordAccess() = default;
    virtual void readWords(std::uint32_t address, std::uint8_t* destination, std::size_t size) = 0;
    virtual void writeWords(std::uint32_t address, const std::uint8_t* source, std::size_t size) = 0;
    /// Puts `size` bytes at `offset` into the word, nobody else's command in between.
    virtual void patchWord(std::uint32_t address, std::size_t offset, const std::uint8_t* source, std::size_t size) = 0;
};

/// Both throw std::invalid_argument if the range leaves the 32-bit address space.
void readMemory(WordAccess& access, std::uint32_t address, void* destination, std::size_t size);
void writeMemory(WordAccess& access, std::uint32_t address, const void* source, std::size_t size);

} // namespace zuGevClient
