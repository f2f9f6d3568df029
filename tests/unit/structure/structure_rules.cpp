#include "tests/unit/structure/structure_rules.h"

#include <algorithm>
#include <cctype>
#include <regex>
#include <sstream>

namespace zuTest::structure {

namespace {

struct Room {
    std::string folder;
    std::vector<std::string> mayInclude;
};

// The first that fits holds, so a room inside another stands before it.
const std::vector<Room> rooms = {
    {"platform/", {}},
    {"logging/", {"platform/"}},
    {"GevTLBase/IPCPipe/", {"platform/", "logging/"}},
    {"GevTLBase/", {"platform/", "logging/"}},
    {"src/", {"platform/", "logging/", "GevTLBase/IPCPipe/", "GevTLBase/"}},
    {"client/", {"GevTLBase/IPCPipe/", "platform/", "logging/"}},
    {"tools/gevctl/", {"client/", "platform/"}},
    {"tools/gevsim/", {"platform/"}},
    {"tools/zuLogSvc/", {"platform/"}},
};

const std::vector<std::string> freeFolders = {"tests/", "bench/", "fuzz/", "packaging/", "docs/", "cmake/", "scripts/"};

// Headers of a system for sockets, memory mapping, processes, threads and terminals.
const std::regex systemHeader("(sys|net|netinet|arpa|linux|asm|bits|systemd)/.*"
                              "|(unistd|poll|termios?|fcntl|pthread|signal|sched|syslog|ifaddrs|netdb|spawn|pwd|grp|pty"
                              "|utmp|langinfo|semaphore|mqueue|aio|ucontext|dlfcn|getopt|libgen|dirent|glob|wait)\\.h"
                              "|csignal"
                              "|([Ww]indows|[Ww]in[Ss]ock2?|[Ww][Ss]2tcpip|iphlpapi|psapi|conio|io|process|direct"
                              "|tlhelp32|winsvc|wincon|sddl|aclapi)\\.h");

const std::regex systemName("\\b(_?WIN32|_WIN64|__MINGW32__|__CYGWIN__|__linux__|__linux|linux|__unix__"
                            "|__unix|__APPLE__|__FreeBSD__|_GNU_SOURCE|_POSIX_C_SOURCE)\\b");

const std::regex includeLine("^\\s*#\\s*include(_next)?\\s*([\"<])([^\">]+)[\">].*");
const std::regex directive("^\\s*#.*");

bool startsWith(const std::string& text, const std::string& start) { return text.compare(0, start.size(), start) == 0; }

const Room* roomOf(const std::string& path)
{
    const auto found =
        std::find_if(rooms.begin(), rooms.end(), [&](const Room& room) { return startsWith(path, room.folder); });
    return found == rooms.end() ? nullptr : &*found;
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

/// What is wrong with including `target` from a file in `room`; empty if nothing.
std::string judgeOwn(const Room& room, const std::string& target)
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

} // namespace

std::vector<std::string> violations(const std::string& path, const std::string& text)
{
    const Room* const room = roomOf(path);
    if (!room)
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
        std::smatch match;
        if (std::regex_match(line, match, includeLine)) {
            const std::string target = match[3];
            if (roomOf(target) || match[2] == "\"")
                report(judgeOwn(*room, target));
            else if (!implementsSystem && std::regex_match(target, systemHeader))
                report("includes the system header <" + target + "> outside platform/");
        } else if (!implementsSystem && std::regex_match(line, directive) &&
                   std::regex_search(line, match, systemName)) {
            report("asks for the system by " + match.str() + " outside platform/");
        }
    }
    return found;
}

bool isKnownFolder(const std::string& path)
{
    const std::string folder = path + '/';
    const auto covers = [&](const std::string& known) {
        return startsWith(folder, known) || startsWith(known, folder);
    };
    return std::any_of(rooms.begin(), rooms.end(), [&](const Room& room) { return covers(room.folder); }) ||
           std::any_of(freeFolders.begin(), freeFolders.end(), covers);
}

} // namespace zuTest::structure
