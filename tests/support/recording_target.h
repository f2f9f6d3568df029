// A log target that keeps every message, for tests that compare words, levels, loggers and groups.
#pragma once

#include "logging/logstate.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zuTest {

struct Record {
    std::string logger; ///< the node's path, such as "GVCP.0"
    std::uint32_t level = 0;
    std::uint64_t group = 0;
    std::string location;
    std::string text;
};

/// For its life the only log target of the process, with the root at `levels`. Make it before any object that logs:
/// loggers take over the root's mask when they are made.
class LogRecorder {
public:
    explicit LogRecorder(std::uint32_t levels = 0xFF);
    ~LogRecorder();

    std::vector<Record> records() const;
    std::vector<std::string> texts() const;
    /// Texts of the loggers whose path is `logger`, or `logger` and a number ("GVCP" takes "GVCP.0").
    std::vector<std::string> texts(const std::string& logger) const;
    bool contains(const std::string& text) const; ///< a message with exactly this text
    std::size_t count(const std::string& text) const;
    void clear();

    /// Waits until `count` messages with exactly this text have come; false after `deadline`.
    bool waitFor(const std::string& text, std::size_t count = 1,
                 std::chrono::milliseconds deadline = std::chrono::seconds(20)) const;

    struct Target;

private:
    std::shared_ptr<Target> target_;
    std::uint32_t previousLevels_;
};

} // namespace zuTest
