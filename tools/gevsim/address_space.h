// The camera's registers and memory: regions of big-endian words with write protection for each word. Not locked: the
// camera's lock guards it.
#pragma once

#include "tools/gevsim/wire.h"

#include <cstdint>
#include <string>
#include <vector>

namespace gevsim {

struct Config;

class AddressSpace {
public:
    explicit AddressSpace(const Config& config);

    /// Back to the state after power-up. What a camera keeps without power stays: its name, and how it gets its
    /// address.
    void reset();
    /// The address under which the camera can be reached now.
    void setAddress(std::uint32_t ip, std::uint32_t mask, std::uint32_t gateway);
    float getFloat(std::uint32_t address) const;
    void setFloat(std::uint32_t address, float value);

    /// Success, or invalidAddress if a byte of the range lies outside the regions.
    Status checkRead(std::uint32_t address, std::size_t size) const
    {
        return find(address, size) ? Status::success : Status::invalidAddress;
    }
    /// Success, invalidAddress, or writeProtect if a word of the range is read only.
    Status checkWrite(std::uint32_t address, std::size_t size) const;

    /// The bytes of a range that lies in one region; null if it doesn't.
    const std::uint8_t* data(std::uint32_t address, std::size_t size) const;
    std::uint8_t* data(std::uint32_t address, std::size_t size);

    /// One register, without looking at protection. The address must be a multiple of 4 inside a region; otherwise
    /// std::out_of_range.
    std::uint32_t get(std::uint32_t address) const;
    void set(std::uint32_t address, std::uint32_t value);

private:
    struct Region {
        std::uint32_t base = 0;
        std::vector<std::uint8_t> bytes;
        std::vector<bool> writable; ///< by word; empty: `allWritable` tells
        bool allWritable = false;
    };

    const Region* find(std::uint32_t address, std::size_t size) const;
    void setText(std::uint32_t address, std::size_t size, const std::string& text);
    void allowWrite(std::uint32_t begin, std::uint32_t end);
    void fillBootstrap(const Config& config);
    void fillFeatures(const Config& config);

    Region registers_, memory_, xml_;
    std::vector<std::uint8_t> initialRegisters_;
};

} // namespace gevsim
