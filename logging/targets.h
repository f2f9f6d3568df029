// Targets that write lines: the standard streams, the debugger channel and a file. They stand behind a formatter, and
// each adds the line end. Any thread.
#pragma once

#include "logging/logtarget.h"

#include <filesystem>
#include <fstream>

#include <boost/thread/mutex.hpp>

namespace zuLogging {

struct std_out;
struct std_err;

/// One of the standard streams. The mutex is one for each stream, so that objects on one stream exclude each other.
template <typename Stream, typename Mutex>
class basic_stdout_target : public basic_logtarget {
public:
    ~basic_stdout_target() override;
    void write(const basic_msgstate& msg, const wchar_t* begin, const wchar_t* end) override;
    void write(const basic_msgstate& msg, const char* begin, const char* end) override;
};

/// The debugger channel. No lock: the text and its line end are two calls.
class basic_trace_target : public basic_logtarget {
public:
    ~basic_trace_target() override;
    void write(const basic_msgstate& msg, const wchar_t* begin, const wchar_t* end) override;
    void write(const basic_msgstate& msg, const char* begin, const char* end) override;
};

/// A file, as UTF-8. Each line is with the operating system when `write` returns.
template <typename Mutex>
class basic_file_target : public basic_logtarget {
public:
    /// Appends to the file; closed when the last reference goes.
    struct file : std::ofstream {
        explicit file(const std::filesystem::path& path) : std::ofstream(path, std::ios_base::out | std::ios_base::app)
        {
        }
        bool flush_only = false; ///< flush after a text, with no line end
        Mutex mutex;             ///< around a text and its line end
    };

    explicit basic_file_target(std::shared_ptr<file> target) : file_(std::move(target)) {}
    ~basic_file_target() override;

    /// Throws `base2::character_conversion_error`.
    void write(const basic_msgstate& msg, const wchar_t* begin, const wchar_t* end) override;
    void write(const basic_msgstate& msg, const char* begin, const char* end) override;

private:
    std::shared_ptr<file> file_;
};

extern template class basic_stdout_target<std_out, boost::mutex>;
extern template class basic_stdout_target<std_err, boost::mutex>;
extern template class basic_file_target<boost::mutex>;

/// Opens the file at `path`, which is UTF-8, for appending, and makes it if it is missing. Other processes can read and
/// write it meanwhile. Throws `std::runtime_error`, and `base2::character_conversion_error` if the path is not UTF-8.
std::shared_ptr<basic_file_target<boost::mutex>::file> make_file(const std::string& path);

} // namespace zuLogging
