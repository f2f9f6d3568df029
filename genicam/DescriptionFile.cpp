// Reads description URLs and zip archives.
#include "genicam/DescriptionFile.h"

#include <zip.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <limits>
#include <memory>
#include <stdexcept>

namespace zuGenICam {

namespace {

// Registers of the standard's bootstrap map.
constexpr std::uint32_t firstUrl = 0x0200;
constexpr std::uint32_t secondUrl = 0x0400;
constexpr std::size_t urlSize = 512;

/// Up to the first 0; control characters become question marks.
std::string textIn(const std::vector<char>& bytes)
{
    std::string text(bytes.begin(), std::find(bytes.begin(), bytes.end(), '\0'));
    std::replace_if(
        text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }, '?');
    return text;
}

std::string lowerCase(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

bool endsWith(const std::string& text, const std::string& end)
{
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::optional<std::uint32_t> hexField(std::string text)
{
    text.erase(0, text.find_first_not_of(' '));
    text.erase(text.find_last_not_of(' ') + 1);
    if (lowerCase(text.substr(0, 2)) == "0x")
        text.erase(0, 2);
    std::uint32_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value, 16);
    if (text.empty() || stop != end || error != std::errc())
        return std::nullopt;
    return value;
}

struct CloseArchive {
    void operator()(zip_t* archive) const { zip_discard(archive); }
};
struct CloseFile {
    void operator()(zip_file_t* file) const { zip_fclose(file); }
};

class ZipError {
public:
    ZipError() { zip_error_init(&error_); }
    ~ZipError() { zip_error_fini(&error_); }
    ZipError(const ZipError&) = delete;
    ZipError& operator=(const ZipError&) = delete;
    zip_error_t* get() { return &error_; }
    std::runtime_error exception(const std::string& what)
    {
        return std::runtime_error(what + ": " + zip_error_strerror(&error_));
    }

private:
    zip_error_t error_{};
};

} // namespace

std::optional<LocalUrl> parseLocalUrl(const std::string& url)
{
    constexpr char scheme[] = "local:";
    if (lowerCase(url.substr(0, sizeof scheme - 1)) != scheme)
        return std::nullopt;
    std::string rest = url.substr(sizeof scheme - 1);
    rest = rest.substr(0, rest.find('?'));
    rest.erase(0, rest.find_first_not_of('/'));
    const std::size_t first = rest.find(';');
    const std::size_t second = first == std::string::npos ? first : rest.find(';', first + 1);
    if (second == std::string::npos)
        return std::nullopt;
    const auto address = hexField(rest.substr(first + 1, second - first - 1));
    const auto size = hexField(rest.substr(second + 1));
    if (!address || !size || *size == 0 || *size - 1 > std::numeric_limits<std::uint32_t>::max() - *address)
        return std::nullopt;
    return LocalUrl{rest.substr(0, first), *address, *size};
}

Location locate(const ReadMemory& read)
{
    Location found;
    std::vector<char> bytes(urlSize);
    for (const std::uint32_t at : {firstUrl, secondUrl}) {
        read(at, bytes.data(), bytes.size());
        const std::string text = textIn(bytes);
        found.local = parseLocalUrl(text);
        if (found.url.empty() || found.local)
            found.url = text;
        if (found.local)
            break;
    }
    return found;
}

const LocalUrl& requireLocal(const Location& location, std::size_t limit)
{
    if (!location.local)
        throw std::runtime_error(location.url.empty() ? "The camera names no description"
                                                      : "The camera keeps its description elsewhere: " + location.url);
    if (location.local->size > limit)
        throw std::runtime_error("The camera's description is larger than can be meant: " + location.url);
    return *location.local;
}

bool isZip(const std::vector<std::uint8_t>& bytes)
{
    return bytes.size() >= 4 && bytes[0] == 'P' && bytes[1] == 'K' && bytes[2] == 3 && bytes[3] == 4;
}

std::vector<std::uint8_t> unzip(const std::vector<std::uint8_t>& bytes, std::size_t limit)
{
    ZipError error;
    zip_source_t* const source = zip_source_buffer_create(bytes.data(), bytes.size(), 0, error.get());
    if (source == nullptr)
        throw error.exception("The archive can't be opened");
    const std::unique_ptr<zip_t, CloseArchive> archive(zip_open_from_source(source, ZIP_RDONLY, error.get()));
    if (!archive) {
        zip_source_free(source);
        throw error.exception("The archive can't be opened");
    }
    std::optional<zip_uint64_t> chosen;
    const zip_int64_t count = zip_get_num_entries(archive.get(), 0);
    for (zip_int64_t i = 0; i < count; ++i) {
        const auto index = static_cast<zip_uint64_t>(i);
        const char* const name = zip_get_name(archive.get(), index, 0);
        if (name == nullptr || endsWith(name, "/"))
            continue;
        if (!chosen)
            chosen = index;
        if (endsWith(lowerCase(name), ".xml")) {
            chosen = index;
            break;
        }
    }
    if (!chosen)
        throw std::runtime_error("The archive has no file in it");
    const std::unique_ptr<zip_file_t, CloseFile> file(zip_fopen_index(archive.get(), *chosen, 0));
    if (!file)
        throw std::runtime_error(std::string("The file in the archive can't be opened: ") +
                                 zip_strerror(archive.get()));
    constexpr std::size_t step = 65536;
    std::vector<std::uint8_t> content;
    for (;;) {
        const std::size_t before = content.size();
        content.resize(before + step);
        const zip_int64_t read = zip_fread(file.get(), content.data() + before, step);
        if (read < 0)
            throw std::runtime_error(std::string("The file in the archive is damaged: ") +
                                     zip_file_strerror(file.get()));
        content.resize(before + static_cast<std::size_t>(read));
        if (read == 0)
            return content;
        if (content.size() > limit)
            throw std::runtime_error("The file in the archive is larger than can be meant");
    }
}

} // namespace zuGenICam
