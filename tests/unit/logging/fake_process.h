// The process's own facts, as a test tells them: link this object into a test.
#pragma once

#include <string>

namespace zuTest::FakeProcess {

constexpr unsigned processId = 4711;
constexpr unsigned codePage = 65001;

void setExecutablePath(const std::string& path);

} // namespace zuTest::FakeProcess
