// Where finished messages go: a process-wide list of pairs of a filter and a target.
#pragma once

#include "logging/logstream.h"

#include <memory>

namespace zuLogging {

/// Takes messages, on all logging threads at once. `msg` is always a `basic_timed_msgstate`.
class basic_logtarget {
public:
    virtual void write(const basic_msgstate& msg, const wchar_t* begin, const wchar_t* end) = 0;
    virtual void write(const basic_msgstate& msg, const char* begin, const char* end) = 0;
    virtual ~basic_logtarget();
};

class basic_logtargetfilter {
public:
    virtual bool accept(const basic_msgstate& msg) = 0;
    virtual ~basic_logtargetfilter();
};

class basic_logtargetfilter_all : public basic_logtargetfilter {
public:
    bool accept(const basic_msgstate& msg) override;
};

/// Hands a message to each target whose filter accepts it, in order of adding. What one throws leaves the loop.
void dispatch(const basic_msgstate& msg, const char* begin, const char* end);

/// Appends `target` behind a new formatter that makes one line of each message.
void add_formatted_target(std::shared_ptr<basic_logtarget> target);

/// Appends `target` as it is.
void add_plain_target(std::shared_ptr<basic_logtarget> target);

/// Empties the list, for the end of the process. Takes no lock that a target is called under, so it never waits for
/// one; a message that is on its way keeps the targets until it is through.
void clear_targets();

} // namespace zuLogging
