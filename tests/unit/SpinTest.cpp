#include <gtest/gtest.h>

#include <atomic>
#include <ctime>

#include "../../src/Spin.h"

namespace {

/// What a reading of the clock moves it by: between two of them the library, when it is loaded,
/// pauses 64 times, and more often if that takes less than 5 us.
constexpr long NSEC_PER_READING = 6400;
constexpr int PAUSE_NSEC = NSEC_PER_READING / 64;

/// Of four times that the library pauses three are interrupted, whatever reads the clock besides.
constexpr long INTERRUPTED_NSEC = 10 * NSEC_PER_READING;

long MovesBy(unsigned reading)
{
    return reading % 8 >= 6 ? NSEC_PER_READING : INTERRUPTED_NSEC;
}

std::atomic<unsigned> g_readings{0};
std::atomic<long> g_now{0};

} // namespace

extern "C" int clock_gettime(clockid_t /*id*/, timespec* now) noexcept
{
    const long nsec = g_now += MovesBy(g_readings++);
    *now = {nsec / 1000000000, nsec % 1000000000};
    return 0;
}

namespace {

using zor::Spin;

/// Processors differ by a factor of a hundred in what a pause takes. Interruptions do not count.
TEST(SpinTest, BudgetsAreInNanosecondsOfThisProcessor)
{
    EXPECT_EQ(Spin::PausesIn(PAUSE_NSEC), 1);
    EXPECT_EQ(Spin::PausesIn(700), 700 / PAUSE_NSEC);
    EXPECT_EQ(Spin::PausesIn(5000), 5000 / PAUSE_NSEC);
    EXPECT_EQ(Spin::PausesIn(50000), 50000 / PAUSE_NSEC);
}

TEST(SpinTest, LeastBudgetIsOnePause)
{
    EXPECT_EQ(Spin::PausesIn(PAUSE_NSEC / 2), 1);
    EXPECT_EQ(Spin::PausesIn(0), 1);
}

} // namespace
