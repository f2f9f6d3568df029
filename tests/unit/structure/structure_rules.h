// The rules of who may include whom, and of what stays inside platform/.
#pragma once

#include <string>
#include <vector>

namespace zuTest::structure {

/// What is wrong with the source file `path` (from the project root, with '/') that has this text: a line
/// "path:number: what" for each. Files outside the rooms, such as tests, may do anything.
std::vector<std::string> violations(const std::string& path, const std::string& text);

/// Whether files of this folder and below are under a rule, or free of them on purpose. False tells of a folder that
/// the rules do not know.
bool isKnownFolder(const std::string& path);

} // namespace zuTest::structure
