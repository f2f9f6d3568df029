// The service in this process, over real sockets: messages to lines, loss, reload, viewers, the connection block.
#include "tests/support/child_process.h"
#include "tests/support/forked_child.h"
#include "tests/unit/zuLogSvc/support.h"

#include "platform/shared_memory.h"
#include "tools/zuLogSvc/connection_block.h"
#include "tools/zuLogSvc/follow_client.h"
#include "tools/zuLogSvc/protocol.h"
#include "tools/zuLogSvc/service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>

#include <unistd.h>

namespace {

using namespace zuLogSvc;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::Each;
using ::testing::HasSubstr;
using ::testing::Not;
using zuTest::eventually;
using zuTest::someMessage;

class Sender {
public:
    explicit Sender(const zuPlatform::SocketAddress& to) : to_(to)
    {
        socket_ = zuPlatform::DatagramSocket::open();
        EXPECT_NE(socket_, nullptr);
        socket_->bind(zuPlatform::loopbackAt(0));
    }
    void send(const Packet& packet) { socket_->sendTo(packet.data(), packet.size(), to_); }
    void send(const LogMessage& message) { send(zuTest::datagramOf(message)); }
    zuPlatform::DatagramSocket& socket() { return *socket_; }

private:
    zuPlatform::SocketAddress to_;
    std::shared_ptr<zuPlatform::DatagramSocket> socket_;
};

class Running : public ::testing::Test {
protected:
    Running()
    {
        OutputSettings output;
        output.type = OutputSettings::Type::file;
        output.path = folder.file("log");
        settings.outputs = {output};
    }
    ~Running() override
    {
        if (service) {
            EXPECT_TRUE(service->stop(60000));
        }
    }
    void start()
    {
        service = std::make_unique<Service>(settings, systemClock(), [this](const std::string& text) {
            const std::lock_guard lock(mutex);
            trouble.push_back(text);
        });
        service->start();
    }
    std::string log(const std::string& name = "log") const { return zuTest::readFile(folder.file(name)); }
    bool logHas(const std::string& text, const std::string& name = "log") const
    {
        return eventually([&] { return log(name).find(text) != std::string::npos; });
    }

    zuTest::TemporaryFolder folder;
    Settings settings;
    std::mutex mutex;
    std::vector<std::string> trouble;
    std::unique_ptr<Service> service;
};

TEST_F(Running, MessagesBecomeLines)
{
    start();
    EXPECT_EQ(service->endpoints().command.address, zuPlatform::loopbackAt(0).address);
    EXPECT_NE(service->endpoints().command, service->endpoints().message);
    Sender sender(service->endpoints().message);
    sender.send(someMessage("first"));
    sender.send(someMessage("second", 2));
    const std::string prefix = "2026-Nov-12 10:58:49.123456 GEVSVC.Conn.0 [IPConnection|warn] ";
    EXPECT_TRUE(logHas(prefix + "first\n" + prefix + "second\n")) << log();
    EXPECT_TRUE(service->stop(60000));
    EXPECT_THAT(log(), HasSubstr("zuLogSvc [info] log service started, commands at 127.0.0.1:"));
    EXPECT_THAT(log(), HasSubstr("zuLogSvc [info] log service ends; messages so far: 2\n"));
    EXPECT_THAT(trouble, ::testing::IsEmpty());
}

TEST_F(Running, WhatHasArrivedIsWrittenAtTheStop)
{
    start();
    Sender sender(service->endpoints().message);
    for (std::uint64_t i = 1; i <= 100; ++i)
        sender.send(someMessage("message " + std::to_string(i) + ".", i));
    EXPECT_TRUE(service->stop(60000));
    EXPECT_THAT(log(), HasSubstr("message 100."));
    EXPECT_EQ(service->counts().messages, 100u);
    EXPECT_EQ(service->counts().missing, 0u);
}

TEST_F(Running, CommandsAreAnsweredFromThePortTheyWereSentTo)
{
    start();
    Sender sender(service->endpoints().command);
    sender.send(encodeCommand(cmdGetConfiguration, 77, "{\"module\":\"GEVSVC\",\"process\":\"test\"}\n"));
    std::uint8_t buffer[1400];
    zuPlatform::SocketAddress from;
    const auto result = sender.socket().receive(buffer, sizeof buffer, 60000, &from);
    ASSERT_EQ(result.kind, zuPlatform::ReceiveResult::Kind::received);
    EXPECT_EQ(from, service->endpoints().command);
    CommandPacket packet;
    ASSERT_EQ(decodeAcknowledge(Bytes(buffer, static_cast<std::size_t>(result.count)), packet), nullptr);
    EXPECT_EQ(packet.header.command, 0x8001);
    EXPECT_EQ(packet.header.id, 77);
    EXPECT_EQ(packet.payload, "{\"destination\":\"logsvc\",\"level\":\"info\"}");
    EXPECT_TRUE(logHas("zuLogSvc [info] module \"GEVSVC\" of process \"test\" asks"));
}

TEST_F(Running, MissingNumbersAreSaid)
{
    start();
    Sender sender(service->endpoints().message);
    sender.send(someMessage("one", 1));
    sender.send(someMessage("four", 4));
    EXPECT_TRUE(logHas("): 2 messages, 2 to 3, are missing")) << log();
    EXPECT_THAT(log(), HasSubstr("zuLogSvc [warn] process 812 (127.0.0.1:"));
    EXPECT_EQ(service->counts().missing, 2u);
}

TEST_F(Running, AMessageWhoseProcessFoundNoRoomIsNoHole)
{
    start();
    Sender sender(service->endpoints().message);
    const auto send = [&](std::uint64_t number, bool cut) {
        LogMessage message = someMessage("number " + std::to_string(number) + " end", number);
        message.hasRecords = true;
        if (cut) {
            message.process.reset();
            message.incomplete = true;
        }
        sender.send(encodeMessage(cmdMessageWithRecords, 7, zuLogSvc::encodeContainer(message)));
    };
    send(1, true); // of a process that nobody knows
    send(2, false);
    send(3, true);
    send(4, false);
    send(6, true);
    send(7, false);
    EXPECT_TRUE(logHas("number 7 end"));
    EXPECT_TRUE(service->stop(60000));
    EXPECT_THAT(log(), HasSubstr("): message 1 with records not seen"));
    EXPECT_THAT(log(), HasSubstr("): message 5 with records is missing"));
    EXPECT_EQ(service->counts().missing, 2u) << log();
}

TEST_F(Running, HolesHeldBackAreSaidAtTheEnd)
{
    start();
    Sender sender(service->endpoints().message);
    for (std::uint64_t i = 1; i <= 120; ++i)
        sender.send(someMessage("number " + std::to_string(i) + " end", 2 * i));
    EXPECT_TRUE(logHas("number 120 end"));
    EXPECT_TRUE(service->stop(60000));
    EXPECT_EQ(service->counts().missing, 120u);
    EXPECT_THAT(log(), HasSubstr("zuLogSvc [warn] 20 more places where messages are missing\n"));
}

TEST_F(Running, CutMessagesAreMarked)
{
    start();
    Sender sender(service->endpoints().message);
    sender.send(someMessage(std::string(2000, 't')));
    EXPECT_TRUE(logHas("ttt [cut]\n"));
}

TEST_F(Running, GarbageOfEveryLengthCostsAWarning)
{
    start();
    Sender messages(service->endpoints().message), commands(service->endpoints().command);
    std::mt19937 random(17);
    const std::uint64_t begin = systemClock().steadyMilliseconds();
    constexpr std::uint64_t sizes = 2049;
    for (std::uint64_t size = 0; size < sizes; ++size) {
        Packet packet(size);
        for (auto& byte : packet)
            byte = static_cast<std::uint8_t>(random());
        messages.send(packet);
        commands.send(packet);
        // One at a time, so that the kernel loses none and the count is exact.
        ASSERT_TRUE(eventually([&] { return service->counts().bad == size + 1; })) << size;
    }
    messages.send(someMessage("still here"));
    EXPECT_TRUE(logHas("still here"));
    EXPECT_TRUE(service->stop(60000));
    const std::uint64_t seconds = (systemClock().steadyMilliseconds() - begin) / 1000;
    EXPECT_THAT(log(), HasSubstr("zuLogSvc [warn] 1 bad datagrams at the message port, the latest from 127.0.0.1:"));
    EXPECT_THAT(log(), HasSubstr(", 1401 bytes: "));
    EXPECT_THAT(log(), HasSubstr(" bad datagrams at the command port"));
    // Seldom: at the first one, every ten seconds, and at the end.
    const auto lines = zuTest::splitLines(log());
    const auto told = std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
        return line.find(" bad datagrams") != std::string::npos;
    });
    EXPECT_LE(static_cast<std::uint64_t>(told), 2 * (seconds / 10 + 2));
}

TEST_F(Running, SixteenProcessesWithoutPauseAreAllAccountedFor)
{
    constexpr int senders = 16;
    constexpr std::uint64_t each = 3000;
    settings.outputs[0].rotateSize = 1024 * 1024;
    settings.outputs[0].keep = 1000;
    start();
    const std::string port = std::to_string(zuPlatform::networkToHost16(service->endpoints().message.port));
    std::vector<std::unique_ptr<zuTest::ChildProcess>> all;
    for (int i = 0; i < senders; ++i)
        all.push_back(std::make_unique<zuTest::ChildProcess>(std::vector<std::string>{
            zuTest::builtProgram("logsvc_sender"), port, std::to_string(i), std::to_string(each)}));
    for (const auto& sender : all)
        ASSERT_TRUE(sender->waitForOutput("ready"));
    for (const auto& sender : all)
        sender->write("\n");
    for (const auto& sender : all)
        ASSERT_TRUE(sender->waitForOutput("done", std::chrono::minutes(2)));
    const auto message = [](int sender, std::uint64_t number) {
        return someMessage("sender " + std::to_string(sender) + " number " + std::to_string(number) + " end", number);
    };
    // A last message of each shows what was lost before it. It is sent until it has come through; twice is no gap.
    for (int i = 0; i < senders; ++i) {
        const std::string end = "sender " + std::to_string(i) + " number " + std::to_string(each + 1) + " end\n";
        ASSERT_TRUE(eventually([&] {
            all[static_cast<std::size_t>(i)]->write("\n");
            std::string text = log();
            for (int old = 1; old <= 3; ++old)
                text += log("log." + std::to_string(old));
            return text.find(end) != std::string::npos;
        }));
    }
    for (const auto& sender : all) {
        sender->closeInput();
        EXPECT_TRUE(sender->wait().exited);
    }
    EXPECT_TRUE(service->stop(60000));
    const WriterCounts counts = service->counts();
    EXPECT_EQ(counts.bad, 0u);
    EXPECT_EQ(counts.lostLines, 0u);

    std::string text = log();
    for (int i = 1; std::filesystem::exists(folder.file("log." + std::to_string(i))); ++i)
        text.insert(0, log("log." + std::to_string(i)));
    std::map<std::pair<int, std::uint64_t>, int> seen;
    std::uint64_t lines = 0;
    for (const std::string& entry : zuTest::splitLines(text)) {
        int sender = 0;
        unsigned long long number = 0;
        std::sscanf(entry.c_str(), "%*s %*s %*s %*s sender %d number %llu", &sender, &number);
        if (entry == formatLine(message(sender, number), 0, {})) {
            ++seen[{sender, number}];
            ++lines;
        } else {
            EXPECT_THAT(entry, HasSubstr(" zuLogSvc [")); // nothing torn, nothing mixed
        }
    }
    EXPECT_EQ(lines, counts.messages);
    for (const auto& [who, times] : seen)
        EXPECT_TRUE(times == 1 || who.second == each + 1);
    // Every message was either written or found missing.
    EXPECT_EQ(seen.size() + counts.missing, senders * (each + 1));
    RecordProperty("missing", static_cast<int>(counts.missing));
}

TEST_F(Running, ReloadChangesRulesAndOutputs)
{
    start();
    Sender sender(service->endpoints().message);
    sender.send(someMessage("before", 1));
    EXPECT_TRUE(logHas("before"));
    Settings fresh = settings;
    fresh.outputs[0].path = folder.file("other");
    fresh.outputs[0].line.process = true;
    fresh.rules.push_back(Rule{"*", "*", "none", "none", {}, {}, {}});
    service->reload(fresh);
    EXPECT_TRUE(logHas("settings read again: 1 rules, 1 outputs {pid ", "other"));
    sender.send(someMessage("after", 2));
    EXPECT_TRUE(logHas("after {pid 812}", "other"));
    EXPECT_THAT(log(), Not(HasSubstr("after")));
}

TEST_F(Running, AReloadThatCannotOpenItsFileChangesNothing)
{
    start();
    Settings fresh = settings;
    fresh.outputs[0].path = folder.file("missing/log");
    EXPECT_THROW(service->reload(fresh), OutputError);
    Sender sender(service->endpoints().message);
    sender.send(someMessage("after"));
    EXPECT_TRUE(logHas("after"));
}

TEST_F(Running, ReloadOpensAFileThatWasMovedAwayAnew)
{
    start();
    Sender sender(service->endpoints().message);
    sender.send(someMessage("before", 1));
    EXPECT_TRUE(logHas("before"));
    std::filesystem::rename(folder.file("log"), folder.file("moved"));
    service->reload(settings);
    sender.send(someMessage("after", 2));
    EXPECT_TRUE(logHas("after"));
    EXPECT_THAT(log(), Not(HasSubstr("before")));
    EXPECT_THAT(log("moved"), Not(HasSubstr("after")));
}

TEST_F(Running, QuickReloadsAndRotationsLoseNothing)
{
    settings.outputs[0].rotateSize = 4096;
    settings.outputs[0].keep = 1000;
    start();
    Sender sender(service->endpoints().message);
    constexpr std::uint64_t count = 2000;
    for (std::uint64_t i = 1; i <= count; ++i) {
        sender.send(someMessage("number " + std::to_string(i) + " end", i));
        if (i % 10 == 0) {
            service->reload(settings);
            service->reload(settings);
            ASSERT_TRUE(eventually([&] { return service->counts().messages + service->counts().missing >= i; }));
        }
    }
    EXPECT_TRUE(service->stop(60000));
    std::string text = log();
    int files = 1;
    for (; std::filesystem::exists(folder.file("log." + std::to_string(files))); ++files)
        text.insert(0, log("log." + std::to_string(files)));
    EXPECT_GT(files, 20);
    std::uint64_t expected = 0;
    for (const std::string& line : zuTest::splitLines(text)) {
        if (line.find(" zuLogSvc [") != std::string::npos)
            continue;
        EXPECT_EQ(line, formatLine(someMessage("number " + std::to_string(++expected) + " end"), 0, {}));
    }
    EXPECT_EQ(expected, count);
}

TEST_F(Running, PortsCanBeGivenAndAPortInUseIsSaid)
{
    start();
    const auto port = zuPlatform::networkToHost16(service->endpoints().command.port);
    Settings second = settings;
    second.outputs.clear();
    second.messagePort = port;
    try {
        const Service other(second, systemClock(), [](const std::string&) {});
        FAIL() << "a port for two";
    } catch (const ServiceError& error) {
        EXPECT_THAT(error.what(),
                    HasSubstr("The message port " + std::to_string(port) + " cannot be had: Address already in use"));
    }
    EXPECT_TRUE(service->stop(60000));
    service.reset();
    settings.commandPort = port;
    start();
    EXPECT_EQ(zuPlatform::networkToHost16(service->endpoints().command.port), port);
}

/// An output that stands still until it is let go.
class StuckOutput : public zuTest::CapturingOutput {
public:
    struct Gate {
        std::mutex mutex;
        std::condition_variable changed;
        bool open = false;
        bool reached = false;
    };
    StuckOutput(Gate& gate, std::shared_ptr<zuTest::CapturingOutput> lines) : gate_(gate), lines_(std::move(lines)) {}
    void write(const LogMessage& message, std::uint64_t arrival) override
    {
        std::unique_lock lock(gate_.mutex);
        gate_.reached = true;
        gate_.changed.notify_all();
        gate_.changed.wait(lock, [&] { return gate_.open; });
        lines_->write(message, arrival);
    }

private:
    Gate& gate_;
    std::shared_ptr<zuTest::CapturingOutput> lines_;
};

TEST(MessageWriter, WhatASlowOutputHasNoRoomForIsRefusedCountedAndSaid)
{
    StuckOutput::Gate gate;
    const auto lines = std::make_shared<zuTest::CapturingOutput>();
    DatagramQueue queue(64 * 1024);
    Followers followers;
    Outputs outputs;
    outputs.push_back(std::make_unique<StuckOutput>(gate, lines));
    const auto socket = zuPlatform::DatagramSocket::open();
    ASSERT_NE(socket, nullptr);
    MessageWriter writer(queue, followers, socket, systemClock(), std::move(outputs), [](const std::string&) {});
    std::thread thread([&] { writer.run(); });
    const auto push = [&](std::uint64_t number) {
        const Packet packet = zuTest::datagramOf(someMessage("number " + std::to_string(number) + " end", number));
        return queue.push({QueuedDatagram::Kind::message, zuPlatform::loopbackAt(9), packet});
    };
    EXPECT_TRUE(push(1));
    {
        std::unique_lock lock(gate.mutex);
        ASSERT_TRUE(gate.changed.wait_for(lock, std::chrono::seconds(60), [&] { return gate.reached; }));
    }
    // The writer is held. Pushing goes on without waiting, and ends in refusals.
    std::uint64_t taken = 1, refused = 0;
    for (std::uint64_t number = 2; number <= 2000; ++number)
        (push(number) ? taken : refused) += 1;
    EXPECT_GT(taken, 100u);
    EXPECT_GT(refused, 100u);
    EXPECT_EQ(writer.counts().refused, refused);
    EXPECT_EQ(writer.counts().messages, 1u);
    {
        const std::lock_guard lock(gate.mutex);
        gate.open = true;
    }
    gate.changed.notify_all();
    queue.close();
    thread.join();
    EXPECT_EQ(writer.counts().messages, taken);
    EXPECT_TRUE(lines->has("zuLogSvc [warn] " + std::to_string(refused) + " datagrams not taken"));
    EXPECT_TRUE(lines->has("number " + std::to_string(taken) + " end"));
    EXPECT_EQ(lines->lines().size(), taken + 1);
}

/// Machine-wide names under a prefix of this test's own.
class Published : public Running {
protected:
    Published() { zuPlatform::setObjectNamePrefixForTesting(prefix); }
    ~Published() override
    {
        zuPlatform::SharedMemory::remove(connectionBlockName);
        zuPlatform::SharedMemory::remove(instanceMutexName);
        zuPlatform::setObjectNamePrefixForTesting("");
    }
    /// Where the system keeps the block.
    std::string blockFile() const { return "/dev/shm/" + prefix + "Global.zuLogSvcConnectionInfo"; }
    static Endpoints endpoints(std::uint16_t command, std::uint16_t message)
    {
        using zuPlatform::hostToNetwork16;
        return {zuPlatform::loopbackAt(hostToNetwork16(command)), zuPlatform::loopbackAt(hostToNetwork16(message))};
    }
    static std::unique_ptr<zuPlatform::SharedMemory> openBlock()
    {
        int error = 0;
        return zuPlatform::SharedMemory::open(connectionBlockName, zuPlatform::SharedMemory::Access::readOnly, error);
    }

    const std::string prefix = zuTest::uniquePrefix();
};

TEST_F(Published, TheBlockHasGoldenBytes)
{
    const ConnectionBlock block(endpoints(0x1234, 0x5678));
    const auto memory = openBlock();
    ASSERT_NE(memory, nullptr);
    EXPECT_EQ(memory->size(), 24u);
    const auto* view = static_cast<const std::uint8_t*>(memory->map(24));
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(Packet(view, view + 24),
              zuTest::bytes("ba ba ab ab 01 00 00 00 18 00 00 00 01 00 00 7f 34 12 01 00 00 7f 78 56"));
    EXPECT_EQ(readConnectionBlock(), endpoints(0x1234, 0x5678));
}

TEST_F(Published, TheBlockIsMarkedInvalidAndRemovedAtTheEnd)
{
    auto block = std::make_unique<ConnectionBlock>(endpoints(1, 2));
    const auto memory = openBlock();
    ASSERT_NE(memory, nullptr);
    const auto* view = static_cast<const std::uint8_t*>(memory->map(24));
    EXPECT_EQ(load32(view), 0xABABBABAu);
    block.reset();
    EXPECT_EQ(load32(view), 0u);
    EXPECT_EQ(openBlock(), nullptr);
    EXPECT_FALSE(readConnectionBlock());
}

TEST_F(Published, OthersCanOnlyReadTheBlock)
{
    const ConnectionBlock block(endpoints(1, 2));
    using std::filesystem::perms;
    EXPECT_EQ(std::filesystem::status(blockFile()).permissions(),
              perms::owner_read | perms::owner_write | perms::group_read | perms::others_read);
}

TEST_F(Published, ABlockThatWasCutShortIsLeftAtTheEnd)
{
    auto block = std::make_unique<ConnectionBlock>(endpoints(1, 2));
    std::filesystem::resize_file(blockFile(), 0);
    block.reset();
    EXPECT_EQ(openBlock(), nullptr);
}

TEST_F(Published, AWithdrawnBlockIsNotFoundAndStaysAwayFromTheNext)
{
    auto block = std::make_unique<ConnectionBlock>(endpoints(1, 2));
    block->withdraw();
    EXPECT_FALSE(readConnectionBlock());
    const ConnectionBlock next(endpoints(3, 4));
    block.reset();
    EXPECT_EQ(readConnectionBlock(), endpoints(3, 4));
}

TEST_F(Published, AnotherUsersBlockIsNotWrittenTo)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can become another user";
    // Left by root, and open to all, as a trap would be.
    int error = 0;
    const auto left = zuPlatform::SharedMemory::create(connectionBlockName, Block::bytes, error);
    ASSERT_NE(left, nullptr);
    EXPECT_EQ(zuTest::inChild([] {
                  if (::setuid(65534) != 0)
                      return 3;
                  try {
                      const ConnectionBlock block(endpoints(3, 4));
                  } catch (const PublicationError& refused) {
                      return std::strstr(refused.what(), "only that user and root can remove") != nullptr ? 0 : 2;
                  }
                  return 1;
              }),
              0);
    const auto* view = static_cast<const std::uint8_t*>(left->map(Block::bytes));
    EXPECT_EQ(Packet(view, view + Block::bytes), Packet(Block::bytes));
}

TEST_F(Published, AStaleBlockOfAnyKindIsTakenOver)
{
    for (const std::size_t size : {std::size_t{1}, std::size_t{24}, std::size_t{4096}}) {
        int error = 0;
        {
            const auto stale = zuPlatform::SharedMemory::create(connectionBlockName, size, error);
            ASSERT_NE(stale, nullptr);
            std::memset(stale->map(size), 0xEE, size);
        }
        const ConnectionBlock block(endpoints(3, 4));
        EXPECT_EQ(readConnectionBlock(), endpoints(3, 4));
    }
}

TEST_F(Published, BlocksThatAreNotValidAreNotRead)
{
    EXPECT_FALSE(readConnectionBlock());
    const char* blocks[] = {
        "00 00 00 00 01 00 00 00 18 00 00 00 01 00 00 7f 34 12 01 00 00 7f 78 56", // magic
        "ba ba ab ab 00 00 00 00 18 00 00 00 01 00 00 7f 34 12 01 00 00 7f 78 56", // version 0
        "ba ba ab ab 01 00 00 00 10 00 00 00 01 00 00 7f 34 12 01 00 00 7f 78 56", // size 16
        "ba ba ab ab 01 00 00 00 18 00 00 00 01 00 00 7f 34 12 01 00 00 7f 78",    // 23 bytes
    };
    for (const char* text : blocks) {
        const Packet data = zuTest::bytes(text);
        int error = 0;
        const auto memory = zuPlatform::SharedMemory::create(connectionBlockName, data.size(), error);
        ASSERT_NE(memory, nullptr);
        std::memcpy(memory->map(data.size()), data.data(), data.size());
        EXPECT_FALSE(readConnectionBlock()) << text;
        zuPlatform::SharedMemory::remove(connectionBlockName);
    }
}

TEST_F(Published, OnlyOneServiceAtATime)
{
    auto first = InstanceGuard::take();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(InstanceGuard::take(), nullptr);
    first.reset();
    EXPECT_NE(InstanceGuard::take(), nullptr);
}

class Viewers : public Published {
protected:
    void view(FollowOptions options = {})
    {
        viewing.emplace_back([this, options] {
            ends.push_back(follow(options, stop, output, systemClock(), [this](const std::string& text) {
                const std::lock_guard lock(mutex);
                told.push_back(text);
            }));
        });
    }
    void endViewing()
    {
        stop = true;
        for (std::thread& thread : viewing)
            thread.join();
        viewing.clear();
    }
    ~Viewers() override { endViewing(); }
    bool hasBeenTold(const std::string& part)
    {
        return eventually([&] {
            const std::lock_guard lock(mutex);
            return std::any_of(told.begin(), told.end(),
                               [&](const std::string& text) { return text.find(part) != std::string::npos; });
        });
    }
    /// Sends the message again and again, under new numbers, until the viewer shows it.
    bool shows(Sender& sender, LogMessage message)
    {
        return eventually([&] {
            message.sequence = ++number;
            sender.send(message);
            return output.has(message.text);
        });
    }

    std::atomic<bool> stop{false};
    zuTest::CapturingOutput output;
    std::vector<std::string> told;
    std::vector<FollowEnd> ends;
    std::vector<std::thread> viewing;
    std::uint64_t number = 0;
};

TEST_F(Viewers, WithoutAServiceAreToldSo)
{
    view();
    viewing[0].join();
    viewing.clear();
    EXPECT_THAT(ends, ::testing::ElementsAre(FollowEnd::notRunning));
}

TEST_F(Viewers, OfADeadServiceAreToldSo)
{
    const auto silent = zuPlatform::DatagramSocket::open();
    ASSERT_EQ(silent->bind(zuPlatform::loopbackAt(0)), 0);
    Endpoints where;
    silent->getLocalAddress(where.command);
    const ConnectionBlock block(where);
    view();
    viewing[0].join();
    viewing.clear();
    EXPECT_THAT(ends, ::testing::ElementsAre(FollowEnd::notRunning));
}

TEST_F(Viewers, SeeWhatTheirFilterLetsThrough)
{
    start();
    const ConnectionBlock block(service->endpoints());
    FollowOptions options;
    options.filter = {0x0F, {"Conn"}, {"IPConnection"}};
    view(options);
    Sender sender(service->endpoints().message);
    ASSERT_TRUE(shows(sender, someMessage("first")));
    LogMessage other = someMessage("other logger", ++number);
    other.logger = "GEVSVC.GVCP.0";
    sender.send(other);
    other = someMessage("other level", ++number);
    other.level = 0x20;
    sender.send(other);
    other = someMessage("other group", ++number);
    other.group = "BufferHandling";
    sender.send(other);
    ASSERT_TRUE(shows(sender, someMessage("last")));
    EXPECT_FALSE(output.has("other"));
    endViewing();
    EXPECT_THAT(ends, ::testing::ElementsAre(FollowEnd::stopped));
    EXPECT_THAT(output.lines(), Each(AllOf(HasSubstr("GEVSVC.Conn.0 [IPConnection|warn] "))));
}

TEST_F(Viewers, SeeTheServicesWarnings)
{
    start();
    const ConnectionBlock block(service->endpoints());
    FollowOptions options;
    options.filter = {0x01, {"Conn"}, {}};
    view(options);
    Sender sender(service->endpoints().message);
    LogMessage fatal = someMessage("seen");
    fatal.level = 1;
    ASSERT_TRUE(shows(sender, fatal));
    fatal.sequence = number + 5;
    sender.send(fatal);
    EXPECT_TRUE(eventually([&] { return output.has("are missing"); }));
}

TEST_F(Viewers, StayWhenTheServiceEndsAndGoOnWithTheNext)
{
    start();
    auto block = std::make_unique<ConnectionBlock>(service->endpoints());
    view();
    {
        Sender sender(service->endpoints().message);
        ASSERT_TRUE(shows(sender, someMessage("from the first")));
    }
    block.reset();
    EXPECT_TRUE(service->stop(60000));
    EXPECT_TRUE(hasBeenTold("The log service has ended; waiting for the next one."));
    EXPECT_TRUE(output.has("log service ends"));
    service.reset();
    start();
    block = std::make_unique<ConnectionBlock>(service->endpoints());
    EXPECT_TRUE(hasBeenTold("Following the log service."));
    Sender sender(service->endpoints().message);
    EXPECT_TRUE(shows(sender, someMessage("from the second")));
    endViewing();
    block.reset();
    EXPECT_THAT(ends, ::testing::ElementsAre(FollowEnd::stopped));
}

TEST_F(Viewers, WaitForAServiceIfAsked)
{
    FollowOptions options;
    options.wait = true;
    view(options);
    EXPECT_TRUE(hasBeenTold("No log service is running; waiting for one."));
    start();
    const ConnectionBlock block(service->endpoints());
    Sender sender(service->endpoints().message);
    EXPECT_TRUE(shows(sender, someMessage("at last")));
    endViewing();
}

TEST_F(Viewers, AreSentAwayWhenTheSettingsChangeToThat)
{
    start();
    const ConnectionBlock block(service->endpoints());
    view();
    Sender sender(service->endpoints().message);
    ASSERT_TRUE(shows(sender, someMessage("seen")));
    settings.follow = false;
    service->reload(settings);
    viewing[0].join();
    viewing.clear();
    EXPECT_THAT(ends, ::testing::ElementsAre(FollowEnd::refused));
}

TEST_F(Viewers, AreRefusedWhereTheSettingsSaySo)
{
    settings.follow = false;
    start();
    const ConnectionBlock block(service->endpoints());
    view();
    viewing[0].join();
    viewing.clear();
    EXPECT_THAT(ends, ::testing::ElementsAre(FollowEnd::refused));
    EXPECT_THAT(told, Contains(HasSubstr("its settings do not let viewers follow")));
}

} // namespace
