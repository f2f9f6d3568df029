// The viewer: attaches to the running service and shows its messages as they come.
#pragma once

#include "tools/zuLogSvc/connection_block.h"
#include "tools/zuLogSvc/follow_filter.h"
#include "tools/zuLogSvc/output.h"
#include "tools/zuLogSvc/timestamp.h"

#include <atomic>
#include <functional>
#include <string>

namespace zuLogSvc {

enum class FollowEnd { stopped, notRunning, refused, failed, readerGone };

struct FollowOptions {
    FollowFilter filter;
    bool wait = false; ///< wait for a service, if none runs
};

/// Shows messages until `stop` is set or nobody reads `output` any more. When the service ends it waits for the next
/// one. `tell` gets words about the connection itself. Runs on the calling thread.
FollowEnd follow(const FollowOptions& options, const std::atomic<bool>& stop, Output& output, const Clock& clock,
                 const std::function<void(const std::string&)>& tell);

} // namespace zuLogSvc
