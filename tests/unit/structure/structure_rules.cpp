#include "tests/unit/structure/structure_rules.h"

#include <algorithm>
#include <cctype>
#include <set>
#include <sstream>
#include <stdexcept>

namespace zuTest::structure {

namespace {

// Headers of a system for sockets, memory mapping, processes, threads and terminals; Windows' names in small letters.
const std::vector<std::string> systemFolders = {"sys/",   "net/", "netinet/", "arpa/",
                                                "linux/", "asm/", "bits/",    "systemd/"};
const std::set<std::string> systemHeaders = {
    "unistd.h",   "poll.h",     "termio.h",    "termios.h", "fcntl.h",   "pthread.h",  "signal.h",   "csignal",
    "sched.h",    "syslog.h",   "ifaddrs.h",   "netdb.h",   "spawn.h",   "pwd.h",      "grp.h",      "pty.h",
    "utmp.h",     "langinfo.h", "semaphore.h", "mqueue.h",  "aio.h",     "ucontext.h", "dlfcn.h",    "getopt.h",
    "libgen.h",   "dirent.h",   "glob.h",      "wait.h",    "windows.h", "winsock.h",  "winsock2.h", "ws2tcpip.h",
    "iphlpapi.h", "psapi.h",    "conio.h",     "io.h",      "process.h", "direct.h",   "tlhelp32.h", "winsvc.h",
    "wincon.h",   "sddl.h",     "aclapi.h",
};
const std::set<std::string> systemNames = {
    "WIN32",  "_WIN32",   "_WIN64",    "__CYGWIN__",  "__linux__",   "__linux",         "linux",
    "__unix", "__unix__", "__APPLE__", "__FreeBSD__", "_GNU_SOURCE", "_POSIX_C_SOURCE",
};

bool startsWith(const std::string& text, const std::string& start) { return text.compare(0, start.size(), start) == 0; }

/// What stands in backticks and names a folder.
std::vector<std::string> foldersIn(const std::string& cell)
{
    std::vector<std::string> found;
    for (std::size_t open = cell.find('`'); open != std::string::npos; open = cell.find('`', open + 1)) {
        const std::size_t close = cell.find('`', open + 1);
        if (close == std::string::npos)
            break;
        if (cell[close - 1] == '/')
            found.push_back(cell.substr(open + 1, close - open - 1));
        open = close;
    }
    return found;
}

/// The cells of a table's line, blanks around them left out; none for any other line.
std::vector<std::string> cellsOf(const std::string& line)
{
    std::vector<std::string> cells;
    if (!startsWith(line, "|"))
        return cells;
    std::istringstream text(line.substr(1));
    for (std::string cell; std::getline(text, cell, '|');) {
        const std::size_t first = cell.find_first_not_of(' ');
        cells.push_back(first == std::string::npos ? "" : cell.substr(first, cell.find_last_not_of(' ') - first + 1));
    }
    return cells;
}

/// The text with comments as blanks; line ends stay, and so do strings.
std::string withoutComments(const std::string& text)
{
    std::string result = text;
    enum { code, line, block, quoted } state = code;
    char quote = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        const char next = i + 1 < text.size() ? text[i + 1] : '\0';
        switch (state) {
        case code:
            if (c == '/' && (next == '/' || next == '*')) {
                state = next == '/' ? line : block;
                result[i] = result[i + 1] = ' ';
                ++i;
            } else if (c == '"' || (c == '\'' && (i == 0 || !std::isalnum(static_cast<unsigned char>(text[i - 1]))))) {
                state = quoted;
                quote = c;
            }
            break;
        case line:
            if (c == '\n')
                state = code;
            else
                result[i] = ' ';
            break;
        case block:
            if (c == '*' && next == '/') {
                result[i] = result[i + 1] = ' ';
                ++i;
                state = code;
            } else if (c != '\n') {
                result[i] = ' ';
            }
            break;
        case quoted:
            if (c == '\\')
                ++i;
            else if (c == quote || c == '\n')
                state = code;
            break;
        }
    }
    return result;
}

bool isSystemHeader(std::string target)
{
    std::transform(target.begin(), target.end(), target.begin(), [](unsigned char c) { return std::tolower(c); });
    return systemHeaders.count(target) > 0 ||
           std::any_of(systemFolders.begin(), systemFolders.end(),
                       [&](const std::string& folder) { return startsWith(target, folder); });
}

/// A preprocessor line without its '#', or empty if it is none.
std::string directiveOf(const std::string& line)
{
    const std::size_t mark = line.find_first_not_of(" \t");
    if (mark == std::string::npos || line[mark] != '#')
        return {};
    const std::size_t word = line.find_first_not_of(" \t", mark + 1);
    return word == std::string::npos ? std::string() : line.substr(word);
}

/// The file that a directive includes, with `quoted` told; empty if it includes none by its name.
std::string includedBy(const std::string& directive, bool& quoted)
{
    const std::size_t open = directive.find_first_of("<\"");
    if (!startsWith(directive, "include") || open == std::string::npos)
        return {};
    quoted = directive[open] == '"';
    const std::size_t close = directive.find(quoted ? '"' : '>', open + 1);
    return close == std::string::npos ? std::string() : directive.substr(open + 1, close - open - 1);
}

/// The first word of the directive that names a system; empty if there is none.
std::string systemNameIn(const std::string& directive)
{
    std::string word;
    for (const char c : directive + ' ') {
        if (std::isalnum(static_cast<unsigned char>(c)) || c == '_') {
            word += c;
        } else {
            if (systemNames.count(word))
                return word;
            word.clear();
        }
    }
    return {};
}

} // namespace

Rules::Rules(const std::string& page)
{
    std::size_t folder = 0;
    std::size_t mayInclude = 0;
    std::istringstream lines(page);
    for (std::string line; std::getline(lines, line);) {
        const std::vector<std::string> cells = cellsOf(line);
        const auto column = [&](const char* name) { return std::find(cells.begin(), cells.end(), name); };
        if (mayInclude == 0) {
            if (column("folder") == cells.end() || column("may include") == cells.end())
                continue;
            folder = static_cast<std::size_t>(column("folder") - cells.begin());
            mayInclude = static_cast<std::size_t>(column("may include") - cells.begin());
            if (!std::getline(lines, line) || !startsWith(line, "|-"))
                throw std::runtime_error("the table of rooms has no line below its head");
        } else if (!cells.empty()) {
            addRow(cells, folder, mayInclude);
        } else {
            break;
        }
    }
    if (rooms_.empty())
        throw std::runtime_error("no table of rooms");
}

void Rules::addRow(const std::vector<std::string>& cells, std::size_t folder, std::size_t mayInclude)
{
    if (cells.size() <= std::max(folder, mayInclude) || foldersIn(cells[folder]).empty())
        throw std::runtime_error("a row of the table of rooms has no folder");
    const std::string& words = cells[mayInclude];
    Room room;
    room.mayInclude = foldersIn(words);
    room.free = words == "anything";
    if (room.mayInclude.empty() && !room.free && words != "nothing of ours")
        throw std::runtime_error("what may " + cells[folder] + " include? \"" + words + '"');
    for (const std::string& each : foldersIn(cells[folder])) {
        room.folder = each;
        rooms_.push_back(room);
    }
}

const Rules::Room* Rules::roomOf(const std::string& path) const
{
    const Room* found = nullptr;
    for (const Room& room : rooms_)
        if (startsWith(path, room.folder) && (!found || room.folder.size() > found->folder.size()))
            found = &room;
    return found;
}

/// What is wrong with including `target` from a file in `room`; empty if nothing.
std::string Rules::judgeOwn(const Room& room, const std::string& target) const
{
    if (target.find('/') == std::string::npos || startsWith(target, "."))
        return "includes \"" + target + "\", which is no path from the project's root";
    const Room* const other = roomOf(target);
    if (!other)
        return "includes \"" + target + "\", which is in no room";
    if (other == &room)
        return {};
    const auto& allowed = room.mayInclude;
    return std::find(allowed.begin(), allowed.end(), other->folder) != allowed.end()
               ? std::string()
               : room.folder + " may not include " + other->folder + ", but includes \"" + target + '"';
}

std::vector<std::string> Rules::violations(const std::string& path, const std::string& text) const
{
    const Room* const room = roomOf(path);
    if (!room || room->free)
        return {};
    const bool implementsSystem = startsWith(path, "platform/") && path.find('/', sizeof "platform/") != path.npos;

    std::vector<std::string> found;
    std::istringstream lines(withoutComments(text));
    std::string line;
    for (unsigned number = 1; std::getline(lines, line); ++number) {
        const auto report = [&](const std::string& what) {
            if (!what.empty())
                found.push_back(path + ':' + std::to_string(number) + ": " + what);
        };
        const std::string directive = directiveOf(line);
        bool quoted = false;
        if (const std::string target = includedBy(directive, quoted); !target.empty()) {
            if (quoted || roomOf(target))
                report(judgeOwn(*room, target));
            else if (!implementsSystem && isSystemHeader(target))
                report("includes the system header <" + target + "> outside platform/");
        } else if (const std::string name = systemNameIn(directive); !implementsSystem && !name.empty()) {
            report("asks for the system by " + name + " outside platform/");
        }
    }
    return found;
}

bool Rules::isKnownFolder(const std::string& path) const
{
    const std::string folder = path + '/';
    return std::any_of(rooms_.begin(), rooms_.end(), [&](const Room& room) {
        return startsWith(folder, room.folder) || startsWith(room.folder, folder);
    });
}

} // namespace zuTest::structure
