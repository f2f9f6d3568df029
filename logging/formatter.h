// Targets that make one line of a message and pass it on to another target. No lock: the line is built in a local
// stream, on the thread that logs.
#pragma once

#include "logging/logtarget.h"

namespace zuLogging {

namespace detail {

template <int>
class basic_textformatter;

/// Writes a prefix and then each line of the text behind a blank, so that the message becomes one line. The line has no
/// line end.
template <>
class basic_textformatter<0> : public basic_logtarget {
public:
    explicit basic_textformatter(std::shared_ptr<basic_logtarget> target) : inner(std::move(target)) {}

    void write(const basic_msgstate& msg, const wchar_t* begin, const wchar_t* end) override;
    void write(const basic_msgstate& msg, const char* begin, const char* end) override;
    ~basic_textformatter() override;
    virtual void prefix(std::basic_ostream<wchar_t>& out, const basic_msgstate& msg) = 0;
    virtual void prefix(std::basic_ostream<char>& out, const basic_msgstate& msg) = 0;

    std::shared_ptr<basic_logtarget> inner;
};

} // namespace detail

template <int>
class basic_dateformatter;

/// "time path [group|level]"; path and group with what separates them are left out where there is none. Throws
/// `std::invalid_argument` for a group id that is not registered. Final, because narrow lines, which are all that
/// streams send, are built without a stream: its set-up costs more than the rest of the line.
template <>
class basic_dateformatter<0> final : public detail::basic_textformatter<0> {
public:
    using basic_textformatter::basic_textformatter;
    ~basic_dateformatter() override;
    using basic_textformatter::write;
    void write(const basic_msgstate& msg, const char* begin, const char* end) override;
    void prefix(std::basic_ostream<wchar_t>& out, const basic_msgstate& msg) override;
    void prefix(std::basic_ostream<char>& out, const basic_msgstate& msg) override;
};

} // namespace zuLogging
