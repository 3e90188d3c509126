#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <functional>
#include <mutex>
#include <ostream>
#include <thread>
#include <vector>

#include "ConditionSeams.h"
#include "Layout.h"
#include "TestThread.h"
#include "ThreadSeams.h"
#include "Wait.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int PID_SYNC = 2;

/// One call of setpriority().
struct Call
{
    int which;
    int who;
    int niceness;

    bool operator==(const Call& other) const
    {
        return which == other.which && who == other.who && niceness == other.niceness;
    }
};

std::ostream& operator<<(std::ostream& stream, const Call& call)
{
    return stream << "setpriority(" << call.which << ", " << call.who << ", " << call.niceness
                  << ")";
}

int KernelId()
{
    return static_cast<int>(syscall(SYS_gettid));
}

/// A thread, and the system's answer to setpriority().
class ThreadPriorityTest : public ::testing::Test
{
 protected:
    ThreadPriorityTest()
        : m_body([this] {
              m_kernelId = KernelId();
              m_inBody.Pass();
              m_end.Wait();
          }),
          m_thread([this] { m_body(); }),
          m_setpriority(setprioritySeam, [this](__priority_which_t which, id_t who, int niceness) {
              std::lock_guard<std::mutex> lock(m_mutex);
              m_calls.push_back({static_cast<int>(which), static_cast<int>(who), niceness});
              errno = EACCES;
              return m_answer.load();
          })
    {}

    ~ThreadPriorityTest() override
    {
        m_end.Pass();
        if (m_thread.FlagCreate()) {
            m_thread.Destroy();
        }
    }

    /// Starts the thread and waits until it is in its body.
    void StartThread()
    {
        ASSERT_TRUE(m_thread.Create("worker", TEST_STACK_SIZE));
        ASSERT_TRUE(m_inBody.Wait());
    }

    std::vector<Call> Calls()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }

    std::atomic<int> m_kernelId{0};
    std::atomic<int> m_answer{0}; ///< of setpriority()
    Gate m_inBody;
    Gate m_end;
    std::function<void()> m_body; ///< changed while there is no thread only
    TestThread m_thread;

 private:
    std::mutex m_mutex;
    std::vector<Call> m_calls; ///< guarded by m_mutex
    Takeover<int(__priority_which_t, id_t, int)> m_setpriority;
};

TEST_F(ThreadPriorityTest, CodesAreNicenessOfTheKernelThread)
{
    StartThread();
    EXPECT_TRUE(m_thread.SetPriority(0));
    EXPECT_TRUE(m_thread.SetPriority(1));
    EXPECT_TRUE(m_thread.SetPriority(2));
    EXPECT_NE(m_kernelId, KernelId());
    EXPECT_THAT(Calls(),
                ElementsAre(Call{PRIO_PROCESS, m_kernelId, -10}, Call{PRIO_PROCESS, m_kernelId, 0},
                            Call{PRIO_PROCESS, m_kernelId, 10}));
}

TEST_F(ThreadPriorityTest, OtherCodesAreRefusedAndChangeNothing)
{
    StartThread();
    for (const int code : {3, -1, 4, INT_MAX, INT_MIN}) {
        EXPECT_FALSE(m_thread.SetPriority(code)) << code;
    }
    EXPECT_THAT(Calls(), IsEmpty());
}

TEST_F(ThreadPriorityTest, RefusalOfTheSystemIsFalse)
{
    StartThread();
    m_answer = -1;
    EXPECT_FALSE(m_thread.SetPriority(0));
    m_answer = 1;
    EXPECT_FALSE(m_thread.SetPriority(1));
    EXPECT_EQ(Calls().size(), 2u);
}

TEST_F(ThreadPriorityTest, ThreadMaySetItsOwnThroughTheObject)
{
    std::vector<bool> results;
    int kernelId = 0;
    TestThread* running = nullptr;
    TestThread thread([&] {
        kernelId = KernelId();
        results.push_back(running->SetPriority(2));
    });
    running = &thread;
    ASSERT_TRUE(thread.Create("worker", TEST_STACK_SIZE));
    thread.Destroy();
    EXPECT_THAT(results, ElementsAre(true));
    EXPECT_THAT(Calls(), ElementsAre(Call{PRIO_PROCESS, kernelId, 10}));
}

TEST_F(ThreadPriorityTest, SecondThreadOfAnObjectHasAKernelIdOfItsOwn)
{
    StartThread();
    const int first = m_kernelId;
    m_end.Pass();
    m_thread.Destroy();
    m_body = [this] {
        m_kernelId = KernelId();
        EXPECT_TRUE(m_thread.SetPriority(1));
    };
    ASSERT_TRUE(m_thread.Create("worker", TEST_STACK_SIZE));
    m_thread.Destroy();
    EXPECT_NE(m_kernelId, first);
    EXPECT_THAT(Calls(), ElementsAre(Call{PRIO_PROCESS, m_kernelId, 0}));
}

/// Its kernel id may be a stranger's by then.
TEST_F(ThreadPriorityTest, EndedThreadIsRefusedAndNobodyIsReniced)
{
    StartThread();
    m_end.Pass();
    ASSERT_TRUE(Eventually([this] { return m_thread.HasEnded(); }));
    EXPECT_FALSE(m_thread.SetPriority(2));
    EXPECT_THAT(Calls(), IsEmpty());
}

/// A thread that has been made but does not get to run.
class ThreadPriorityBeforeRunTest : public ThreadPriorityTest
{
 protected:
    /// Creates the thread, which stands still before it runs any of its own until m_run opens.
    void CreateStandingStill()
    {
        const Takeover create(
            pthreadCreateSeam, [this](pthread_t* handle, const pthread_attr_t* attributes,
                                      ThreadEntry entry, void* argument) {
                m_entry = entry;
                m_argument = argument;
                return pthreadCreateSeam.Real(handle, attributes, StandStill, this);
            });
        ASSERT_TRUE(m_thread.Create("worker", TEST_STACK_SIZE));
    }

    static void* StandStill(void* fixture)
    {
        auto* self = static_cast<ThreadPriorityBeforeRunTest*>(fixture);
        EXPECT_TRUE(self->m_run.Wait());
        return self->m_entry(self->m_argument);
    }

    ConditionWatch m_watch;
    Gate m_run;

 private:
    ThreadEntry m_entry = nullptr;
    void* m_argument = nullptr;
};

TEST_F(ThreadPriorityBeforeRunTest, SetPriorityWaitsForTheKernelId)
{
    CreateStandingStill();
    std::atomic<bool> result{false};
    std::thread setter([&] { result = m_thread.SetPriority(0); });
    EXPECT_TRUE(Eventually([this] { return m_watch.WaitedFor(PID_SYNC); }));
    EXPECT_THAT(Calls(), IsEmpty());
    EXPECT_FALSE(result);
    m_run.Pass();
    setter.join();
    EXPECT_TRUE(result);
    ASSERT_TRUE(m_inBody.Wait());
    EXPECT_THAT(Calls(), ElementsAre(Call{PRIO_PROCESS, m_kernelId, -10}));
}

TEST_F(ThreadPriorityBeforeRunTest, KernelIdIsThereBeforePidSyncIsGiven)
{
    constexpr std::size_t KERNEL_ID_OFFSET = 16;
    std::mutex mutex;
    std::vector<int> idsAtGives; // of those that the thread itself makes
    std::vector<int> ownIds;
    CreateStandingStill();
    const Takeover signal(condSignalSeam, [&](pthread_cond_t* condition) {
        if (pthread_equal(m_thread.Id(), pthread_self())) {
            std::lock_guard<std::mutex> lock(mutex);
            idsAtGives.push_back(FieldAt<int>(m_thread, KERNEL_ID_OFFSET));
            ownIds.push_back(KernelId());
        }
        return condSignalSeam.Real(condition);
    });
    std::thread setter([this] { EXPECT_TRUE(m_thread.SetPriority(0)); });
    EXPECT_TRUE(Eventually([this] { return m_watch.WaitedFor(PID_SYNC); }));
    m_run.Pass();
    setter.join();
    ASSERT_TRUE(m_inBody.Wait());
    std::lock_guard<std::mutex> lock(mutex);
    ASSERT_EQ(idsAtGives.size(), 1u);
    EXPECT_EQ(idsAtGives, ownIds);
}

TEST_F(ThreadPriorityBeforeRunTest, SeveralThreadsMayWaitForTheKernelId)
{
    constexpr int SETTERS = 4;
    CreateStandingStill();
    std::atomic<int> succeeded{0};
    std::vector<std::thread> setters;
    for (int i = 0; i < SETTERS; ++i) {
        setters.emplace_back([&] { succeeded += m_thread.SetPriority(1) ? 1 : 0; });
    }
    EXPECT_TRUE(Eventually([this] { return m_watch.WaitedFor(PID_SYNC); }));
    EXPECT_THAT(Calls(), IsEmpty());
    m_run.Pass();
    for (std::thread& setter : setters) {
        setter.join();
    }
    EXPECT_EQ(succeeded, SETTERS);
}

TEST_F(ThreadPriorityTest, CallingThreadSetsItsOwn)
{
    int kernelId = 0;
    bool result = false;
    std::thread([&] {
        kernelId = KernelId();
        result = TCThreadSelf::SetPriority(0) && TCThreadSelf::SetPriority(1) &&
                 TCThreadSelf::SetPriority(2);
    }).join();
    EXPECT_TRUE(result);
    EXPECT_THAT(Calls(),
                ElementsAre(Call{PRIO_PROCESS, kernelId, -10}, Call{PRIO_PROCESS, kernelId, 0},
                            Call{PRIO_PROCESS, kernelId, 10}));
}

TEST_F(ThreadPriorityTest, CallingThreadIsRefusedOtherCodes)
{
    EXPECT_FALSE(TCThreadSelf::SetPriority(3));
    EXPECT_FALSE(TCThreadSelf::SetPriority(-1));
    EXPECT_THAT(Calls(), IsEmpty());
}

TEST_F(ThreadPriorityTest, CallingThreadIsToldOfARefusalOfTheSystem)
{
    m_answer = -1;
    EXPECT_FALSE(TCThreadSelf::SetPriority(1));
    EXPECT_EQ(Calls().size(), 1u);
}

TEST(ThreadPriorityOfTheSystemTest, LowestPriorityIsNicenessTen)
{
    constexpr int LOWEST = 10;
    if (getpriority(PRIO_PROCESS, 0) > LOWEST) {
        GTEST_SKIP() << "the tests themselves run at a lower priority";
    }
    bool result = false;
    int niceness = 0;
    TestThread thread([&] {
        result = TCThreadSelf::SetPriority(2);
        niceness = getpriority(PRIO_PROCESS, static_cast<id_t>(KernelId()));
    });
    const int before = getpriority(PRIO_PROCESS, 0);
    ASSERT_TRUE(thread.Create("worker", TEST_STACK_SIZE));
    thread.Destroy();
    EXPECT_TRUE(result);
    EXPECT_EQ(niceness, LOWEST);
    EXPECT_EQ(getpriority(PRIO_PROCESS, 0), before);
}

} // namespace
