// The stream by which a message enters the logging system, and what a message knows about itself. A stream belongs to
// one thread.
#pragma once

#include "logging/logstate.h"

#include <array>
#include <ostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <boost/date_time/posix_time/posix_time_types.hpp>

namespace zuLogging {

/// Opaque record that travels with a message to the log service.
using log_record = std::array<unsigned char, 264>;

class basic_msgstate {
public:
    explicit basic_msgstate(logstate node) : log(std::move(node)) {}
    basic_msgstate(const basic_msgstate&) = default;
    basic_msgstate& operator=(const basic_msgstate&) = default;
    virtual ~basic_msgstate();

    logstate log;
    std::uint32_t level = 0; ///< one bit; 0 means none yet, and is never enabled
    group_id group = all_groups;
    std::string location; ///< source file, "(", line, ")"
    std::vector<log_record> records;
};

class basic_timed_msgstate : public basic_msgstate {
public:
    basic_timed_msgstate(const basic_msgstate& state, boost::posix_time::ptime stamp)
        : basic_msgstate(state), time(stamp)
    {
    }
    ~basic_timed_msgstate() override;

    boost::posix_time::ptime time; ///< local time of dispatch, in microseconds
};

template <typename Char>
class basic_logbuf;

/// Collects the text; `sync` is the single place where a message leaves.
template <>
class basic_logbuf<char> : public std::basic_stringbuf<char> {
public:
    explicit basic_logbuf(logstate node);
    ~basic_logbuf() override; ///< sends what is left; nothing leaves it

    basic_msgstate state;

protected:
    int sync() override;
};

template <typename Char>
class basic_logstream;

template <>
class basic_logstream<char> : public std::basic_ostream<char> {
public:
    explicit basic_logstream(const logstate& node);
    /// Walks the tree; for where no handle is kept.
    explicit basic_logstream(const std::string& path);
    ~basic_logstream() override;
    basic_logstream(const basic_logstream&) = delete;
    basic_logstream& operator=(const basic_logstream&) = delete;

private:
    basic_logbuf<char>* buffer_; ///< owned
};

/// Where a message comes from; a type of its own so that a plain string stays text.
struct location {
    explicit location(std::string where) : text(std::move(where)) {}
    std::string text;
};

/// Each of these changes the state of the message in the stream's buffer, and does nothing to any other stream.
std::uint32_t set_level(std::basic_ostream<char>& stream, std::uint32_t level);
std::basic_ostream<char>& fatal(std::basic_ostream<char>& stream);
std::basic_ostream<char>& error(std::basic_ostream<char>& stream);
std::basic_ostream<char>& warning(std::basic_ostream<char>& stream);
std::basic_ostream<char>& info(std::basic_ostream<char>& stream);
std::basic_ostream<char>& trace(std::basic_ostream<char>& stream);
std::basic_ostream<char>& debug(std::basic_ostream<char>& stream);
std::basic_ostream<char>& operator<<(std::basic_ostream<char>& stream, group_id group);
std::basic_ostream<char>& operator<<(std::basic_ostream<char>& stream, const location& where);

} // namespace zuLogging
