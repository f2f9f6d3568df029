// Folders and files of a test.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace zuTest {

/// A new folder, which goes away with all that is in it.
class TemporaryFolder {
public:
    TemporaryFolder(); ///< throws std::runtime_error if it can't be made
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::string file(const std::string& name) const { return (path_ / name).string(); }
    std::string operator/(const std::string& name) const { return file(name); }

private:
    std::filesystem::path path_;
};

std::string readFile(const std::filesystem::path& path); ///< empty if there is none
void writeFile(const std::filesystem::path& path, const std::string& text);

/// The lines without their ends; the last one may lack it.
std::vector<std::string> splitLines(const std::string& text);

} // namespace zuTest
