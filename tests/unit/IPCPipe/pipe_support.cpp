// The helpers of the pipe's tests.
#include "tests/unit/IPCPipe/pipe_support.h"

#include "platform/process.h"
#include "platform/shared_memory.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>

namespace zuTest {

using namespace zuIPCPipe;

std::shared_ptr<instance_msg> DispatcherProbe::takeFromPool(CDispatcher& d)
{
    const boost::lock_guard<boost::recursive_mutex> lock(d.poolLock);
    if (d.pool.empty())
        return nullptr;
    auto message = d.pool.front();
    d.pool.pop_front();
    return message;
}

OwnNames::OwnNames()
{
    static std::atomic<unsigned> counter{0};
    zuPlatform::setObjectNamePrefixForTesting("zutest-pipe-" + std::to_string(zuPlatform::currentProcessId()) + "-" +
                                              std::to_string(++counter) + "-");
}

OwnNames::~OwnNames()
{
    zuPlatform::SharedMemory::remove(kSharedObjectName);
    zuPlatform::setObjectNamePrefixForTesting("");
}

std::uint64_t number(const Bytes& data, std::size_t offset, std::size_t width)
{
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i)
        value |= std::uint64_t{data.at(offset + i)} << (8 * i);
    return value;
}

void setNumber(Bytes& data, std::size_t offset, std::size_t width, std::uint64_t value)
{
    for (std::size_t i = 0; i < width; ++i)
        data.at(offset + i) = static_cast<std::uint8_t>(value >> (8 * i));
}

Bytes message(std::uint32_t flags, std::uint32_t index, std::uint32_t seq, std::uint32_t timeout, const Bytes& payload)
{
    Bytes data(24);
    setNumber(data, 0, 8, 24);
    setNumber(data, 8, 4, seq);
    setNumber(data, 12, 4, flags);
    setNumber(data, 16, 4, timeout);
    setNumber(data, 20, 4, index);
    data.insert(data.end(), payload.begin(), payload.end());
    return data;
}

RawSocket::RawSocket()
{
    socket = zuPlatform::DatagramSocket::open();
    if (!socket || socket->bind(zuPlatform::loopbackAt(0)) != 0)
        throw std::runtime_error("no raw socket");
}

std::uint16_t RawSocket::port() const
{
    zuPlatform::SocketAddress address;
    socket->getLocalAddress(address);
    return address.port;
}

void RawSocket::send(const Bytes& data, std::uint16_t toPort)
{
    const auto result = socket->sendTo(data.data(), data.size(), zuPlatform::loopbackAt(toPort));
    if (result.count != static_cast<std::ptrdiff_t>(data.size()))
        throw std::runtime_error("raw send failed with " + std::to_string(result.error));
}

std::optional<Bytes> RawSocket::receive(std::uint32_t timeoutMs)
{
    Bytes data(4096);
    const auto result = socket->receive(data.data(), data.size(), timeoutMs, nullptr);
    if (result.kind != zuPlatform::ReceiveResult::Kind::received)
        return std::nullopt;
    data.resize(static_cast<std::size_t>(result.count));
    return data;
}

RawPeer::RawPeer(std::uint16_t managerPort, std::uint32_t pid)
{
    announce.assign(16, 0);
    setNumber(announce, 4, 4, pid != 0 ? pid : zuPlatform::currentProcessId());
    setNumber(announce, 8, 2, cmd.port());
    setNumber(announce, 10, 2, ack.port());
    RawSocket manager;
    manager.send(announce, managerPort);
    reply = manager.receive().value();
    rmtCmdPort = static_cast<std::uint16_t>(number(reply, 12, 2));
    rmtAckPort = static_cast<std::uint16_t>(number(reply, 14, 2));
}

std::uint32_t RawPeer::connect(std::uint32_t ownIndex)
{
    command(message(kMsgDispatcher | kMsgConnect, ownIndex));
    return static_cast<std::uint32_t>(number(ack.receive().value(), 20, 4));
}

Server::Server(Prepare prepare)
{
    auto left = std::make_shared<std::promise<void>>();
    left_ = left->get_future();
    manager_ = std::make_shared<CMgrServer>(
        [state = state_, prepare = std::move(prepare), kept = std::move(left)](std::shared_ptr<IMsgSrc> source) {
            onConnect(state, prepare, std::move(source));
        });
}

Server::~Server()
{
    manager_.reset();
    dropInstances();
    EXPECT_EQ(left_.wait_for(std::chrono::seconds(20)), std::future_status::ready);
}

void Server::onConnect(const std::shared_ptr<State>& state, const Prepare& prepare, std::shared_ptr<IMsgSrc> source)
{
    if (prepare)
        prepare(source);
    else
        source->SetMsgHandler(echo(kMsgPayloadSize));
    source->SetDisconnectHandler([state] {
        const std::lock_guard<std::mutex> lock(state->mutex);
        ++state->disconnects;
        state->changed.notify_all();
    });
    const std::lock_guard<std::mutex> lock(state->mutex);
    state->instances.push_back(std::move(source));
    ++state->made;
    state->changed.notify_all();
}

std::uint16_t Server::port() { return MgrProbe::serverPort(*manager_); }

std::shared_ptr<IMsgSrc> Server::instance(std::size_t count)
{
    std::unique_lock<std::mutex> lock(state_->mutex);
    if (!state_->changed.wait_for(lock, std::chrono::seconds(20), [&] { return state_->instances.size() >= count; }))
        return nullptr;
    return state_->instances[count - 1];
}

std::size_t Server::instances()
{
    const std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->made;
}

std::size_t Server::disconnects()
{
    const std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->disconnects;
}

bool Server::waitForDisconnects(std::size_t count, std::chrono::milliseconds deadline)
{
    std::unique_lock<std::mutex> lock(state_->mutex);
    return state_->changed.wait_for(lock, deadline, [&] { return state_->disconnects >= count; });
}

void Server::dropInstances()
{
    std::vector<std::shared_ptr<IMsgSrc>> dropped;
    const std::lock_guard<std::mutex> lock(state_->mutex);
    dropped.swap(state_->instances);
}

Bench::Bench(CDispatcher::NewInstance callback)
{
    const auto forget = [this](std::shared_ptr<CDispatcher> d) {
        forgotten += d->Pid() == zuPlatform::currentProcessId();
    };
    if (callback)
        dispatcher = CDispatcher::Make({}, forget, std::move(callback), zuPlatform::currentProcessId());
    else
        dispatcher = CDispatcher::Make({}, forget, zuPlatform::currentProcessId());
    dispatcher->SetRemotePorts(cmd.port(), ack.port());
}

Bench::~Bench()
{
    dispatcher->Shutdown();
    DispatcherProbe::join(*dispatcher);
}

std::shared_ptr<CInstance> Bench::addInstance(std::uint32_t remoteIndex, bool start)
{
    std::shared_ptr<CDispatcher::InstanceInfo> info;
    const std::uint64_t index = dispatcher->AddInstance(info);
    auto instance = CInstance::Make(dispatcher, index);
    info->remoteIndex = remoteIndex;
    for (int i = 0; i < 3; ++i)
        DispatcherProbe::putToPool(*dispatcher, std::make_shared<instance_msg>());
    if (start)
        instance->Start();
    return instance;
}

bool Bench::poolBecomes(std::size_t size)
{
    return eventually([&] { return DispatcherProbe::poolSize(*dispatcher) == size; });
}

EndsInTime::EndsInTime(std::function<void()> action) : done_(std::async(std::launch::async, std::move(action))) {}

EndsInTime::~EndsInTime()
{
    if (done_.wait_for(std::chrono::seconds(20)) == std::future_status::ready)
        return;
    ADD_FAILURE() << "does not end";
    std::_Exit(EXIT_FAILURE);
}

std::chrono::steady_clock::duration quickest(std::chrono::steady_clock::duration limit,
                                             const std::function<void()>& action, int rounds)
{
    using Clock = std::chrono::steady_clock;
    Clock::duration shortest = Clock::duration::max();
    for (int round = 0; round < rounds && shortest >= limit; ++round) {
        const auto start = Clock::now();
        action();
        shortest = std::min(shortest, Clock::now() - start);
    }
    return shortest;
}

NoMoreThreads::NoMoreThreads()
{
    pthread_attr_t without;
    EXPECT_EQ(pthread_getattr_default_np(&before_), 0);
    EXPECT_EQ(pthread_attr_init(&without), 0);
    EXPECT_EQ(pthread_attr_setstacksize(&without, std::size_t{1} << 60), 0);
    EXPECT_EQ(pthread_setattr_default_np(&without), 0);
    pthread_attr_destroy(&without);
}

NoMoreThreads::~NoMoreThreads()
{
    EXPECT_EQ(pthread_setattr_default_np(&before_), 0);
    pthread_attr_destroy(&before_);
}

IMsgSrc::MsgHandler echo(std::size_t length)
{
    return [length](void*, std::size_t, std::size_t& replyLength, boost::function<void(unsigned int)>) {
        replyLength = length;
    };
}

std::string thrown(const std::function<void()>& action)
{
    try {
        action();
    } catch (const IPCTimeoutException& e) {
        return std::string("IPCTimeoutException: ") + e.what();
    } catch (const IPCSocketException& e) {
        return std::string("IPCSocketException: ") + e.what();
    } catch (const IPCAbortException& e) {
        return std::string("IPCAbortException: ") + e.what();
    } catch (const IPCException& e) {
        return std::string("IPCException: ") + e.what();
    } catch (const std::exception& e) {
        return std::string("std::exception: ") + e.what();
    }
    return {};
}

} // namespace zuTest
