// Hands events to the user's handler, one at a time, on the queue's own thread.
#include "client/EventQueue.h"

#include "platform/thread.h"

namespace zuGevClient {

void EventQueue::push(Event event)
{
    // Notified under the lock: the handler may drop the last share of this queue.
    const std::lock_guard<std::mutex> guard(mutex_);
    if (stopping_ || !handler_ || (!events_.empty() && events_.back() == event))
        return;
    events_.push_back(event);
    wake_.notify_one();
}

void EventQueue::setHandler(EventHandler handler)
{
    const std::lock_guard<std::mutex> guard(mutex_);
    if (!handler) {
        handler_.reset();
        events_.clear();
        return;
    }
    handler_ = std::make_shared<EventHandler>(std::move(handler));
    // The thread holds a share, so that a handler may drop the connection that owns this queue.
    if (!thread_.joinable() && !stopping_)
        thread_ = std::thread([self = shared_from_this()] { self->run(); });
}

void EventQueue::stop()
{
    std::thread thread;
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        stopping_ = true;
        thread.swap(thread_);
        wake_.notify_one();
    }
    if (!thread.joinable())
        return;
    if (thread.get_id() == std::this_thread::get_id())
        thread.detach();
    else
        thread.join();
}

void EventQueue::run()
{
    zuPlatform::nameCurrentThread("zu-event");
    std::unique_lock<std::mutex> guard(mutex_);
    for (;;) {
        wake_.wait(guard, [&] { return stopping_ || !events_.empty(); });
        if (stopping_)
            return;
        const Event event = events_.front();
        events_.pop_front();
        auto handler = handler_; // keeps it alive while it replaces itself
        guard.unlock();
        if (handler) {
            try {
                (*handler)(event);
            } catch (...) {
                // There is nobody to tell; the next event is worth another call.
            }
            handler.reset();
        }
        guard.lock();
    }
}

} // namespace zuGevClient
