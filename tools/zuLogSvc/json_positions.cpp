// Follows the JSON library's parser through the text and notes lines.
#include "tools/zuLogSvc/json_positions.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <iterator>

namespace zuLogSvc {
namespace {

constexpr std::size_t maxDepth = 32;

/// An input iterator that leaves behind how far the parser has read.
class TrackingIterator {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    TrackingIterator(const char* at, const char** furthest) : at_(at), furthest_(furthest) {}
    reference operator*() const { return *at_; }
    TrackingIterator& operator++()
    {
        ++at_;
        if (furthest_ != nullptr)
            *furthest_ = at_;
        return *this;
    }
    TrackingIterator operator++(int)
    {
        TrackingIterator before = *this;
        ++*this;
        return before;
    }
    friend bool operator==(const TrackingIterator& a, const TrackingIterator& b) { return a.at_ == b.at_; }

private:
    const char* at_;
    const char** furthest_;
};

class Locator : public nlohmann::json_sax<nlohmann::json> {
public:
    Locator(std::string_view text, const char* const& furthest, LineTable& lines, std::vector<TextError>& errors)
        : text_(text), furthest_(furthest), lines_(lines), errors_(errors)
    {
    }

    bool null() override { return value(0); }
    bool boolean(bool) override { return value(0); }
    // The end of a number is known only by the character behind it.
    bool number_integer(number_integer_t) override { return value(1); }
    bool number_unsigned(number_unsigned_t) override { return value(1); }
    bool number_float(number_float_t, const string_t&) override { return value(1); }
    bool string(string_t&) override { return value(0); }
    bool binary(binary_t&) override { return value(0); }
    bool start_object(std::size_t) override { return open(true); }
    bool start_array(std::size_t) override { return open(false); }
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }

    bool key(string_t& name) override
    {
        Level& level = levels_.back();
        level.child = level.path + "/" + escapePointer(name);
        const std::size_t line = lineAt(0);
        if (!lines_.emplace(level.child, line).second)
            errors_.push_back(
                {line, 0, level.child, "this key is already there, at line " + std::to_string(lines_[level.child])});
        return true;
    }

    bool parse_error(std::size_t byte, const std::string&, const nlohmann::detail::exception& error) override
    {
        const std::string_view before = text_.substr(0, std::min(byte == 0 ? 0 : byte - 1, text_.size()));
        const std::size_t lineStart = before.rfind('\n') + 1; // 0 when there is none
        std::string reason = error.what();
        // "[...] parse error at line 1, column 2: " comes before the words that tell what is wrong.
        const std::size_t colon = reason.find(": ");
        if (colon != std::string::npos)
            reason.erase(0, colon + 2);
        errors_.push_back({static_cast<std::size_t>(std::count(before.begin(), before.end(), '\n')) + 1,
                           before.size() - lineStart + 1, "", "no valid JSON: " + reason});
        return false;
    }

private:
    struct Level {
        bool object;
        std::string path;
        std::string child; // path of the member whose value comes next
        std::size_t index = 0;
    };

    std::size_t lineAt(std::size_t back)
    {
        const std::size_t at = static_cast<std::size_t>(furthest_ - text_.data()) - back;
        line_ += static_cast<std::size_t>(
            std::count(text_.begin() + static_cast<std::ptrdiff_t>(counted_),
                       text_.begin() + static_cast<std::ptrdiff_t>(std::max(at, counted_)), '\n'));
        counted_ = std::max(at, counted_);
        return line_;
    }

    /// The path of the value that begins; a member has its line already, by its key.
    std::string begin(std::size_t back)
    {
        if (levels_.empty()) {
            lines_.emplace("", lineAt(back));
            return "";
        }
        Level& level = levels_.back();
        if (level.object)
            return level.child;
        std::string path = level.path + "/" + std::to_string(level.index++);
        lines_.emplace(path, lineAt(back));
        return path;
    }

    bool value(std::size_t back)
    {
        begin(back);
        return true;
    }

    bool open(bool object)
    {
        std::string path = begin(0);
        if (levels_.size() == maxDepth) {
            errors_.push_back({lineAt(0), 0, path, "nested too deeply"});
            return false;
        }
        levels_.push_back({object, std::move(path), {}});
        return true;
    }

    bool close()
    {
        levels_.pop_back();
        return true;
    }

    std::string_view text_;
    const char* const& furthest_;
    LineTable& lines_;
    std::vector<TextError>& errors_;
    std::vector<Level> levels_;
    std::size_t counted_ = 0;
    std::size_t line_ = 1;
};

} // namespace

std::string escapePointer(const std::string& key)
{
    std::string out;
    for (const char c : key) {
        if (c == '~')
            out += "~0";
        else if (c == '/')
            out += "~1";
        else
            out += c;
    }
    return out;
}

void locateValues(std::string_view text, LineTable& lines, std::vector<TextError>& errors)
{
    const char* furthest = text.data();
    Locator locator(text, furthest, lines, errors);
    nlohmann::json::sax_parse(TrackingIterator(text.data(), &furthest),
                              TrackingIterator(text.data() + text.size(), nullptr), &locator,
                              nlohmann::json::input_format_t::json, true, true);
}

} // namespace zuLogSvc
