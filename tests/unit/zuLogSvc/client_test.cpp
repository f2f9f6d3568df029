// The daemon's logging against the service: two encoders, decoders and formatters that know nothing of each other.
#include "tests/unit/zuLogSvc/support.h"

#include "logging/config.h"
#include "logging/log.h"
#include "logging/logtarget.h"
#include "platform/clock.h"
#include "platform/process.h"
#include "platform/shared_memory.h"
#include "platform/thread.h"
#include "tools/zuLogSvc/connection_block.h"
#include "tools/zuLogSvc/protocol.h"
#include "tools/zuLogSvc/service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

namespace {

using namespace zuLogSvc;
using ::testing::HasSubstr;
using zuTest::eventually;

/// Keeps the lines that the daemon's formatter makes.
class LocalLines : public zuLogging::basic_logtarget {
public:
    void write(const zuLogging::basic_msgstate&, const wchar_t*, const wchar_t*) override {}
    void write(const zuLogging::basic_msgstate&, const char* begin, const char* end) override
    {
        const std::lock_guard lock(mutex_);
        lines_.emplace_back(begin, end);
    }
    std::vector<std::string> lines() const
    {
        const std::lock_guard lock(mutex_);
        return lines_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

class DaemonsLogging : public ::testing::Test {
protected:
    DaemonsLogging()
    {
        zuPlatform::setObjectNamePrefixForTesting(zuTest::uniquePrefix());
        OutputSettings output;
        output.type = OutputSettings::Type::file;
        output.path = folder.file("log");
        settings.outputs = {output};
    }
    ~DaemonsLogging() override
    {
        zuLogging::clear_targets();
        block.reset();
        if (service) {
            EXPECT_TRUE(service->stop(60000));
        }
        zuPlatform::setObjectNamePrefixForTesting("");
    }
    void startAndConfigure(const std::string& description = "")
    {
        service = std::make_unique<Service>(settings, systemClock(), [](const std::string&) {});
        service->start();
        block = std::make_unique<ConnectionBlock>(service->endpoints());
        ASSERT_TRUE(zuLogging::configure_logging("GEVSVC", description, {}));
        local = std::make_shared<LocalLines>();
        zuLogging::add_formatted_target(local);
    }
    std::string log() const { return zuTest::readFile(folder.file("log")); }
    bool logHas(const std::string& text) const
    {
        return eventually([&] { return log().find(text) != std::string::npos; });
    }
    /// The lines of the log that are not the service's own.
    std::vector<std::string> clientLines() const
    {
        auto lines = zuTest::splitLines(log());
        std::erase_if(lines, [](const std::string& line) { return line.find(" zuLogSvc [") != std::string::npos; });
        return lines;
    }

    zuTest::TemporaryFolder folder;
    Settings settings;
    std::unique_ptr<Service> service;
    std::unique_ptr<ConnectionBlock> block;
    std::shared_ptr<LocalLines> local;
};

TEST_F(DaemonsLogging, LinesAreThoseOfTheDaemonsOwnFormatter)
{
    settings.rules.push_back(Rule{"GEVSVC", "test_logsvc_with*", "logsvc", "debug", {}, {}, {}});
    startAndConfigure("cameras");
    const auto log1 = zuLogging::get_logstate("Conn.0");
    const auto group = zuLogging::logstate::register_group("IPConnection");
    ZU_LOG(log1, zuLogging::log_info, "Enter service");
    ZU_LOG_GROUP(log1, zuLogging::log_warn, group, "Unable to set receive buffer size: " << 105);
    ZU_LOG(zuLogging::get_logstate("main"), zuLogging::log_err, "several\nlines\n\nof text\n");
    ZU_LOG(log1, zuLogging::log_trace, "\tDevice gr\xc3\xbc\xc3\x9f");
    ZU_LOG(log1, zuLogging::log_debug, "last");
    ASSERT_TRUE(logHas("[debug] last\n"));
    EXPECT_EQ(clientLines(), local->lines());
    EXPECT_EQ(clientLines().size(), 5u);
    EXPECT_THAT(log(),
                HasSubstr("module \"GEVSVC\" of process \"test_logsvc_with_daemon\" asks for its settings: rule 0, "
                          "destination logsvc, level debug"));
    EXPECT_THAT(log(), HasSubstr("zuLogSvc [info] module \"GEVSVC\": cameras\n"));
}

TEST_F(DaemonsLogging, ProcessThreadAndLocationArrive)
{
    settings.outputs[0].line.process = settings.outputs[0].line.thread = settings.outputs[0].line.location = true;
    startAndConfigure();
    ZU_LOG(zuLogging::get_logstate("main"), zuLogging::log_warn, "here");
    ASSERT_TRUE(logHas("[warn] here {pid " + std::to_string(zuPlatform::currentProcessId()) + ", tid " +
                       std::to_string(zuPlatform::currentThreadId()) + ", tests/unit/zuLogSvc/client_test.cpp("));
}

TEST_F(DaemonsLogging, WithoutThreadIdNoneArrives)
{
    settings.rules.push_back(Rule{"*", "*", "logsvc", "info", {}, {}, "off"});
    settings.outputs[0].line.thread = true;
    startAndConfigure();
    ZU_LOG(zuLogging::get_logstate("main"), zuLogging::log_info, "here");
    EXPECT_TRUE(logHas("[info] here\n"));
}

TEST_F(DaemonsLogging, LevelsBelowTheSettingsDoNotArrive)
{
    settings.rules.push_back(Rule{"*", "*", "logsvc", "warn", {}, {}, {}});
    startAndConfigure();
    ZU_LOG(zuLogging::get_logstate("main"), zuLogging::log_info, "not wanted");
    ZU_LOG(zuLogging::get_logstate("main"), zuLogging::log_warn, "wanted");
    ASSERT_TRUE(logHas("[warn] wanted\n"));
    EXPECT_THAT(log(), ::testing::Not(HasSubstr("not wanted")));
}

TEST_F(DaemonsLogging, LongTextsAndRecordsAreTakenAsTheyCome)
{
    settings.outputs[0].line.format = Format::json;
    startAndConfigure();
    const auto node = zuLogging::get_logstate("main");
    ZU_LOG(node, zuLogging::log_info, std::string(2000, 't'));
    for (const std::size_t count : {std::size_t{2}, std::size_t{6}}) {
        zuLogging::basic_logbuf<char> buffer(node);
        buffer.state.level = zuLogging::log_info;
        buffer.state.records.resize(count);
        std::ostream(&buffer) << "with " << count << std::flush;
    }
    ASSERT_TRUE(logHas("\"records\":0,\"incomplete\":true}\n")) << log(); // six leave room for nothing
    EXPECT_THAT(log(), HasSubstr("ttt\",\"process\""));
    EXPECT_THAT(log(), HasSubstr("\"sequence\":1,\"cut\":true,\"incomplete\":true}\n"));
    EXPECT_THAT(log(), HasSubstr("\"text\":\"with 2\""));
    EXPECT_THAT(log(), HasSubstr("\"records\":2}\n"));
    EXPECT_EQ(service->counts().bad, 0u);
}

TEST_F(DaemonsLogging, EightThreadsGetWholeLinesAndNoFalseAlarm)
{
    startAndConfigure();
    constexpr int threads = 8, each = 200;
    std::vector<std::thread> all;
    for (int thread = 0; thread < threads; ++thread)
        all.emplace_back([thread] {
            const auto node = zuLogging::get_logstate("GVCP." + std::to_string(thread));
            for (int i = 0; i < each; ++i) {
                ZU_LOG(node, zuLogging::log_info, "thread " << thread << " message " << i);
                if (i % 10 == 9)
                    zuPlatform::sleepMs(1); // a pace, so that the kernel's buffer loses none
            }
        });
    for (auto& thread : all)
        thread.join();
    // A loss at the very end shows only by a message after it.
    unsigned looks = 0;
    ASSERT_TRUE(eventually([&] {
        if (++looks % 400 == 0)
            ZU_LOG(zuLogging::get_logstate("main"), zuLogging::log_info, "one more");
        const WriterCounts counts = service->counts();
        return counts.messages + counts.missing == local->lines().size();
    }));
    EXPECT_GE(local->lines().size(), std::size_t{threads * each});
    // What was sent and not lost stands there, and nothing else.
    auto sent = local->lines();
    auto written = clientLines();
    ASSERT_TRUE(eventually([&] { return (written = clientLines()).size() == service->counts().messages; }));
    std::sort(sent.begin(), sent.end());
    std::sort(written.begin(), written.end());
    EXPECT_TRUE(std::includes(sent.begin(), sent.end(), written.begin(), written.end()));
    EXPECT_EQ(written.size() + service->counts().missing, sent.size());
}

} // namespace
