#include "bench/own_network.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

namespace zuBench {

namespace {

void require(bool good, const char* what)
{
    if (!good)
        throw std::runtime_error(std::string("a network of its own isn't permitted here: ") + what + ": " +
                                 std::strerror(errno));
}

/// Root of a user namespace is allowed what the user himself is not.
void becomeRootOfOwnUsers(int namespaces)
{
    const std::string user = std::to_string(::geteuid());
    const std::string group = std::to_string(::getegid());
    require(::unshare(CLONE_NEWUSER | namespaces) == 0, "unshare");
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
    std::ofstream("/proc/self/gid_map") << "0 " << group << " 1";
}

} // namespace

void enterOwnNetwork()
{
    constexpr int namespaces = CLONE_NEWNET | CLONE_NEWNS;
    if (::unshare(namespaces) != 0)
        becomeRootOfOwnUsers(namespaces);
    require(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
    require(::mount("tmpfs", "/dev/shm", "tmpfs", MS_NOSUID | MS_NODEV, nullptr) == 0, "/dev/shm");
    const int any = ::socket(AF_INET, SOCK_DGRAM, 0);
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    const bool up = any >= 0 && ::ioctl(any, SIOCSIFFLAGS, &request) == 0;
    ::close(any);
    require(up, "the loopback interface");
}

} // namespace zuBench
