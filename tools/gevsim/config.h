// What a simulated camera is made of.
#pragma once

#include "tools/gevsim/wire.h"

#include <cstdint>
#include <functional>
#include <string>

namespace gevsim {

struct Config {
    /// Where the camera listens. Not 0.0.0.0: a camera has one address.
    Endpoint endpoint{0x7F000001, 0};
    std::uint32_t subnetMask = 0; ///< host byte order; 0: that of the network interface
    /// Also answers DISCOVERY that is sent to 255.255.255.255 and to the broadcast address of the camera's network.
    bool broadcastDiscovery = false;

    std::string manufacturer = "Simulated Optics";
    std::string model = "gevsim";
    std::string version = "1.0";
    std::string info = "Simulated camera";
    std::string serial;    ///< empty: made from address and port
    std::string userName;  ///< at power-up
    std::uint64_t mac = 0; ///< 0: made from address and port
    std::uint32_t heartbeatTimeoutMs = 3000;
    std::uint32_t memorySize = 1024 * 1024; ///< bytes at region::memory; a multiple of 4, at most 256 MiB
    bool zippedXml = false;                 ///< the GenICam file stands zipped in the camera

    /// As the standard has it, only the holder of control may write. False: while nobody holds it, everybody may.
    bool writesNeedControl = true;
    /// Answers 0x8005 to a WRITEMEM whose length is no multiple of 4, which is otherwise accepted.
    bool strictWriteMem = false;

    std::uint32_t sensorWidth = 640, sensorHeight = 480; ///< multiples of 4 and 2 from 16 to 16384
    /// Starts with 64-bit block ids, which can be switched on and off by a client in any case, and calls itself a
    /// camera of version 2.0 of the standard.
    bool extendedIds = false;
    /// The stream channel stays open, and acquisition goes on, when control ends: a camera that doesn't keep the rules.
    bool keepsStream = false;
    /// Pictures leave no faster than over such a link, in megabits a second. 0: as fast as the machine can.
    std::uint32_t linkSpeed = 1000;
    std::size_t resendFrames = 8; ///< frames from which packets can be sent again

    bool recording = true;            ///< keeps every datagram; switch it off for long runs and benchmarks
    std::size_t recordLimit = 200000; ///< older datagrams are forgotten

    std::uint64_t seed = 1; ///< of random loss

    /// Gets one line, without time and line end, for every datagram and for events such as the loss of control. Called
    /// on the camera's threads with its lock held: it must not call the camera.
    std::function<void(const std::string&)> trace;
};

} // namespace gevsim
