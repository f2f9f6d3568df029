#include "tests/unit/zuLogSvc/support.h"

#include "platform/clock.h"
#include "platform/process.h"
#include "tools/zuLogSvc/protocol.h"

#include <algorithm>

namespace zuTest {

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
