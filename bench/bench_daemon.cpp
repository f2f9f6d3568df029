// Measures the running daemon against bare processes in the same run. Prints one table for each section.
#include "bench/bare.h"
#include "bench/measure.h"
#include "bench/raw_pipe.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

#include <boost/program_options.hpp>

namespace {

using namespace zuBench;

constexpr std::uint32_t registerAddress = 0x0A00;

struct Options {
    std::string daemon;
    std::string sections = "access,memory,clients,connect,footprint,idle";
    unsigned batches = 20;
    unsigned batchSize = 1000;
    double seconds = 10;
    bool pinned = true;
    bool free = true;
};

/// A camera, a relay or a daemon on a port of its own, in a process of its own.
struct Server {
    explicit Server(const std::function<void(Udp&)>& body) : socket(std::make_unique<Udp>())
    {
        port = socket->port();
        process.emplace([&] { body(*socket); });
        socket.reset();
    }
    std::unique_ptr<Udp> socket;
    std::uint16_t port = 0;
    std::optional<Part> process;
};

void access(const Options& options)
{
    Server camera([](Udp& socket) { runCamera(socket); });
    const std::uint16_t cameraPort = camera.port;
    Server relay([cameraPort](Udp& socket) { runRelay(socket, cameraPort); });
    const MeasuredDaemon daemon(options.daemon);
    Part client([&] {
        Udp socket;
        RawPipe pipe(daemonPort());
        pipe.link(cameraPort);
        Latencies one, two, through;
        for (unsigned batch = 0; batch < options.batches; ++batch) {
            one.take(options.batchSize, [&] { directReadReg(socket, camera.port, registerAddress); });
            two.take(options.batchSize, [&] { directReadReg(socket, relay.port, registerAddress); });
            through.take(options.batchSize, [&] { pipe.readReg(registerAddress); });
        }
        std::printf("%-22s %10s %10s\n", "one register read", "p50 us", "p99 us");
        std::printf("%-22s %10.1f %10.1f\n", "one hop", one.percentile(0.5), one.percentile(0.99));
        std::printf("%-22s %10.1f %10.1f\n", "two hops (the floor)", two.percentile(0.5), two.percentile(0.99));
        std::printf("%-22s %10.1f %10.1f\n", "through the daemon", through.percentile(0.5), through.percentile(0.99));
        std::printf("%-22s %10.2f %10.2f   (targets 1.4 and 2)\n", "daemon / floor",
                    through.percentile(0.5) / two.percentile(0.5), through.percentile(0.99) / two.percentile(0.99));
        pipe.disconnect();
    });
    client.wait();
}

void memory(const Options& options)
{
    constexpr std::uint32_t total = 1024 * 1024;
    constexpr std::uint32_t perCommand = 1728; // three of the daemon's steps of 576 bytes, 512 and 64 each
    Server camera([](Udp& socket) { runCamera(socket); });
    const MeasuredDaemon daemon(options.daemon);
    Part client([&] {
        Udp socket;
        RawPipe pipe(daemonPort());
        pipe.link(camera.port);
        double direct = 0;
        double through = 0;
        const unsigned rounds = 5;
        for (unsigned round = 0; round < rounds; ++round) {
            double start = nowSeconds();
            for (std::uint32_t at = 0; at < total; at += 576) {
                directReadMem(socket, camera.port, at, 512);
                directReadMem(socket, camera.port, at + 512, 64);
            }
            direct += nowSeconds() - start;
            start = nowSeconds();
            for (std::uint32_t at = 0; at < total; at += perCommand)
                pipe.readMem(at, perCommand);
            through += nowSeconds() - start;
        }
        std::printf("%-22s %10.2f MiB/s\n", "1 MiB directly", rounds / direct);
        std::printf("%-22s %10.2f MiB/s\n", "1 MiB by CmdReadMem", rounds / through);
        std::printf("%-22s %10.2f   (target at least 0.6)\n", "daemon / direct", direct / through);
        pipe.disconnect();
    });
    client.wait();
}

/// Reads per second of each of `count` clients in one window.
struct Window {
    std::atomic<bool> go;
    std::atomic<bool> stop;
    std::atomic<unsigned> ready;
    std::atomic<std::uint64_t> reads[64];
};

std::vector<double> measure(Window& window, unsigned count, double seconds,
                            const std::function<void(unsigned, const std::function<bool()>&)>& body)
{
    window.go = false;
    window.stop = false;
    window.ready = 0;
    std::vector<std::unique_ptr<Part>> clients;
    for (unsigned i = 0; i < count; ++i) {
        window.reads[i] = 0;
        clients.push_back(std::make_unique<Part>([&, i] {
            bool waited = false;
            body(i, [&] {
                if (!waited) {
                    waited = true;
                    ++window.ready;
                    while (!window.go)
                        ::usleep(500);
                } else {
                    window.reads[i].fetch_add(1, std::memory_order_relaxed);
                }
                return !window.stop;
            });
        }));
    }
    while (window.ready < count)
        ::usleep(500);
    window.go = true;
    ::usleep(static_cast<useconds_t>(seconds * 1e6));
    window.stop = true;
    std::vector<double> rates;
    for (unsigned i = 0; i < count; ++i)
        rates.push_back(static_cast<double>(window.reads[i]) / seconds);
    for (const auto& client : clients)
        client->wait();
    return rates;
}

double sum(const std::vector<double>& rates)
{
    double total = 0;
    for (const double rate : rates)
        total += rate;
    return total;
}

void clients(const Options& options)
{
    auto& window = *new (sharedMemory(sizeof(Window))) Window;
    std::printf("%-10s %14s %14s %8s %22s\n", "clients", "relays reads/s", "daemon reads/s", "ratio",
                "slowest / mean client");
    for (const unsigned count : {1u, 2u, 4u, 8u, 16u}) {
        std::vector<std::unique_ptr<Server>> cameras, relays;
        for (unsigned i = 0; i < count; ++i) {
            cameras.push_back(std::make_unique<Server>([](Udp& socket) { runCamera(socket); }));
            const std::uint16_t port = cameras.back()->port;
            relays.push_back(std::make_unique<Server>([port](Udp& socket) { runRelay(socket, port); }));
        }
        const MeasuredDaemon daemon(options.daemon);
        const double seconds = 1.0;
        double floor = 0;
        double through = 0;
        double fairness = 1;
        for (unsigned round = 0; round < 3; ++round) {
            floor += sum(measure(window, count, seconds, [&](unsigned i, const std::function<bool()>& next) {
                Udp socket;
                while (next())
                    directReadReg(socket, relays[i]->port, registerAddress);
            }));
            const auto rates = measure(window, count, seconds, [&](unsigned i, const std::function<bool()>& next) {
                RawPipe pipe(daemonPort());
                pipe.link(cameras[i]->port);
                while (next())
                    pipe.readReg(registerAddress);
                pipe.disconnect();
            });
            through += sum(rates);
            fairness = std::min(fairness, *std::min_element(rates.begin(), rates.end()) * count / sum(rates));
        }
        std::printf("%-10u %14.0f %14.0f %8.2f %22.2f   (target at least 0.75)\n", count, floor / 3, through / 3,
                    through / floor, fairness);
    }
}

void connectTime(const Options& options)
{
    Server echo([](Udp& socket) { runPipeEcho(socket); });
    const MeasuredDaemon daemon(options.daemon);
    Part client([&] {
        Latencies floor, through;
        const auto connectAndAsk = [](std::uint16_t port, Latencies& latencies) {
            const double start = nowSeconds();
            RawPipe pipe(port);
            RawPipe::Message message;
            message.SetCommand(zuIPCPipe::CmdGetRetries);
            pipe.exchange(message);
            latencies.add((nowSeconds() - start) * 1e6);
            pipe.disconnect();
        };
        for (unsigned batch = 0; batch < options.batches; ++batch)
            for (unsigned i = 0; i < 50; ++i) {
                connectAndAsk(echo.port, floor);
                connectAndAsk(daemonPort(), through);
            }
        std::printf("%-34s %10s\n", "announce to the first reply", "p50 us");
        std::printf("%-34s %10.1f\n", "same datagrams, echoed", floor.percentile(0.5));
        std::printf("%-34s %10.1f\n", "daemon", through.percentile(0.5));
        std::printf("%-34s %10.2f   (target under 2)\n", "daemon / floor",
                    through.percentile(0.5) / floor.percentile(0.5));
    });
    client.wait();
}

void footprint(const Options& options)
{
    Server camera([](Udp& socket) { runCamera(socket); });
    const MeasuredDaemon daemon(options.daemon);
    std::vector<std::unique_ptr<RawPipe>> pipes;
    const auto connect = [&](unsigned count, bool linked) {
        for (unsigned i = 0; i < count; ++i) {
            pipes.push_back(std::make_unique<RawPipe>(daemonPort()));
            if (linked)
                pipes.back()->link(camera.port);
        }
    };
    const auto leave = [&] {
        for (auto& pipe : pipes)
            pipe->disconnect();
        pipes.clear();
    };
    connect(2, true); // what the first ones bring once and for all
    leave();
    connect(1, false);
    const long before = daemon.residentKiB();
    connect(50, true);
    const long with = daemon.residentKiB();
    std::printf("%-44s %8.1f KiB   (target at most 100)\n", "resident memory for each linked client",
                static_cast<double>(with - before) / 50);
    leave();
    connect(1, false);
    leave();
    connect(1, false);
    const long settled = daemon.residentKiB();
    for (unsigned i = 0; i < 10000; ++i) {
        RawPipe pipe(daemonPort());
        pipe.disconnect();
    }
    leave();
    connect(1, false);
    std::printf("%-44s %8ld KiB   (before: %ld KiB)\n", "resident after 10000 connects", daemon.residentKiB(), settled);
    std::printf("%-44s %8zu\n", "threads with one client left", daemon.threads());
    leave();

    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    connect(400, true);
    pipes.back()->readReg(registerAddress);
    std::printf("%-44s %8s   (400 linked clients, the last one reads)\n", "descriptors beyond 1024", "work");
    leave();
}

void idle(const Options& options)
{
    Server camera([](Udp& socket) { runCamera(socket); });
    const MeasuredDaemon daemon(options.daemon);
    std::vector<std::unique_ptr<RawPipe>> pipes;
    for (unsigned i = 0; i < 50; ++i) {
        pipes.push_back(std::make_unique<RawPipe>(daemonPort()));
        pipes.back()->link(camera.port);
    }
    ::usleep(3500000); // the first wait of a heartbeat is 3000 ms
    const double cpu = daemon.cpuSeconds();
    const double start = nowSeconds();
    ::usleep(static_cast<useconds_t>(options.seconds * 1e6));
    const double share = (daemon.cpuSeconds() - cpu) / (nowSeconds() - start);
    std::printf("%-44s %8.2f %% of a core   (target under 1.5)\n", "50 linked clients, idle", share * 100);
    for (auto& pipe : pipes)
        pipe->disconnect();
}

} // namespace

int main(int argc, char** argv)
{
    namespace po = boost::program_options;
    Options options;
    options.daemon = zuTest::builtProgram("zuGevSvc");
    std::string affinity = "both";
    po::options_description description("Measures the daemon against bare processes in the same run");
    description.add_options()("help,h", "print this")("daemon",
                                                      po::value(&options.daemon)->default_value(options.daemon),
                                                      "the daemon's program; none may be running")(
        "sections", po::value(&options.sections)->default_value(options.sections), "what to measure")(
        "batches", po::value(&options.batches)->default_value(options.batches), "alternating batches")(
        "batch-size", po::value(&options.batchSize)->default_value(options.batchSize), "accesses of a batch")(
        "idle-seconds", po::value(&options.seconds)->default_value(options.seconds),
        "how long to watch an idle daemon")("affinity", po::value(&affinity)->default_value(affinity),
                                            "pinned, free or both");
    po::variables_map chosen;
    try {
        po::store(po::parse_command_line(argc, argv, description), chosen);
        po::notify(chosen);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "bench_daemon: %s\n", failure.what());
        return 2;
    }
    if (chosen.count("help") != 0) {
        std::printf("usage: bench_daemon [options]\n");
        for (const auto& option : description.options())
            std::printf("  --%-20s %s\n", option->long_name().c_str(), option->description().c_str());
        return 0;
    }
    const std::pair<const char*, void (*)(const Options&)> sections[] = {
        {"access", access},       {"memory", memory},       {"clients", clients},
        {"connect", connectTime}, {"footprint", footprint}, {"idle", idle}};
    try {
        for (const bool pinned : {true, false}) {
            if (affinity == (pinned ? "free" : "pinned"))
                continue;
            pinToOneProcessor(pinned);
            std::printf("\n######## %s\n", pinned ? "all processes on one processor" : "as the scheduler likes it");
            for (const auto& [name, run] : sections)
                if (("," + options.sections + ",").find(std::string(",") + name + ",") != std::string::npos) {
                    std::printf("\n--- %s\n", name);
                    run(options);
                }
        }
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "bench_daemon: %s\n", failure.what());
        return 1;
    }
    return 0;
}
