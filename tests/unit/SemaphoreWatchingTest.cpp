#include <gtest/gtest.h>

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <thread>

#include "ConditionSeams.h"
#include "HabitOf.h"
#include "Thread.h"
#include "Wait.h"

/// Yields that are tried would mostly bring the unit before anything is watched.
extern "C" int sched_yield() noexcept
{
    return 0;
}

namespace {

using namespace zortest;

/// A thread that is parked on a semaphore of its own from the construction to Wake().
class Parked
{
 public:
    /// @param parked  counts who parks
    explicit Parked(const std::atomic<int>& parked)
    {
        EXPECT_TRUE(m_semaphore.Create(0));
        HabitOf(m_semaphore).skipped = zor::Habit::FIRST_INTERVAL / zor::Habit::HEEDED;
        const int before = parked;
        m_thread = std::thread([this] { m_semaphore.Take(); });
        EXPECT_TRUE(Eventually([&] { return parked > before; }));
    }
    ~Parked()
    {
        if (m_thread.joinable()) {
            Wake();
        }
        m_semaphore.Destroy();
    }

    Parked(const Parked&) = delete;
    Parked& operator=(const Parked&) = delete;

    /// @return the credit of watching at its semaphore
    int Wake()
    {
        m_semaphore.Give();
        m_thread.join();
        return HabitOf(m_semaphore).credit;
    }

 private:
    TCSemaphore m_semaphore;
    std::thread m_thread;
};

/// Two threads, of which one gives when the other wants a unit.
class SemaphoreWatchingTest : public ::testing::Test
{
 protected:
    void SetUp() override
    {
        cpu_set_t processors;
        CPU_ZERO(&processors);
        ASSERT_EQ(pthread_getaffinity_np(pthread_self(), sizeof(processors), &processors), 0);
        if (CPU_COUNT(&processors) < 2) {
            GTEST_SKIP() << "two threads must run at once";
        }
        ASSERT_TRUE(m_watched.Create(0));
        m_answering = std::thread([this] {
            while (!m_ends) {
                if (m_wanted.exchange(false)) {
                    m_watched.Give();
                }
            }
        });
    }

    void TearDown() override
    {
        m_ends = true;
        if (m_answering.joinable()) {
            m_answering.join();
            m_watched.Destroy();
        }
    }

    /// Has this thread watch for long and in time. May do so in vain, where it or the other one is
    /// kept from its processor.
    bool Probe()
    {
        HabitOf(m_watched).credit = zor::Habit::RESCUE; // stays if the unit comes before the watch
        m_wanted = true;
        m_watched.Take();
        return HabitOf(m_watched).credit == zor::Habit::PROBED;
    }

    std::atomic<int> m_parked{0}; ///< how often a thread has

 private:
    TCSemaphore m_watched;
    std::atomic<bool> m_wanted{false};
    std::atomic<bool> m_ends{false};
    const Takeover<int(pthread_cond_t*, pthread_mutex_t*)> m_wait{
        condWaitSeam, [this](pthread_cond_t* condition, pthread_mutex_t* mutex) {
            ++m_parked;
            return condWaitSeam.Real(condition, mutex);
        }};
    std::thread m_answering;
};

/// Two threads that answer each other gain only if both watch, and would not meet by chance.
TEST_F(SemaphoreWatchingTest, ProbeThatPaidOffHasTheOneThatIsWokenNextProbeAndNobodyElse)
{
    const bool probed = Eventually([this] {
        Parked first(m_parked);
        Parked second(m_parked);
        if (!Probe()) {
            return false;
        }
        EXPECT_EQ(first.Wake(), zor::Habit::RESCUE);
        EXPECT_EQ(second.Wake(), 0);
        return true;
    });
    EXPECT_TRUE(probed);
}

} // namespace
