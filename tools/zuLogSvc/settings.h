// The service's settings: what clients are told, where lines go, and the service's own limits.
#pragma once

#include "tools/zuLogSvc/json_positions.h"
#include "tools/zuLogSvc/line_format.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zuLogSvc {

/// What a client is told whose module and process name match. Values are the words that go into the reply.
struct Rule {
    std::string module = "*";
    std::string process = "*";
    std::string destination = "logsvc";
    std::string level = "info";
    std::optional<std::string> file;     ///< goes out with destination "file"
    std::optional<std::string> sockaddr; ///< this and thread_id go out with destination "logsvc"
    std::optional<std::string> threadId;
    friend bool operator==(const Rule&, const Rule&) = default;
};

struct OutputSettings {
    enum class Type { standardOutput, file };
    Type type = Type::standardOutput;
    LineOptions line;
    std::string path;
    std::uint64_t rotateSize = 0; ///< bytes; 0: not by size
    std::uint64_t rotateAge = 0;  ///< seconds; 0: not by age
    unsigned keep = 7;            ///< old files
    friend bool operator==(const OutputSettings&, const OutputSettings&) = default;
};

struct Settings {
    std::vector<Rule> rules;
    std::vector<OutputSettings> outputs = {OutputSettings{}};
    bool follow = true; ///< viewers may follow
    // Read at start only. Ports in host order; 0: the system chooses.
    std::uint16_t commandPort = 0;
    std::uint16_t messagePort = 0;
    std::uint64_t receiveBuffer = 8 * 1024 * 1024; ///< bytes asked of the system for the message port
    std::uint64_t queue = 32 * 1024 * 1024;        ///< bytes of messages that may wait for the outputs
};

/// Settings of a JSON text. `errors` gets everything wrong with it; the result is of use only when it stays empty.
Settings parseSettings(std::string_view text, std::vector<TextError>& errors);

/// The same of a file, which has at most 1 MiB.
Settings loadSettings(const std::string& path, std::vector<TextError>& errors);

/// "file:line:column: pointer: reason", with the parts that there are.
std::string describe(const std::string& file, const TextError& error);

/// The first rule that matches, or null: then everything goes to the log service at level info.
const Rule* findRule(const Settings& settings, std::string_view module, std::string_view process);

/// The reply for a client under this rule, JSON with string values; null as above.
std::string configurationReply(const Rule* rule);

} // namespace zuLogSvc
