#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "LogSeam.h"
#include "SchedulerClock.h"
#include "TaskSupport.h"
#include "TimersModel.h"
#include "TimersScheduler.h"

namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

/// What is inside a scheduler, in the terms of the model.
struct Inside
{
    std::vector<std::vector<std::uint64_t>> timers; ///< interval, fired, count, state
    std::vector<std::pair<std::chrono::steady_clock::time_point, std::size_t>> schedule;
    std::vector<std::size_t> index;
    std::map<std::size_t, std::int64_t> rests;
    bool idle = false;
};

Inside Look(const TCTimersScheduler& scheduler);

template <typename Timers, typename Schedule, typename Index, typename Rests>
Inside Describe(const Timers& timers, const Schedule& schedule, const Index& index,
                const Rests& rests, bool idle)
{
    Inside inside;
    for (const auto& timer : timers) {
        inside.timers.push_back({static_cast<std::uint64_t>(timer.interval.count()), timer.fired,
                                 timer.count, timer.state});
    }
    for (const auto& wakeup : schedule) {
        inside.schedule.emplace_back(wakeup.due, wakeup.id);
    }
    for (std::size_t id = 0; id < index.size(); ++id) {
        if (index[id].spare.empty()) {
            EXPECT_EQ(index[id].scheduled->id, id);
            inside.index.push_back(id);
        }
    }
    for (const auto& rest : rests) {
        inside.rests[rest.first] = rest.second.count();
    }
    inside.idle = idle;
    return inside;
}

/// An explicit instantiation may name private members, and hands them to the function above.
template <auto Timers, auto Schedule, auto Index, auto Rests, auto Idle>
struct Window
{
    friend Inside Look(const TCTimersScheduler& scheduler)
    {
        return Describe(scheduler.*Timers, scheduler.*Schedule, scheduler.*Index, scheduler.*Rests,
                        scheduler.*Idle);
    }
};

template struct Window<&TCTimersScheduler::m_scheduledTimers, &TCTimersScheduler::m_wakeups,
                       &TCTimersScheduler::m_wakeupIndex, &TCTimersScheduler::m_pausedTimers,
                       &TCTimersScheduler::m_idle>;

using namespace zortest;

/// The scheduler and the model of it, which are told the same and compared.
class TimersSchedulerModelTest : public ::testing::Test
{
 protected:
    static constexpr int RECEIVERS = 5;
    static constexpr std::size_t MOST_TIMERS = 24;

    TimersSchedulerModelTest() : m_clock(&m_scheduler)
    {
        EXPECT_TRUE(m_task.Start());
        // The task is held, and its queue read by the test: what is in it stays there until then.
        m_hold = std::make_unique<Hold>(&m_task);
        for (int i = 0; i < RECEIVERS; ++i) {
            m_receivers.push_back(
                std::make_unique<FunctionHandler>([](const TSEvent*) { return true; }, &m_task));
        }
    }

    /// The clock goes only when nobody is in a wait that has begun in its life.
    ~TimersSchedulerModelTest() override { m_hold->Release(); }

    int Random(int least, int most)
    {
        return std::uniform_int_distribution<int>(least, most)(m_random);
    }

    void Step();
    void Create();
    void Operate(std::size_t id);
    void Advance();
    void Compare();
    void CompareLines();
    void CompareFirings();
    void HoldAnew();

    const TaskRuntime m_runtime;
    TestTask m_task;
    std::unique_ptr<Hold> m_hold;
    std::vector<std::unique_ptr<FunctionHandler>> m_receivers;
    SchedulerClock m_clock;
    TCTimersScheduler m_scheduler; ///< gone before its clock and what it sends to
    TimersModel m_model;
    std::mt19937 m_random;
    bool m_fewTimers = false;
    std::uint32_t m_mark = 0;
    std::size_t m_firings = 0; ///< compared so far
    bool m_same = true;        ///< what the last operation answered
};

void TimersSchedulerModelTest::Step()
{
    // A schedule of few timers comes to be empty, one of many does not: each for a while.
    if (Random(0, 499) == 0) {
        m_fewTimers = !m_fewTimers;
    }
    const int choice = Random(0, 99);
    if (m_fewTimers && m_model.schedule.size() > 2) {
        const std::size_t id = m_model.schedule.back().second;
        m_same = m_clock.Run([&] { return m_scheduler.DestroyTimer(id); }) == m_model.Destroy(id);
    } else if (m_model.timers.empty() || (choice < 12 && m_model.timers.size() < MOST_TIMERS)) {
        Create();
    } else if (choice < 55) {
        // Often one that was never made, and at times one that could not even be.
        const int id = Random(0, static_cast<int>(m_model.timers.size()));
        Operate(Random(0, 199) == 0 ? TCTimersScheduler::INVALID_TIMER_ID
                                    : static_cast<std::size_t>(id));
    } else if (choice < 60) {
        Create();
    } else {
        Advance();
    }
}

void TimersSchedulerModelTest::Create()
{
    constexpr std::uint32_t COUNTS[] = {0, 1, 1, 2, 3, 7, TimersModel::ENDLESS};
    const int interval = Random(-5, 60);
    const std::uint32_t count = COUNTS[Random(0, 6)];
    const int receiver = Random(0, RECEIVERS - 1);
    TSEvent event = EventTo(m_receivers[static_cast<std::size_t>(receiver)].get(), 0);
    event.param3 = ++m_mark;
    const std::size_t id =
        m_clock.Run([&] { return m_scheduler.CreateTimer(milliseconds(interval), count, event); });
    m_same = id == m_model.Create(interval, count, receiver, m_mark);
}

void TimersSchedulerModelTest::Operate(std::size_t id)
{
    const int interval = Random(-5, 60);
    const auto count = static_cast<std::uint32_t>(Random(0, 8));
    switch (Random(0, 6)) {
        case 0:
            m_same =
                m_clock.Run([&] { return m_scheduler.DestroyTimer(id); }) == m_model.Destroy(id);
            break;
        case 1:
        case 2:
            m_same = m_clock.Run([&] {
                return m_scheduler.ResetTimer(id, milliseconds(interval), count);
            }) == m_model.Reset(id, interval, count);
            break;
        case 3:
            m_same = m_clock.Run([&] { return m_scheduler.PauseTimer(id); }) == m_model.Pause(id);
            break;
        default:
            m_same = m_clock.Run([&] { return m_scheduler.ResumeTimer(id); }) == m_model.Resume(id);
            break;
    }
}

void TimersSchedulerModelTest::Advance()
{
    nanoseconds time = milliseconds(Random(0, 12)); // so that timers come to be due at once
    if (Random(0, 2) == 0) {
        time = nanoseconds(Random(0, 6000000));
    } else if (Random(0, 99) == 0) {
        time = milliseconds(Random(100, 900)); // a stall
    }
    m_clock.Advance(time);
    m_model.Advance(time.count());
    m_same = true;
}

void TimersSchedulerModelTest::CompareLines()
{
    std::string line;
    std::vector<std::string> threadLines;
    for (const LogLine& entry : LogLinesWith("Id[")) {
        const std::string text = entry.text.substr(entry.text.find("Id["));
        if (text.find("Timer fire!") != std::string::npos ||
            text.find("Can't keep up!") != std::string::npos) {
            threadLines.push_back(text);
        } else {
            line += text;
        }
    }
    ASSERT_EQ(line, m_model.line);
    ASSERT_EQ(threadLines, m_model.threadLines);
    m_model.threadLines.clear();
    ClearLog();
}

void TimersSchedulerModelTest::Compare()
{
    ASSERT_TRUE(m_clock.Settle());
    ASSERT_TRUE(m_same);
    CompareLines();
    const Inside inside = Look(m_scheduler);
    ASSERT_EQ(inside.timers.size(), m_model.timers.size());
    for (std::size_t id = 0; id < inside.timers.size(); ++id) {
        const TimersModel::Timer& timer = m_model.timers[id];
        const std::vector<std::uint64_t> expected = {
            static_cast<std::uint64_t>(timer.interval / TimersModel::MILLISECOND), timer.fired,
            timer.count, timer.state};
        ASSERT_EQ(inside.timers[id], expected) << "timer " << id;
    }
    const auto origin = m_clock.Now() - nanoseconds(m_model.now);
    std::vector<TimersModel::Due> schedule;
    for (const auto& [due, id] : inside.schedule) {
        schedule.emplace_back(nanoseconds(due - origin).count(), id);
    }
    ASSERT_EQ(schedule, m_model.schedule);
    ASSERT_EQ(inside.index.size(), inside.schedule.size());
    ASSERT_EQ(inside.rests, m_model.rests);
    ASSERT_EQ(inside.idle, m_model.idle);
    const auto wakeTime = m_clock.WakeTime();
    ASSERT_EQ(wakeTime.has_value(), m_model.wakeTime.has_value());
    if (wakeTime) {
        ASSERT_EQ(wakeTime->count(), *m_model.wakeTime);
    }
}

/// Begins the hold anew; nothing must be queued.
void TimersSchedulerModelTest::HoldAnew()
{
    m_hold->Release();
    m_hold = std::make_unique<Hold>(&m_task);
}

void TimersSchedulerModelTest::CompareFirings()
{
    ASSERT_EQ(m_task.Size(), m_model.queue.size());
    for (const TimersModel::Firing& firing : m_model.queue) {
        TSEvent event;
        ASSERT_TRUE(m_task.Get(&event, 0));
        ASSERT_EQ(event.receiver, m_receivers[static_cast<std::size_t>(firing.receiver)].get());
        ASSERT_EQ(event.param3, firing.mark);
        ASSERT_EQ(event.param1, firing.count);
        ASSERT_EQ(event.param2, firing.index);
        ++m_firings;
    }
    m_model.queue.clear();
}

/// The seed is random unless ZOR_TEST_SEED gives it.
TEST_F(TimersSchedulerModelTest, FiftyThousandRandomSteps)
{
    constexpr int STEPS = 50000;
    constexpr int STEPS_A_HOLD = 1000; // a hold does not last for ever, and a machine may be busy
    const char* const given = getenv("ZOR_TEST_SEED");
    const auto seed = given != nullptr ? static_cast<std::uint32_t>(strtoul(given, nullptr, 10))
                                       : static_cast<std::uint32_t>(std::random_device()());
    std::cout << "seed " << seed << '\n';
    RecordProperty("seed", std::to_string(seed));
    m_random.seed(seed);
    ClearLog();
    for (int step = 0; step < STEPS; ++step) {
        SCOPED_TRACE("step " + std::to_string(step) + " of seed " + std::to_string(seed));
        Step();
        ASSERT_NO_FATAL_FAILURE(Compare());
        if (Random(0, 3) == 0) {
            ASSERT_NO_FATAL_FAILURE(CompareFirings());
        }
        if (step % STEPS_A_HOLD == 0) {
            ASSERT_NO_FATAL_FAILURE(CompareFirings());
            HoldAnew();
        }
    }
    ASSERT_NO_FATAL_FAILURE(CompareFirings());
    std::cout << m_firings << " firings\n";
    EXPECT_GT(m_firings, 1000u);
}

} // namespace
