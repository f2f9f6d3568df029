// Runs the daemon for as long as one likes, with client processes that come, go and are killed, and cameras on which
// everything goes wrong, and tells what should not have happened. Not among the tests: chance decides what it meets.
#include "client/GevClient.h"
#include "tests/soak/worker.h"
#include "tests/support/child_process.h"
#include "tools/gevsim/camera.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <list>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <boost/program_options.hpp>

namespace {

using namespace std::chrono_literals;
using zuTest::ChildProcess;
using Clock = std::chrono::steady_clock;

constexpr std::uint32_t firstCamera = 0x7F003201; // 127.0.50.1
constexpr unsigned disturbedCameras = 6;
constexpr unsigned faithfulCameras = 2; ///< of these lose, repeat and fall silent, but say nothing false
constexpr unsigned mostWorkers = 10;

// %u is a count from 1 to 4.
constexpr const char* faithfulFaults[] = {
    "drop %u",     "drop-ack %u",  "delay 30 %u", "duplicate %u", "reorder %u wait=50",
    "silence 700", "silence 2500", "loss 10",     "loss 0",       "clear",
};
constexpr const char* otherFaults[] = {
    "status busy %u",
    "denied %u",
    "wrong-id %u",
    "even %u",
    "foreign %u",
    "pending 60 %u",
    "pending 200 times=3 every=50 %u",
    "pending 100 form=truncated %u",
    "pending 80 answer=no %u",
    "truncate 3 %u readmem",
    "short 4 %u readmem",
    "long 8 %u readmem",
    "raw 0000008000000000 %u",
    "power-cycle 200",
};

std::atomic<bool> stopAsked{false};
std::atomic<unsigned> complaints{0};

void complain(const std::string& what)
{
    ++complaints;
    std::fprintf(stderr, "soak: %s\n", what.c_str());
}

class Chance {
public:
    explicit Chance(unsigned seed) : engine_(seed) {}
    unsigned below(unsigned limit) { return std::uniform_int_distribution<unsigned>(0, limit - 1)(engine_); }
    unsigned seed() { return static_cast<unsigned>(engine_()); }

private:
    std::mt19937 engine_;
};

class Cameras {
public:
    explicit Cameras(unsigned seed)
    {
        for (unsigned i = 0; i <= disturbedCameras; ++i) {
            gevsim::Config config;
            config.endpoint = {firstCamera + i, gevsim::gvcpPort};
            config.recording = false;
            config.seed = seed + i;
            cameras_.push_back(std::make_unique<gevsim::Camera>(config));
        }
    }

    void disturbOne(Chance& chance)
    {
        const unsigned index = chance.below(disturbedCameras);
        const unsigned kinds = std::size(faithfulFaults) + (index < faithfulCameras ? 0 : std::size(otherFaults));
        const unsigned kind = chance.below(kinds);
        std::string line =
            kind < std::size(faithfulFaults) ? faithfulFaults[kind] : otherFaults[kind - std::size(faithfulFaults)];
        if (const auto at = line.find("%u"); at != std::string::npos)
            line.replace(at, 2, std::to_string(1 + chance.below(4)));
        cameras_[index]->execute(line);
    }

    void calm()
    {
        for (const auto& camera : cameras_)
            camera->clearFaults();
    }

    void expectFree() const
    {
        for (unsigned i = 0; i < disturbedCameras; ++i)
            if (!cameras_[i]->waitFor([&] { return cameras_[i]->readRegister(gevsim::reg::ccp) == 0; }))
                complain("camera " + std::to_string(i) + " is still held after its last client");
    }

    /// The one that nothing happens to.
    zuGevClient::Endpoint quiet() const { return {cameras_.back()->ip(), cameras_.back()->port()}; }

private:
    std::vector<std::unique_ptr<gevsim::Camera>> cameras_;
};

/// Client processes. Half of them are killed.
class Workers {
public:
    explicit Workers(std::string program) : program_(std::move(program))
    {
        for (unsigned area = 0; area < mostWorkers; ++area)
            freeAreas_.insert(area);
    }

    void startOne(Chance& chance)
    {
        if (freeAreas_.empty())
            return;
        const unsigned area = *freeAreas_.begin();
        freeAreas_.erase(freeAreas_.begin());
        const unsigned camera = chance.below(disturbedCameras);
        const std::vector<std::string> command{program_,
                                               "--worker",
                                               std::to_string(chance.seed()),
                                               std::to_string(firstCamera + camera),
                                               std::to_string(area),
                                               camera < faithfulCameras ? "1" : "0"};
        const auto killAt = chance.below(2) == 0 ? Clock::time_point::max()
                                                 : Clock::now() + std::chrono::milliseconds(20 + chance.below(3000));
        workers_.push_back({std::make_unique<ChildProcess>(command), area, killAt});
        ++started;
    }

    void reap()
    {
        for (auto worker = workers_.begin(); worker != workers_.end();) {
            const ChildProcess::End end = worker->process->wait(0ms);
            if (end.exited || end.status != 0) {
                if (end.exited ? end.status != 0 : end.status != SIGKILL)
                    complain("a client ended with " + std::to_string(end.status) + ": " + worker->process->output());
                freeAreas_.insert(worker->area);
                worker = workers_.erase(worker);
                continue;
            }
            if (Clock::now() >= worker->killAt) {
                worker->process->signal(SIGKILL);
                worker->killAt = Clock::time_point::max();
                ++killed;
            }
            ++worker;
        }
    }

    void awaitEnd()
    {
        const auto deadline = Clock::now() + 2min;
        while (!workers_.empty() && Clock::now() < deadline) {
            reap();
            std::this_thread::sleep_for(10ms);
        }
        if (!workers_.empty())
            complain(std::to_string(workers_.size()) + " clients do not end");
    }

    unsigned started = 0;
    unsigned killed = 0;

private:
    struct Worker {
        std::unique_ptr<ChildProcess> process;
        unsigned area;
        Clock::time_point killAt;
    };

    std::string program_;
    std::list<Worker> workers_;
    std::set<unsigned> freeAreas_;
};

/// A client whose camera works: nothing that happens to others may reach it.
class Witness {
public:
    explicit Witness(const zuGevClient::Endpoint& camera)
    {
        connection_.setEventHandler([](zuGevClient::Event event) {
            complain(std::string("the undisturbed client was told: ") + toString(event));
        });
        connection_.setDestination(camera);
        connection_.link(zuGevClient::LinkMode::control());
        thread_ = std::thread([this] { watch(); });
    }
    ~Witness()
    {
        ended_ = true;
        thread_.join();
    }
    Witness(const Witness&) = delete;
    Witness& operator=(const Witness&) = delete;

    unsigned long reads() const { return reads_; }
    long slowestUs() const { return slowestUs_; }

private:
    void watch()
    {
        try {
            while (!ended_) {
                const auto start = Clock::now();
                connection_.readRegister(gevsim::reg::heartbeatTimeout);
                const long us = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
                slowestUs_ = std::max(slowestUs_.load(), us);
                ++reads_;
                std::this_thread::sleep_for(5ms);
            }
        } catch (const std::exception& failure) {
            complain(std::string("the undisturbed client failed: ") + failure.what());
        }
    }

    zuGevClient::Connection connection_;
    std::atomic<bool> ended_{false};
    std::atomic<unsigned long> reads_{0};
    std::atomic<long> slowestUs_{0};
    std::thread thread_;
};

void report(const char* when, int daemon, const Workers& workers, const Witness& witness)
{
    namespace fs = std::filesystem;
    const auto descriptors = std::distance(fs::directory_iterator("/proc/" + std::to_string(daemon) + "/fd"), {});
    std::printf("%s: %u clients, %u of them killed; daemon: %td descriptors, %s threads, %s KiB; "
                "undisturbed client: %lu reads, slowest %.1f ms; %u complaints\n",
                when, workers.started, workers.killed, descriptors, zuTest::statusField(daemon, "Threads").c_str(),
                zuTest::statusField(daemon, "VmRSS").c_str(), witness.reads(),
                static_cast<double>(witness.slowestUs()) / 1000, complaints.load());
    std::fflush(stdout);
}

void soak(double seconds, unsigned seed, const std::string& daemonProgram)
{
    Chance chance(seed);
    ChildProcess daemon({daemonProgram, "--execute"});
    if (!daemon.waitForOutput("BuildDate"))
        throw std::runtime_error("the daemon did not start: " + daemon.output());
    daemon.write("s"); // answered once the pipe is up
    if (!daemon.waitForOutput("Instances: 0"))
        throw std::runtime_error("is another daemon running on this machine? This one said: " + daemon.output());

    Cameras cameras(seed);
    Workers workers(zuTest::builtProgram("soak"));
    {
        Witness witness(cameras.quiet());
        report("at the start", daemon.pid(), workers, witness);
        const auto end =
            Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
        auto nextFault = Clock::now();
        auto nextReport = Clock::now() + 1min;
        bool alive = true;
        while (alive && !stopAsked && Clock::now() < end) {
            workers.reap();
            if (chance.below(3) == 0)
                workers.startOne(chance);
            if (Clock::now() >= nextFault) {
                nextFault = Clock::now() + std::chrono::milliseconds(50 + chance.below(200));
                cameras.disturbOne(chance);
            }
            if (Clock::now() >= nextReport) {
                nextReport += 1min;
                report("meanwhile", daemon.pid(), workers, witness);
            }
            std::this_thread::sleep_for(20ms);
            const ChildProcess::End found = daemon.wait(0ms);
            alive = !found.exited && found.status == 0;
        }
        if (!alive)
            throw std::runtime_error("the daemon has ended: " + daemon.output());
        cameras.calm();
        workers.awaitEnd();
        cameras.expectFree();
        report("in the end", daemon.pid(), workers, witness);
    }
    daemon.signal(SIGTERM);
    const ChildProcess::End end = daemon.wait(90s);
    if (!end.exited || end.status != 0)
        complain("the daemon did not end well: " + daemon.output());
    const std::string output = daemon.output();
    if (output.find("Sanitizer") != std::string::npos || output.find("runtime error") != std::string::npos)
        complain(output);
}

void askToStop(int) { stopAsked = true; }

} // namespace

int main(int argc, char** argv)
{
    namespace po = boost::program_options;
    if (argc == 6 && std::string(argv[1]) == "--worker") {
        const auto number = [&](int i) { return static_cast<std::uint32_t>(std::stoul(argv[i])); };
        const std::string failure = zuSoak::work({number(2), number(3), number(4), number(5) != 0});
        if (!failure.empty())
            std::fprintf(stderr, "%s\n", failure.c_str());
        return failure.empty() ? 0 : 1;
    }
    double seconds = 600;
    unsigned seed = std::random_device()();
    std::string daemon = zuTest::builtProgram("zuGevSvc");
    po::options_description description("Runs the daemon under clients and cameras that misbehave.\n"
                                        "SIGTERM ends it early, Ctrl-C without a verdict.\n"
                                        "Exit status: 0 nothing to complain of, 1 complaints, 2 usage.\nOptions");
    auto add = description.add_options();
    add("help,h", "print this");
    add("seconds", po::value(&seconds)->default_value(seconds), "how long");
    add("seed", po::value(&seed), "of the order of events; another one at each run");
    add("daemon", po::value(&daemon), "the daemon's program, beside this one; none may be running");
    try {
        po::variables_map chosen;
        po::store(po::parse_command_line(argc, argv, description), chosen);
        po::notify(chosen);
        if (chosen.count("help") != 0) {
            std::ostringstream text;
            text << description;
            std::printf("%s", text.str().c_str());
            return 0;
        }
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "soak: %s\n", failure.what());
        return 2;
    }
    // Ctrl-C goes to the daemon and the clients as well, so there is nothing left to judge.
    std::signal(SIGTERM, askToStop);
    std::printf("seed %u, %.0f seconds\n", seed, seconds);
    try {
        soak(seconds, seed, daemon);
    } catch (const std::exception& failure) {
        complain(failure.what());
    }
    return complaints == 0 ? 0 : 1;
}
