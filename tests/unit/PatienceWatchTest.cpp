#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <vector>

#include "../../src/Patience.h"
#include "../../src/Spin.h"
#include "YieldSeam.h"

namespace {

/// A machine of two processors for the patience that is compiled into this program: time passes as
/// the test says, and the process uses one processor unless it is said to be idle.
struct Machine
{
    std::int64_t now = 0;     ///< nanoseconds
    std::int64_t idle = 0;    ///< of it, without the process
    std::vector<int> watches; ///< in nanoseconds, how long each was to be
    bool comesWhileWatched = false;
    std::atomic<int> count{0}; ///< the semaphore's
};

Machine g_machine;

} // namespace

std::int64_t zor::Spin::Now()
{
    return g_machine.now;
}

std::int64_t zor::Spin::Used()
{
    return g_machine.now - g_machine.idle;
}

/// Asked once for each watch, which looks for a unit behind each pause.
int zor::Spin::PausesIn(int nsec)
{
    g_machine.watches.push_back(nsec);
    g_machine.now += nsec;
    g_machine.count = g_machine.comesWhileWatched ? 1 : 0;
    return 1;
}

int zor::Spin::Processors()
{
    return 2;
}

namespace {

using namespace zortest;
using zor::Habit;

constexpr std::int64_t NSEC_PER_USEC = 1000;
constexpr std::int64_t NSEC_PER_MSEC = 1000 * NSEC_PER_USEC;
constexpr std::int64_t NSEC_PER_SEC = 1000 * NSEC_PER_MSEC;

constexpr int PROBE_NSEC = 50000;
constexpr int WATCH_NSEC = 5000;

class PatienceWatchTest : public ::testing::Test
{
 protected:
    PatienceWatchTest()
        : m_yield(schedYieldSeam, [this] {
              ++m_yields;
              g_machine.now += m_yieldNsec;
              g_machine.count = m_gives ? 1 : 0;
              return 0;
          })
    {
        g_machine.now += 1000 * NSEC_PER_SEC; // what another test taught is long ago
        g_machine.comesWhileWatched = false;
        g_machine.watches.clear();
    }

    /// One wait, which finds a unit by a yield if @p gives.
    void Wait(bool gives)
    {
        constexpr std::int64_t WORK_NSEC = 500;

        m_gives = gives;
        g_machine.count = 0;
        m_patience.Wait(g_machine.count);
        g_machine.now += WORK_NSEC;
    }

    /// Waits until yields are what usually pays, and behind the probe that is due when first one
    /// does not.
    void MakeYieldsUsual()
    {
        for (unsigned i = 0; i < Habit::FIRST_INTERVAL + Habit::MOST; ++i) {
            Wait(true);
        }
        Wait(false);
        for (int i = 0; i < Habit::MOST; ++i) {
            Wait(true);
        }
        g_machine.now += 10 * NSEC_PER_MSEC; // the trial is over
        g_machine.watches.clear();
    }

    /// So that whatever may be watched next is.
    void MakeProbeDue()
    {
        for (unsigned i = 0; i < Habit::GREATEST_INTERVAL; ++i) {
            Wait(true);
        }
    }

    static int Probes()
    {
        const auto& watches = g_machine.watches;
        return static_cast<int>(std::count(watches.begin(), watches.end(), PROBE_NSEC));
    }

    zor::Patience m_patience;
    std::int64_t m_yieldNsec = NSEC_PER_USEC / 2;
    int m_yields = 0;

 private:
    bool m_gives = true;
    const Takeover<int()> m_yield;
};

TEST_F(PatienceWatchTest, YieldThatBringsAUnitIsNotFollowedByAWatch)
{
    MakeYieldsUsual();
    MakeProbeDue();
    Wait(true);
    EXPECT_TRUE(g_machine.watches.empty());
}

/// Whoever is to give is on another processor this time.
TEST_F(PatienceWatchTest, YieldInVainIsFollowedByAShortWatchWhereYieldsUsuallyPay)
{
    MakeYieldsUsual();
    Wait(true);
    Wait(false);
    EXPECT_EQ(g_machine.watches, std::vector<int>{WATCH_NSEC});
}

TEST_F(PatienceWatchTest, YieldInVainIsNotFollowedByAWatchWhereYieldsDoNotUsuallyPay)
{
    for (unsigned i = 0; i < Habit::FIRST_INTERVAL; ++i) {
        Wait(false);
    }
    EXPECT_EQ(g_machine.watches, std::vector<int>{PROBE_NSEC}); // its own time has come
    const int yields = m_yields;
    Wait(false); // the probe of yielding has begun a trial
    EXPECT_EQ(m_yields, yields + 2);
    EXPECT_EQ(g_machine.watches.size(), 1u);
}

/// A process that leaves its processors idle does not yield: there is nobody to yield to.
TEST_F(PatienceWatchTest, WaitThatMayNotYieldDoesNotWatchWhereYieldsUsuallyPaid)
{
    MakeYieldsUsual();
    g_machine.now += 100 * NSEC_PER_MSEC;
    g_machine.idle += 100 * NSEC_PER_MSEC;
    const int yields = m_yields;
    Wait(true);
    EXPECT_EQ(m_yields, yields);
    EXPECT_TRUE(g_machine.watches.empty());
}

TEST_F(PatienceWatchTest, YieldThatTookLongIsNotFollowedByAWatch)
{
    MakeYieldsUsual();
    MakeProbeDue();
    m_yieldNsec = NSEC_PER_MSEC;
    Wait(false);
    EXPECT_TRUE(g_machine.watches.empty());
}

/// Where the units come by yields until the giver has a processor of its own.
TEST_F(PatienceWatchTest, WatchThatPaysBehindAYieldInVainIsDoneFromThenOn)
{
    constexpr int WAITS = 1000;

    MakeYieldsUsual();
    g_machine.comesWhileWatched = true;
    for (int i = 0; i < WAITS; ++i) {
        Wait(false);
    }
    EXPECT_EQ(g_machine.watches, std::vector<int>(WAITS, WATCH_NSEC));
}

/// The giver takes longer than a watch whenever a yield does not bring the unit.
TEST_F(PatienceWatchTest, ProbesBehindYieldsThatUsuallyPayStayRare)
{
    constexpr int WAITS = 100000;

    MakeYieldsUsual();
    for (int i = 0; i < WAITS; ++i) {
        Wait(i % 15 != 0);
    }
    EXPECT_LE(Probes(), WAITS / static_cast<int>(Habit::GREATEST_INTERVAL) + 3);
    EXPECT_GE(Probes(), WAITS / static_cast<int>(Habit::GREATEST_INTERVAL) / 2);
}

} // namespace
