// The lines of the books, and a reader of the status report that takes its time.
#include "devinst_support.h"
#include "src/InstanceBook.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <future>
#include <mutex>
#include <ostream>
#include <streambuf>
#include <thread>

using namespace zuTest;
using namespace zuGevDaemon;
using namespace std::chrono_literals;

namespace {

/// Takes nothing until it is released.
class SlowBuffer : public std::streambuf {
public:
    bool waitUntilStuck()
    {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, 30s, [&] { return stuck_; });
    }
    void release()
    {
        {
            const std::lock_guard lock(mutex_);
            released_ = true;
        }
        changed_.notify_all();
    }
    std::string text()
    {
        const std::lock_guard lock(mutex_);
        return text_;
    }

protected:
    int_type overflow(int_type c) override
    {
        const char byte = traits_type::to_char_type(c);
        return xsputn(&byte, 1) == 1 ? c : traits_type::eof();
    }
    std::streamsize xsputn(const char* data, std::streamsize count) override
    {
        std::unique_lock lock(mutex_);
        stuck_ = true;
        changed_.notify_all();
        changed_.wait(lock, [&] { return released_; });
        text_.append(data, static_cast<std::size_t>(count));
        return count;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool stuck_ = false, released_ = false;
    std::string text_;
};

} // namespace

TEST(InstanceStatus, ASlowReaderHoldsNoClientUp)
{
    const auto first = std::make_shared<ScriptedClient>();
    OnClientConnect(first);
    SlowBuffer buffer;
    std::ostream out(&buffer);
    auto report = std::async(std::launch::async, [&] { PrintStatus(out); });
    EXPECT_TRUE(buffer.waitUntilStuck());
    const auto second = std::make_shared<ScriptedClient>();
    auto life = std::async(std::launch::async, [&] {
        first->disconnectHandler();
        OnClientConnect(second); // which deletes the first
        return InstanceCount();
    });
    EXPECT_EQ(life.wait_for(30s), std::future_status::ready);
    buffer.release();
    report.get();
    EXPECT_EQ(life.get(), 1u);
    EXPECT_EQ(buffer.text(), ".... Status:\nInstances: 1\nID: 0.0.0.0\n");
    second->disconnectHandler();
    CollectGarbage();
    EXPECT_EQ(InstanceCount(), 0u);
}

TEST(InstanceStatus, LevelsOfTheBooksLines)
{
    LogRecorder log;
    const auto client = std::make_shared<ScriptedClient>();
    OnClientConnect(client);
    client->disconnectHandler();
    expectLines(log, "Garbage queue size 0", zuLogging::log_debug, "Svc");
    EXPECT_EQ(log.texts("Svc").size(), 1u);
    CollectGarbage();
    std::string deleting;
    for (const std::string& text : log.texts("Svc"))
        if (text.rfind("Deleting 0x", 0) == 0)
            deleting = text;
    expectLines(log, deleting, zuLogging::log_info, "Svc");
    expectLines(log, "Instance queue size 0", zuLogging::log_debug, "Svc");
    log.clear();
    CollectGarbage();
    EXPECT_TRUE(log.texts("Svc").empty()) << "an empty queue is not worth a line";
}
