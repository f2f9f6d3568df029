#include "tests/support/child_process.h"

#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace zuTest {

struct ChildProcess::State {
    pid_t pid = -1;
    int input = -1;
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::string output;
    bool outputEnded = false;
    bool ended = false;
    End end;
    std::thread reader, waiter;
};

ChildProcess::ChildProcess(const std::vector<std::string>& command) : state_(std::make_unique<State>())
{
    int in[2];
    int out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0)
        throw std::runtime_error("no pipes");
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    ::posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    ::posix_spawn_file_actions_adddup2(&actions, out[1], 2);
    std::vector<char*> arguments;
    for (const std::string& word : command)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    const int failed = ::posix_spawnp(&state_->pid, arguments[0], &actions, nullptr, arguments.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    if (failed != 0) {
        ::close(in[1]);
        ::close(out[0]);
        throw std::runtime_error("can't start " + command[0]);
    }
    state_->input = in[1];
    State* const state = state_.get();
    state->reader = std::thread([state, from = out[0]] {
        char buffer[4096];
        for (;;) {
            const auto count = ::read(from, buffer, sizeof buffer);
            const std::lock_guard lock(state->mutex);
            if (count > 0)
                state->output.append(buffer, static_cast<std::size_t>(count));
            else if (count == 0 || errno != EINTR)
                state->outputEnded = true;
            state->changed.notify_all();
            if (state->outputEnded)
                break;
        }
        ::close(from);
    });
    state->waiter = std::thread([state] {
        int status = 0;
        while (::waitpid(state->pid, &status, 0) < 0 && errno == EINTR) {
        }
        const std::lock_guard lock(state->mutex);
        state->ended = true;
        state->end = WIFEXITED(status) ? End{true, WEXITSTATUS(status)} : End{false, WTERMSIG(status)};
        state->changed.notify_all();
    });
}

ChildProcess::~ChildProcess()
{
    signal(SIGKILL);
    closeInput();
    state_->waiter.join();
    state_->reader.join();
}

int ChildProcess::pid() const { return state_->pid; }

void ChildProcess::write(const std::string& text)
{
    if (::write(state_->input, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        throw std::runtime_error("the process takes no input");
}

void ChildProcess::closeInput()
{
    if (state_->input >= 0)
        ::close(state_->input);
    state_->input = -1;
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

bool ChildProcess::waitForOutput(const std::string& text, Milliseconds deadline) const
{
    std::unique_lock lock(state_->mutex);
    const auto found = [&] { return state_->output.find(text) != std::string::npos; };
    state_->changed.wait_for(lock, deadline, [&] { return found() || state_->outputEnded; });
    return found();
}

ChildProcess::End ChildProcess::wait(Milliseconds deadline)
{
    std::unique_lock lock(state_->mutex);
    state_->changed.wait_for(lock, deadline, [&] { return state_->ended && state_->outputEnded; });
    return state_->ended ? state_->end : End{};
}

Finished runCommand(const std::vector<std::string>& command, ChildProcess::Milliseconds deadline)
{
    ChildProcess process(command);
    process.closeInput();
    const ChildProcess::End end = process.wait(deadline);
    return {end, process.output()};
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

} // namespace zuTest
