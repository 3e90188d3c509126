#include <gtest/gtest.h>

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <thread>

#include "../../src/Patience.h"
#include "ConditionSeams.h"
#include "Layout.h"
#include "MutexSeams.h"
#include "Thread.h"
#include "Wait.h"

namespace {

using namespace zortest;

/// A semaphore where two processors are to be had, and how often the mutex behind it is tried.
class SemaphoreSeveralProcessorsTest : public ::testing::Test
{
 protected:
    SemaphoreSeveralProcessorsTest() { EXPECT_TRUE(m_semaphore.Create(0)); }
    ~SemaphoreSeveralProcessorsTest() override { m_semaphore.Destroy(); }

    TCSemaphore m_semaphore;
    std::atomic<int> m_tries{0};
};

TEST_F(SemaphoreSeveralProcessorsTest, FreeMutexIsTakenAtTheFirstTry)
{
    const Takeover trylock(mutexTrylockSeam, [this](pthread_mutex_t* mutex) {
        ++m_tries;
        return mutexTrylockSeam.Real(mutex);
    });
    m_semaphore.Give();
    EXPECT_EQ(m_tries, 1);
    m_semaphore.Take();
    EXPECT_EQ(m_tries, 2);
    EXPECT_FALSE(m_semaphore.Try(0));
    EXPECT_EQ(m_tries, 3);
}

/// Sleeping on it at once would make threads that share it alternate.
TEST_F(SemaphoreSeveralProcessorsTest, MutexThatStaysTakenIsTriedSixTimesBeforeTheThreadSleepsOnIt)
{
    int triesBeforeTheLock = -1;
    const Takeover trylock(mutexTrylockSeam, [this](pthread_mutex_t*) {
        ++m_tries;
        return EBUSY;
    });
    const Takeover lock(mutexLockSeam, [&](pthread_mutex_t* mutex) {
        triesBeforeTheLock = m_tries;
        return mutexLockSeam.Real(mutex);
    });
    m_semaphore.Give();
    EXPECT_EQ(m_tries, 6);
    EXPECT_EQ(triesBeforeTheLock, 6);
}

/// What a semaphore has learnt about watching.
const zor::Habit& HabitOf(const TCSemaphore& semaphore)
{
    constexpr std::size_t STATE_OFFSET = 8;
    constexpr std::size_t HABIT_OFFSET = 76;
    const auto* const state = FieldAt<const char*>(semaphore, STATE_OFFSET);
    return *reinterpret_cast<const zor::Habit*>(state + HABIT_OFFSET);
}

/// How many waits have asked whether they should watch, which they do unless they must not.
unsigned WaitsThatMayWatch(const TCSemaphore& semaphore)
{
    return HabitOf(semaphore).skipped;
}

/// It would take the units that the parked one is woken for.
TEST_F(SemaphoreSeveralProcessorsTest, NobodyWatchesBesideAParkedThread)
{
    std::atomic<int> waits{0};
    const Takeover wait(condWaitSeam, [&waits](pthread_cond_t* condition, pthread_mutex_t* mutex) {
        ++waits;
        return condWaitSeam.Real(condition, mutex);
    });
    EXPECT_FALSE(m_semaphore.Try(1));
    const unsigned before = WaitsThatMayWatch(m_semaphore);
    EXPECT_EQ(before, 1u);
    std::thread parked([this] { m_semaphore.Take(); });
    ASSERT_TRUE(Eventually([&waits] { return waits == 1; }));
    EXPECT_EQ(WaitsThatMayWatch(m_semaphore), before + 1); // the parked one's
    EXPECT_FALSE(m_semaphore.Try(1));
    EXPECT_EQ(WaitsThatMayWatch(m_semaphore), before + 1);
    m_semaphore.Give();
    parked.join();
    EXPECT_FALSE(m_semaphore.Try(1));
    EXPECT_EQ(WaitsThatMayWatch(m_semaphore), before + 2);
}

/// Two threads that answer each other gain only if both watch: the one that had to be woken learns
/// that the other one watches.
TEST_F(SemaphoreSeveralProcessorsTest, WhoIsWokenByAWatcherProbesTheNextTime)
{
    TCSemaphore watched;
    ASSERT_TRUE(watched.Create(0));
    std::atomic<bool> wanted{false};
    std::atomic<bool> ends{false};
    std::thread answering([&] {
        while (!ends) {
            if (wanted.exchange(false)) {
                watched.Give();
            }
        }
    });
    std::atomic<int> waits{0};
    const Takeover wait(condWaitSeam, [&waits](pthread_cond_t* condition, pthread_mutex_t* mutex) {
        ++waits;
        return condWaitSeam.Real(condition, mutex);
    });
    // A watch may be in vain where this thread, or the other, is kept from its processor.
    const bool encouraged = Eventually([&] {
        TCSemaphore parkedOn;
        EXPECT_TRUE(parkedOn.Create(0));
        // A waiter heeds it the more rarely the longer nothing has paid off.
        for (unsigned i = 1; i < zor::Habit::FIRST_INTERVAL / zor::Habit::LEAST_INTERVAL; ++i) {
            EXPECT_FALSE(parkedOn.Try(1));
        }
        for (unsigned i = 0; i < 2 * zor::Habit::FIRST_INTERVAL; ++i) {
            wanted = true;
            watched.Take();
        }
        const int before = waits;
        std::thread parked([&parkedOn] { parkedOn.Take(); });
        EXPECT_TRUE(Eventually([&] { return waits == before + 1; }));
        wanted = true;
        watched.Take();
        parkedOn.Give();
        parked.join();
        const bool probes = HabitOf(parkedOn).credit == zor::Habit::RESCUE;
        parkedOn.Destroy();
        return probes;
    });
    EXPECT_TRUE(encouraged);
    ends = true;
    answering.join();
    watched.Destroy();
}

} // namespace
