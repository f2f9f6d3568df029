// Turns a command line into a unit file. Pure but for looking at the program's file.
#include "platform/linux/service_unit.h"

#include "platform/linux/service_unit_template.h"

#include <sys/stat.h>

#include <cstdio>
#include <utility>

namespace zuPlatform {

namespace {

bool isFile(const std::string& path)
{
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

bool isBelow(const std::string& path, const std::string& directory)
{
    return path.compare(0, directory.size(), directory) == 0;
}

/// A value that is one line, with no specifier in it.
std::string plainForUnit(const std::string& value)
{
    std::string result;
    for (const char c : value) {
        if (c == '%')
            result += "%%";
        else
            result += static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
    }
    return result;
}

} // namespace

ServiceCommand splitServiceCommand(const std::string& commandLine)
{
    if (commandLine.empty() || commandLine[0] != '/')
        return {};
    std::size_t end = commandLine.size();
    for (;;) {
        if (isFile(commandLine.substr(0, end)))
            break;
        const std::size_t blank = commandLine.rfind(' ', end - 1);
        if (blank == std::string::npos || blank == 0) {
            end = std::min(commandLine.find(' '), commandLine.size());
            break;
        }
        end = blank;
    }
    return {commandLine.substr(0, end), commandLine.substr(end)};
}

std::string quotedForUnit(const std::string& program)
{
    std::string result = ":\"";
    for (const char c : program) {
        if (c == '"' || c == '\\') {
            result += '\\';
            result += c;
        } else if (c == '%') {
            result += "%%";
        } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned char>(c));
            result += escaped;
        } else {
            result += c;
        }
    }
    return result + '"';
}

bool executableByAll(const std::string& program)
{
    for (std::size_t slash = program.find('/'); slash != std::string::npos; slash = program.find('/', slash + 1)) {
        struct stat info {};
        const std::string directory = slash == 0 ? "/" : program.substr(0, slash);
        if (::stat(directory.c_str(), &info) != 0 || (info.st_mode & S_IXOTH) == 0)
            return false;
    }
    struct stat info {};
    return ::stat(program.c_str(), &info) == 0 && (info.st_mode & S_IXOTH) != 0;
}

std::string serviceUnitText(const ServiceUnit& unit)
{
    const std::string& program = unit.command.program;
    std::string text = serviceUnitTemplate;
    const auto setLine = [&text](const std::string& key, const std::string& value) {
        const std::string start = "\n" + key + "=";
        const std::size_t at = text.find(start);
        if (at == std::string::npos)
            return;
        const std::size_t end = text.find('\n', at + 1);
        text.replace(at, end - at, value.empty() ? std::string() : start + value);
    };
    setLine("Description", plainForUnit(unit.displayName));
    setLine("ExecStart", quotedForUnit(program) + plainForUnit(unit.command.arguments));
    setLine("User", unit.user);
    setLine("Group", unit.user);
    // What hides these directories would hide the program.
    if (isBelow(program, "/home/") || isBelow(program, "/root/") || isBelow(program, "/run/user/"))
        setLine("ProtectHome", "read-only");
    if (isBelow(program, "/tmp/") || isBelow(program, "/var/tmp/"))
        setLine("PrivateTmp", "no");
    return text;
}

} // namespace zuPlatform
