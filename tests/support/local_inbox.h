// What programs of this machine send to a socket in the file system: the system log's, or a service manager's.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace zuTest {

class LocalInbox {
public:
    /// Throws std::runtime_error if `path` can't be bound.
    explicit LocalInbox(const std::string& path);
    ~LocalInbox(); ///< removes the file
    LocalInbox(const LocalInbox&) = delete;
    LocalInbox& operator=(const LocalInbox&) = delete;

    /// The next datagram, waited for this long; none after that.
    std::optional<std::string> receive(int timeoutMs);

private:
    const std::string path_;
    const int socket_;
};

} // namespace zuTest
