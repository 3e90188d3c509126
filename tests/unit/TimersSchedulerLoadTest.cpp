#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "TaskSupport.h"
#include "Timer.h"
#include "TimersScheduler.h"
#include "dlog.h"

namespace {

using namespace zortest;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

/// Every firing, as the scheduler logs it: a full queue refuses firings, the log does not.
class FiringWatch
{
 public:
    struct Firing
    {
        std::size_t id;
        Clock::time_point time;
    };

    /// @param most  how many firings there can be
    explicit FiringWatch(std::size_t most) : m_firings(most) { s_watch = this; }
    ~FiringWatch() { s_watch = nullptr; }

    FiringWatch(const FiringWatch&) = delete;
    FiringWatch& operator=(const FiringWatch&) = delete;

    /// Called for every entry of the log. Only the scheduler's thread logs firings.
    static void OnEntry(const char* text)
    {
        FiringWatch* const watch = s_watch;
        const char* const id = watch != nullptr ? strstr(text, "Id[") : nullptr;
        if (id == nullptr || strstr(id, "] Timer fire!") == nullptr) {
            return;
        }
        const std::size_t size = watch->m_size.load(std::memory_order_relaxed);
        if (size < watch->m_firings.size()) {
            watch->m_firings[size] = {strtoul(id + strlen("Id["), nullptr, 10), Clock::now()};
        }
        watch->m_size.store(size + 1, std::memory_order_release); // publishes the entry
    }

    std::size_t Size() const { return m_size.load(std::memory_order_acquire); }

    /// Waits until there have been @p size firings, for as long as there are ever more.
    bool WaitFor(std::size_t size) const
    {
        for (std::size_t before = Size(); before < size; before = Size()) {
            if (!Eventually([this, before] { return Size() > before; })) {
                return false;
            }
        }
        return true;
    }

    /// The first Size() are valid.
    const std::vector<Firing>& Firings() const { return m_firings; }

 private:
    static inline std::atomic<FiringWatch*> s_watch{nullptr};

    std::vector<Firing> m_firings;
    std::atomic<std::size_t> m_size{0};
};

double CpuSeconds()
{
    timespec used;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

/// Prints and records median, 99th percentile and maximum, in microseconds.
void Report(const std::string& what, std::vector<std::int64_t> microseconds)
{
    ASSERT_FALSE(microseconds.empty());
    std::sort(microseconds.begin(), microseconds.end());
    const auto at = [&](std::size_t percent) {
        return std::to_string(microseconds[(microseconds.size() - 1) * percent / 100]);
    };
    std::cout << what << ": p50 " << at(50) << " us, p99 " << at(99) << " us, max " << at(100)
              << " us\n";
    ::testing::Test::RecordProperty(what + " p50 us", at(50));
    ::testing::Test::RecordProperty(what + " p99 us", at(99));
    ::testing::Test::RecordProperty(what + " max us", at(100));
}

class TimersSchedulerLoadTest : public ::testing::Test
{
 protected:
    TimersSchedulerLoadTest() { EXPECT_TRUE(m_task.Start()); }

    const TaskRuntime m_runtime;
    TestTask m_task;
};

constexpr std::size_t TIMERS = 10000;
constexpr std::uint32_t FIRINGS = 50;
constexpr milliseconds INTERVAL(100);

/// What the task has heard of one timer. Touched on the task's thread only until all is over.
struct Heard
{
    std::uint32_t firings = 0;
    std::uint32_t next = 0; ///< the least index that may come
    bool inOrder = true;
    bool early = false;
};

/// The earliest time at which the firing of that @p index may come.
Clock::time_point DueTime(Clock::time_point start, std::uint32_t index)
{
    return start + (index + 1) * INTERVAL;
}

/// Walks through the firings in their order: each timer fires as often as it should, none early,
/// and at no time is one ahead of another by more than the difference of their starts explains.
void ExpectFairFirings(const FiringWatch& watch, const std::vector<Clock::time_point>& starts,
                       milliseconds startUp, std::vector<std::int64_t>* lateness)
{
    const std::uint32_t lead = static_cast<std::uint32_t>(startUp / INTERVAL) + 2;
    std::vector<std::uint32_t> fired(TIMERS);
    std::vector<std::size_t> timersWith(FIRINGS + 1); // by the number of firings so far
    timersWith[0] = TIMERS;
    std::uint32_t least = 0;
    for (std::size_t i = 0; i < TIMERS * FIRINGS; ++i) {
        const FiringWatch::Firing& firing = watch.Firings()[i];
        ASSERT_LT(firing.id, TIMERS);
        const std::uint32_t index = fired[firing.id]++;
        ASSERT_LT(index, FIRINGS) << "timer " << firing.id;
        const auto late = firing.time - DueTime(starts[firing.id], index);
        ASSERT_GE(late.count(), 0) << "timer " << firing.id << " firing " << index;
        lateness->push_back(std::chrono::duration_cast<std::chrono::microseconds>(late).count());
        --timersWith[index];
        ++timersWith[index + 1];
        while (timersWith[least] == 0) {
            ++least;
        }
        ASSERT_LE(index + 1, least + lead) << "timer " << firing.id << " is ahead of others";
    }
    EXPECT_EQ(least, FIRINGS);
}

TEST_F(TimersSchedulerLoadTest, TenThousandTimersOf100MsForFiveSeconds)
{
    FiringWatch watch(TIMERS * FIRINGS);
    std::vector<Clock::time_point> starts(TIMERS);
    std::vector<Heard> heard(TIMERS);
    std::vector<std::int64_t> heardLateness;
    heardLateness.reserve(TIMERS * FIRINGS);
    FunctionHandler handler(
        [&](const TSEvent* event) {
            Heard& timer = heard[event->param3];
            const auto late = Clock::now() - DueTime(starts[event->param3], event->param2);
            ++timer.firings;
            timer.inOrder = timer.inOrder && event->param2 >= timer.next;
            timer.next = event->param2 + 1;
            timer.early = timer.early || late.count() < 0;
            heardLateness.push_back(
                std::chrono::duration_cast<std::chrono::microseconds>(late).count());
            return true;
        },
        &m_task);
    {
        TCTimersScheduler scheduler;
        const auto begin = Clock::now();
        for (std::size_t number = 0; number < TIMERS; ++number) {
            TSEvent event = EventTo(&handler, 0);
            event.param3 = static_cast<std::uint32_t>(number);
            starts[number] = Clock::now();
            ASSERT_EQ(scheduler.CreateTimer(INTERVAL, FIRINGS, event), number);
        }
        const auto startUp = std::chrono::duration_cast<milliseconds>(Clock::now() - begin);
        EXPECT_TRUE(watch.WaitFor(TIMERS * FIRINGS));
        std::vector<std::int64_t> lateness;
        ASSERT_NO_FATAL_FAILURE(ExpectFairFirings(watch, starts, startUp, &lateness));
        Report("lateness of firing", std::move(lateness));
    }
    EXPECT_EQ(watch.Size(), TIMERS * FIRINGS); // and none more, now that the thread is gone
    ASSERT_TRUE(Flush(&m_task));
    for (const Heard& timer : heard) {
        ASSERT_TRUE(timer.inOrder);
        ASSERT_FALSE(timer.early);
        ASSERT_LE(timer.firings, FIRINGS);
    }
    std::cout << heardLateness.size() << " of " << TIMERS * FIRINGS
              << " firings found room in the task's queue\n";
    RecordProperty("handled", std::to_string(heardLateness.size()));
    Report("lateness of handling", std::move(heardLateness));
}

constexpr std::size_t MANY = 100000;

void ExpectOneFiringOfEach(const FiringWatch& watch)
{
    ASSERT_EQ(watch.Size(), MANY);
    std::vector<std::size_t> ids;
    for (const FiringWatch::Firing& firing : watch.Firings()) {
        ids.push_back(firing.id);
    }
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(std::unique(ids.begin(), ids.end()), ids.end());
}

TEST_F(TimersSchedulerLoadTest, HundredThousandTimersCreatedFiredOnceAndDestroyed)
{
    FiringWatch watch(MANY);
    FunctionHandler handler([](const TSEvent*) { return true; }, &m_task);
    const double before = CpuSeconds();
    {
        TCTimersScheduler scheduler;
        for (std::size_t id = 0; id < MANY; ++id) {
            ASSERT_EQ(scheduler.CreateTimer(milliseconds(10), 1, EventTo(&handler)), id);
        }
        EXPECT_TRUE(watch.WaitFor(MANY));
        for (std::size_t id = 0; id < MANY; ++id) {
            ASSERT_TRUE(scheduler.DestroyTimer(id));
        }
        const double used = CpuSeconds() - before;
        std::cout << "CPU seconds: " << used << '\n';
        RecordProperty("CPU seconds", std::to_string(used));
    }
    ExpectOneFiringOfEach(watch);
    ASSERT_TRUE(Flush(&m_task));
}

class SilentListener : public ITimerListener
{
 public:
    bool OnTimer(const TSEvent* /*event*/, void* /*userData*/) override { return true; }
};

TEST_F(TimersSchedulerLoadTest, HundredThousandTimerObjectsCreatedFiredOnceAndDestroyed)
{
    FiringWatch watch(MANY);
    std::atomic<std::size_t> releases{0};
    ITimer::TimerHandlerParams params;
    params.task = &m_task;
    params.listener = std::make_shared<SilentListener>();
    params.userDataRelease = [&releases](void*) { ++releases; };
    const double before = CpuSeconds();
    {
        std::vector<TCTimer> timers;
        timers.reserve(MANY);
        for (std::size_t i = 0; i < MANY; ++i) {
            ASSERT_TRUE(timers.emplace_back(params).Restart(milliseconds(10), 1));
        }
        EXPECT_TRUE(watch.WaitFor(MANY));
    }
    EXPECT_TRUE(Eventually([&] { return releases == MANY; }));
    const double used = CpuSeconds() - before;
    std::cout << "CPU seconds: " << used << '\n';
    RecordProperty("CPU seconds", std::to_string(used));
    ExpectOneFiringOfEach(watch);
    ASSERT_TRUE(Flush(&m_task));
    EXPECT_EQ(releases, MANY);
}

} // namespace

extern "C" int __dlog_print(log_id_t /*id*/, int priority, const char* /*tag*/, const char* fmt,
                            ...)
{
    if (priority != DLOG_DEBUG) { // firings only: formatting the rest would cost the most of all
        return 0;
    }
    char text[256];
    va_list args;
    va_start(args, fmt);
    const int size = vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    FiringWatch::OnEntry(text);
    return size;
}
