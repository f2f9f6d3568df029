// What comes to a dispatcher of the daemon on its two sockets, and what its instances make of it: several datagrams per
// input, to instances in several states. A model of slots, buffers and answers says after each step what must be so.
//
// Everything is played on one thread: the dispatcher is made without its threads, and what an instance's thread does is
// done here, one command at a time.
//
// Input: byte 0 is the number of instances there at first (bits 0 and 1) and which of them have gone since (bits 2 to
// 4). Then steps, each behind a byte: bits 0 to 2 are its kind, bits 3 to 7 choose an instance. Kinds: 0 and 1 a
// datagram to the command socket, 2 to the acknowledge socket, 3 a receive that fails (bit 3: in the wait for it); 4
// the instance's thread runs, and a word says what its handler does: bits 0 to 11 the reply's length, bit 14 it asks
// for time, bit 15 it throws; 5 the instance sends a word's number of bytes for a reply of a second word's, with bit 15
// of the first as a post; a byte tells the number of acknowledge datagrams (up to 3) that come upon it; 6 the daemon
// gives the instance up, with acknowledges as before; 7 the next send fails.
#include "GevTLBase/IPCPipe/Dispatcher.h"
#include "GevTLBase/IPCPipe/IPCException.h"
#include "GevTLBase/IPCPipe/Instance.h"
#include "GevTLBase/IPCPipe/PipeThread.h"
#include "fuzz/fuzz_input.h"
#include "platform/thread.h"
#include "tests/support/fake_socket.h"

#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

namespace zuTest {

struct DispatcherProbe {
    static std::shared_ptr<zuIPCPipe::CDispatcher> make(zuIPCPipe::CDispatcher::Callback forget,
                                                        zuIPCPipe::CDispatcher::NewInstance callback)
    {
        auto dispatcher = std::make_shared<zuIPCPipe::CDispatcher>(
            zuIPCPipe::CDispatcher::Token(), zuIPCPipe::CDispatcher::Callback(), std::move(forget), 1);
        dispatcher->running = 1;
        dispatcher->newInstance.connect(std::move(callback));
        return dispatcher;
    }
    static bool fetch(zuIPCPipe::CDispatcher& d, bool ack, std::shared_ptr<zuIPCPipe::instance_msg>& message)
    {
        return d.Fetch(ack ? d.ackSock : d.cmdSock, message);
    }
    static std::size_t poolSize(zuIPCPipe::CDispatcher& d) { return d.pool.size(); }
    static const zuIPCPipe::instance_msg& poolFront(zuIPCPipe::CDispatcher& d) { return *d.pool.front(); }
    static bool running(zuIPCPipe::CDispatcher& d) { return d.running != 0; }
    static std::unique_ptr<zuIPCPipe::PipeThread> takeThread(zuIPCPipe::CInstance& i) { return i.TakeThread(); }
    static void threadProc(zuIPCPipe::CInstance& i)
    {
        i.running = 1;
        i.ThreadProc();
    }
    static void endThread(zuIPCPipe::CInstance& i) { i.running = 0; }
};

} // namespace zuTest

namespace {

using namespace zuIPCPipe;
using zuFuzz::Bytes;
using zuFuzz::check;
using Probe = zuTest::DispatcherProbe;
namespace FakeSockets = zuTest::FakeSockets;

constexpr std::size_t ackSocket = 0; // in the order of opening
constexpr std::size_t cmdSocket = 1;
constexpr std::uint16_t peerCmdPort = 0x1111;
constexpr std::uint16_t peerAckPort = 0x2222;
constexpr std::size_t maxInstances = 10;
constexpr std::size_t maxSteps = 64;
constexpr int ioError = 5;

MsgHeader headerOf(const Bytes& bytes)
{
    MsgHeader header;
    std::memcpy(&header, bytes.data(), sizeof header);
    return header;
}

Bytes bytesOf(const instance_msg& message) { return {message.buffer.begin(), message.buffer.end()}; }

/// Ends an instance's thread where it waits, or is about to wait, for a command.
void endAtWait(CInstance& instance, PipeThread& thread, CDispatcher::InstanceInfo& info)
{
    Probe::endThread(instance);
    info.aborted = 1;
    info.cmdCond.notify_all();
    thread.Join();
    info.aborted = 0;
}

Bytes headerAlone(std::uint32_t seq, std::uint32_t flags, std::uint32_t timeout, std::uint32_t index)
{
    const MsgHeader header{kMsgHeaderSize, seq, flags, timeout, index};
    Bytes bytes(sizeof header);
    std::memcpy(bytes.data(), &header, sizeof header);
    return bytes;
}

/// A connection of the daemon's, as it must be.
struct Held {
    std::shared_ptr<CInstance> instance;
    std::uint64_t index = 0;
    std::uint32_t remote = 0;
    std::uint32_t seq = 0;
    unsigned disconnects = 0;
    bool connected = true;
    bool inSlot = true;
    bool deaf = false;         ///< its thread has ended
    std::optional<Bytes> cmd;  ///< the unread command
    std::uint64_t cmdSend = 0; ///< the send length of its buffer
    std::optional<Bytes> ack;  ///< the buffer in the acknowledge's place
    bool ackPending = false;
};

class Play {
public:
    Play(const std::uint8_t* data, std::size_t size) : input(data, size)
    {
        FakeSockets::reset();
        dispatcher = Probe::make([this](const std::shared_ptr<CDispatcher>& d) { forgotten += d == dispatcher; },
                                 [this](std::shared_ptr<IMsgSrc> source) { onConnect(std::move(source)); });
        dispatcher->SetRemotePorts(peerCmdPort, peerAckPort);
        FakeSockets::onSend([this](const zuTest::SentDatagram& datagram) {
            sent.push_back(datagram);
            if (const auto answer = std::exchange(onSent, nullptr))
                answer();
            return zuPlatform::SendResult{static_cast<std::ptrdiff_t>(datagram.data.size()), 0};
        });
        const std::uint8_t first = input.byte();
        for (std::uint32_t i = 0; i < (first & 3u); ++i)
            addInstance(i + 100);
        for (std::size_t i = 0; i < held.size(); ++i)
            if ((first & (4u << i)) != 0)
                giveUp(*held[i], false);
        checkState();
    }

    ~Play()
    {
        dispatcher->Shutdown();
        shutDown();
        checkState();
        held.clear();
        const std::weak_ptr<CDispatcher> last = dispatcher;
        dispatcher.reset();
        check(last.expired() && FakeSockets::alive() == 0);
        FakeSockets::reset();
    }

    void run()
    {
        for (std::size_t i = 0; i < maxSteps && !input.empty() && running; ++i) {
            step();
            check(sent.empty());
            checkState();
        }
        // Nothing is received any more, and no buffer is kept.
        if (!running && pool != 0) {
            std::shared_ptr<instance_msg> message;
            check(!Probe::fetch(*dispatcher, false, message) && !message);
        }
    }

private:
    void step()
    {
        const std::uint8_t what = input.byte();
        switch (what & 7) {
        case 0:
        case 1:
            command(input.datagram());
            return;
        case 2:
            acknowledge(input.datagram());
            return;
        case 3:
            failReceive((what & 8) != 0);
            return;
        case 7:
            if (!std::exchange(sendFails, true))
                FakeSockets::fail(FakeSockets::Call::sendTo, ioError);
            return;
        default:
            break;
        }
        if (held.empty())
            return;
        Held& one = *held[(what >> 3) % held.size()];
        if ((what & 7) == 4)
            runThread(one, input.word());
        else if ((what & 7) == 5)
            send(one);
        else
            giveUp(one, true);
    }

    // Receives as the threads do. Null: the datagram is not handed on.
    std::shared_ptr<instance_msg> receive(const Bytes& datagram, bool ack)
    {
        std::shared_ptr<instance_msg> message;
        if (pool == 0) {
            // The thread goes round without a buffer until one comes back. One that it would have had in hand here
            // went with the last instance, so it gets another.
            check(!Probe::fetch(*dispatcher, ack, message) && !message);
            auto fresh = std::make_shared<instance_msg>();
            dispatcher->ReturnMsg(fresh);
            ++pool;
        }
        Bytes expected = bytesOf(Probe::poolFront(*dispatcher));
        const std::size_t taken = std::min(datagram.size(), expected.size());
        std::copy_n(datagram.begin(), taken, expected.begin());
        FakeSockets::pushDatagram(datagram, zuPlatform::loopbackAt(0x3333), ack ? ackSocket : cmdSocket);
        const bool received = Probe::fetch(*dispatcher, ack, message);
        check(received == (datagram.size() <= kMsgBufferSize));
        if (!received) {
            check(!message);
            return nullptr;
        }
        --pool;
        check(bytesOf(*message) == expected);
        check(message->sendLength >= kMsgHeaderSize && message->sendLength <= kMsgBufferSize);
        return message;
    }

    void failReceive(bool inWait)
    {
        using Kind = zuPlatform::ReceiveResult::Kind;
        if (pool == 0)
            return;
        FakeSockets::pushReceive({inWait ? Kind::waitFailed : Kind::receiveFailed, -1, ioError}, cmdSocket);
        std::shared_ptr<instance_msg> message;
        check(!Probe::fetch(*dispatcher, false, message) && !message);
    }

    void command(const Bytes& datagram)
    {
        std::shared_ptr<instance_msg> message = receive(datagram, false);
        if (!message)
            return;
        const Bytes bytes = bytesOf(*message);
        const std::uint64_t sendLength = message->sendLength;
        const MsgHeader header = headerOf(bytes);
        if ((header.flags & kMsgDispatcher) != 0) {
            dispatcherCommand(message, header, Bytes(bytes.begin(), bytes.begin() + std::ptrdiff_t(sendLength)));
            return;
        }
        Held* const one = at(header.index);
        dispatcher->HandleCmd(message);
        check(!message || !one);
        if (one) {
            pool += one->cmd.has_value();
            one->cmd = bytes;
            one->cmdSend = sendLength;
        } else if (header.index >= slots.size()) {
            ++pool;
        }
    }

    void dispatcherCommand(std::shared_ptr<instance_msg>& message, MsgHeader header, Bytes echo)
    {
        const bool terminate = (header.flags & kMsgTerminate) != 0;
        // Answered, a ping then ends the process by a memory fault, which is meant to be so.
        const bool ping = !terminate && (header.flags & kMsgPing) != 0;
        const bool connect = !terminate && !ping && (header.flags & kMsgConnect) != 0;
        if (ping || (connect && held.size() == maxInstances)) {
            dispatcher->ReturnMsg(message);
            ++pool;
            return;
        }
        const unsigned forgottenBefore = forgotten;
        const std::size_t heldBefore = held.size();
        connecting = header.index;
        dispatcher->HandleCmd(message);
        ++pool;
        check(!message && held.size() == heldBefore + connect && forgotten == forgottenBefore + connect);
        if (connect) {
            pool += 3;
            header.index = static_cast<std::uint32_t>(held.back()->index);
        }
        if (connect || terminate)
            header.flags |= kMsgAck;
        if (terminate)
            echo.resize(kMsgHeaderSize);
        std::memcpy(echo.data(), &header, sizeof header);
        expectSent(echo, peerAckPort);
        if (terminate) {
            running = false;
            shutDown();
        }
    }

    void acknowledge(const Bytes& datagram)
    {
        std::shared_ptr<instance_msg> message = receive(datagram, true);
        if (!message)
            return;
        const Bytes bytes = bytesOf(*message);
        const MsgHeader header = headerOf(bytes);
        dispatcher->HandleAck(message);
        if ((header.flags & kMsgDispatcher) != 0)
            return;
        if (Held* const one = at(header.index)) {
            pool += one->ack.has_value();
            one->ack = bytes;
            one->ackPending = true;
        }
    }

    // What the instance's thread does with the command that is there.
    void runThread(Held& one, std::uint16_t what)
    {
        if (one.deaf || !one.inSlot || !one.cmd)
            return;
        const std::size_t length = what & 0x0FFF;
        const bool extends = (what & 0x4000) != 0;
        const bool throws = (what & 0x8000) != 0;
        bool called = false;
        handler = [&](std::uint8_t* data, std::size_t capacity, std::size_t& replyLength,
                      const boost::function<void(unsigned)>& extend) {
            Probe::endThread(*one.instance);
            check(!called && capacity == kMsgPayloadSize && replyLength == one.cmdSend - kMsgHeaderSize);
            check(std::equal(data, data + capacity, one.cmd->begin() + kMsgHeaderSize));
            called = true;
            if (extends)
                extend(static_cast<unsigned>(length));
            if (throws)
                throw std::runtime_error("no");
            replyLength = length;
            std::memset(data, 0x5A, std::min(length, capacity));
        };
        playThread(one);
        handler = nullptr;
        Bytes reply = *std::exchange(one.cmd, std::nullopt);
        MsgHeader header = headerOf(reply);
        const std::uint32_t flags = header.flags;
        header.flags |= kMsgAck;
        header.index = one.remote;
        std::memcpy(reply.data(), &header, sizeof header);
        if ((flags & kMsgControl) != 0) {
            check(!called);
            if ((flags & kMsgTerminate) != 0)
                terminated(one, Bytes(reply.begin(), reply.begin() + kMsgHeaderSize));
            return;
        }
        check(called);
        const bool failed = (extends && sendFails) || throws;
        if (extends)
            expectSent(headerAlone(header.seq, kMsgExtend, static_cast<std::uint32_t>(length), one.remote),
                       peerAckPort);
        const std::size_t replyLength = failed ? one.cmdSend - kMsgHeaderSize : length;
        if (!failed)
            std::fill_n(reply.begin() + kMsgHeaderSize, std::min(length, kMsgPayloadSize), std::uint8_t{0x5A});
        if ((flags & kMsgNoAck) == 0) {
            one.deaf = replyLength > kMsgPayloadSize;
            if (one.deaf)
                return;
            reply.resize(kMsgHeaderSize + replyLength);
            expectSent(reply, peerAckPort);
        }
        ++pool;
    }

    void playThread(Held& one)
    {
        const std::uint32_t flags = headerOf(*one.cmd).flags;
        if ((flags & (kMsgControl | kMsgTerminate)) == kMsgControl) {
            // Goes on to wait, which needs a thread that can be ended there.
            const auto info = dispatcher->Slot(one.index);
            const auto thread =
                PipeThread::Start(PipeThread::Kind::instance, [&] { Probe::threadProc(*one.instance); });
            while (info->cmdPending)
                zuPlatform::yieldThread();
            endAtWait(*one.instance, *thread, *info);
            return;
        }
        Probe::threadProc(*one.instance);
    }

    void terminated(Held& one, const Bytes& reply)
    {
        one.connected = false;
        check(one.disconnects == 1 && !one.instance->IsConnected());
        const bool answered = !sendFails;
        expectSent(reply, peerAckPort);
        // One that could not answer keeps its place until the dispatcher goes.
        one.deaf = true;
        if (!answered)
            return;
        ++pool;
        freeSlot(one);
    }

    void send(Held& one)
    {
        if (!one.instance)
            return;
        const std::uint16_t what = input.word();
        Bytes data(what & 0x0FFF, 0xA7);
        const bool post = (what & 0x8000) != 0;
        Bytes reply(input.word() & 0x0FFF, 0x11);
        std::size_t replyLength = reply.size();
        const Replies replies(*this, one);
        const bool goes = one.connected;
        const bool fails = sendFails;
        bool answered = false;
        try {
            if (post)
                check(one.instance->Post(data.data(), data.size()) == goes);
            else
                one.instance->Send(data.data(), data.size(), reply.data(), replyLength, 0);
            check(!goes || !fails);
            answered = !post;
        } catch (const IPCTimeoutException&) {
            check(goes && !fails && !post);
        } catch (const IPCSocketException&) {
            check(goes && fails);
        }
        const Bytes untouched(reply.size(), 0x11);
        if (!goes) {
            check(replyLength == reply.size() && reply == untouched && sent.empty());
            return;
        }
        Bytes expected = headerAlone(++one.seq, post ? kMsgNoAck : 0, 0, one.remote);
        if (data.size() <= kMsgPayloadSize) {
            expected.resize(kMsgHeaderSize + data.size());
            std::copy(data.begin(), data.end(), expected.begin() + kMsgHeaderSize);
        }
        expectSent(expected, peerCmdPort);
        const std::optional<Bytes> answer = post || fails ? std::nullopt : readAck(one);
        check(answered == (post ? false : answer.has_value()));
        if (!answer) {
            check(replyLength == reply.size() && reply == untouched);
            return;
        }
        check(replyLength == std::min(reply.size(), kMsgPayloadSize));
        check(std::equal(reply.begin(), reply.begin() + std::ptrdiff_t(replyLength), answer->begin() + kMsgHeaderSize));
        check(std::equal(reply.begin() + std::ptrdiff_t(replyLength), reply.end(), untouched.begin()));
    }

    // The last owner lets go.
    void giveUp(Held& one, bool answers)
    {
        if (!one.instance)
            return;
        {
            std::optional<Replies> replies;
            if (answers)
                replies.emplace(*this, one);
            else if (const auto info = dispatcher->Slot(one.index))
                info->aborted = 1;
            one.instance.reset();
        }
        if (!one.inSlot)
            return;
        if (one.connected) {
            const bool fails = sendFails;
            expectSent(headerAlone(0, kMsgControl | kMsgTerminate, 0, one.remote), peerCmdPort);
            if (!fails)
                readAck(one);
        }
        one.connected = false;
        freeSlot(one);
    }

    /// Acknowledges that come while a command is on its way. Behind them nothing is waited for.
    class Replies {
    public:
        Replies(Play& play, Held& one) : play_(play), info_(one.inSlot ? play.dispatcher->Slot(one.index) : nullptr)
        {
            const unsigned count = play_.input.byte() & 3u;
            if (!info_)
                return;
            info_->aborted = 1;
            if (one.connected)
                one.ackPending = false;
            play_.onSent = [this, count] {
                for (unsigned i = 0; i < count; ++i)
                    play_.acknowledge(play_.input.datagram());
            };
        }
        ~Replies()
        {
            play_.onSent = nullptr;
            if (info_)
                info_->aborted = 0;
        }
        Replies(const Replies&) = delete;
        Replies& operator=(const Replies&) = delete;

    private:
        Play& play_;
        std::shared_ptr<CDispatcher::InstanceInfo> info_;
    };

    // What a sender does with the acknowledge that stands in its place; the answer, if it is one.
    std::optional<Bytes> readAck(Held& one)
    {
        if (!std::exchange(one.ackPending, false))
            return std::nullopt;
        const Bytes bytes = *std::exchange(one.ack, std::nullopt);
        const std::uint32_t flags = headerOf(bytes).flags;
        pool += (flags & (kMsgExtend | kMsgAck)) != 0;
        if ((flags & kMsgExtend) != 0 || (flags & kMsgAck) == 0)
            return std::nullopt;
        return bytes;
    }

    // As a Connect does, but for the thread, which the instances there at first never had.
    void addInstance(std::uint32_t remote)
    {
        std::shared_ptr<CDispatcher::InstanceInfo> info;
        const std::uint64_t index = dispatcher->AddInstance(info);
        info->remoteIndex = connecting = remote;
        onConnect(CInstance::Make(dispatcher, index));
        for (int i = 0; i < 3; ++i, ++pool) {
            auto fresh = std::make_shared<instance_msg>();
            dispatcher->ReturnMsg(fresh);
        }
    }

    void onConnect(std::shared_ptr<IMsgSrc> source)
    {
        auto one = std::make_unique<Held>();
        one->instance = std::dynamic_pointer_cast<CInstance>(source);
        one->remote = connecting;
        check(one->instance && one->instance->IsConnected());
        source->SetMsgHandler([this](void* data, std::size_t capacity, std::size_t& replyLength,
                                     const boost::function<void(unsigned)>& extend) {
            check(handler != nullptr);
            handler(static_cast<std::uint8_t*>(data), capacity, replyLength, extend);
        });
        source->SetDisconnectHandler([counted = one.get()] { ++counted->disconnects; });
        std::size_t free = 0;
        while (free < slots.size() && slots[free])
            ++free;
        one->index = free;
        // From here on its thread's work is done when a step says so.
        if (const std::unique_ptr<PipeThread> thread = Probe::takeThread(*one->instance))
            endAtWait(*one->instance, *thread, *dispatcher->Slot(free));
        slots.resize(std::max(slots.size(), free + 1));
        slots[free] = one.get();
        held.push_back(std::move(one));
    }

    Held* at(std::uint32_t index) const { return index < slots.size() ? slots[index] : nullptr; }

    std::size_t occupied() const
    {
        return slots.size() - static_cast<std::size_t>(std::count(slots.begin(), slots.end(), nullptr));
    }

    void freeSlot(Held& one)
    {
        slots[one.index] = nullptr;
        one.inSlot = false;
        one.cmd.reset();
        one.ack.reset();
        pool = std::min(pool, 4 * occupied());
    }

    void shutDown()
    {
        for (const auto& one : held)
            if (one->inSlot) {
                one->connected = false;
                freeSlot(*one);
                check(one->disconnects == 1);
            }
    }

    void expectSent(const Bytes& bytes, std::uint16_t port)
    {
        if (std::exchange(sendFails, false))
            return;
        check(!sent.empty() && sent.front().socket == ackSocket && sent.front().to == zuPlatform::loopbackAt(port));
        check(sent.front().data == bytes);
        sent.erase(sent.begin());
    }

    void checkState()
    {
        check(Probe::poolSize(*dispatcher) == pool);
        check(dispatcher->SlotCount() == slots.size() && dispatcher->InstanceCount() == occupied());
        for (std::size_t i = 0; i < slots.size(); ++i) {
            const auto info = dispatcher->Slot(i);
            check((info != nullptr) == (slots[i] != nullptr));
            if (!info)
                continue;
            const Held& one = *slots[i];
            check(info->remoteIndex == one.remote);
            check((info->cmdMsg != nullptr) == one.cmd.has_value() && info->cmdPending == one.cmd.has_value());
            check(!info->cmdMsg || bytesOf(*info->cmdMsg) == *one.cmd);
            check((info->ackMsg != nullptr) == one.ack.has_value() && info->ackPending == one.ackPending);
            check(!info->ackMsg || bytesOf(*info->ackMsg) == *one.ack);
        }
        for (const auto& one : held)
            check(!one->instance ||
                  (one->instance->IsConnected() == one->connected && one->disconnects == (one->connected ? 0u : 1u)));
    }

    zuFuzz::Input input;
    std::shared_ptr<CDispatcher> dispatcher;
    std::vector<std::unique_ptr<Held>> held; ///< all that were ever made
    std::vector<Held*> slots;
    std::size_t pool = 2;
    bool running = true;
    bool sendFails = false;
    unsigned forgotten = 0;
    std::uint32_t connecting = 0; ///< the index in the present Connect
    std::vector<zuTest::SentDatagram> sent;
    std::function<void()> onSent;
    std::function<void(std::uint8_t*, std::size_t, std::size_t&, const boost::function<void(unsigned)>&)> handler;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Play(data, size).run();
    return 0;
}
