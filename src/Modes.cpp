// The executable's jobs. All run on the process's first thread.
#include "src/Modes.h"

#include "logging/log.h"
#include "platform/named_mutex.h"
#include "platform/process.h"
#include "platform/service_notify.h"
#include "src/ServiceLoop.h"
#include "src/WinSvc.h"

#include <iostream>
#include <memory>

#include <boost/bind/bind.hpp>

namespace zuGevDaemon {

namespace options = boost::program_options;
using zuLogging::log_info;
using zuLogging::log_warn;

std::uint64_t VersionQuad = 0;

namespace {

constexpr const char* instanceMutexName = "Global\\ZuGevSvc_Instance";
constexpr std::uint32_t instanceWaitMs = 500;
constexpr unsigned usageLineLength = 80;
constexpr unsigned usageDescriptionLength = 40;
constexpr std::size_t bannerWidth = 65;
constexpr std::size_t bannerIndent = 18;

std::unique_ptr<zuPlatform::NamedMutex> instanceMutex;

/// Runs one job of service control and prints how it ended.
template <typename TJob>
void ControlService(const char* verb, TJob job)
{
    PrintBanner(std::cout);
    try {
        GEV::CWinSvc service;
        service.OpenManager();
        job(service);
        std::cout << verb << " Service successful\n" << std::flush;
    } catch (const std::exception&) {
        std::cout << verb << " Service failed\n" << std::flush;
    }
}

} // namespace

options::options_description MakeOptions()
{
    options::options_description description("Generic options", usageLineLength, usageDescriptionLength);
    // clang-format off
    description.add_options()
        ("svc,s", "Run as service")
        ("help,h", "Print usage")
        ("install,i", "Install service")
        ("delete,d", "Delete service")
        ("start,t", "Start service")
        ("stop,o", "Stop service")
        ("log", options::value<std::string>(), "Log activity ( only in combination with --execute)")
        ("execute,x", "Execute as application");
    // clang-format on
    return description;
}

RunMode ComputeMode(const options::variables_map& chosen)
{
    RunMode mode = chosen.count("svc") != 0 ? RunMode::Service : RunMode::Help;
    if (chosen.count("install") != 0)
        mode = RunMode::Install;
    if (chosen.count("delete") != 0)
        mode = RunMode::Delete;
    if (chosen.count("start") != 0)
        mode = RunMode::Start;
    if (chosen.count("stop") != 0)
        mode = RunMode::Stop;
    if (chosen.count("execute") != 0)
        mode = RunMode::Execute;
    return mode;
}

void PrintBanner(std::ostream& out)
{
    const std::string stars(bannerWidth, '*');
    out << std::endl;
    out << stars << "\n";
    out << std::string(bannerIndent, ' ') << "(c) ORTOLAN. All rights reserved.\n";
    out << stars << "\n\n";
    out << "ORTOLAN GigE Vision Service\n";
    out << "Version   : \t" << zuPlatform::versionText(VersionQuad) << "\n";
    out << "BuildDate : \t" << __DATE__ << "\n\n" << std::flush;
}

bool AcquireInstanceMutex()
{
    int error = 0;
    instanceMutex = zuPlatform::NamedMutex::create(instanceMutexName, error);
    if (!instanceMutex) {
        std::cout << "OpenService failed (" << error << ")" << std::endl;
        return false;
    }
    return instanceMutex->wait(instanceWaitMs) == zuPlatform::NamedMutex::WaitResult::signalled;
}

void ReleaseInstanceMutex() { instanceMutex->release(); }
void CloseInstanceMutex() { instanceMutex.reset(); }

void RunExecute()
{
    PrintBanner(std::cout);
    if (!AcquireInstanceMutex()) {
        CloseInstanceMutex();
        std::cout << "\nAn instance of this application / service is already running on this system.\n\n" << std::flush;
        return;
    }
    zuPlatform::setStopHandler(&RequestTermination);
    ZU_LOG(zuLogging::get_logstate("main"), log_info, "Running as GevSvc as Application");
    ServiceLoop(false);
    ReleaseInstanceMutex();
    CloseInstanceMutex();
}

void RunInstall(const std::string& executablePath)
{
    // Any failure at all is answered here, of whatever type.
    try {
        ControlService("Install", [&](GEV::CWinSvc& service) { service.Install((executablePath + " -s ").c_str()); });
    } catch (...) {
        std::cout << "Install Service failed\n" << std::flush;
    }
}

void RunDelete()
{
    ControlService("Delete", [](GEV::CWinSvc& service) { service.Delete(); });
}

void RunStart()
{
    ControlService("Start", [](GEV::CWinSvc& service) { service.Start(); });
}

void RunStop()
{
    ControlService("Stop", [](GEV::CWinSvc& service) { service.Stop(); });
}

void RunService()
{
    try {
        ZU_LOG(zuLogging::get_logstate("main"), log_info, "Enter service");
        if (!AcquireInstanceMutex()) {
            ZU_LOG(zuLogging::get_logstate("main"), log_warn,
                   "An instance of this application / service is already running on this system.");
            zuPlatform::notifyServiceStatus("Another instance is already running on this system");
            CloseInstanceMutex();
            return;
        }
        GEV::CWinSvc service;
        service.OpenManager();
        service.Run(boost::bind(&ServiceLoop, true), &RequestTermination);
        ReleaseInstanceMutex();
        CloseInstanceMutex();
    } catch (const std::exception&) {
        // Started by hand, say: the service manager is the only one to tell.
    }
}

} // namespace zuGevDaemon
