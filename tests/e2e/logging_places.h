// What the tests of the logging run daemons with: the log service as a process, places to which a daemon can log, and
// words in order.
#pragma once

#include "tests/support/child_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace zuTest {

using Words = std::vector<std::string>;

inline bool eventually(const std::function<bool()>& condition)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

/// The first of the words that does not stand behind those before it; empty if all do.
inline std::string missingOf(const Words& words, const std::string& text)
{
    std::size_t at = 0;
    for (const std::string& word : words) {
        at = text.find(word, at);
        if (at == std::string::npos)
            return word;
        at += word.size();
    }
    return {};
}

/// Waits until the words stand in the text in this order, each in a line of its own.
inline void expectWords(const std::function<std::string()>& text, const Words& words)
{
    eventually([&] { return missingOf(words, text()).empty(); });
    EXPECT_EQ(missingOf(words, text()), "") << "is not there, or not at its place, in\n" << text();
}

inline void expectWholeLines(const std::string& text)
{
    const auto whole = testing::MatchesRegex("[0-9]{4}-[A-Z][a-z]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}(\\.[0-9]{6})? "
                                             "GEVSVC(\\.[A-Za-z0-9]+)+ "
                                             "\\[([A-Za-z]+\\|)?(fatal|err|warn|info|trace|debug)\\] .*");
    std::istringstream lines(text);
    std::size_t count = 0;
    for (std::string each; std::getline(lines, each); ++count)
        EXPECT_THAT(each, whole);
    EXPECT_GT(count, 25u);
}

inline std::string readFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// The log service as a process, with one rule for the daemon.
class LogService {
public:
    /// `more`: further members of the rule's object.
    LogService(const std::string& folder, const std::string& destination, const std::string& more = {})
        : settings_(folder + "/settings.json"), process(command(destination, more))
    {
        if (!process.waitForOutput("zuLogSvc [info] log service started"))
            throw std::runtime_error("is another log service running on this machine? " + process.output());
    }
    ~LogService()
    {
        process.signal(SIGTERM);
        const auto end = process.wait(std::chrono::seconds(60));
        EXPECT_TRUE(killed || (end.exited && end.status == 0)) << end.status << ": " << process.output();
        EXPECT_THAT(process.output(), testing::Not(testing::HasSubstr("Sanitizer")));
    }
    LogService(const LogService&) = delete;
    LogService& operator=(const LogService&) = delete;

    /// Whether the daemon has asked, and been told, this.
    bool told(const std::string& destination) const
    {
        return process.waitForOutput("module \"GEVSVC\" of process \"zuGevSvc\" asks for its settings: rule 0, "
                                     "destination " +
                                     destination + ", level all\n");
    }

private:
    Words command(const std::string& destination, const std::string& more) const
    {
        std::ofstream(settings_) << R"({"rules": [{"module": "GEVSVC", "level": "all", "destination": ")" << destination
                                 << '"' << more << "}]}";
        return {builtProgram("zuLogSvc"), "--config", settings_};
    }

    std::string settings_;

public:
    ChildProcess process;
    bool killed = false;
};

/// A terminal that becomes a program's controlling one.
class Terminal {
public:
    Terminal() : master_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
    {
        if (master_ < 0 || ::grantpt(master_) != 0 || ::unlockpt(master_) != 0)
            throw std::runtime_error("no terminal");
        reader_ = std::thread([this] {
            char buffer[4096];
            while (!stop_) {
                pollfd input{master_, POLLIN, 0};
                const ssize_t count = ::poll(&input, 1, 20) == 1 ? ::read(master_, buffer, sizeof buffer) : 0;
                const std::lock_guard lock(mutex_);
                text_.append(buffer, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
            }
        });
    }
    ~Terminal()
    {
        stop_ = true;
        reader_.join();
        ::close(master_);
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    /// Gives a program this terminal, and the standard streams that it would have had.
    Words launcher() const
    {
        return {"sh", "-c",
                R"(exec 3<&0 <")" + std::string(::ptsname(master_)) +
                    R"("; exec setsid -c sh -c 'exec 0<&3 3<&-; exec "$@"' sh "$@")",
                "sh"};
    }
    std::string text() const
    {
        const std::lock_guard lock(mutex_);
        return text_;
    }

private:
    const int master_;
    std::atomic<bool> stop_{false};
    mutable std::mutex mutex_; // guards text_
    std::string text_;
    std::thread reader_;
};

/// The system log of a program that sees a /dev of its own.
class SystemLog {
public:
    explicit SystemLog(const std::string& folder)
        : folder_(folder), socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        (folder + "/log").copy(address.sun_path, sizeof address.sun_path - 1);
        if (::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            throw std::runtime_error("no system log");
        const int room = 4 * 1024 * 1024;
        ::setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    }
    ~SystemLog() { ::close(socket_); }
    SystemLog(const SystemLog&) = delete;
    SystemLog& operator=(const SystemLog&) = delete;

    static Words ownMounts()
    {
        Words words{"unshare", "--mount"};
        if (::geteuid() != 0)
            words.insert(words.end(), {"--user", "--map-root-user"});
        return words;
    }
    Words launcher() const
    {
        Words words = ownMounts();
        words.insert(words.end(), {"sh", "-ec", R"(
            dev=$1/dev log=$1/log; shift
            mkdir "$dev"
            mount -t tmpfs tmpfs "$dev"
            mkdir "$dev/shm"
            mount --bind /dev/shm "$dev/shm"
            for each in null zero random urandom; do touch "$dev/$each"; mount --bind "/dev/$each" "$dev/$each"; done
            ln -s "$log" "$dev/log"
            mount --rbind "$dev" /dev
            exec "$@")",
                                   "sh", folder_});
        return words;
    }
    /// All records so far, a line each.
    std::string text()
    {
        char buffer[9000];
        for (ssize_t count; (count = ::recv(socket_, buffer, sizeof buffer, MSG_DONTWAIT)) >= 0;)
            text_ += std::string(buffer, static_cast<std::size_t>(count)) + "\n";
        return text_;
    }

private:
    std::string folder_;
    int socket_;
    std::string text_;
};

} // namespace zuTest
