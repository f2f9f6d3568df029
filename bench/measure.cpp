#include "bench/measure.h"
#include "bench/raw_pipe.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <stdexcept>

#include <unistd.h>

namespace zuBench {

namespace {

double at(const std::vector<double>& sorted, double part)
{
    return sorted[static_cast<std::size_t>(part * static_cast<double>(sorted.size() - 1))];
}

} // namespace

void Latencies::take(unsigned count, const std::function<void()>& access)
{
    for (unsigned i = 0; i < count; ++i) {
        const double start = nowSeconds();
        access();
        microseconds_.push_back((nowSeconds() - start) * 1e6);
    }
}

double Latencies::percentile(double part)
{
    std::sort(microseconds_.begin(), microseconds_.end());
    return at(microseconds_, part);
}

double Latencies::percentileOfLast(unsigned count, double part) const
{
    std::vector<double> last(microseconds_.end() - static_cast<std::ptrdiff_t>(count), microseconds_.end());
    std::sort(last.begin(), last.end());
    return at(last, part);
}

Process startDaemon(const std::string& program)
{
    bool present = true;
    std::uint16_t before = 0;
    try {
        before = daemonPort();
    } catch (const std::exception&) {
        present = false;
    }
    Process daemon = Process::execute({program, "--execute"});
    const double deadline = nowSeconds() + 10;
    for (;;) {
        try {
            const std::uint16_t port = daemonPort();
            if (!present || port != before)
                return daemon;
        } catch (const std::exception&) {
        }
        if (nowSeconds() > deadline)
            throw std::runtime_error("the daemon didn't start; is another one running?");
        ::usleep(20000);
    }
}

std::string daemonBesideThisProgram()
{
    return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / "zuGevSvc").string();
}

} // namespace zuBench
