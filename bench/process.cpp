#include "bench/process.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace zuBench {

Process Process::fork(const std::function<void()>& body)
{
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid < 0)
        throw std::runtime_error("fork failed");
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        int status = 0;
        try {
            body();
        } catch (const std::exception& failure) {
            std::fprintf(stderr, "bench: %s\n", failure.what());
            status = 1;
        }
        std::fflush(nullptr);
        ::_exit(status);
    }
    Process process;
    process.pid_ = pid;
    return process;
}

Process Process::execute(const std::vector<std::string>& command)
{
    return fork([&command] {
        const int null = ::open("/dev/null", O_RDWR);
        ::dup2(null, 0);
        ::dup2(null, 1);
        std::vector<char*> arguments;
        for (const std::string& word : command)
            arguments.push_back(const_cast<char*>(word.c_str()));
        arguments.push_back(nullptr);
        ::execvp(arguments[0], arguments.data());
        throw std::runtime_error("can't run " + command[0]);
    });
}

Process& Process::operator=(Process&& other) noexcept
{
    stop();
    pid_ = std::exchange(other.pid_, -1);
    return *this;
}

int Process::wait()
{
    int status = 0;
    if (pid_ > 0)
        while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}

void Process::stop()
{
    if (pid_ <= 0)
        return;
    ::kill(pid_, SIGTERM);
    for (int i = 0; i < 200; ++i) {
        if (::waitpid(pid_, nullptr, WNOHANG) == pid_) {
            pid_ = -1;
            return;
        }
        ::usleep(10000);
    }
    ::kill(pid_, SIGKILL);
    wait();
}

double Process::cpuSeconds() const
{
    std::ifstream in("/proc/" + std::to_string(pid_) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), {});
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string skipped;
    for (int i = 0; i < 11; ++i)
        fields >> skipped;
    double user = 0;
    double system = 0;
    fields >> user >> system;
    return (user + system) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

namespace {

long statusField(pid_t pid, const std::string& key)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);)
        if (line.compare(0, key.size(), key) == 0)
            return std::atol(line.c_str() + key.size());
    return 0;
}

} // namespace

long Process::residentKiB() const { return statusField(pid_, "VmRSS:"); }
std::size_t Process::threads() const { return static_cast<std::size_t>(statusField(pid_, "Threads:")); }

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
    timespec time{};
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

} // namespace zuBench
