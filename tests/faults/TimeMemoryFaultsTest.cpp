#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Alarm.h"
#include "AllocationFault.h"
#include "TCDebugPrint.h"
#include "TaskSupport.h"
#include "Timer.h"
#include "TwoQueueTask.h"

// Allocations that fail in what stands on tasks: several queues, alarms, timers, recorded sends.

namespace {

using namespace zortest;
using std::chrono::milliseconds;

// Several queues.

class MultiQMemoryFaultsTest : public ::testing::Test
{
 protected:
    ~MultiQMemoryFaultsTest() override { TCDebugPrintZOR::GetInstance()->SetAppData("", 0); }

    const TaskRuntime m_runtime;
    std::unique_ptr<TwoQueueTask> m_task = std::make_unique<TwoQueueTask>();
};

TEST_F(MultiQMemoryFaultsTest, TaskIsNotCreatedAndHasNoThread)
{
    const FaultCase fault("operator new", "TCMultiQTask::Create (each allocation)",
                          "std::bad_alloc or false; own queue and handler are undone and there is "
                          "no thread; once they are made the notify semaphore and further queues "
                          "stay");
    // What stays of some would be asserted by their destructor.
    static auto* const kept = new std::vector<std::unique_ptr<TwoQueueTask>>;
    FailEachAllocation([&] { return m_task->Start(); },
                       [&] {
                           ExpectUndone(*m_task);
                           kept->push_back(std::move(m_task));
                           m_task = std::make_unique<TwoQueueTask>();
                       });
    OnAnotherThread([this] {
        EXPECT_TRUE(SendTo(m_task.get(), 0, true));
        EXPECT_TRUE(SendTo(m_task.get(), 1, true));
    });
    m_task->End();
}

TEST_F(MultiQMemoryFaultsTest, SendsThrowAndQueueNothing)
{
    const FaultCase fault("operator new", "TCMultiQTask::Send (each allocation)",
                          "std::bad_alloc or false; nothing is queued and no queue is locked");
    ASSERT_TRUE(m_task->Start());
    TCDebugPrintZOR::GetInstance()->SetAppData("an application with a long name", 7);
    const auto flush = [this] {
        OnAnotherThread([this] { EXPECT_TRUE(SendTo(m_task.get(), 1, true)); });
    };
    for (const bool sync : {false, true}) {
        FailEachAllocation([&] { return SendTo(m_task.get(), 1, sync); },
                           [&] {
                               EXPECT_EQ(m_task->Size(1), 0u);
                               flush();
                           });
        flush();
    }
    m_task->End();
}

TEST_F(MultiQMemoryFaultsTest, ClearQueueThrowsAndLocksNothing)
{
    const FaultCase fault("operator new", "TCMultiQTask::ClearQueue (each allocation)",
                          "std::bad_alloc; the registry is not locked and no request stays");
    ASSERT_TRUE(m_task->Start());
    FailEachAllocation(
        [&] { return TCMultiQTask::ClearQueue(m_task.get(), 1, LONG_WAIT_MSEC); },
        [&] {
            EXPECT_EQ(m_task->Size(0), 0u);
            OnAnotherThread(
                [&] { EXPECT_TRUE(TCMultiQTask::ClearQueue(m_task.get(), 1, LONG_WAIT_MSEC)); });
        });
    m_task->End();
}

// Alarms.

TEST(AlarmMemoryFaultsTest, AlarmIsNotCreated)
{
    const FaultCase fault("operator new", "TCAlarm::Create (each allocation)",
                          "`Create()` is false and the alarm is not created; its other operations "
                          "allocate nothing");
    const TaskRuntime runtime;
    TestTask task;
    ASSERT_TRUE(task.Start());
    TCAlarm alarm;
    FailEachAllocation([&] { return alarm.Create(&task, LONG_WAIT_MSEC, 1); },
                       [&] {
                           EXPECT_FALSE(alarm.FlagCreate());
                           OnAnotherThread([&] { EXPECT_TRUE(Flush(&task)); });
                       });
    const auto callback = [](const TSEvent*, const void*) { return true; };
    const AllocationFault noMemory(0);
    EXPECT_TRUE(alarm.SetEventCallback(TCAlarm::EVENT_ALARM, callback, callback, nullptr));
    alarm.Stop();
    alarm.RestartAfterStop();
    alarm.Reset(LONG_WAIT_MSEC, 1);
    alarm.Destroy();
    EXPECT_FALSE(noMemory.HasHappened());
}

// Timers.

class CountingListener : public ITimerListener
{
 public:
    bool OnTimer(const TSEvent*, void*) override { return ++firings > 0; }

    std::atomic<int> firings{0};
};

class TimerMemoryFaultsTest : public ::testing::Test
{
 protected:
    TimerMemoryFaultsTest()
    {
        EXPECT_TRUE(m_task.Start());
        m_params.task = &m_task;
        m_params.listener = m_listener;
        m_params.userDataRelease = [this](void*) {
            ++m_releases;
            m_releasedBy = pthread_self();
        };
    }

    ~TimerMemoryFaultsTest() override { TCDebugPrintZOR::GetInstance()->SetAppData("", 0); }

    /// A timer can be made and fires, whatever thread asks for it.
    void ExpectAnotherWorks()
    {
        const int before = m_listener->firings;
        OnAnotherThread([this] {
            TCTimer timer(m_params);
            const int firings = m_listener->firings;
            EXPECT_TRUE(timer.Restart(milliseconds(10), 1));
            EXPECT_TRUE(Eventually([&] { return m_listener->firings > firings; }));
        });
        EXPECT_TRUE(Flush(&m_task));
        EXPECT_EQ(m_listener->firings, before + 1);
    }

    const TaskRuntime m_runtime;
    TestTask m_task;
    const std::shared_ptr<CountingListener> m_listener = std::make_shared<CountingListener>();
    std::atomic<int> m_releases{0}; ///< of the user's data
    std::atomic<pthread_t> m_releasedBy{0};
    ITimer::TimerHandlerParams m_params;
};

TEST_F(TimerMemoryFaultsTest, TimerIsNotMadeAndTheSchedulerGoesOn)
{
    const FaultCase fault("operator new", "TCTimer::TCTimer (each allocation)",
                          "std::bad_alloc; there is no timer, the listener is let go and the "
                          "user's data is released, the scheduler is not locked");
    std::optional<TCTimer> timer;
    int released = 0;
    FailEachAllocation(
        [&] {
            timer.emplace(m_params);
            return true;
        },
        [&] {
            EXPECT_FALSE(timer.has_value());
            EXPECT_EQ(m_releases, ++released);
            EXPECT_TRUE(pthread_equal(m_releasedBy, pthread_self()));
            EXPECT_EQ(m_listener.use_count(), 2); // the test's and that of its parameters
            ExpectAnotherWorks();
            EXPECT_EQ(m_releases, ++released);
        });
    timer.reset();
    EXPECT_TRUE(Flush(&m_task));
}

TEST_F(TimerMemoryFaultsTest, PauseThrowsAndTheTimerRunsOn)
{
    const FaultCase fault("operator new", "TCTimersScheduler::PauseTimer",
                          "std::bad_alloc; the timer runs on, and can be paused the next time; "
                          "resetting and resuming allocate nothing");
    TCTimer timer(m_params);
    EXPECT_TRUE(timer.Restart(milliseconds(LONG_WAIT_MSEC), 1));
    FailEachAllocation([&] { return timer.Pause(); }, [&] { ExpectAnotherWorks(); });
    const int before = m_listener->firings;
    {
        const AllocationFault noMemory(0);
        EXPECT_TRUE(timer.Restart(milliseconds(10), 1)); // still paused
        EXPECT_TRUE(timer.Resume());
        EXPECT_FALSE(noMemory.HasHappened());
    }
    EXPECT_TRUE(Eventually([&] { return m_listener->firings == before + 1; }));
}

TEST_F(TimerMemoryFaultsTest, TimerIsStoppedWithoutMemoryAndItsHandlerDiesOnTheTasksThread)
{
    const FaultCase fault("operator new", "TCTimer::~TCTimer",
                          "the handler goes to the task without the event that should bring it, "
                          "and dies on the task's thread as always");
    pthread_t taskThread{};
    m_task.onUser = [&](const TSEvent*) {
        taskThread = pthread_self();
        return true;
    };
    EXPECT_TRUE(Post(&m_task));
    EXPECT_TRUE(Flush(&m_task));
    std::optional<TCTimer> timer(m_params);
    {
        const AllocationFault noMemory(0); // and none is needed
        timer.reset();
        EXPECT_FALSE(noMemory.HasHappened());
    }
    EXPECT_TRUE(Flush(&m_task));
    EXPECT_EQ(m_releases, 1);

    timer.emplace(m_params);
    // So long a name that the event would have to allocate it.
    TCDebugPrintZOR::GetInstance()->SetAppData("an application with a long name", 7);
    {
        const AllocationFault noMemory(0);
        timer.reset();
        EXPECT_TRUE(noMemory.HasHappened());
    }
    OnAnotherThread([this] { EXPECT_TRUE(Flush(&m_task)); });
    EXPECT_TRUE(Eventually([this] { return m_releases == 2; }));
    EXPECT_TRUE(pthread_equal(m_releasedBy, taskThread));
}

TEST_F(TimerMemoryFaultsTest, TimersAreStoppedWhileNoMemoryIsLeftAtAll)
{
    const FaultCase fault("operator new", "TCTimer::~TCTimer (every allocation)",
                          "the handlers are listed in the task, which needs no memory, and die on "
                          "its thread as always");
    constexpr int TIMERS = 3;
    std::vector<TCTimer> timers;
    for (int i = 0; i < TIMERS; ++i) {
        timers.emplace_back(m_params);
    }
    // So long a name that each event would have to allocate it.
    TCDebugPrintZOR::GetInstance()->SetAppData("an application with a long name", 7);
    {
        const AllocationFault noMemory(0, AllocationFault::ALL_FOLLOWING);
        timers.clear();
        EXPECT_TRUE(noMemory.HasHappened());
    }
    OnAnotherThread([this] { EXPECT_TRUE(Flush(&m_task)); });
    EXPECT_TRUE(Eventually([this] { return m_releases == TIMERS; }));
    EXPECT_FALSE(pthread_equal(m_releasedBy, pthread_self()));
}

// Recorded sends, in a process of their own: recording is switched on by its environment.

using RecordMemoryFaultsDeathTest = MultiQMemoryFaultsTest;

TEST_F(RecordMemoryFaultsDeathTest, RecordedSendsAreMadeWithoutTheirRecords)
{
    const FaultCase fault("operator new", "TCTask::Send, TCMultiQTask::Send (recorded)",
                          "the event is sent without its record, and the next send describes the "
                          "call");
    const std::string path = ::testing::TempDir() + "zor-faults-" + std::to_string(getpid());
    setenv("ZOR_RECORD", path.c_str(), 1);
    setenv("ZOR_RECORD_SIZE", "64K", 1);
    EXPECT_FAULT_EXIT(
        {
            const auto failEach = [](const std::function<bool()>& send) {
                int number = 0;
                for (bool happened = true; happened; ++number) {
                    const AllocationFault noMemory(number);
                    EXPECT_TRUE(send());
                    happened = noMemory.HasHappened();
                }
                EXPECT_GT(number, 3); // of which the last has described the call
                return number;
            };
            std::atomic<int> handled{0};
            TestTask task;
            task.onUser = [&handled](const TSEvent*) { return ++handled > 0; };
            EXPECT_TRUE(task.Start());
            TSEvent event = EventTo(&task);
            event.flag = true;
            const int sent = failEach([&event] { return TCTask::Send(&event, false, false); });
            EXPECT_TRUE(Flush(&task));
            EXPECT_EQ(handled, sent);
            EXPECT_TRUE(m_task->Start());
            event.receiver = m_task.get();
            failEach([&event] { return TCMultiQTask::Send(&event, false, false, 1); });
            OnAnotherThread([&] { EXPECT_TRUE(TCMultiQTask::Send(&event, true, false, 1)); });
            m_task->End();
            task.End();
            _exit(HasFailure() ? 1 : 0);
        },
        ::testing::ExitedWithCode(0), ::testing::_);
    unsetenv("ZOR_RECORD");
    unsetenv("ZOR_RECORD_SIZE");
    EXPECT_EQ(unlink(path.c_str()), 0);
}

} // namespace
