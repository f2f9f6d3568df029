// Bare processes that do nothing else: a camera that answers, and a relay. They give the floor that the daemon is
// measured against.
#pragma once

#include <cstddef>
#include <cstdint>

#include <netinet/in.h>

namespace zuBench {

/// A blocking datagram socket on the loopback interface.
class Udp {
public:
    explicit Udp(std::uint16_t port = 0); ///< host order; 0: chosen by the system
    ~Udp();
    Udp(const Udp&) = delete;
    Udp& operator=(const Udp&) = delete;
    std::uint16_t port() const { return port_; }
    int descriptor() const { return descriptor_; }
    void send(const void* data, std::size_t size, std::uint16_t toPort);
    void sendTo(const void* data, std::size_t size, const sockaddr_in& to);
    std::size_t receive(void* data, std::size_t size, sockaddr_in* from = nullptr);
    /// As `receive`, but throws std::runtime_error after `milliseconds`.
    void receiveWithin(unsigned milliseconds);

private:
    int descriptor_;
    std::uint16_t port_;
};

sockaddr_in loopback(std::uint16_t port);

/// Answers READREG, WRITEREG, READMEM and WRITEMEM for ever: registers hold what was written, memory reads as zeros.
[[noreturn]] void runCamera(Udp& socket);

/// Passes what it gets to `cameraPort` and the answer back, one at a time, for ever.
[[noreturn]] void runRelay(Udp& front, std::uint16_t cameraPort);

/// One READREG to `port`, directly.
void directReadReg(Udp& socket, std::uint16_t port, std::uint32_t address);
/// One READMEM of `size` bytes, directly.
void directReadMem(Udp& socket, std::uint16_t port, std::uint32_t address, std::uint16_t size);

} // namespace zuBench
