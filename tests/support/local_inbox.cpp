#include "tests/support/local_inbox.h"

#include <stdexcept>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace zuTest {

LocalInbox::LocalInbox(const std::string& path) : path_(path), socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        throw std::runtime_error("can't bind " + path);
    const int room = 4 * 1024 * 1024;
    ::setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
}

LocalInbox::~LocalInbox()
{
    ::close(socket_);
    ::unlink(path_.c_str());
}

std::optional<std::string> LocalInbox::receive(int timeoutMs)
{
    pollfd input{socket_, POLLIN, 0};
    if (::poll(&input, 1, timeoutMs) != 1)
        return std::nullopt;
    std::string record(100000, '\0');
    const ssize_t size = ::recv(socket_, record.data(), record.size(), MSG_DONTWAIT);
    if (size < 0)
        return std::nullopt;
    record.resize(static_cast<std::size_t>(size));
    return record;
}

} // namespace zuTest
