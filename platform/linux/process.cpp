// The own process: id, path, priority class, limits. Any thread may call.
#include "platform/process.h"

#include "platform/linux/priority.h"

#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <climits>

namespace zuPlatform {

std::uint32_t currentProcessId() { return static_cast<std::uint32_t>(::getpid()); }

std::string executablePath()
{
    std::array<char, PATH_MAX + 1> path{};
    const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size());
    if (length <= 0 || static_cast<std::size_t>(length) >= path.size())
        return {};
    return {path.data(), static_cast<std::size_t>(length)};
}

bool setRealtimePriorityClass()
{
    if (::setpriority(PRIO_PROCESS, 0, realtimeClassNice) != 0)
        return false;
    classNice.store(realtimeClassNice);
    return true;
}

void raiseDescriptorLimit()
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max)
        return;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

// Text is written as UTF-8, whatever the locale.
std::uint32_t narrowCodePage() { return 65001; }

} // namespace zuPlatform
