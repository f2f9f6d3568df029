// Lines to standard output. The writing thread only.
#include "tools/zuLogSvc/output.h"

#include <cerrno>
#include <cstring>
#include <utility>

namespace zuLogSvc {

namespace {
constexpr std::size_t flushAt = 64 * 1024;
}

void StreamOutput::write(const LogMessage& message, std::uint64_t arrival)
{
    waiting_ += formatLine(message, arrival, options_);
    waiting_ += '\n';
    ++waitingLines_;
    if (waiting_.size() >= flushAt)
        flush();
}

void StreamOutput::flush()
{
    if (waiting_.empty())
        return;
    errno = 0;
    const bool good =
        std::fwrite(waiting_.data(), 1, waiting_.size(), stream_) == waiting_.size() && std::fflush(stream_) == 0;
    if (!good) {
        const int error = errno;
        std::clearerr(stream_);
        lost_ += waitingLines_;
        unexpected_ = error == EPIPE ? 0 : waitingLines_;
        if (!failing_)
            trouble_ = std::string("cannot write: ") + std::strerror(error);
    }
    if (good)
        unexpected_ = 0;
    failing_ = !good;
    waiting_.clear();
    waitingLines_ = 0;
}

std::uint64_t StreamOutput::takeLost() { return std::exchange(lost_, 0); }
std::string StreamOutput::takeTrouble() { return std::exchange(trouble_, {}); }

std::unique_ptr<Output> makeOutput(const OutputSettings& settings, const Clock& clock)
{
    if (settings.type == OutputSettings::Type::file)
        return std::make_unique<FileOutput>(settings, clock);
    return std::make_unique<StreamOutput>(stdout, settings.line);
}

} // namespace zuLogSvc
