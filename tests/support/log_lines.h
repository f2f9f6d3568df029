// Recorded log messages as comparable lines, and expectations beyond their words: level, logger, and the source
// location that warnings and errors carry.
#pragma once

#include "tests/support/recording_target.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace zuTest {

/// The records with exactly this text.
inline std::vector<Record> linesOf(const LogRecorder& log, const std::string& text)
{
    std::vector<Record> found = log.records();
    found.erase(std::remove_if(found.begin(), found.end(), [&](const Record& record) { return record.text != text; }),
                found.end());
    return found;
}

/// Expects `count` lines with exactly this text, all of this level, of this logger or one numbered below it.
inline void expectLines(const LogRecorder& log, const std::string& text, std::uint32_t level, const std::string& logger,
                        std::size_t count = 1)
{
    const std::vector<Record> found = linesOf(log, text);
    EXPECT_EQ(found.size(), count) << text;
    for (const Record& record : found) {
        EXPECT_EQ(record.level, level) << text;
        EXPECT_TRUE(record.logger == logger || record.logger.rfind(logger + ".", 0) == 0)
            << text << " by " << record.logger;
        const bool located = level == zuLogging::log_err || level == zuLogging::log_warn;
        EXPECT_EQ(record.location.empty(), !located) << text << " at " << record.location;
    }
}

/// "warn GVCP.# text": the number of a logger reads "#"; a group other than all stands in brackets behind the logger. A
/// message that lacks the source location it should carry, or has one it should not, says so.
inline std::string line(const Record& record)
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

inline std::vector<std::string> lines(const LogRecorder& recorder)
{
    std::vector<std::string> result;
    for (const Record& record : recorder.records())
        result.push_back(line(record));
    return result;
}

/// Those of one logger.
inline std::vector<std::string> lines(const LogRecorder& recorder, const std::string& logger)
{
    std::vector<std::string> result;
    for (const Record& record : recorder.records()) {
        if (record.logger == logger || record.logger.compare(0, logger.size() + 1, logger + '.') == 0)
            result.push_back(line(record));
    }
    return result;
}

} // namespace zuTest
