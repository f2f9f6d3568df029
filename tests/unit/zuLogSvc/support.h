// What the tests of the log service share: bytes as text, a clock that stands still, messages.
#pragma once

#include "tests/support/eventually.h"
#include "tests/support/files.h"
#include "tools/zuLogSvc/output.h"
#include "tools/zuLogSvc/packet_encoder.h"
#include "tools/zuLogSvc/timestamp.h"

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

namespace zuTest {

/// Bytes of hexadecimal pairs, with quoted text between them: `04 00 "text"`.
inline zuLogSvc::Packet bytes(const std::string& text)
{
    zuLogSvc::Packet out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == ' ' || text[i] == '\n')
            continue;
        if (text[i] == '"') {
            for (++i; text[i] != '"'; ++i)
                out.push_back(static_cast<std::uint8_t>(text[i]));
            continue;
        }
        out.push_back(static_cast<std::uint8_t>(std::stoi(text.substr(i, 2), nullptr, 16)));
        ++i;
    }
    return out;
}

/// 2026-Nov-12 10:58:49.123456, as messages carry it.
constexpr std::uint64_t someTime = 19781924329123456;

class TestClock : public zuLogSvc::Clock {
public:
    std::uint64_t localMicroseconds() const override { return local; }
    std::uint64_t steadyMilliseconds() const override { return steady; }
    std::atomic<std::uint64_t> local{someTime};
    std::atomic<std::uint64_t> steady{1'000'000};
};

/// A message as the daemon would send it.
zuLogSvc::LogMessage someMessage(const std::string& text, std::uint64_t sequence = 1);

/// The datagram of a message.
zuLogSvc::Packet datagramOf(const zuLogSvc::LogMessage& message);

/// A prefix of machine-wide names that no other process uses.
std::string uniquePrefix();

/// Keeps the lines it is given. Any thread.
class CapturingOutput : public zuLogSvc::Output {
public:
    void write(const zuLogSvc::LogMessage& message, std::uint64_t arrival) override;
    void flush() override {}
    std::uint64_t giveUp() override { return 0; }
    std::string name() const override { return "test"; }
    std::uint64_t takeLost() override { return 0; }
    std::string takeTrouble() override { return {}; }

    std::vector<std::string> lines() const;
    bool has(const std::string& part) const;

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

} // namespace zuTest
