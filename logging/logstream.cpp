// Streams and message state. A stream belongs to the thread that logs.
#include "logging/logstream.h"

#include "logging/logtarget.h"
#include "logging/timestamp.h"

#include <string_view>
#include <typeinfo>

namespace zuLogging {

basic_msgstate::~basic_msgstate() = default;
basic_timed_msgstate::~basic_timed_msgstate() = default;

basic_logbuf<char>::basic_logbuf(logstate node)
    : std::basic_stringbuf<char>(std::ios_base::out | std::ios_base::app), state(std::move(node))
{
}

basic_logbuf<char>::~basic_logbuf()
{
    try {
        basic_logbuf::sync();
    } catch (...) {
        // Logging never fails the caller.
    }
}

int basic_logbuf<char>::sync()
{
    const std::string_view text = view();
    const bool enabled = state.log.is_enabled(state.level, state.group);
    if (!text.empty()) {
        if (enabled) {
            const basic_timed_msgstate stamped(state, detail::local_now());
            dispatch(stamped, text.data(), text.data() + text.size());
        }
        str(std::string());
    }
    state.level = 0;
    state.group = all_groups;
    state.location.clear();
    state.records.clear();
    return 0;
}

basic_logstream<char>::basic_logstream(const logstate& node)
    : std::basic_ostream<char>(nullptr), buffer_(new basic_logbuf<char>(node))
{
    rdbuf(buffer_);
}

basic_logstream<char>::basic_logstream(const std::string& path) : basic_logstream(get_logstate(path)) {}

basic_logstream<char>::~basic_logstream() { delete buffer_; }

namespace {

basic_msgstate* state_of(std::basic_ostream<char>& stream)
{
    std::streambuf* const buffer = stream.rdbuf();
    // Nearly always it is the class itself, which is told faster than by a cast.
    if (buffer != nullptr && typeid(*buffer) == typeid(basic_logbuf<char>))
        return &static_cast<basic_logbuf<char>*>(buffer)->state;
    auto* const derived = dynamic_cast<basic_logbuf<char>*>(buffer);
    return derived != nullptr ? &derived->state : nullptr;
}

std::basic_ostream<char>& at_level(std::basic_ostream<char>& stream, std::uint32_t level)
{
    set_level(stream, level);
    return stream;
}

} // namespace

std::uint32_t set_level(std::basic_ostream<char>& stream, std::uint32_t level)
{
    basic_msgstate* const state = state_of(stream);
    return state != nullptr ? std::exchange(state->level, level) : 0;
}

std::basic_ostream<char>& fatal(std::basic_ostream<char>& stream) { return at_level(stream, log_fatal); }
std::basic_ostream<char>& error(std::basic_ostream<char>& stream) { return at_level(stream, log_err); }
std::basic_ostream<char>& warning(std::basic_ostream<char>& stream) { return at_level(stream, log_warn); }
std::basic_ostream<char>& info(std::basic_ostream<char>& stream) { return at_level(stream, log_info); }
std::basic_ostream<char>& trace(std::basic_ostream<char>& stream) { return at_level(stream, log_trace); }
std::basic_ostream<char>& debug(std::basic_ostream<char>& stream) { return at_level(stream, log_debug); }

std::basic_ostream<char>& operator<<(std::basic_ostream<char>& stream, group_id group)
{
    if (basic_msgstate* const state = state_of(stream))
        state->group = group;
    return stream;
}

std::basic_ostream<char>& operator<<(std::basic_ostream<char>& stream, const location& where)
{
    if (basic_msgstate* const state = state_of(stream))
        state->location = where.text;
    return stream;
}

} // namespace zuLogging
