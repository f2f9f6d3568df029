// A process that logs without pause: sender PORT NAME COUNT. Begins at the first line on its standard input, says
// "done", and then sends its last message, number COUNT + 1, at each further line.
#include "tests/unit/zuLogSvc/support.h"

#include "platform/process.h"
#include "platform/socket.h"

#include <cstdlib>
#include <iostream>

int main(int argc, char** argv)
{
    if (argc != 4)
        return 2;
    const auto port = static_cast<std::uint16_t>(std::stoul(argv[1]));
    const std::string name = argv[2];
    const std::uint64_t count = std::stoull(argv[3]);
    const auto socket = zuPlatform::DatagramSocket::open();
    if (!socket)
        return 1;
    const auto service = zuPlatform::loopbackAt(zuPlatform::hostToNetwork16(port));
    const auto send = [&](std::uint64_t number) {
        auto message = zuTest::someMessage("sender " + name + " number " + std::to_string(number) + " end", number);
        message.process = zuPlatform::currentProcessId();
        const auto packet = zuTest::datagramOf(message);
        socket->sendTo(packet.data(), packet.size(), service);
    };
    std::cout << "ready" << std::endl;
    std::string line;
    std::getline(std::cin, line);
    for (std::uint64_t number = 1; number <= count; ++number)
        send(number);
    std::cout << "done" << std::endl;
    while (std::getline(std::cin, line))
        send(count + 1);
    return 0;
}
