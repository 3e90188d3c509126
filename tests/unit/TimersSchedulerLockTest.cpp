#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <system_error>
#include <vector>

#include "LogSeam.h"
#include "MutexSeams.h"
#include "TaskSupport.h"
#include "TimersScheduler.h"

namespace {

using namespace zortest;
using std::chrono::milliseconds;

thread_local bool tFails = false;

TEST(TimersSchedulerLockTest, MutexThatCannotBeLockedIsThrownAsASystemError)
{
    const TaskRuntime runtime;
    TestTask task;
    ASSERT_TRUE(task.Start());
    FunctionHandler handler([](const TSEvent*) { return true; }, &task);
    TCTimersScheduler scheduler;
    const std::size_t id = scheduler.CreateTimer(milliseconds(600000), 1, EventTo(&handler));
    ClearLog();
    const std::vector<std::function<void()>> operations = {
        [&] { scheduler.CreateTimer(milliseconds(10), 1, EventTo(&handler)); },
        [&] { scheduler.ResetTimer(id, milliseconds(10), 1); },
        [&] { scheduler.PauseTimer(id); },
        [&] { scheduler.ResumeTimer(id); },
        [&] { scheduler.DestroyTimer(id); },
    };
    {
        const Takeover take(mutexLockSeam, [&](pthread_mutex_t* mutex) {
            return tFails && IsInside(mutex, scheduler) ? EAGAIN : mutexLockSeam.Real(mutex);
        });
        for (const auto& operation : operations) {
            int error = 0;
            tFails = true;
            try {
                operation();
            } catch (const std::system_error& failure) {
                error = failure.code().value();
            }
            tFails = false;
            EXPECT_EQ(error, EAGAIN);
        }
    }
    EXPECT_EQ(CountLogLines("Id["), 0u); // nothing has been done
    EXPECT_TRUE(scheduler.PauseTimer(id));
    EXPECT_EQ(scheduler.CreateTimer(milliseconds(10), 0, EventTo(&handler)), id + 1);
}

} // namespace
