// How the pipe's threads are waited for, whoever asks.
#pragma once

#include "GevTLBase/IPCPipe/PipeThread.h"

#include <memory>

#include <boost/thread/thread.hpp>

namespace zuIPCPipe {

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

/// The same for a thread that is used again.
inline void EndThread(std::unique_ptr<PipeThread> thread)
{
    if (thread && !thread->IsCurrent())
        thread->Join();
}

} // namespace zuIPCPipe
