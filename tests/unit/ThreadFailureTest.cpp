#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "AllocationSeam.h"
#include "ConditionSeams.h"
#include "ConsoleSeam.h"
#include "LogRecord.h"
#include "LogSeam.h"
#include "TestThread.h"
#include "ThreadSeams.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

constexpr int START_GATE = 0;
constexpr int EXIT_GATE = 1;
constexpr int PID_SYNC = 2;

/// What stops a semaphore from being created.
enum class Lack
{
    MEMORY,
    CONDITION,
};

/// A thread one of whose semaphores cannot be created.
class ThreadSemaphoreFailureTest : public ::testing::TestWithParam<Lack>
{
 protected:
    ThreadSemaphoreFailureTest() { ClearLog(); }

    /// What Create() does when semaphore @p number cannot be created.
    /// @return the numbers of the semaphores that it destroyed
    std::vector<int> CreateWithout(int number)
    {
        const ConditionWatch watch(GetParam() == Lack::CONDITION ? number : ConditionWatch::NONE);
        std::optional<FailingAllocation> noMemory;
        if (GetParam() == Lack::MEMORY) {
            noMemory.emplace(number);
        }
        int threads = 0;
        const Takeover create(pthreadCreateSeam,
                              [&](pthread_t*, const pthread_attr_t*, ThreadEntry, void*) {
                                  ++threads;
                                  return EAGAIN;
                              });
        EXPECT_FALSE(m_thread.Create("worker", TEST_STACK_SIZE));
        EXPECT_EQ(threads, 0);
        EXPECT_FALSE(m_thread.FlagCreate());
        return watch.Destroyed();
    }

    void ExpectCreateWorksNow()
    {
        EXPECT_TRUE(m_thread.Create("worker", TEST_STACK_SIZE));
        m_thread.Destroy();
    }

    const LogRecord m_record;
    TestThread m_thread;
};

TEST_P(ThreadSemaphoreFailureTest, WithoutStartGateCreateFails)
{
    EXPECT_THAT(CreateWithout(START_GATE), IsEmpty());
    EXPECT_THAT(LogLines(), IsEmpty());
    ExpectCreateWorksNow();
}

TEST_P(ThreadSemaphoreFailureTest, WithoutExitGateCreateFailsAndDestroysTheStartGate)
{
    EXPECT_THAT(CreateWithout(EXIT_GATE), ElementsAre(START_GATE));
    EXPECT_THAT(LogLines(), IsEmpty());
    ExpectCreateWorksNow();
}

TEST_P(ThreadSemaphoreFailureTest, WithoutPidSyncCreateFailsAndDestroysBothGates)
{
    EXPECT_THAT(CreateWithout(PID_SYNC), ElementsAre(START_GATE, EXIT_GATE));
    ExpectCreateWorksNow();
}

TEST_P(ThreadSemaphoreFailureTest, WithoutPidSyncAPromotedFatalEntryIsLogged)
{
    CreateWithout(PID_SYNC);

    const std::string message = "[QLN]: ERROR: TCThread::Create() : m_pidSync Create Error";
    const std::vector<LogEntry> entries = m_record.Get();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_TRUE(entries[0].flag);
    EXPECT_EQ(entries[0].priority, 7);
    EXPECT_EQ(entries[0].tag, "ZOR_CORE");
    EXPECT_EQ(entries[0].text, message);

    const std::vector<LogLine> lines = LogLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, 7);
    EXPECT_THAT(lines[0].text, EndsWith("TCThread::Create] >> " + message));
}

INSTANTIATE_TEST_SUITE_P(LackOf, ThreadSemaphoreFailureTest,
                         ::testing::Values(Lack::MEMORY, Lack::CONDITION), [](const auto& info) {
                             return info.param == Lack::MEMORY ? "Memory" : "Condition";
                         });

/// A thread that the system refuses to make. It cannot be destroyed without an assertion.
class ThreadRefusedTest : public ::testing::Test
{
 protected:
    ~ThreadRefusedTest() override { TakeANewThread(); }

    /// Puts the thread away for good.
    void TakeANewThread()
    {
        static auto* const kept = new std::vector<std::unique_ptr<TestThread>>;
        kept->push_back(std::move(m_thread));
        m_thread = std::make_unique<TestThread>();
    }

    /// Calls Create() as in a release build, with pthread_create() answering @p error.
    void CreateRefused(int error)
    {
        const Takeover create(pthreadCreateSeam, [error](pthread_t*, const pthread_attr_t*,
                                                         ThreadEntry, void*) { return error; });
        m_failed = AssertionsOf([this] { m_created = m_thread->Create("worker", 512); });
    }

    std::unique_ptr<TestThread> m_thread = std::make_unique<TestThread>();
    std::vector<std::string> m_failed;
    bool m_created = true;
};

TEST_F(ThreadRefusedTest, CreateFailsAndAssertsZero)
{
    CreateRefused(EAGAIN);
    EXPECT_FALSE(m_created);
    EXPECT_FALSE(m_thread->FlagCreate());
    EXPECT_THAT(m_failed, ElementsAre("0"));
}

TEST_F(ThreadRefusedTest, ErrorNumberGoesToStandardError)
{
    CaptureStderr();
    CreateRefused(EAGAIN);
    EXPECT_EQ(GetCapturedStderr(), "TCThread not created: errno = 11\n");

    TakeANewThread();
    CaptureStderr();
    CreateRefused(EPERM);
    EXPECT_EQ(GetCapturedStderr(), "TCThread not created: errno = 1\n");
}

TEST_F(ThreadRefusedTest, GatesAreDestroyedAndPidSyncIsLeft)
{
    const ConditionWatch watch;
    CreateRefused(EAGAIN);
    EXPECT_EQ(watch.Made(), 3);
    EXPECT_THAT(watch.Destroyed(), ElementsAre(START_GATE, EXIT_GATE));
}

TEST_F(ThreadRefusedTest, AttributesAreDestroyed)
{
    const int before = AttributesDestroyed();
    CreateRefused(EAGAIN);
    EXPECT_EQ(AttributesDestroyed(), before + 1);
}

using ThreadRefusedDeathTest = ThreadRefusedTest;

TEST_F(ThreadRefusedDeathTest, CreateAssertsZero)
{
    const Takeover create(pthreadCreateSeam, [](pthread_t*, const pthread_attr_t*, ThreadEntry,
                                                void*) { return EAGAIN; });
    EXPECT_ASSERT_DEATH(m_thread->Create("worker", TEST_STACK_SIZE), "0");
}

TEST_F(ThreadRefusedDeathTest, PidSyncThatIsLeftAssertsAtTheNextCreate)
{
    CreateRefused(EAGAIN);
    EXPECT_ASSERT_DEATH(m_thread->Create("worker", TEST_STACK_SIZE), "FlagCreate() == false");
}

TEST_F(ThreadRefusedDeathTest, PidSyncThatIsLeftAssertsAtDestruction)
{
    CreateRefused(EAGAIN);
    EXPECT_ASSERT_DEATH(m_thread.reset(), "FlagCreate() == false");
}

} // namespace
