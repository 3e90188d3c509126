#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "AllocationSeam.h"
#include "ConditionSeams.h"
#include "ConsoleSeam.h"
#include "FaultCase.h"
#include "LogSeam.h"
#include "RWLockSeams.h"
#include "TaskSupport.h"
#include "ThreadNames.h"
#include "ThreadSeams.h"
#include "TwoQueueTask.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;

/// The numbers of the semaphores that Create() makes, in their order.
enum Semaphore
{
    OWN_QUEUE_LOCK,
    OWN_QUEUE_COUNT,
    NOTIFY_SEMAPHORE,
    FURTHER_QUEUE_LOCK,
    FURTHER_QUEUE_COUNT,
    FIRST_NOTIFIERS_GATE,
    SECOND_NOTIFIERS_GATE = FIRST_NOTIFIERS_GATE + 3,
    START_GATE = SECOND_NOTIFIERS_GATE + 3,
    EXIT_GATE,
    PID_SYNC,
};

class MultiQTaskFaultsTest : public ::testing::Test
{
 protected:
    MultiQTaskFaultsTest() { ClearLog(); }

    /// Create() fails without semaphore @p number and leaves a task that can be created.
    void ExpectNothingStaysWithout(Semaphore number)
    {
        {
            const FailingCall refused(condInitSeam, EAGAIN, number);
            EXPECT_FALSE(m_task.Start());
            EXPECT_EQ(refused.Failed(), 1);
        }
        ExpectUndone(m_task);
        ExpectWorks();
    }

    /// Create() fails without semaphore @p number and leaves a task with remains.
    static void ExpectRemainsWithout(Semaphore number)
    {
        // The notify semaphore stays, which the task's destructor would assert.
        static auto* const kept = new std::vector<std::unique_ptr<TwoQueueTask>>;
        TwoQueueTask& task = *kept->emplace_back(std::make_unique<TwoQueueTask>());
        {
            const FailingCall refused(condInitSeam, EAGAIN, number);
            EXPECT_FALSE(task.Start());
            EXPECT_EQ(refused.Failed(), 1);
        }
        ExpectUndone(task);
    }

    /// A whole life of the task.
    void ExpectWorks()
    {
        ASSERT_TRUE(m_task.Start());
        OnAnotherThread([this] {
            EXPECT_TRUE(SendTo(&m_task, 0, true));
            EXPECT_TRUE(SendTo(&m_task, 1, true));
        });
        m_task.End();
    }

    const TaskRuntime m_runtime;
    TwoQueueTask m_task;
};

TEST_F(MultiQTaskFaultsTest, WithoutItsOwnQueueCreateFails)
{
    const FaultCase fault("pthread_cond_init", "TCMultiQTask::Create (calls 1, 2: own queue)",
                          "`Create()` is false and nothing stays; it works the next time");
    ExpectNothingStaysWithout(OWN_QUEUE_LOCK);
    ExpectNothingStaysWithout(OWN_QUEUE_COUNT);
}

TEST_F(MultiQTaskFaultsTest, WithoutTheNotifySemaphoreCreateFails)
{
    const FaultCase fault("pthread_cond_init", "TCMultiQTask::Create (call 3, notify semaphore)",
                          "`Create()` is false and nothing stays; it works the next time");
    ExpectNothingStaysWithout(NOTIFY_SEMAPHORE);
}

TEST_F(MultiQTaskFaultsTest, WithoutAFurtherQueueCreateFails)
{
    const FaultCase fault(
        "pthread_cond_init", "TCMultiQTask::Create (calls 4, 5: further queue)",
        "`Create()` is false, the own queue is undone; the notify semaphore stays "
        "created");
    ExpectRemainsWithout(FURTHER_QUEUE_LOCK);
    ExpectRemainsWithout(FURTHER_QUEUE_COUNT);
    ExpectWorks();
}

TEST_F(MultiQTaskFaultsTest, WithoutItsThreadCreateFails)
{
    const FaultCase fault("pthread_cond_init", "TCMultiQTask::Create (calls 12 to 14: thread)",
                          "`Create()` is false, notify threads, own queue and handler are undone; "
                          "further queues and the notify semaphore stay created");
    for (const Semaphore number : {START_GATE, EXIT_GATE, PID_SYNC}) {
        ExpectRemainsWithout(number);
    }
    ExpectWorks();
}

TEST_F(MultiQTaskFaultsTest, WithoutAnyOfItsNotifyThreadsCreateFails)
{
    const FaultCase fault("pthread_cond_init",
                          "TCMultiQTask::Create (calls 6 to 11: notify threads)",
                          "`Create()` is false, notify threads, own queue and handler are undone "
                          "and no hook has run; further queues and the notify semaphore stay "
                          "created");
    for (int gate = FIRST_NOTIFIERS_GATE; gate < START_GATE; ++gate) {
        ExpectRemainsWithout(static_cast<Semaphore>(gate));
    }
    EXPECT_TRUE(Eventually([] { return CountThreadsNamed("MQEventNotify") == 0; }));
    ExpectWorks();
}

/// What the process of a death test says of the assertions that failed there.
std::string Listed(const std::vector<std::string>& failed)
{
    std::string list = "failed:";
    for (const std::string& expression : failed) {
        list += " [" + expression + "]";
    }
    return list;
}

using MultiQTaskFaultsDeathTest = MultiQTaskFaultsTest;

TEST_F(MultiQTaskFaultsDeathTest, RefusedNotifyThreadIsAssertedAndNothingRuns)
{
    const FaultCase fault("pthread_create", "TCMultiQTask::Create (calls 1, 2: notify threads)",
                          "asserts \"0\", and \"FlagCreate() == false\" of what stays of the "
                          "thread; `Create()` is false, notify threads, own queue and handler are "
                          "undone");
    // In a process of its own, because what stays is lost.
    for (const int number : {0, 1}) {
        EXPECT_FAULT_EXIT(
            {
                const std::vector<std::string> failed = AssertionsOf([&] {
                    const FailingCall create(pthreadCreateSeam, EAGAIN, number);
                    EXPECT_FALSE(m_task.Start());
                });
                ExpectUndone(m_task);
                EXPECT_TRUE(Eventually([] { return CountThreadsNamed("MQEventNotify") == 0; }));
                fprintf(stderr, "%s\n", Listed(failed).c_str());
                _exit(HasFailure() ? 1 : 0);
            },
            ::testing::ExitedWithCode(0),
            ::testing::HasSubstr("failed: [0] [FlagCreate() == false]\n"));
    }
    ExpectWorks();
}

TEST_F(MultiQTaskFaultsTest, RefusedThreadIsAssertedAndUndoesQueueAndHandler)
{
    const FaultCase fault("pthread_create", "TCMultiQTask::Create (call 3, task's thread)",
                          "asserts \"0\"; `Create()` is false, notify threads, own queue and "
                          "handler are undone");
    static auto* const refused = new TwoQueueTask;
    EXPECT_THAT(AssertionsOf([] {
                    const FailingCall create(pthreadCreateSeam, EAGAIN, 2);
                    EXPECT_FALSE(refused->Start());
                }),
                ElementsAre("0"));
    ExpectUndone(*refused);
    ExpectWorks();
}

TEST_F(MultiQTaskFaultsDeathTest, FurtherQueuesMadeBeforeAFailureStay)
{
    const FaultCase fault("operator new (nothrow)", "TCMultiQTask::Create (second further queue)",
                          "`Create()` is false, the own queue is undone; the first further queue "
                          "and the notify semaphore stay created");
    // In a process of its own, because what stays is lost.
    EXPECT_FAULT_EXIT(
        {
            constexpr int SECOND_FURTHER_QUEUE = FURTHER_QUEUE_COUNT + 1;
            const FailingCall noMemory(nothrowNewSeam, nullptr, SECOND_FURTHER_QUEUE);
            EXPECT_FALSE(m_task.Create("multi", WAIT_MSEC, TEST_STACK_SIZE, 3, 0));
            ExpectUndone(m_task);
            _exit(HasFailure() ? 1 : 0);
        },
        ::testing::ExitedWithCode(0), ::testing::_);
}

// Sends.

TEST_F(MultiQTaskFaultsTest, SynchronousSendWithoutItsReplyIsFalse)
{
    const FaultCase fault("operator new (nothrow)", "TCMultiQTask::m_Send (synchronous)",
                          "`Send()` is false and nothing is queued");
    ASSERT_TRUE(m_task.Start());
    {
        const FailingCall noMemory(nothrowNewSeam, nullptr);
        EXPECT_FALSE(SendTo(&m_task, 1, true));
    }
    EXPECT_EQ(m_task.Size(1), 0u);
    OnAnotherThread([this] { EXPECT_TRUE(SendTo(&m_task, 1, true)); });
    m_task.End();
}

TEST_F(MultiQTaskFaultsTest, TableOfQueuesThatCannotBeReadIsThrown)
{
    const FaultCase fault("pthread_rwlock_rdlock", "TCMultiQTask::m_Send, TCMultiQTask::Size",
                          "std::system_error; nothing is queued");
    ASSERT_TRUE(m_task.Start());
    {
        const FailingCall deadlock(rdlockSeam, EDEADLK, EACH);
        EXPECT_THROW(SendTo(&m_task, 1, true), std::system_error);
        EXPECT_THROW(SendTo(&m_task, 1, false), std::system_error);
        EXPECT_THROW(m_task.Size(1), std::system_error);
    }
    EXPECT_EQ(m_task.Size(1), 0u);
    OnAnotherThread([this] { EXPECT_TRUE(SendTo(&m_task, 1, true)); });
    m_task.End();
}

TEST_F(MultiQTaskFaultsDeathTest, TableOfQueuesThatCannotBeWrittenIsThrown)
{
    const FaultCase fault("pthread_rwlock_wrlock", "TCMultiQTask::Create",
                          "std::system_error; the own queue is undone, the further queue and the "
                          "notify semaphore stay created");
    // In a process of its own, because what stays is lost.
    EXPECT_FAULT_EXIT(
        {
            const FailingCall deadlock(wrlockSeam, EDEADLK);
            EXPECT_THROW(m_task.Start(), std::system_error);
            ExpectUndone(m_task);
            _exit(HasFailure() ? 1 : 0);
        },
        ::testing::ExitedWithCode(0), ::testing::_);
}

} // namespace
