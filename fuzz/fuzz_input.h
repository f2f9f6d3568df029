// A fuzz input read from its front, for targets that take it apart into steps and datagrams. Past its end it reads as
// zeros.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace zuFuzz {

using Bytes = std::vector<std::uint8_t>;

/// What must hold for every input.
inline void check(bool holds)
{
    if (!holds)
        std::abort();
}

class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : next_(data), left_(size) {}

    bool empty() const { return left_ == 0; }
    std::uint8_t byte()
    {
        if (left_ == 0)
            return 0;
        --left_;
        return *next_++;
    }
    /// Big-endian.
    std::uint16_t word()
    {
        const unsigned high = byte();
        return static_cast<std::uint16_t>(high << 8 | byte());
    }
    /// A word with the length, up to 2303, a byte with the number of bytes that follow, and these. Those that the
    /// length asks for beyond them are all the same.
    Bytes datagram()
    {
        const std::size_t length = word() % 2304u;
        const std::size_t given = std::min<std::size_t>(byte(), left_);
        Bytes data(length, 0xC3);
        std::copy_n(next_, std::min(given, length), data.begin());
        next_ += given;
        left_ -= given;
        return data;
    }

private:
    const std::uint8_t* next_;
    std::size_t left_;
};

} // namespace zuFuzz
