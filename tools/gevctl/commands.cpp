// Errors, and what all commands share.
#include "tools/gevctl/commands.h"

#include "tools/gevctl/progress.h"

#include <algorithm>
#include <fstream>
#include <iterator>

namespace gevctl {

using zuGevClient::Connection;

namespace {

int complain(const Options& options, const Surroundings& around, int code, const char* kind, const std::string& text,
             const std::int32_t* status = nullptr)
{
    if (options.json) {
        Json error{{"kind", kind}, {"message", text}};
        if (status != nullptr)
            error["status"] = *status;
        around.err << Json{{"error", error}}.dump() << std::endl;
    } else {
        around.err << "gevctl: " << text << std::endl;
    }
    return code;
}

} // namespace

int run(const Options& options, const Surroundings& around)
{
    try {
        options.command(options, around);
        around.out.flush();
        if (!around.out)
            return complain(options, around, exitFailure, "output", "The output could not be written");
        return exitSuccess;
    } catch (const zuGevClient::NoDaemonError& error) {
        return complain(options, around, exitNoDaemon, "daemon", error.what());
    } catch (const zuGevClient::CameraError& error) {
        const std::int32_t status = error.status();
        return complain(options, around, exitCamera, "camera", error.what(), &status);
    } catch (const zuGevFeatures::FeatureError& error) {
        return complain(options, around, exitFeature, "feature", error.what());
    } catch (const Interrupted& error) {
        return complain(options, around, exitFailure, "interrupted", error.what());
    } catch (const std::exception& error) {
        return complain(options, around, exitFailure, "failure", error.what());
    }
}

Connection connect(const Options& options)
{
    Connection connection;
    if (options.local)
        connection.bind(*options.local);
    if (options.ackTimeoutMs)
        connection.setAckTimeout(zuGevClient::Milliseconds(*options.ackTimeoutMs));
    if (options.retries)
        connection.setRetries(*options.retries);
    connection.setDestination(options.camera.value());
    if (options.access)
        connection.link(*options.access);
    return connection;
}

std::vector<std::uint8_t> fetch(Connection& connection, std::uint32_t address, std::size_t size,
                                const std::string& label, const Options& options, const Surroundings& around)
{
    std::vector<std::uint8_t> bytes(size);
    Progress progress(around.err, label, size, around.errorIsTerminal && !options.quiet);
    for (std::size_t done = 0; done < size;) {
        if (around.stop)
            throw Interrupted();
        // Pieces end at word addresses, so that no word is read twice.
        const std::size_t piece = std::min(pieceSize - (address + done) % 4, size - done);
        connection.readMemory(static_cast<std::uint32_t>(address + done), bytes.data() + done, piece);
        done += piece;
        progress.update(done);
    }
    return bytes;
}

void store(const std::string& file, const std::vector<std::uint8_t>& bytes, const Surroundings& around)
{
    const auto* const data = reinterpret_cast<const char*>(bytes.data());
    if (file.empty() || file == "-") {
        around.out.write(data, static_cast<std::streamsize>(bytes.size()));
        return;
    }
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(data, static_cast<std::streamsize>(bytes.size()));
    out.close();
    if (!out)
        throw std::runtime_error("The file '" + file + "' could not be written");
}

std::vector<std::uint8_t> load(const std::string& file, const Surroundings& around)
{
    std::ifstream named;
    if (file != "-") {
        named.open(file, std::ios::binary);
        if (!named)
            throw std::runtime_error("The file '" + file + "' could not be opened");
    }
    std::istream& in = file == "-" ? around.in : named;
    std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    if (in.bad())
        throw std::runtime_error("The file '" + file + "' could not be read");
    return bytes;
}

void print(const Surroundings& around, const Json& json)
{
    around.out << json.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

void printTable(const Surroundings& around, const Json& object)
{
    std::size_t width = 0;
    for (const auto& [name, value] : object.items())
        width = std::max(width, name.size());
    for (const auto& [name, value] : object.items())
        around.out << name << ':' << std::string(width + 1 - name.size(), ' ')
                   << (value.is_string() ? value.get<std::string>() : value.dump()) << '\n';
}

std::string privilegeText(std::uint32_t privilege)
{
    constexpr std::uint32_t exclusive = 1;
    constexpr std::uint32_t control = 2;
    constexpr std::uint32_t switchover = 4;
    if ((privilege & exclusive) != 0)
        return "held exclusively";
    if ((privilege & control) != 0)
        return (privilege & switchover) != 0 ? "controlled, switchover allowed" : "controlled";
    return "free";
}

} // namespace gevctl
