// What the tests of the logging run daemons with: the log service as a process, places to which a daemon can log, and
// words in order.
#pragma once

#include "tests/support/child_process.h"
#include "tests/support/eventually.h"
#include "tests/support/files.h"
#include "tests/support/local_inbox.h"
#include "tests/support/terminal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <unistd.h>

namespace zuTest {

using Words = std::vector<std::string>;

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
        writeFile(settings_, R"({"rules": [{"module": "GEVSVC", "level": "all", "destination": ")" + destination + '"' +
                                 more + "}]}");
        return {builtProgram("zuLogSvc"), "--config", settings_};
    }

    std::string settings_;

public:
    ChildProcess process;
    bool killed = false;
};

/// The system log of a program that sees a /dev of its own.
class SystemLog {
public:
    explicit SystemLog(const std::string& folder) : folder_(folder), inbox_(folder + "/log") {}

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
        while (const auto record = inbox_.receive(0))
            text_ += *record + "\n";
        return text_;
    }

private:
    std::string folder_;
    LocalInbox inbox_;
    std::string text_;
};

} // namespace zuTest
