// The service manager's wrapper for the one service of this executable: installs, deletes, starts and stops it from the
// command line, and inside the service process reports its state and turns the stop control into a call.
// The object is used on one thread; ServiceMain and ControlHandler run beside it once `Run` has been entered.
#pragma once

#include "platform/service_manager.h"

#include <cstdint>
#include <stdexcept>
#include <string>

#include <boost/function.hpp>

namespace GEV {

/// A service operation that failed; the text says which.
class WinServiceException : public std::runtime_error {
public:
    explicit WinServiceException(const std::string& what) : std::runtime_error(what) {}
};

/// One object at a time in a process. Every operation throws `WinServiceException`; all but `SetStatus`, `ServiceMain`
/// and `ControlHandler` need the manager open. A service handle that a failure leaves open stays so until the process
/// ends.
class CWinSvc {
public:
    CWinSvc();
    virtual ~CWinSvc();
    CWinSvc(const CWinSvc&) = delete;
    CWinSvc& operator=(const CWinSvc&) = delete;

    void OpenManager();

    /// Registers `commandLine`, an absolute path on a volume of this machine and its arguments, to start with the
    /// machine. A path on a volume that stands for a directory of another one is registered by that directory.
    void Install(const char* commandLine);
    void Delete();

    /// Starts the service and waits until it runs. Gives up when it makes no progress for its own wait hint.
    void Start();

    /// Stops the service and waits up to 10 seconds until it has stopped. No error if it isn't running.
    void Stop();

    /// Serves as the service: `run` is its body, `stop` is called when it is to end. Blocks until it has ended.
    void Run(boost::function<void()> run, boost::function<void()> stop);

    /// Reports a state, one from `zuPlatform::serviceStopped` to `serviceRunning`.
    void SetStatus(std::uint32_t state);

    /// Body of the service, on the thread that the dispatcher makes. The arguments are of no use to it.
    void ServiceMain(std::uint32_t count, char** arguments);

    /// Takes a control, on the dispatcher's thread.
    void ControlHandler(std::uint32_t control);

protected:
    std::string serviceName;
    std::string displayName;
    zuPlatform::ServiceHandle manager = 0;
    zuPlatform::ServiceStatusHandle statusHandle = 0;
    bool verbose = false;
    boost::function<void()> stopCallback;
    boost::function<void()> runCallback;
};

} // namespace GEV
