// Draws the progress bar.
#include "tools/gevctl/progress.h"

#include "platform/clock.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace gevctl {

namespace {

constexpr std::size_t cells = 30;
constexpr std::uint64_t drawEveryNs = 100'000'000;

std::string amount(double bytes)
{
    constexpr std::array units{"B", "KiB", "MiB", "GiB"};
    std::size_t unit = 0;
    while (bytes >= 1024 && unit + 1 < units.size()) {
        bytes /= 1024;
        ++unit;
    }
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), unit == 0 ? "%.0f %s" : "%.1f %s", bytes, units[unit]);
    return text.data();
}

} // namespace

std::string progressLine(const std::string& label, std::uint64_t done, std::uint64_t total, double seconds)
{
    const double share = total == 0 ? 1.0 : static_cast<double>(std::min(done, total)) / static_cast<double>(total);
    const auto filled = static_cast<std::size_t>(share * cells);
    std::array<char, 16> percent{};
    std::snprintf(percent.data(), percent.size(), "%3d %%", static_cast<int>(share * 100));
    std::string line = label + " [" + std::string(filled, '#') + std::string(cells - filled, '.') + "] " +
                       percent.data() + " " + amount(static_cast<double>(done));
    if (seconds > 0)
        line += " " + amount(static_cast<double>(done) / seconds) + "/s";
    return line;
}

Progress::Progress(std::ostream& out, std::string label, std::uint64_t total, bool visible)
    : out_(out), label_(std::move(label)), total_(total), visible_(visible), start_(zuPlatform::steadyNanoseconds())
{
}

Progress::~Progress()
{
    if (width_ != 0)
        out_ << '\r' << std::string(width_, ' ') << '\r' << std::flush;
}

void Progress::update(std::uint64_t done)
{
    const std::uint64_t now = zuPlatform::steadyNanoseconds();
    if (!visible_ || (now - lastDrawn_ < drawEveryNs && done < total_))
        return;
    lastDrawn_ = now;
    const std::string line = progressLine(label_, done, total_, static_cast<double>(now - start_) * 1e-9);
    out_ << '\r' << line << std::string(width_ > line.size() ? width_ - line.size() : 0, ' ') << std::flush;
    width_ = std::max(width_, line.size());
}

} // namespace gevctl
