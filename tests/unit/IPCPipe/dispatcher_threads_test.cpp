// What ends a dispatcher's threads, and what does not.
#include "tests/unit/IPCPipe/server_bench.h"

#include "logging/logtarget.h"
#include "tests/support/log_lines.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <mutex>
#include <shared_mutex>

namespace zuTest {
namespace {

using namespace zuIPCPipe;

/// Receives nothing, and throws what a test asks for on the thread that it asks for.
struct FaultyDispatcher : CDispatcher {
    template <typename Token>
    explicit FaultyDispatcher(Token token) : CDispatcher(token, {}, {}, 0)
    {
    }
    bool ReceiveMsg(const zuPlatform::SocketPtr& socket, instance_msg& message, std::uint32_t timeout) override
    {
        const bool acknowledges = socket == DispatcherProbe::ackSocket(*this);
        if (acknowledges && interruptAck.exchange(false))
            throw boost::thread_interrupted();
        if (acknowledges && failAck.exchange(false)) {
            // The handling of a message fails on a table that this thread has already.
            table = std::unique_lock<std::shared_mutex>(DispatcherProbe::tableLock(*this));
            return true;
        }
        if (!acknowledges && failures.load() > 0 && failures-- > 0)
            throw std::runtime_error("no datagram");
        return CDispatcher::ReceiveMsg(socket, message, std::min(timeout, 10u));
    }
    std::atomic<bool> interruptAck{false};
    std::atomic<bool> failAck{false};
    std::unique_lock<std::shared_mutex> table; ///< by the acknowledge thread alone
    std::atomic<int> failures{0};
};

TEST(Dispatcher, EndsItsAcknowledgeThreadOnInterruptionAndLeavesTheOther)
{
    LogRecorder logs;
    const auto dispatcher = DispatcherProbe::make<FaultyDispatcher>();
    RawSocket cmd;
    RawSocket ack;
    dispatcher->SetRemotePorts(cmd.port(), ack.port());
    dispatcher->interruptAck = true;
    EXPECT_TRUE(logs.waitFor("Dispatcher AckThread Terminated"));
    expectLines(logs, "Dispatcher AckThread caught boost::thread_interrupted", zuLogging::log_warn, "IPCDIS");
    expectLines(logs, "Dispatcher AckThread Terminated", zuLogging::log_info, "IPCDIS");
    EXPECT_TRUE(DispatcherProbe::running(*dispatcher));
    ack.send(message(kMsgDispatcher, 0, 61), dispatcher->CmdPort());
    EXPECT_EQ(number(ack.receive().value(), 8, 4), 61u);
    dispatcher->Shutdown();
    DispatcherProbe::join(*dispatcher);
}

/// Acts on the thread that logs a warning.
struct OnWarning : zuLogging::basic_logtarget {
    explicit OnWarning(std::function<void()> callback) : action(std::move(callback)) {}
    void write(const zuLogging::basic_msgstate&, const wchar_t*, const wchar_t*) override {}
    void write(const zuLogging::basic_msgstate& line, const char*, const char*) override
    {
        if (line.level == zuLogging::log_warn)
            action();
    }
    std::function<void()> action;
};

TEST(Dispatcher, EndsItsAcknowledgeThreadOnAnExceptionAndLeavesTheOther)
{
    LogRecorder logs;
    const auto dispatcher = DispatcherProbe::make<FaultyDispatcher>();
    zuLogging::add_plain_target(std::make_shared<OnWarning>([&] { dispatcher->table.unlock(); }));
    RawSocket cmd;
    RawSocket ack;
    dispatcher->SetRemotePorts(cmd.port(), ack.port());
    dispatcher->failAck = true;
    EXPECT_TRUE(logs.waitFor("Dispatcher AckThread Terminated"));
    const std::string words = "Dispatcher AckThread caught std::exception: ";
    std::vector<std::string> caught;
    for (const std::string& text : logs.texts("IPCDIS"))
        if (text.rfind(words, 0) == 0)
            caught.push_back(text);
    ASSERT_EQ(caught.size(), 1u);
    EXPECT_GT(caught[0].size(), words.size()) << "the exception's own words follow";
    expectLines(logs, caught[0], zuLogging::log_warn, "IPCDIS");
    EXPECT_TRUE(DispatcherProbe::running(*dispatcher));
    ack.send(message(kMsgDispatcher, 0, 61), dispatcher->CmdPort());
    EXPECT_EQ(number(ack.receive().value(), 8, 4), 61u);
    dispatcher->Shutdown();
    DispatcherProbe::join(*dispatcher);
}

TEST(Dispatcher, LosesNeitherThreadNorBufferToAFailedReceive)
{
    LogRecorder logs;
    const auto dispatcher = DispatcherProbe::make<FaultyDispatcher>();
    RawSocket cmd;
    RawSocket ack;
    dispatcher->SetRemotePorts(cmd.port(), ack.port());
    dispatcher->failures = 1000;
    EXPECT_TRUE(eventually([&] { return dispatcher->failures <= 0; }));
    ack.send(message(kMsgDispatcher, 0, 62), dispatcher->CmdPort());
    EXPECT_EQ(number(ack.receive().value(), 8, 4), 62u);
    EXPECT_TRUE(eventually([&] { return DispatcherProbe::poolSize(*dispatcher) == 0; }));
    EXPECT_EQ(logs.texts("IPCDIS"), std::vector<std::string>{"CTOR Dispatcher\n"});
    dispatcher->Shutdown();
    DispatcherProbe::join(*dispatcher);
}

TEST(Dispatcher, EndsItsCommandThreadWhenTheNewInstanceCallbackThrows)
{
    LogRecorder logs;
    Bench bench([](std::shared_ptr<IMsgSrc>) { throw std::runtime_error(": no room"); });
    bench.command(message(kMsgDispatcher | kMsgConnect, 0));
    EXPECT_TRUE(logs.waitFor("Dispatcher CmdThread cought std::exception: no room"));
    EXPECT_TRUE(logs.waitFor("Dispatcher CmdThread Terminated"));
    EXPECT_FALSE(logs.contains("Dispatcher AckThread Terminated"));
    expectLines(logs, "Dispatcher CmdThread cought std::exception: no room", zuLogging::log_warn, "IPCDIS");
    expectLines(logs, "Dispatcher CmdThread Terminated", zuLogging::log_info, "IPCDIS");
}

TEST(Dispatcher, EndsItsCommandThreadWhenTheNewInstanceCallbackIsInterrupted)
{
    LogRecorder logs;
    Bench bench([](std::shared_ptr<IMsgSrc>) { throw boost::thread_interrupted(); });
    bench.command(message(kMsgDispatcher | kMsgConnect, 0));
    EXPECT_TRUE(logs.waitFor("Dispatcher CmdThread Terminated"));
    expectLines(logs, "Dispatcher CmdThread cought boost::interrupted", zuLogging::log_warn, "IPCDIS");
}

TEST(Dispatcher, IsNotMadeWithoutItsThreads)
{
    const NoMoreThreads none;
    EXPECT_THROW(CDispatcher::Make({}, {}, 1), boost::thread_resource_error);
}

TEST(Dispatcher, EndsItsCommandThreadWhenAnInstanceGetsNone)
{
    LogRecorder logs;
    ServerBench bench;
    {
        const NoMoreThreads none;
        bench.command(message(kMsgDispatcher | kMsgConnect, 0));
        EXPECT_TRUE(logs.waitFor("Dispatcher CmdThread Terminated"));
    }
    const auto texts = logs.texts("IPCDIS");
    ASSERT_EQ(texts.size(), 3u);
    EXPECT_EQ(texts[1].rfind("Dispatcher CmdThread cought std::exception", 0), 0u) << texts[1];
    EXPECT_FALSE(bench.ack.receive(0));
    const std::lock_guard<std::mutex> lock(bench.mutex);
    EXPECT_TRUE(bench.instances.empty()) << "the callback is not called";
}

TEST(Dispatcher, SwallowsAConnectReplyThatCannotBeSentAndLogsTheOthers)
{
    LogRecorder logs;
    ServerBench bench;
    bench.dispatcher->SetRemotePorts(bench.cmd.port(), 0); // nothing can be sent to port 0
    bench.command(message(kMsgDispatcher | kMsgConnect, 0));
    EXPECT_TRUE(eventually([&] { return bench.dispatcher->InstanceCount() == 1; }));
    bench.command(message(kMsgDispatcher, 0));
    EXPECT_TRUE(logs.waitFor("WriteAck caused exception: Socket sendto failed"));
    expectLines(logs, "WriteAck caused exception: Socket sendto failed", zuLogging::log_warn, "IPCDIS");
    bench.command(message(kMsgDispatcher | kMsgTerminate, 0));
    EXPECT_TRUE(logs.waitFor("WriteAck caused exception: Socket sendto failed", 2));
    EXPECT_TRUE(logs.waitFor("Dispatcher CmdThread Terminated"));
}

} // namespace
} // namespace zuTest
