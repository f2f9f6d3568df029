// The script that every fake socket shares, under one lock, and the socket operations that play it.
#include "tests/support/fake_socket.h"

#include "platform/datagram_batch.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <optional>

namespace zuPlatform {

const int wouldBlockError = EAGAIN;
const int messageSizeError = EMSGSIZE;

struct DatagramSocket::State {
    std::size_t number = 0;
    bool closed = false;
    std::uint64_t generation = 0; ///< of the script at the time of opening
    bool dontFragment = false;
    int receiveBuffer = 0;
    SocketAddress local;
};

struct DatagramBatch::State {
    explicit State(std::size_t capacity) : pieces(capacity), sizes(capacity), peers(capacity) {}
    std::vector<std::vector<MemoryPiece>> pieces;
    std::vector<std::size_t> sizes;
    std::vector<SocketAddress> peers;
};

DatagramBatch::DatagramBatch(std::size_t capacity) : state_(std::make_unique<State>(capacity)) {}
DatagramBatch::~DatagramBatch() = default;
std::size_t DatagramBatch::capacity() const { return state_->pieces.size(); }
void DatagramBatch::setPieces(std::size_t index, std::span<const MemoryPiece> pieces)
{
    state_->pieces.at(index).assign(pieces.begin(), pieces.end());
}
std::size_t DatagramBatch::size(std::size_t index) const { return state_->sizes.at(index); }
SocketAddress DatagramBatch::from(std::size_t index) const { return state_->peers.at(index); }

} // namespace zuPlatform

namespace zuTest::FakeSockets {
namespace {

using zuPlatform::ReceiveResult;
using zuPlatform::SendResult;
using zuPlatform::SocketAddress;

struct Answer {
    ReceiveResult result;
    std::vector<std::uint8_t> data;
    SocketAddress from;
    std::size_t socket = anySocket;
};

struct Failure {
    Call call = Call::open;
    int error = 0;
    std::size_t times = 0;
    std::size_t after = 0;
};

struct Script {
    std::mutex mutex;
    std::condition_variable changed; ///< for who receives: an answer has come, or the rules have changed
    std::condition_variable noted;   ///< for who waits for calls and datagrams
    std::uint64_t generation = 0;
    std::vector<Failure> failures;
    std::deque<Answer> answers;
    std::vector<SentDatagram> sent;
    std::vector<std::string> calls;
    std::function<SendResult(const SentDatagram&)> answer;
    std::optional<SocketAddress> local;
    std::optional<std::size_t> pending;
    std::optional<int> granted;
    std::uint32_t dropped = 0;
    bool instant = false;
    std::size_t opened = 0;
    std::size_t alive = 0;
    std::uint16_t nextPort = 50000;

    /// 0, or the error that this call is to fail with.
    int failureOf(Call call)
    {
        for (Failure& failure : failures) {
            if (failure.call != call || failure.times == 0)
                continue;
            if (failure.after > 0) {
                --failure.after;
                continue;
            }
            --failure.times;
            return failure.error;
        }
        return 0;
    }

    void note(std::size_t socket, const std::string& text)
    {
        calls.push_back(std::to_string(socket) + ' ' + text);
        noted.notify_all();
    }
};

Script& script()
{
    static Script& instance = *new Script;
    return instance;
}

std::string textOf(const SocketAddress& address)
{
    char text[64] = "";
    zuPlatform::formatSocketAddress(address, text, sizeof text);
    return text;
}

void push(Answer answer)
{
    const std::lock_guard<std::mutex> lock(script().mutex);
    script().answers.push_back(std::move(answer));
    script().changed.notify_all();
}

} // namespace

void reset()
{
    Script& s = script();
    const std::lock_guard<std::mutex> lock(s.mutex);
    ++s.generation;
    s.failures.clear();
    s.answers.clear();
    s.sent.clear();
    s.calls.clear();
    s.answer = nullptr;
    s.local.reset();
    s.pending.reset();
    s.granted.reset();
    s.dropped = 0;
    s.instant = false;
    s.opened = 0;
    s.nextPort = 50000;
}

void fail(Call call, int error, std::size_t times, std::size_t after)
{
    const std::lock_guard<std::mutex> lock(script().mutex);
    script().failures.push_back({call, error, times, after});
}

void pushDatagram(std::vector<std::uint8_t> data, const SocketAddress& from, std::size_t socket)
{
    Answer answer;
    answer.result.kind = ReceiveResult::Kind::received;
    answer.data = std::move(data);
    answer.from = from;
    answer.socket = socket;
    push(std::move(answer));
}

void pushReceive(const ReceiveResult& result, std::size_t socket)
{
    Answer answer;
    answer.result = result;
    answer.socket = socket;
    push(std::move(answer));
}

void setInstantTimeouts(bool instant)
{
    const std::lock_guard<std::mutex> lock(script().mutex);
    script().instant = instant;
    script().changed.notify_all();
}

void onSend(std::function<SendResult(const SentDatagram&)> answer)
{
    const std::lock_guard<std::mutex> lock(script().mutex);
    script().answer = std::move(answer);
}

void setLocalAddress(const SocketAddress& address)
{
    const std::lock_guard<std::mutex> lock(script().mutex);
    script().local = address;
}

void setPendingBytes(std::size_t bytes)
{
    const std::lock_guard<std::mutex> lock(script().mutex);
    script().pending = bytes;
}

void setGrantedBuffer(int bytes)
{
    const std::lock_guard<std::mutex> lock(script().mutex);
    script().granted = bytes;
}

void setDropped(std::uint32_t count)
{
    const std::lock_guard<std::mutex> lock(script().mutex);
    script().dropped = count;
}

std::vector<SentDatagram> sent()
{
    const std::lock_guard<std::mutex> lock(script().mutex);
    return script().sent;
}

std::vector<std::string> calls()
{
    const std::lock_guard<std::mutex> lock(script().mutex);
    return script().calls;
}

std::size_t countCalls(const std::string& call)
{
    const std::lock_guard<std::mutex> lock(script().mutex);
    return static_cast<std::size_t>(std::count(script().calls.begin(), script().calls.end(), call));
}

bool waitForSent(std::size_t count, std::chrono::milliseconds deadline)
{
    std::unique_lock<std::mutex> lock(script().mutex);
    return script().noted.wait_until(lock, std::chrono::steady_clock::now() + deadline,
                                     [&] { return script().sent.size() >= count; });
}

bool waitForCall(const std::string& call, std::size_t count, std::chrono::milliseconds deadline)
{
    std::unique_lock<std::mutex> lock(script().mutex);
    return script().noted.wait_until(lock, std::chrono::steady_clock::now() + deadline, [&] {
        const auto& made = script().calls;
        return static_cast<std::size_t>(std::count(made.begin(), made.end(), call)) >= count;
    });
}

std::size_t opened()
{
    const std::lock_guard<std::mutex> lock(script().mutex);
    return script().opened;
}

std::size_t alive()
{
    const std::lock_guard<std::mutex> lock(script().mutex);
    return script().alive;
}

} // namespace zuTest::FakeSockets

namespace zuPlatform {

using namespace zuTest::FakeSockets;

namespace {

/// Whether an answer is a datagram that the socket may have. The caller holds the script's lock.
template <typename State>
bool isFor(const Answer& answer, const State& state)
{
    return state.generation == script().generation && answer.result.kind == ReceiveResult::Kind::received &&
           (answer.socket == anySocket || answer.socket == state.number);
}

/// Notes the call and returns what it is to fail with. The caller holds the script's lock.
template <typename State>
int enter(State& state, Call call, const std::string& text)
{
    Script& s = script();
    if (state.generation == s.generation)
        s.note(state.number, text);
    return state.closed ? EBADF : s.failureOf(call);
}

} // namespace

std::shared_ptr<DatagramSocket> DatagramSocket::open(int& error)
{
    Script& s = script();
    const std::lock_guard<std::mutex> lock(s.mutex);
    error = s.failureOf(Call::open);
    if (error)
        return nullptr;
    auto state = std::make_unique<State>();
    state->number = s.opened++;
    ++s.alive;
    state->generation = s.generation;
    s.note(state->number, "open");
    return std::shared_ptr<DatagramSocket>(new DatagramSocket(std::move(state)));
}

DatagramSocket::DatagramSocket(std::unique_ptr<State> state) : state_(std::move(state)) {}

DatagramSocket::~DatagramSocket()
{
    const std::lock_guard<std::mutex> lock(script().mutex);
    --script().alive;
}

int DatagramSocket::bind(const SocketAddress& address)
{
    Script& s = script();
    const std::lock_guard<std::mutex> lock(s.mutex);
    const int error = enter(*state_, Call::bind, "bind " + textOf(address));
    if (error)
        return error;
    state_->local = address;
    if (address.port == 0)
        state_->local.port = hostToNetwork16(s.nextPort++);
    return 0;
}

int DatagramSocket::getLocalAddress(SocketAddress& address)
{
    Script& s = script();
    const std::lock_guard<std::mutex> lock(s.mutex);
    const int error = enter(*state_, Call::getLocalAddress, "getLocalAddress");
    if (!error)
        address = s.local ? *s.local : state_->local;
    return error;
}

int DatagramSocket::setNonBlocking()
{
    const std::lock_guard<std::mutex> lock(script().mutex);
    return enter(*state_, Call::setNonBlocking, "setNonBlocking");
}

int DatagramSocket::setReceiveBuffer(int bytes)
{
    const std::lock_guard<std::mutex> lock(script().mutex);
    const int error = enter(*state_, Call::setReceiveBuffer, "setReceiveBuffer " + std::to_string(bytes));
    if (!error)
        state_->receiveBuffer = bytes;
    return error;
}

int DatagramSocket::setSendBuffer(int bytes)
{
    const std::lock_guard<std::mutex> lock(script().mutex);
    return enter(*state_, Call::setSendBuffer, "setSendBuffer " + std::to_string(bytes));
}

int DatagramSocket::setBroadcast()
{
    const std::lock_guard<std::mutex> lock(script().mutex);
    return enter(*state_, Call::setBroadcast, "setBroadcast");
}

int DatagramSocket::setReuseAddress()
{
    const std::lock_guard<std::mutex> lock(script().mutex);
    return enter(*state_, Call::setReuseAddress, "setReuseAddress");
}

int DatagramSocket::setDontFragment(bool value)
{
    const std::lock_guard<std::mutex> lock(script().mutex);
    const int error = enter(*state_, Call::setDontFragment, value ? "setDontFragment 1" : "setDontFragment 0");
    if (!error)
        state_->dontFragment = value;
    return error;
}

int DatagramSocket::getDontFragment(bool& value)
{
    const std::lock_guard<std::mutex> lock(script().mutex);
    const int error = enter(*state_, Call::getDontFragment, "getDontFragment");
    if (!error)
        value = state_->dontFragment;
    return error;
}

int DatagramSocket::getPendingBytes(std::size_t& bytes)
{
    Script& s = script();
    const std::lock_guard<std::mutex> lock(s.mutex);
    const int error = enter(*state_, Call::getPendingBytes, "getPendingBytes");
    if (error)
        return error;
    std::size_t queued = 0;
    for (const Answer& answer : s.answers)
        if (answer.result.kind == ReceiveResult::Kind::received &&
            (answer.socket == anySocket || answer.socket == state_->number))
            queued += std::max<std::size_t>(answer.data.size(), 1);
    bytes = s.pending ? *s.pending : queued;
    return 0;
}

int DatagramSocket::getReceiveBuffer(int& bytes)
{
    Script& s = script();
    const std::lock_guard<std::mutex> lock(s.mutex);
    const int error = enter(*state_, Call::getReceiveBuffer, "getReceiveBuffer");
    if (!error)
        bytes = s.granted ? *s.granted : state_->receiveBuffer;
    return error;
}

int DatagramSocket::getDropped(std::uint32_t& count)
{
    Script& s = script();
    const std::lock_guard<std::mutex> lock(s.mutex);
    const int error = enter(*state_, Call::getDropped, "getDropped");
    if (!error)
        count = s.dropped;
    return error;
}

int DatagramSocket::joinGroup(const SocketAddress& group, std::uint32_t interfaceAddress)
{
    const std::lock_guard<std::mutex> lock(script().mutex);
    const int error =
        enter(*state_, Call::joinGroup, "joinGroup " + textOf(group) + " on " + textOf({interfaceAddress, 0}));
    if (!error)
        state_->local = group;
    return error;
}

int DatagramSocket::connect(const SocketAddress& peer)
{
    const std::lock_guard<std::mutex> lock(script().mutex);
    return enter(*state_, Call::connect, "connect " + textOf(peer));
}

SendResult DatagramSocket::sendTo(const void* data, std::size_t size, const SocketAddress& to)
{
    Script& s = script();
    zuTest::SentDatagram datagram;
    std::function<SendResult(const zuTest::SentDatagram&)> answer;
    {
        const std::lock_guard<std::mutex> lock(s.mutex);
        if (const int error = enter(*state_, Call::sendTo, "sendTo " + textOf(to)))
            return {-1, error};
        const auto* const bytes = static_cast<const std::uint8_t*>(data);
        datagram = {state_->number, {bytes, bytes + size}, to};
        if (state_->generation == s.generation)
            s.sent.push_back(datagram);
        answer = s.answer;
        s.noted.notify_all();
    }
    return answer ? answer(datagram) : SendResult{static_cast<std::ptrdiff_t>(size), 0};
}

ReceiveResult DatagramSocket::receive(void* buffer, std::size_t size, std::uint32_t timeoutMs, SocketAddress* from)
{
    Script& s = script();
    std::unique_lock<std::mutex> lock(s.mutex);
    if (state_->generation == s.generation)
        s.note(state_->number, "receive " + std::to_string(timeoutMs));
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (state_->closed) {
            ReceiveResult closed;
            closed.kind = ReceiveResult::Kind::waitFailed;
            closed.error = EBADF;
            return closed;
        }
        const bool mine = state_->generation == s.generation;
        const auto next = std::find_if(s.answers.begin(), s.answers.end(), [&](const Answer& answer) {
            return mine && (answer.socket == anySocket || answer.socket == state_->number);
        });
        if (next != s.answers.end()) {
            const Answer answer = std::move(*next);
            s.answers.erase(next);
            ReceiveResult result = answer.result;
            if (result.kind != ReceiveResult::Kind::received)
                return result;
            const std::size_t count = std::min(size, answer.data.size());
            if (count)
                std::memcpy(buffer, answer.data.data(), count);
            if (from)
                *from = answer.from;
            result.count = static_cast<std::ptrdiff_t>(count);
            if (count < answer.data.size()) {
                result.kind = ReceiveResult::Kind::receiveFailed;
                result.error = EMSGSIZE;
            }
            return result;
        }
        if (s.instant || std::chrono::steady_clock::now() >= deadline)
            return {};
        s.changed.wait_until(lock, deadline);
    }
}

int DatagramSocket::waitReadable(std::uint64_t timeoutNs)
{
    Script& s = script();
    std::unique_lock<std::mutex> lock(s.mutex);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::nanoseconds(timeoutNs);
    if (const int error = enter(*state_, Call::waitReadable, "waitReadable " + std::to_string(timeoutNs)))
        return error;
    for (;;) {
        if (state_->closed)
            return EBADF;
        if (std::any_of(s.answers.begin(), s.answers.end(),
                        [&](const Answer& answer) { return isFor(answer, *state_); }))
            return 0;
        if (s.instant || std::chrono::steady_clock::now() >= deadline)
            return wouldBlockError;
        s.changed.wait_until(lock, deadline);
    }
}

int DatagramSocket::receiveBatch(DatagramBatch& batch, std::size_t& count)
{
    Script& s = script();
    const std::lock_guard<std::mutex> lock(s.mutex);
    count = 0;
    if (const int error = enter(*state_, Call::receiveBatch, "receiveBatch"))
        return error;
    auto next = s.answers.begin();
    while (count < batch.capacity() && next != s.answers.end()) {
        if (!isFor(*next, *state_)) {
            ++next;
            continue;
        }
        std::size_t done = 0;
        for (const MemoryPiece& piece : batch.state_->pieces[count]) {
            const std::size_t size = std::min(piece.size, next->data.size() - done);
            if (size != 0)
                std::memcpy(piece.data, next->data.data() + done, size);
            done += size;
        }
        batch.state_->sizes[count] = next->data.size();
        batch.state_->peers[count] = next->from;
        next = s.answers.erase(next);
        ++count;
    }
    return count == 0 ? wouldBlockError : 0;
}

int DatagramSocket::shutdownSend()
{
    const std::lock_guard<std::mutex> lock(script().mutex);
    return enter(*state_, Call::shutdownSend, "shutdownSend");
}

void DatagramSocket::close()
{
    Script& s = script();
    const std::lock_guard<std::mutex> lock(s.mutex);
    if (state_->generation == s.generation)
        s.note(state_->number, "close");
    state_->closed = true;
    s.changed.notify_all();
}

bool parseIpv4(const char* text, std::uint32_t& networkAddress)
{
    in_addr address{};
    if (!text || ::inet_pton(AF_INET, text, &address) != 1)
        return false;
    networkAddress = address.s_addr;
    return true;
}

bool formatSocketAddress(const SocketAddress& address, char* text, std::size_t size)
{
    char quad[INET_ADDRSTRLEN];
    const in_addr system{address.address};
    if (!::inet_ntop(AF_INET, &system, quad, sizeof quad))
        return false;
    const int length = address.port == 0 ? std::snprintf(text, size, "%s", quad)
                                         : std::snprintf(text, size, "%s:%u", quad,
                                                         static_cast<unsigned>(networkToHost16(address.port)));
    return length >= 0 && static_cast<std::size_t>(length) < size;
}

} // namespace zuPlatform
