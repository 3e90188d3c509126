#include <cerrno>
#include <chrono>
#include <functional>
#include <system_error>

#include "FaultCase.h"
#include "LogSeam.h"
#include "MutexSeams.h"
#include "TaskSupport.h"
#include "TimersScheduler.h"
#include "TwoQueueTask.h"

// Mutexes that cannot be locked: those of the standard library, which throw, and the one below all
// semaphores when it is in use.

namespace {

using namespace zortest;
using std::chrono::milliseconds;

/// Makes the calling thread's locking of the mutexes inside an object fail while it lives.
class UnlockableInside
{
 public:
    template <typename Object>
    explicit UnlockableInside(const Object* object)
        : m_takeover(mutexLockSeam, [object, thread = pthread_self()](pthread_mutex_t* mutex) {
              if (!pthread_equal(thread, pthread_self()) || !IsInside(mutex, *object)) {
                  return mutexLockSeam.Real(mutex);
              }
              FaultCase::Injected();
              return EAGAIN;
          })
    {}

 private:
    Takeover<int(pthread_mutex_t*)> m_takeover;
};

/// The error that @p function throws; 0 if it throws none.
int ErrorOf(const std::function<void()>& function)
{
    try {
        function();
    } catch (const std::system_error& error) {
        return error.code().value();
    }
    return 0;
}

class LockFaultsTest : public ::testing::Test
{
 protected:
    LockFaultsTest() { ClearLog(); }

    const TaskRuntime m_runtime;
    TestTask m_task;
};

TEST_F(LockFaultsTest, SchedulerThrowsAndDoesNothing)
{
    const FaultCase fault("pthread_mutex_lock", "TCTimersScheduler (every operation)",
                          "std::system_error; nothing is done or logged, and it works the next "
                          "time");
    ASSERT_TRUE(m_task.Start());
    FunctionHandler handler([](const TSEvent*) { return true; }, &m_task);
    TCTimersScheduler scheduler;
    const std::size_t id = scheduler.CreateTimer(milliseconds(600000), 1, EventTo(&handler));
    ClearLog();
    {
        const UnlockableInside fails(&scheduler);
        const TSEvent event = EventTo(&handler);
        EXPECT_EQ(ErrorOf([&] { scheduler.CreateTimer(milliseconds(10), 1, event); }), EAGAIN);
        EXPECT_EQ(ErrorOf([&] { scheduler.ResetTimer(id, milliseconds(10), 1); }), EAGAIN);
        EXPECT_EQ(ErrorOf([&] { scheduler.PauseTimer(id); }), EAGAIN);
        EXPECT_EQ(ErrorOf([&] { scheduler.ResumeTimer(id); }), EAGAIN);
        EXPECT_EQ(ErrorOf([&] { scheduler.DestroyTimer(id); }), EAGAIN);
    }
    EXPECT_EQ(CountLogLines("Id["), 0u);
    OnAnotherThread([&] {
        EXPECT_TRUE(scheduler.PauseTimer(id));
        EXPECT_TRUE(scheduler.DestroyTimer(id));
    });
}

TEST_F(LockFaultsTest, PauseAndResumeThrowAndDoNothing)
{
    const FaultCase fault("pthread_mutex_lock",
                          "TCTask::Pause, TCTask::ResumeAsync, TCTask::IsPaused",
                          "std::system_error; the task is neither paused nor resumed, and it works "
                          "the next time");
    ASSERT_TRUE(m_task.Start());
    const auto expectThrown = [this] {
        const UnlockableInside fails(&m_task);
        EXPECT_EQ(ErrorOf([this] { m_task.Pause(); }), EAGAIN);
        EXPECT_EQ(ErrorOf([this] { m_task.ResumeAsync(); }), EAGAIN);
        EXPECT_EQ(ErrorOf([this] { m_task.IsPaused(); }), EAGAIN);
    };
    expectThrown();
    OnAnotherThread([this] {
        EXPECT_FALSE(m_task.IsPaused());
        EXPECT_TRUE(m_task.Pause());
    });
    expectThrown();
    OnAnotherThread([this] {
        EXPECT_TRUE(m_task.IsPaused());
        EXPECT_TRUE(m_task.ResumeAsync());
        EXPECT_TRUE(Flush(&m_task));
    });
}

TEST_F(LockFaultsTest, MutexOfTheSemaphoresIsWaitedForWhenTriesFail)
{
    const FaultCase fault("pthread_mutex_trylock", "TCSemaphore (every operation)",
                          "after six tries the mutex is waited for");
    TCSemaphore semaphore;
    ASSERT_TRUE(semaphore.Create(1));
    {
        const FailingCall inUse(mutexTrylockSeam, EBUSY, EACH);
        EXPECT_TRUE(semaphore.Try(0));
        EXPECT_EQ(inUse.Failed(), 6);
        semaphore.Give();
        EXPECT_EQ(inUse.Failed(), 12);
    }
    OnAnotherThread([&] { EXPECT_TRUE(semaphore.Try(0)); });
    semaphore.Destroy();
}

} // namespace
