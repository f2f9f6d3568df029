#include "tests/unit/logging/fake_process.h"

#include "platform/process.h"

namespace {

std::string& path()
{
    static std::string instance = "/usr/bin/program.bin";
    return instance;
}

} // namespace

namespace zuTest::FakeProcess {

void setExecutablePath(const std::string& value) { path() = value; }

} // namespace zuTest::FakeProcess

namespace zuPlatform {

std::uint32_t currentProcessId() { return zuTest::FakeProcess::processId; }
std::string executablePath() { return path(); }
std::uint32_t narrowCodePage() { return zuTest::FakeProcess::codePage; }

} // namespace zuPlatform
