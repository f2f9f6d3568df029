// Who is in the books, and when an instance is deleted.
#include "nameless_instance.h"
#include "src/InstanceBook.h"
#include "tests/support/line_hook.h"
#include "tests/support/recording_target.h"

#include <gmock/gmock.h>

#include <future>
#include <sstream>
#include <thread>

using namespace zuTest;
using namespace zuGevDaemon;

namespace {

/// A client that does something as its last reference goes, which is in the middle of its instance's destructor.
struct ParticularClient : ScriptedClient {
    ~ParticularClient() override
    {
        if (onEnd)
            onEnd();
    }
    std::function<void()> onEnd;
};

struct InstanceBookTest : testing::Test {
    LogRecorder log;

    static std::shared_ptr<ScriptedClient> connect()
    {
        auto client = std::make_shared<ScriptedClient>();
        OnClientConnect(client);
        return client;
    }
    static std::string status()
    {
        std::ostringstream out;
        PrintStatus(out);
        return out.str();
    }
};

} // namespace

TEST_F(InstanceBookTest, WholeLifeOfThreeClients)
{
    EXPECT_EQ(status(), ".... Status:\nInstances: 0\n\n");
    const auto first = connect();
    const auto second = connect();
    EXPECT_EQ(status(), ".... Status:\nInstances: 2\nID: 0.0.0.0ID: 0.0.0.0\n");
    first->disconnectHandler();
    second->disconnectHandler();
    EXPECT_EQ(log.texts("Svc"), (std::vector<std::string>{"Garbage queue size 0", "Garbage queue size 1"}));
    EXPECT_EQ(status(), ".... Status:\nInstances: 2\nID: 0.0.0.0ID: 0.0.0.0\n") << "nobody came to delete them";
    EXPECT_EQ(first.use_count(), 2);
    log.clear();
    const auto third = connect();
    EXPECT_EQ(status(), ".... Status:\nInstances: 1\nID: 0.0.0.0\n");
    EXPECT_EQ(first.use_count(), 1);
    EXPECT_EQ(second.use_count(), 1);
    const auto texts = log.texts("Svc");
    ASSERT_EQ(texts.size(), 4u);
    EXPECT_EQ(texts[0].substr(0, 11), "Deleting 0x");
    EXPECT_EQ(texts[1], "Instance queue size 1");
    EXPECT_EQ(texts[2].substr(0, 11), "Deleting 0x");
    EXPECT_EQ(texts[3], "Instance queue size 0");
    third->disconnectHandler();
    CollectGarbage();
    EXPECT_EQ(InstanceCount(), 0u);
}

TEST_F(InstanceBookTest, UnknownInstanceIsNoError)
{
    const auto client = connect();
    RemoveInstance(nullptr);
    EXPECT_EQ(InstanceCount(), 1u);
    client->disconnectHandler();
    CollectGarbage();
    EXPECT_EQ(InstanceCount(), 0u);
}

TEST_F(InstanceBookTest, AnEmptyEntryHoldsNothingUp)
{
    const auto client = connect();
    AddToGarbage(nullptr);
    client->disconnectHandler();
    log.clear();
    CollectGarbage();
    EXPECT_EQ(InstanceCount(), 0u);
    const auto texts = log.texts("Svc");
    ASSERT_EQ(texts.size(), 3u);
    EXPECT_EQ(texts[0], "Deleting 0");
    EXPECT_EQ(texts[1].substr(0, 11), "Deleting 0x");
}

TEST_F(InstanceBookTest, ReportCountsNoGarbage)
{
    const auto client = connect();
    client->disconnectHandler();
    EXPECT_EQ(status(), ".... Status:\nInstances: 1\nID: 0.0.0.0\n");
    CollectGarbage();
    EXPECT_EQ(status(), ".... Status:\nInstances: 0\n\n");
}

TEST_F(InstanceBookTest, NewOnesComeLastInTheReport)
{
    std::vector<std::shared_ptr<ScriptedClient>> clients;
    for (std::uint32_t last = 2; last < 5; ++last) {
        clients.push_back(connect());
        clients.back()->command(Build(CmdBindSocket).u32(TagLocalIp, 0x7F000000 + last).u16(TagLocalPort, 0));
    }
    EXPECT_THAT(status(), testing::MatchesRegex(".... Status:\nInstances: 3\nID: 127\\.0\\.0\\.2:[0-9]+"
                                                "ID: 127\\.0\\.0\\.3:[0-9]+ID: 127\\.0\\.0\\.4:[0-9]+\n"));
    for (const auto& client : clients)
        client->disconnectHandler();
    CollectGarbage();
}

TEST_F(InstanceBookTest, OneThatComesToWaitDuringADeletionIsDeletedToo)
{
    auto first = std::make_shared<ParticularClient>();
    OnClientConnect(first);
    const auto second = connect();
    first->onEnd = [&] { second->disconnectHandler(); };
    first->disconnectHandler();
    first.reset();
    CollectGarbage();
    EXPECT_EQ(InstanceCount(), 0u);
    EXPECT_EQ(second.use_count(), 1);
}

TEST_F(InstanceBookTest, OnlyOneThatACallIsInsideWaitsOn)
{
    const auto busy = connect();
    const auto idle = connect();
    std::promise<void> inside;
    std::promise<void> release;
    onLogLine([&](const std::string& text) {
        if (text.rfind("Bind socket to IP", 0) == 0) {
            inside.set_value();
            release.get_future().wait();
        }
    });
    std::thread caller([&] { busy->command(Build(CmdBindSocket).u32(TagLocalIp, 0x7F000001).u16(TagLocalPort, 0)); });
    inside.get_future().wait();
    busy->disconnectHandler();
    idle->disconnectHandler();
    CollectGarbage();
    EXPECT_EQ(InstanceCount(), 1u);
    EXPECT_EQ(idle.use_count(), 1) << "it is not held up by the one before it";
    release.set_value();
    caller.join();
    CollectGarbage();
    EXPECT_EQ(InstanceCount(), 0u);
}

TEST_F(InstanceBookTest, TheReportCountsWhatItLists)
{
    auto first = std::make_shared<ParticularClient>();
    OnClientConnect(first);
    std::string during;
    first->onEnd = [&] { during = status(); };
    first->disconnectHandler();
    first.reset();
    const auto second = connect();
    EXPECT_EQ(during, ".... Status:\nInstances: 1\nID: 0.0.0.0\n") << "the one that is being deleted is not there";
    second->disconnectHandler();
    CollectGarbage();
}

TEST_F(InstanceBookTest, ADeletionIsLoggedWhileItsEntryStillWaits)
{
    const auto client = connect();
    client->disconnectHandler();
    log.clear();
    bool seen = false;
    onLogLine([&](const std::string& text) {
        if (text.rfind("Deleting 0x", 0) == 0 && !std::exchange(seen, true))
            AddToGarbage(nullptr); // which tells the size of the queue
    });
    CollectGarbage();
    EXPECT_TRUE(log.contains("Garbage queue size 1"));
    EXPECT_TRUE(log.contains("Deleting 0"));
    EXPECT_EQ(InstanceCount(), 0u);
}

TEST_F(InstanceBookTest, AnAddressThatCannotBeToldIsTheReadersTrouble)
{
    const auto first = connect();
    const auto second = connectNameless(log);
    std::ostringstream out;
    EXPECT_THROW(PrintStatus(out), std::runtime_error);
    EXPECT_EQ(out.str(), ".... Status:\nInstances: 2\nID: 0.0.0.0ID: ") << "up to the trouble";
    first->disconnectHandler();
    second->disconnectHandler();
    CollectGarbage();
}
