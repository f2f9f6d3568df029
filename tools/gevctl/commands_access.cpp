// Commands that read and write: registers, memory, the description.
#include "client/Bootstrap.h"
#include "genicam/DescriptionFile.h"
#include "tools/gevctl/commands.h"
#include "tools/gevctl/numbers.h"
#include "tools/gevctl/progress.h"

#include <algorithm>

namespace gevctl {

using zuGevClient::Connection;

namespace {

constexpr std::size_t largestDescription = 64u << 20;

Json registerJson(std::uint32_t address, std::uint32_t value)
{
    return Json{{"address", hex32(address)}, {"value", value}, {"hex", hex32(value)}};
}

} // namespace

void runReadRegisters(const Options& options, const Surroundings& around)
{
    Connection connection = connect(options);
    Json registers = Json::array();
    for (const std::uint32_t address : options.addresses) {
        if (around.stop)
            throw Interrupted();
        const std::uint32_t value = connection.readRegister(address);
        if (options.json)
            registers.push_back(registerJson(address, value));
        else
            around.out << hex32(address) << ": " << hex32(value) << ' ' << value << '\n';
    }
    if (options.json)
        print(around, Json{{"registers", std::move(registers)}});
}

void runWriteRegisters(const Options& options, const Surroundings& around)
{
    Connection connection = connect(options);
    Json registers = Json::array();
    for (const auto& [address, value] : options.writes) {
        if (around.stop)
            throw Interrupted();
        connection.writeRegister(address, value);
        if (options.json)
            registers.push_back(registerJson(address, value));
        else
            around.out << hex32(address) << ": " << hex32(value) << " written\n";
    }
    if (options.access->isPrivileged())
        connection.unlink();
    if (options.json)
        print(around, Json{{"written", std::move(registers)}});
}

void runReadMemory(const Options& options, const Surroundings& around)
{
    Connection connection = connect(options);
    const auto size = static_cast<std::size_t>(options.size);
    const auto bytes = fetch(connection, options.address, size, "Reading", options, around);
    if (!options.file.empty()) {
        store(options.file, bytes, around);
        if (options.file == "-")
            return;
        if (options.json)
            print(around, Json{{"address", hex32(options.address)}, {"size", size}, {"file", options.file}});
        else if (!options.quiet)
            around.out << size << " bytes written to " << options.file << '\n';
    } else if (options.json) {
        constexpr char digits[] = "0123456789abcdef";
        std::string data;
        for (const std::uint8_t byte : bytes) {
            data += digits[byte >> 4];
            data += digits[byte & 15];
        }
        print(around, Json{{"address", hex32(options.address)}, {"size", size}, {"data", data}});
    } else {
        around.out << hexDump(options.address, bytes);
    }
}

void runWriteMemory(const Options& options, const Surroundings& around)
{
    const std::vector<std::uint8_t> bytes = options.file.empty() ? options.data : load(options.file, around);
    if (bytes.size() > (std::uint64_t{1} << 32) - options.address)
        throw std::runtime_error("The data reaches beyond the camera's 32-bit addresses");
    Connection connection = connect(options);
    {
        Progress progress(around.err, "Writing", bytes.size(), around.errorIsTerminal && !options.quiet);
        for (std::size_t done = 0; done < bytes.size();) {
            if (around.stop)
                throw Interrupted();
            const std::size_t piece = std::min(pieceSize - (options.address + done) % 4, bytes.size() - done);
            connection.writeMemory(static_cast<std::uint32_t>(options.address + done), bytes.data() + done, piece);
            done += piece;
            progress.update(done);
        }
    }
    if (options.verify && fetch(connection, options.address, bytes.size(), "Verifying", options, around) != bytes)
        throw zuGevClient::CameraError("The camera's memory does not read back as it was written",
                                       zuGevClient::Status::generalFailure);
    if (options.access->isPrivileged())
        connection.unlink();
    const Json result{{"address", hex32(options.address)}, {"size", bytes.size()}, {"verified", options.verify}};
    if (options.json)
        print(around, result);
    else if (!options.quiet)
        around.out << bytes.size() << " bytes written at " << hex32(options.address)
                   << (options.verify ? ", verified" : "") << '\n';
}

void runXml(const Options& options, const Surroundings& around)
{
    Connection connection = connect(options);
    zuGenICam::Location location = zuGenICam::locate(
        [&](std::uint32_t address, void* to, std::size_t size) { connection.readMemory(address, to, size); });
    location.url =
        zuGevClient::cleanText(reinterpret_cast<const std::uint8_t*>(location.url.data()), location.url.size());
    if (options.urlOnly) {
        if (options.json)
            print(around, Json{{"url", location.url}});
        else
            around.out << location.url << '\n';
        return;
    }
    const zuGenICam::LocalUrl& url = zuGenICam::requireLocal(location, largestDescription);
    std::vector<std::uint8_t> bytes = fetch(connection, url.address, url.size, url.fileName, options, around);
    if (!options.raw && zuGenICam::isZip(bytes))
        bytes = zuGenICam::unzip(bytes, largestDescription);
    store(options.file, bytes, around);
    if (options.file.empty() || options.file == "-")
        return;
    if (options.json)
        print(around, Json{{"url", location.url}, {"size", bytes.size()}, {"file", options.file}});
    else if (!options.quiet)
        around.out << bytes.size() << " bytes written to " << options.file << '\n';
}

} // namespace gevctl
