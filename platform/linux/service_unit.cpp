// Turns a command line into a unit file. Pure but for looking at the program's file.
#include "platform/linux/service_unit.h"

#include "platform/linux/service_unit_template.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
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

/// The first line of a unit that registered itself, with a sum over what follows it (FNV-1a, 64 bits).
std::string ownMark(const std::string& text)
{
    std::uint64_t sum = 0xCBF29CE484222325;
    for (const char c : text)
        sum = (sum ^ static_cast<unsigned char>(c)) * 0x100000001B3;
    char digits[17];
    std::snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(sum));
    return std::string(
               "# Registered by the program itself. Deleting the service removes this file, and keeps a changed "
               "one as .bak (") +
           digits + ").\n";
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

bool usableInUnit(const std::string& program)
{
    const auto refused = [](char c) {
        return static_cast<unsigned char>(c) < 0x20 || c == 0x7F || c == '"' || c == '\'' || c == '\\';
    };
    return !program.empty() && std::none_of(program.begin(), program.end(), refused);
}

bool changeableByRootOnly(const std::string& program)
{
    const std::unique_ptr<char, decltype(&std::free)> real(::realpath(program.c_str(), nullptr), &std::free);
    if (!real)
        return false;
    const std::string path = real.get();
    for (std::size_t end = path.size(); end != std::string::npos; end = end == 0 ? end - 1 : path.rfind('/', end - 1)) {
        struct stat info {};
        if (::lstat(end == 0 ? "/" : path.substr(0, end).c_str(), &info) != 0 || info.st_uid != 0)
            return false;
        // In a directory such as /tmp nobody can replace what belongs to root.
        const bool sticky = S_ISDIR(info.st_mode) && (info.st_mode & S_ISVTX) != 0;
        const bool byGroup = (info.st_mode & S_IWGRP) != 0 && info.st_gid != 0;
        if (!sticky && (byGroup || (info.st_mode & S_IWOTH) != 0))
            return false;
    }
    return true;
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
    return ownMark(text) + text;
}

bool isServiceUnitAsWritten(const std::string& text)
{
    const std::size_t end = text.find('\n');
    return end != std::string::npos && text.compare(0, end + 1, ownMark(text.substr(end + 1))) == 0;
}

} // namespace zuPlatform
