// The line of a message. Runs on the thread that logs.
#include "logging/formatter.h"

#include "logging/timestamp.h"
#include "platform/text.h"

#include <algorithm>
#include <streambuf>

namespace zuLogging {

namespace {

/// Collects a line; a string stream with less to set up.
template <typename Char>
class line_buffer : public std::basic_streambuf<Char> {
public:
    using traits = std::char_traits<Char>;

    std::basic_string<Char> text;

protected:
    std::streamsize xsputn(const Char* data, std::streamsize count) override
    {
        text.append(data, static_cast<std::size_t>(count));
        return count;
    }

    typename traits::int_type overflow(typename traits::int_type value) override
    {
        if (!traits::eq_int_type(value, traits::eof()))
            text += traits::to_char_type(value);
        return traits::not_eof(value);
    }
};

/// Appends each line of the text behind a blank.
template <typename Char>
void append_lines(std::basic_string<Char>& line, const Char* begin, const Char* end)
{
    while (begin < end) {
        const Char* const line_end = std::find(begin, end, Char('\n'));
        line += Char(' ');
        line.append(begin, line_end);
        begin = line_end == end ? end : line_end + 1;
    }
}

template <typename Char>
void write_line(detail::basic_textformatter<0>& formatter, const basic_msgstate& msg, const Char* begin,
                const Char* end)
{
    line_buffer<Char> line;
    std::basic_ostream<Char> out(&line);
    formatter.prefix(out, msg);
    append_lines(line.text, begin, end);
    formatter.inner->write(msg, line.text.data(), line.text.data() + line.text.size());
}

const char* level_word(std::uint32_t level)
{
    switch (level) {
    case log_fatal:
        return "fatal";
    case log_err:
        return "err";
    case log_warn:
        return "warn";
    case log_info:
        return "info";
    case log_trace:
        return "trace";
    case log_debug:
        return "debug";
    default:
        return "unknwn";
    }
}

/// The prefix, with room for `more` characters behind it.
std::string prefix_text(const basic_msgstate& msg, std::size_t more)
{
    constexpr std::size_t usual_prefix = 100;
    std::string text;
    text.reserve(usual_prefix + more);
    detail::append_timestamp(text, static_cast<const basic_timed_msgstate&>(msg).time);
    text += ' ';
    const std::size_t before = text.size();
    detail::append_path(*msg.log.node(), text);
    if (text.size() != before)
        text += ' ';
    text += '[';
    if (msg.group != all_groups) {
        const std::string group = group_name(msg.group.value());
        if (!group.empty()) {
            text += group;
            text += '|';
        }
    }
    text += level_word(msg.level);
    text += ']';
    return text;
}

} // namespace

namespace detail {

basic_textformatter<0>::~basic_textformatter() = default;

void basic_textformatter<0>::write(const basic_msgstate& msg, const wchar_t* begin, const wchar_t* end)
{
    write_line(*this, msg, begin, end);
}

void basic_textformatter<0>::write(const basic_msgstate& msg, const char* begin, const char* end)
{
    write_line(*this, msg, begin, end);
}

} // namespace detail

basic_dateformatter<0>::~basic_dateformatter() = default;

void basic_dateformatter<0>::write(const basic_msgstate& msg, const char* begin, const char* end)
{
    std::string line = prefix_text(msg, begin < end ? static_cast<std::size_t>(end - begin) : 0);
    append_lines(line, begin, end);
    inner->write(msg, line.data(), line.data() + line.size());
}

void basic_dateformatter<0>::prefix(std::basic_ostream<wchar_t>& out, const basic_msgstate& msg)
{
    const std::string narrow = prefix_text(msg, 0);
    const std::wstring text = zuPlatform::utf8ToWide(narrow.data(), narrow.data() + narrow.size());
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
}

void basic_dateformatter<0>::prefix(std::basic_ostream<char>& out, const basic_msgstate& msg)
{
    const std::string text = prefix_text(msg, 0);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
}

} // namespace zuLogging
