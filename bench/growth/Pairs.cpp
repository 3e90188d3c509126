#include "Pairs.h"

#include <sys/resource.h>

#include "Growth.h"

namespace {

double ProcessorSeconds(const timeval& time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

/// Nanoseconds that all threads of the process have used.
double ProcessTime()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return (ProcessorSeconds(usage.ru_utime) + ProcessorSeconds(usage.ru_stime)) * 1e9;
}

struct NoWork
{
    void operator()(std::uint32_t /*left*/) const {}
};

} // namespace

void growth::MeasurePairs(long pairs, long hops)
{
    Pairs<NoWork> table(pairs);
    table.Play(100);
    const long each = hops / pairs;
    const double processor = ProcessTime();
    const Stopwatch watch;
    table.Play(each);
    const double wall = watch.Wall();
    const auto made = static_cast<double>(each * pairs);
    Print("pairs", pairs, wall / made, (ProcessTime() - processor) / made);
}
