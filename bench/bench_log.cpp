// The cost of a log call: disabled, and enabled to a file and to a log service, beside a bare write and a bare sendto
// of the same bytes.
#include "logging/log.h"
#include "logging/logsvc_target.h"
#include "logging/logtarget.h"
#include "logging/targets.h"
#include "platform/socket.h"

#include "bench/bare.h"

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr const char* text = "Successful ReadReg 0xa00 : Value  2";

zuLogging::logstate& node()
{
    static zuLogging::logstate log = zuLogging::make_numbered_logstate("GVCP");
    return log;
}

void disabledCall(benchmark::State& state)
{
    const zuLogging::logstate log = node();
    std::uint64_t value = 0;
    for (auto _ : state) {
        ZU_LOG(log, zuLogging::log_info, "value " << ++value);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(disabledCall)->Threads(1)->Threads(2);

/// Enables the logger, with one target, for its life.
struct Enabled {
    template <typename TAdd>
    explicit Enabled(TAdd add)
    {
        add();
        node().set_levels(zuLogging::log_info);
    }
    ~Enabled()
    {
        node().set_levels(0);
        zuLogging::clear_targets();
    }
};

struct TemporaryFile {
    std::string path = (std::filesystem::temp_directory_path() / ("zu-bench-" + std::to_string(::getpid()))).string();
    ~TemporaryFile() { std::filesystem::remove(path); }
};

void logToFile(benchmark::State& state)
{
    const TemporaryFile file;
    const Enabled enabled([&] {
        zuLogging::add_formatted_target(
            std::make_shared<zuLogging::basic_file_target<boost::mutex>>(zuLogging::make_file(file.path)));
    });
    for (auto _ : state)
        ZU_LOG(node(), zuLogging::log_info, text);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(logToFile);

void bareWrite(benchmark::State& state)
{
    const TemporaryFile file;
    const std::string line = std::string("2026-Nov-12 10:58:49.123456 GVCP.0 [info] ") + text + "\n";
    const int descriptor = ::open(file.path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    for (auto _ : state)
        benchmark::DoNotOptimize(::write(descriptor, line.data(), line.size()));
    ::close(descriptor);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(bareWrite);

/// Takes datagrams and drops them, on a thread of its own.
struct Sink {
    zuBench::Udp socket;
    std::atomic<bool> ended{false};
    std::thread thread{[this] {
        char buffer[2048];
        while (socket.receive(buffer, sizeof buffer) != 1) {
        }
        ended = true;
    }};
    ~Sink()
    {
        // Again and again: a full receive buffer drops it.
        for (zuBench::Udp end; !ended; std::this_thread::sleep_for(std::chrono::milliseconds(1)))
            end.send("x", 1, socket.port());
        thread.join();
    }
};

void logToService(benchmark::State& state)
{
    Sink sink;
    const Enabled enabled([&] {
        zuLogging::add_plain_target(std::make_shared<zuLogging::basic_logsvc_target>(
            zuPlatform::loopbackAt(zuPlatform::hostToNetwork16(sink.socket.port())), true));
    });
    for (auto _ : state)
        ZU_LOG(node(), zuLogging::log_info, text);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(logToService)->UseRealTime();

void bareSendto(benchmark::State& state)
{
    Sink sink;
    zuBench::Udp socket;
    const std::string packet(12 + 28 + 9 * 4 + 5 * 8 + 6 + 35, 'x'); // what the line above takes
    for (auto _ : state)
        socket.send(packet.data(), packet.size(), sink.socket.port());
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(bareSendto)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
