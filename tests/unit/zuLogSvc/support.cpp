#include "tests/unit/zuLogSvc/support.h"

#include "platform/process.h"
#include "platform/thread.h"
#include "tools/zuLogSvc/protocol.h"

#include <algorithm>
#include <iterator>

namespace zuTest {

TemporaryFolder::TemporaryFolder()
{
    static std::atomic<unsigned> count{0};
    path_ = std::filesystem::temp_directory_path() / ("zuLogSvc-test-" + uniquePrefix() + std::to_string(count++));
    std::filesystem::create_directories(path_);
}

TemporaryFolder::~TemporaryFolder()
{
    std::error_code error;
    std::filesystem::remove_all(path_, error);
}

std::string readFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void writeFile(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

std::vector<std::string> splitLines(const std::string& text)
{
    std::vector<std::string> lines;
    std::size_t from = 0;
    for (std::size_t end; (end = text.find('\n', from)) != std::string::npos; from = end + 1)
        lines.push_back(text.substr(from, end - from));
    if (from != text.size())
        lines.push_back(text.substr(from));
    return lines;
}

zuLogSvc::LogMessage someMessage(const std::string& text, std::uint64_t sequence)
{
    zuLogSvc::LogMessage message;
    message.command = zuLogSvc::cmdMessage;
    message.sequence = sequence;
    message.time = someTime;
    message.logger = "GEVSVC.Conn.0";
    message.level = 4;
    message.group = "IPConnection";
    message.text = text;
    message.location = "src/SockConnection.cpp(77)";
    message.process = 812;
    message.thread = 815;
    message.codePage = 65001;
    return message;
}

zuLogSvc::Packet datagramOf(const zuLogSvc::LogMessage& message)
{
    return zuLogSvc::encodeMessage(zuLogSvc::cmdMessage, 7, zuLogSvc::encodeContainer(message));
}

bool eventually(const std::function<bool()>& condition, std::chrono::seconds deadline)
{
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

std::string uniquePrefix()
{
    return std::to_string(zuPlatform::currentProcessId()) + "-" + std::to_string(zuPlatform::steadyNanoseconds()) + "-";
}

void CapturingOutput::write(const zuLogSvc::LogMessage& message, std::uint64_t arrival)
{
    const std::string line = zuLogSvc::formatLine(message, arrival, {});
    const std::lock_guard lock(mutex_);
    lines_.push_back(line);
}

std::vector<std::string> CapturingOutput::lines() const
{
    const std::lock_guard lock(mutex_);
    return lines_;
}

bool CapturingOutput::has(const std::string& part) const
{
    const std::lock_guard lock(mutex_);
    return std::any_of(lines_.begin(), lines_.end(),
                       [&](const std::string& line) { return line.find(part) != std::string::npos; });
}

} // namespace zuTest
