// The daemon's events: answered in time whatever the user's handler does, and handed on in order.
#include "tests/unit/client/scripted_daemon.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <future>
#include <mutex>

namespace {

using namespace zuTest;
using namespace zuGevClient;
using namespace zuIPCPipe;
using namespace std::chrono_literals;
using testing::ElementsAre;

struct ClientEventTest : testing::Test {
    ScriptedDaemon daemon;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Event> events;
    Connection connection; // goes first: its thread uses the above

    void note(Event event)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        events.push_back(event);
        changed.notify_all();
    }
    std::vector<Event> waitFor(std::size_t count)
    {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait_for(lock, 20s, [&] { return events.size() >= count; });
        return events;
    }
};

constexpr std::uint32_t generous = 20000;

TEST_F(ClientEventTest, eachIsAnsweredWithSuccessAndHandedOn)
{
    connection.setEventHandler([this](Event event) { note(event); });
    EXPECT_TRUE(daemon.tell(EvtConnectionLost, generous));
    EXPECT_TRUE(daemon.tell(EvtCcpLost, generous));
    EXPECT_TRUE(daemon.tell(EvtReconnected, generous));
    EXPECT_THAT(waitFor(3), ElementsAre(Event::connectionLost, Event::controlLost, Event::reconnected));
}

TEST_F(ClientEventTest, answeredWithoutAHandlerToo) { EXPECT_TRUE(daemon.tell(EvtConnectionLost, generous)); }

TEST_F(ClientEventTest, anUnknownEventIsAnsweredWithoutSuccess)
{
    connection.setEventHandler([this](Event event) { note(event); });
    EXPECT_FALSE(daemon.tell(17, generous));
    EXPECT_TRUE(daemon.tell(EvtReconnected, generous));
    EXPECT_THAT(waitFor(1), ElementsAre(Event::reconnected));
}

TEST_F(ClientEventTest, aSlowHandlerDelaysNeitherAnswersNorCommands)
{
    std::promise<void> entered, leave;
    auto left = leave.get_future().share();
    connection.setEventHandler([&](Event event) {
        note(event);
        if (event == Event::connectionLost) {
            entered.set_value();
            left.wait_for(60s);
        }
    });
    EXPECT_TRUE(daemon.tell(EvtConnectionLost, generous));
    ASSERT_EQ(entered.get_future().wait_for(20s), std::future_status::ready);
    // The handler is stuck, and will be until this test lets it go.
    EXPECT_TRUE(daemon.tell(EvtCcpLost, generous));
    EXPECT_EQ(connection.readRegister(0x0938), 3000u);
    EXPECT_TRUE(daemon.tell(EvtReconnected, generous));
    EXPECT_THAT(waitFor(1), ElementsAre(Event::connectionLost));
    leave.set_value();
    EXPECT_THAT(waitFor(3), ElementsAre(Event::connectionLost, Event::controlLost, Event::reconnected));
}

TEST_F(ClientEventTest, anEventIsAnsweredWhileACommandIsUnderWay)
{
    std::promise<void> begun, finish;
    auto finished = finish.get_future().share();
    daemon.on(CmdUnlink, [&](Message&, std::size_t&, const auto&) {
        begun.set_value();
        finished.wait_for(60s);
        return false;
    });
    connection.setEventHandler([this](Event event) { note(event); });
    auto unlinking = std::async(std::launch::async, [&] { connection.unlink(); });
    ASSERT_EQ(begun.get_future().wait_for(20s), std::future_status::ready);
    EXPECT_TRUE(daemon.tell(EvtConnectionLost, generous));
    EXPECT_THAT(waitFor(1), ElementsAre(Event::connectionLost));
    finish.set_value();
    EXPECT_NO_THROW(unlinking.get());
    daemon.settle();
}

TEST_F(ClientEventTest, theHandlerMayUseTheConnection)
{
    daemon.setRegister(4, 17);
    std::promise<std::uint32_t> read;
    connection.setEventHandler([&](Event) {
        connection.link(LinkMode::control());
        read.set_value(connection.readRegister(4));
    });
    EXPECT_TRUE(daemon.tell(EvtReconnected, generous));
    auto value = read.get_future();
    ASSERT_EQ(value.wait_for(20s), std::future_status::ready);
    EXPECT_EQ(value.get(), 17u);
}

TEST_F(ClientEventTest, theHandlerMayDestroyTheConnection)
{
    auto own = std::make_unique<Connection>();
    own->ping();
    std::promise<void> done;
    own->setEventHandler([&](Event) {
        own.reset();
        done.set_value();
    });
    // Whether the answer still gets out before the goodbye is left open.
    static_cast<void>(daemon.tell(EvtReconnected, generous, 2));
    ASSERT_EQ(done.get_future().wait_for(20s), std::future_status::ready);
    EXPECT_TRUE(daemon.server().waitForDisconnects(1));
}

TEST_F(ClientEventTest, anEmptyHandlerDropsEvents)
{
    connection.setEventHandler([this](Event event) { note(event); });
    connection.setEventHandler({});
    EXPECT_TRUE(daemon.tell(EvtConnectionLost, generous));
    connection.setEventHandler([this](Event event) { note(event); });
    EXPECT_TRUE(daemon.tell(EvtCcpLost, generous));
    EXPECT_THAT(waitFor(1), ElementsAre(Event::controlLost));
}

TEST_F(ClientEventTest, eachConnectionGetsItsOwn)
{
    std::promise<Event> second;
    Connection other;
    connection.setEventHandler([this](Event event) { note(event); });
    other.setEventHandler([&](Event event) { second.set_value(event); });
    EXPECT_TRUE(daemon.tell(EvtCcpLost, generous, 2));
    EXPECT_TRUE(daemon.tell(EvtConnectionLost, generous, 1));
    auto event = second.get_future();
    ASSERT_EQ(event.wait_for(20s), std::future_status::ready);
    EXPECT_EQ(event.get(), Event::controlLost);
    EXPECT_THAT(waitFor(1), ElementsAre(Event::connectionLost));
}

} // namespace
