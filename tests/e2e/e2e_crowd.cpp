// argv[1] client processes, each with a connection of its own, that read a register of the camera at argv[2]
// (host-order number), argv[3], stay until a line comes on standard input, and leave.
#include "client/GevClient.h"
#include "tests/support/forked_child.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

namespace {

int member(const zuGevClient::Endpoint& camera, const zuTest::Pipe& ready, const zuTest::Pipe& go)
{
    zuGevClient::Connection connection;
    connection.setDestination(camera);
    ready.send(connection.readRegister(0x0938) == 3000 ? "y" : "n");
    return go.read(1, std::chrono::hours(1)).empty() ? 0 : 1; // the end of the pipe is the sign to leave
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4)
        return 2;
    const int count = std::atoi(argv[1]);
    const zuGevClient::Endpoint camera{static_cast<std::uint32_t>(std::strtoul(argv[2], nullptr, 10)),
                                       static_cast<std::uint16_t>(std::strtoul(argv[3], nullptr, 10))};
    zuTest::Pipe ready;
    zuTest::Pipe go;
    std::vector<std::unique_ptr<zuTest::ForkedChild>> members;
    bool good = true;
    // A dozen at a time come in: the daemon answers one announce after the other, within a client's patience.
    constexpr int atOnce = 12;
    int answered = 0;
    const auto awaitAnswer = [&] {
        good = ready.read(1) == "y" && good;
        ++answered;
    };
    for (int i = 0; i < count; ++i) {
        if (i - answered >= atOnce)
            awaitAnswer();
        members.push_back(std::make_unique<zuTest::ForkedChild>([&] {
            go.closeWrite();
            ready.closeRead();
            return member(camera, ready, go);
        }));
    }
    ready.closeWrite();
    while (answered < count)
        awaitAnswer();
    std::puts(good ? "all have read" : "some have failed");
    std::fflush(stdout);
    std::getchar();
    go.closeWrite();
    for (const auto& member : members)
        good = member->exitCode() == 0 && good;
    return good ? 0 : 1;
}
