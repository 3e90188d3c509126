#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <mutex>
#include <vector>

#include "ConditionSeams.h"
#include "LogSeam.h"
#include "TaskSeams.h"
#include "TaskSupport.h"

namespace {

using namespace zortest;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Ge;

constexpr char WAITING[] = "true 4 [pause_resume] resume_future waiting";

/// Whether the calling thread is that of a task in its pause. Only there may a reading of the clock
/// be held up: when the task waits for events it reads the clock with the semaphores' mutex held.
thread_local bool tInPause = false;

void MarkPauses(TestTask* task)
{
    task->onPause = [](const TSEvent*) { tInPause = true; };
    task->onResume = [](const TSEvent*) { tInPause = false; };
}

/// Lets the waits of one thread end one by one, when the test says so: what the thread reads from
/// the clock when it works out the end of a wait is a second old, so the wait is over already.
class SteppedWaits
{
 public:
    explicit SteppedWaits(pthread_t thread)
        : m_thread(thread), m_takeover(clockGettimeSeam, [this](clockid_t id, timespec* now) {
              const bool over = id == CLOCK_MONOTONIC && tInPause &&
                                pthread_equal(m_thread, pthread_self()) && TakeStep();
              const int result = clockGettimeSeam.Real(id, now);
              now->tv_sec -= over ? 2 : 0;
              return result;
          })
    {}

    ~SteppedWaits() { Stop(); }

    /// Lets the wait that is under way, or the next one, end.
    void Step()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_steps;
        m_changed.notify_all();
    }

    /// From now on waits take their time.
    void Stop()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopped = true;
        m_changed.notify_all();
    }

    /// How many waits have begun.
    int Begun() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_begun;
    }

 private:
    bool TakeStep()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        ++m_begun;
        m_changed.wait(lock, [this] { return m_stopped || m_steps > 0; });
        if (m_stopped) {
            return false;
        }
        --m_steps;
        return true;
    }

    const pthread_t m_thread;
    mutable std::mutex m_mutex; ///< guards the rest
    std::condition_variable m_changed;
    int m_steps = 0;
    int m_begun = 0;
    bool m_stopped = false;
    Takeover<int(clockid_t, timespec*)> m_takeover;
};

/// A paused task whose waits of a second end when the test says so.
class PauseWaitTest : public ::testing::Test
{
 protected:
    PauseWaitTest()
    {
        MarkPauses(&m_task);
        EXPECT_TRUE(m_task.Start("paused", LONG_WAIT_MSEC, 7));
    }

    /// Lets wait @p number end, from 1, and waits until the next one begins.
    static void EndWait(SteppedWaits* waits, int number)
    {
        waits->Step();
        EXPECT_TRUE(Eventually([=] { return waits->Begun() == number + 1; }));
    }

    std::size_t WaitingLines() const
    {
        const std::vector<std::string> lines = PauseLines(m_record);
        return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), WAITING));
    }

    const TaskRuntime m_runtime;
    const LogRecord m_record;
    FakeWatchdog m_watchdog;
    TestTask m_task;
};

TEST_F(PauseWaitTest, FeedsTheWatchdogAfterEveryWaitAndLogsEveryFifth)
{
    SteppedWaits waits(m_task.Id());
    ASSERT_TRUE(m_task.Pause());
    for (int second = 1; second <= 12; ++second) {
        EndWait(&waits, second);
        EXPECT_EQ(m_watchdog.Notifiers().size(), static_cast<std::size_t>(second));
        EXPECT_EQ(WaitingLines(), second < 6 ? 1u : second < 11 ? 2u : 3u) << second;
    }
    EXPECT_TRUE(m_task.IsPaused());
    Caller resumer([this] { EXPECT_TRUE(m_task.ResumeAsync()); });
    EXPECT_TRUE(resumer.Blocks()); // the promise is set before the wait under way can end
    waits.Stop();
    resumer.Join();
    EXPECT_EQ(m_watchdog.Notifiers().size(), 12u);
    EXPECT_EQ(WaitingLines(), 3u);
    EXPECT_THAT(m_watchdog.Notifiers(), Each("paused"));
}

TEST_F(PauseWaitTest, EveryPauseCountsItsWaitsAnew)
{
    for (int round = 1; round <= 2; ++round) {
        SteppedWaits waits(m_task.Id());
        ASSERT_TRUE(m_task.Pause());
        EndWait(&waits, 1);
        EndWait(&waits, 2);
        EXPECT_EQ(WaitingLines(), static_cast<std::size_t>(round));
        Caller resumer([this] { EXPECT_TRUE(m_task.ResumeAsync()); });
        EXPECT_TRUE(resumer.Blocks());
        waits.Stop();
        resumer.Join();
        EXPECT_TRUE(Flush(&m_task));
    }
}

TEST_F(PauseWaitTest, FeedsTheWatchdogOfATaskWithoutWatchdogTimeToo)
{
    TestTask task;
    MarkPauses(&task);
    ASSERT_TRUE(task.Start("other"));
    SteppedWaits waits(task.Id());
    ASSERT_TRUE(task.Pause());
    EndWait(&waits, 1);
    EXPECT_THAT(m_watchdog.Notifiers(), ElementsAre("other"));
    Caller resumer([&] { EXPECT_TRUE(task.ResumeAsync()); });
    EXPECT_TRUE(resumer.Blocks());
    waits.Stop();
    resumer.Join();
}

TEST_F(PauseWaitTest, FailedNotificationPrintsEveryTimeAndThePauseGoesOn)
{
    m_watchdog.notifyResult = -1;
    ClearLog();
    SteppedWaits waits(m_task.Id());
    ASSERT_TRUE(m_task.Pause());
    EndWait(&waits, 1);
    EndWait(&waits, 2);
    EXPECT_EQ(CountLogLines("> Unable to notify watchdog service\n"), 2u);
    EXPECT_TRUE(m_task.IsPaused());
    m_watchdog.notifyResult = 0;
    EndWait(&waits, 3);
    EXPECT_EQ(CountLogLines("> Unable to notify watchdog service\n"), 2u);
    Caller resumer([this] { EXPECT_TRUE(m_task.ResumeAsync()); });
    EXPECT_TRUE(resumer.Blocks());
    waits.Stop();
    resumer.Join();
}

TEST_F(PauseWaitTest, ResumeWithinTheFirstSecondFeedsAndLogsNothing)
{
    SteppedWaits waits(m_task.Id());
    ASSERT_TRUE(m_task.Pause());
    EXPECT_TRUE(Eventually([&] { return waits.Begun() == 1; }));
    Caller resumer([this] { EXPECT_TRUE(m_task.ResumeAsync()); });
    EXPECT_TRUE(resumer.Blocks());
    waits.Stop();
    resumer.Join();
    EXPECT_EQ(m_watchdog.Notifiers().size(), 0u);
    EXPECT_EQ(WaitingLines(), 0u);
}

/// In real time, for three seconds.
TEST(PauseSlowTest, WaitsLastASecondEach)
{
    using Clock = std::chrono::steady_clock;
    constexpr std::size_t FEEDS = 3;
    // Two of them stand a little apart at most from what they measure.
    constexpr std::chrono::milliseconds LEAST(990);

    const TaskRuntime runtime;
    const LogRecord record;
    TestTask task;
    ASSERT_TRUE(task.Start());
    std::mutex mutex; // guards the times
    std::vector<Clock::time_point> feeds;
    const Takeover notify(watchdogNotifySeam, [&] {
        std::lock_guard<std::mutex> lock(mutex);
        feeds.push_back(Clock::now());
        return 0;
    });
    const Clock::time_point start = Clock::now();
    ASSERT_TRUE(task.Pause());
    EXPECT_TRUE(Eventually([&] {
        std::lock_guard<std::mutex> lock(mutex);
        return feeds.size() >= FEEDS;
    }));
    ASSERT_TRUE(task.ResumeAsync());
    EXPECT_TRUE(Flush(&task));

    std::vector<std::chrono::milliseconds> gaps;
    Clock::time_point previous = start;
    for (const Clock::time_point feed : feeds) {
        gaps.push_back(std::chrono::duration_cast<std::chrono::milliseconds>(feed - previous));
        previous = feed;
    }
    EXPECT_THAT(gaps, Each(Ge(LEAST)));
    EXPECT_THAT(PauseLines(record), Contains(WAITING));
}

} // namespace
