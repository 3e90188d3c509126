#include <pthread.h>
#include <sys/prctl.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <system_error>

#include "Alarm.h"
#include "AllocationSeam.h"
#include "ConditionSeams.h"
#include "ConsoleSeam.h"
#include "DiagnosticSeams.h"
#include "FaultCase.h"
#include "LogRecord.h"
#include "LogSeam.h"
#include "TaskSupport.h"
#include "ThreadSeams.h"
#include "TimersScheduler.h"

namespace {

using namespace zortest;
using std::chrono::milliseconds;
using ::testing::Contains;
using ::testing::ElementsAre;

constexpr unsigned long LONG_INTERVAL = 600 * 1000;

/// An alarm that keeps the numbers of its firings and the name of its thread.
class TestAlarm : public TCAlarm
{
 public:
    ~TestAlarm() override { EndAlarm(this); }

    bool t_OnAlarm(const TSEvent* event) override
    {
        trace.Add(std::to_string(event->param2));
        return true;
    }

    Trace trace;
};

class AlarmFaultsTest : public ::testing::Test
{
 protected:
    AlarmFaultsTest()
    {
        ClearLog();
        EXPECT_TRUE(m_task.Start());
    }

    /// The alarm fires, and the task's queue is free.
    void ExpectWorks()
    {
        OnAnotherThread([this] {
            ASSERT_TRUE(m_alarm.Create(&m_task, 10, 2));
            EXPECT_TRUE(m_alarm.trace.WaitFor(2));
            EndAlarm(&m_alarm);
            EXPECT_TRUE(Flush(&m_task));
        });
        EXPECT_THAT(m_alarm.trace.Get(), ElementsAre("0", "1"));
    }

    const TaskRuntime m_runtime;
    TestTask m_task;
    TestAlarm m_alarm;
};

TEST_F(AlarmFaultsTest, WithoutAnySemaphoreCreateFails)
{
    const FaultCase fault("pthread_cond_init", "TCAlarm::Create (calls 1 to 5)",
                          "`Create()` is false and the alarm is not created; it works the next "
                          "time");
    for (int number = 0; number < 5; ++number) {
        const FailingCall refused(condInitSeam, EAGAIN, number);
        EXPECT_FALSE(m_alarm.Create(&m_task, 10, 1)) << number;
        EXPECT_FALSE(m_alarm.FlagCreate());
        EXPECT_EQ(refused.Failed(), 1);
    }
    ExpectWorks();
}

TEST_F(AlarmFaultsTest, WithoutMemoryForAnySemaphoreCreateFails)
{
    const FaultCase fault("operator new (nothrow)", "TCAlarm::Create (calls 1 to 5)",
                          "`Create()` is false and the alarm is not created; it works the next "
                          "time");
    for (int number = 0; number < 5; ++number) {
        const FailingCall noMemory(nothrowNewSeam, nullptr, number);
        EXPECT_FALSE(m_alarm.Create(&m_task, 10, 1)) << number;
        EXPECT_FALSE(m_alarm.FlagCreate());
        EXPECT_EQ(noMemory.Failed(), 1);
    }
    ExpectWorks();
}

TEST_F(AlarmFaultsTest, RefusedThreadIsAsserted)
{
    const FaultCase fault("pthread_create", "TCAlarm::Create",
                          "asserts \"0\"; `Create()` is false and the alarm is not created");
    // Of a thread that never was a semaphore stays, which its destructor would assert.
    static auto* const refused = new TestAlarm;
    EXPECT_THAT(AssertionsOf([this] {
                    const FailingCall create(pthreadCreateSeam, EAGAIN);
                    EXPECT_FALSE(refused->Create(&m_task, 10, 1));
                }),
                ElementsAre("0"));
    EXPECT_FALSE(refused->FlagCreate());
    ExpectWorks();
}

TEST_F(AlarmFaultsTest, UnknownCreatorIsLeftOutOfTheThreadsName)
{
    const FaultCase fault("prctl", "TCAlarm::Create (PR_GET_NAME)",
                          "the alarm's thread is called \"TCAlarm:\"");
    Trace given; // the names that threads take
    {
        const Takeover refused(prctlSeam, [&](int option, unsigned long one, unsigned long two) {
            if (option == PR_SET_NAME) {
                given.Add(reinterpret_cast<const char*>(one));
            }
            if (option != PR_GET_NAME) {
                return prctlSeam.Real(option, one, two);
            }
            FaultCase::Injected();
            return -1;
        });
        ASSERT_TRUE(m_alarm.Create(&m_task, LONG_INTERVAL, 1));
        m_alarm.Destroy();
    }
    EXPECT_THAT(given.Get(), Contains("TCAlarm:"));
    ExpectWorks();
}

TEST_F(AlarmFaultsTest, IntervalWithoutAClockIsOverAtOnce)
{
    const FaultCase fault("clock_gettime", "TCAlarm::t_Main",
                          "the interval is over at once: the alarm fires as often as it was told "
                          "to without a pause, and can be reset and destroyed");
    const Takeover noClock(clockGettimeSeam, [](clockid_t id, timespec* now) {
        char name[16] = "";
        pthread_getname_np(pthread_self(), name, sizeof(name));
        if (std::string(name).rfind("TCAlarm:", 0) != 0) {
            return clockGettimeSeam.Real(id, now);
        }
        FaultCase::Injected();
        return -1;
    });
    ASSERT_TRUE(m_alarm.Create(&m_task, LONG_INTERVAL, 2));
    EXPECT_TRUE(m_alarm.trace.WaitFor(2));
    m_alarm.Reset(LONG_INTERVAL, 1);
    EXPECT_TRUE(m_alarm.trace.WaitFor(3));
    m_alarm.Destroy();
    EXPECT_THAT(m_alarm.trace.Get(), ElementsAre("0", "1", "0"));
}

// Timers.

class TimerFaultsTest : public ::testing::Test
{
 protected:
    TimerFaultsTest() { EXPECT_TRUE(m_task.Start()); }

    /// Makes a timer that fires once, on another thread, and waits for it.
    void ExpectFires()
    {
        const int before = m_handler.Handled();
        OnAnotherThread([this] {
            EXPECT_NE(m_scheduler.CreateTimer(milliseconds(10), 1, EventTo(&m_handler)),
                      TCTimersScheduler::INVALID_TIMER_ID);
        });
        EXPECT_TRUE(Eventually([this, before] { return m_handler.Handled() == before + 1; }));
    }

    const TaskRuntime m_runtime;
    TestTask m_task;
    FunctionHandler m_handler{[](const TSEvent*) { return true; }, &m_task};
    TCTimersScheduler m_scheduler;
};

TEST_F(TimerFaultsTest, SchedulerWithoutItsThreadThrowsAndTriesAgainTheNextTime)
{
    const FaultCase fault("pthread_create", "TCTimersScheduler::CreateTimer",
                          "std::system_error, there is no timer; the next call tries again");
    {
        const FailingCall create(pthreadCreateSeam, EAGAIN);
        EXPECT_THROW(m_scheduler.CreateTimer(milliseconds(10), 1, EventTo(&m_handler)),
                     std::system_error);
    }
    ExpectFires();
}

TEST_F(TimerFaultsTest, SchedulerWithoutItsNameLogsItAndFires)
{
    const FaultCase fault("pthread_setname_np", "TCTimersScheduler::m_TimersSchedulerThread",
                          "logged as by TCThreadUtil::SetCurrentThreadName; timers fire");
    const LogRecord record;
    const FailingCall refused(setnameSeam, ERANGE, 0, From::ANYWHERE);
    ExpectFires();
    ASSERT_GE(record.Get().size(), 1u);
    EXPECT_TRUE(Eventually([&record] {
        for (const LogEntry& entry : record.Get()) {
            if (entry.text == "TimersScheduler" && entry.flag) {
                return true;
            }
        }
        return false;
    }));
}

TEST_F(TimerFaultsTest, RefusedWaitForTheNextTimerIsBegunAgain)
{
    const FaultCase fault("pthread_cond_clockwait", "TCTimersScheduler::m_TimersSchedulerThread",
                          "the wait is begun again; no timer fires before its time");
    const FailingCall refused(condClockwaitSeam, EINVAL, 0, From::ANYWHERE);
    // A timer that is due soon needs no wait on a busy machine: it is so before its thread looks.
    const std::size_t distant =
        m_scheduler.CreateTimer(milliseconds(LONG_INTERVAL), 1, EventTo(&m_handler));
    EXPECT_TRUE(Eventually([&refused] { return refused.Failed() == 1; }));
    // Its wait is in the seam's hands, which are needed again at the end.
    EXPECT_TRUE(m_scheduler.DestroyTimer(distant));
    const auto begin = std::chrono::steady_clock::now();
    ExpectFires();
    EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(10));
}

} // namespace
