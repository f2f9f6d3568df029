// The pipe end to end within one process: the client role against the server role over real sockets.
#include "tests/unit/IPCPipe/pipe_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

namespace zuTest {
namespace {

using namespace zuIPCPipe;

std::string ask(IMsgSrc& source, const std::string& text, std::uint32_t timeout = 20000)
{
    std::string request = text;
    std::string reply(text.size(), '\0');
    std::size_t replyLength = reply.size();
    source.Send(request.data(), request.size(), reply.data(), replyLength, timeout);
    return reply.substr(0, replyLength);
}

TEST(Connection, CarriesACommandAndItsReply)
{
    Server server;
    const std::shared_ptr<CMgr> client = MakeClientManager();
    const std::shared_ptr<IMsgSrc> source = Connect(*client, 20000);
    EXPECT_TRUE(source->IsConnected());
    EXPECT_EQ(ask(*source, "hello"), "hello");
    EXPECT_EQ(ask(*source, "again"), "again");
}

TEST(Connection, ExtendsTheWaitOfItsOwnClientAlone)
{
    std::promise<void> go;
    std::promise<void> waiting;
    Server server([&, gone = go.get_future().share()](const std::shared_ptr<IMsgSrc>& source) {
        source->SetMsgHandler(
            [&, gone](void* data, std::size_t, std::size_t& length, boost::function<void(unsigned)> extend) {
                length = 1;
                if (*static_cast<char*>(data) == 'e')
                    extend(1);
                else
                    waiting.set_value();
                gone.wait();
            });
    });
    const std::shared_ptr<CMgr> client = MakeClientManager();
    const auto patient = Connect(*client, 20000);
    const auto extended = Connect(*client, 20000);
    auto answer = std::async(std::launch::async, [&] { return ask(*patient, "p", 60000); });
    waiting.get_future().wait();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(thrown([&] { ask(*extended, "e", 60000); }), "IPCTimeoutException: Wait for Ack failed");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
    EXPECT_EQ(answer.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    go.set_value();
    EXPECT_EQ(answer.get(), "p");
}

TEST(Connection, EndsAtBothSidesWhenTheClientDisconnects)
{
    Server server;
    const std::shared_ptr<CMgr> client = MakeClientManager();
    std::shared_ptr<IMsgSrc> source = Connect(*client, 20000);
    const std::shared_ptr<IMsgSrc> remote = server.instance();
    ASSERT_TRUE(remote);
    source.reset();
    EXPECT_TRUE(server.waitForDisconnects(1));
    EXPECT_FALSE(remote->IsConnected());
}

} // namespace
} // namespace zuTest
