// How the pipe's threads are waited for, whoever asks.
#pragma once

#include <memory>

#include <boost/thread/thread.hpp>

namespace zuIPCPipe {

/// True on every thread that the pipe has started for a dispatcher or an instance.
inline thread_local bool onPipeThread = false;

/// Joins the thread; a thread that is asked to end itself is detached. Null is nothing to do. Not interrupted: a handle
/// dropped half-way would end the process.
inline void EndThread(std::unique_ptr<boost::thread> thread)
{
    if (!thread)
        return;
    if (thread->get_id() == boost::this_thread::get_id()) {
        thread->detach();
        return;
    }
    const boost::this_thread::disable_interruption noInterruption;
    thread->join();
}

} // namespace zuIPCPipe
