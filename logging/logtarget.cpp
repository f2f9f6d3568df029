// The process-wide list of targets. The list mutex comes before the mutex of a target.
#include "logging/logtarget.h"

#include <utility>
#include <vector>

#include <boost/thread/lock_types.hpp>
#include <boost/thread/shared_mutex.hpp>

namespace zuLogging {

basic_logtarget::~basic_logtarget() = default;
basic_logtargetfilter::~basic_logtargetfilter() = default;

bool basic_logtargetfilter_all::accept(const basic_msgstate&) { return true; }

namespace {

struct entry {
    std::shared_ptr<basic_logtargetfilter> filter;
    std::shared_ptr<basic_logtarget> target;
};

struct target_list {
    std::vector<entry> entries;
    boost::shared_mutex mutex;
};

target_list& targets()
{
    static auto* const list = new target_list;
    return *list;
}

} // namespace

void dispatch(const basic_msgstate& msg, const char* begin, const char* end)
{
    target_list& list = targets();
    const boost::shared_lock<boost::shared_mutex> lock(list.mutex);
    for (const entry& each : list.entries)
        if (each.filter->accept(msg))
            each.target->write(msg, begin, end);
}

void add_plain_target(std::shared_ptr<basic_logtarget> target)
{
    entry added{std::make_shared<basic_logtargetfilter_all>(), std::move(target)};
    target_list& list = targets();
    const boost::unique_lock<boost::shared_mutex> lock(list.mutex);
    list.entries.push_back(std::move(added));
}

void clear_targets() { targets().entries.clear(); }

} // namespace zuLogging
