// A process of the log service, as a user starts it: its output as it comes, signals, its exit status.
#pragma once

#include <boost/process.hpp>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zuTest {

/// Runs the program with these arguments. Killed at the object's end if it still runs then.
class Program {
public:
    /// With `readOutput` off nobody reads its standard output, which is a pipe.
    explicit Program(std::vector<std::string> arguments, bool readOutput = true);
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    /// Sends a signal by its name, such as "TERM".
    void signal(const std::string& name);

    /// Waits for the end; the exit status, or -1 after the deadline or when a signal ended it.
    int exitStatus();

    std::string output() const; ///< so far
    std::string errors() const;
    bool printed(const std::string& text) const; ///< waits for the text in the output
    bool complained(const std::string& text) const;
    bool running();

    /// Closes the pipe that its standard output goes to.
    void closeOutput();

private:
    void read(boost::process::ipstream& from, std::string& to);

    boost::process::ipstream outputPipe_, errorPipe_;
    boost::process::child child_;
    mutable std::mutex mutex_; // guards output_ and errors_
    std::string output_, errors_;
    std::thread outputReader_, errorReader_;
};

} // namespace zuTest
