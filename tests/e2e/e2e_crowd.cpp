// argv[1] client processes, each with a connection of its own, that read a register of the camera at argv[2]
// (host-order number), argv[3], stay until a line comes on standard input, and leave.
#include "client/GevClient.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace {

int member(const zuGevClient::Endpoint& camera, int ready, int go)
{
    try {
        zuGevClient::Connection connection;
        connection.setDestination(camera);
        const char done = connection.readRegister(0x0938) == 3000 ? 'y' : 'n';
        if (::write(ready, &done, 1) != 1)
            return 1;
        char byte = 0;
        return ::read(go, &byte, 1) == 0 ? 0 : 1; // the end of the pipe is the sign to leave
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4)
        return 2;
    const int count = std::atoi(argv[1]);
    const zuGevClient::Endpoint camera{static_cast<std::uint32_t>(std::strtoul(argv[2], nullptr, 10)),
                                       static_cast<std::uint16_t>(std::strtoul(argv[3], nullptr, 10))};
    int ready[2];
    int go[2];
    if (::pipe(ready) != 0 || ::pipe(go) != 0)
        return 1;
    std::vector<pid_t> members;
    bool good = true;
    // A dozen at a time come in: the daemon answers one announce after the other, within a client's patience.
    constexpr int atOnce = 12;
    int answered = 0;
    const auto awaitAnswer = [&] {
        char byte = 0;
        if (::read(ready[0], &byte, 1) != 1 || byte != 'y')
            good = false;
        ++answered;
    };
    for (int i = 0; i < count; ++i) {
        if (i - answered >= atOnce)
            awaitAnswer();
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::close(go[1]);
            ::close(ready[0]);
            std::_Exit(member(camera, ready[1], go[0]));
        }
        members.push_back(pid);
    }
    ::close(ready[1]);
    while (answered < count)
        awaitAnswer();
    std::puts(good ? "all have read" : "some have failed");
    std::fflush(stdout);
    std::getchar();
    ::close(go[1]);
    for (const pid_t pid : members) {
        int status = 0;
        ::waitpid(pid, &status, 0);
        good = good && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    return good ? 0 : 1;
}
