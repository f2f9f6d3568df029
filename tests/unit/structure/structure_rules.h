// The rules of who may include whom, and of what stays inside platform/.
#pragma once

#include <string>
#include <vector>

namespace zuTest::structure {

/// The rules as a page tells them, in a table with the columns "folder" and "may include".
class Rules {
public:
    /// Of the first such table in `page`. A row's folders stand in backticks; so do those it may include, unless it
    /// says "nothing of ours" or "anything". Throws std::runtime_error for what can't be understood.
    explicit Rules(const std::string& page);

    /// What is wrong with the source file `path` (from the project root, with '/') that has this text: a line
    /// "path:number: what" for each. Files that may include anything, such as tests, may do anything.
    std::vector<std::string> violations(const std::string& path, const std::string& text) const;

    /// Whether the table knows this folder or one that it is in.
    bool isKnownFolder(const std::string& path) const;

private:
    struct Room {
        std::string folder; ///< with '/' behind it
        std::vector<std::string> mayInclude;
        bool free = false; ///< may include anything
    };

    void addRow(const std::vector<std::string>& cells, std::size_t folder, std::size_t mayInclude);
    /// The innermost one, or null.
    const Room* roomOf(const std::string& path) const;
    std::string judgeOwn(const Room& room, const std::string& target) const;

    std::vector<Room> rooms_;
};

} // namespace zuTest::structure
