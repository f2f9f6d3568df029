// A client for the end-to-end tests: links the camera at argv[1] (host-order number), argv[2], says so, and waits for a
// line on standard input. Words behind that: "ack=MS" and "retries=N" are set once it is linked; "read" and
// "write=ADDRESS" are done behind the line, to register 0 and with the value 1.
#include "client/GevClient.h"

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

namespace {

std::uint32_t number(const std::string& text)
{
    return static_cast<std::uint32_t>(std::strtoul(text.c_str(), nullptr, 0));
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3)
        return 2;
    std::map<std::string, std::string> words;
    for (int i = 3; i < argc; ++i) {
        const std::string word = argv[i];
        const auto end = word.find('=');
        words[word.substr(0, end)] = end == std::string::npos ? "" : word.substr(end + 1);
    }
    try {
        zuGevClient::Connection connection;
        connection.setDestination({number(argv[1]), static_cast<std::uint16_t>(number(argv[2]))});
        if (!connection.link(zuGevClient::LinkMode::control()))
            return 1;
        if (words.count("ack") != 0)
            connection.setAckTimeout(zuGevClient::Milliseconds(number(words["ack"])));
        if (words.count("retries") != 0)
            connection.setRetries(number(words["retries"]));
        std::puts("linked");
        std::fflush(stdout);
        std::getchar();
        if (words.count("read") != 0)
            std::printf("%u\n", connection.readRegister(0));
        if (words.count("write") != 0)
            connection.writeRegister(number(words["write"]), 1);
    } catch (const std::exception& failure) {
        std::puts(failure.what());
        return 1;
    }
    return 0;
}
