// Three things that happen at once in a plant: commands and the heartbeat, a client that goes with a command in flight,
// and the daemon's stop in the middle of everything.
#include "client/GevClient.h"
#include "daemon_under_test.h"
#include "tools/gevsim/camera.h"

#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <thread>

using namespace zuTest;
using namespace zuGevClient;
using gevsim::Command;
using gevsim::Fault;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

zuGevClient::Endpoint at(const gevsim::Camera& camera) { return {camera.ip(), camera.port()}; }

/// A thread that does its work again and again until it fails or is stopped.
class Worker {
public:
    template <typename TWork>
    explicit Worker(TWork work)
        : thread_([this, work]() mutable {
              try {
                  while (!stop_) {
                      work();
                      ++rounds_;
                  }
              } catch (const std::exception&) {
                  failed_ = true;
              }
          })
    {
    }
    ~Worker()
    {
        stop_ = true;
        thread_.join();
    }
    std::uint64_t rounds() const { return rounds_; }
    bool failed() const { return failed_; }

private:
    std::atomic<bool> stop_{false}, failed_{false};
    std::atomic<std::uint64_t> rounds_{0};
    std::thread thread_;
};

} // namespace

TEST(Races, CommandsAndTheHeartbeatNeverMeetOnTheWire)
{
    DaemonUnderTest daemon;
    gevsim::Camera camera{"127.0.17.5", 0};
    Connection connection;
    connection.setAckTimeout(milliseconds(100));
    connection.setDestination(at(camera));
    ASSERT_TRUE(connection.link(LinkMode::control()));
    connection.setHeartbeat(milliseconds(500));
    camera.clearLog();
    // Pauses around the heartbeat's period of 100 ms, so that both want the wire at the same moment.
    const auto heartbeats = [&] { return camera.commands(Command::readReg, gevsim::reg::ccp).size(); };
    for (int round = 0; heartbeats() < 20 && round < 400; ++round) {
        ASSERT_TRUE(camera.waitFor([&, before = heartbeats()] { return heartbeats() > before; }, seconds(20)));
        EXPECT_EQ(connection.readRegister(gevsim::reg::heartbeatTimeout), 500u);
    }
    std::optional<std::uint16_t> previous;
    std::size_t open = 0;
    for (const auto& datagram : camera.log()) {
        if (datagram.direction == gevsim::Datagram::Direction::received) {
            EXPECT_EQ(open++, 0u) << "a command before the answer to the last: " << datagram.text();
            if (previous) {
                EXPECT_EQ(datagram.id(), static_cast<std::uint16_t>(*previous + 1)) << datagram.text();
            }
            previous = datagram.id();
        } else {
            --open;
        }
    }
}

TEST(Races, ClientKilledWithACommandInFlight)
{
    DaemonUnderTest daemon;
    gevsim::Camera camera{"127.0.17.6", 0};
    ChildProcess client(
        {builtProgram("e2e_client"), std::to_string(camera.ip()), std::to_string(camera.port()), "read"});
    ASSERT_TRUE(client.waitForOutput("linked"));
    camera.clearLog();
    camera.inject(Fault::hold(1).only(Command::readReg));
    client.write("\n");
    ASSERT_TRUE(camera.waitFor([&] { return camera.heldAnswers() == 1; }));
    client.signal(SIGKILL);
    client.wait();
    ASSERT_TRUE(camera.waitForWrite(gevsim::reg::ccp));
    EXPECT_EQ(camera.writesTo(gevsim::reg::ccp).back(), 0u);
    camera.release();
    Connection next;
    next.setDestination(at(camera));
    EXPECT_TRUE(next.link(LinkMode::control()));
}

TEST(Races, ClientLeavesWithACommandInFlight)
{
    DaemonUnderTest daemon;
    gevsim::Camera camera{"127.0.17.7", 0};
    gevsim::Camera other{"127.0.17.8", 0};
    Connection witness;
    witness.setDestination(at(other));
    for (int round = 0; round < 10; ++round) {
        auto leaving = std::make_unique<Connection>();
        leaving->setAckTimeout(milliseconds(50));
        leaving->setDestination(at(camera));
        ASSERT_TRUE(leaving->link(LinkMode::control()));
        camera.inject(Fault::hold(1).only(Command::readReg));
        std::thread reader([&] {
            try {
                leaving->readRegister(gevsim::reg::version);
            } catch (const Error&) {
                // The answer came late, or the connection was closed: either may win.
            }
        });
        ASSERT_TRUE(camera.waitFor([&] { return camera.heldAnswers() == 1; }));
        leaving->close();
        camera.release();
        reader.join();
        EXPECT_EQ(witness.readRegister(gevsim::reg::heartbeatTimeout), 3000u);
    }
}

TEST(Races, StopInTheMiddleOfEverything)
{
    for (int round = 0; round < 2; ++round) {
        DaemonUnderTest daemon;
        gevsim::Camera busy{"127.0.17.9", 0};
        gevsim::Camera waiting{"127.0.17.10", 0};
        gevsim::Camera silent{"127.0.17.11", 0};
        std::vector<std::unique_ptr<Connection>> connections;
        const auto linked = [&](const gevsim::Camera& camera) -> Connection& {
            connections.push_back(std::make_unique<Connection>());
            connections.back()->setDestination(at(camera));
            EXPECT_TRUE(connections.back()->link(LinkMode::control()));
            return *connections.back();
        };
        Connection& reading = linked(busy);
        Connection& pending = linked(waiting);
        Connection& lost = linked(silent);
        silent.silence(milliseconds::max());
        waiting.inject(Fault::pendingAck(milliseconds(300), 5, 1000));
        {
            std::vector<std::uint8_t> data(5000, 1);
            Worker registers([&] { reading.readRegister(gevsim::reg::version); });
            Worker memory([&] { reading.writeMemory(gevsim::region::memory, data.data(), data.size()); });
            Worker delayed([&] { pending.readRegister(gevsim::reg::version); });
            Worker hopeless([&] { lost.readRegister(gevsim::reg::version); });
            Worker newcomers([&] { Connection().retries(); });
            ASSERT_TRUE(waiting.waitForReceived(Command::readReg, 2));
            ASSERT_TRUE(busy.waitForReceived(Command::writeMem, 50));
            daemon.process.signal(SIGTERM);
            const auto end = daemon.process.wait(seconds(60));
            EXPECT_TRUE(end.exited) << "ended by signal " << end.status;
            EXPECT_EQ(end.status, 0);
        }
        EXPECT_FALSE(busy.control().held());
    }
}
