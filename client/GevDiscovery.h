// Finding the cameras of the network and giving them addresses. `discover` and `forceIp` need no daemon: they speak the
// standard's DISCOVERY and FORCEIP themselves, on the caller's thread. The rest works through a Connection. Any thread
// may call. Addresses are in host order. All failures are Errors (GevClientError.h), or std::invalid_argument for
// arguments that can't be meant.
#pragma once

#include "client/GevClient.h"

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace zuGevClient {

struct MacAddress {
    std::array<std::uint8_t, 6> bytes{};
    friend auto operator<=>(const MacAddress&, const MacAddress&) = default;
};

/// "00:11:22:AA:BB:CC".
ZU_GEV_CLIENT_API std::string toString(const MacAddress& mac);
/// Takes six pairs of hexadecimal digits with ':' or '-' between them, or with nothing; empty if the text is none.
ZU_GEV_CLIENT_API std::optional<MacAddress> parseMacAddress(const std::string& text);

/// An address with what belongs to it. A gateway of 0 is none.
struct IpAddress {
    std::uint32_t address = 0;
    std::uint32_t subnetMask = 0;
    std::uint32_t gateway = 0;
    friend bool operator==(const IpAddress&, const IpAddress&) = default;
};

/// How a camera comes by its address: bits of CameraInfo::ipOptions (what it can) and ipCurrent (what it does). It
/// tries them in this order each time it starts.
namespace IpMethod {
inline constexpr std::uint32_t persistent = 1; ///< the one it was given to keep
inline constexpr std::uint32_t dhcp = 2;
inline constexpr std::uint32_t linkLocal = 4; ///< 169.254.x.y, chosen by itself
inline constexpr std::uint32_t all = persistent | dhcp | linkLocal;
} // namespace IpMethod

/// What a camera says of itself. Texts end at their NUL; what is not UTF-8 or not printable in them is '?'.
struct CameraInfo {
    std::uint16_t versionMajor = 0; ///< of the standard
    std::uint16_t versionMinor = 0;
    std::uint32_t deviceMode = 0;
    MacAddress mac;
    std::uint32_t ipOptions = 0; ///< IpMethod, among other bits
    std::uint32_t ipCurrent = 0; ///< IpMethod, among other bits
    IpAddress ip;
    std::string manufacturer;
    std::string model;
    std::string deviceVersion;
    std::string manufacturerInfo;
    std::string serialNumber;
    std::string userName;
};

/// One IPv4 address of a network interface of this machine.
struct LocalInterface {
    std::string name; ///< as "eth0"
    std::uint32_t address = 0;
    std::uint32_t subnetMask = 0;
    bool loopback = false;
    friend bool operator==(const LocalInterface&, const LocalInterface&) = default;
};

/// Those that are up. An interface with several addresses is there once for each.
ZU_GEV_CLIENT_API std::vector<LocalInterface> localInterfaces();

/// Whether a camera with this address and this interface reach each other without a router.
ZU_GEV_CLIENT_API bool fits(const IpAddress& camera, const LocalInterface& local);

struct FoundCamera {
    CameraInfo info;
    Endpoint from;         ///< who answered
    LocalInterface seenOn; ///< on which it was seen; without a name for a camera that was asked through a router

    /// False if the camera hears a broadcast but can't be used: its address belongs to another subnet than that of the
    /// interface. `forceIp` mends it.
    bool fits() const { return seenOn.name.empty() || zuGevClient::fits(info.ip, seenOn); }
};

struct DiscoveryRequest {
    /// Broadcast on these, given by name or address. None: on all that are up, but for loopback.
    std::vector<std::string> interfaces;
    /// Ask these addresses, also beyond the local network. If there are some and no interface, only these are asked.
    std::vector<Endpoint> targets;
    /// How long to listen. Asked twice in this time; the second question permits the camera to answer by a broadcast.
    Milliseconds wait{1000};
    /// Looked at now and then; true ends the search early. May be empty.
    std::function<bool()> stop;
};

/// Blocks for the time given. Each camera once for each interface on which it was seen, in the order of their
/// addresses. Throws Error if there is no such interface or it is down, or if nothing could be sent at all.
ZU_GEV_CLIENT_API std::vector<FoundCamera> discover(const DiscoveryRequest& request = {});

/// A free address for a camera that doesn't fit the interface on which it was seen: like its own in the host's part,
/// and none of those that `found` and this machine have. What was not found may have it all the same. Empty if the
/// subnet has no room.
ZU_GEV_CLIENT_API std::optional<std::uint32_t> proposeAddress(const FoundCamera& camera,
                                                              const std::vector<FoundCamera>& found);

struct ForceIpRequest {
    MacAddress mac;
    /// Until the camera's next start. All zero: the camera looks for an address anew, as at its start.
    IpAddress ip;
    std::vector<std::string> interfaces; ///< as in DiscoveryRequest
    Milliseconds wait{3000};
    std::function<bool()> stop; ///< as in DiscoveryRequest
};

struct ForcedIp {
    bool acknowledged = false;         ///< cameras need not
    std::optional<FoundCamera> camera; ///< as it answers a discovery with the new address; not looked for if that is 0
};

/// Gives an address to the camera with this MAC address, wherever its old one lies. Broadcast up to three times until
/// the camera acknowledges; then looked for, until it is found or `wait` is over. Throws CameraError with the camera's
/// refusal, mostly Status::accessDenied since an application holds it, or with Status::timeout if neither an
/// acknowledge came nor the camera was found; Error as `discover` does.
ZU_GEV_CLIENT_API ForcedIp forceIp(const ForceIpRequest& request);

/// What a camera says of itself, through the daemon.
ZU_GEV_CLIENT_API CameraInfo readCameraInfo(Connection& connection);

// Settings that the camera keeps when it is switched off. Writing them needs a link with a privilege. Each is read
// back; CameraError with Status::generalFailure if the camera didn't take it, with Status::notImplemented, before
// anything is written, if it says that it can't.

/// Used at the camera's start while IpMethod::persistent is on.
ZU_GEV_CLIENT_API IpAddress persistentIp(Connection& connection);
/// Stores the address and, after that, turns IpMethod::persistent on. In force from the camera's next start, or from a
/// `forceIp` with zeros.
ZU_GEV_CLIENT_API void setPersistentIp(Connection& connection, const IpAddress& ip);

/// Bits of IpMethod that are on.
ZU_GEV_CLIENT_API std::uint32_t ipMethods(Connection& connection);
/// Turns on these and the others off, but for linkLocal, which cameras keep on as their last resort. In force as above.
ZU_GEV_CLIENT_API void setIpMethods(Connection& connection, std::uint32_t methods);

inline constexpr std::size_t userNameSize = 16;
ZU_GEV_CLIENT_API std::string userName(Connection& connection);
/// At most userNameSize bytes of UTF-8 without control characters; "" takes the name away.
ZU_GEV_CLIENT_API void setUserName(Connection& connection, const std::string& name);

} // namespace zuGevClient
