#include <gtest/gtest.h>

#include <sched.h>

#include <algorithm>
#include <cerrno>

#include "../../src/Patience.h"
#include "ConditionSeams.h"
#include "Thread.h"
#include "YieldSeam.h"

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
/// m_yieldNsec and ends with a unit if m_gives; who parks is told that its time is over. The
/// process uses all of its processor.
class PatienceTest : public ::testing::Test
{
 protected:
    PatienceTest()
        : m_clock(clockGettimeSeam, [](clockid_t id, timespec* now) { return Read(id, now); }),
          m_wait(condTimedwaitSeam,
                 [this](pthread_cond_t*, pthread_mutex_t*, const timespec*) {
                     ++m_parked;
                     Pass(m_parkNsec);
                     return ETIMEDOUT;
                 }),
          m_yield(schedYieldSeam, [this] { return Yield(); })
    {
        EXPECT_TRUE(m_semaphore.Create(0));
        Pass(1000 * NSEC_PER_SEC); // whatever another test has taught the process is long ago
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

    static void Pass(long nsec)
    {
        s_now += nsec;
        s_used += nsec;
    }

    static long s_now;  ///< on the monotonic clock, in nanoseconds
    static long s_used; ///< processor time of the process, in nanoseconds

    TCSemaphore m_semaphore;
    bool m_gives = true;
    long m_yieldNsec = 0;
    long m_parkNsec = 0;
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
        Pass(m_yieldNsec);
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

TEST_F(PatienceTest, YieldsInVainComeTwoAtATimeAndRarely)
{
    constexpr int WAITS = 100000;
    constexpr int LEAST = WAITS / static_cast<int>(zor::Habit::GREATEST_INTERVAL);

    m_gives = false;
    m_parkNsec = NSEC_PER_MSEC / 10;
    EXPECT_EQ(Wait(WAITS), 0);
    EXPECT_EQ(m_parked, WAITS);
    EXPECT_EQ(m_yields % 2, 0);
    EXPECT_GE(m_yields / 2, LEAST);
    // Each of those may begin a trial of 2 ms, but no sooner than 50 ms after the last one.
    EXPECT_LE(m_yields / 2, WAITS / 25 + 2 * LEAST);
}

TEST_F(PatienceTest, YieldsThatCeaseToPayOffAreGivenUp)
{
    Wait(zor::Habit::FIRST_INTERVAL + 100);
    Pass(5 * NSEC_PER_MSEC); // the trial is over
    m_gives = false;
    m_yields = 0;
    EXPECT_EQ(Wait(3), 0);
    // Twice each: one wait that fails, one that looks whether that was by chance.
    EXPECT_EQ(m_yields, 4);
}

/// A thread that computes has had the processor, and one that parks goes before it when it is
/// woken.
TEST_F(PatienceTest, YieldThatTookASliceIsNotRepeatedForAWhile)
{
    constexpr int MANY = 10000;

    m_yieldNsec = 4 * NSEC_PER_MSEC;
    Wait(MANY);
    EXPECT_EQ(m_yields, 1);
    Pass(26 * NSEC_PER_MSEC);
    Wait(MANY);
    EXPECT_EQ(m_yields, 2);
    Pass(26 * NSEC_PER_MSEC);
    Wait(MANY);
    EXPECT_EQ(m_yields, 2) << "it is for twice as long the next time";
    Pass(26 * NSEC_PER_MSEC);
    Wait(MANY);
    EXPECT_EQ(m_yields, 3);
}

TEST_F(PatienceTest, WhatOneSemaphoreLearnsOfSuchThreadsHoldsForAll)
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
        Pass((pause - 1) * NSEC_PER_MSEC);
        Wait(MANY);
        EXPECT_EQ(m_yields, yields) << "closed for " << pause << " ms";
        Pass(2 * NSEC_PER_MSEC);
        Wait(MANY);
        pause = std::min(2 * pause, MOST_MSEC);
    }
    EXPECT_EQ(pause, MOST_MSEC);
    Pass(60 * NSEC_PER_SEC);
    m_yields = 0;
    Wait(MANY);
    EXPECT_EQ(m_yields, 1);
    Pass((LEAST_MSEC + 1) * NSEC_PER_MSEC);
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
    Pass(20 * NSEC_PER_MSEC);
    Wait(MANY);
    Pass(20 * NSEC_PER_MSEC); // what the process uses is known by this clock again
    Wait(MANY);
    EXPECT_EQ(m_yields, 2);
    Pass(200 * NSEC_PER_SEC);
}

/// There is nobody of its own to yield to, or somebody else's threads have the processor.
TEST_F(PatienceTest, ProcessThatDoesNotKeepAProcessorBusyDoesNotYield)
{
    constexpr int MANY = 10000;

    Wait(zor::Habit::FIRST_INTERVAL);
    EXPECT_EQ(m_yields, 1);
    s_now += 3 * NSEC_PER_MSEC;
    Pass(17 * NSEC_PER_MSEC);
    EXPECT_EQ(Wait(MANY), 0);
    EXPECT_EQ(m_yields, 1);
    s_now += NSEC_PER_MSEC;
    Pass(19 * NSEC_PER_MSEC);
    EXPECT_GT(Wait(MANY), MANY / 2);
}

/// Where all the others park, a thread that yields comes last; where they yield too it does not.
TEST_F(PatienceTest, ProbeThatTookLongForThreadsThatHandleEventsCounts)
{
    m_yieldNsec = NSEC_PER_MSEC;
    EXPECT_EQ(Wait(zor::Habit::FIRST_INTERVAL), 1);
    m_yieldNsec = 0;
    EXPECT_EQ(Wait(100), 100);
    EXPECT_EQ(m_yields, 101);
}

TEST_F(PatienceTest, YieldsThatGoOnTakingLongAreGivenUp)
{
    constexpr int MANY = 10000;

    m_yieldNsec = NSEC_PER_MSEC;
    Wait(MANY);
    EXPECT_LT(m_yields, MANY / 100);
    // By this semaphore only: the process goes on yielding.
    TCSemaphore other;
    ASSERT_TRUE(other.Create(0));
    m_yields = 0;
    for (unsigned i = 0; i < zor::Habit::FIRST_INTERVAL; ++i) {
        other.Try(1);
    }
    EXPECT_GT(m_yields, 0);
    other.Destroy();
}

/// A single one that yields among many that park would come last each time.
TEST_F(PatienceTest, ProbeOfOneSemaphoreMakesTheOthersTryForTwoMilliseconds)
{
    TCSemaphore other;
    ASSERT_TRUE(other.Create(0));
    m_gives = false;
    EXPECT_FALSE(other.Try(1));
    EXPECT_EQ(m_yields, 0);
    Wait(zor::Habit::FIRST_INTERVAL);
    EXPECT_EQ(m_yields, 2);
    Pass(NSEC_PER_MSEC);
    EXPECT_FALSE(other.Try(1));
    EXPECT_EQ(m_yields, 4);
    Pass(NSEC_PER_MSEC);
    EXPECT_FALSE(other.Try(1));
    EXPECT_EQ(m_yields, 4);
    other.Destroy();
}

TEST_F(PatienceTest, WhoFindsInATrialThatYieldingPaysGoesOn)
{
    TCSemaphore other;
    ASSERT_TRUE(other.Create(0));
    m_gives = false;
    for (unsigned i = 0; i < zor::Habit::FIRST_INTERVAL; ++i) {
        other.Try(1);
    }
    m_gives = true;
    EXPECT_EQ(Wait(1), 1);
    Pass(40 * NSEC_PER_MSEC);
    EXPECT_EQ(Wait(100), 100);
    EXPECT_EQ(m_parked, static_cast<int>(zor::Habit::FIRST_INTERVAL));
    other.Destroy();
}

using zor::Habit;

/// What waits are told by a habit without credit until it is told to probe.
unsigned WaitsUntilProbe(Habit* habit)
{
    unsigned waits = 1;
    while (habit->Next() == Habit::Try::NONE && waits < 2 * Habit::GREATEST_INTERVAL) {
        ++waits;
    }
    return waits;
}

TEST(HabitTest, ProbesThatFailBecomeRarerUpToABound)
{
    Habit habit;
    habit.Refresh();
    unsigned expected = Habit::LEAST_INTERVAL;
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(WaitsUntilProbe(&habit), expected);
        habit.Failed(Habit::Try::PROBE);
        expected = std::min(Habit::RARER * expected, Habit::GREATEST_INTERVAL);
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

TEST(HabitTest, EncouragementThatLeadsToNothingIsHeededRarely)
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
    const int between = static_cast<int>(Habit::GREATEST_INTERVAL / Habit::HEEDED) + 1;
    EXPECT_GE(probes, WAITS / between);
    EXPECT_LE(probes, WAITS / between + 2); // the first ones come sooner
}

} // namespace
