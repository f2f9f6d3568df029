#include "bench/bare.h"

#include <cstring>
#include <map>
#include <stdexcept>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace zuBench {

sockaddr_in loopback(std::uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

Udp::Udp(std::uint16_t port) : descriptor_(::socket(AF_INET, SOCK_DGRAM, 0)), port_(port)
{
    sockaddr_in address = loopback(port);
    socklen_t length = sizeof address;
    if (descriptor_ < 0 || ::bind(descriptor_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::getsockname(descriptor_, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        throw std::runtime_error("no socket");
    port_ = ntohs(address.sin_port);
    receiveWithin(20000);
}

Udp::~Udp() { ::close(descriptor_); }

void Udp::receiveWithin(unsigned milliseconds)
{
    const timeval limit{milliseconds / 1000, static_cast<suseconds_t>(milliseconds % 1000) * 1000};
    ::setsockopt(descriptor_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
}

void Udp::sendTo(const void* data, std::size_t size, const sockaddr_in& to)
{
    if (::sendto(descriptor_, data, size, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) < 0)
        throw std::runtime_error("sendto failed");
}

void Udp::send(const void* data, std::size_t size, std::uint16_t toPort) { sendTo(data, size, loopback(toPort)); }

std::size_t Udp::receive(void* data, std::size_t size, sockaddr_in* from)
{
    socklen_t length = sizeof(sockaddr_in);
    const auto count =
        ::recvfrom(descriptor_, data, size, 0, reinterpret_cast<sockaddr*>(from), from ? &length : nullptr);
    if (count < 0)
        throw std::runtime_error("no datagram came in time");
    return static_cast<std::size_t>(count);
}

namespace {

struct Header {
    std::uint16_t first, code, length, id; // big-endian
};

} // namespace

void runCamera(Udp& socket)
{
    socket.receiveWithin(0);
    std::map<std::uint32_t, std::uint32_t> registers{{htonl(0x0938), htonl(3000)}};
    unsigned char buffer[1024];
    for (;;) {
        sockaddr_in from{};
        const std::size_t size = socket.receive(buffer, sizeof buffer, &from);
        if (size < 12)
            continue;
        Header header;
        std::memcpy(&header, buffer, sizeof header);
        std::uint32_t address = 0;
        std::memcpy(&address, buffer + 8, sizeof address);
        const std::uint16_t code = ntohs(header.code);
        std::size_t answer = 12;
        if (code == 0x80) {
            const std::uint32_t value = registers[address];
            std::memcpy(buffer + 8, &value, sizeof value);
        } else if (code == 0x82) {
            std::memcpy(&registers[address], buffer + 12, sizeof(std::uint32_t));
        } else if (code == 0x84) {
            std::uint16_t count = 0;
            std::memcpy(&count, buffer + 14, sizeof count);
            answer = 12 + ntohs(count);
            std::memset(buffer + 12, 0, answer - 12);
        }
        header.first = 0;
        header.code = htons(static_cast<std::uint16_t>(code + 1));
        header.length = htons(static_cast<std::uint16_t>(answer - 8));
        std::memcpy(buffer, &header, sizeof header);
        socket.sendTo(buffer, answer, from);
    }
}

void runRelay(Udp& front, std::uint16_t cameraPort)
{
    Udp back;
    front.receiveWithin(0);
    back.receiveWithin(0);
    const sockaddr_in camera = loopback(cameraPort);
    unsigned char buffer[2048];
    for (;;) {
        sockaddr_in from{};
        std::size_t size = front.receive(buffer, sizeof buffer, &from);
        back.sendTo(buffer, size, camera);
        size = back.receive(buffer, sizeof buffer);
        front.sendTo(buffer, size, from);
    }
}

namespace {

std::uint16_t nextId()
{
    static std::uint16_t id = 0;
    if (++id == 0)
        id = 1;
    return id;
}

std::size_t exchange(Udp& socket, std::uint16_t port, std::uint16_t code, std::uint32_t address, std::uint32_t tail,
                     std::size_t size, unsigned char* answer, std::size_t room)
{
    const Header header{htons(0x4201), htons(code), htons(static_cast<std::uint16_t>(size - 8)), htons(nextId())};
    const std::uint32_t words[] = {htonl(address), htonl(tail)};
    unsigned char command[16];
    std::memcpy(command, &header, sizeof header);
    std::memcpy(command + 8, words, sizeof words);
    socket.send(command, size, port);
    const std::size_t got = socket.receive(answer, room);
    if (got < 8 || std::memcmp(answer + 6, command + 6, 2) != 0)
        throw std::runtime_error("answer to another command");
    return got;
}

} // namespace

void directReadReg(Udp& socket, std::uint16_t port, std::uint32_t address)
{
    unsigned char answer[64];
    exchange(socket, port, 0x80, address, 0, 12, answer, sizeof answer);
}

void directReadMem(Udp& socket, std::uint16_t port, std::uint32_t address, std::uint16_t size)
{
    unsigned char answer[1024];
    if (exchange(socket, port, 0x84, address, size, 16, answer, sizeof answer) != 12u + size)
        throw std::runtime_error("short READMEM answer");
}

} // namespace zuBench
