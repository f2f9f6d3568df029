// Definitions of CGVCP, for whoever instantiates it.
#pragma once

#include "GevTLBase/GVCP.h"
#include "logging/log.h"
#include "platform/socket.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

#include <boost/thread/lock_guard.hpp>

namespace GEV {

namespace gvcpDetail {

/// The silence that ends a resynchronisation, in milliseconds.
inline constexpr std::uint32_t resyncSilence = 100;

inline std::uint32_t low32(std::uint64_t address) { return static_cast<std::uint32_t>(address); }

} // namespace gvcpDetail

template <typename TConnection>
CGVCP<TConnection>::CGVCP()
    : txBuffer(std::make_unique<std::uint8_t[]>(packetBufferSize)),
      rxBuffer(std::make_unique<std::uint8_t[]>(packetBufferSize)), log(zuLogging::make_numbered_logstate("GVCP")),
      gevErrorFlag(zuLogging::logstate::register_group("GEVError"))
{
}

template <typename TConnection>
CGVCP<TConnection>::~CGVCP() = default;

template <typename TConnection>
void CGVCP<TConnection>::SetConnection(std::shared_ptr<TConnection> newConnection)
{
    const std::lock_guard<std::mutex> lock(connectionMutex);
    connection.swap(newConnection);
}

template <typename TConnection>
std::shared_ptr<TConnection> CGVCP<TConnection>::GetConnection()
{
    const std::lock_guard<std::mutex> lock(connectionMutex);
    return connection;
}

template <typename TConnection>
std::shared_ptr<TConnection> CGVCP<TConnection>::RequireConnection()
{
    std::shared_ptr<TConnection> current = GetConnection();
    if (!current)
        throw GevException("No connection");
    return current;
}

template <typename TConnection>
void CGVCP<TConnection>::SetDestination(std::uint32_t ip, std::uint16_t port)
{
    if (RequireConnection()->SetDestination(ip, port) != resultCode::success)
        throw GevException("Unable to set destination address");
}

template <typename TConnection>
void CGVCP<TConnection>::BindLocal(const AddressRecord& local)
{
    if (RequireConnection()->Bind(local.ip, local.port) != resultCode::success)
        throw GevException("Unable to bind socket");
}

template <typename TConnection>
void CGVCP<TConnection>::BindAny(std::uint32_t ip, std::uint16_t port)
{
    if (RequireConnection()->Bind(ip, port) != resultCode::success)
        throw std::runtime_error("Unable to bind socket");
}

template <typename TConnection>
void CGVCP<TConnection>::SetByteSwap(bool value)
{
    byteSwap = value;
}

template <typename TConnection>
void CGVCP<TConnection>::RestartHeartbeatWait(std::uint64_t)
{
}

template <typename TConnection>
std::string CGVCP<TConnection>::CommandName(std::uint16_t command)
{
    switch (command) {
    case gvcpCode::readRegCmd:
    case gvcpCode::readRegAck:
        return "ReadReg Cmd";
    case gvcpCode::writeRegCmd:
    case gvcpCode::writeRegAck:
        return "WriteReg Cmd";
    case gvcpCode::readMemCmd:
    case gvcpCode::readMemAck:
        return "ReadMem Cmd";
    case gvcpCode::writeMemCmd:
    case gvcpCode::writeMemAck:
        return "WriteMem Cmd";
    default:
        return "Cmd";
    }
}

// What all commands share. The caller holds `commandMutex`.

template <typename TConnection>
void CGVCP<TConnection>::AdvanceRequestId()
{
    requestId = requestId == 0xFFFF ? std::uint16_t{1} : static_cast<std::uint16_t>(requestId + 1);
}

template <typename TConnection>
std::uint32_t CGVCP<TConnection>::ConvertValue(std::uint32_t value, bool swap) const
{
    return byteSwap || swap ? zuPlatform::hostToNetwork32(value) : value;
}

template <typename TConnection>
std::int32_t CGVCP<TConnection>::SendCommand(std::size_t size)
{
    std::int32_t sent = 0;
    return RequireConnection()->Send(txBuffer.get(), static_cast<std::uint32_t>(size), sent);
}

template <typename TConnection>
std::int32_t CGVCP<TConnection>::ReceiveInto(std::uint32_t timeoutMs, std::uint32_t* ip, std::uint16_t* port,
                                             std::int32_t& count)
{
    const std::int32_t result = RequireConnection()->Receive(rxBuffer.get(), static_cast<std::uint32_t>(receiveSize),
                                                             timeoutMs, ip, port, count);
    if (result == resultCode::success)
        rxCount = std::clamp(count, 0, static_cast<std::int32_t>(receiveSize));
    else if (count < 0)
        rxCount = -1;
    // The fields that a short datagram lacks read as zero, and not as those of an earlier one.
    const auto received = static_cast<std::size_t>(std::max(rxCount, 0));
    if (result == resultCode::success && received < gvcpWire::ackFieldsEnd)
        std::memset(rxBuffer.get() + received, 0, gvcpWire::ackFieldsEnd - received);
    return result;
}

template <typename TConnection>
void CGVCP<TConnection>::ReceiveAck(void*, std::uint32_t, std::uint32_t, std::uint32_t* ip, std::uint16_t* port,
                                    std::int32_t& count, const PendingAckCallback& callback)
{
    constexpr const char* timeoutText = "Timeout receiving GVCP Ack";
    if (ReceiveInto(ackTimeout, ip, port, count) != resultCode::success)
        throw GevException(resultCode::noAcknowledge, timeoutText);
    const std::uint8_t* ack = rxBuffer.get();
    while (getBig16(ack, gvcpWire::ackCommandAt) == gvcpCode::pendingAck) {
        if (getBig16(ack, gvcpWire::ackIdAt) != requestId)
            throw GevException("Pending Ack with invalid Req ID");
        if (getBig16(ack, gvcpWire::lengthAt) < gvcpWire::pendingLength)
            throw GevException("Pending Ack with invalid Length field");
        if ((getBig16(ack, gvcpWire::statusAt) & gvcpWire::errorStatusBit) != 0)
            throw GevException("Pending Ack returned error status");
        const std::uint16_t timeToCompletion = getBig16(ack, gvcpWire::pendingTimeAt);
        if (callback)
            callback(timeToCompletion);
        RestartHeartbeatWait(timeToCompletion);
        if (ReceiveInto(timeToCompletion, ip, port, count) != resultCode::success)
            throw GevException(resultCode::noAcknowledge, timeoutText);
    }
    RestartHeartbeatWait(0);
}

template <typename TConnection>
void CGVCP<TConnection>::Resync(void*, std::uint16_t, std::uint16_t)
{
    try {
        ZU_LOG(log, zuLogging::log_warn, "Resync protocol stack");
        std::int32_t count = 0;
        while (ReceiveInto(gvcpDetail::resyncSilence, nullptr, nullptr, count) == resultCode::success) {
        }
    } catch (const GevException& e) {
        ZU_LOG(log, zuLogging::log_err, e.what());
        throw GevException(e);
    } catch (const std::exception& e) {
        ZU_LOG(log, zuLogging::log_err, e.what());
        throw PlainException(e.what());
    }
}

/// `ReceiveAck`, then the verdict on the answer; one that does not belong to the command is drained first, and what
/// then lies in the receive buffer is judged once more.
template <typename TConnection>
std::int32_t CGVCP<TConnection>::AwaitAck(std::uint16_t expectedAck, const PendingAckCallback& callback)
{
    std::int32_t count = 0;
    ReceiveAck(rxBuffer.get(), static_cast<std::uint32_t>(receiveSize), ackTimeout, nullptr, nullptr, count, callback);
    std::int32_t result = ValidateAck(rxBuffer.get(), requestId, expectedAck);
    if (result == resultCode::mismatch || result == resultCode::notAnAcknowledge) {
        Resync(rxBuffer.get(), requestId, expectedAck);
        result = ValidateAck(rxBuffer.get(), requestId, expectedAck);
    }
    return result;
}

template <typename TConnection>
void CGVCP<TConnection>::WriteReg(std::uint64_t address, std::uint32_t value, bool swap, PendingAckCallback callback)
{
    const boost::lock_guard<boost::recursive_mutex> lock(commandMutex);
    AdvanceRequestId();
    BuildCmdHeader(txBuffer.get(), gvcpWire::writeRegSize, gvcpCode::writeRegCmd, requestId);
    putBig32(txBuffer.get(), gvcpWire::addressAt, gvcpDetail::low32(address));
    const std::uint32_t wireValue = ConvertValue(value, swap);
    std::memcpy(txBuffer.get() + gvcpWire::regValueAt, &wireValue, sizeof wireValue);

    std::int32_t lastError = resultCode::timeout;
    for (std::uint32_t attempt = 0; attempt < retries; ++attempt) {
        try {
            if (attempt != 0)
                ZU_LOG(log, zuLogging::log_warn, "WriteReg resend");
            if (const std::int32_t sent = SendCommand(gvcpWire::writeRegSize); sent != resultCode::success) {
                ZU_LOG(log, zuLogging::log_warn, "Unable to send datagram");
                throw GevException(sent, "Unable to send datagram");
            }
            if (const std::int32_t result = AwaitAck(gvcpCode::writeRegAck, callback); result != resultCode::success) {
                ZU_LOG(log, zuLogging::log_warn, "Validate WriteReg Ack returned error " << value << " @ " << address);
                throw GevException(result, "Invalid WriteReg Ack");
            }
            RestartHeartbeatWait(0);
            ZU_LOG(log, zuLogging::log_info,
                   "Successful WriteReg to addr 0x" << std::hex << address << std::dec << " : Value  " << value);
            return;
        } catch (const GevException& e) {
            lastError = e.Code();
            ZU_LOG(log, zuLogging::log_warn,
                   "WriteReg Error, Try: " << attempt << " Value: " << value << " @ Addr: " << address << "\n\tDevice "
                                           << IpToString(deviceAddress, 0) << "\n\tDescription " << e.what());
        }
    }
    ZU_LOG(log, zuLogging::log_warn,
           "WriteReg final failed "
               << " Value: " << value << " @ Addr: " << address << "\n\tDevice " << IpToString(deviceAddress, 0));
    throw GevException(lastError, "Unable to send GVCP WriteReg");
}

template <typename TConnection>
void CGVCP<TConnection>::ReadReg(std::uint64_t address, std::uint32_t& value, bool swap, PendingAckCallback callback)
{
    const boost::lock_guard<boost::recursive_mutex> lock(commandMutex);
    AdvanceRequestId();
    BuildCmdHeader(txBuffer.get(), gvcpWire::readRegSize, gvcpCode::readRegCmd, requestId);
    putBig32(txBuffer.get(), gvcpWire::addressAt, gvcpDetail::low32(address));

    std::int32_t lastError = resultCode::timeout;
    for (std::uint32_t attempt = 0; attempt < retries; ++attempt) {
        try {
            if (attempt != 0)
                ZU_LOG(log, zuLogging::log_warn, "ReadReg resend");
            if (const std::int32_t sent = SendCommand(gvcpWire::readRegSize); sent != resultCode::success)
                throw GevException(sent, "Error sending datagram");
            if (const std::int32_t result = AwaitAck(gvcpCode::readRegAck, callback); result != resultCode::success)
                throw GevException(result, "Ack returned error");
            std::uint32_t wireValue = 0;
            std::memcpy(&wireValue, rxBuffer.get() + gvcpWire::ackRegValueAt, sizeof wireValue);
            value = ConvertValue(wireValue, swap);
            ZU_LOG(log, zuLogging::log_info,
                   "Successful ReadReg " << std::hex << address << std::dec << " : Value  " << value);
            RestartHeartbeatWait(0);
            ZU_LOG(log, zuLogging::log_info, "Successful ReadReg from addr " << address);
            return;
        } catch (const GevException& e) {
            lastError = e.Code();
            ZU_LOG(log, zuLogging::log_err, "ReadReg Error : " << address << " -> " << value << ' ' << e.what());
        }
    }
    throw GevException(lastError, "ReadReg returned error");
}

} // namespace GEV

#include "GevTLBase/GVCPMemory_impl.h"
