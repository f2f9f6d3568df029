#include "tests/unit/zuLogSvc/program.h"

#include "tests/unit/zuLogSvc/support.h"

namespace zuTest {

namespace bp = boost::process;

Program::Program(std::vector<std::string> arguments, bool readOutput)
    : child_(bp::exe = ZU_LOG_SERVICE, bp::args = std::move(arguments), bp::std_in<bp::null, bp::std_out> outputPipe_,
             bp::std_err > errorPipe_)
{
    if (readOutput)
        outputReader_ = std::thread([this] { read(outputPipe_, output_); });
    errorReader_ = std::thread([this] { read(errorPipe_, errors_); });
}

Program::~Program()
{
    std::error_code error;
    if (child_.running(error))
        child_.terminate(error);
    child_.wait(error);
    if (outputReader_.joinable())
        outputReader_.join();
    errorReader_.join();
}

void Program::read(bp::ipstream& from, std::string& to)
{
    std::string line;
    while (std::getline(from, line)) {
        const std::lock_guard lock(mutex_);
        to += line + "\n";
    }
}

void Program::signal(const std::string& name)
{
    bp::system(bp::search_path("kill"), "-" + name, std::to_string(child_.id()));
}

int Program::exitStatus()
{
    if (!eventually([this] { return !running(); }))
        return -1;
    if (outputReader_.joinable())
        outputReader_.join();
    // An end by a signal reads as a status above 128 elsewhere; here it is no status.
    return WIFEXITED(child_.native_exit_code()) ? child_.exit_code() : -1;
}

std::string Program::output() const
{
    const std::lock_guard lock(mutex_);
    return output_;
}

std::string Program::errors() const
{
    const std::lock_guard lock(mutex_);
    return errors_;
}

bool Program::printed(const std::string& text) const
{
    return eventually([&] { return output().find(text) != std::string::npos; });
}

bool Program::complained(const std::string& text) const
{
    return eventually([&] { return errors().find(text) != std::string::npos; });
}

bool Program::running()
{
    std::error_code error;
    return child_.running(error);
}

void Program::closeOutput() { outputPipe_.pipe().close(); }

} // namespace zuTest
