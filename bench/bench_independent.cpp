// Measures the daemon against an independent GigE Vision library, both reading from that library's simulated camera.
// The library reaches the camera in one hop, the daemon's client in two.
#include "bench/bare.h"
#include "bench/measure.h"
#include "bench/own_network.h"
#include "bench/raw_pipe.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <unistd.h>

#include <arv.h>

#include <boost/program_options.hpp>

namespace {

using namespace zuBench;

constexpr std::uint16_t gvcpPort = 3956;
constexpr std::uint32_t registerAddress = 0x0938; // Heartbeat timeout register
constexpr std::uint32_t registerValue = 3000;
constexpr unsigned warmUp = 50; // accesses of each batch that don't count

struct Options {
    std::string daemon = zuTest::builtProgram("zuGevSvc");
    std::string camera = "arv-fake-gv-camera-0.8";
    unsigned batches = 20;
    unsigned batchSize = 1000;
};

[[noreturn]] void fail(const char* what, GError* error)
{
    const std::string reason = error != nullptr ? error->message : "wrong value";
    g_clear_error(&error);
    throw std::runtime_error(std::string("the library can't ") + what + ": " + reason);
}

/// The camera, opened by the library with control and with its heartbeat running. No discovery: the addresses are
/// given.
class Library {
public:
    Library()
    {
        GInetAddress* const address = g_inet_address_new_from_string("127.0.0.1");
        GError* error = nullptr;
        device_ = arv_gv_device_new(address, address, &error);
        g_object_unref(address);
        if (device_ == nullptr)
            fail("open the camera", error);
        if (!arv_gv_device_is_controller(ARV_GV_DEVICE(device_))) {
            g_object_unref(device_);
            fail("take control", nullptr);
        }
    }
    ~Library() { g_object_unref(device_); }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    void readReg()
    {
        guint32 value = 0;
        GError* error = nullptr;
        if (!arv_device_read_register(device_, registerAddress, &value, &error) || value != registerValue)
            fail("read", error);
    }

private:
    ArvDevice* device_ = nullptr;
};

/// The camera says nothing when it is up: its first answer tells.
void waitForCamera(const std::string& program)
{
    const double deadline = nowSeconds() + 10;
    for (;;) {
        Udp socket;
        socket.receiveWithin(100);
        try {
            directReadReg(socket, gvcpPort, registerAddress);
            return;
        } catch (const std::exception&) {
            if (nowSeconds() > deadline)
                throw std::runtime_error(program + " doesn't answer; is it installed (aravis-tools)?");
        }
    }
}

void print(const char* what, Latencies& latencies)
{
    std::printf("%-28s %10.1f %10.1f\n", what, latencies.percentile(0.5), latencies.percentile(0.99));
}

void print(const char* what, Latencies& upper, Latencies& lower, const char* remark)
{
    std::printf("%-28s %10.2f %10.2f%s\n", what, upper.percentile(0.5) / lower.percentile(0.5),
                upper.percentile(0.99) / lower.percentile(0.99), remark);
}

/// One round after the other, each with a batch of every kind; the order turns round from one to the next. The camera
/// takes one controller at a time, so the library closes it and the daemon's client unlinks after each batch.
void measure(const Options& options, Udp& direct, std::uint16_t relayPort)
{
    RawPipe pipe(daemonPort());
    Latencies one, two, library, daemon;
    const auto take = [&](Latencies& latencies, const std::function<void()>& access) {
        for (unsigned i = 0; i < warmUp; ++i)
            access();
        latencies.take(options.batchSize, access);
    };
    const std::vector<std::function<void()>> batches = {
        [&] { take(one, [&] { directReadReg(direct, gvcpPort, registerAddress); }); },
        [&] { take(two, [&] { directReadReg(direct, relayPort, registerAddress); }); },
        [&] {
            Library camera;
            take(library, [&] { camera.readReg(); });
        },
        [&] {
            pipe.link(gvcpPort);
            take(daemon, [&] { pipe.readReg(registerAddress); });
            pipe.unlink();
        }};
    std::vector<double> ratios;
    for (unsigned round = 0; round < options.batches; ++round) {
        for (std::size_t i = 0; i < batches.size(); ++i)
            batches[round % 2 == 0 ? i : batches.size() - 1 - i]();
        ratios.push_back(daemon.percentileOfLast(options.batchSize, 0.5) /
                         library.percentileOfLast(options.batchSize, 0.5));
    }
    pipe.disconnect();
    std::sort(ratios.begin(), ratios.end());
    std::printf("%-28s %10s %10s\n", "one register read", "p50 us", "p99 us");
    print("one hop, bare", one);
    print("two hops, bare", two);
    print("the library, directly", library);
    print("through the daemon", daemon);
    print("daemon / two hops, bare", daemon, two, "");
    print("daemon / library", daemon, library, "   (target at most 2.2)");
    std::printf("%-28s %10.2f   (%.2f to %.2f)\n", "median of the rounds' ratios", ratios[ratios.size() / 2],
                ratios.front(), ratios.back());
}

void run(const Options& options)
{
    const zuTest::ChildProcess camera({options.camera, "-i", "127.0.0.1"});
    waitForCamera(options.camera);
    auto front = std::make_unique<Udp>();
    const std::uint16_t relayPort = front->port();
    const Part relay([&] { runRelay(*front, gvcpPort); });
    front.reset();
    const MeasuredDaemon daemon(options.daemon);
    Part client([&] {
        Udp direct;
        measure(options, direct, relayPort);
    });
    if (client.wait() != 0)
        throw std::runtime_error("the measurement failed");
}

} // namespace

int main(int argc, char** argv)
{
    namespace po = boost::program_options;
    Options options;
    std::string affinity = "both";
    po::options_description description("Measures the daemon against an independent library");
    description.add_options()("help,h", "print this")(
        "daemon", po::value(&options.daemon)->default_value(options.daemon), "the daemon's program")(
        "camera", po::value(&options.camera)->default_value(options.camera), "the simulated camera's program")(
        "batches", po::value(&options.batches)->default_value(options.batches), "alternating batches")(
        "batch-size", po::value(&options.batchSize)->default_value(options.batchSize),
        "accesses of a batch")("affinity", po::value(&affinity)->default_value(affinity), "pinned, free or both");
    po::variables_map chosen;
    try {
        po::store(po::parse_command_line(argc, argv, description), chosen);
        po::notify(chosen);
        if (options.batches == 0 || options.batchSize == 0)
            throw std::runtime_error("nothing to measure");
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "bench_independent: %s\n", failure.what());
        return 2;
    }
    if (chosen.count("help") != 0) {
        std::printf("usage: bench_independent [options]\n");
        for (const auto& option : description.options())
            std::printf("  --%-20s %s\n", option->long_name().c_str(), option->description().c_str());
        return 0;
    }
    try {
        enterOwnNetwork();
        for (const bool pinned : {true, false}) {
            if (affinity == (pinned ? "free" : "pinned"))
                continue;
            pinToOneProcessor(pinned);
            std::printf("\n######## %s\n\n", pinned ? "all processes on one processor" : "as the scheduler likes it");
            run(options);
        }
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "bench_independent: %s\n", failure.what());
        return 1;
    }
    return 0;
}
