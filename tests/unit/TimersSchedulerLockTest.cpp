#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <system_error>
#include <vector>

#include "LogSeam.h"
#include "Seam.h"
#include "TaskSupport.h"
#include "TimersScheduler.h"

namespace zortest {

Seam<int(pthread_mutex_t*)> mutexLockSeam("pthread_mutex_lock");

} // namespace zortest

namespace {

using namespace zortest;
using std::chrono::milliseconds;

thread_local bool tFails = false;

/// The scheduler's mutex is a member of the scheduler.
bool IsInside(const pthread_mutex_t* mutex, const TCTimersScheduler& scheduler)
{
    const auto* at = reinterpret_cast<const char*>(mutex);
    const auto* begin = reinterpret_cast<const char*>(&scheduler);
    return at >= begin && at < begin + sizeof(scheduler);
}

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

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept
{
    return zortest::mutexLockSeam(mutex);
}
