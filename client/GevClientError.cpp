// Texts of the status codes, and the one place where the exception classes live. Any thread.
#include "client/GevClientError.h"

namespace zuGevClient {

// Defined here so that each class has one home, also when the library is shared.
Error::~Error() = default;
NoDaemonError::~NoDaemonError() = default;
DaemonLostError::~DaemonLostError() = default;
TimeoutError::~TimeoutError() = default;
DaemonError::~DaemonError() = default;
ClosedError::~ClosedError() = default;
CameraError::~CameraError() = default;

const char* statusText(std::int32_t status)
{
    switch (status) {
    case Status::success:
        return "success";
    case Status::generalFailure:
        return "general failure";
    case Status::notImplemented:
        return "not implemented, or an unknown status";
    case Status::busy:
        return "the camera is busy";
    case Status::accessDenied:
        return "access denied";
    case Status::invalidParameter:
        return "invalid parameter";
    case Status::timeout:
        return "the camera does not answer";
    case Status::invalidAddress:
        return "invalid address";
    case Status::socketClosed:
        return "the camera sent an empty answer";
    case Status::writeProtect:
        return "the address is write protected";
    case Status::memoryOverrun:
        return "memory overrun in the camera";
    case Status::responseTimeout:
        return "response timeout";
    case Status::notAnAcknowledge:
        return "the camera sent something that is no acknowledge";
    case Status::badAlignment:
        return "bad alignment";
    case Status::invalidHeader:
        return "invalid header";
    case Status::localProblem:
        return "problem within the camera";
    case Status::messageMismatch:
        return "the acknowledge does not belong to the command";
    case Status::invalidProtocol:
        return "invalid protocol version";
    case Status::packetUnavailable:
        return "the packet is no longer available";
    default:
        return "unknown status";
    }
}

} // namespace zuGevClient
