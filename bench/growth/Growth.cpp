// growth_steps pairs PAIRS HOPS | tasks SIZE... | timers OTHERS | list NODES | tree NODES:
// one repetition of one measurement.
#include "Growth.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "Main.h"

namespace {

int Usage(const char* program)
{
    std::fprintf(
        stderr,
        "usage: %s pairs PAIRS HOPS | tasks SIZE... | timers OTHERS | list NODES | tree NODES\n",
        program);
    return 2;
}

double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const std::size_t half = values.size() / 2;
    return values.size() % 2 == 1 ? values[half] : (values[half - 1] + values[half]) / 2;
}

} // namespace

void growth::Times::Add(double wall, double processor)
{
    m_wall.push_back(wall);
    m_processor.push_back(processor);
}

void growth::Times::Add(const Stopwatch& watch, long operations)
{
    const double processor = watch.Processor();
    Add(watch.Wall() / static_cast<double>(operations),
        processor / static_cast<double>(operations));
}

void growth::Times::Print(const std::string& step, long size) const
{
    growth::Print(step, size, Median(m_wall), Median(m_processor));
}

void growth::Print(const std::string& step, long size, double wallNsec, double processorNsec)
{
    std::printf("{\"step\": \"%s\", \"size\": %ld, \"wall_ns\": %.1f, \"cpu_ns\": %.1f}\n",
                step.c_str(), size, wallNsec, processorNsec);
    std::fflush(stdout);
}

/// The program has its own main(), so that no pid file is made; the library's refers to this.
int Main()
{
    return 0;
}

int main(int argc, char** argv)
{
    setenv("ZOR_DLOG", "none", 1);
    std::vector<long> numbers;
    for (int i = 2; i < argc; ++i) {
        char* end = nullptr;
        numbers.push_back(std::strtol(argv[i], &end, 10));
        if (*end != '\0' || numbers.back() <= 0) {
            return Usage(argv[0]);
        }
    }
    const auto is = [&](const char* what) { return std::strcmp(argv[1], what) == 0; };
    if (numbers.size() == 2 && is("pairs")) {
        growth::MeasurePairs(numbers[0], numbers[1]);
    } else if (!numbers.empty() && is("tasks")) {
        growth::MeasureTasks(numbers.data(), static_cast<int>(numbers.size()));
    } else if (numbers.size() == 1 && is("timers")) {
        growth::MeasureTimers(numbers[0]);
    } else if (numbers.size() == 1 && (is("list") || is("tree"))) {
        growth::MeasureMemory(numbers[0], is("list"));
    } else {
        return Usage(argv[0]);
    }
    return 0;
}
