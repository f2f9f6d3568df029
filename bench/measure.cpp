#include "bench/measure.h"
#include "bench/raw_pipe.h"

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>

#include <sched.h>
#include <sys/mman.h>
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

namespace {

/// Where the last daemon is or was; 0 if there is nothing to tell it.
std::uint16_t lastPort()
{
    try {
        return daemonPort();
    } catch (const std::exception&) {
        return 0;
    }
}

std::vector<std::string> command(const std::string& program, std::uint16_t& before)
{
    before = lastPort();
    return {program, "--execute"};
}

} // namespace

MeasuredDaemon::MeasuredDaemon(const std::string& program) : process_(command(program, before_))
{
    const auto found = [this] {
        const std::uint16_t port = lastPort();
        return port != 0 && port != before_;
    };
    if (!zuTest::eventually(found, std::chrono::seconds(10)))
        throw std::runtime_error("the daemon didn't start; is another one running?");
}

MeasuredDaemon::~MeasuredDaemon()
{
    process_.signal(SIGTERM);
    process_.wait(std::chrono::seconds(2));
}

double MeasuredDaemon::cpuSeconds() const { return zuTest::cpuSeconds(process_.pid()); }
long MeasuredDaemon::residentKiB() const { return std::atol(zuTest::statusField(process_.pid(), "VmRSS").c_str()); }
std::size_t MeasuredDaemon::threads() const
{
    return static_cast<std::size_t>(std::atol(zuTest::statusField(process_.pid(), "Threads").c_str()));
}

Part::Part(const std::function<void()>& body)
    : ForkedChild([&body] {
          body();
          return 0;
      })
{
}

void pinToOneProcessor(bool pinned)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    for (long cpu = 0; cpu < (pinned ? 1 : ::sysconf(_SC_NPROCESSORS_CONF)); ++cpu)
        CPU_SET(static_cast<std::size_t>(cpu), &set);
    ::sched_setaffinity(0, sizeof set, &set);
}

void* sharedMemory(std::size_t bytes)
{
    void* const memory = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw std::runtime_error("no shared memory");
    return memory;
}

double nowSeconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

} // namespace zuBench
