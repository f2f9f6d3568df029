// What the daemon logs of its clients' lives, at each destination, and that nothing a log service does can keep it from
// serving them. Daemon, log service, client and camera are real.
#include "client/GevClient.h"
#include "daemon_under_test.h"
#include "logging_places.h"
#include "tests/unit/logging/fake_log_service.h"
#include "tools/gevsim/camera.h"
#include "tools/zuLogSvc/connection_block.h"

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <thread>

using namespace zuTest;
using namespace zuGevClient;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::HasSubstr;
using testing::Not;

namespace {

/// The daemon's words while a client connects, links, writes, reads, unlinks and goes, and the next one comes.
Words lifeOfAClient(std::uint16_t cameraPort)
{
    return {
        "GEVSVC.main [info] Running as GevSvc as Application\n",
        "GEVSVC.Svc [info] Starting service loop\n",
        "GEVSVC.IPCDIS.0 [info] CTOR Dispatcher\n",
        "GEVSVC.DevIns.0 [info] New DevInst created 0x",
        "GEVSVC.Conn.0 [trace] Create Connection\n",
        "GEVSVC.DevIns.0 [debug]  Devinst 0x",
        "GEVSVC.Conn.0 [trace] Set destination to 127.0.61.1:" + std::to_string(cameraPort) + "\n",
        "GEVSVC.DevIns.0 [info] Set Destination for socket to0x7f003d01 ,port " + std::to_string(cameraPort) + "\n",
        "GEVSVC.DevIns.0 [info] Pipe : Link\n",
        "GEVSVC.GEVCTRL.0 [info] GEV::CGevControl<class GEV::CSockConnection>::Link 0x",
        "GEVSVC.GEVCTRL.0 [info] Link device : write ccp\n",
        "GEVSVC.GVCP.0 [info] Successful WriteReg to addr 0xa00 : Value  2\n",
        "GEVSVC.GEVCTRL.0 [info] Link device : create heartbeat thread\n",
        "GEVSVC.GVCP.0 [info] Successful ReadReg 938 : Value  3000\n",
        "GEVSVC.GEVCTRL.0 [info] Heartbeat Timeout 3000\n",
        "GEVSVC.GVCP.0 [info] Successful WriteReg to addr 0xa050 : Value  51966\n",
        "GEVSVC.GVCP.0 [info] Successful ReadReg a050 : Value  51966\n",
        "GEVSVC.GVCP.0 [info] Successful ReadReg from addr 41040\n",
        "GEVSVC.GEVCTRL.0 [info] GEV::CGevControl<class GEV::CSockConnection>::Unlink 0x",
        "GEVSVC.GEVCTRL.0 [info] Exit heartbeat thread\n",
        "GEVSVC.GVCP.0 [info] Successful WriteReg to addr 0xa00 : Value  0\n",
        "GEVSVC.DevIns.1 [info] New DevInst created 0x",
        "GEVSVC.Svc [info] Deleting 0x",
        "GEVSVC.DevIns.0 [info] DevInst DTOR 0x",
        "GEVSVC.IPCINST.0 [info] zuIPCPipe::CInstance::Disconnect 0x",
        "GEVSVC.Svc [info] Service loop terminating, shutdown Mgr\n",
    };
}

struct Logging : testing::Test {
    ~Logging() override
    {
        daemon.reset();
        logService.reset();
    }
    void start(const std::string& destination, const std::string& more = {}, const Words& launcher = {})
    {
        logService = std::make_unique<LogService>(folder, destination, more);
        daemon = std::make_unique<DaemonUnderTest>(launcher);
        EXPECT_TRUE(logService->told(destination)) << logService->process.output();
    }
    /// What `lifeOfAClient` tells of, up to the daemon's end.
    void live()
    {
        {
            Connection client;
            client.setDestination({camera.ip(), camera.port()});
            ASSERT_TRUE(client.link(LinkMode::control()));
            client.writeRegister(gevsim::feature::testValue, 0xCAFE);
            EXPECT_EQ(client.readRegister(gevsim::feature::testValue), 0xCAFEu);
            client.unlink();
        }
        Connection().ping();
        daemon->process.signal(SIGTERM);
        EXPECT_EQ(daemon->process.wait(seconds(60)).status, 0);
    }

    const TemporaryFolder temporary;
    const std::string folder = temporary.path().string();
    gevsim::Camera camera{"127.0.61.1", 0};
    std::unique_ptr<LogService> logService;
    std::unique_ptr<DaemonUnderTest> daemon;
};

/// A client that reads a register of a linked camera without pause, and counts.
class Reader {
public:
    explicit Reader(const gevsim::Camera& camera)
    {
        client_.setDestination({camera.ip(), camera.port()});
        if (!client_.link(LinkMode::control()))
            throw std::runtime_error("no link");
        client_.writeRegister(gevsim::feature::testValue, 0xCAFE);
        thread_ = std::thread([this] {
            while (!stop_) {
                try {
                    ++(client_.readRegister(gevsim::feature::testValue) == 0xCAFE ? good_ : bad_);
                } catch (const Error& error) {
                    ++bad_;
                    const std::lock_guard lock(mutex_);
                    words_ = error.what();
                }
            }
        });
    }
    ~Reader() { finish(); }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    /// Waits until so many more registers have been read.
    bool reads(unsigned more)
    {
        const unsigned until = good_ + more;
        return eventually([&] { return good_ >= until || bad_ != 0; }) && bad_ == 0;
    }
    std::string trouble() const
    {
        const std::lock_guard lock(mutex_);
        return words_;
    }
    /// For the time after `finish`.
    Connection& client() { return client_; }
    void finish()
    {
        stop_ = true;
        if (thread_.joinable())
            thread_.join();
    }

private:
    Connection client_;
    std::atomic<bool> stop_{false};
    std::atomic<unsigned> good_{0}, bad_{0};
    mutable std::mutex mutex_; // guards words_
    std::string words_;
    std::thread thread_;
};

} // namespace

TEST_F(Logging, DestinationLogsvcTellsAClientsWholeLife)
{
    start("logsvc");
    live();
    expectWords([&] { return logService->process.output(); }, lifeOfAClient(camera.port()));
    EXPECT_THAT(logService->process.output(), Not(HasSubstr("missing")));
    EXPECT_THAT(daemon->process.output(), Not(HasSubstr("GEVSVC.")));
}

TEST_F(Logging, DestinationFileTellsAClientsWholeLife)
{
    const std::string path = folder + "/daemon.log";
    start("file", R"(, "file": ")" + path + '"');
    live();
    expectWords([&] { return readFile(path); }, lifeOfAClient(camera.port()));
    expectWholeLines(readFile(path));
    EXPECT_THAT(daemon->process.output(), Not(HasSubstr("GEVSVC.")));
    EXPECT_THAT(logService->process.output(), Not(HasSubstr("GEVSVC.")));
}

TEST_F(Logging, DestinationCoutTellsAClientsWholeLife)
{
    const std::string errors = folder + "/errors";
    start("cout", "", {"sh", "-c", R"(exec "$@" 2>")" + errors + '"', "sh"});
    live();
    expectWords([&] { return daemon->process.output(); }, lifeOfAClient(camera.port()));
    EXPECT_EQ(readFile(errors), "");
}

TEST_F(Logging, DestinationCerrTellsAClientsWholeLife)
{
    const std::string errors = folder + "/errors";
    start("cerr", "", {"sh", "-c", R"(exec "$@" 2>")" + errors + '"', "sh"});
    live();
    expectWords([&] { return readFile(errors); }, lifeOfAClient(camera.port()));
    expectWholeLines(readFile(errors));
    EXPECT_THAT(daemon->process.output(), Not(HasSubstr("GEVSVC.")));
}

TEST_F(Logging, DestinationConsoleTellsAClientsWholeLife)
{
    const Terminal terminal;
    start("console", "", terminal.launcher());
    live();
    Words words = lifeOfAClient(camera.port());
    for (std::string& each : words)
        if (each.back() == '\n')
            each.replace(each.size() - 1, 1, "\x1b[0m\r\n");
    expectWords([&] { return terminal.text(); }, words);
    EXPECT_THAT(terminal.text(), testing::ContainsRegex("\x1b\\[0;97m20[^\n]* GEVSVC.main \\[info\\] Running"));
    EXPECT_THAT(daemon->process.output(), Not(HasSubstr("GEVSVC.")));
}

TEST_F(Logging, DestinationTraceTellsAClientsWholeLife)
{
    Words probe = SystemLog::ownMounts();
    probe.push_back("true");
    if (runCommand(probe).end.status != 0)
        GTEST_SKIP() << "a system log of the test's own needs mounts of its own, which are not permitted here";
    // The daemon never waits for the system log: what finds its queue full is dropped.
    const std::string queue = readFile("/proc/sys/net/unix/max_dgram_qlen");
    if (std::atoi(queue.c_str()) < 100)
        GTEST_SKIP() << "a system log's queue has room for fewer lines than a client's life has: " << queue;
    SystemLog systemLog(folder);
    start("trace", "", systemLog.launcher());
    live();
    expectWords([&] { return systemLog.text(); }, lifeOfAClient(camera.port()));
    EXPECT_EQ(systemLog.text().find("<15>zuGevSvc["), 0u);
    EXPECT_THAT(daemon->process.output(), Not(HasSubstr("GEVSVC.")));
}

TEST_F(Logging, DestinationsNoneAndEvtlogTellNothing)
{
    for (const char* destination : {"none", "evtlog"}) {
        start(destination);
        live();
        EXPECT_THAT(daemon->process.output(), Not(HasSubstr("GEVSVC."))) << destination;
        EXPECT_THAT(logService->process.output(), Not(HasSubstr("GEVSVC."))) << destination;
        daemon.reset();
        logService.reset();
    }
}

TEST_F(Logging, ACameraLostAndRegainedIsTold)
{
    start("logsvc");
    Connection client;
    client.setAckTimeout(milliseconds(50));
    client.setDestination({camera.ip(), camera.port()});
    ASSERT_TRUE(client.link(LinkMode::control()));
    client.setHeartbeat(milliseconds(500));
    camera.powerCycle();
    expectWords([&] { return logService->process.output(); },
                {"GEVSVC.GEVCTRL.0 [info] Heartbeat Timeout 3000\n",
                 "GEVSVC.GEVCTRL.0 [err] Heartbeat Timeout / CCP lost\n",
                 "GEVSVC.GEVCTRL.0 [warn] HeartBeatThread reconnect\n", "GEVSVC.GEVCTRL.0 [info] CCP Value: "});
    EXPECT_TRUE(camera.waitFor([&] { return camera.control().held(); }));
}

TEST_F(Logging, AKilledLogServiceStopsNoClient)
{
    start("logsvc");
    Reader reader(camera);
    EXPECT_TRUE(reader.reads(100)) << reader.trouble();
    logService->killed = true;
    logService->process.signal(SIGKILL);
    logService->process.wait();
    EXPECT_TRUE(reader.reads(2000)) << reader.trouble();
    Connection().ping();
    // The next one listens elsewhere: the daemon has asked once, and goes on without.
    logService.reset();
    logService = std::make_unique<LogService>(folder, "logsvc");
    EXPECT_TRUE(reader.reads(500)) << reader.trouble();
}

TEST_F(Logging, AFloodedLogServiceStopsNoClient)
{
    start("logsvc");
    const auto ports = zuLogSvc::readConnectionBlock();
    ASSERT_TRUE(ports);
    Reader reader(camera);
    EXPECT_TRUE(reader.reads(100)) << reader.trouble();
    std::atomic<bool> stop{false};
    std::atomic<unsigned> sent{0};
    std::vector<std::thread> flood;
    for (const zuPlatform::SocketAddress& port : {ports->command, ports->message})
        flood.emplace_back([&, port] {
            const auto socket = zuPlatform::DatagramSocket::open();
            std::mt19937 random(61);
            std::vector<std::uint8_t> packet(2000);
            while (!stop) {
                for (std::uint8_t& byte : packet)
                    byte = static_cast<std::uint8_t>(random());
                socket->sendTo(packet.data(), random() % packet.size(), port);
                ++sent;
            }
        });
    EXPECT_TRUE(eventually([&] { return sent > 1000; }));
    EXPECT_TRUE(reader.reads(2000)) << reader.trouble();
    stop = true;
    for (std::thread& thread : flood)
        thread.join();
    reader.finish();
    EXPECT_EQ(reader.trouble(), "");
    // The flood is told, and over: what the daemon says now arrives.
    EXPECT_TRUE(logService->process.waitForOutput("bad datagrams at the message port"));
    EXPECT_TRUE(logService->process.waitForOutput("bad datagrams at the command port"));
    EXPECT_TRUE(eventually([&] {
        reader.client().writeRegister(gevsim::feature::testValue, 61000);
        return logService->process.output().find("to addr 0xa050 : Value  61000") != std::string::npos;
    }));
}

TEST_F(Logging, WrongRepliesKeepNoDaemonFromServing)
{
    const std::string good = R"({"destination":"none","level":"all"})";
    const auto replies = [&](const Bytes& request) {
        std::vector<Bytes> all;
        const auto reply = [&](std::size_t offset, std::uint8_t change) {
            Bytes packet = acknowledgeOf(request, good);
            packet.at(offset) ^= change;
            all.push_back(packet);
        };
        for (const std::size_t offset : {0, 2, 4, 6, 8, 10}) // magic, flags, command, status, id, length
            reply(offset, 0x55);
        all.push_back(Bytes(5, 0xCA));
        all.push_back(Bytes(60000, 0xCA));
        all.push_back(acknowledgeOf(request, ""));
        all.push_back(acknowledgeOf(request, R"({"destination")"));
        all.push_back(acknowledgeOf(request, std::string(1388, '[')));
        all.push_back(acknowledgeOf(request, R"({"destination":"nowhere","level":"all"})"));
        all.push_back(acknowledgeOf(request, R"({"destination":"logsvc","level":"loud"})"));
        all.push_back(acknowledgeOf(request, R"({"destination":"file","level":"all","file":"/no/such/folder/log"})"));
        all.push_back(acknowledgeOf(request, R"({"destination":"logsvc","level":"all","sockaddr":"127.0.61.9:0"})"));
        all.push_back(acknowledgeOf(request, R"({"destination":"logsvc","level":"all","sockaddr":"127.0.61.9:9"})"));
        return all;
    };
    const std::size_t count = replies(commandPacket(1, 0, "")).size();
    ASSERT_EQ(count, 16u);
    for (std::size_t i = 0; i < count; ++i) {
        const FakeLogService fake([&](const Bytes& request) { return replies(request)[i]; });
        const DaemonUnderTest served;
        EXPECT_FALSE(fake.requests().empty()) << i;
        Reader reader(camera);
        EXPECT_TRUE(reader.reads(20)) << i << ": " << reader.trouble();
    }
}

TEST_F(Logging, ADaemonWhoseProgramNameIsNoUtf8OnlyTellsItsUsage)
{
    logService = std::make_unique<LogService>(folder, "logsvc");
    const std::string program = folder + "/\xFF\xFE";
    std::filesystem::copy_file(builtProgram("zuGevSvc"), program);
    const Finished finished = runCommand({program, "--execute"});
    EXPECT_TRUE(finished.end.exited);
    EXPECT_EQ(finished.end.status, 1);
    EXPECT_THAT(finished.output, HasSubstr("Generic options:\n  -s [ --svc ]          Run as service\n"));
}
