// The cost of a log call that is disabled, on one thread and on two at once.
#include "logging/log.h"

#include <benchmark/benchmark.h>

namespace {

const zuLogging::logstate& node()
{
    static const zuLogging::logstate log = zuLogging::make_numbered_logstate("Bench");
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

} // namespace

BENCHMARK_MAIN();
