// CWinSvc: the operations of the command line, and the service process's own entries.

#include "src/WinSvc.h"

#include "logging/log.h"
#include "platform/clock.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <iostream>
#include <utility>

namespace GEV {

namespace {

constexpr std::uint32_t managerAllAccess = 0xF003F;
constexpr std::uint32_t serviceAllAccess = 0xF01FF;
constexpr std::uint32_t serviceDeleteAccess = 0x10000;
constexpr std::uint32_t serviceStopAccess = 0x2C; // query status, enumerate dependents, stop
constexpr std::uint32_t automaticStart = 2;
constexpr std::uint32_t normalErrorControl = 1;

constexpr std::uint32_t minimumStartPollMs = 1000;
constexpr std::uint32_t maximumStartPollMs = 10000;
constexpr std::uint32_t stopDeadlineMs = 10000;

// The manager's callbacks carry no context.
std::atomic<CWinSvc*> current{nullptr};

void serviceMainEntry(std::uint32_t count, char** arguments)
{
    if (CWinSvc* service = current.load())
        service->ServiceMain(count, arguments);
}

void controlEntry(std::uint32_t control)
{
    if (CWinSvc* service = current.load())
        service->ControlHandler(control);
}

std::uint32_t millisecondsSince(std::uint32_t start) { return zuPlatform::tickCount() - start; }

/// "\??\C:\dir": a volume that stands for a directory of another one.
bool standsForDirectory(const char* device) { return device[0] != '\0' && device[1] == '?' && device[2] == '?'; }
constexpr std::size_t directoryOffset = 4;

} // namespace

CWinSvc::CWinSvc() : serviceName("zuGevSvc"), displayName("ORTOLAN GigE Vision Service") { current.store(this); }

CWinSvc::~CWinSvc()
{
    if (manager != 0)
        zuPlatform::closeServiceHandle(manager);
    current.store(nullptr);
}

void CWinSvc::OpenManager()
{
    manager = zuPlatform::openServiceManager(managerAllAccess);
    if (manager == 0) {
        if (verbose)
            std::cout << "OpenSCManager failed (" << zuPlatform::serviceError() << "\n" << std::flush;
        throw WinServiceException("Unable to open service manager");
    }
}

void CWinSvc::Install(const char* commandLine)
{
    std::string path = commandLine != nullptr ? commandLine : "";
    const std::string volume = zuPlatform::volumeOfPath(path);
    if (volume.empty()) {
        std::cout << "failed to retrieve exe name\n" << std::flush;
        throw WinServiceException("Install failed");
    }
    if (zuPlatform::volumeType(volume) != zuPlatform::volumeFixed) {
        std::cout << "failed to retrieve drive type\n" << std::flush;
        throw WinServiceException("Install failed");
    }

    std::array<char, 0x400> device{};
    zuPlatform::queryVolumeDevice(volume, device.data(), device.size());
    device.back() = '\0';
    if (standsForDirectory(device.data())) {
        // A text that ends right behind the mark has no directory to offer.
        const std::string directory(device.data());
        path = directory.substr(std::min(directoryOffset, directory.size())) + path.substr(volume.size());
    }

    const zuPlatform::ServiceHandle service =
        zuPlatform::createService(manager, serviceName, displayName, serviceAllAccess, zuPlatform::serviceOwnProcess,
                                  automaticStart, normalErrorControl, path);
    if (service == 0) {
        if (verbose)
            std::cout << "Install service failed " << std::endl;
        throw WinServiceException("Install failed");
    }
    zuPlatform::closeServiceHandle(service);
}

void CWinSvc::Delete()
{
    const zuPlatform::ServiceHandle service = zuPlatform::openService(manager, serviceName, serviceDeleteAccess);
    if (service == 0) {
        if (verbose)
            std::cout << "OpenService failed (" << zuPlatform::serviceError() << ")" << std::endl;
        throw WinServiceException("OpenService failed");
    }
    if (!zuPlatform::deleteService(service)) {
        if (verbose)
            std::cout << "DeleteService failed (" << zuPlatform::serviceError() << ")" << std::endl;
        throw WinServiceException("DeleteService failed");
    }
    if (verbose)
        std::cout << "DeleteService succeeded\n" << std::flush;
    zuPlatform::closeServiceHandle(service);
}

void CWinSvc::Start()
{
    const zuPlatform::ServiceHandle service = zuPlatform::openService(manager, serviceName, serviceAllAccess);
    if (service == 0) {
        if (verbose)
            std::cout << "Unable to open service\n" << std::flush;
        throw WinServiceException("Unable to open service");
    }
    if (!zuPlatform::startService(service)) {
        if (verbose)
            std::cout << "Unable to start service\n" << std::flush;
        throw WinServiceException("Unable to start service");
    }
    if (verbose)
        std::cout << "Service start pending.\n" << std::flush;

    zuPlatform::ServiceStatus status;
    if (!zuPlatform::queryServiceStatus(service, status)) {
        if (verbose)
            std::cout << "Unable to inquire service status\n" << std::flush;
        throw WinServiceException("Unable to inquire service ");
    }
    std::uint32_t progressStart = zuPlatform::tickCount();
    std::uint32_t checkpoint = status.checkpoint;
    while (status.state == zuPlatform::serviceStartPending) {
        zuPlatform::sleepMs(std::clamp(status.waitHint / 10, minimumStartPollMs, maximumStartPollMs));
        zuPlatform::ServiceStatus next;
        if (!zuPlatform::queryServiceStatus(service, next))
            break;
        status = next;
        if (status.checkpoint > checkpoint) {
            checkpoint = status.checkpoint;
            progressStart = zuPlatform::tickCount();
        } else if (millisecondsSince(progressStart) > status.waitHint) {
            break;
        }
    }
    zuPlatform::closeServiceHandle(service);

    if (status.state != zuPlatform::serviceRunning)
        throw WinServiceException("Service not running");
    if (verbose)
        std::cout << "StartService SUCCESS.\n" << std::flush;
}

void CWinSvc::Stop()
{
    const zuPlatform::ServiceHandle service = zuPlatform::openService(manager, serviceName, serviceStopAccess);
    if (service == 0) {
        if (verbose)
            std::cout << "Unable to open service\n" << std::flush;
        throw WinServiceException("Unable to open service");
    }

    const auto fail = [this](const char* words) {
        if (verbose)
            std::cout << words << "\n" << std::flush;
        throw WinServiceException(words);
    };
    zuPlatform::ServiceStatus status;
    const auto query = [this, service, &status] {
        if (zuPlatform::queryServiceStatus(service, status))
            return;
        if (verbose)
            std::cout << "Unable to query service status\n" << std::flush;
        throw WinServiceException("Unable to query service ");
    };

    const std::uint32_t start = zuPlatform::tickCount();
    query();
    if (status.state == zuPlatform::serviceStopped)
        return;
    while (status.state == zuPlatform::serviceStopPending) {
        zuPlatform::sleepMs(status.waitHint);
        query();
        if (status.state == zuPlatform::serviceStopped)
            return;
        if (millisecondsSince(start) > stopDeadlineMs)
            fail("Timeout");
    }

    if (!zuPlatform::controlService(service, zuPlatform::serviceControlStop, status))
        fail("ControlService(SERVICE_CONTROL_STOP) failed");
    while (status.state != zuPlatform::serviceStopped) {
        zuPlatform::sleepMs(status.waitHint);
        if (!zuPlatform::queryServiceStatus(service, status))
            fail("QueryServiceStatusEx failed");
        if (status.state != zuPlatform::serviceStopped && millisecondsSince(start) > stopDeadlineMs)
            fail("Timeout");
    }
    zuPlatform::closeServiceHandle(service);
}

void CWinSvc::Run(boost::function<void()> run, boost::function<void()> stop)
{
    runCallback = std::move(run);
    stopCallback = std::move(stop);
    if (!zuPlatform::startServiceDispatcher(serviceName, &serviceMainEntry)) {
        if (verbose)
            std::cout << "StartServiceCtrlDispatcher failed" << std::flush;
        throw WinServiceException("StartServiceCtrlDispatcher failed");
    }
    if (verbose)
        std::cout << "StartServiceCtrlDispatcher succeeded" << std::flush;
}

void CWinSvc::ServiceMain(std::uint32_t, char**)
{
    statusHandle = zuPlatform::registerServiceControlHandler(serviceName, &controlEntry);

    const zuLogging::logstate log = zuLogging::get_logstate("Svc");
    ZU_LOG(log, zuLogging::log_info, "Service loop starting");
    SetStatus(zuPlatform::serviceRunning);
    runCallback();
    ZU_LOG(log, zuLogging::log_info, "Service loop terminated");
    SetStatus(zuPlatform::serviceStopped);
}

void CWinSvc::ControlHandler(std::uint32_t control)
{
    if (control == zuPlatform::serviceControlStop || control == zuPlatform::serviceControlShutdown) {
        SetStatus(zuPlatform::serviceStopPending);
        stopCallback();
    } else {
        SetStatus(zuPlatform::serviceRunning);
    }
}

void CWinSvc::SetStatus(std::uint32_t state)
{
    zuPlatform::ServiceStatus status;
    status.type = zuPlatform::serviceOwnProcess;
    status.state = state;
    status.controlsAccepted = state == zuPlatform::serviceStartPending ? 0 : zuPlatform::serviceAcceptsStopAndShutdown;
    if (!zuPlatform::setServiceStatus(statusHandle, status)) {
        if (verbose)
            std::cout << "SerServiceStatus failed" << std::endl;
        throw WinServiceException("SerServiceStatus failed");
    }
}

} // namespace GEV
