// Addresses as log lines print them.
#pragma once

#include <cstdint>
#include <sstream>
#include <string>

namespace zuTest {

/// As a stream prints a pointer: "0x7ffe...".
inline std::string pointerText(const void* pointer)
{
    std::ostringstream text;
    text << pointer;
    return text.str();
}

/// The same without "0x".
inline std::string hexDigits(const void* pointer)
{
    std::ostringstream text;
    text << std::hex << reinterpret_cast<std::uintptr_t>(pointer);
    return text.str();
}

} // namespace zuTest
