// Targets that write lines. On the thread that logs; a target's mutex comes after the list mutex.
#include "logging/targets.h"

#include "platform/debug_channel.h"
#include "platform/text.h"

#include <iostream>
#include <stdexcept>

#include <boost/thread/lock_guard.hpp>

namespace zuLogging {

namespace {

template <typename Stream>
struct streams_of;

template <>
struct streams_of<std_out> {
    static std::ostream& get(char) { return std::cout; }
    static std::wostream& get(wchar_t) { return std::wcout; }
};

template <>
struct streams_of<std_err> {
    static std::ostream& get(char) { return std::cerr; }
    static std::wostream& get(wchar_t) { return std::wcerr; }
};

template <typename Stream, typename Mutex>
Mutex& stream_mutex()
{
    static auto* const mutex = new Mutex;
    return *mutex;
}

template <typename Stream, typename Mutex, typename Char>
void write_to_stream(const Char* begin, const Char* end)
{
    const boost::lock_guard<Mutex> lock(stream_mutex<Stream, Mutex>());
    auto& out = streams_of<Stream>::get(Char());
    out.write(begin, end - begin);
    out << std::endl;
}

} // namespace

template <typename Stream, typename Mutex>
basic_stdout_target<Stream, Mutex>::~basic_stdout_target() = default;

template <typename Stream, typename Mutex>
void basic_stdout_target<Stream, Mutex>::write(const basic_msgstate&, const wchar_t* begin, const wchar_t* end)
{
    write_to_stream<Stream, Mutex>(begin, end);
}

template <typename Stream, typename Mutex>
void basic_stdout_target<Stream, Mutex>::write(const basic_msgstate&, const char* begin, const char* end)
{
    write_to_stream<Stream, Mutex>(begin, end);
}

basic_trace_target::~basic_trace_target() = default;

void basic_trace_target::write(const basic_msgstate&, const wchar_t* begin, const wchar_t* end)
{
    zuPlatform::debugOutput(std::wstring(begin, end).c_str());
    zuPlatform::debugOutput(L"\n");
}

void basic_trace_target::write(const basic_msgstate&, const char* begin, const char* end)
{
    zuPlatform::debugOutput(std::string(begin, end).c_str());
    zuPlatform::debugOutput("\n");
}

template <typename Mutex>
basic_file_target<Mutex>::~basic_file_target() = default;

template <typename Mutex>
void basic_file_target<Mutex>::write(const basic_msgstate& msg, const wchar_t* begin, const wchar_t* end)
{
    if (begin >= end)
        return;
    const std::string text = zuPlatform::wideToUtf8(begin, end);
    basic_file_target::write(msg, text.data(), text.data() + text.size());
}

template <typename Mutex>
void basic_file_target<Mutex>::write(const basic_msgstate&, const char* begin, const char* end)
{
    if (begin >= end)
        return;
    // A file buffer collects short writes and passes long ones on at once. A long line goes in as one, so that a
    // process that appends to the same file never comes between the text and its line end.
    constexpr std::ptrdiff_t collected = 512;
    const boost::lock_guard<Mutex> lock(file_->mutex);
    if (file_->flush_only) {
        file_->write(begin, end - begin);
        *file_ << std::flush;
    } else if (end - begin <= collected) {
        file_->write(begin, end - begin);
        *file_ << std::endl;
    } else {
        std::string line(begin, end);
        line += '\n';
        file_->write(line.data(), static_cast<std::streamsize>(line.size()));
        *file_ << std::flush;
    }
}

template class basic_stdout_target<std_out, boost::mutex>;
template class basic_stdout_target<std_err, boost::mutex>;
template class basic_file_target<boost::mutex>;

std::shared_ptr<basic_file_target<boost::mutex>::file> make_file(const std::string& path)
{
    zuPlatform::utf8ToWide(path.data(), path.data() + path.size()); // throws unless it is UTF-8
    auto opened = std::make_shared<basic_file_target<boost::mutex>::file>(
        std::filesystem::path(std::u8string(path.begin(), path.end())));
    if (opened->fail())
        throw std::runtime_error("Error opening file: " + path);
    return opened;
}

} // namespace zuLogging
