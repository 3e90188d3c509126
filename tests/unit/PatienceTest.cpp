#include <gtest/gtest.h>

#include <sched.h>

#include <algorithm>
#include <cerrno>

#include "../../src/Patience.h"
#include "ConditionSeams.h"
#include "Seam.h"
#include "Thread.h"

namespace zortest {

Seam<int()> schedYieldSeam("sched_yield");

} // namespace zortest

extern "C" int sched_yield() noexcept
{
    return zortest::schedYieldSeam();
}

/// One processor is what the process may use: nothing is watched there, and all that is left is to
/// yield or to park.
extern "C" int sched_getaffinity(pid_t /*process*/, size_t size, cpu_set_t* processors) noexcept
{
    CPU_ZERO_S(size, processors);
    CPU_SET_S(0, size, processors);
    return 0;
}

namespace {

using namespace zortest;

constexpr long NSEC_PER_MSEC = 1000000;
constexpr long NSEC_PER_SEC = 1000 * NSEC_PER_MSEC;

/// A semaphore on a machine whose clocks and other threads do what the test says: a yield takes
/// m_yieldNsec, of which the process uses m_ownNsec, and ends with a unit if m_gives; who parks is
/// told that its time is over.
class PatienceTest : public ::testing::Test
{
 protected:
    PatienceTest()
        : m_clock(clockGettimeSeam, [this](clockid_t id, timespec* now) { return Read(id, now); }),
          m_wait(condTimedwaitSeam,
                 [this](pthread_cond_t*, pthread_mutex_t*, const timespec*) {
                     ++m_parked;
                     return ETIMEDOUT;
                 }),
          m_yield(schedYieldSeam, [this] { return Yield(); })
    {
        EXPECT_TRUE(m_semaphore.Create(0));
        s_now += 1000 * NSEC_PER_SEC; // whatever another test has taught the process is long ago
    }

    ~PatienceTest() override { m_semaphore.Destroy(); }

    /// Waits @p times times, and says how many of them came to a unit.
    int Wait(int times)
    {
        int units = 0;
        for (int i = 0; i < times; ++i) {
            units += m_semaphore.Try(1) ? 1 : 0;
        }
        return units;
    }

    static long s_now;  ///< on the monotonic clock, in nanoseconds
    static long s_used; ///< processor time of the process, in nanoseconds

    TCSemaphore m_semaphore;
    bool m_gives = true;
    long m_yieldNsec = 0;
    long m_ownNsec = 0;
    int m_yields = 0;
    int m_parked = 0;

 private:
    static int Read(clockid_t id, timespec* now)
    {
        const long nsec = id == CLOCK_PROCESS_CPUTIME_ID ? s_used : s_now;
        *now = {nsec / NSEC_PER_SEC, nsec % NSEC_PER_SEC};
        return 0;
    }

    int Yield()
    {
        ++m_yields;
        s_now += m_yieldNsec;
        s_used += m_ownNsec;
        if (m_gives) {
            m_semaphore.Give();
        }
        return 0;
    }

    const Takeover<int(clockid_t, timespec*)> m_clock;
    const Takeover<int(pthread_cond_t*, pthread_mutex_t*, const timespec*)> m_wait;
    const Takeover<int()> m_yield;
};

long PatienceTest::s_now = 0;
long PatienceTest::s_used = 0;

TEST_F(PatienceTest, WaitForAUnitThatIsThereNeitherYieldsNorParks)
{
    m_semaphore.Give();
    EXPECT_EQ(Wait(1), 1);
    EXPECT_EQ(m_yields + m_parked, 0);
}

TEST_F(PatienceTest, YieldThatBringsAUnitIsDoneFromThenOnInsteadOfParking)
{
    constexpr int BEFORE = zor::Habit::FIRST_INTERVAL - 1;

    EXPECT_EQ(Wait(BEFORE), 0);
    EXPECT_EQ(m_yields, 0);
    EXPECT_EQ(m_parked, BEFORE);
    EXPECT_EQ(Wait(100), 100);
    EXPECT_EQ(m_yields, 100);
    EXPECT_EQ(m_parked, BEFORE);
}

TEST_F(PatienceTest, WaitThatDoesNotWaitDoesNotYield)
{
    for (unsigned i = 0; i < 2 * zor::Habit::FIRST_INTERVAL; ++i) {
        EXPECT_FALSE(m_semaphore.Try(0));
    }
    EXPECT_EQ(m_yields, 0);
}

TEST_F(PatienceTest, YieldsInVainComeTwoAtATimeAndMoreAndMoreRarely)
{
    constexpr int WAITS = 100000;
    constexpr int DOUBLINGS = 5; // from the first interval to the greatest

    m_gives = false;
    EXPECT_EQ(Wait(WAITS), 0);
    EXPECT_EQ(m_parked, WAITS);
    EXPECT_GE(m_yields / 2, WAITS / static_cast<int>(zor::Habit::GREATEST_INTERVAL));
    EXPECT_LE(m_yields / 2, WAITS / static_cast<int>(zor::Habit::GREATEST_INTERVAL) + DOUBLINGS);
}

TEST_F(PatienceTest, YieldsThatCeaseToPayOffAreGivenUp)
{
    Wait(zor::Habit::FIRST_INTERVAL + 100);
    m_gives = false;
    m_yields = 0;
    EXPECT_EQ(Wait(3), 0);
    // Twice each: one wait that fails, one that looks whether that was by chance.
    EXPECT_EQ(m_yields, 4);
}

/// Another process has had the processor, and a thread that parks goes before it when it is woken.
TEST_F(PatienceTest, YieldThatTookLongForOthersIsNotRepeatedForAWhile)
{
    constexpr int MANY = 10000;

    m_yieldNsec = 4 * NSEC_PER_MSEC;
    Wait(MANY);
    EXPECT_EQ(m_yields, 1);
    s_now += 26 * NSEC_PER_MSEC;
    Wait(MANY);
    EXPECT_EQ(m_yields, 2);
    s_now += 26 * NSEC_PER_MSEC;
    Wait(MANY);
    EXPECT_EQ(m_yields, 2) << "it is for twice as long the next time";
    s_now += 26 * NSEC_PER_MSEC;
    Wait(MANY);
    EXPECT_EQ(m_yields, 3);
}

TEST_F(PatienceTest, WhatOneSemaphoreLearnsOfOtherProcessesHoldsForAll)
{
    TCSemaphore other;
    ASSERT_TRUE(other.Create(0));
    m_yieldNsec = 4 * NSEC_PER_MSEC;
    Wait(zor::Habit::FIRST_INTERVAL);
    EXPECT_EQ(m_yields, 1);
    for (unsigned i = 0; i < 2 * zor::Habit::FIRST_INTERVAL; ++i) {
        EXPECT_FALSE(other.Try(1));
    }
    EXPECT_EQ(m_yields, 1);
    other.Destroy();
}

/// The clock goes on to just behind the end of each pause.
TEST_F(PatienceTest, PausesDoubleUpToABoundAndALongTimeWithoutBotherShortensTheNextOne)
{
    constexpr int MANY = 10000;
    constexpr long LEAST_MSEC = 25;
    constexpr long MOST_MSEC = 3200;

    m_yieldNsec = 4 * NSEC_PER_MSEC;
    Wait(MANY);
    long pause = LEAST_MSEC;
    for (int yields = 1; yields < 12; ++yields) {
        EXPECT_EQ(m_yields, yields);
        s_now += (pause - 1) * NSEC_PER_MSEC;
        Wait(MANY);
        EXPECT_EQ(m_yields, yields) << "closed for " << pause << " ms";
        s_now += 2 * NSEC_PER_MSEC;
        Wait(MANY);
        pause = std::min(2 * pause, MOST_MSEC);
    }
    EXPECT_EQ(pause, MOST_MSEC);
    s_now += 60 * NSEC_PER_SEC;
    m_yields = 0;
    Wait(MANY);
    EXPECT_EQ(m_yields, 1);
    s_now += (LEAST_MSEC + 1) * NSEC_PER_MSEC;
    Wait(MANY);
    EXPECT_EQ(m_yields, 2);
}

/// A test may take the clock over and give it back.
TEST_F(PatienceTest, ClockThatIsSetBackEndsThePause)
{
    constexpr int MANY = 10000;

    m_yieldNsec = 4 * NSEC_PER_MSEC;
    Wait(MANY);
    EXPECT_EQ(m_yields, 1);
    s_now -= 100 * NSEC_PER_SEC;
    Wait(MANY);
    EXPECT_EQ(m_yields, 2);
    s_now += 200 * NSEC_PER_SEC;
}

/// A process whose processor was its own all the time until now.
class BusyProcessPatienceTest : public PatienceTest
{
 protected:
    BusyProcessPatienceTest()
    {
        m_yieldNsec = m_ownNsec = NSEC_PER_MSEC;
        m_gives = false;
        // What it has used is looked at with a yield that took long: before, it is not known.
        Wait(zor::Habit::FIRST_INTERVAL);
        m_gives = true;
        s_now += 100 * NSEC_PER_MSEC;
        s_used += 100 * NSEC_PER_MSEC;
        m_yields = 0;
    }

    void WaitForAYield()
    {
        while (m_yields == 0) {
            Wait(1);
        }
    }
};

/// Where all the others park, a thread that yields comes last; where they yield too it does not.
TEST_F(BusyProcessPatienceTest, ProbeThatTookLongForThreadsOfTheProcessCounts)
{
    WaitForAYield();
    m_yieldNsec = m_ownNsec = 0;
    EXPECT_EQ(Wait(100), 100);
    EXPECT_EQ(m_yields, 101);
}

TEST_F(BusyProcessPatienceTest, YieldsThatGoOnTakingLongAreGivenUp)
{
    constexpr int MANY = 10000;

    WaitForAYield();
    Wait(MANY);
    EXPECT_LT(m_yields, MANY / 100);
}

/// A thread of the process that computes stays for as long as one of another process would.
TEST_F(BusyProcessPatienceTest, YieldThatTookASliceIsNotRepeatedForAWhile)
{
    constexpr int MANY = 10000;

    m_yieldNsec = m_ownNsec = 3 * NSEC_PER_MSEC;
    Wait(MANY);
    EXPECT_EQ(m_yields, 1);
}

using zor::Habit;

/// What waits are told by a habit without credit until it is told to probe.
unsigned WaitsUntilProbe(Habit* habit)
{
    unsigned waits = 1;
    while (habit->Next() == Habit::Try::NONE) {
        ++waits;
    }
    return waits;
}

TEST(HabitTest, ProbesThatFailBecomeRarerUpToABound)
{
    Habit habit;
    unsigned expected = Habit::FIRST_INTERVAL;
    unsigned passed = 0;
    for (int i = 0; i < 10; ++i) {
        const unsigned waits = WaitsUntilProbe(&habit);
        passed += waits;
        EXPECT_EQ(passed % expected, 0u);
        EXPECT_LE(waits, expected);
        habit.Failed(Habit::Try::PROBE);
        expected = std::min(2 * expected, Habit::GREATEST_INTERVAL);
    }
    EXPECT_EQ(habit.interval, Habit::GREATEST_INTERVAL);
}

TEST(HabitTest, ProbeThatPaysOffIsFollowedByTries)
{
    Habit habit;
    WaitsUntilProbe(&habit);
    habit.Paid(Habit::Try::PROBE);
    for (int i = 0; i < Habit::PROBED; ++i) {
        EXPECT_EQ(habit.Next(), Habit::Try::LIKELY);
        habit.Failed(Habit::Try::LIKELY);
    }
    EXPECT_EQ(habit.Next(), Habit::Try::NONE);
}

/// An answer that takes as long as waking somebody does: probes see it, tries never do.
TEST(HabitTest, ProbesOfNoLastingUseBecomeRarerToo)
{
    Habit habit;
    for (int i = 0; i < 10; ++i) {
        WaitsUntilProbe(&habit);
        habit.Paid(Habit::Try::PROBE);
        for (int k = 0; k < Habit::PROBED; ++k) {
            habit.Failed(Habit::Try::LIKELY);
        }
    }
    EXPECT_EQ(habit.interval, Habit::GREATEST_INTERVAL);
}

TEST(HabitTest, GoodTimeThatEndsIsFollowedByOneProbeAtOnce)
{
    Habit habit;
    for (int i = 0; i < Habit::MOST; ++i) {
        habit.Paid(Habit::Try::LIKELY);
    }
    EXPECT_TRUE(habit.HasMostCredit());
    EXPECT_EQ(habit.interval, Habit::LEAST_INTERVAL);
    habit.Failed(Habit::Try::LIKELY);
    EXPECT_EQ(habit.Next(), Habit::Try::PROBE);
    habit.Failed(Habit::Try::PROBE);
    EXPECT_EQ(habit.Next(), Habit::Try::NONE);
}

TEST(HabitTest, EncouragementMakesTheNextTryAProbe)
{
    Habit habit;
    habit.Refresh();
    habit.Encourage();
    EXPECT_EQ(habit.Next(), Habit::Try::PROBE);
    habit.Paid(Habit::Try::PROBE);
    EXPECT_EQ(habit.Next(), Habit::Try::LIKELY);
    habit.Encourage();
    EXPECT_EQ(habit.credit, Habit::PROBED) << "it has credit of its own";
}

TEST(HabitTest, EncouragementThatLeadsToNothingIsHeededMoreAndMoreRarely)
{
    constexpr int WAITS = 100000;

    Habit habit;
    int probes = 0;
    for (int i = 0; i < WAITS; ++i) {
        habit.Encourage();
        if (habit.Next() == Habit::Try::PROBE) {
            ++probes;
            habit.Failed(Habit::Try::PROBE);
        }
    }
    EXPECT_GT(probes, 0);
    EXPECT_LT(probes, WAITS / 100);
}

} // namespace
