// The unit file of a service that registers itself.
#pragma once

#include <string>

namespace zuPlatform {

/// A command line of an unquoted absolute path, which may hold blanks, and arguments.
struct ServiceCommand {
    std::string program;
    std::string arguments; ///< with the blanks around them
};

/// Takes the longest beginning that ends before a blank or at the end and names a file. Without such a file the path
/// ends at the first blank. Empty for a text that begins with no '/'.
ServiceCommand splitServiceCommand(const std::string& commandLine);

/// Who runs the service; empty for root.
struct ServiceUnit {
    std::string displayName;
    ServiceCommand command;
    std::string user;
};

/// The text of the unit: the packaged one, for this program, behind a mark of its own.
std::string serviceUnitText(const ServiceUnit& unit);

/// Whether a unit's text is such a one, and nobody has changed it.
bool isServiceUnitAsWritten(const std::string& text);

/// The program as the first word of ExecStart: quoted, escaped, no variable or specifier taken for such.
std::string quotedForUnit(const std::string& program);

/// Whether systemd takes the path: it refuses quotes, backslashes and control characters in a program's name, however
/// they are quoted.
bool usableInUnit(const std::string& program);

/// Whether nobody but root can put something else in the program's place: it and all directories above it, symbolic
/// links followed, belong to root and can't be written to by others.
bool changeableByRootOnly(const std::string& program);

/// Whether everyone may execute the file: all directories on the way let everyone pass.
bool executableByAll(const std::string& program);

} // namespace zuPlatform
