// A camera that is nothing but 64 KiB of memory, and descriptions for it.
#pragma once

#include "features/Features.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace zuTest {

/// The camera refuses this address.
struct Refused : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class MemoryPort : public zuGevFeatures::Port {
public:
    static constexpr std::size_t size = 65536;

    std::uint32_t readRegister(std::uint32_t address) override
    {
        note("read register", address, 4);
        return word(address);
    }
    void writeRegister(std::uint32_t address, std::uint32_t value) override
    {
        note("write register", address, 4);
        if (onWrite)
            value = onWrite(address, value);
        setWord(address, value);
    }
    void readMemory(std::uint32_t address, void* destination, std::size_t count) override
    {
        note("read memory", address, count);
        std::memcpy(destination, bytes_.data() + address, count);
    }
    void writeMemory(std::uint32_t address, const void* source, std::size_t count) override
    {
        note("write memory", address, count);
        std::memcpy(bytes_.data() + address, source, count);
    }
    bool isRefusal(std::exception_ptr cause) override
    {
        try {
            std::rethrow_exception(cause);
        } catch (const Refused&) {
            return true;
        } catch (...) {
            return false;
        }
    }

    std::uint32_t word(std::uint32_t address) const
    {
        std::uint32_t value = 0;
        for (int i = 0; i < 4; ++i)
            value = value << 8 | bytes_.at(address + static_cast<std::uint32_t>(i));
        return value;
    }
    void setWord(std::uint32_t address, std::uint32_t value)
    {
        for (int i = 0; i < 4; ++i)
            bytes_.at(address + static_cast<std::uint32_t>(i)) = static_cast<std::uint8_t>(value >> (24 - 8 * i));
    }
    void setFloat(std::uint32_t address, float value)
    {
        std::uint32_t bits = 0;
        std::memcpy(&bits, &value, sizeof bits);
        setWord(address, bits);
    }
    void setBytes(std::uint32_t address, const std::string& text)
    {
        std::copy(text.begin(), text.end(), bytes_.begin() + address);
    }

    std::vector<std::string> log;                                       ///< every access, until the test clears it
    std::function<void(std::uint32_t)> onAccess;                        ///< may throw
    std::function<std::uint32_t(std::uint32_t, std::uint32_t)> onWrite; ///< what becomes of a register's new value

private:
    void note(const std::string& what, std::uint32_t address, std::size_t count)
    {
        log.push_back(what + " " + std::to_string(address) + (count == 4 ? "" : " " + std::to_string(count)));
        if (onAccess)
            onAccess(address);
        if (address > size || count > size - address)
            throw Refused("no such address");
    }

    std::vector<std::uint8_t> bytes_ = std::vector<std::uint8_t>(size);
};

/// A description of these nodes, with a category Root that lists `features`, by blanks.
inline std::string describe(const std::string& features, const std::string& nodes)
{
    std::string listed;
    for (std::size_t at = 0; at < features.size();) {
        const std::size_t end = std::min(features.find(' ', at), features.size());
        listed += "<pFeature>" + features.substr(at, end - at) + "</pFeature>";
        at = end + 1;
    }
    return "<?xml version=\"1.0\"?>\n"
           "<RegisterDescription ModelName=\"Box\" VendorName=\"Tester\" StandardNameSpace=\"GEV\" "
           "SchemaMajorVersion=\"1\" SchemaMinorVersion=\"1\" SchemaSubMinorVersion=\"0\" MajorVersion=\"1\" "
           "MinorVersion=\"0\" SubMinorVersion=\"0\" xmlns=\"http://www.genicam.org/GenApi/Version_1_1\">\n"
           "<Category Name=\"Root\">" +
           listed + "</Category>\n" + nodes + "\n<Port Name=\"Device\"/></RegisterDescription>\n";
}

/// Four bytes at an address, as a number of the kind that `tag` and `more` make of it.
inline std::string reg(const std::string& name, std::uint32_t address, const std::string& access = "RW",
                       const std::string& tag = "IntReg", const std::string& more = "<Sign>Unsigned</Sign>",
                       unsigned length = 4)
{
    return "<" + tag + " Name=\"" + name + "\"><Address>" + std::to_string(address) + "</Address><Length>" +
           std::to_string(length) + "</Length><AccessMode>" + access + "</AccessMode><pPort>Device</pPort>" + more +
           "<Endianess>BigEndian</Endianess></" + tag + ">\n";
}

inline std::string integer(const std::string& name, const std::string& inside)
{
    return "<Integer Name=\"" + name + "\">" + inside + "</Integer>\n";
}

} // namespace zuTest
