// What the logging tests share: fresh processes, targets, the debugger channel's far end, and short ways to log.
#pragma once

#include "logging/logtarget.h"
#include "tests/support/files.h"
#include "tests/support/local_inbox.h"

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/mutex.hpp>
#include <gmock/gmock.h>

#include <functional>
#include <string>
#include <vector>

namespace zuTest {

/// Runs the statements in a process of their own, with a tree, a group table and a target list that nothing has
/// touched. The test's other statements run in neither. Expectations in it count.
#define ZU_IN_FRESH_PROCESS(...)                                                                                       \
    GTEST_FLAG_SET(death_test_style, "threadsafe");                                                                    \
    EXPECT_EXIT(::zuTest::runAndExit([&] { __VA_ARGS__ }), ::testing::ExitedWithCode(0), "")

[[noreturn]] void runAndExit(const std::function<void()>& body);

/// Collects lines; can be told to throw.
class CollectingTarget : public zuLogging::basic_logtarget {
public:
    void write(const zuLogging::basic_msgstate& msg, const wchar_t* begin, const wchar_t* end) override;
    void write(const zuLogging::basic_msgstate& msg, const char* begin, const char* end) override;

    std::vector<std::string> lines() const;

    std::vector<std::wstring> wide;
    std::vector<zuLogging::basic_timed_msgstate> states;
    std::function<void()> before; ///< called first; may throw

private:
    mutable boost::mutex mutex_;
    std::vector<std::string> lines_;
};

/// The list of targets is empty before and after.
class CleanTargets {
public:
    CleanTargets() { zuLogging::clear_targets(); }
    ~CleanTargets() { zuLogging::clear_targets(); }
};

/// A message state, stamped with 2026-Nov-12 10:58:49.123456 unless told otherwise.
zuLogging::basic_timed_msgstate message(const std::string& path, std::uint32_t level,
                                        zuLogging::group_id group = zuLogging::all_groups);
boost::posix_time::ptime moment(const std::string& text);

/// Passes `text` to a target.
void write(zuLogging::basic_logtarget& target, const zuLogging::basic_msgstate& msg, const std::string& text);
void write(zuLogging::basic_logtarget& target, const zuLogging::basic_msgstate& msg, const std::wstring& text);

/// Takes the place of the system log for the debugger channel.
class DebugListener {
public:
    DebugListener();
    ~DebugListener();

    /// The next record, without what the system log's clients put before the text; "<none>" after a long wait.
    std::string next();
    /// True if no record is waiting.
    bool quiet();

private:
    TemporaryFolder folder_;
    LocalInbox inbox_;
};

} // namespace zuTest
