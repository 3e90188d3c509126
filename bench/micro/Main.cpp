#include <benchmark/benchmark.h>

#include <cstdlib>

/// The programs have their own main(), so that no pid file is made; the library's refers to this.
__attribute__((visibility("default"))) int Main()
{
    return 0;
}

int main(int argc, char** argv)
{
    setenv("ZOR_DLOG", "none", 0);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
