// A child process with its three standard streams. What outlives a test is ended by its id.
#pragma once

#include <boost/process.hpp>

#include <csignal>
#include <future>
#include <iterator>
#include <string>
#include <vector>

namespace gevsimTest {

class Process {
public:
    Process(const std::string& program, const std::vector<std::string>& arguments)
        : child_(boost::process::exe = program, boost::process::args = arguments,
                 boost::process::std_in<input_, boost::process::std_out> output_, boost::process::std_err > error_)
    {
    }
    ~Process()
    {
        if (child_.running())
            child_.terminate();
        child_.wait();
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    /// The next line of standard output; waits for it.
    std::string line()
    {
        std::string text;
        std::getline(output_, text);
        return text;
    }
    void type(const std::string& line) { input_ << line << std::endl; }
    void closeInput() { input_.pipe().close(); }
    void terminate() { ::kill(child_.id(), SIGTERM); }
    int wait()
    {
        child_.wait();
        return child_.exit_code();
    }
    /// All of standard output or standard error that is left; waits for the end of the process.
    std::string rest() { return {std::istreambuf_iterator<char>(output_), {}}; }
    std::string errors() { return {std::istreambuf_iterator<char>(error_), {}}; }

private:
    boost::process::opstream input_;
    boost::process::ipstream output_, error_;
    boost::process::child child_;
};

} // namespace gevsimTest
