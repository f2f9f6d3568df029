#include "hostile.h"

#include "bench/raw_pipe.h"

#include <chrono>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

#include <arpa/inet.h>
#include <unistd.h>

namespace zuTest {

namespace {

/// Fewer than fill a receive buffer of the size that the system gives by default.
constexpr std::size_t burst = 24;

} // namespace

Port::Port(zuBench::Udp& from, std::uint16_t number) : from_(from), number_(number), lostBefore_(queue().lost) {}

Port::Queue Port::queue() const
{
    char address[16];
    std::snprintf(address, sizeof address, "0100007F:%04X", static_cast<unsigned>(number_));
    std::ifstream table("/proc/net/udp");
    for (std::string line; std::getline(table, line);) {
        // slot local remote state tx:rx timer retransmits uid timeout inode references pointer lost
        std::vector<std::string> columns;
        std::size_t at = 0;
        while ((at = line.find_first_not_of(' ', at)) != std::string::npos) {
            const std::size_t end = std::min(line.find(' ', at), line.size());
            columns.push_back(line.substr(at, end - at));
            at = end;
        }
        if (columns.size() == 13 && columns[1] == address)
            return {std::stoul(columns[4].substr(columns[4].find(':') + 1), nullptr, 16), std::stoul(columns[12])};
    }
    throw std::runtime_error("nobody listens at port " + std::to_string(number_));
}

void Port::send(const void* data, std::size_t size)
{
    if (++waiting_ > burst && !settle())
        throw std::runtime_error("port " + std::to_string(number_) + " takes nothing any more");
    from_.send(data, size, number_);
    ++sent_;
}

bool Port::settle()
{
    waiting_ = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (queue().bytes != 0) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::yield();
    }
    return true;
}

std::size_t Port::taken()
{
    if (!settle())
        throw std::runtime_error("port " + std::to_string(number_) + " takes nothing any more");
    return sent_ - (queue().lost - lostBefore_);
}

Target::Target() : ports_(announce()), command(peer_, ports_.command), acknowledge(peer_, ports_.acknowledge)
{
    connect();
}

Target::~Target()
{
    try {
        Header terminate;
        terminate.flags = flag::dispatcher | flag::terminate;
        peer_.send(&terminate, sizeof terminate, ports_.command);
    } catch (const std::exception&) {
        // Gone with the daemon.
    }
}

Target::Ports Target::announce()
{
    struct {
        std::uint32_t status, pid;
        std::uint16_t cmdPort, ackPort, rmtCmdPort, rmtAckPort;
    } datagram{0, static_cast<std::uint32_t>(::getpid()), htons(peer_.port()), htons(peer_.port()), 0, 0};
    peer_.send(&datagram, sizeof datagram, zuBench::daemonPort());
    if (peer_.receive(&datagram, sizeof datagram) != sizeof datagram || datagram.status != 10000)
        throw std::runtime_error("no answer to an announce");
    return {ntohs(datagram.rmtCmdPort), ntohs(datagram.rmtAckPort)};
}

void Target::ask(const void* payload, std::size_t size, std::uint32_t flags)
{
    Bytes datagram(sizeof(Header) + size);
    Header header;
    header.seq = ++seq_;
    header.flags = flags;
    std::memcpy(datagram.data(), &header, sizeof header);
    std::memcpy(datagram.data() + sizeof header, payload, size);
    command.send(datagram.data(), datagram.size());
}

std::optional<Bytes> Target::reply(unsigned milliseconds)
{
    Bytes datagram(4096);
    try {
        peer_.receiveWithin(milliseconds);
        for (;;) {
            datagram.resize(4096);
            datagram.resize(peer_.receive(datagram.data(), datagram.size()));
            Header header;
            if (datagram.size() < sizeof header)
                continue;
            std::memcpy(&header, datagram.data(), sizeof header);
            if ((header.flags & flag::acknowledge) != 0 && (header.flags & flag::dispatcher) == 0)
                return datagram;
        }
    } catch (const std::runtime_error&) {
        return std::nullopt;
    }
}

void Target::connect()
{
    Header request;
    request.flags = flag::dispatcher | flag::connect;
    request.index = instances_;
    command.send(&request, sizeof request);
    const Bytes datagram = receive();
    Header answer;
    if (datagram.size() == sizeof answer)
        std::memcpy(&answer, datagram.data(), sizeof answer);
    if (answer.flags != (request.flags | flag::acknowledge) || answer.index != instances_)
        throw std::runtime_error("no instance");
    ++instances_;
}

Bytes Target::receive()
{
    Bytes datagram(4096);
    peer_.receiveWithin(20000);
    datagram.resize(peer_.receive(datagram.data(), datagram.size()));
    return datagram;
}

} // namespace zuTest
