// The shared block in which the service publishes where it listens, and the rule that there is one service per machine.
#pragma once

#include "platform/named_mutex.h"
#include "platform/shared_memory.h"
#include "platform/socket.h"

#include <memory>
#include <optional>
#include <stdexcept>

namespace zuLogSvc {

/// Where a service listens, in network order.
struct Endpoints {
    zuPlatform::SocketAddress command;
    zuPlatform::SocketAddress message;
    friend bool operator==(const Endpoints&, const Endpoints&) = default;
};

/// A block or mutex that the system refuses.
class PublicationError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The right to be the machine's log service. Made and ended on one thread.
class InstanceGuard {
public:
    /// Null if a service is running. Throws PublicationError if the system refuses.
    static std::unique_ptr<InstanceGuard> take();
    ~InstanceGuard();

private:
    explicit InstanceGuard(std::unique_ptr<zuPlatform::NamedMutex> mutex) : mutex_(std::move(mutex)) {}
    std::unique_ptr<zuPlatform::NamedMutex> mutex_;
};

/// A published block, which only its owner can write. To be made only with the guard taken: a block that is there
/// already is then a dead service's, and is replaced. At the end the block is removed, and marked invalid for those who
/// have it mapped.
class ConnectionBlock {
public:
    /// Throws PublicationError, also if a block is another user's who alone can remove it.
    explicit ConnectionBlock(const Endpoints& endpoints);
    ~ConnectionBlock();
    ConnectionBlock(const ConnectionBlock&) = delete;
    ConnectionBlock& operator=(const ConnectionBlock&) = delete;

    /// Takes the name away, so that nobody finds the service any more. Touches nothing of the block.
    void withdraw();

private:
    bool published_ = false;
    std::unique_ptr<zuPlatform::SharedMemory> memory_;
    std::uint8_t* block_ = nullptr;
};

/// What is published, if it is valid. The service that published it may be dead.
std::optional<Endpoints> readConnectionBlock();

} // namespace zuLogSvc
