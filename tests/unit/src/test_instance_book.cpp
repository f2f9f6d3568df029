// Who is in the books, and when an instance is deleted.
#include "scripted_client.h"
#include "src/InstanceBook.h"
#include "tests/support/recording_target.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace zuTest;
using namespace zuGevDaemon;

namespace {

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
