// What the pipe's tests share: views into its classes, a server under a name of its own, and a raw peer that speaks the
// datagrams byte by byte.
#pragma once

#include "GevTLBase/IPCPipe/ClientConnect.h"
#include "GevTLBase/IPCPipe/IPCException.h"
#include "GevTLBase/IPCPipe/Instance.h"
#include "GevTLBase/IPCPipe/MgrServer.h"
#include "platform/socket.h"
#include "tests/support/eventually.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace zuTest {

using Bytes = std::vector<std::uint8_t>;

struct DispatcherProbe {
    using Info = zuIPCPipe::CDispatcher::InstanceInfo;

    static std::size_t poolSize(zuIPCPipe::CDispatcher& d)
    {
        const boost::lock_guard<boost::recursive_mutex> lock(d.poolLock);
        return d.pool.size();
    }
    static std::shared_ptr<zuIPCPipe::instance_msg> takeFromPool(zuIPCPipe::CDispatcher& d);
    static void putToPool(zuIPCPipe::CDispatcher& d, std::shared_ptr<zuIPCPipe::instance_msg> message)
    {
        d.ReturnMsg(message);
    }
    static std::shared_ptr<Info> slot(zuIPCPipe::CDispatcher& d, std::uint64_t index) { return d.Slot(index); }
    static zuPlatform::SocketPtr ackSocket(zuIPCPipe::CDispatcher& d)
    {
        const std::lock_guard<std::mutex> lock(d.socketLock);
        return d.ackSock;
    }
    template <typename Dispatcher>
    static std::shared_ptr<Dispatcher> make()
    {
        auto dispatcher = std::make_shared<Dispatcher>(zuIPCPipe::CDispatcher::Token());
        dispatcher->Start();
        return dispatcher;
    }
    /// Waits for both threads, after `Shutdown`.
    static void join(zuIPCPipe::CDispatcher& d) { d.EndThreads(); }
    /// The functions of the manager that it was given.
    static const zuIPCPipe::CDispatcher::Callback& keep(zuIPCPipe::CDispatcher& d) { return d.keep; }
    static const zuIPCPipe::CDispatcher::Callback& forget(zuIPCPipe::CDispatcher& d) { return d.forget; }
    static std::shared_mutex& tableLock(zuIPCPipe::CDispatcher& d) { return d.instanceLock; }
    static bool running(const zuIPCPipe::CDispatcher& d) { return d.running != 0; }
    static bool stopped(const zuIPCPipe::CDispatcher& d) { return d.stopped; }
    static std::shared_ptr<zuIPCPipe::CDispatcher> dispatcherOf(zuIPCPipe::IMsgSrc& source)
    {
        return dynamic_cast<zuIPCPipe::CInstance&>(source).Dispatcher();
    }
    static std::uint64_t indexOf(zuIPCPipe::IMsgSrc& source)
    {
        return dynamic_cast<zuIPCPipe::CInstance&>(source).index;
    }
};

struct MgrProbe {
    static std::size_t pending(zuIPCPipe::CMgr& m)
    {
        const std::lock_guard<std::mutex> lock(m.pendingLock);
        return m.pending.size();
    }
    static std::size_t dispatcherSlots(zuIPCPipe::CMgr& m)
    {
        const boost::shared_lock<boost::shared_mutex> lock(m.dispatcherLock);
        return m.dispatchers.size();
    }
    static std::shared_ptr<zuIPCPipe::CDispatcher> dispatcher(zuIPCPipe::CMgr& m, std::size_t index)
    {
        const boost::shared_lock<boost::shared_mutex> lock(m.dispatcherLock);
        return m.dispatchers.at(index).lock();
    }
    static zuPlatform::SocketPtr socket(zuIPCPipe::CMgr& m) { return m.sock; }
    static std::uint16_t serverPort(zuIPCPipe::CMgr& m) { return m.serverPort; }
};

/// Puts the machine-wide names of this process out of everybody's way, and removes what was made under them.
class OwnNames {
public:
    OwnNames();
    ~OwnNames();
};

/// A little endian number in a datagram.
std::uint64_t number(const Bytes& data, std::size_t offset, std::size_t width);
void setNumber(Bytes& data, std::size_t offset, std::size_t width, std::uint64_t value);

/// The 24 bytes of a message header, and a payload behind it.
Bytes message(std::uint32_t flags, std::uint32_t index, std::uint32_t seq = 0, std::uint32_t timeout = 0,
              const Bytes& payload = {});

/// A bare socket on 127.0.0.1.
struct RawSocket {
    RawSocket();
    std::uint16_t port() const; ///< network byte order
    void send(const Bytes& data, std::uint16_t toPort);
    std::optional<Bytes> receive(std::uint32_t timeoutMs = 20000);

    zuPlatform::SocketPtr socket;
};

/// A client process as the wire sees it.
struct RawPeer {
    /// Announces itself to the manager at `managerPort`.
    explicit RawPeer(std::uint16_t managerPort, std::uint32_t pid = 0);

    /// Asks for an instance; returns its index at the server.
    std::uint32_t connect(std::uint32_t ownIndex = 0);
    void command(const Bytes& data) { ack.send(data, rmtCmdPort); }     ///< to the server's command port
    void acknowledge(const Bytes& data) { ack.send(data, rmtAckPort); } ///< to the server's acknowledge port

    RawSocket cmd;
    RawSocket ack;
    Bytes announce;
    Bytes reply;
    std::uint16_t rmtCmdPort = 0;
    std::uint16_t rmtAckPort = 0;
};

/// A server whose instances answer each message with the same bytes, unless a test has put in a handler of its own.
class Server {
public:
    using Prepare = std::function<void(const std::shared_ptr<zuIPCPipe::IMsgSrc>&)>;

    explicit Server(Prepare prepare = {});
    /// Waits for the last thread that may be in `prepare`. A test must hold no dispatcher any more.
    ~Server();

    zuIPCPipe::CMgrServer& manager() { return *manager_; }
    void end() { manager_.reset(); } ///< the manager alone; instances stay
    std::uint16_t port();            ///< network byte order

    /// The instance that was made as number `count`, waited for; null after the deadline.
    std::shared_ptr<zuIPCPipe::IMsgSrc> instance(std::size_t count = 1);
    std::size_t instances();
    std::size_t disconnects();
    bool waitForDisconnects(std::size_t count, std::chrono::milliseconds deadline = std::chrono::seconds(20));
    void dropInstances(); ///< gives up the shares held here

private:
    struct State {
        std::mutex mutex;
        std::condition_variable changed;
        std::vector<std::shared_ptr<zuIPCPipe::IMsgSrc>> instances;
        std::size_t made = 0;
        std::size_t disconnects = 0;
    };
    static void onConnect(const std::shared_ptr<State>& state, const Prepare& prepare,
                          std::shared_ptr<zuIPCPipe::IMsgSrc> source);

    OwnNames names_;
    std::shared_ptr<State> state_ = std::make_shared<State>();
    std::future<void> left_; ///< ready when no dispatcher has the callback any more
    std::shared_ptr<zuIPCPipe::CMgrServer> manager_;
};

/// A dispatcher whose peer is two bare sockets, without any manager.
struct Bench {
    explicit Bench(zuIPCPipe::CDispatcher::NewInstance callback = {});
    ~Bench();

    /// A new instance whose index at the peer is `remoteIndex`; its thread runs.
    std::shared_ptr<zuIPCPipe::CInstance> addInstance(std::uint32_t remoteIndex, bool start = true);
    void command(const Bytes& data) { ack.send(data, dispatcher->CmdPort()); }
    void acknowledge(const Bytes& data) { ack.send(data, dispatcher->AckPort()); }
    /// Returns once both threads have taken the buffers that they wait with, and `size` are left.
    bool poolBecomes(std::size_t size);

    RawSocket cmd;                 ///< where the dispatcher sends commands
    RawSocket ack;                 ///< where it sends acknowledges
    std::atomic<int> forgotten{0}; ///< calls of the manager's function, each for this dispatcher
    std::shared_ptr<zuIPCPipe::CDispatcher> dispatcher;
};

/// Runs `action` on a thread of its own. The end of this object waits for it, and after 20 seconds ends the process.
class EndsInTime {
public:
    explicit EndsInTime(std::function<void()> action);
    ~EndsInTime();

private:
    std::future<void> done_;
};

/// How long the quickest of up to `rounds` rounds of `action` took; the first one under `limit` is the last. A busy
/// machine draws a wait out, but not each time.
std::chrono::steady_clock::duration quickest(std::chrono::steady_clock::duration limit,
                                             const std::function<void()>& action, int rounds = 20);

/// While one lives no thread of this process can be started: its stack would not fit the address space.
class NoMoreThreads {
public:
    NoMoreThreads();
    ~NoMoreThreads();
    NoMoreThreads(const NoMoreThreads&) = delete;
    NoMoreThreads& operator=(const NoMoreThreads&) = delete;

private:
    pthread_attr_t before_;
};

/// A handler that answers with the first `length` bytes of what came.
zuIPCPipe::IMsgSrc::MsgHandler echo(std::size_t length);

/// What `action` throws, as "class: words"; empty if it throws nothing.
std::string thrown(const std::function<void()>& action);

} // namespace zuTest
