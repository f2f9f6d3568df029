// Events of one connection on their way from the pipe's thread, which only drops them here, to the user's handler,
// which runs on a thread of the queue's own. That thread exists from the first handler on.
#pragma once

#include "client/GevClient.h"

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

namespace zuGevClient {

class EventQueue : public std::enable_shared_from_this<EventQueue> {
public:
    /// Any thread; never waits for a handler. Dropped if there is no handler.
    void push(Event event);

    /// What waits in the queue goes to the new handler.
    void setHandler(EventHandler handler);

    /// Ends the thread after the handler that runs now, and waits for it unless called by that handler. Repeatable.
    void stop();

private:
    void run();

    std::mutex mutex_; ///< guards all members; held across no handler
    std::condition_variable wake_;
    std::deque<Event> events_;
    std::shared_ptr<EventHandler> handler_;
    std::thread thread_;
    bool stopping_ = false;
};

} // namespace zuGevClient
