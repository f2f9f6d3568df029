// Log messages as one comparable line each.
#pragma once

#include "logging/logstate.h"
#include "tests/support/recording_target.h"

#include <string>
#include <vector>

namespace gevTest {

/// "warn GVCP.# text": the number of a logger reads "#"; a group other than all stands in brackets behind the logger. A
/// message that lacks the source location it should carry, or has one it should not, says so.
inline std::string line(const zuTest::Record& record)
{
    std::string level;
    switch (record.level) {
    case zuLogging::log_err:
        level = "err";
        break;
    case zuLogging::log_warn:
        level = "warn";
        break;
    case zuLogging::log_info:
        level = "info";
        break;
    case zuLogging::log_trace:
        level = "trace";
        break;
    default:
        level = std::to_string(record.level);
        break;
    }
    std::string logger = record.logger;
    const std::size_t number = logger.find_first_of("0123456789");
    if (number != std::string::npos && number > 0 && logger[number - 1] == '.')
        logger = logger.substr(0, number) + "#";
    std::string text = level + ' ' + logger + ' ';
    if (record.group != zuLogging::all_groups.value())
        text += '[' + zuLogging::group_name(record.group) + "] ";
    if ((level == "err" || level == "warn") == record.location.empty())
        text += "(location is wrong) ";
    return text + record.text;
}

inline std::vector<std::string> lines(const zuTest::LogRecorder& recorder)
{
    std::vector<std::string> result;
    for (const zuTest::Record& record : recorder.records())
        result.push_back(line(record));
    return result;
}

/// Those of one logger.
inline std::vector<std::string> lines(const zuTest::LogRecorder& recorder, const std::string& logger)
{
    std::vector<std::string> result;
    for (const zuTest::Record& record : recorder.records()) {
        if (record.logger == logger || record.logger.compare(0, logger.size() + 1, logger + '.') == 0)
            result.push_back(line(record));
    }
    return result;
}

} // namespace gevTest
