// A camera of the test's own at the far end of a cable, in a network of its own: it answers DISCOVERY and FORCEIP as
// far as a test wants it to, and really takes the address that it is given.
#pragma once

#include "client/GevDiscovery.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zuTest {

/// What came in, as bytes, and where it was sent to.
struct Heard {
    std::vector<std::uint8_t> bytes;
    std::uint32_t to = 0; ///< host order
};

class NetworkCamera {
public:
    struct Behaviour {
        bool discoverable = true;      ///< answers DISCOVERY
        bool answersDirectly = true;   ///< else only by a broadcast, where the question permits that
        bool acknowledgesForce = true; ///< answers FORCEIP
        bool obeysForce = true;        ///< takes the address
        int forcesMissed = 0;          ///< so many FORCEIP get lost first
        std::uint16_t forceStatus = 0; ///< in the answer
    };

    /// Makes a cable whose near end in the calling thread's network is the interface `near`, without an address yet.
    /// The camera listens when this returns. Throws std::runtime_error.
    NetworkCamera(const std::string& near, std::uint8_t number, const zuGevClient::IpAddress& ip,
                  const Behaviour& behaviour);
    ~NetworkCamera();
    NetworkCamera(const NetworkCamera&) = delete;
    NetworkCamera& operator=(const NetworkCamera&) = delete;

    zuGevClient::MacAddress mac() const { return mac_; }
    std::vector<Heard> heard() const;
    zuGevClient::IpAddress ip() const;

private:
    void run();
    void takeAddress();
    void answer(int socket, const Heard& question, std::uint32_t fromAddress, std::uint16_t fromPort);
    std::vector<std::uint8_t> discoveryAnswer(const Heard& question) const;
    void force(const Heard& question);

    const zuGevClient::MacAddress mac_;
    Behaviour behaviour_;
    mutable std::mutex mutex_; ///< guards the four below
    std::condition_variable changed_;
    zuGevClient::IpAddress ip_;
    std::vector<Heard> heard_;
    int threadId_ = 0;
    enum class State { starting, cabled, listening, failed } state_ = State::starting;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

/// Runs a program that must succeed. Throws std::runtime_error with its output.
void must(const std::string& command);

} // namespace zuTest
