// The program's entry: options, priority, log configuration, one of the jobs, tear-down.
#include "logging/config.h"
#include "logging/logstate.h"
#include "logging/logtarget.h"
#include "platform/process.h"
#include "platform/thread.h"
#include "src/Modes.h"

#include <cstdlib>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>

#include <boost/program_options/parsers.hpp>
#include <boost/program_options/variables_map.hpp>
#include <boost/property_tree/ptree.hpp>

namespace {

namespace options = boost::program_options;
using zuGevDaemon::RunMode;

constexpr const char* moduleName = "GEVSVC";

std::unique_ptr<options::options_description> MakeOptionsOrExit()
{
    try {
        return std::make_unique<options::options_description>(zuGevDaemon::MakeOptions());
    } catch (const std::exception&) {
        zuGevDaemon::PrintBanner(std::cout);
        std::exit(0);
    }
}

RunMode ChooseMode(int argc, char** argv, const options::options_description& description,
                   options::variables_map& chosen)
{
    try {
        options::store(options::parse_command_line(argc, argv, description), chosen);
        options::notify(chosen);
        const RunMode mode = zuGevDaemon::ComputeMode(chosen);
        zuLogging::configure_logging(moduleName, "", boost::property_tree::ptree());
        return mode;
    } catch (const std::exception&) {
        return RunMode::Help;
    }
}

void Dispatch(RunMode mode, const options::options_description& description, const std::string& path)
{
    switch (mode) {
    case RunMode::Install:
        return zuGevDaemon::RunInstall(path);
    case RunMode::Delete:
        return zuGevDaemon::RunDelete();
    case RunMode::Start:
        return zuGevDaemon::RunStart();
    case RunMode::Stop:
        return zuGevDaemon::RunStop();
    case RunMode::Help:
        zuGevDaemon::PrintBanner(std::cout);
        std::cout << description << std::endl;
        std::exit(1);
    case RunMode::Execute:
        return zuGevDaemon::RunExecute();
    case RunMode::Service:
        return zuGevDaemon::RunService();
    }
}

void TearDownLogging()
{
    {
        const std::lock_guard lock(zuLogging::tree_mutex());
        zuLogging::prune_children(zuLogging::root_logstate(""));
    }
    zuLogging::clear_targets();
}

} // namespace

int main(int argc, char** argv)
{
    zuPlatform::ignoreBrokenPipe();
    auto description = MakeOptionsOrExit();
    zuPlatform::setRealtimePriorityClass();
    zuPlatform::setCurrentThreadPriority(zuPlatform::ThreadPriority::belowNormal);
    zuPlatform::raiseDescriptorLimit();
    auto chosen = std::make_unique<options::variables_map>();
    const RunMode mode = ChooseMode(argc, argv, *description, *chosen);
    const std::string path = zuPlatform::executablePath();
    zuPlatform::executableVersion(zuGevDaemon::VersionQuad);
    Dispatch(mode, *description, path);
    TearDownLogging();
    chosen.reset();
    description.reset();
    return 0;
}
