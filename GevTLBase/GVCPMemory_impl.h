// The memory commands of CGVCP. Included by GVCP_impl.h.
#pragma once

#include "GevTLBase/GVCP_impl.h"

namespace GEV {

namespace gvcpDetail {

/// A device may answer READMEM without a byte of data and is asked again. After this many such answers in a row, which
/// no device in order comes near, each counts as a failed attempt, so that it can't hold the command for ever.
inline constexpr unsigned maxEmptyAnswers = 1024;

/// The first 32 bits at `data`, as they lie in memory; what is missing is 0.
inline std::uint32_t firstWord(const void* data, std::uint64_t size)
{
    std::uint32_t word = 0;
    if (size != 0)
        std::memcpy(&word, data, static_cast<std::size_t>(std::min<std::uint64_t>(size, sizeof word)));
    return word;
}

} // namespace gvcpDetail

/// Copies the data of the READMEM acknowledge in the receive buffer to `destination` + `offset`, without the `pad`
/// bytes at its end and not beyond `size`. Returns the data bytes that the device sent, padding included.
template <typename TConnection>
std::uint64_t CGVCP<TConnection>::TakeMemory(std::uint8_t* destination, std::uint64_t size, std::uint64_t offset,
                                             std::uint32_t pad)
{
    const std::int64_t data = std::int64_t{rxCount} - static_cast<std::int64_t>(gvcpWire::ackMemDataAt);
    if (data < std::int64_t{pad}) // also: less than the smallest acknowledge
        throw GevException("Invalid Acknowledge Size");
    const std::uint64_t wanted = std::min<std::uint64_t>(static_cast<std::uint64_t>(data) - pad, size - offset);
    if (wanted != 0)
        std::memcpy(destination + offset, rxBuffer.get() + gvcpWire::ackMemDataAt, static_cast<std::size_t>(wanted));
    return static_cast<std::uint64_t>(data);
}

template <typename TConnection>
void CGVCP<TConnection>::ReadMem(std::uint64_t address, std::uint64_t size, void* destination,
                                 PendingAckCallback callback)
{
    const boost::lock_guard<boost::recursive_mutex> lock(commandMutex);
    auto* const bytes = static_cast<std::uint8_t*>(destination);
    std::uint64_t offset = 0;
    std::uint32_t tries = 0; // over the whole transfer
    std::int32_t lastResult = resultCode::success;
    unsigned emptyAnswers = 0;

    while (offset < size && tries < retries) {
        AdvanceRequestId();
        const std::uint64_t left = size - offset;
        const auto block = static_cast<std::uint32_t>(left > maxMemBlock ? maxMemBlock : (left + 3) / 4 * 4);
        const std::uint32_t pad = left > maxMemBlock ? 0 : block - static_cast<std::uint32_t>(left);
        BuildCmdHeader(txBuffer.get(), gvcpWire::readMemSize, gvcpCode::readMemCmd, requestId);
        putBig32(txBuffer.get(), gvcpWire::addressAt, gvcpDetail::low32(address + offset));
        putBig16(txBuffer.get(), gvcpWire::readCountAt, static_cast<std::uint16_t>(block));
        while (tries < retries) {
            try {
                lastResult = SendCommand(gvcpWire::readMemSize);
                if (lastResult != resultCode::success)
                    throw GevException(lastResult, "No Ack");
                lastResult = AwaitAck(gvcpCode::readMemAck, callback);
                if (lastResult != resultCode::success) {
                    ZU_LOG(log, zuLogging::log_warn,
                           "ReadMem returned error " << gvcpDetail::firstWord(destination, size) << " @ " << address);
                    throw GevException(lastResult, "Invalid Acknowledge Size");
                }
                const std::uint64_t received = TakeMemory(bytes, size, offset, pad);
                emptyAnswers = received == 0 ? emptyAnswers + 1 : 0;
                if (emptyAnswers > gvcpDetail::maxEmptyAnswers)
                    throw GevException("Invalid Acknowledge Size");
                offset += received;
                break;
            } catch (const GevException& e) {
                ++tries;
                ZU_LOG(log, zuLogging::log_err, "error reading " << size << " bytes from " << address << e.what());
            }
        }
    }
    if (tries >= retries)
        throw GevException(lastResult, "ReadReg returned error");
    RestartHeartbeatWait(0);
    ZU_LOG(log, zuLogging::log_info, "Successful ReadMem from addr " << address << " : num bytes " << size);
}

template <typename TConnection>
void CGVCP<TConnection>::WriteMem(std::uint64_t address, std::uint32_t size, const void* source,
                                  PendingAckCallback callback)
{
    if (!hasCcp)
        throw GevException("WriteReg failed: NO CCP");
    const boost::lock_guard<boost::recursive_mutex> lock(commandMutex);
    std::uint32_t tries = 0;
    std::int32_t result = resultCode::success;
    try {
        WriteMemBlocks(address, size, static_cast<const std::uint8_t*>(source), tries, result, callback);
    } catch (const GevException& e) {
        ZU_LOG(log, zuLogging::log_err,
               "GVCP Exception: Error writing " << size << " bytes to " << address << e.what());
        throw;
    } catch (const std::exception& e) {
        ZU_LOG(log, zuLogging::log_err, "Error writing " << size << " bytes to " << address << e.what());
        throw;
    }
    if (result < 0) {
        ZU_LOG_GROUP(log, zuLogging::log_warn, gevErrorFlag,
                     "WriteMem returned error " << gvcpDetail::firstWord(source, size) << " @ " << address);
        throw GevException(result, "Error executing WriteMem");
    }
    if (tries < retries)
        RestartHeartbeatWait(0);
    ZU_LOG_GROUP(log, zuLogging::log_info, gevErrorFlag,
                 "Successful WriteMem to addr " << address << " : num bytes  " << size);
}

/// The transfer itself. `tries` counts failed attempts over the whole of it; a negative `result` ended it.
template <typename TConnection>
void CGVCP<TConnection>::WriteMemBlocks(std::uint64_t address, std::uint32_t size, const std::uint8_t* source,
                                        std::uint32_t& tries, std::int32_t& result, const PendingAckCallback& callback)
{
    std::uint32_t written = 0;
    while (written < size && tries < retries) {
        const std::uint32_t block = std::min<std::uint32_t>(size - written, maxMemBlock);
        const std::size_t datagramSize = gvcpWire::writeMemDataAt + block;
        AdvanceRequestId();
        BuildCmdHeader(txBuffer.get(), datagramSize, gvcpCode::writeMemCmd, requestId);
        putBig32(txBuffer.get(), gvcpWire::addressAt, gvcpDetail::low32(address + written));
        std::memcpy(txBuffer.get() + gvcpWire::writeMemDataAt, source + written, block);
        while (tries < retries) {
            try {
                result = SendCommand(datagramSize);
                if (result != resultCode::success)
                    throw GevException("Failure sending datagram");
                result = AwaitAck(gvcpCode::writeMemAck, callback);
                if (result < 0) {
                    ZU_LOG(log, zuLogging::log_warn, " Invalid acknowledge: " << result);
                    return;
                }
                written += block;
                break;
            } catch (const GevException& e) {
                ++tries;
                ZU_LOG(log, zuLogging::log_err, "Error executing WriteMem : " << e.what());
            }
        }
    }
}

} // namespace GEV
