#include "tests/unit/client/network_camera.h"

#include "tests/support/child_process.h"

#include <array>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace zuTest {

using zuGevClient::IpAddress;
using Bytes = std::vector<std::uint8_t>;

namespace {

std::string dotted(std::uint32_t address) { return zuGevClient::toString(zuGevClient::Endpoint{address, 0}); }

int prefix(std::uint32_t mask)
{
    int bits = 0;
    for (; mask != 0; mask <<= 1)
        ++bits;
    return bits;
}

void put32(Bytes& bytes, std::size_t at, std::uint32_t value)
{
    for (std::size_t i = 0; i < 4; ++i)
        bytes.at(at + i) = static_cast<std::uint8_t>(value >> (24 - 8 * i));
}

std::uint32_t get32(const Bytes& bytes, std::size_t at)
{
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i)
        value = value << 8 | bytes.at(at + i);
    return value;
}

void sendTo(int socket, const Bytes& bytes, std::uint32_t address, std::uint16_t port)
{
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(address);
    to.sin_port = htons(port);
    static_cast<void>(
        ::sendto(socket, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to));
}

} // namespace

void must(const std::string& command)
{
    std::istringstream stream(command);
    std::vector<std::string> words;
    for (std::string word; stream >> word;)
        words.push_back(word);
    const Finished finished = runCommand(words);
    if (!finished.end.exited || finished.end.status != 0)
        throw std::runtime_error(command + ": " + finished.output);
}

NetworkCamera::NetworkCamera(const std::string& near, std::uint8_t number, const IpAddress& ip,
                             const Behaviour& behaviour)
    : mac_{{0x02, 0x00, 0x5E, 0x10, 0x00, number}}, behaviour_(behaviour), ip_(ip), thread_([this] { run(); })
{
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return threadId_ != 0; });
    try {
        must("ip link add " + near + " type veth peer name cam netns " + std::to_string(threadId_));
        must("ip link set " + near + " up");
        state_ = State::cabled;
    } catch (...) {
        state_ = State::failed;
        changed_.notify_all();
        lock.unlock();
        thread_.join();
        throw;
    }
    changed_.notify_all();
    changed_.wait(lock, [&] { return state_ != State::cabled; });
    if (state_ == State::failed) {
        lock.unlock();
        thread_.join();
        throw std::runtime_error("the camera can't listen");
    }
}

NetworkCamera::~NetworkCamera()
{
    stop_ = true;
    thread_.join();
}

std::vector<Heard> NetworkCamera::heard() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return heard_;
}

IpAddress NetworkCamera::ip() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return ip_;
}

// A camera answers whoever is on the cable, whatever his subnet: hence the route.
void NetworkCamera::takeAddress()
{
    must("ip addr flush dev cam");
    must("ip addr add " + dotted(ip_.address) + "/" + std::to_string(prefix(ip_.subnetMask)) + " dev cam");
    must("ip route replace default dev cam");
}

void NetworkCamera::run()
{
    const bool own = ::unshare(CLONE_NEWNET) == 0;
    int socket = -1;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        threadId_ = ::gettid();
        changed_.notify_all();
        changed_.wait(lock, [&] { return state_ != State::starting; });
        if (state_ == State::failed)
            return;
        try {
            if (!own)
                throw std::runtime_error("no network of its own");
            must("ip link set cam up");
            takeAddress();
            socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            const int on = 1;
            const timeval tick{0, 20000};
            sockaddr_in any{};
            any.sin_family = AF_INET;
            any.sin_port = htons(zuGevClient::gvcpPort);
            if (::setsockopt(socket, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0 ||
                ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &tick, sizeof tick) != 0 ||
                ::setsockopt(socket, IPPROTO_IP, IP_PKTINFO, &on, sizeof on) != 0 ||
                ::bind(socket, reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0)
                throw std::runtime_error("socket");
            state_ = State::listening;
        } catch (const std::exception&) {
            state_ = State::failed;
        }
        changed_.notify_all();
        if (state_ == State::failed)
            return;
    }
    while (!stop_) {
        std::array<std::uint8_t, 1500> buffer{};
        std::array<char, 256> control{};
        sockaddr_in from{};
        iovec part{buffer.data(), buffer.size()};
        msghdr message{};
        message.msg_name = &from;
        message.msg_namelen = sizeof from;
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        const ssize_t count = ::recvmsg(socket, &message, 0);
        if (count < 0)
            continue;
        Heard heard{Bytes(buffer.begin(), buffer.begin() + count), 0};
        for (cmsghdr* one = CMSG_FIRSTHDR(&message); one != nullptr; one = CMSG_NXTHDR(&message, one)) {
            if (one->cmsg_level != IPPROTO_IP || one->cmsg_type != IP_PKTINFO)
                continue;
            in_pktinfo info{};
            std::memcpy(&info, CMSG_DATA(one), sizeof info);
            heard.to = ntohl(info.ipi_addr.s_addr);
        }
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            heard_.push_back(heard);
        }
        answer(socket, heard, ntohl(from.sin_addr.s_addr), ntohs(from.sin_port));
    }
    ::close(socket);
}

void NetworkCamera::answer(int socket, const Heard& question, std::uint32_t fromAddress, std::uint16_t fromPort)
{
    const Bytes& bytes = question.bytes;
    if (bytes.size() < 8 || bytes[0] != 0x42)
        return;
    const bool mayBroadcast = (bytes[1] & 0x10) != 0;
    Bytes reply;
    if (bytes[3] == 0x02) {
        if (!behaviour_.discoverable)
            return;
        reply = discoveryAnswer(question);
    } else if (bytes[3] == 0x04 && bytes.size() == 64 &&
               std::equal(mac_.bytes.begin(), mac_.bytes.end(), bytes.begin() + 10)) {
        if (behaviour_.forcesMissed-- > 0)
            return;
        const auto status = behaviour_.forceStatus;
        if (behaviour_.obeysForce)
            force(question);
        if (!behaviour_.acknowledgesForce)
            return;
        reply = {
            static_cast<std::uint8_t>(status >> 8), static_cast<std::uint8_t>(status), 0, 5, 0, 0, bytes[6], bytes[7]};
    } else {
        return;
    }
    if (behaviour_.answersDirectly)
        sendTo(socket, reply, fromAddress, fromPort);
    else if (mayBroadcast)
        sendTo(socket, reply, 0xFFFFFFFF, fromPort);
}

Bytes NetworkCamera::discoveryAnswer(const Heard& question) const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    Bytes reply(8 + 248);
    reply[3] = 3;
    reply[5] = 248;
    reply[6] = question.bytes[6];
    reply[7] = question.bytes[7];
    put32(reply, 8, 0x00020000);
    std::copy(mac_.bytes.begin(), mac_.bytes.end(), reply.begin() + 8 + 10);
    put32(reply, 8 + 0x24, ip_.address);
    put32(reply, 8 + 0x34, ip_.subnetMask);
    put32(reply, 8 + 0x44, ip_.gateway);
    const std::string model = "Cabled";
    std::copy(model.begin(), model.end(), reply.begin() + 8 + 0x68);
    const std::string serial = "SN" + std::to_string(static_cast<int>(mac_.bytes[5]));
    std::copy(serial.begin(), serial.end(), reply.begin() + 8 + 0xD8);
    return reply;
}

void NetworkCamera::force(const Heard& question)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    const IpAddress wanted{get32(question.bytes, 8 + 20), get32(question.bytes, 8 + 36), get32(question.bytes, 8 + 52)};
    if (wanted.address == 0)
        return; // its own search for an address ends where it was
    ip_ = wanted;
    takeAddress();
}

} // namespace zuTest
