#include "tests/support/recording_target.h"

#include "logging/logtarget.h"

#include <algorithm>
#include <cctype>
#include <condition_variable>
#include <mutex>

namespace zuTest {

using namespace zuLogging;

struct LogRecorder::Target : basic_logtarget {
    void write(const basic_msgstate&, const wchar_t*, const wchar_t*) override {}
    void write(const basic_msgstate& msg, const char* begin, const char* end) override
    {
        {
            const std::lock_guard lock(mutex);
            records.push_back({msg.log.path(), msg.level, msg.group.value(), msg.location, std::string(begin, end)});
        }
        changed.notify_all();
    }

    std::size_t count(const std::string& text) const
    {
        return static_cast<std::size_t>(
            std::count_if(records.begin(), records.end(), [&](const Record& record) { return record.text == text; }));
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Record> records;
};

LogRecorder::LogRecorder(std::uint32_t levels)
    : target_(std::make_shared<Target>()), previousLevels_(root_logstate("").set_levels(levels))
{
    clear_targets();
    add_plain_target(target_);
}

LogRecorder::~LogRecorder()
{
    root_logstate("").set_levels(previousLevels_);
    clear_targets();
}

std::vector<Record> LogRecorder::records() const
{
    const std::lock_guard lock(target_->mutex);
    return target_->records;
}

std::vector<std::string> LogRecorder::texts() const
{
    std::vector<std::string> result;
    for (const Record& record : records())
        result.push_back(record.text);
    return result;
}

std::vector<std::string> LogRecorder::texts(const std::string& logger) const
{
    const auto belongs = [&](const std::string& path) {
        if (path.compare(0, logger.size(), logger) != 0)
            return false;
        const std::string rest = path.substr(logger.size());
        return rest.empty() ||
               (rest.size() > 1 && rest[0] == '.' &&
                std::all_of(rest.begin() + 1, rest.end(), [](unsigned char c) { return std::isdigit(c); }));
    };
    std::vector<std::string> result;
    for (const Record& record : records())
        if (belongs(record.logger))
            result.push_back(record.text);
    return result;
}

bool LogRecorder::contains(const std::string& text) const { return count(text) != 0; }

std::size_t LogRecorder::count(const std::string& text) const
{
    const std::lock_guard lock(target_->mutex);
    return target_->count(text);
}

void LogRecorder::clear()
{
    const std::lock_guard lock(target_->mutex);
    target_->records.clear();
}

bool LogRecorder::waitFor(const std::string& text, std::size_t count, std::chrono::milliseconds deadline) const
{
    std::unique_lock lock(target_->mutex);
    return target_->changed.wait_for(lock, deadline, [&] { return target_->count(text) >= count; });
}

} // namespace zuTest
