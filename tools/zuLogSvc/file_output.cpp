// Lines to a rotated file. The writing thread only.
#include "tools/zuLogSvc/output.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <utility>

namespace zuLogSvc {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t flushAt = 64 * 1024;
constexpr std::uint64_t rotationRetryMs = 10'000;

fs::path numbered(const std::string& path, unsigned number) { return path + "." + std::to_string(number); }

bool endsInMidLine(const std::string& path)
{
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    if (!file || file.tellg() <= 0)
        return false;
    file.seekg(-1, std::ios::end);
    return file.get() != '\n';
}

} // namespace

FileOutput::FileOutput(const OutputSettings& settings, const Clock& clock, Write writeBytes)
    : settings_(settings), clock_(clock), write_(writeBytes)
{
    settings_.line.colour = false;
    open();
    if (file_ == nullptr)
        throw OutputError(settings_.path + ": " + std::exchange(trouble_, {}));
}

FileOutput::~FileOutput()
{
    flush();
    if (file_ != nullptr)
        std::fclose(file_);
}

void FileOutput::open()
{
    std::error_code error;
    const std::uint64_t now = clock_.localMicroseconds();
    period_ = period(now);
    size_ = waiting_.size();
    if (const auto size = fs::file_size(settings_.path, error); !error && size > 0) {
        size_ += size;
        // The lines in it are of the period in which it was last written.
        const auto age = fs::file_time_type::clock::now() - fs::last_write_time(settings_.path, error);
        const auto microseconds = std::chrono::duration_cast<std::chrono::microseconds>(age).count();
        if (!error && microseconds > 0)
            period_ = period(now - std::min(now, static_cast<std::uint64_t>(microseconds)));
    }
    errno = 0;
    file_ = std::fopen(settings_.path.c_str(), "ab");
    if (file_ == nullptr) {
        complain(std::string("cannot be opened: ") + std::strerror(errno));
        return;
    }
    // Unbuffered: the count that a write returns is then what the system has really taken.
    std::setvbuf(file_, nullptr, _IONBF, 0);
    endLine_ = waiting_.empty() && endsInMidLine(settings_.path);
}

void FileOutput::write(const LogMessage& message, std::uint64_t arrival)
{
    std::string line = formatLine(message, arrival, settings_.line);
    line += '\n';
    if (std::exchange(endLine_, false)) {
        waiting_ += '\n';
        ++size_;
    }
    rotateIfDue(line.size());
    if (waiting_.size() + line.size() > waitingLimit) {
        ++lost_;
        return;
    }
    waiting_ += line;
    size_ += line.size();
    if (waiting_.size() >= flushAt)
        flush();
}

void FileOutput::flush()
{
    if (waiting_.empty())
        return;
    if (file_ == nullptr) {
        open();
        if (file_ == nullptr)
            return;
    }
    errno = 0;
    const std::size_t written = write_(waiting_.data(), 1, waiting_.size(), file_);
    if (written == waiting_.size()) {
        waiting_.clear();
        lastTrouble_.clear();
        return;
    }
    // The rest goes first once the disk takes it, so that the line that was cut here is completed.
    const int error = errno;
    std::clearerr(file_);
    waiting_.erase(0, written);
    complain(std::string("cannot write: ") + std::strerror(error));
}

void FileOutput::takeOver(Output& old)
{
    auto* file = dynamic_cast<FileOutput*>(&old);
    if (file == nullptr || file->settings_.path != settings_.path)
        return;
    // A line that the old one has begun must be completed and not ended.
    waiting_ = std::exchange(file->waiting_, {});
    lost_ += file->takeLost();
    // By its name, as a rotation since this one was opened has renamed the file.
    if (file_ != nullptr)
        std::fclose(std::exchange(file_, nullptr));
    open();
}

std::uint64_t FileOutput::giveUp()
{
    const auto lines = static_cast<std::uint64_t>(std::count(waiting_.begin(), waiting_.end(), '\n')) -
                       (waiting_.starts_with('\n') ? 1 : 0);
    waiting_.clear();
    lost_ += lines;
    return lines;
}

void FileOutput::rotateIfDue(std::size_t more)
{
    if (size_ == 0) {
        period_ = period(clock_.localMicroseconds());
        return;
    }
    const bool bySize = settings_.rotateSize != 0 && size_ + more > settings_.rotateSize;
    const bool byAge = settings_.rotateAge != 0 && period(clock_.localMicroseconds()) != period_;
    if (!bySize && !byAge)
        return;
    const std::uint64_t now = clock_.steadyMilliseconds();
    if (!retryRotation_ && now - rotationTriedMs_ < rotationRetryMs)
        return;
    rotationTriedMs_ = now;
    retryRotation_ = rotate();
}

bool FileOutput::rotate()
{
    flush();
    if (!waiting_.empty())
        return false; // the rest of a line belongs into this file
    std::error_code error;
    if (!fs::is_regular_file(settings_.path, error)) {
        if (fs::exists(settings_.path, error))
            return false; // a device or pipe
    } else {
        // The oldest go, the others move up, and the present file last; a failure leaves all lines where they are.
        for (unsigned number = settings_.keep; fs::exists(numbered(settings_.path, number), error); ++number)
            if (!fs::remove(numbered(settings_.path, number), error)) {
                complain("cannot be rotated: " + error.message());
                return false;
            }
        for (unsigned number = settings_.keep; number-- > 0;) {
            const fs::path from = number == 0 ? fs::path(settings_.path) : numbered(settings_.path, number);
            if (!fs::exists(from, error))
                continue;
            if (number == 0 && file_ != nullptr)
                std::fclose(std::exchange(file_, nullptr));
            fs::rename(from, numbered(settings_.path, number + 1), error);
            if (error) {
                complain("cannot be rotated: " + error.message());
                break;
            }
        }
    }
    const bool rotated = !error;
    if (file_ != nullptr && rotated)
        std::fclose(std::exchange(file_, nullptr)); // the name is gone: someone else has moved the file
    if (file_ == nullptr)
        open();
    return rotated;
}

std::uint64_t FileOutput::period(std::uint64_t localMicroseconds) const
{
    return settings_.rotateAge == 0 ? 0 : localMicroseconds / 1'000'000 / settings_.rotateAge;
}

void FileOutput::complain(std::string words)
{
    if (words != lastTrouble_)
        trouble_ = words;
    lastTrouble_ = std::move(words);
}

std::uint64_t FileOutput::takeLost() { return std::exchange(lost_, 0); }
std::string FileOutput::takeTrouble() { return std::exchange(trouble_, {}); }

} // namespace zuLogSvc
