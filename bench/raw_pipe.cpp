#include "bench/raw_pipe.h"

#include <cstring>
#include <stdexcept>

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

namespace zuBench {

using namespace zuIPCPipe;

namespace {

constexpr std::size_t headerSize = 24;
constexpr std::uint32_t flagAck = 0x20;
constexpr std::uint32_t flagConnect = 0x102;
constexpr std::uint32_t flagDisconnect = 0x18;

struct Announce {
    std::uint32_t status, pid;
    std::uint16_t cmdPort, ackPort, rmtCmdPort, rmtAckPort; // network order
};

struct Header {
    std::uint64_t headerSize;
    std::uint32_t seq, flags, timeout, index;
};

} // namespace

std::uint16_t daemonPort()
{
    const int object = ::shm_open("/Global.zuGevSvc", O_RDONLY, 0);
    if (object < 0)
        throw std::runtime_error("no daemon");
    std::uint16_t port = 0;
    const auto got = ::pread(object, &port, sizeof port, 8);
    ::close(object);
    if (got != sizeof port || port == 0)
        throw std::runtime_error("no daemon");
    return ntohs(port);
}

RawPipe::RawPipe(std::uint16_t managerPort)
{
    Announce announce{0, static_cast<std::uint32_t>(::getpid()), htons(command_.port()), htons(acknowledge_.port()), 0,
                      0};
    acknowledge_.send(&announce, sizeof announce, managerPort);
    if (acknowledge_.receive(&announce, sizeof announce) != sizeof announce || announce.status != 10000)
        throw std::runtime_error("announce failed");
    remoteCommand_ = ntohs(announce.rmtCmdPort);
    remoteAcknowledge_ = ntohs(announce.rmtAckPort);
    const Header connect{headerSize, 0, flagConnect, 0, 0};
    acknowledge_.send(&connect, sizeof connect, remoteCommand_);
    acknowledge_.receive(buffer_, sizeof buffer_);
    Header answer;
    std::memcpy(&answer, buffer_, sizeof answer);
    remoteIndex_ = answer.index;
    connected_ = true;
}

RawPipe::~RawPipe()
{
    if (connected_)
        sendCommand(flagDisconnect, 0);
}

void RawPipe::disconnect()
{
    sendCommand(flagDisconnect, 0);
    acknowledge_.receive(buffer_, sizeof buffer_);
    connected_ = false;
}

void RawPipe::sendCommand(std::uint32_t flags, std::size_t payload)
{
    const Header header{headerSize, ++sequence_, flags, 0, remoteIndex_};
    std::memcpy(buffer_, &header, sizeof header);
    acknowledge_.send(buffer_, headerSize + payload, remoteCommand_);
}

void RawPipe::exchange(Message& message)
{
    const auto size = static_cast<std::size_t>(message.UsedLength());
    std::memcpy(buffer_ + headerSize, message.Data(), size);
    sendCommand(0, size);
    std::size_t got = 0;
    Header header{};
    do {
        got = acknowledge_.receive(buffer_, sizeof buffer_);
        std::memcpy(&header, buffer_, sizeof header);
    } while ((header.flags & flagAck) == 0);
    std::memcpy(message.Data(), buffer_ + headerSize, got - headerSize);
}

void RawPipe::link(std::uint16_t cameraPort)
{
    Message destination;
    destination.SetCommand(CmdSetDestination);
    const std::uint32_t ip = INADDR_LOOPBACK;
    destination.AddBinary(TagDestIp, &ip, sizeof ip);
    destination.AddBinary(TagDestPort, &cameraPort, sizeof cameraPort);
    exchange(destination);
    Message message;
    message.SetCommand(CmdLink);
    const std::uint32_t mode = 3;
    message.AddBinary(TagLinkMode, &mode, sizeof mode);
    exchange(message);
    std::uint8_t success = 0;
    if (!message.GetScalar(TagSuccess, success) || success == 0)
        throw std::runtime_error("link failed");
}

void RawPipe::unlink()
{
    Message message;
    message.SetCommand(CmdUnlink);
    exchange(message);
}

void RawPipe::readReg(std::uint32_t address)
{
    Message message;
    message.SetCommand(CmdReadReg);
    const std::uint64_t wide = address;
    const std::uint8_t swap = 1;
    message.AddBinary(TagAddress, &wide, sizeof wide);
    message.AddBinary(TagSwapBytes, &swap, sizeof swap);
    exchange(message);
    std::uint8_t success = 0;
    if (!message.GetScalar(TagSuccess, success) || success == 0)
        throw std::runtime_error("read failed");
}

void RawPipe::readMem(std::uint32_t address, std::uint32_t length)
{
    Message message;
    message.SetCommand(CmdReadMem);
    const std::uint64_t wide = address;
    const std::uint64_t count = length;
    message.AddBinary(TagAddress, &wide, sizeof wide);
    message.AddBinary(TagLength, &count, sizeof count);
    exchange(message);
    if (message.FindTag(TagMemData) == nullptr)
        throw std::runtime_error("read failed");
}

void runPipeEcho(Udp& manager)
{
    Udp command;
    Udp acknowledge;
    manager.receiveWithin(0);
    command.receiveWithin(0);
    std::uint16_t peerAcknowledge = 0;
    unsigned char buffer[2048];
    pollfd waiting[] = {{manager.descriptor(), POLLIN, 0}, {command.descriptor(), POLLIN, 0}};
    for (;;) {
        if (::poll(waiting, 2, -1) <= 0)
            continue;
        if (waiting[0].revents != 0) {
            sockaddr_in from{};
            Announce announce{};
            manager.receive(&announce, sizeof announce, &from);
            peerAcknowledge = ntohs(announce.ackPort);
            announce.status = 10000;
            announce.rmtCmdPort = htons(command.port());
            announce.rmtAckPort = htons(acknowledge.port());
            manager.sendTo(&announce, sizeof announce, from);
        }
        if (waiting[1].revents != 0) {
            const std::size_t size = command.receive(buffer, sizeof buffer);
            Header header;
            std::memcpy(&header, buffer, sizeof header);
            header.flags |= flagAck;
            std::memcpy(buffer, &header, sizeof header);
            acknowledge.send(buffer, size, peerAcknowledge);
        }
    }
}

} // namespace zuBench
