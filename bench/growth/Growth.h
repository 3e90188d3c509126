#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

/// The parts of the program that measures how cost grows. Each prints its figures as lines of JSON:
/// the step, its size, and what one operation of it takes on the wall and on a processor.
namespace growth {

/// Prints a figure; both times in nanoseconds.
void Print(const std::string& step, long size, double wallNsec, double processorNsec);

/// Nanoseconds on @p clock.
inline double Now(clockid_t clock)
{
    timespec time = {};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

/// What has passed since it was made, for the calling thread.
class Stopwatch
{
 public:
    double Wall() const { return Now(CLOCK_MONOTONIC) - m_wall; }
    double Processor() const { return Now(CLOCK_THREAD_CPUTIME_ID) - m_processor; }

 private:
    double m_processor = Now(CLOCK_THREAD_CPUTIME_ID);
    double m_wall = Now(CLOCK_MONOTONIC);
};

/// What single operations took, in nanoseconds. Medians, because a single one may have been
/// interrupted.
class Times
{
 public:
    void Add(double wall, double processor);
    void Add(const Stopwatch& watch, long operations = 1);
    void Print(const std::string& step, long size) const;

 private:
    std::vector<double> m_wall;
    std::vector<double> m_processor;
};

/// @p pairs pairs of tasks at once, each with a token that goes back and forth, @p hops together.
void MeasurePairs(long pairs, long hops);

/// Creating, sending to and destroying tasks while there are as many as each of @p sizes says,
/// ascending. If the system allows fewer, the most that it allows stands in for what is above.
void MeasureTasks(const long* sizes, int count);

/// Creating, firing and destroying timers with @p others beside them that are not due.
void MeasureTimers(long others);

/// What theory counts: one access to memory that depends on the one before, in a structure of
/// @p size nodes. A list's are walked in their order and lie as far apart as tasks; a tree's lie
/// close together and are walked in any order.
void MeasureMemory(long size, bool list);

} // namespace growth
