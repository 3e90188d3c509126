// An entry through each logger into a platform log that takes and forgets it, and the text of a
// service's id.
#include <benchmark/benchmark.h>

#include <string>

#include "ZorServiceDebug.h"
#include "ZorServiceDebugOverlay.h"
#include "dlog.h"

/// Stands in for the platform's: what it would do with a line is not the library's cost.
int __dlog_print(log_id_t, int, const char*, const char*, ...)
{
    return 0;
}

namespace {

void Log(benchmark::State& state, IZORLogger* logger)
{
    ZORLogs::getInstance()->SetLoggingSystem(logger);
    int number = 0;
    for (auto _ : state) {
        ZOR_LOG(false, DLOG_INFO, "entry %d of %s", number++, "a benchmark");
    }
    ZORLogs::getInstance()->SetLoggingSystem(ZORLoggerDLOG::Instance());
}

void ServiceIdToString(benchmark::State& state)
{
    const unsigned long long id = 0x0123456789ABCDEFULL;
    for (auto _ : state) {
        benchmark::DoNotOptimize(TCZorServiceDebug::ToString(id));
    }
}

BENCHMARK_CAPTURE(Log, platform_log, ZORLoggerDLOG::Instance());
BENCHMARK_CAPTURE(Log, platform_log_2023, ZORLoggerDLOG2023::Instance());
BENCHMARK_CAPTURE(Log, legacy, ZORLoggerLegacy::Instance());
BENCHMARK(ServiceIdToString);

} // namespace
