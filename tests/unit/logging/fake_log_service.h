// A log service of the test's own: publishes the connection block, answers commands, takes messages. It counts on
// nothing of the product's packets. The objects' names get a prefix of this process's own.
#pragma once

#include "platform/shared_memory.h"
#include "tests/unit/logging/bytes.h"

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zuTest {

/// Puts a prefix before the names of shared objects for this process.
void useOwnObjectNames();

/// A bound socket of the system's.
class Port {
public:
    explicit Port(const char* address);
    ~Port();
    Port(const Port&) = delete;
    Port& operator=(const Port&) = delete;

    std::uint16_t number() const { return number_; }
    /// The next datagram; empty after `timeoutMs`. The sender is kept for `answer`.
    Bytes receive(int timeoutMs = 20000);
    void answer(const Bytes& packet) const;

private:
    int socket_;
    std::uint16_t number_ = 0;
    std::uint32_t senderAddress_ = 0;
    std::uint16_t senderPort_ = 0;
};

class FakeLogService {
public:
    /// What to answer a request with; nothing if it returns an empty packet.
    using Answer = std::function<Bytes(const Bytes& request)>;

    explicit FakeLogService(Answer answer, const std::string& objectName = "Global\\zuLogSvcConnectionInfo");
    /// Answers a configuration request with this JSON, and any other command with success.
    explicit FakeLogService(const std::string& json);
    ~FakeLogService();

    std::vector<Bytes> requests() const;
    Port& messages() { return messages_; }

    static constexpr const char* commandAddress = "127.0.11.1";
    static constexpr const char* messageAddress = "127.0.11.2";

private:
    void serve();

    Answer answer_;
    Port commands_{commandAddress};
    Port messages_{messageAddress};
    std::string objectName_;
    std::unique_ptr<zuPlatform::SharedMemory> block_;
    mutable std::mutex mutex_;
    std::vector<Bytes> requests_;
    bool stop_ = false;
    std::thread thread_;
};

} // namespace zuTest
