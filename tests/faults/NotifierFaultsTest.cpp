#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "AllocationSeam.h"
#include "ConditionSeams.h"
#include "ConsoleSeam.h"
#include "FaultCase.h"
#include "LogSeam.h"
#include "TaskSupport.h"
#include "ThreadSeams.h"
#include "WatchdogNotifier.h"

namespace {

using namespace zortest;

class NotifierFaultsTest : public ::testing::Test
{
 protected:
    NotifierFaultsTest() { ClearLog(); }

    /// One entry says what the lack of the thread means.
    static void ExpectTold()
    {
        const std::vector<LogLine> lines =
            LogLinesWith("supervised tasks will be reported as hung");
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].priority, DLOG_FATAL);
        ClearLog();
    }

    const TaskRuntime m_runtime;
    // The thread of the instance that is made in the end has nothing to wait for.
    const Takeover<void(unsigned long)> m_sleep{sleepMsSeam,
                                                [](unsigned long) { sleepMsSeam.Real(1); }};
};

TEST_F(NotifierFaultsTest, WithoutAnySemaphoreThereIsNoThread)
{
    const FaultCase fault("pthread_cond_init", "TCWatchdogNotifier::Init (calls 1 to 3)",
                          "there is an instance without a thread, which is logged at FATAL; "
                          "`Exit()` removes it");
    for (int number = 0; number < 3; ++number) {
        {
            const FailingCall refused(condInitSeam, EAGAIN, number);
            TCWatchdogNotifier::Init();
            EXPECT_EQ(refused.Failed(), 1);
        }
        ExpectTold();
        EXPECT_FALSE(TCWatchdogNotifier::Instance()->FlagCreate());
        TCWatchdogNotifier::Exit();
    }
    TCWatchdogNotifier::Init();
    EXPECT_TRUE(TCWatchdogNotifier::Instance()->FlagCreate());
    TCWatchdogNotifier::Exit();
}

TEST_F(NotifierFaultsTest, WithoutMemoryForAnySemaphoreThereIsNoThread)
{
    const FaultCase fault("operator new (nothrow)", "TCWatchdogNotifier::Init (calls 1 to 3)",
                          "there is an instance without a thread, which is logged at FATAL; "
                          "`Exit()` removes it");
    for (int number = 0; number < 3; ++number) {
        const FailingCall noMemory(nothrowNewSeam, nullptr, number);
        TCWatchdogNotifier::Init();
        EXPECT_FALSE(TCWatchdogNotifier::Instance()->FlagCreate());
        TCWatchdogNotifier::Exit();
        ExpectTold();
    }
}

using NotifierFaultsDeathTest = NotifierFaultsTest;

TEST_F(NotifierFaultsDeathTest, RefusedThreadIsAssertedAtInitAndAtExit)
{
    const FaultCase fault(
        "pthread_create", "TCWatchdogNotifier::Init",
        "asserts \"0\", logged at FATAL; there is an instance without a thread, of which "
        "`Exit()` asserts \"FlagCreate() == false\"");
    // In a process of its own, because what stays of the thread is lost.
    EXPECT_FAULT_EXIT(
        {
            const std::vector<std::string> failed = AssertionsOf([] {
                {
                    const FailingCall create(pthreadCreateSeam, EAGAIN);
                    TCWatchdogNotifier::Init();
                }
                EXPECT_FALSE(TCWatchdogNotifier::Instance()->FlagCreate());
                TCWatchdogNotifier::Exit();
            });
            EXPECT_THAT(failed, ::testing::ElementsAre("0", "FlagCreate() == false"));
            _exit(HasFailure() ? 1 : 0);
        },
        ::testing::ExitedWithCode(0), ::testing::_);
}

} // namespace
