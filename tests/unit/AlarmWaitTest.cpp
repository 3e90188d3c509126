#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "Alarm.h"
#include "CallbackNameSeam.h"
#include "ConditionSeams.h"
#include "ConsoleSeam.h"
#include "StateAlarm.h"
#include "TaskSupport.h"
#include "ThreadSeams.h"

namespace {

using namespace zortest;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;
using ::testing::ElementsAre;
using Clock = std::chrono::steady_clock;

constexpr unsigned long LONG_INTERVAL = 600 * 1000;

bool IsAlarmThread()
{
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof(name));
    return strncmp(name, "TCAlarm:", strlen("TCAlarm:")) == 0;
}

/// The waits for an interval that alarms begin, while it lives. A wait that ends early, without a
/// signal, would begin its interval anew; here it goes on to its deadline and counts once.
class IntervalWaits
{
 public:
    IntervalWaits()
        : m_takeover(
              condTimedwaitSeam,
              [this](pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* deadline) {
                  if (IsAlarmThread()) {
                      const auto now = Clock::now();
                      std::lock_guard<std::mutex> lock(m_mutex);
                      m_waits.push_back({Clock::time_point(seconds(deadline->tv_sec) +
                                                           nanoseconds(deadline->tv_nsec)),
                                         now});
                  }
                  return WaitForSignal(condition, mutex, deadline);
              }),
          m_signal(condSignalSeam,
                   [this](pthread_cond_t* condition) {
                       Count(condition);
                       return condSignalSeam.Real(condition);
                   }),
          m_broadcast(condBroadcastSeam, [this](pthread_cond_t* condition) {
              Count(condition);
              return condBroadcastSeam.Real(condition);
          })
    {}

    bool WaitFor(std::size_t count) const
    {
        return Eventually([this, count] { return Size() >= count; });
    }

    std::size_t Size() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_waits.size();
    }

    /// Expects that wait @p number lasts @p msec milliseconds from some time after @p begin on.
    void ExpectFull(std::size_t number, Clock::time_point begin, unsigned long msec) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ASSERT_LT(number, m_waits.size());
        const auto from = m_waits[number].deadline - milliseconds(msec);
        EXPECT_GE(from, begin - std::chrono::microseconds(1)); // deadlines have no nanoseconds
        EXPECT_LE(from, m_waits[number].begun);
    }

 private:
    struct Wait
    {
        Clock::time_point deadline;
        Clock::time_point begun; ///< not before the deadline was formed
    };

    void Count(const pthread_cond_t* condition)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_signals[condition];
    }

    int Signals(const pthread_cond_t* condition) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_signals.find(condition);
        return found == m_signals.end() ? 0 : found->second;
    }

    int WaitForSignal(pthread_cond_t* condition, pthread_mutex_t* mutex,
                      const timespec* deadline) const
    {
        const int before = Signals(condition);
        int result = 0;
        do {
            result = condTimedwaitSeam.Real(condition, mutex, deadline);
        } while (result == 0 && Signals(condition) == before);
        return result;
    }

    mutable std::mutex m_mutex; ///< guards waits and signals
    std::vector<Wait> m_waits;
    std::map<const pthread_cond_t*, int> m_signals;
    Takeover<int(pthread_cond_t*, pthread_mutex_t*, const timespec*)> m_takeover;
    Takeover<int(pthread_cond_t*)> m_signal;
    Takeover<int(pthread_cond_t*)> m_broadcast;
};

class CountingAlarm : public TCAlarm
{
 public:
    ~CountingAlarm() override { EndAlarm(this); }

    bool t_OnAlarm(const TSEvent* event) override
    {
        trace.Add(std::to_string(event->param1) + "/" + std::to_string(event->param2));
        return true;
    }

    Trace trace;
};

/// Everything that waits is gone before what watches the waits is.
class AlarmWaitTest : public ::testing::Test
{
 protected:
    AlarmWaitTest() { EXPECT_TRUE(m_task.Start()); }

    const TaskRuntime m_runtime;
    IntervalWaits m_waits;
    TestTask m_task;
    CountingAlarm m_alarm;
};

TEST_F(AlarmWaitTest, CreateStartsAFullInterval)
{
    const auto begin = Clock::now();
    ASSERT_TRUE(m_alarm.Create(&m_task, LONG_INTERVAL, 1));
    ASSERT_TRUE(m_waits.WaitFor(1));
    m_waits.ExpectFull(0, begin, LONG_INTERVAL);
}

TEST_F(AlarmWaitTest, ShortIntervalsWaitTenMilliseconds)
{
    const auto begin = Clock::now();
    ASSERT_TRUE(m_alarm.Create(&m_task, 9, 1));
    ASSERT_TRUE(m_waits.WaitFor(1));
    m_waits.ExpectFull(0, begin, 10);
    const auto reset = Clock::now();
    EXPECT_TRUE(m_alarm.trace.WaitFor(1));
    m_alarm.Reset(0, 1);
    ASSERT_TRUE(m_waits.WaitFor(2));
    m_waits.ExpectFull(1, reset, 10);
}

TEST_F(AlarmWaitTest, ResetStartsAFullIntervalAnew)
{
    ASSERT_TRUE(m_alarm.Create(&m_task, LONG_INTERVAL, 1));
    ASSERT_TRUE(m_waits.WaitFor(1));
    const auto begin = Clock::now();
    m_alarm.Reset(2 * LONG_INTERVAL, 1);
    ASSERT_TRUE(m_waits.WaitFor(2));
    m_waits.ExpectFull(1, begin, 2 * LONG_INTERVAL);
}

TEST_F(AlarmWaitTest, RestartAfterStopStartsAFullInterval)
{
    ASSERT_TRUE(m_alarm.Create(&m_task, LONG_INTERVAL, 1));
    ASSERT_TRUE(m_waits.WaitFor(1));
    m_alarm.Stop(); // waits without limit from now on, which is no wait of an interval
    const auto begin = Clock::now();
    m_alarm.RestartAfterStop();
    ASSERT_TRUE(m_waits.WaitFor(2));
    m_waits.ExpectFull(1, begin, LONG_INTERVAL);
    EXPECT_EQ(m_waits.Size(), 2u);
}

TEST_F(AlarmWaitTest, WhatChangesNothingStartsNothing)
{
    ASSERT_TRUE(m_alarm.Create(&m_task, LONG_INTERVAL, 1));
    ASSERT_TRUE(m_waits.WaitFor(1));
    m_alarm.RestartAfterStop();
    m_alarm.Stop();
    m_alarm.Stop();
    const auto begin = Clock::now();
    m_alarm.Reset(LONG_INTERVAL, 1);
    m_alarm.RestartAfterStop();
    ASSERT_TRUE(m_waits.WaitFor(2));
    m_waits.ExpectFull(1, begin, LONG_INTERVAL);
    m_alarm.Destroy();
    EXPECT_EQ(m_waits.Size(), 2u);
}

TEST_F(AlarmWaitTest, UsedUpAndEndlessAlarmsWaitForNoInterval)
{
    ASSERT_TRUE(m_alarm.Create(&m_task, 10, 0));
    CountingAlarm endless;
    ASSERT_TRUE(endless.Create(&m_task, TCAlarm::ENDLESS, 1));
    CountingAlarm other;
    ASSERT_TRUE(other.Create(&m_task, 10, 3));
    EXPECT_TRUE(other.trace.WaitFor(3));
    EndAlarm(&other);
    EXPECT_EQ(m_waits.Size(), 3u);
}

/// Waking an alarm that is idle begins its count anew, whatever woke it.
TEST_F(AlarmWaitTest, StopAndRestartOfAUsedUpAlarmFireItAnew)
{
    ASSERT_TRUE(m_alarm.Create(&m_task, 10, 2));
    EXPECT_TRUE(m_alarm.trace.WaitFor(2));
    m_alarm.Stop();
    m_alarm.RestartAfterStop();
    EXPECT_TRUE(m_alarm.trace.WaitFor(4));
    EXPECT_THAT(m_alarm.trace.Get(), ElementsAre("2/0", "2/1", "2/0", "2/1"));
}

TEST_F(AlarmWaitTest, ResetToNoFiringsSilencesARunningAlarm)
{
    ASSERT_TRUE(m_alarm.Create(&m_task, 10, TCAlarm::ENDLESS));
    EXPECT_TRUE(m_alarm.trace.WaitFor(2));
    m_alarm.Reset(10, 0);
    ASSERT_TRUE(Flush(&m_task));
    const std::size_t fired = m_alarm.trace.Size();
    CountingAlarm other;
    ASSERT_TRUE(other.Create(&m_task, 10, 5));
    EXPECT_TRUE(other.trace.WaitFor(5));
    EXPECT_EQ(m_alarm.trace.Size(), fired);
    m_alarm.Reset(10, 1);
    EXPECT_TRUE(m_alarm.trace.WaitFor(fired + 1));
}

TEST_F(AlarmWaitTest, FiringIsSentUnderTheNameOfItsCallback)
{
    std::mutex mutex;
    std::vector<std::string> names;
    const auto namesSoFar = [&] {
        std::lock_guard<std::mutex> lock(mutex);
        return names;
    };
    const Takeover take(setCallbackNameSeam,
                        [&](TCDebugPrintZOR* debugPrint, const std::string& name) {
                            if (IsAlarmThread()) {
                                std::lock_guard<std::mutex> lock(mutex);
                                names.push_back(name);
                            }
                            setCallbackNameSeam.Real(debugPrint, name);
                        });
    m_task.Lock(); // keeps the firing from getting into the queue
    ASSERT_TRUE(m_alarm.Create(&m_task, 10, 1));
    EXPECT_TRUE(Eventually([&] { return !namesSoFar().empty(); }));
    EXPECT_THAT(namesSoFar(), ElementsAre("cb-alarm"));
    m_task.Unlock();
    EXPECT_TRUE(m_alarm.trace.WaitFor(1));
    EndAlarm(&m_alarm);
    EXPECT_THAT(namesSoFar(), ElementsAre("cb-alarm", ""));
}

/// Lock, wake-up semaphore, and start gate, exit gate and start signal of the thread.
class AlarmFailureTest : public ::testing::TestWithParam<int>
{
 protected:
    AlarmFailureTest() { EXPECT_TRUE(m_task.Start()); }

    const TaskRuntime m_runtime;
    TestTask m_task;
};

TEST_P(AlarmFailureTest, CreateWithoutASemaphoreFailsAndLeavesNothing)
{
    CountingAlarm alarm;
    {
        const ConditionWatch watch(GetParam());
        EXPECT_FALSE(alarm.Create(&m_task, 10, 1));
        EXPECT_FALSE(alarm.FlagCreate());
        EXPECT_EQ(watch.Made(), GetParam() + 1);
        std::vector<int> made;
        for (int number = 0; number < GetParam(); ++number) {
            made.push_back(number);
        }
        EXPECT_THAT(watch.Destroyed(), ::testing::UnorderedElementsAreArray(made));
    }
    ASSERT_TRUE(alarm.Create(&m_task, 10, 1));
    EXPECT_TRUE(alarm.trace.WaitFor(1));
}

INSTANTIATE_TEST_SUITE_P(Semaphores, AlarmFailureTest, ::testing::Range(0, 5));

TEST_P(AlarmFailureTest, CreateOfAStateAlarmFailsAsWell)
{
    std::atomic<int> users{0};
    TestTask task;
    task.onUser = [&users](const TSEvent*) { return ++users > 0; };
    ASSERT_TRUE(task.Start());
    TCStateAlarm alarm;
    {
        const ConditionWatch watch(GetParam());
        EXPECT_FALSE(alarm.Create(&task, TCTask::EVENT_USER, 10, 1));
    }
    EXPECT_FALSE(alarm.FlagCreate());
    ASSERT_TRUE(alarm.Create(&task, TCTask::EVENT_USER, 10, 1));
    EXPECT_TRUE(Eventually([&users] { return users == 1; }));
    EndAlarm(&alarm);
}

using AlarmThreadFailureTest = AlarmWaitTest;

TEST_F(AlarmThreadFailureTest, CreateWithoutAThreadFailsAndAlarmIsNotCreated)
{
    alignas(CountingAlarm) static unsigned char place[sizeof(CountingAlarm)];
    bool created = true;
    // Of a thread that never was a semaphore stays, which its destructor would assert.
    auto* const alarm = new (place) CountingAlarm;
    const std::vector<std::string> failed = AssertionsOf([&] {
        const Takeover create(pthreadCreateSeam, [](pthread_t*, const pthread_attr_t*, ThreadEntry,
                                                    void*) { return EAGAIN; });
        created = alarm->Create(&m_task, 10, 1);
    });
    EXPECT_THAT(failed, ElementsAre("0"));
    EXPECT_FALSE(created);
    EXPECT_FALSE(alarm->FlagCreate());
    EXPECT_EQ(m_task.Size(), 0u);
}

} // namespace
