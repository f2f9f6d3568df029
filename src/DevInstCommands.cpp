// The commands of a client: one tagged message in, one operation on the camera link, the reply over the same bytes.
// Runs on the client instance's thread.
#include "src/DevInst.h"

#include "GevTLBase/GevException.h"
#include "GevTLBase/GevHelper.h"
#include "logging/log.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ios>
#include <new>
#include <stdexcept>

#include <boost/thread/exceptions.hpp>

namespace zuGevDaemon {

using namespace zuIPCPipe;
using zuLogging::log_debug;
using zuLogging::log_err;
using zuLogging::log_info;

namespace {

constexpr std::uint64_t wordSize = 4;
constexpr std::size_t writeBufferSize = 0x20000; ///< most that one `CmdWriteMem` can carry

/// Zero bytes whose pages cost nothing until they are touched: the client names the length.
class ZeroedBuffer {
public:
    explicit ZeroedBuffer(std::uint64_t size)
    {
        if (size <= PTRDIFF_MAX)
            bytes_ = static_cast<std::uint8_t*>(std::calloc(static_cast<std::size_t>(size == 0 ? 1 : size), 1));
        if (bytes_ == nullptr)
            throw std::bad_alloc();
    }
    ~ZeroedBuffer() { std::free(bytes_); }
    ZeroedBuffer(const ZeroedBuffer&) = delete;
    ZeroedBuffer& operator=(const ZeroedBuffer&) = delete;
    std::uint8_t* data() { return bytes_; }

private:
    std::uint8_t* bytes_ = nullptr;
};

void SetReplyBit(CDevInst::Message& message) { message.SetCommand(message.Command() | replyFlag); }

template <typename TValue>
void Add(CDevInst::Message& message, TGevSvrTag tag, TValue value)
{
    message.AddBinary(tag, &value, sizeof value);
}

void AddSuccess(CDevInst::Message& message, bool success) { Add<std::uint8_t>(message, TagSuccess, success ? 1 : 0); }

void Acknowledge(CDevInst::Message& message)
{
    message.ClearTags();
    SetReplyBit(message);
    AddSuccess(message, true);
}

template <typename TValue>
TValue Read(CDevInst::Message& message, TGevSvrTag tag)
{
    TValue value{};
    message.GetScalar(tag, value);
    return value;
}

/// A number in hexadecimal with prefix; the stream's flags are put back.
struct Hex {
    std::uint64_t value;
};

std::ostream& operator<<(std::ostream& out, Hex number)
{
    const auto flags = out.flags();
    out << std::hex << std::showbase << number.value;
    out.flags(flags);
    return out;
}

bool IsFrequent(std::uint32_t command)
{
    return command == CmdReadMem || command == CmdWriteMem || command == CmdReadReg || command == CmdWriteReg;
}

} // namespace

/// A memory access under way: where it is at the device and in the buffer, and what is left.
struct CDevInst::Access {
    std::uint64_t address;
    std::uint64_t left;
    std::uint8_t* position;
    boost::function<void(std::uint32_t)> pendingAck;

    void Advance(std::uint64_t count)
    {
        address += count;
        position += count;
        left -= count;
    }
    std::uint64_t Chunk() const { return left > memoryStep ? memoryStep : left & ~(wordSize - 1); }
    std::uint64_t Misalignment() const { return address % wordSize; }
};

void CDevInst::OnMessage(void* data, std::uint64_t capacity, std::uint64_t& length, std::function<void(unsigned)>)
{
    Message message(data, capacity, length);
    const std::shared_ptr<Control> held = control;
    const std::uint32_t command = message.Command();
    if (!IsFrequent(command))
        ZU_LOG(log, log_debug, " Devinst " << static_cast<const void*>(this) << " got cmd " << command);
    if (Perform(message, *held)) {
        message.Completed() = true;
        length = message.UsedLength();
        ZU_LOG(log, log_debug, "IPC Cmd Done " << static_cast<const void*>(this));
    }
}

/// Whether a reply was built.
bool CDevInst::Perform(Message& message, Control& link)
{
    switch (message.Command()) {
    case CmdLink:
        DoLink(message, link);
        return true;
    case CmdReadMem:
        DoReadMem(message, link);
        return true;
    case CmdWriteMem:
        DoWriteMem(message, link);
        return true;
    case CmdUnlink:
        link.Unlink();
        Acknowledge(message);
        return true;
    case CmdReadReg:
        DoReadReg(message, link);
        return true;
    case CmdWriteReg:
        DoWriteReg(message, link);
        return true;
    case CmdBindSocket: {
        const auto ip = Read<std::uint32_t>(message, TagLocalIp);
        const auto port = Read<std::uint16_t>(message, TagLocalPort);
        ZU_LOG(log, log_info, "Bind socket to IP " << Hex{ip} << " on port " << port);
        link.BindAny(ip, port);
        Acknowledge(message);
        return true;
    }
    case CmdSetDestination: {
        const auto ip = Read<std::uint32_t>(message, TagDestIp);
        const auto port = Read<std::uint16_t>(message, TagDestPort);
        link.SetDestination(ip, port);
        ZU_LOG(log, log_info, "Set Destination for socket to" << Hex{ip} << " ,port " << port);
        Acknowledge(message);
        return true;
    }
    case CmdGetLocalAddress:
        DoGetLocalAddress(message, link);
        return true;
    case CmdCheckLink:
        DoCheckLink(message, link);
        return true;
    case CmdSetAckTimeout: {
        std::uint32_t timeout = 0;
        if (message.GetScalar(TagAckTimeout, timeout))
            link.SetAckTimeout(timeout);
        Acknowledge(message);
        return true;
    }
    case CmdGetAckTimeout: {
        std::uint32_t timeout = 0;
        link.GetAckTimeout(timeout);
        Acknowledge(message);
        Add(message, TagAckTimeout, static_cast<std::uint8_t>(timeout));
        return true;
    }
    case CmdSetRetries:
        link.SetRetries(Read<std::uint32_t>(message, TagRetries));
        Acknowledge(message);
        return true;
    case CmdGetRetries: {
        std::uint32_t retries = 0;
        link.GetRetries(retries);
        Acknowledge(message);
        Add(message, TagRetries, static_cast<std::uint8_t>(retries));
        return true;
    }
    case CmdLinkShutdown:
        ZU_LOG(log, log_debug, "Link Shutdown on " << static_cast<const void*>(this));
        LinkShutdown();
        return false;
    case CmdSetHeartbeat:
        link.SetHeartbeatTimeout(Read<std::uint32_t>(message, TagHeartbeatTimeout),
                                 Read<std::uint32_t>(message, TagHeartbeatMargin));
        Acknowledge(message);
        return true;
    case CmdGetHeartbeat: {
        std::uint32_t timeout = 0;
        std::uint32_t margin = 0;
        link.GetHeartbeatTimeout(timeout, margin);
        message.ClearTags();
        SetReplyBit(message);
        Add(message, TagHeartbeatTimeout, timeout);
        Add(message, TagHeartbeatMargin, margin);
        AddSuccess(message, true);
        return true;
    }
    default:
        ZU_LOG(log, log_err, "Invalid pipe command");
        return false;
    }
}

boost::function<void(std::uint32_t)> CDevInst::PendingAckFor(Message& message)
{
    return [this, id = message.MessageId()](std::uint32_t milliseconds) { OnPendingAck(milliseconds, id); };
}

void CDevInst::DoLink(Message& message, Control& link)
{
    bool success = true;
    const auto mode = Read<std::uint32_t>(message, TagLinkMode);
    ZU_LOG(log, log_info, "Pipe : Link");
    try {
        link.Link(mode);
    } catch (const boost::thread_interrupted&) {
        throw;
    } catch (...) {
        success = false;
    }
    // Nobody else gives the camera back if the client went before it was taken.
    if (IsClientGone())
        LinkShutdown();
    std::uint8_t state = 0;
    try {
        state = link.HasCcp() ? 1 : 0;
    } catch (const boost::thread_interrupted&) {
        throw;
    } catch (...) {
        success = false;
    }
    SetReplyBit(message);
    Add(message, TagLinkState, state);
    AddSuccess(message, success);
}

void CDevInst::DoGetLocalAddress(Message& message, Control& link)
{
    bool success = true;
    std::uint32_t ip = 0;
    std::uint16_t port = 0;
    try {
        link.GetLocalAddress(ip, port);
    } catch (const boost::thread_interrupted&) {
        throw;
    } catch (...) {
        success = false;
    }
    SetReplyBit(message);
    Add(message, TagLocalIp, ip);
    Add(message, TagLocalPort, port);
    AddSuccess(message, success);
}

void CDevInst::DoCheckLink(Message& message, Control& link)
{
    bool held = false;
    try {
        held = link.HasCcp();
    } catch (const std::exception& failure) {
        ZU_LOG(log, log_err, "CheckLink failed : " << failure.what());
    }
    message.ClearTags();
    SetReplyBit(message);
    AddSuccess(message, held);
}

void CDevInst::DoReadReg(Message& message, Control& link)
{
    bool success = true;
    const auto address = Read<std::uint64_t>(message, TagAddress);
    const auto swap = Read<std::uint8_t>(message, TagSwapBytes);
    SetReplyBit(message);
    try {
        std::uint32_t value = 0;
        link.ReadReg(address, value, swap != 0, PendingAckFor(message));
        Add(message, TagRegValue, value);
        Add(message, TagLength, static_cast<std::uint32_t>(sizeof value));
        Add(message, TagStatus, std::uint32_t{0});
    } catch (const GEV::GevException& failure) {
        ZU_LOG(log, log_err, "Pipe ReadReg from addr" << Hex{address} << " caused exception: " << failure.what());
        success = false;
        Add(message, TagStatus, static_cast<std::uint32_t>(failure.Code()));
    } catch (const std::exception& failure) {
        ZU_LOG(log, log_err, "Pipe ReadReg from addr" << Hex{address} << " caused std::exception: " << failure.what());
    }
    AddSuccess(message, success);
}

void CDevInst::DoWriteReg(Message& message, Control& link)
{
    const auto address = Read<std::uint64_t>(message, TagAddress);
    const auto value = Read<std::uint32_t>(message, TagRegValue);
    const auto swap = Read<std::uint8_t>(message, TagSwapBytes);
    message.ClearTags();
    SetReplyBit(message);
    try {
        link.WriteReg(address, value, swap != 0, PendingAckFor(message));
        Add(message, TagStatus, std::uint32_t{0});
        AddSuccess(message, true);
    } catch (const GEV::GevException& failure) {
        ZU_LOG(log, log_err, "WriteReg to addr 0x" << Hex{address} << " caused exception: " << failure.what());
        Add(message, TagStatus, static_cast<std::uint32_t>(failure.Code()));
        AddSuccess(message, false);
    } catch (const std::exception& failure) {
        ZU_LOG(log, log_err, "WriteReg to addr" << Hex{address} << " caused std::exception: " << failure.what());
    }
}

/// A client that is gone gets no answer any more: its remaining accesses would only keep the camera.
void CDevInst::RequireClient()
{
    if (IsClientGone())
        throw std::runtime_error("client disconnected");
}

/// The word in which the last bytes lie; a length of less than a word is left.
void CDevInst::ReadTail(Control& link, Access& access)
{
    RequireClient();
    std::uint8_t word[wordSize] = {};
    const std::uint64_t offset = access.Misalignment();
    access.address -= offset;
    link.ReadMem(access.address, wordSize, word, access.pendingAck);
    access.address += offset;
    std::memcpy(access.position, word, access.left);
    access.Advance(access.left);
}

void CDevInst::ReadMemory(Control& link, Access& access)
{
    if (const std::uint64_t head = access.Misalignment(); head != 0) {
        if (access.left < head)
            throw GEV::GevException(GEV::resultCode::invalidParameter, "Invalid length");
        std::uint8_t word[wordSize] = {};
        access.address -= head;
        link.ReadMem(access.address, wordSize, word, access.pendingAck);
        access.address += head;
        std::memcpy(access.position, word + wordSize - head, head);
        access.Advance(head);
    }
    while (access.left >= wordSize) {
        RequireClient();
        const std::uint64_t chunk = access.Chunk();
        link.ReadMem(access.address, chunk, access.position, access.pendingAck);
        access.Advance(chunk);
    }
    if (access.left != 0)
        ReadTail(link, access);
}

void CDevInst::DoReadMem(Message& message, Control& link)
{
    bool success = true;
    const auto length = Read<std::uint64_t>(message, TagLength);
    Access access{Read<std::uint64_t>(message, TagAddress), length, nullptr, PendingAckFor(message)};
    ZeroedBuffer buffer(length);
    try {
        access.position = buffer.data();
        ReadMemory(link, access);
        message.AddBinary(TagMemData, buffer.data(), static_cast<std::size_t>(length));
        Add(message, TagStatus, std::uint32_t{0});
    } catch (const GEV::GevException& failure) {
        success = false;
        Add(message, TagStatus, static_cast<std::uint32_t>(failure.Code()));
    } catch (const std::exception& failure) {
        ZU_LOG(log, log_err,
               "Pipe ReadMem from addr" << Hex{access.address} << " caused std::exception: " << failure.what());
    }
    SetReplyBit(message);
    AddSuccess(message, success);
}

void CDevInst::WriteMemory(Control& link, Access& access)
{
    if (const std::uint64_t head = access.Misalignment(); head != 0) {
        if (access.left < head)
            throw GEV::GevException(GEV::resultCode::invalidParameter, "Invalid length");
        std::uint8_t word[wordSize] = {};
        access.address -= head;
        link.ReadMem(access.address, wordSize, word, access.pendingAck);
        std::memcpy(word + wordSize - head, access.position, head);
        link.WriteMem(access.address, wordSize, word, access.pendingAck);
        access.address += head;
        access.Advance(head);
    }
    while (access.left >= wordSize) {
        RequireClient();
        const std::uint64_t chunk = access.Chunk();
        link.WriteMem(access.address, static_cast<std::uint32_t>(chunk), access.position, access.pendingAck);
        access.Advance(chunk);
    }
    // The odd bytes at the end are read and never written.
    if (access.left != 0)
        ReadTail(link, access);
}

void CDevInst::DoWriteMem(Message& message, Control& link)
{
    bool success = true;
    Access access{0, 0, nullptr, PendingAckFor(message)};
    ZeroedBuffer buffer(writeBufferSize);
    try {
        access.address = Read<std::uint64_t>(message, TagAddress);
        access.left = Read<std::uint64_t>(message, TagLength);
        access.position = buffer.data();
        std::size_t room = writeBufferSize;
        message.GetBinary(TagMemData, buffer.data(), room);
        if (access.left > writeBufferSize)
            throw GEV::GevException(GEV::resultCode::invalidParameter, "Invalid length");
        WriteMemory(link, access);
        message.ClearTags();
        Add(message, TagStatus, std::uint32_t{0});
    } catch (const GEV::GevException& failure) {
        success = false;
        Add(message, TagStatus, static_cast<std::uint32_t>(failure.Code()));
        ZU_LOG(log, log_err, "Writemem to addr" << Hex{access.address} << " caused std::exception: " << failure.what());
    } catch (const std::exception& failure) {
        ZU_LOG(log, log_err, "Writemem to addr" << Hex{access.address} << " caused std::exception: " << failure.what());
    }
    SetReplyBit(message);
    AddSuccess(message, success);
}

} // namespace zuGevDaemon
