// A connection that plays a script, or a small device, in the place of a socket. Nothing waits: a receive that finds
// nothing queued reports its timeout at once. Any thread may call.
#pragma once

#include "GevTLBase/GevHelper.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace gevTest {

using Bytes = std::vector<std::uint8_t>;
using TimePoint = std::chrono::steady_clock::time_point;

constexpr std::chrono::seconds hardDeadline{60};

inline std::uint16_t big16(const Bytes& data, std::size_t offset)
{
    return static_cast<std::uint16_t>(data.at(offset) << 8 | data.at(offset + 1));
}
inline std::uint32_t big32(const Bytes& data, std::size_t offset)
{
    return static_cast<std::uint32_t>(big16(data, offset)) << 16 | big16(data, offset + 2);
}
inline Bytes fromBig32(std::uint32_t value)
{
    return {static_cast<std::uint8_t>(value >> 24), static_cast<std::uint8_t>(value >> 16),
            static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
}

/// An acknowledge: header, with the length of `payload`, and `payload`.
inline Bytes ack(std::uint16_t status, std::uint16_t command, std::uint16_t id, const Bytes& payload = {})
{
    const auto length = static_cast<std::uint16_t>(payload.size());
    Bytes data;
    for (const std::uint16_t word : {status, command, length, id}) {
        data.push_back(static_cast<std::uint8_t>(word >> 8));
        data.push_back(static_cast<std::uint8_t>(word));
    }
    data.insert(data.end(), payload.begin(), payload.end());
    return data;
}
inline Bytes readRegAck(std::uint16_t id, std::uint32_t value) { return ack(0, 0x81, id, fromBig32(value)); }
inline Bytes writeRegAck(std::uint16_t id) { return ack(0, 0x83, id, {0, 0, 0, 1}); }
inline Bytes readMemAck(std::uint16_t id, const Bytes& data)
{
    Bytes payload{0xAA, 0xBB, 0xCC, 0xDD}; // the address; nobody looks at it
    payload.insert(payload.end(), data.begin(), data.end());
    return ack(0, 0x85, id, payload);
}
inline Bytes writeMemAck(std::uint16_t id) { return ack(0, 0x87, id, {0, 0, 0, 0}); }
inline Bytes pendingAck(std::uint16_t id, std::uint16_t milliseconds)
{
    return ack(0, 0x89, id,
               {0x77, 0x77, static_cast<std::uint8_t>(milliseconds >> 8), static_cast<std::uint8_t>(milliseconds)});
}

class FakeConnection {
public:
    struct Sent {
        Bytes data;
        TimePoint at;
    };
    struct Answer {
        std::int32_t result = 0;
        Bytes data;
        std::int32_t count = 0;
    };
    /// Sees each datagram, without any lock, and queues its answers with `push`. Returns the result of the send.
    using Responder = std::function<std::int32_t(FakeConnection&, const Bytes&)>;

    // What CGVCP and CGevControl ask of a connection.
    std::int32_t Bind(std::uint32_t ip, std::uint16_t port)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        local = {ip, port};
        return bindResult;
    }
    std::int32_t SetDestination(std::uint32_t ip, std::uint16_t port)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        destination = {ip, port};
        return destinationResult;
    }
    std::int32_t GetLocalAddress(std::uint32_t& ip, std::uint16_t& port)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        ip = local.first;
        port = local.second;
        return 0;
    }
    std::int32_t Send(const void* buffer, std::uint32_t size, std::int32_t& count)
    {
        const auto* begin = static_cast<const std::uint8_t*>(buffer);
        const Bytes data(begin, begin + size);
        Responder current;
        {
            const std::lock_guard<std::mutex> lock(mutex);
            sent_.push_back({data, std::chrono::steady_clock::now()});
            current = responder;
            changed.notify_all();
        }
        const std::int32_t result = current ? current(*this, data) : 0;
        count = result == 0 ? static_cast<std::int32_t>(size) : 0;
        return result;
    }
    std::int32_t Receive(void* buffer, std::uint32_t size, std::uint32_t timeoutMs, std::uint32_t*, std::uint16_t*,
                         std::int32_t& count)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        timeouts_.push_back(timeoutMs);
        receiveSizes_.push_back(size);
        changed.notify_all();
        count = 0;
        if (answers.empty())
            return GEV::resultCode::timeout;
        const Answer answer = answers.front();
        answers.pop_front();
        if (!answer.data.empty())
            std::memcpy(buffer, answer.data.data(), std::min<std::size_t>(answer.data.size(), size));
        count = answer.count;
        return answer.result;
    }

    // The script.
    void respond(Responder newResponder)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        responder = std::move(newResponder);
    }
    void push(const Bytes& data) { pushAnswer({0, data, static_cast<std::int32_t>(data.size())}); }
    void pushTimeout() { pushAnswer({GEV::resultCode::timeout, {}, 0}); }
    void pushAnswer(const Answer& answer)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        answers.push_back(answer);
    }

    // What happened.
    std::vector<Sent> sentWithTimes() const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return sent_;
    }
    std::vector<Bytes> sent() const
    {
        std::vector<Bytes> result;
        for (const Sent& datagram : sentWithTimes())
            result.push_back(datagram.data);
        return result;
    }
    std::vector<std::uint32_t> timeouts() const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return timeouts_;
    }
    std::vector<std::uint32_t> receiveSizes() const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return receiveSizes_;
    }
    void forget()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        sent_.clear();
        timeouts_.clear();
        receiveSizes_.clear();
        answers.clear();
    }
    /// Waits until `condition` holds for what was sent.
    bool waitFor(const std::function<bool(const std::vector<Sent>&)>& condition,
                 std::chrono::milliseconds deadline = hardDeadline)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_until(lock, std::chrono::steady_clock::now() + deadline, [&] { return condition(sent_); });
    }
    bool waitForSent(std::size_t count, std::chrono::milliseconds deadline = hardDeadline)
    {
        return waitFor([count](const std::vector<Sent>& all) { return all.size() >= count; }, deadline);
    }

    std::pair<std::uint32_t, std::uint16_t> local;
    std::pair<std::uint32_t, std::uint16_t> destination;
    std::int32_t bindResult = 0;
    std::int32_t destinationResult = 0;

private:
    mutable std::mutex mutex;
    std::condition_variable changed;
    Responder responder;
    std::deque<Answer> answers;
    std::vector<Sent> sent_;
    std::vector<std::uint32_t> timeouts_;
    std::vector<std::uint32_t> receiveSizes_;
};

inline bool isCommand(const Bytes& data, std::uint16_t command, std::uint32_t address)
{
    return big16(data, 2) == command && big32(data, 8) == address;
}

/// Answers register commands as a device does. `fault` may answer in its place: it returns whether it did.
class FakeDevice {
public:
    using Fault = std::function<bool(FakeConnection&, const Bytes&)>;

    FakeConnection::Responder responder()
    {
        return [this](FakeConnection& connection, const Bytes& data) { return answer(connection, data); };
    }
    void set(std::uint32_t address, std::uint32_t value)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        registers[address] = value;
    }
    std::uint32_t get(std::uint32_t address) const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        const auto found = registers.find(address);
        return found == registers.end() ? 0 : found->second;
    }
    void setFault(Fault newFault)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        fault = std::move(newFault);
    }

private:
    std::int32_t answer(FakeConnection& connection, const Bytes& data)
    {
        Fault current;
        {
            const std::lock_guard<std::mutex> lock(mutex);
            current = fault;
        }
        if (current && current(connection, data))
            return 0;
        const std::uint16_t id = big16(data, 6);
        switch (big16(data, 2)) {
        case 0x80:
            connection.push(readRegAck(id, get(big32(data, 8))));
            break;
        case 0x82:
            set(big32(data, 8), big32(data, 12));
            connection.push(writeRegAck(id));
            break;
        case 0x84:
            connection.push(readMemAck(id, Bytes(big16(data, 14), 0x5A)));
            break;
        default:
            connection.push(writeMemAck(id));
            break;
        }
        return 0;
    }

    mutable std::mutex mutex;
    std::map<std::uint32_t, std::uint32_t> registers;
    Fault fault;
};

} // namespace gevTest
