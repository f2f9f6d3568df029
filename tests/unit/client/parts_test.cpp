// The library's small parts: texts, addresses, the event queue, the lock that is given in turn.
#include "GevTLBase/GevControl.h"
#include "client/EventQueue.h"
#include "client/GevClient.h"
#include "client/TurnLock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <future>
#include <mutex>
#include <set>
#include <string>
#include <thread>

namespace {

using namespace zuGevClient;
using namespace std::chrono_literals;
using testing::ElementsAre;

TEST(StatusTextTest, eachCodeHasItsOwnText)
{
    std::set<std::string> texts;
    const std::vector<std::int32_t> codes{0,      -1001,  -1003,  -1004,  -1005,  -1009,  -1011,
                                          -1015,  -10004, -10009, -10011, -10012, -10013, -10014,
                                          -10015, -10016, -10017, -10018, -10019};
    for (const std::int32_t code : codes)
        texts.insert(statusText(code));
    EXPECT_EQ(texts.size(), codes.size());
    EXPECT_STREQ(statusText(-1), "unknown status");
    EXPECT_STREQ(statusText(Status::accessDenied), "access denied");
}

// The public headers stand alone, so they can't take them from the daemon's.
TEST(StatusTextTest, numbersAreThoseOfTheDaemon)
{
    namespace Daemon = GEV::resultCode;
    EXPECT_EQ(Status::success, Daemon::success);
    EXPECT_EQ(Status::generalFailure, Daemon::generalError);
    EXPECT_EQ(Status::notImplemented, Daemon::notImplemented);
    EXPECT_EQ(Status::busy, Daemon::busy);
    EXPECT_EQ(Status::accessDenied, Daemon::accessDenied);
    EXPECT_EQ(Status::invalidParameter, Daemon::invalidParameter);
    EXPECT_EQ(Status::timeout, Daemon::noAcknowledge);
    EXPECT_EQ(Status::invalidAddress, Daemon::invalidAddress);
    EXPECT_EQ(Status::socketClosed, Daemon::closed);
    EXPECT_EQ(Status::writeProtect, Daemon::writeProtect);
    EXPECT_EQ(Status::memoryOverrun, Daemon::memoryOverrun);
    EXPECT_EQ(Status::responseTimeout, Daemon::timeout);
    EXPECT_EQ(Status::notAnAcknowledge, Daemon::notAnAcknowledge);
    EXPECT_EQ(Status::badAlignment, Daemon::badAlignment);
    EXPECT_EQ(Status::invalidHeader, Daemon::invalidHeader);
    EXPECT_EQ(Status::localProblem, Daemon::localProblem);
    EXPECT_EQ(Status::messageMismatch, Daemon::mismatch);
    EXPECT_EQ(Status::invalidProtocol, Daemon::invalidVersion);
    EXPECT_EQ(Status::packetUnavailable, Daemon::packetUnavailable);
    EXPECT_EQ(Register::heartbeatTimeout, GEV::gevRegister::heartbeatTimeout);
    EXPECT_EQ(Register::controlChannelPrivilege, GEV::gevRegister::ccp);
    EXPECT_EQ(gvcpPort, GEV::gvcpPort);
}

TEST(EndpointTest, parsesAddressesWithAndWithoutPort)
{
    EXPECT_EQ(parseEndpoint("127.0.15.1"), (Endpoint{0x7F000F01, 3956}));
    EXPECT_EQ(parseEndpoint("10.1.2.3:80"), (Endpoint{0x0A010203, 80}));
    EXPECT_EQ(parseEndpoint("10.1.2.3", 0), (Endpoint{0x0A010203, 0}));
    for (const char* const bad : {"", "10.1.2", "10.1.2.3.4", "10.1.2.256", "10.1.2.3:", "10.1.2.3:65536",
                                  "10.1.2.3:8 ", "10.1.2.3:-1", "camera"})
        EXPECT_EQ(parseEndpoint(bad), std::nullopt) << bad;
}

TEST(EndpointTest, printsWhatItParses)
{
    EXPECT_EQ(toString(Endpoint{0x7F000F01, 3956}), "127.0.15.1:3956");
    EXPECT_EQ(toString(Endpoint{0x0A010203, 0}), "10.1.2.3");
}

TEST(LinkModeTest, argumentsOfTheDaemon)
{
    EXPECT_EQ(LinkMode::monitor().value(), 0u);
    EXPECT_FALSE(LinkMode::monitor().isPrivileged());
    EXPECT_EQ(LinkMode::control().value(), 3u);
    EXPECT_EQ(LinkMode::exclusive().value(), 4u);
    EXPECT_EQ(LinkMode::switchover(0xABCD).value(), 0x1ABCDu);
    EXPECT_TRUE(LinkMode::switchover(0).isPrivileged());
}

/// Collects events and lets a test wait for them.
class Collector {
public:
    EventHandler handler()
    {
        return [this](Event event) {
            const std::lock_guard<std::mutex> lock(mutex_);
            events_.push_back(event);
            changed_.notify_all();
        };
    }
    std::vector<Event> waitFor(std::size_t count)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, 20s, [&] { return events_.size() >= count; });
        return events_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Event> events_;
};

TEST(EventQueueTest, deliversInOrder)
{
    Collector collector;
    const auto queue = std::make_shared<EventQueue>();
    queue->setHandler(collector.handler());
    queue->push(Event::connectionLost);
    queue->push(Event::controlLost);
    queue->push(Event::reconnected);
    EXPECT_THAT(collector.waitFor(3), ElementsAre(Event::connectionLost, Event::controlLost, Event::reconnected));
    queue->stop();
}

TEST(EventQueueTest, dropsWithoutHandlerAndAfterStop)
{
    Collector collector;
    const auto queue = std::make_shared<EventQueue>();
    queue->push(Event::connectionLost);
    queue->setHandler(collector.handler());
    queue->push(Event::reconnected);
    EXPECT_THAT(collector.waitFor(1), ElementsAre(Event::reconnected));
    queue->stop();
    queue->push(Event::controlLost);
    queue->stop();
    EXPECT_THAT(collector.waitFor(1), ElementsAre(Event::reconnected));
}

TEST(EventQueueTest, aRepetitionThatStillWaitsIsLeftOut)
{
    std::promise<void> entered, leave;
    auto left = leave.get_future().share();
    Collector collector;
    const auto queue = std::make_shared<EventQueue>();
    std::atomic<bool> first{true};
    queue->setHandler([&, collect = collector.handler()](Event event) {
        collect(event);
        if (first.exchange(false)) {
            entered.set_value();
            left.wait_for(20s);
        }
    });
    queue->push(Event::controlLost);
    ASSERT_EQ(entered.get_future().wait_for(20s), std::future_status::ready);
    for (int i = 0; i < 1000; ++i)
        queue->push(Event::connectionLost);
    queue->push(Event::reconnected);
    queue->push(Event::connectionLost);
    leave.set_value();
    EXPECT_THAT(collector.waitFor(4),
                ElementsAre(Event::controlLost, Event::connectionLost, Event::reconnected, Event::connectionLost));
    queue->stop();
}

TEST(EventQueueTest, survivesAHandlerThatThrows)
{
    Collector collector;
    const auto queue = std::make_shared<EventQueue>();
    queue->setHandler([&, collect = collector.handler()](Event event) {
        collect(event);
        throw 1;
    });
    queue->push(Event::connectionLost);
    collector.waitFor(1);
    queue->push(Event::reconnected);
    EXPECT_EQ(collector.waitFor(2).size(), 2u);
    queue->stop();
}

TEST(EventQueueTest, handlerMayStopItAndDropIt)
{
    std::promise<void> done;
    auto queue = std::make_shared<EventQueue>();
    EventQueue& pushed = *queue;
    std::weak_ptr<EventQueue> observer = queue;
    queue->setHandler([&](Event) {
        queue->stop();
        queue.reset();
        done.set_value();
    });
    pushed.push(Event::reconnected);
    ASSERT_EQ(done.get_future().wait_for(20s), std::future_status::ready);
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (!observer.expired() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    EXPECT_TRUE(observer.expired());
}

TEST(EventQueueTest, handlerMayReplaceItself)
{
    Collector collector;
    const auto queue = std::make_shared<EventQueue>();
    queue->setHandler([&](Event) { queue->setHandler(collector.handler()); });
    queue->push(Event::controlLost);
    queue->push(Event::reconnected);
    EXPECT_THAT(collector.waitFor(1), ElementsAre(Event::reconnected));
    queue->stop();
}

TEST(TurnLockTest, isGivenInTurn)
{
    TurnLock lock;
    std::vector<int> order; // under the lock
    std::vector<std::thread> threads;
    const auto waitForUsers = [&](std::uint64_t count) {
        const auto deadline = std::chrono::steady_clock::now() + 20s;
        while (lock.users() < count && std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
        return lock.users() == count;
    };
    lock.lock();
    for (int self = 1; self <= 4; ++self) {
        threads.emplace_back([&, self] {
            const std::lock_guard<TurnLock> turn(lock);
            order.push_back(self);
        });
        EXPECT_TRUE(waitForUsers(static_cast<std::uint64_t>(self) + 1));
    }
    // Whoever has just had it comes after those who wait.
    lock.unlock();
    lock.lock();
    order.push_back(0);
    lock.unlock();
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_THAT(order, ElementsAre(1, 2, 3, 4, 0));
    EXPECT_EQ(lock.users(), 0u);
}

std::string content(const std::string& file)
{
    std::ifstream stream(std::string(ZU_SOURCE_DIR "/") + file);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

TEST(DocumentTest, theExampleIsTheOneThatIsCompiled)
{
    const std::string document = content("docs/client.md");
    const std::string example = content("client/example.cpp");
    const std::string code = example.substr(example.find("#include"));
    EXPECT_THAT(document, testing::HasSubstr("```cpp\n" + code + "```\n"));
    EXPECT_GT(code.size(), 500u);
}

} // namespace
