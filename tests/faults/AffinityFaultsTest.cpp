#include <sched.h>

#include <cerrno>

#include "FaultCase.h"
#include "TaskSupport.h"

// A program in which the runtime cannot learn on how many processors it runs. It asks when it is
// loaded, before a test can arm anything.

namespace {

using namespace zortest;

int gAsked = 0;

TEST(AffinityFaultsTest, WithoutKnowingItsProcessorsTheRuntimeDoesNotWatch)
{
    const FaultCase fault("sched_getaffinity", "HasSeveralProcessors (when the library is loaded)",
                          "as on one processor: waits park at once, and everything works");
    EXPECT_EQ(gAsked, 1);
    FaultCase::Injected();
    const TaskRuntime runtime;
    TestTask task;
    ASSERT_TRUE(task.Start());
    OnAnotherThread([&task] {
        for (int i = 0; i < 1000; ++i) {
            EXPECT_TRUE(Flush(&task));
        }
    });
}

} // namespace

extern "C" int sched_getaffinity(pid_t /*process*/, size_t /*size*/,
                                 cpu_set_t* /*processors*/) noexcept
{
    ++gAsked;
    errno = EPERM;
    return -1;
}
