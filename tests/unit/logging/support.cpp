#include "tests/unit/logging/support.h"

#include "platform/debug_channel.h"

#include <cstdlib>

namespace zuTest {

using namespace zuLogging;

void runAndExit(const std::function<void()>& body)
{
    body();
    std::exit(::testing::Test::HasFailure() ? 1 : 0);
}

void CollectingTarget::write(const basic_msgstate& msg, const wchar_t* begin, const wchar_t* end)
{
    const boost::lock_guard<boost::mutex> lock(mutex_);
    if (before)
        before();
    wide.emplace_back(begin, end);
    states.push_back(static_cast<const basic_timed_msgstate&>(msg));
}

void CollectingTarget::write(const basic_msgstate& msg, const char* begin, const char* end)
{
    const boost::lock_guard<boost::mutex> lock(mutex_);
    if (before)
        before();
    lines_.emplace_back(begin, end);
    states.push_back(static_cast<const basic_timed_msgstate&>(msg));
}

std::vector<std::string> CollectingTarget::lines() const
{
    const boost::lock_guard<boost::mutex> lock(mutex_);
    return lines_;
}

boost::posix_time::ptime moment(const std::string& text) { return boost::posix_time::time_from_string(text); }

basic_timed_msgstate message(const std::string& path, std::uint32_t level, group_id group)
{
    basic_timed_msgstate state(basic_msgstate(get_logstate(path)), moment("2026-Nov-12 10:58:49.123456"));
    state.level = level;
    state.group = group;
    return state;
}

void write(basic_logtarget& target, const basic_msgstate& msg, const std::string& text)
{
    target.write(msg, text.data(), text.data() + text.size());
}

void write(basic_logtarget& target, const basic_msgstate& msg, const std::wstring& text)
{
    target.write(msg, text.data(), text.data() + text.size());
}

DebugListener::DebugListener() : inbox_(folder_ / "log") { zuPlatform::setDebugChannelForTesting(folder_ / "log"); }

DebugListener::~DebugListener() { zuPlatform::setDebugChannelForTesting("/dev/null/none"); }

std::string DebugListener::next()
{
    const std::string record = inbox_.receive(20000).value_or("<none>");
    const std::size_t head = record.find("]: ");
    return head == std::string::npos ? record : record.substr(head + 3);
}

bool DebugListener::quiet() { return !inbox_.receive(0); }

} // namespace zuTest
