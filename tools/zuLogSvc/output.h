// Where lines go. One thread writes to an output; the command thread never does.
#pragma once

#include "tools/zuLogSvc/message.h"
#include "tools/zuLogSvc/settings.h"
#include "tools/zuLogSvc/timestamp.h"

#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

namespace zuLogSvc {

/// An output that can't be opened.
class OutputError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class Output {
public:
    virtual ~Output() = default;

    /// Adds the message's line. It may wait in memory until `flush`.
    virtual void write(const LogMessage& message, std::uint64_t arrival) = 0;

    /// Hands what waits to the system.
    virtual void flush() = 0;

    /// Takes over what waits in `old`, which goes away, if both write to the same place. `old` has been flushed, and
    /// may have renamed the file meanwhile.
    virtual void takeOver(Output& old) { static_cast<void>(old); }

    /// Forgets what still waits after a `flush`, or says what the last flush lost: the number of lines, which also
    /// count as lost. For the end.
    virtual std::uint64_t giveUp() = 0;

    /// What this output is, for words to people.
    virtual std::string name() const = 0;

    /// Lines given up since the last call, and trouble that people should know of (empty when there is none new).
    virtual std::uint64_t takeLost() = 0;
    virtual std::string takeTrouble() = 0;
};

/// Lines to a stream that is open already: standard output. What the stream refuses is lost.
class StreamOutput : public Output {
public:
    StreamOutput(std::FILE* stream, const LineOptions& options) : stream_(stream), options_(options) {}
    void write(const LogMessage& message, std::uint64_t arrival) override;
    void flush() override;
    std::uint64_t giveUp() override { return unexpected_; }
    std::string name() const override { return "standard output"; }
    std::uint64_t takeLost() override;
    std::string takeTrouble() override;

private:
    std::FILE* stream_;
    LineOptions options_;
    std::string waiting_;
    std::uint64_t waitingLines_ = 0;
    std::uint64_t lost_ = 0;
    std::uint64_t unexpected_ = 0; // lines that the last flush lost, unless the reader went away
    std::string trouble_;
    bool failing_ = false;
};

/// Lines to a file that is rotated: `path` becomes `path`.1, that `path`.2, and so on. A rotation falls between two
/// lines, and renames only, so whoever reads a file keeps all of it. A file is rotated before the line that would make
/// it larger than the size; and before the first line of a new period of the age, counted from midnight of local time
/// ("1d" rotates at midnight, "1h" at the full hour), which also holds for a file that an earlier run has left.
///
/// What the disk does not take (none free, say) waits in memory, at most `waitingLimit` bytes, so that a line that
/// was written in part is completed; further lines are lost, and counted.
class FileOutput : public Output {
public:
    static constexpr std::size_t waitingLimit = 8 * 1024 * 1024;

    /// As `std::fwrite`; what it does not take is tried again.
    using Write = std::size_t (*)(const void*, std::size_t, std::size_t, std::FILE*);

    /// Opens the file for appending, or throws OutputError. A line that an earlier run has left unfinished is ended.
    FileOutput(const OutputSettings& settings, const Clock& clock, Write writeBytes = std::fwrite);
    ~FileOutput() override;
    void write(const LogMessage& message, std::uint64_t arrival) override;
    void flush() override;
    void takeOver(Output& old) override;
    std::uint64_t giveUp() override;
    std::string name() const override { return settings_.path; }
    std::uint64_t takeLost() override;
    std::string takeTrouble() override;

private:
    void open();
    void rotateIfDue(std::size_t more);
    bool rotate();
    std::uint64_t period(std::uint64_t localMicroseconds) const;
    void complain(std::string words);

    OutputSettings settings_;
    const Clock& clock_;
    const Write write_;
    std::FILE* file_ = nullptr;
    std::uint64_t size_ = 0;   // of the file, with what waits
    std::uint64_t period_ = 0; // of the file's lines
    std::string waiting_;
    bool endLine_ = false; // before the first line: the file ends in one that an earlier run has left unfinished
    std::uint64_t lost_ = 0;
    std::string trouble_;
    std::string lastTrouble_; // told already
    bool retryRotation_ = true;
    std::uint64_t rotationTriedMs_ = 0;
};

/// The output for these settings. Throws OutputError.
std::unique_ptr<Output> makeOutput(const OutputSettings& settings, const Clock& clock);

} // namespace zuLogSvc
