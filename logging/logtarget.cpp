// The process-wide list of targets. The list mutex comes before the mutex of a target.
#include "logging/logtarget.h"

#include "logging/formatter.h"

#include <utility>
#include <vector>

#include <boost/thread/lock_guard.hpp>
#include <boost/thread/lock_types.hpp>
#include <boost/thread/mutex.hpp>
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

using entries = std::vector<entry>;

/// A vector in use is never changed, only replaced, so that emptying the list needs no list mutex and is still sound
/// if a thread is logging.
class target_list {
public:
    std::shared_ptr<const entries> get() const
    {
        const boost::lock_guard<boost::mutex> lock(leaf_);
        return entries_;
    }

    void set(std::shared_ptr<const entries> replacement)
    {
        const boost::lock_guard<boost::mutex> lock(leaf_);
        entries_.swap(replacement);
    }

    boost::shared_mutex mutex; ///< the list mutex: shared in `dispatch`, exclusive for adding

private:
    mutable boost::mutex leaf_; ///< guards the pointer alone
    std::shared_ptr<const entries> entries_;
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
    const std::shared_ptr<const entries> current = list.get();
    if (!current)
        return;
    for (const entry& each : *current)
        if (each.filter->accept(msg))
            each.target->write(msg, begin, end);
}

void add_plain_target(std::shared_ptr<basic_logtarget> target)
{
    entry added{std::make_shared<basic_logtargetfilter_all>(), std::move(target)};
    target_list& list = targets();
    const boost::unique_lock<boost::shared_mutex> lock(list.mutex);
    const std::shared_ptr<const entries> current = list.get();
    auto grown = current ? std::make_shared<entries>(*current) : std::make_shared<entries>();
    grown->push_back(std::move(added));
    list.set(std::move(grown));
}

void add_formatted_target(std::shared_ptr<basic_logtarget> target)
{
    add_plain_target(std::make_shared<basic_dateformatter<0>>(std::move(target)));
}

void clear_targets() { targets().set(nullptr); }

} // namespace zuLogging
