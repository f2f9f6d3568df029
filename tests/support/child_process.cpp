#include "tests/support/child_process.h"

#include "tests/support/files.h"

#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace zuTest {

namespace {

struct Pipe {
    int ends[2];
    Pipe()
    {
        if (::pipe2(ends, O_CLOEXEC) != 0)
            throw std::runtime_error("no pipe");
    }
    ~Pipe()
    {
        close(0);
        close(1);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    void close(int end)
    {
        if (ends[end] >= 0)
            ::close(ends[end]);
        ends[end] = -1;
    }
};

} // namespace

struct ChildProcess::State {
    explicit State(Output streams) : kind(streams) {}

    /// Reads both streams until they end, or nobody wants them any more.
    void read()
    {
        Pipe* const pipes[] = {&out, &err, &control};
        std::string* const texts[] = {&output, &errors};
        bool ending = false;
        for (;;) {
            pollfd sources[3];
            for (int i = 0; i < 3; ++i)
                sources[i] = {i == 0 && kind == Output::unread ? -1 : pipes[i]->ends[0], POLLIN, 0};
            if (sources[0].fd < 0 && sources[1].fd < 0)
                break;
            const int ready = ::poll(sources, 3, ending ? 0 : -1);
            if (ending && ready == 0) {
                // Its end is known, and nothing is left to read. Descendants may still hold the streams.
                ending = false;
                const std::lock_guard lock(mutex);
                drained = true;
                changed.notify_all();
                continue;
            }
            for (int i = 0; i < 2; ++i) {
                if (sources[i].revents == 0)
                    continue;
                char buffer[4096];
                const auto count = ::read(sources[i].fd, buffer, sizeof buffer);
                if (count > 0) {
                    const std::lock_guard lock(mutex);
                    texts[i]->append(buffer, static_cast<std::size_t>(count));
                    changed.notify_all();
                } else if (count == 0 || errno != EINTR) {
                    pipes[i]->close(0);
                }
            }
            if (sources[2].revents != 0) {
                char word = 0;
                if (::read(sources[2].fd, &word, 1) != 1)
                    return; // the object is going
                ending = true;
            }
        }
        const std::lock_guard lock(mutex);
        drained = true;
        changed.notify_all();
    }

    void awaitEnd()
    {
        siginfo_t info{};
        while (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
        }
        {
            // Under the lock, as nobody may signal an id that is free again.
            const std::lock_guard lock(mutex);
            int status = 0;
            ::waitpid(pid, &status, 0);
            ended = true;
            end = WIFEXITED(status) ? End{true, WEXITSTATUS(status)} : End{false, WTERMSIG(status)};
            changed.notify_all();
        }
        const char word = 'e';
        [[maybe_unused]] const auto written = ::write(control.ends[1], &word, 1);
    }

    bool waitFor(const std::string& stream, const std::string& text, Milliseconds deadline, std::size_t from)
    {
        std::unique_lock lock(mutex);
        const auto found = [&] { return stream.find(text, from) != std::string::npos; };
        changed.wait_for(lock, deadline, [&] { return found() || drained; });
        return found();
    }

    const Output kind;
    pid_t pid = -1;
    Pipe in, out, err, control;
    std::mutex mutex;
    std::condition_variable changed;
    std::string output, errors;
    bool drained = false; ///< all that the process itself has printed is here
    bool ended = false;
    End end;
    std::thread reader, waiter;
};

ChildProcess::ChildProcess(const std::vector<std::string>& command, Output output)
    : state_(std::make_unique<State>(output))
{
    // Writing to a process that has ended is a failure, not the end of the test; the process itself is not to know.
    ::signal(SIGPIPE, SIG_IGN);
    sigset_t asUsual;
    ::sigemptyset(&asUsual);
    ::sigaddset(&asUsual, SIGPIPE);
    posix_spawnattr_t attributes;
    ::posix_spawnattr_init(&attributes);
    ::posix_spawnattr_setsigdefault(&attributes, &asUsual);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    State& state = *state_;
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, state.in.ends[0], 0);
    ::posix_spawn_file_actions_adddup2(&actions, state.out.ends[1], 1);
    ::posix_spawn_file_actions_adddup2(&actions, (output == Output::together ? state.out : state.err).ends[1], 2);
    std::vector<char*> arguments;
    for (const std::string& word : command)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    const int failed = ::posix_spawnp(&state.pid, arguments[0], &actions, &attributes, arguments.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    ::posix_spawnattr_destroy(&attributes);
    if (failed != 0)
        throw std::runtime_error("can't start " + command[0]);
    state.in.close(0);
    state.out.close(1);
    state.err.close(1);
    state.reader = std::thread([&state] { state.read(); });
    state.waiter = std::thread([&state] { state.awaitEnd(); });
}

ChildProcess::~ChildProcess()
{
    signal(SIGKILL);
    closeInput();
    state_->waiter.join();
    state_->control.close(1);
    state_->reader.join();
}

int ChildProcess::pid() const { return state_->pid; }

bool ChildProcess::running() const
{
    const std::lock_guard lock(state_->mutex);
    return !state_->ended;
}

void ChildProcess::write(const std::string& text)
{
    if (::write(state_->in.ends[1], text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        throw std::runtime_error("the process takes no input");
}

void ChildProcess::closeInput() { state_->in.close(1); }

void ChildProcess::closeOutput()
{
    if (state_->kind != Output::unread)
        throw std::logic_error("the output is being read");
    state_->out.close(0);
}

void ChildProcess::signal(int number)
{
    const std::lock_guard lock(state_->mutex);
    if (!state_->ended)
        ::kill(state_->pid, number);
}

std::string ChildProcess::output() const
{
    const std::lock_guard lock(state_->mutex);
    return state_->output;
}

std::string ChildProcess::errors() const
{
    const std::lock_guard lock(state_->mutex);
    return state_->errors;
}

bool ChildProcess::waitForOutput(const std::string& text, Milliseconds deadline, std::size_t from) const
{
    return state_->waitFor(state_->output, text, deadline, from);
}

bool ChildProcess::waitForErrors(const std::string& text, Milliseconds deadline, std::size_t from) const
{
    return state_->waitFor(state_->errors, text, deadline, from);
}

std::string ChildProcess::line(Milliseconds deadline)
{
    if (!waitForOutput("\n", deadline, lineStart_))
        return {};
    const std::string text = output();
    const std::size_t start = lineStart_;
    lineStart_ = text.find('\n', start) + 1;
    return text.substr(start, lineStart_ - 1 - start);
}

ChildProcess::End ChildProcess::wait(Milliseconds deadline)
{
    std::unique_lock lock(state_->mutex);
    state_->changed.wait_for(lock, deadline, [&] { return state_->ended && state_->drained; });
    return state_->ended ? state_->end : End{};
}

int ChildProcess::exitStatus(Milliseconds deadline)
{
    const End end = wait(deadline);
    return end.exited ? end.status : -1;
}

Finished runCommand(const std::vector<std::string>& command, ChildProcess::Milliseconds deadline,
                    ChildProcess::Output output)
{
    ChildProcess process(command, output);
    process.closeInput();
    const ChildProcess::End end = process.wait(deadline);
    return {end, process.output(), process.errors()};
}

std::string builtProgram(const std::string& name)
{
    return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / name).string();
}

bool isInstalled(const std::string& program)
{
    const char* const path = std::getenv("PATH");
    std::istringstream folders(path != nullptr ? path : "");
    for (std::string folder; std::getline(folders, folder, ':');)
        if (::access((folder + "/" + program).c_str(), X_OK) == 0)
            return true;
    return false;
}

std::string statusField(int pid, const std::string& name)
{
    std::istringstream status(readFile("/proc/" + std::to_string(pid) + "/status"));
    for (std::string word; status >> word;)
        if (word == name + ":" && status >> word)
            return word;
    return "?";
}

double cpuSeconds(int pid)
{
    const std::string text = readFile("/proc/" + std::to_string(pid) + "/stat");
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string skipped;
    for (int i = 0; i < 11; ++i)
        fields >> skipped;
    double user = 0;
    double system = 0;
    fields >> user >> system;
    return (user + system) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

} // namespace zuTest
