// Expectations on recorded log lines beyond their words: level, logger, and the source location that warnings and
// errors carry.
#pragma once

#include "tests/support/recording_target.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

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

} // namespace zuTest
