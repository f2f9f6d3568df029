// The four GVCP commands over one connection, each run to its final acknowledge: resends, PENDING_ACK, and recovery
// when command and answer are out of step. Any thread may call; one command runs at a time.
#pragma once

#include "GevTLBase/GevHelper.h"
#include "logging/logstate.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include <boost/function.hpp>
#include <boost/thread/recursive_mutex.hpp>

namespace GEV {

/// Told the time to completion in milliseconds by each PENDING_ACK, on the thread that runs the command and under
/// `commandMutex`. May be empty.
using PendingAckCallback = boost::function<void(std::uint32_t)>;

/// An IPv4 address and a port, both in host order.
struct AddressRecord {
    std::uint32_t ip = 0;
    std::uint16_t port = 0;
};

/// `TConnection` is the UDP endpoint; src/SockConnection.h states what is asked of it. The definitions are in
/// GVCP_impl.h.
///
/// The commands throw `GevException`, by value. They block for up to `retries` * `ackTimeout` milliseconds, and as long
/// as the device sends PENDING_ACK. Only the low 32 bits of an address reach the wire.
template <typename TConnection>
class CGVCP {
public:
    CGVCP();
    virtual ~CGVCP();
    CGVCP(const CGVCP&) = delete;
    CGVCP& operator=(const CGVCP&) = delete;

    virtual void SetConnection(std::shared_ptr<TConnection> newConnection);
    virtual std::shared_ptr<TConnection> GetConnection();

    /// Address and port in host order. These two throw `GevException` if the connection refuses.
    virtual void SetDestination(std::uint32_t ip, std::uint16_t port);
    virtual void BindLocal(const AddressRecord& local);
    /// As `BindLocal`, but throws `std::runtime_error`.
    virtual void BindAny(std::uint32_t ip, std::uint16_t port);

    /// While off, the value of a register command with `swap` false passes as the raw bytes on the wire.
    virtual void SetByteSwap(bool value);

    virtual void WriteReg(std::uint64_t address, std::uint32_t value, bool swap, PendingAckCallback callback);
    virtual void ReadReg(std::uint64_t address, std::uint32_t& value, bool swap, PendingAckCallback callback);

    /// Cut into blocks of at most 512 bytes; `retries` counts for the transfer and not for a block. When every attempt
    /// timed out the exception's code is 0. `destination` has `size` bytes, and nothing is written behind them.
    virtual void ReadMem(std::uint64_t address, std::uint64_t size, void* destination, PendingAckCallback callback);

    /// Refused without control privilege. A device's error ends it at once; when every attempt timed out it returns as
    /// if all had been written.
    virtual void WriteMem(std::uint64_t address, std::uint32_t size, const void* source, PendingAckCallback callback);

    /// Reads until the socket has been silent for 100 ms; the receive buffer keeps the last datagram. No argument is
    /// used.
    virtual void Resync(void* buffer, std::uint16_t id, std::uint16_t expectedAck);

    /// Waits for the answer to the command in flight, over any number of PENDING_ACK. The first three arguments are not
    /// used: it always reads up to `receiveSize` bytes into the receive buffer, within `ackTimeout`. `ip` and `port`
    /// may be null.
    virtual void ReceiveAck(void* buffer, std::uint32_t size, std::uint32_t timeoutMs, std::uint32_t* ip,
                            std::uint16_t* port, std::int32_t& count, const PendingAckCallback& callback);

    virtual std::string CommandName(std::uint16_t command);

    /// Called at each sign of life of the device, to put off the heartbeat by `delayMs`. Does nothing here.
    virtual void RestartHeartbeatWait(std::uint64_t delayMs);

protected:
    /// A plain word that several threads read and write; nothing is ordered by it.
    template <typename T>
    class Relaxed {
    public:
        explicit Relaxed(T initial) : value_(initial) {}
        operator T() const { return value_.load(std::memory_order_relaxed); }
        Relaxed& operator=(T newValue)
        {
            value_.store(newValue, std::memory_order_relaxed);
            return *this;
        }

    private:
        std::atomic<T> value_;
    };

    Relaxed<std::uint32_t> retries{3};        ///< attempts of one command
    std::unique_ptr<std::uint8_t[]> txBuffer; ///< the command under construction
    std::unique_ptr<std::uint8_t[]> rxBuffer; ///< the last datagram received
    std::int32_t rxCount = 0;                 ///< its bytes; -1 after a receive that failed
    std::uint16_t requestId = 0;              ///< of the last command; never 0 on the wire
    /// Held from the first byte built to the last acknowledge: guards the buffers, `rxCount` and `requestId`. Taken
    /// before the heartbeat's mutex.
    boost::recursive_mutex commandMutex;
    zuLogging::logstate log;
    zuLogging::group_id gevErrorFlag;
    Relaxed<std::uint32_t> ackTimeout{300}; ///< milliseconds to wait for the first answer to an attempt
    Relaxed<bool> byteSwap{true};
    Relaxed<bool> hasCcp{false};     ///< the program believes that it holds control
    std::uint32_t deviceAddress = 0; ///< printed in failure logs; not known here

private:
    std::shared_ptr<TConnection> RequireConnection();
    void AdvanceRequestId();
    std::int32_t SendCommand(std::size_t size);
    std::int32_t ReceiveInto(std::uint32_t timeoutMs, std::uint32_t* ip, std::uint16_t* port, std::int32_t& count);
    std::int32_t AwaitAck(std::uint16_t expectedAck, const PendingAckCallback& callback);
    std::uint32_t ConvertValue(std::uint32_t value, bool swap) const;
    std::uint64_t TakeMemory(std::uint8_t* destination, std::uint64_t size, std::uint64_t offset, std::uint32_t pad);
    void WriteMemBlocks(std::uint64_t address, std::uint32_t size, const std::uint8_t* source, std::uint32_t& tries,
                        std::int32_t& result, const PendingAckCallback& callback);

    std::mutex connectionMutex; ///< guards `connection` alone; nothing is called while it is held
    std::shared_ptr<TConnection> connection;
};

} // namespace GEV
