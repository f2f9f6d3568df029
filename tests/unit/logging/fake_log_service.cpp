#include "tests/unit/logging/fake_log_service.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

namespace zuTest {

void useOwnObjectNames() { zuPlatform::setObjectNamePrefixForTesting("zulogtest" + std::to_string(::getpid()) + '-'); }

Port::Port(const char* address) : socket_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in bound{};
    bound.sin_family = AF_INET;
    ::inet_pton(AF_INET, address, &bound.sin_addr);
    socklen_t size = sizeof bound;
    if (socket_ < 0 || ::bind(socket_, reinterpret_cast<const sockaddr*>(&bound), sizeof bound) != 0 ||
        ::getsockname(socket_, reinterpret_cast<sockaddr*>(&bound), &size) != 0)
        throw std::runtime_error("no port");
    number_ = ntohs(bound.sin_port);
}

Port::~Port() { ::close(socket_); }

Bytes Port::receive(int timeoutMs)
{
    pollfd input{socket_, POLLIN, 0};
    if (::poll(&input, 1, timeoutMs) != 1)
        return {};
    Bytes packet(0x10000);
    sockaddr_in from{};
    socklen_t size = sizeof from;
    const ssize_t count =
        ::recvfrom(socket_, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr*>(&from), &size);
    packet.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
    senderAddress_ = from.sin_addr.s_addr;
    senderPort_ = from.sin_port;
    return packet;
}

void Port::answer(const Bytes& packet) const
{
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = senderAddress_;
    to.sin_port = senderPort_;
    if (::sendto(socket_, packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) < 0)
        throw std::runtime_error("no answer sent");
}

FakeLogService::FakeLogService(Answer answer, const std::string& objectName)
    : answer_(std::move(answer)), objectName_(objectName)
{
    int error = 0;
    const Bytes content = connectionBlock(0x7F000B01, commands_.number(), 0x7F000B02, messages_.number());
    block_ = zuPlatform::SharedMemory::create(objectName_, content.size(), error);
    void* const view = block_ ? block_->map(content.size()) : nullptr;
    if (view == nullptr)
        throw std::runtime_error("no block");
    std::memcpy(view, content.data(), content.size());
    thread_ = std::thread([this] { serve(); });
}

FakeLogService::FakeLogService(const std::string& json)
    : FakeLogService([json](const Bytes& request) {
          return acknowledgeOf(request, fieldOf(request, 4, 2) == 1 ? json : std::string());
      })
{
}

FakeLogService::~FakeLogService()
{
    {
        const std::lock_guard lock(mutex_);
        stop_ = true;
    }
    thread_.join();
    zuPlatform::SharedMemory::remove(objectName_);
}

std::vector<Bytes> FakeLogService::requests() const
{
    const std::lock_guard lock(mutex_);
    return requests_;
}

void FakeLogService::serve()
{
    for (;;) {
        const Bytes request = commands_.receive(20);
        const std::lock_guard lock(mutex_);
        if (stop_)
            return;
        if (request.empty())
            continue;
        requests_.push_back(request);
        const Bytes reply = answer_(request);
        if (!reply.empty())
            commands_.answer(reply);
    }
}

} // namespace zuTest
