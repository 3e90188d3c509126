#include "WatchdogNotifier.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ConditionSeams.h"
#include "ConsoleSeam.h"
#include "LogSeam.h"
#include "TaskAppDataSeam.h"
#include "TaskSeams.h"
#include "TaskSupport.h"

namespace zortest {

/// The stack size that a thread is asked for, which the system may refuse.
Seam<int(pthread_attr_t*, std::size_t)> stackSizeSeam("pthread_attr_setstacksize");

} // namespace zortest

extern "C" int pthread_attr_setstacksize(pthread_attr_t* attributes, std::size_t size) noexcept
{
    return zortest::stackSizeSeam(attributes, size);
}

namespace {

using namespace zortest;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// The notifier's sleep, which ends when the test says so.
class DrivenSleep
{
 public:
    DrivenSleep() : m_takeover(sleepMsSeam, [this](unsigned long msec) { Sleep(msec); }) {}
    ~DrivenSleep() { Stop(); }

    /// Waits until the notifier sleeps.
    bool WaitForSleep()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, DEADLINE, [this] { return m_asleep; });
    }

    /// Lets the sleep end and waits until the sweep that follows it is over.
    bool Sweep()
    {
        if (!WaitForSleep()) {
            return false;
        }
        Wake();
        return WaitForSleep();
    }

    /// Lets the sleep that is under way end.
    void Wake()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_asleep = false;
        m_changed.notify_all();
    }

    /// Lets sleeps end until @p condition holds.
    bool WakeUntil(const std::function<bool()>& condition)
    {
        return Eventually([&] {
            Wake();
            return condition();
        });
    }

    /// From now on no sleep lasts.
    void Stop()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopped = true;
        m_changed.notify_all();
    }

    std::vector<unsigned long> Sleeps() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_sleeps;
    }

 private:
    void Sleep(unsigned long msec)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_sleeps.push_back(msec);
        m_asleep = true;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_stopped || !m_asleep; });
    }

    mutable std::mutex m_mutex; ///< guards the rest
    std::condition_variable m_changed;
    std::vector<unsigned long> m_sleeps;
    bool m_asleep = false;
    bool m_stopped = false;
    Takeover<void(unsigned long)> m_takeover;
};

/// No notifier yet; a service that notes who notifies it.
class WatchdogNotifierTest : public ::testing::Test
{
 protected:
    WatchdogNotifierTest() { ClearLog(); }

    const TaskRuntime m_runtime;
    FakeWatchdog m_watchdog;
    DrivenSleep m_sleep;
};

TEST_F(WatchdogNotifierTest, InstanceIsThereFromInitToExit)
{
    TCWatchdogNotifier::Init();
    TCWatchdogNotifier* const notifier = TCWatchdogNotifier::Instance();
    ASSERT_NE(notifier, nullptr);
    EXPECT_TRUE(notifier->FlagCreate());
    EXPECT_EQ(TCWatchdogNotifier::Instance(), notifier);
    m_sleep.Stop();
    TCWatchdogNotifier::Exit();
    EXPECT_THAT(LogLines(), IsEmpty());
    EXPECT_THAT(AssertionsOf([] { EXPECT_EQ(TCWatchdogNotifier::Instance(), nullptr); }),
                ElementsAre("m_pInstance"));
}

TEST_F(WatchdogNotifierTest, CanBeMadeAgain)
{
    for (int round = 0; round < 3; ++round) {
        TCWatchdogNotifier::Init();
        EXPECT_TRUE(m_sleep.Sweep());
        Caller exiter([] { TCWatchdogNotifier::Exit(); });
        EXPECT_TRUE(exiter.Blocks());
        EXPECT_TRUE(m_sleep.WakeUntil([&] { return exiter.IsDone(); }));
    }
}

TEST_F(WatchdogNotifierTest, NotifierWhoseThreadCannotBeMadeIsTakenDownAllTheSame)
{
    {
        const ConditionWatch watch(0); // of the thread's start gate
        TCWatchdogNotifier::Init();
    }
    ASSERT_NE(TCWatchdogNotifier::Instance(), nullptr);
    EXPECT_FALSE(TCWatchdogNotifier::Instance()->FlagCreate());
    TCWatchdogNotifier::Exit();
    EXPECT_THAT(AssertionsOf([] { EXPECT_EQ(TCWatchdogNotifier::Instance(), nullptr); }),
                ElementsAre("m_pInstance"));
}

TEST_F(WatchdogNotifierTest, SecondInitAssertsPrintsAndKeepsTheFirst)
{
    TCWatchdogNotifier::Init();
    TCWatchdogNotifier* const first = TCWatchdogNotifier::Instance();
    EXPECT_THAT(AssertionsOf([] { TCWatchdogNotifier::Init(); }),
                ElementsAre("m_pInstance == __null"));
    EXPECT_EQ(CountLogLines("> ASSERT!, Func:Init\n"), 1u);
    EXPECT_EQ(TCWatchdogNotifier::Instance(), first);
    m_sleep.Stop();
    TCWatchdogNotifier::Exit();
}

TEST_F(WatchdogNotifierTest, InstanceWithoutInitAssertsAndPrints)
{
    EXPECT_THAT(AssertionsOf([] { EXPECT_EQ(TCWatchdogNotifier::Instance(), nullptr); }),
                ElementsAre("m_pInstance"));
    EXPECT_EQ(CountLogLines("> ASSERT!, Func:Instance\n"), 1u);
}

TEST_F(WatchdogNotifierTest, ExitWithoutInitAssertsAndPrints)
{
    EXPECT_THAT(AssertionsOf([] { TCWatchdogNotifier::Exit(); }),
                ElementsAre("m_pInstance != __null"));
    EXPECT_EQ(CountLogLines("> ASSERT!, Func:Exit\n"), 1u);
}

using WatchdogNotifierDeathTest = WatchdogNotifierTest;

TEST_F(WatchdogNotifierDeathTest, SecondInitAsserts)
{
    TCWatchdogNotifier::Init();
    EXPECT_ASSERT_DEATH(TCWatchdogNotifier::Init(), "m_pInstance == __null");
    m_sleep.Stop();
    TCWatchdogNotifier::Exit();
}

TEST_F(WatchdogNotifierDeathTest, InstanceWithoutInitAsserts)
{
    EXPECT_ASSERT_DEATH(TCWatchdogNotifier::Instance(), "m_pInstance");
}

TEST_F(WatchdogNotifierDeathTest, ExitWithoutInitAsserts)
{
    EXPECT_ASSERT_DEATH(TCWatchdogNotifier::Exit(), "m_pInstance != __null");
}

TEST_F(WatchdogNotifierTest, ThreadIsNamedAndAskedForItsStackSize)
{
    std::vector<std::size_t> sizes;
    {
        const Takeover stackSize(stackSizeSeam, [&](pthread_attr_t* attributes, std::size_t size) {
            sizes.push_back(size);
            return stackSizeSeam.Real(attributes, size);
        });
        TCWatchdogNotifier::Init();
    }
    EXPECT_THAT(sizes, ElementsAre(4096u));
    EXPECT_TRUE(m_sleep.WaitForSleep());
    char name[16] = "";
    EXPECT_EQ(pthread_getname_np(TCWatchdogNotifier::Instance()->Id(), name, sizeof(name)), 0);
    EXPECT_STREQ(name, "WatchdogNotifie"); // as much as a thread's name holds
    m_sleep.Stop();
    TCWatchdogNotifier::Exit();
}

/// A running notifier, swept when the test says so.
class WatchdogSweepTest : public WatchdogNotifierTest
{
 protected:
    WatchdogSweepTest() { TCWatchdogNotifier::Init(); }

    ~WatchdogSweepTest() override
    {
        m_sleep.Stop();
        TCWatchdogNotifier::Exit();
    }

    static bool Supervise(TestTask* task, const char* name)
    {
        return task->Start(name, LONG_WAIT_MSEC, 7);
    }

    /// Does one sweep.
    /// @return the names of the tasks that notified, once @p flushed have handled their pings
    std::vector<std::string> NotifiersOfASweep(const std::vector<TestTask*>& flushed)
    {
        const std::size_t before = m_watchdog.Notifiers().size();
        EXPECT_TRUE(m_sleep.Sweep());
        for (TestTask* task : flushed) {
            EXPECT_TRUE(Flush(task));
        }
        std::vector<std::string> notifiers = m_watchdog.Notifiers();
        notifiers.erase(notifiers.begin(), notifiers.begin() + static_cast<std::ptrdiff_t>(before));
        return notifiers;
    }
};

TEST_F(WatchdogSweepTest, SleepsTwoSecondsBeforeEverySweep)
{
    TestTask task;
    ASSERT_TRUE(Supervise(&task, "task"));
    EXPECT_TRUE(m_sleep.WaitForSleep());
    EXPECT_TRUE(Flush(&task));
    EXPECT_THAT(m_watchdog.Notifiers(), IsEmpty()); // the sleep comes first
    EXPECT_TRUE(m_sleep.Sweep());
    EXPECT_TRUE(m_sleep.Sweep());
    EXPECT_THAT(m_sleep.Sleeps(), ElementsAre(2000u, 2000u, 2000u));
}

TEST_F(WatchdogSweepTest, EmptyRegistryEndsEverySweepAtOnce)
{
    for (int sweep = 0; sweep < 3; ++sweep) {
        EXPECT_TRUE(m_sleep.Sweep());
    }
    EXPECT_THAT(m_sleep.Sleeps(), ElementsAre(2000u, 2000u, 2000u, 2000u));
    EXPECT_THAT(m_watchdog.Notifiers(), IsEmpty());
}

TEST_F(WatchdogSweepTest, EverySupervisedTaskIsPingedOncePerSweep)
{
    TestTask one;
    TestTask two;
    ASSERT_TRUE(Supervise(&one, "one"));
    ASSERT_TRUE(Supervise(&two, "two"));
    EXPECT_TRUE(Flush(&one)); // their loops run
    EXPECT_TRUE(Flush(&two));
    for (int sweep = 0; sweep < 3; ++sweep) {
        EXPECT_THAT(NotifiersOfASweep({&one, &two}), ::testing::UnorderedElementsAre("one", "two"));
    }
}

TEST_F(WatchdogSweepTest, TaskWithoutWatchdogTimeIsNotPinged)
{
    TestTask unsupervised;
    TestTask supervised;
    ASSERT_TRUE(unsupervised.Start("unsupervised"));
    ASSERT_TRUE(Supervise(&supervised, "supervised"));
    EXPECT_TRUE(Flush(&unsupervised));
    EXPECT_TRUE(Flush(&supervised));
    Hold hold(&unsupervised);
    EXPECT_THAT(NotifiersOfASweep({&supervised}), ElementsAre("supervised"));
    EXPECT_EQ(unsupervised.Size(), 0u);
}

TEST_F(WatchdogSweepTest, TaskWhoseLoopHasNotStartedIsNotPinged)
{
    Gate start;
    TestTask task;
    task.onCreate = [&] { return start.Wait(); };
    ASSERT_TRUE(Supervise(&task, "task"));
    EXPECT_TRUE(m_sleep.Sweep());
    EXPECT_EQ(task.Size(), 0u);
    start.Pass();
    EXPECT_TRUE(Flush(&task));
    EXPECT_THAT(NotifiersOfASweep({&task}), ElementsAre("task"));
}

TEST_F(WatchdogSweepTest, TaskWhoseLoopHasEndedIsNotPinged)
{
    Gate ended;
    TestTask task;
    task.onDestroy = [&] { ended.Pass(); };
    ASSERT_TRUE(Supervise(&task, "task"));
    EXPECT_TRUE(Post(&task, TCTask::EVENT_EXIT));
    ASSERT_TRUE(ended.Wait());
    EXPECT_TRUE(m_sleep.Sweep());
    EXPECT_EQ(task.Size(), 0u);
    EXPECT_THAT(m_watchdog.Notifiers(), IsEmpty());
}

TEST_F(WatchdogSweepTest, TaskWhoseCreateHookFailedIsNotPinged)
{
    std::atomic<bool> called{false};
    TestTask task;
    task.onCreate = [&] {
        called = true;
        return false;
    };
    ASSERT_TRUE(Supervise(&task, "task"));
    EXPECT_TRUE(Eventually([&] { return called.load(); }));
    EXPECT_TRUE(m_sleep.Sweep());
    EXPECT_EQ(task.Size(), 0u);
}

TEST_F(WatchdogSweepTest, BusyTaskIsPingedWithoutWaiting)
{
    TestTask busy;
    TestTask free;
    ASSERT_TRUE(Supervise(&busy, "busy"));
    ASSERT_TRUE(Supervise(&free, "free"));
    EXPECT_TRUE(Flush(&free));
    Hold hold(&busy);
    EXPECT_THAT(NotifiersOfASweep({&free}), ElementsAre("free"));
    EXPECT_THAT(NotifiersOfASweep({&free}), ElementsAre("free"));
    EXPECT_EQ(busy.Size(), 2u); // each sweep's ping, without a promise
    TSEvent ping;
    EXPECT_TRUE(busy.Get(&ping, &busy, TCTask::EVENT_PING));
    EXPECT_EQ(ping.wrappedData, nullptr);
}

TEST_F(WatchdogSweepTest, PausedTaskIsSkippedWithALine)
{
    TestTask paused;
    TestTask running;
    ASSERT_TRUE(Supervise(&paused, "paused"));
    ASSERT_TRUE(Supervise(&running, "running"));
    EXPECT_TRUE(Flush(&running));
    ASSERT_TRUE(paused.Pause());
    const LogRecord record;
    EXPECT_TRUE(m_sleep.Sweep());
    EXPECT_TRUE(Flush(&running));
    EXPECT_THAT(PauseLines(record),
                Contains("false 4 [pause_resume] Task is on pause skip sending ping.").Times(1));
    EXPECT_THAT(m_watchdog.Notifiers(), Contains("running"));
    EXPECT_EQ(paused.Size(), 0u);
    ASSERT_TRUE(paused.ResumeAsync());
}

/// Keeps the notifier where it logs that it skips a paused task: outside the registry's lock, with
/// its sweep half done.
class HaltedSweep : public IZORLogger
{
 public:
    HaltedSweep(Gate* reached, Gate* release, pthread_t notifier)
        : m_reached(reached), m_release(release), m_notifier(notifier)
    {}

    void ZORLog(bool /*flag*/, log_priority /*priority*/, const char* /*tag*/, const char* /*file*/,
                const char* /*prettyFunction*/, const char* /*function*/, int /*scope*/,
                int /*classBegin*/, int /*classEnd*/, int /*functionBegin*/, int /*functionEnd*/,
                int /*line*/, const char* /*fmt*/, va_list* /*args*/) override
    {
        if (pthread_equal(m_notifier, pthread_self())) {
            m_reached->Pass();
            EXPECT_TRUE(m_release->Wait());
        }
    }

    const std::string& GetLoggerId() const override
    {
        static const std::string id = "halted sweep";
        return id;
    }

 private:
    Gate* const m_reached;
    Gate* const m_release;
    const pthread_t m_notifier;
};

/// Changes the registry in the middle of a sweep, after its first task, which is paused.
class WatchdogHaltedSweepTest : public WatchdogSweepTest
{
 protected:
    WatchdogHaltedSweepTest()
    {
        EXPECT_TRUE(Supervise(&m_first, "first"));
        EXPECT_TRUE(m_first.Pause());
        for (TestTask* task : {&m_second, &m_third}) {
            EXPECT_TRUE(Supervise(task, task == &m_second ? "second" : "third"));
            EXPECT_TRUE(Flush(task));
        }
    }

    /// @return who notified because of a sweep during which @p change was made
    std::vector<std::string> NotifiersOfASweepWith(const std::function<void()>& change)
    {
        EXPECT_TRUE(m_sleep.WaitForSleep());
        const std::size_t before = m_watchdog.Notifiers().size();
        ZORLogs::getInstance()->AddPlugin(std::make_unique<HaltedSweep>(
            &m_reached, &m_release, TCWatchdogNotifier::Instance()->Id()));
        m_sleep.Wake();
        EXPECT_TRUE(m_reached.Wait());
        change();
        m_release.Pass();
        EXPECT_TRUE(m_sleep.WaitForSleep());
        ZORLogs::getInstance()->RemovePlugin("halted sweep");
        for (TestTask* task : {&m_second, &m_third, &m_fourth}) {
            EXPECT_TRUE(!task->FlagCreate() || Flush(task));
        }
        std::vector<std::string> notifiers = m_watchdog.Notifiers();
        notifiers.erase(notifiers.begin(), notifiers.begin() + static_cast<std::ptrdiff_t>(before));
        return notifiers;
    }

    Gate m_reached;
    Gate m_release;
    TestTask m_first;
    TestTask m_second;
    TestTask m_third;
    TestTask m_fourth;
};

TEST_F(WatchdogHaltedSweepTest, RegistryIsFreeDuringAPing)
{
    EXPECT_THAT(NotifiersOfASweepWith([this] { EXPECT_TRUE(IsRegistered(&m_third)); }),
                ::testing::UnorderedElementsAre("second", "third"));
    EXPECT_TRUE(m_first.ResumeAsync());
}

TEST_F(WatchdogHaltedSweepTest, TaskRegisteredMeanwhileIsPinged)
{
    const auto change = [this] {
        EXPECT_TRUE(Supervise(&m_fourth, "fourth"));
        EXPECT_TRUE(Flush(&m_fourth));
    };
    EXPECT_THAT(NotifiersOfASweepWith(change),
                ::testing::UnorderedElementsAre("second", "third", "fourth"));
    EXPECT_TRUE(m_first.ResumeAsync());
}

TEST_F(WatchdogHaltedSweepTest, TaskThatMovesUpMeanwhileIsPassedOver)
{
    EXPECT_THAT(NotifiersOfASweepWith([this] { m_first.End(); }), ElementsAre("third"));
    EXPECT_THAT(NotifiersOfASweep({&m_second, &m_third}),
                ::testing::UnorderedElementsAre("second", "third")); // not in the next sweep
}

TEST_F(WatchdogSweepTest, SweepGoesInTheRegistrysOrder)
{
    TestTask tasks[3];
    const char* const names[] = {"one", "two", "three"};
    for (int i : {0, 1, 2}) {
        ASSERT_TRUE(Supervise(&tasks[i], names[i]));
        EXPECT_TRUE(Flush(&tasks[i]));
    }
    tasks[0].End();
    ASSERT_TRUE(Supervise(&tasks[0], "one")); // now the youngest
    EXPECT_TRUE(Flush(&tasks[0]));

    // Every ping but the first waits until the one before it has been handled.
    std::size_t pings = 0;
    const Takeover getAppData(getAppDataSeam,
                              [&, notifier = TCWatchdogNotifier::Instance()->Id()](
                                  const TCDebugPrint* self) -> const TSAppData& {
                                  if (pthread_equal(notifier, pthread_self())) {
                                      EXPECT_TRUE(m_watchdog.WaitForNotifications(pings++));
                                  }
                                  return getAppDataSeam.Real(self);
                              });
    EXPECT_THAT(NotifiersOfASweep({&tasks[0], &tasks[1], &tasks[2]}),
                ElementsAre("two", "three", "one"));
    EXPECT_EQ(pings, 3u);
}

TEST_F(WatchdogNotifierTest, ExitWaitsForTheSleepAndTheSweepThatFollows)
{
    TestTask task;
    ASSERT_TRUE(task.Start("task", LONG_WAIT_MSEC, 7));
    EXPECT_TRUE(Flush(&task));
    TCWatchdogNotifier::Init();
    EXPECT_TRUE(m_sleep.WaitForSleep());
    Caller exiter([] { TCWatchdogNotifier::Exit(); });
    EXPECT_TRUE(exiter.Blocks());
    EXPECT_TRUE(m_sleep.WakeUntil([&] { return exiter.IsDone(); }));
    EXPECT_TRUE(Flush(&task));
    EXPECT_THAT(m_watchdog.Notifiers(), ElementsAre("task"));
    EXPECT_THAT(m_sleep.Sleeps(), ElementsAre(2000u));
}

} // namespace
