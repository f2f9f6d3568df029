// What comes to the managers' sockets, and what a client and a new server find in the shared object. A model of what
// the receiver has in hand says what each datagram must lead to.
//
// Input: byte 0 is the role (bit 0: client). A byte tells whether the shared object is there (bit 0), with its content
// behind it as a datagram. Then steps, each behind a byte: bits 0 to 2 are its kind, bits 3 and 4 what fails in which
// way. Server: 0 a datagram comes, 1 a receive fails, 2 the next send fails, 3 the next dispatcher gets no port.
// Client: 0 a dispatcher is asked for (bits 3 and 4: for any process, this one or another), 1 a request of the bytes of
// a datagram is made, each with the answer behind it: a byte, 0 none, 1 a datagram, 2 a receive that fails (bits 3 and
// 4), 3 the send fails; 2 an answer to an earlier request comes; 3 a receive has failed before.
#include "GevTLBase/IPCPipe/IPCException.h"
#include "GevTLBase/IPCPipe/MgrServer.h"
#include "fuzz/fuzz_input.h"
#include "platform/process.h"
#include "tests/support/fake_shared_memory.h"
#include "tests/support/fake_socket.h"

#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace zuTest {

struct DispatcherProbe {
    static zuPlatform::SocketAddress commands(zuIPCPipe::CDispatcher& d) { return d.rmtCmdAddr; }
    static zuPlatform::SocketAddress acknowledges(zuIPCPipe::CDispatcher& d) { return d.rmtAckAddr; }
};

struct MgrProbe {
    static std::size_t pending(zuIPCPipe::CMgr& m)
    {
        const std::lock_guard<std::mutex> lock(m.pendingLock);
        return m.pending.size();
    }
    static std::vector<std::shared_ptr<zuIPCPipe::CDispatcher>> dispatchers(zuIPCPipe::CMgr& m)
    {
        const boost::shared_lock<boost::shared_mutex> lock(m.dispatcherLock);
        std::vector<std::shared_ptr<zuIPCPipe::CDispatcher>> live;
        for (const auto& entry : m.dispatchers)
            live.push_back(entry.lock());
        return live;
    }
};

} // namespace zuTest

namespace {

using namespace zuIPCPipe;
using zuFuzz::Bytes;
using zuFuzz::check;
using zuFuzz::Input;
using zuPlatform::hostToNetwork16;
using zuTest::DispatcherProbe;
using zuTest::MgrProbe;
using Kind = zuPlatform::ReceiveResult::Kind;
namespace FakeSockets = zuTest::FakeSockets;
namespace FakeSharedMemory = zuTest::FakeSharedMemory;

constexpr std::size_t managerSocket = 0; // in the order of opening
constexpr std::uint16_t firstPort = 50000;
constexpr std::size_t maxDispatchers = 3; // each has two threads
constexpr std::size_t maxSteps = 64;
constexpr int ioError = 5;

Kind failureKind(std::uint8_t step)
{
    constexpr Kind kinds[] = {Kind::receiveFailed, Kind::waitFailed, Kind::timeout, Kind::notReady};
    return kinds[(step >> 3) & 3];
}

/// Sockets and shared objects as on a machine that has just been started, and nothing left of them afterwards.
class Machine {
public:
    Machine()
    {
        FakeSockets::reset();
        FakeSharedMemory::reset();
    }
    ~Machine()
    {
        FakeSockets::reset();
        FakeSharedMemory::reset();
        check(FakeSockets::alive() == 0);
    }
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;
};

std::optional<Bytes> putSharedObject(Input& input)
{
    if ((input.byte() & 1) == 0)
        return std::nullopt;
    Bytes content = input.datagram();
    FakeSharedMemory::put(kSharedObjectName, content);
    return content;
}

template <typename T>
void put(Bytes& bytes, std::size_t at, T value)
{
    std::memcpy(bytes.data() + at, &value, sizeof value);
}

MgrDatagram datagramOf(const Bytes& bytes)
{
    MgrDatagram datagram;
    std::memcpy(&datagram, bytes.data(), sizeof datagram);
    return datagram;
}

Bytes bytesOf(const MgrDatagram& datagram)
{
    Bytes bytes(sizeof datagram);
    std::memcpy(bytes.data(), &datagram, sizeof datagram);
    return bytes;
}

/// What a receive leaves of a datagram in the 16 bytes.
void receiveInto(Bytes& buffer, const Bytes& datagram)
{
    std::copy_n(datagram.begin(), std::min(datagram.size(), buffer.size()), buffer.begin());
}

class ServerPlay {
public:
    explicit ServerPlay(Input& source) : input(source)
    {
        const std::optional<Bytes> before = putSharedObject(input);
        manager = std::make_shared<CMgrServer>([](const std::shared_ptr<IMsgSrc>&) { check(false); });
        Bytes object = before.value_or(Bytes());
        object.resize(std::max(object.size(), kSharedObjectSize));
        put(object, 0, kSharedMarker);
        put(object, 4, kSharedHeaderSize);
        put(object, 8, hostToNetwork16(firstPort));
        put(object, 12, std::uint32_t{0});
        check(FakeSharedMemory::content(kSharedObjectName) == object);
        buffer = bytesOf({kMgrReply, 0, 0, 0, 0, 0});
    }

    ~ServerPlay()
    {
        checkDispatchers();
        manager->Stop();
        check(!serving || (MgrProbe::pending(*manager) == 0 && MgrProbe::dispatchers(*manager).empty()));
        // Spares the server's thread the rest of its wait.
        FakeSockets::setInstantTimeouts(true);
        manager.reset();
        const std::vector<zuTest::SentDatagram> sent = FakeSockets::sent();
        check(sent.size() == expected.size());
        for (std::size_t i = 0; i < sent.size(); ++i)
            check(sent[i].socket == managerSocket && sent[i].data == expected[i].data && sent[i].to == expected[i].to);
    }

    void run()
    {
        for (std::size_t i = 0; i < maxSteps && !input.empty() && serving; ++i)
            step();
    }

private:
    void step()
    {
        const std::uint8_t what = input.byte();
        switch (what & 7) {
        case 0: {
            const Bytes datagram = input.datagram();
            const zuPlatform::SocketAddress sender = zuPlatform::loopbackAt(++senders);
            Bytes next = buffer;
            receiveInto(next, datagram);
            // No more threads than an input is worth.
            if (announces(next) && made.size() == maxDispatchers)
                return;
            FakeSockets::pushDatagram(datagram, sender, managerSocket);
            if (datagram.empty()) {
                from = sender;
                return;
            }
            buffer = next;
            from = sender;
            handled();
            return;
        }
        case 1: {
            const Kind kind = failureKind(what);
            FakeSockets::pushReceive({kind, -1, ioError}, managerSocket);
            if (kind == Kind::receiveFailed || kind == Kind::waitFailed)
                handled();
            return;
        }
        case 2:
            comeThrough();
            if (!std::exchange(sendFails, true))
                FakeSockets::fail(FakeSockets::Call::sendTo, ioError);
            return;
        case 3:
            comeThrough();
            if (!std::exchange(bindFails, true))
                FakeSockets::fail(FakeSockets::Call::bind, ioError);
            return;
        default:
            return;
        }
    }

    // Waits until the server's thread has answered all that has come.
    void comeThrough() { check(FakeSockets::waitForSent(expected.size())); }

    static bool announces(const Bytes& datagram) { return datagramOf(datagram).status == kMgrRequest; }

    // The server's thread takes what stands in its buffer for a request.
    void handled()
    {
        if (announces(buffer)) {
            if (bindFails) { // its end, and no other client's
                serving = false;
                return;
            }
            const std::size_t port = firstPort + 1 + 2 * made.size();
            MgrDatagram datagram = datagramOf(buffer);
            datagram.rmtAckPort = hostToNetwork16(static_cast<std::uint16_t>(port));
            datagram.rmtCmdPort = hostToNetwork16(static_cast<std::uint16_t>(port + 1));
            datagram.status = kMgrReply;
            buffer = bytesOf(datagram);
            made.push_back(datagram);
        }
        if (sendFails) {
            serving = false;
            return;
        }
        expected.push_back({managerSocket, buffer, from});
    }

    // An announce leads to one dispatcher, which lasts whatever becomes of the server's thread.
    void checkDispatchers()
    {
        comeThrough();
        if (!serving)
            return;
        const auto dispatchers = MgrProbe::dispatchers(*manager);
        check(dispatchers.size() == made.size() && MgrProbe::pending(*manager) == made.size());
        for (std::size_t i = 0; i < made.size(); ++i) {
            CDispatcher& one = *dispatchers[i];
            check(one.Pid() == made[i].pid && one.InstanceCount() == 0);
            check(one.CmdPort() == made[i].rmtCmdPort && one.AckPort() == made[i].rmtAckPort);
            check(DispatcherProbe::commands(one) == zuPlatform::loopbackAt(made[i].cmdPort));
            check(DispatcherProbe::acknowledges(one) == zuPlatform::loopbackAt(made[i].ackPort));
        }
    }

    Input& input;
    std::shared_ptr<CMgrServer> manager;
    Bytes buffer; ///< the 16 bytes that the server's thread receives into
    zuPlatform::SocketAddress from;
    std::uint16_t senders = 0;
    bool serving = true;
    bool sendFails = false;
    bool bindFails = false;
    std::vector<MgrDatagram> made;
    std::vector<zuTest::SentDatagram> expected;
};

class ClientPlay {
public:
    explicit ClientPlay(Input& source) : input(source)
    {
        object = putSharedObject(input);
        std::string words;
        try {
            manager = std::make_shared<CMgr>();
        } catch (const IPCException& e) {
            words = e.what();
        }
        const bool whole = object && object->size() >= kSharedObjectSize;
        if (whole)
            std::memcpy(&serverPort, object->data() + 8, sizeof serverPort);
        check((manager != nullptr) == whole);
        if (!manager)
            check(words == "Unable to create shared object");
        FakeSockets::onSend([this](const zuTest::SentDatagram& datagram) {
            sent.push_back(datagram);
            for (const Answer& one : std::exchange(answers, {}))
                push(one);
            return zuPlatform::SendResult{static_cast<std::ptrdiff_t>(datagram.data.size()), 0};
        });
    }

    ~ClientPlay()
    {
        held.clear();
        manager.reset();
        check(!object || FakeSharedMemory::content(kSharedObjectName) == *object);
    }

    void run()
    {
        for (std::size_t i = 0; i < maxSteps && manager && !input.empty(); ++i)
            step();
    }

private:
    struct Answer {
        Kind kind = Kind::received;
        Bytes data;
    };

    void step()
    {
        const std::uint8_t what = input.byte();
        switch (what & 7) {
        case 0:
            getDispatcher((what >> 3) & 3u);
            break;
        case 1: {
            MgrDatagram datagram{};
            Bytes bytes(sizeof datagram);
            receiveInto(bytes, input.datagram());
            datagram = datagramOf(bytes);
            const std::string words = exchange(bytes);
            check(thrown([&] { manager->Request(&datagram); }) == words);
            expectRequest(datagramOf(request));
            check(bytesOf(datagram) == bytes);
            break;
        }
        case 2:
            push({Kind::received, input.datagram()});
            break;
        case 3:
            push({failureKind(what), {}});
            break;
        default:
            break;
        }
    }

    void getDispatcher(std::uint32_t choice)
    {
        const std::uint32_t own = zuPlatform::currentProcessId();
        const std::uint32_t pid = choice == 1 ? own : choice == 0 ? 0 : own + choice;
        std::shared_ptr<CDispatcher> dispatcher;
        if (!held.empty() && (pid == 0 || pid == own)) {
            manager->GetDispatcher(dispatcher, pid);
            check(dispatcher == held.front() && sent.empty());
            return;
        }
        if (++tried > maxDispatchers)
            return;
        Bytes bytes = bytesOf({kMgrRequest, own, 0, 0, 0, 0});
        const std::string words = exchange(bytes);
        check(thrown([&] { manager->GetDispatcher(dispatcher, pid); }) == words);
        check((dispatcher != nullptr) == words.empty());
        MgrDatagram asked = datagramOf(request);
        // The ports of the two sockets opened last.
        asked.ackPort = hostToNetwork16(static_cast<std::uint16_t>(nextPort));
        asked.cmdPort = hostToNetwork16(static_cast<std::uint16_t>(nextPort + 1));
        nextPort += 2;
        expectRequest(asked);
        if (!dispatcher)
            return;
        const MgrDatagram answer = datagramOf(bytes);
        check(dispatcher->Pid() == own);
        check(dispatcher->CmdPort() == asked.cmdPort && dispatcher->AckPort() == asked.ackPort);
        check(DispatcherProbe::commands(*dispatcher) == zuPlatform::loopbackAt(answer.rmtCmdPort));
        check(DispatcherProbe::acknowledges(*dispatcher) == zuPlatform::loopbackAt(answer.rmtAckPort));
        held.push_back(std::move(dispatcher));
        const auto known = MgrProbe::dispatchers(*manager);
        check(std::count(known.begin(), known.end(), held.back()) == 1);
    }

    // Reads the answer to the request that is made next. The words that it must fail with, or none and what stands in
    // `bytes` after it.
    std::string exchange(Bytes& bytes)
    {
        request = bytes;
        sendFails = false;
        answers.clear();
        const std::uint8_t what = input.byte();
        if ((what & 3) == 1)
            answers.push_back({Kind::received, input.datagram()});
        else if ((what & 3) == 2)
            answers.push_back({failureKind(what), {}});
        else if ((what & 3) == 3)
            sendFails = true;
        // Late answers are taken away, up to where the socket has nothing to give.
        for (bool more = true; more && !queue.empty(); queue.pop_front())
            more = queue.front().kind == Kind::received || queue.front().kind == Kind::receiveFailed;
        if (sendFails) {
            FakeSockets::fail(FakeSockets::Call::sendTo, ioError);
            return "Socket sendto failed";
        }
        // Nothing is waited for in earnest.
        if (queue.empty() && answers.empty())
            answers.push_back({Kind::timeout, {}});
        const Answer answer = queue.empty() ? answers.front() : queue.front();
        if (!queue.empty())
            queue.pop_front();
        else
            taken = true;
        switch (answer.kind) {
        case Kind::timeout:
        case Kind::notReady:
            return "Socket recv failed";
        case Kind::waitFailed:
            return "Socket select error";
        case Kind::receiveFailed:
            return "Socket recvfrom failed";
        case Kind::received:
            break;
        }
        receiveInto(bytes, answer.data);
        if (answer.data.size() > bytes.size())
            return "Socket recvfrom failed";
        return answer.data.empty() ? "Socket recv failed" : "";
    }

    void expectRequest(const MgrDatagram& asked)
    {
        // The answer that was read is no longer there.
        if (std::exchange(taken, false))
            queue.pop_front();
        if (sendFails) {
            check(sent.empty());
            return;
        }
        check(sent.size() == 1 && sent[0].socket == managerSocket);
        check(sent[0].to == zuPlatform::loopbackAt(serverPort) && sent[0].data == bytesOf(asked));
        sent.clear();
    }

    void push(const Answer& answer)
    {
        queue.push_back(answer);
        if (answer.kind == Kind::received)
            FakeSockets::pushDatagram(answer.data, zuPlatform::loopbackAt(serverPort), managerSocket);
        else
            FakeSockets::pushReceive({answer.kind, -1, ioError}, managerSocket);
    }

    static std::string thrown(const std::function<void()>& action)
    {
        try {
            action();
        } catch (const IPCTimeoutException& e) {
            check(std::string(e.what()) == "Socket sendto failed");
            return e.what();
        } catch (const IPCException& e) {
            return e.what();
        }
        return {};
    }

    Input& input;
    std::optional<Bytes> object;
    std::shared_ptr<CMgr> manager;
    std::uint16_t serverPort = 0;
    std::size_t nextPort = firstPort + 1;
    std::size_t tried = 0;
    std::vector<std::shared_ptr<CDispatcher>> held;
    std::deque<Answer> queue;    ///< what the manager's socket holds
    std::vector<Answer> answers; ///< what comes upon the next send
    bool taken = false;          ///< the next request reads what comes upon it
    bool sendFails = false;
    Bytes request;
    std::vector<zuTest::SentDatagram> sent;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const Machine machine;
    Input input(data, size);
    if ((input.byte() & 1) == 0)
        ServerPlay(input).run();
    else
        ClientPlay(input).run();
    return 0;
}
