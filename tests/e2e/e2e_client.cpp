// A client for the end-to-end tests: links the camera at argv[1] (host-order number), argv[2], says so, and waits for a
// line on standard input; with "read" it then reads a register, and waits argv[4] milliseconds for each answer.
#include "client/GevClient.h"

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv)
{
    if (argc < 3)
        return 2;
    try {
        zuGevClient::Connection connection;
        connection.setDestination({static_cast<std::uint32_t>(std::strtoul(argv[1], nullptr, 10)),
                                   static_cast<std::uint16_t>(std::strtoul(argv[2], nullptr, 10))});
        if (!connection.link(zuGevClient::LinkMode::control()))
            return 1;
        if (argc > 4) {
            connection.setAckTimeout(zuGevClient::Milliseconds(std::strtoul(argv[4], nullptr, 10)));
            connection.setRetries(1000);
        }
        std::puts("linked");
        std::fflush(stdout);
        std::getchar();
        if (argc > 3)
            std::printf("%u\n", connection.readRegister(0));
    } catch (const std::exception& failure) {
        std::puts(failure.what());
        return 1;
    }
    return 0;
}
