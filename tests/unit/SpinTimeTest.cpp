#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>

#include "../../src/Spin.h"

namespace {

using zor::Spin;

/// The pause has been measured by this machine's clock, which may take longer to read than many
/// pauses. The shortest of many rounds counts, and a processor may change its speed.
TEST(SpinTimeTest, BudgetTakesAboutItsTime)
{
    constexpr int ROUNDS = 500;
    constexpr int TOLERANCE = 8;

    for (const int nsec : {5000, 50000}) {
        std::int64_t shortest = INT64_MAX;
        for (int round = 0; round < ROUNDS; ++round) {
            const std::int64_t begin = Spin::Now();
            for (int pauses = Spin::PausesIn(nsec); pauses > 0; --pauses) {
                Spin::Pause();
            }
            shortest = std::min(shortest, Spin::Now() - begin);
        }
        EXPECT_GT(shortest, nsec / TOLERANCE);
        EXPECT_LT(shortest, nsec * TOLERANCE);
    }
}

} // namespace
