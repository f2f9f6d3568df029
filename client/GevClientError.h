// What the client library throws, and the camera's status codes.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

// ZU_GEV_CLIENT_STATIC: the library is linked statically. ZU_GEV_CLIENT_BUILD: it is being built as a shared library.
#if defined(ZU_GEV_CLIENT_STATIC)
#define ZU_GEV_CLIENT_API
#elif defined(_MSC_VER) && defined(ZU_GEV_CLIENT_BUILD)
#define ZU_GEV_CLIENT_API __declspec(dllexport)
#elif defined(_MSC_VER)
#define ZU_GEV_CLIENT_API __declspec(dllimport)
#else
#define ZU_GEV_CLIENT_API __attribute__((visibility("default")))
#endif

namespace zuGevClient {

/// All failures of this library. Arguments that can't be meant (an access beyond 32-bit addresses) are
/// std::invalid_argument.
class ZU_GEV_CLIENT_API Error : public std::runtime_error {
public:
    explicit Error(const std::string& what) : std::runtime_error(what) {}
    ~Error() override;
};

/// No daemon was found, or the one that was there is gone.
class ZU_GEV_CLIENT_API NoDaemonError : public Error {
public:
    using Error::Error;
    ~NoDaemonError() override;
};

/// The daemon went away while connected. This connection stays useless, unless it follows the daemon; a new one may
/// find a new daemon.
class ZU_GEV_CLIENT_API DaemonLostError : public NoDaemonError {
public:
    using NoDaemonError::NoDaemonError;
    ~DaemonLostError() override;
};

/// The daemon lives but did not answer in time. A write may or may not have been done.
class ZU_GEV_CLIENT_API TimeoutError : public Error {
public:
    using Error::Error;
    ~TimeoutError() override;
};

/// The daemon answered, but could not do what was asked; its log tells why.
class ZU_GEV_CLIENT_API DaemonError : public Error {
public:
    using Error::Error;
    ~DaemonError() override;
};

/// The connection was closed or moved from.
class ZU_GEV_CLIENT_API ClosedError : public Error {
public:
    using Error::Error;
    ~ClosedError() override;
};

/// Outcomes of an access, as the daemon reports them.
namespace Status {
inline constexpr std::int32_t success = 0;
inline constexpr std::int32_t generalFailure = -1001;   ///< 0x8FFF; or a failed send; or a write without control
inline constexpr std::int32_t notImplemented = -1003;   ///< 0x8001, and every unknown status
inline constexpr std::int32_t busy = -1004;             ///< 0x8007
inline constexpr std::int32_t accessDenied = -1005;     ///< 0x8006
inline constexpr std::int32_t invalidParameter = -1009; ///< 0x8002
inline constexpr std::int32_t timeout = -1011;          ///< no acknowledge came
inline constexpr std::int32_t invalidAddress = -1015;   ///< 0x8003
inline constexpr std::int32_t socketClosed = -10004;    ///< an empty datagram came
inline constexpr std::int32_t writeProtect = -10009;    ///< 0x8004
inline constexpr std::int32_t memoryOverrun = -10011;   ///< 0x800D
inline constexpr std::int32_t responseTimeout = -10012; ///< 0x800B; or not one attempt was made
inline constexpr std::int32_t notAnAcknowledge = -10013;
inline constexpr std::int32_t badAlignment = -10014;      ///< 0x8005
inline constexpr std::int32_t invalidHeader = -10015;     ///< 0x800E
inline constexpr std::int32_t localProblem = -10016;      ///< 0x8008
inline constexpr std::int32_t messageMismatch = -10017;   ///< 0x8009; or an acknowledge to something else
inline constexpr std::int32_t invalidProtocol = -10018;   ///< 0x800A
inline constexpr std::int32_t packetUnavailable = -10019; ///< 0x800C
} // namespace Status

/// A short text for a status, without its number.
ZU_GEV_CLIENT_API const char* statusText(std::int32_t status);

/// The camera refused, or did not answer.
class ZU_GEV_CLIENT_API CameraError : public Error {
public:
    CameraError(const std::string& what, std::int32_t status) : Error(what), status_(status) {}
    ~CameraError() override;

    /// One of Status, never success. Refused links carry what the privilege register suggests.
    std::int32_t status() const { return status_; }

private:
    std::int32_t status_;
};

} // namespace zuGevClient
