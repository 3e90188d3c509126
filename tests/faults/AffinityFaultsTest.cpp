#include <sched.h>

#include <atomic>
#include <cerrno>
#include <ctime>

#include "ConditionSeams.h"
#include "FaultCase.h"
#include "TaskSupport.h"

// A program in which the runtime cannot learn on how many processors it runs, and cannot yield the
// one that it takes for the only one. It asks when it is loaded, before a test can arm anything.

namespace {

using namespace zortest;

int gAsked = 0;
std::atomic<int> gYields{0};

/// Calls that block their thread until a task has handled them.
void CallATask()
{
    const TaskRuntime runtime;
    TestTask task;
    ASSERT_TRUE(task.Start());
    OnAnotherThread([&task] {
        for (int i = 0; i < 1000; ++i) {
            EXPECT_TRUE(Flush(&task));
        }
    });
}

TEST(AffinityFaultsTest, WithoutKnowingItsProcessorsTheRuntimeDoesNotWatch)
{
    const FaultCase fault("sched_getaffinity", "CountProcessors (when the library is loaded)",
                          "as on one processor: nothing is watched, and everything works");
    EXPECT_EQ(gAsked, 1);
    FaultCase::Injected();
    CallATask();
}

TEST(AffinityFaultsTest, YieldThatIsRefusedIsAYieldInVain)
{
    const FaultCase fault("sched_yield", "Patience::Yield", "the wait parks, and everything works");
    // Only a process that keeps its processor busy yields it.
    const Takeover busy(clockGettimeSeam, [](clockid_t id, timespec* now) {
        return clockGettimeSeam.Real(id == CLOCK_PROCESS_CPUTIME_ID ? CLOCK_MONOTONIC : id, now);
    });
    for (int i = 0; i < 100 && gYields == 0; ++i) {
        CallATask();
    }
    if (gYields > 0) {
        FaultCase::Injected();
    }
}

} // namespace

extern "C" int sched_getaffinity(pid_t /*process*/, size_t /*size*/,
                                 cpu_set_t* /*processors*/) noexcept
{
    ++gAsked;
    errno = EPERM;
    return -1;
}

extern "C" int sched_yield() noexcept
{
    ++gYields;
    errno = ENOSYS;
    return -1;
}
