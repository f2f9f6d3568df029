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
