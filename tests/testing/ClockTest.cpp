#include "zor/testing/Clock.h"

#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <sys/times.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Alarm.h"
#include "Thread.h"
#include "Timer.h"
#include "zor/testing/Testing.h"

namespace {

using std::chrono::duration_cast;
using std::chrono::hours;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using zor::testing::Clock;
using zor::testing::Eventually;
using zor::testing::Gate;
using zor::testing::RealTime;
using zor::testing::RecordingTask;

/// What has happened, each entry with the millisecond of the clock.
class Story
{
 public:
    explicit Story(const Clock& clock) : m_clock(clock) {}

    void Add(const std::string& what)
    {
        const auto now = duration_cast<milliseconds>(m_clock.Elapsed()).count();
        std::lock_guard<std::mutex> lock(m_mutex);
        m_entries.push_back(what + "@" + std::to_string(now));
    }

    std::vector<std::string> Get() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_entries;
    }

 private:
    const Clock& m_clock;
    mutable std::mutex m_mutex; ///< guards the entries
    std::vector<std::string> m_entries;
};

class ClockTest : public ::testing::Test
{
 protected:
    Clock m_clock;
    Story m_story{m_clock};
};

class StoryAlarm : public TCAlarm
{
 public:
    StoryAlarm(Story* story, std::string name) : m_storyOf(story), m_storyName(std::move(name)) {}

    bool t_OnAlarm(const TSEvent* event) override
    {
        m_storyOf->Add(m_storyName + std::to_string(event->param2));
        return true;
    }

 private:
    Story* const m_storyOf;
    const std::string m_storyName;
};

class StoryListener : public ITimerListener
{
 public:
    StoryListener(Story* story, std::string name) : m_story(story), m_name(std::move(name)) {}

    bool OnTimer(const TSEvent* event, void* /*userData*/) override
    {
        m_story->Add(m_name + std::to_string(event->param2));
        return true;
    }

 private:
    Story* const m_story;
    const std::string m_name;
};

TEST_F(ClockTest, StandsUntilItIsMoved)
{
    const auto begin = steady_clock::now();
    const unsigned long tick = TCTimeWrapper::Tick();
    zor::testing::RealPause();
    EXPECT_EQ(steady_clock::now(), begin);
    m_clock.Advance(hours(1));
    EXPECT_EQ(steady_clock::now() - begin, hours(1));
    EXPECT_EQ(m_clock.Elapsed(), hours(1));
    EXPECT_EQ(TCTimeWrapper::Tick() - tick, 3600UL * 1000);
}

TEST_F(ClockTest, LeavesTheSystemClockAlone)
{
    const auto begin = std::chrono::system_clock::now();
    m_clock.Advance(hours(2));
    EXPECT_LT(std::chrono::system_clock::now() - begin, hours(1));
}

TEST_F(ClockTest, AlarmFiresAtItsIntervals)
{
    RecordingTask task;
    ASSERT_TRUE(task.Start());
    StoryAlarm alarm(&m_story, "alarm");
    ASSERT_TRUE(alarm.Create(&task, 100, 3));
    m_clock.Advance(milliseconds(99));
    EXPECT_THAT(m_story.Get(), IsEmpty());
    m_clock.Advance(milliseconds(1));
    EXPECT_THAT(m_story.Get(), ElementsAre("alarm0@100"));
    m_clock.Advance(seconds(10));
    EXPECT_THAT(m_story.Get(), ElementsAre("alarm0@100", "alarm1@200", "alarm2@300"));
    alarm.Destroy();
}

TEST_F(ClockTest, ResetAlarmBeginsAnew)
{
    RecordingTask task;
    ASSERT_TRUE(task.Start());
    StoryAlarm alarm(&m_story, "alarm");
    ASSERT_TRUE(alarm.Create(&task, 100, 1));
    m_clock.Advance(milliseconds(60));
    alarm.Reset(100, 1);
    m_clock.Advance(milliseconds(99));
    EXPECT_THAT(m_story.Get(), IsEmpty());
    m_clock.Advance(milliseconds(1));
    EXPECT_THAT(m_story.Get(), ElementsAre("alarm0@160"));
    alarm.Destroy();
}

TEST_F(ClockTest, TimerFiresAtItsIntervals)
{
    RecordingTask task;
    ASSERT_TRUE(task.Start());
    {
        ITimer::TimerHandlerParams params;
        params.task = &task;
        params.listener = std::make_shared<StoryListener>(&m_story, "timer");
        TCTimer timer(params);
        EXPECT_TRUE(timer.Restart(milliseconds(40), ITimer::INFINITE_FIRE));
        m_clock.Advance(milliseconds(100));
        EXPECT_TRUE(timer.Pause());
        m_clock.Advance(hours(1));
        EXPECT_TRUE(timer.Resume());
        m_clock.Advance(milliseconds(20));
        const std::string third = "timer2@" + std::to_string(3600 * 1000 + 120);
        EXPECT_THAT(m_story.Get(), ElementsAre("timer0@40", "timer1@80", third));
    }
}

TEST_F(ClockTest, OneOfSeveralComesAfterTheOther)
{
    RecordingTask task;
    ASSERT_TRUE(task.Start());
    StoryAlarm first(&m_story, "first");
    StoryAlarm second(&m_story, "second");
    ASSERT_TRUE(first.Create(&task, 100, 2));
    m_clock.Settle();
    ASSERT_TRUE(second.Create(&task, 50, 4));
    m_clock.Advance(milliseconds(200));
    // The one that has waited longer goes first where both are due.
    EXPECT_THAT(m_story.Get(), ElementsAre("second0@50", "first0@100", "second1@100", "second2@150",
                                           "first1@200", "second3@200"));
    first.Destroy();
    second.Destroy();
}

TEST_F(ClockTest, IdleTurnsComeWithTime)
{
    RecordingTask task;
    ASSERT_TRUE(task.Start("idler", 250));
    m_clock.Advance(milliseconds(249));
    EXPECT_EQ(task.IdleTurns(), 0U);
    m_clock.Advance(milliseconds(1));
    EXPECT_EQ(task.IdleTurns(), 1U);
    m_clock.Advance(seconds(10));
    EXPECT_EQ(task.IdleTurns(), 41U);
}

TEST_F(ClockTest, DayOfAnAlarmAMinutePassesInAMoment)
{
    RecordingTask task;
    ASSERT_TRUE(task.Start());
    std::atomic<int> fired{0};
    TCAlarm alarm;
    ASSERT_TRUE(alarm.Create(&task, 60 * 1000, TCAlarm::ENDLESS));
    alarm.SetCallbackBefore([&](const TSEvent*) {
        ++fired;
        return true;
    });
    const nanoseconds begin = RealTime();
    m_clock.Advance(hours(24));
    EXPECT_EQ(fired, 24 * 60);
    EXPECT_LT(RealTime() - begin, zor::testing::DEADLINE);
    alarm.Destroy();
}

TEST_F(ClockTest, WhatAFiringCausesHasHappenedToo)
{
    RecordingTask second;
    RecordingTask first;
    first.answer = [&](const TSEvent* /*event*/) {
        TSEvent event;
        event.receiver = &second;
        event.type = TCTask::EVENT_USER;
        return TCTask::Send(&event, false, false);
    };
    ASSERT_TRUE(second.Start("second"));
    ASSERT_TRUE(first.Start("first"));
    TSEvent event;
    event.receiver = &first;
    event.type = TCTask::EVENT_USER;
    TCTask::Send(&event, false, false);
    m_clock.Settle();
    EXPECT_THAT(first.Handled(), SizeIs(1));
    EXPECT_THAT(second.Handled(), SizeIs(1));
}

TEST_F(ClockTest, SleepersWakeWhenTheirTimeHasCome)
{
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        TCTimeWrapper::Sleep(100);
        m_story.Add("SleepMs");
    });
    threads.emplace_back([&] {
        std::this_thread::sleep_for(milliseconds(200));
        m_story.Add("sleep_for");
    });
    threads.emplace_back([&] {
        std::this_thread::sleep_until(steady_clock::now() + milliseconds(300));
        m_story.Add("sleep_until");
    });
    threads.emplace_back([&] {
        usleep(400 * 1000);
        m_story.Add("usleep");
    });
    threads.emplace_back([&] {
        sleep(1);
        m_story.Add("sleep");
    });
    m_clock.Advance(seconds(1));
    EXPECT_THAT(m_story.Get(), ElementsAre("SleepMs@100", "sleep_for@200", "sleep_until@300",
                                           "usleep@400", "sleep@1000"));
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_F(ClockTest, TimedWaitsEndByTheirDeadlineOrByNotification)
{
    std::mutex mutex;
    std::condition_variable changed;
    bool isSet = false;
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        std::unique_lock<std::mutex> lock(mutex);
        m_story.Add(changed.wait_for(lock, milliseconds(100), [&] { return isSet; }) ? "set"
                                                                                     : "not set");
    });
    threads.emplace_back([&] {
        std::unique_lock<std::mutex> lock(mutex);
        m_story.Add(changed.wait_for(lock, milliseconds(500), [&] { return isSet; }) ? "set"
                                                                                     : "not set");
    });
    m_clock.Advance(milliseconds(250));
    {
        std::lock_guard<std::mutex> lock(mutex);
        isSet = true;
    }
    changed.notify_all();
    m_clock.Settle();
    EXPECT_THAT(m_story.Get(), ElementsAre("not set@100", "set@250"));
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_F(ClockTest, SemaphoresTimeOut)
{
    TCSemaphore semaphore;
    ASSERT_TRUE(semaphore.Create(0));
    std::thread thread([&] {
        m_story.Add(semaphore.Try(300) ? "taken" : "not taken");
        m_story.Add(semaphore.Try(300) ? "taken" : "not taken");
    });
    m_clock.Advance(milliseconds(400));
    semaphore.Give();
    m_clock.Settle();
    EXPECT_THAT(m_story.Get(), ElementsAre("not taken@300", "taken@400"));
    thread.join();
    semaphore.Destroy();
}

/// A microsecond is cut off, so this many waits meet every end that whole milliseconds can have.
TEST_F(ClockTest, NoWaitOfWholeMillisecondsIsRefused)
{
    TCSemaphore semaphore;
    ASSERT_TRUE(semaphore.Create(0));
    for (int i = 0; i < 1000; ++i) {
        const nanoseconds begin = m_clock.Elapsed();
        EXPECT_FALSE(semaphore.Try(11));
        ASSERT_EQ(m_clock.Elapsed() - begin, milliseconds(11));
    }
    semaphore.Destroy();
}

TEST_F(ClockTest, FuturesTimeOut)
{
    std::promise<int> promise;
    std::future<int> future = promise.get_future();
    std::thread thread([&] {
        m_story.Add(future.wait_for(milliseconds(100)) == std::future_status::ready ? "ready"
                                                                                    : "late");
        m_story.Add(future.wait_for(milliseconds(100)) == std::future_status::ready ? "ready"
                                                                                    : "late");
    });
    m_clock.Advance(milliseconds(150));
    promise.set_value(1);
    m_clock.Settle();
    EXPECT_THAT(m_story.Get(), ElementsAre("late@100", "ready@150"));
    thread.join();
}

TEST_F(ClockTest, WaitOfTheTestMovesTheTime)
{
    RecordingTask task;
    task.GateAt(TCTask::EVENT_USER);
    ASSERT_TRUE(task.Start());
    TSEvent event;
    event.receiver = &task;
    event.type = TCTask::EVENT_USER;
    EXPECT_TRUE(TCTask::Send(&event, false, false));
    EXPECT_TRUE(task.AwaitArrival());
    EXPECT_FALSE(TCTask::Ping(&task, 5000)) << "the task is kept busy";
    EXPECT_GE(m_clock.Elapsed(), seconds(5));
    EXPECT_LT(m_clock.Elapsed(), seconds(6));
    task.OpenGate();
    EXPECT_TRUE(TCTask::Ping(&task, 5000));
}

TEST_F(ClockTest, SleepOfTheTestMovesTheTime)
{
    std::this_thread::sleep_for(hours(1));
    TCTimeWrapper::Sleep(1000);
    EXPECT_EQ(m_clock.Elapsed(), hours(1) + seconds(1));
}

TEST_F(ClockTest, EndlessWaitOfTheTestMovesTheTimeToWhatEndsIt)
{
    RecordingTask task;
    ASSERT_TRUE(task.Start());
    std::promise<void> fired;
    TCAlarm alarm;
    ASSERT_TRUE(alarm.Create(&task, 700, 1));
    alarm.SetCallbackBefore([&](const TSEvent*) {
        fired.set_value();
        return true;
    });
    fired.get_future().wait();
    EXPECT_EQ(m_clock.Elapsed(), milliseconds(700));
    alarm.Destroy();
}

TEST_F(ClockTest, PausedTaskNotifiesTheWatchdogOnceASecond)
{
    RecordingTask task;
    ASSERT_TRUE(task.Start("Paused", RecordingTask::LONG_WAIT_MSEC, 5));
    EXPECT_TRUE(task.Pause());
    const std::size_t before = zor::testing::Watchdog::Notifications("Paused");
    m_clock.Advance(seconds(10));
    EXPECT_EQ(zor::testing::Watchdog::Notifications("Paused"), before + 10);
    EXPECT_TRUE(task.ResumeAsync());
}

/// The notifier's sleep may end before.
TEST_F(ClockTest, SaysWhenTheNextDeadlineIs)
{
    TCSemaphore semaphore;
    ASSERT_TRUE(semaphore.Create(0));
    std::atomic<bool> ended{false};
    std::thread thread([&] {
        semaphore.Try(30);
        ended = true;
    });
    while (!ended) {
        const auto next = m_clock.UntilNext();
        ASSERT_TRUE(next.has_value());
        ASSERT_LE(m_clock.Elapsed() + *next, milliseconds(30));
        m_clock.Advance(*next);
    }
    EXPECT_GT(m_clock.Elapsed(), milliseconds(29)) << "less than a microsecond is cut off";
    thread.join();
    semaphore.Destroy();
}

TEST_F(ClockTest, ThreadInAFileCountsAsWaiting)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    std::thread thread([&] {
        char byte = 0;
        EXPECT_EQ(read(ends[0], &byte, 1), 1);
        m_story.Add("read");
    });
    m_clock.Advance(seconds(1));
    EXPECT_THAT(m_story.Get(), IsEmpty());
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    EXPECT_TRUE(Eventually([&] { return m_story.Get().size() == 1; }));
    EXPECT_THAT(m_story.Get(), ElementsAre("read@1000"));
    thread.join();
    close(ends[0]);
    close(ends[1]);
}

TEST_F(ClockTest, GateCanBeWaitedAt)
{
    Gate gate;
    std::thread thread([&] {
        std::this_thread::sleep_for(milliseconds(20));
        gate.Pass();
    });
    EXPECT_TRUE(gate.Wait());
    EXPECT_EQ(m_clock.Elapsed(), milliseconds(20));
    thread.join();
}

TEST_F(ClockTest, ThereIsOneAtATime)
{
    EXPECT_NONFATAL_FAILURE(Clock(), "there is another clock already");
    m_clock.Advance(seconds(1));
    EXPECT_EQ(m_clock.Elapsed(), seconds(1));
}

TEST_F(ClockTest, IsMovedForwardByItsThreadOnly)
{
    EXPECT_NONFATAL_FAILURE(m_clock.Advance(nanoseconds(-1)), "a clock is moved forward");
    EXPECT_NONFATAL_FAILURE_ON_ALL_THREADS(std::thread([&] { m_clock.Advance(seconds(1)); }).join(),
                                           "a clock is moved forward");
    EXPECT_EQ(m_clock.Elapsed(), nanoseconds(0));
}

TEST(ClockLifeTest, TakesOverThreadsThatWaitAlready)
{
    TCSemaphore semaphore;
    ASSERT_TRUE(semaphore.Create(0));
    std::atomic<bool> ended{false};
    std::thread thread([&] {
        semaphore.Try(3600UL * 1000);
        ended = true;
    });
    {
        Clock clock;
        clock.Advance(hours(1) + seconds(1));
        EXPECT_TRUE(ended);
    }
    thread.join();
    semaphore.Destroy();
}

/// The mutex is held again while the thread is unwound, as by libc's own wait.
TEST(ClockLifeTest, CancelledWaitLeavesNothingBehind)
{
    struct Waiter
    {
        pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
        pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
        std::atomic<bool> waits{false};
    } waiter;
    const auto wait = [](void* argument) -> void* {
        auto* const self = static_cast<Waiter*>(argument);
        pthread_mutex_lock(&self->mutex);
        pthread_cleanup_push(
            [](void* mutex) { pthread_mutex_unlock(static_cast<pthread_mutex_t*>(mutex)); },
            &self->mutex);
        self->waits = true;
        for (;;) {
            pthread_cond_wait(&self->condition, &self->mutex);
        }
        pthread_cleanup_pop(1);
        return nullptr;
    };
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, wait, &waiter), 0);
    ASSERT_TRUE(Eventually([&] { return waiter.waits.load(); }));
    Clock clock;
    clock.Settle();
    ASSERT_EQ(pthread_cancel(thread), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    EXPECT_EQ(pthread_mutex_trylock(&waiter.mutex), 0);
    pthread_mutex_unlock(&waiter.mutex);
    clock.Advance(seconds(1));
    EXPECT_EQ(pthread_cond_signal(&waiter.condition), 0) << "nobody waits any more";
}

TEST(ClockLifeTest, ForkedChildKnowsItsOwnThreadsOnly)
{
    TCSemaphore semaphore;
    ASSERT_TRUE(semaphore.Create(0));
    std::thread waiter([&] { semaphore.Take(); });
    const pid_t child = fork();
    if (child == 0) {
        Clock clock;
        clock.Advance(seconds(1));
        _exit(clock.Elapsed() == seconds(1) ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    semaphore.Give();
    waiter.join();
    semaphore.Destroy();
}

TEST(ClockLifeTest, TimeRunsOnWhereItStood)
{
    const auto begin = steady_clock::now();
    {
        Clock clock;
        clock.Advance(hours(1));
    }
    const auto after = steady_clock::now();
    EXPECT_GE(after - begin, hours(1));
    EXPECT_LT(after - begin, hours(2));
    EXPECT_TRUE(Eventually([&] { return steady_clock::now() > after; }));
}

TEST(ClockLifeTest, WaitsInRunningTimeEndAfterItToo)
{
    {
        Clock clock;
        clock.Advance(hours(1));
    }
    TCSemaphore semaphore;
    ASSERT_TRUE(semaphore.Create(0));
    const nanoseconds begin = RealTime();
    while (semaphore.Try(20)) { // a refused wait also answers false
    }
    std::this_thread::sleep_until(steady_clock::now() + milliseconds(20));
    std::promise<void> never;
    EXPECT_EQ(never.get_future().wait_for(milliseconds(20)), std::future_status::timeout);
    EXPECT_GE(RealTime() - begin, milliseconds(40));
    EXPECT_LT(RealTime() - begin, zor::testing::DEADLINE);
    semaphore.Destroy();
}

} // namespace
