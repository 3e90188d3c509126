#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <ostream>
#include <vector>

#include "ConditionSeams.h"
#include "Thread.h"
#include "Wait.h"

namespace {

using namespace zortest;
using ::testing::ElementsAre;

constexpr long NSEC_PER_MSEC = 1000000;

/// A moment that can be compared and printed.
struct Moment
{
    time_t sec;
    long nsec;

    bool operator==(const Moment& other) const { return sec == other.sec && nsec == other.nsec; }
};

std::ostream& operator<<(std::ostream& stream, const Moment& moment)
{
    return stream << moment.sec << " s " << moment.nsec << " ns";
}

/// A semaphore without units, a clock that says what the test says and a wait that ends at once
/// with what the test says.
class SemaphoreDeadlineTest : public ::testing::Test
{
 protected:
    SemaphoreDeadlineTest() { EXPECT_TRUE(m_semaphore.Create(0)); }
    ~SemaphoreDeadlineTest() override { m_semaphore.Destroy(); }

    /// Tries with the clock at each of @p nows in turn; every wait ends with a wake-up without a
    /// unit, but the last one with @p lastResult.
    bool Try(const std::vector<Moment>& nows, unsigned long msec, int lastResult = ETIMEDOUT)
    {
        size_t reads = 0;
        const Takeover clock(clockGettimeSeam, [&](clockid_t id, timespec* now) {
            EXPECT_EQ(id, CLOCK_MONOTONIC);
            const Moment& moment = nows.at(reads++);
            *now = {moment.sec, moment.nsec};
            return 0;
        });
        const Takeover wait(condTimedwaitSeam,
                            [&](pthread_cond_t*, pthread_mutex_t* mutex, const timespec* deadline) {
                                m_deadlines.push_back({deadline->tv_sec, deadline->tv_nsec});
                                m_mutexes.push_back(mutex);
                                return m_deadlines.size() == nows.size() ? lastResult : 0;
                            });
        return m_semaphore.Try(msec);
    }

    TCSemaphore m_semaphore;
    std::vector<Moment> m_deadlines;
    std::vector<pthread_mutex_t*> m_mutexes;
};

struct DeadlineCase
{
    Moment now;
    unsigned long msec;
    Moment deadline;
};

std::ostream& operator<<(std::ostream& stream, const DeadlineCase& param)
{
    return stream << param.now << " + " << param.msec << " ms";
}

class SemaphoreDeadlineTableTest : public SemaphoreDeadlineTest,
                                   public ::testing::WithParamInterface<DeadlineCase>
{};

TEST_P(SemaphoreDeadlineTableTest, DeadlineIsNowPlusTheTimeInWholeMicroseconds)
{
    const DeadlineCase& param = GetParam();
    EXPECT_FALSE(Try({param.now}, param.msec));
    EXPECT_THAT(m_deadlines, ElementsAre(param.deadline));
}

INSTANTIATE_TEST_SUITE_P(
    WithoutCarry, SemaphoreDeadlineTableTest,
    ::testing::Values(DeadlineCase{{10, 0}, 1, {10, 1 * NSEC_PER_MSEC}},
                      DeadlineCase{{10, 0}, 3000, {13, 0}},
                      DeadlineCase{{10, 500000999}, 499, {10, 999 * NSEC_PER_MSEC}},
                      DeadlineCase{{10, 998999999}, 1, {10, 999999000}},
                      DeadlineCase{{10, 7}, 4294967295UL, {4294977, 295 * NSEC_PER_MSEC}}));

INSTANTIATE_TEST_SUITE_P(WithCarry, SemaphoreDeadlineTableTest,
                         ::testing::Values(DeadlineCase{{10, 999001000}, 1, {11, 1000}},
                                           DeadlineCase{{10, 999999999}, 1, {11, 999000}},
                                           DeadlineCase{
                                               {10, 600000000}, 2500, {13, 100 * NSEC_PER_MSEC}},
                                           DeadlineCase{{10, 999999000}, 999, {11, 998999000}},
                                           DeadlineCase{{10, 999999999}, 60999, {71, 998999000}}));

INSTANTIATE_TEST_SUITE_P(
    ExactlyAMillionIsNotCarried, SemaphoreDeadlineTableTest,
    ::testing::Values(DeadlineCase{{10, 999000000}, 1, {10, 1000 * NSEC_PER_MSEC}},
                      DeadlineCase{{10, 999000999}, 1, {10, 1000 * NSEC_PER_MSEC}},
                      DeadlineCase{{10, 500000000}, 1500, {11, 1000 * NSEC_PER_MSEC}},
                      DeadlineCase{{10, 1000000}, 2999, {12, 1000 * NSEC_PER_MSEC}}));

TEST_F(SemaphoreDeadlineTest, DeadlineOfExactlyAMillionMicrosecondsReturnsFalseAtOnce)
{
    timespec ahead;
    ASSERT_EQ(clock_gettime(CLOCK_MONOTONIC, &ahead), 0);
    ahead.tv_sec += 1000000; // a deadline that was carried would wait for days
    ahead.tv_nsec = 999000000;
    int result = 0;
    const Takeover clock(clockGettimeSeam, [&](clockid_t, timespec* now) {
        *now = ahead;
        return 0;
    });
    const Takeover wait(condTimedwaitSeam, [&](pthread_cond_t* condition, pthread_mutex_t* mutex,
                                               const timespec* deadline) {
        result = condTimedwaitSeam.Real(condition, mutex, deadline);
        return result;
    });
    EXPECT_FALSE(m_semaphore.Try(1));
    EXPECT_EQ(result, EINVAL);
}

TEST_F(SemaphoreDeadlineTest, WakeUpWithoutAUnitStartsTheWholeIntervalAnew)
{
    EXPECT_FALSE(Try({{100, 0}, {200, 0}, {300, 5000}}, 7000));
    EXPECT_THAT(m_deadlines, ElementsAre(Moment{107, 0}, Moment{207, 0}, Moment{307, 5000}));
}

TEST_F(SemaphoreDeadlineTest, ErrorOfTheWaitIsATimeOut)
{
    EXPECT_FALSE(Try({{100, 0}}, 50, EPERM));
    EXPECT_EQ(m_deadlines.size(), 1u);
}

TEST_F(SemaphoreDeadlineTest, ErrorOfTheClockIsATimeOut)
{
    int waits = 0;
    const Takeover clock(clockGettimeSeam, [](clockid_t, timespec*) {
        errno = EINVAL;
        return -1;
    });
    const Takeover wait(condTimedwaitSeam, [&](pthread_cond_t*, pthread_mutex_t*, const timespec*) {
        ++waits;
        return 0;
    });
    EXPECT_FALSE(m_semaphore.Try(1500));
    EXPECT_EQ(waits, 0);
}

TEST_F(SemaphoreDeadlineTest, ErrorOfTheClockAfterAWakeUpIsATimeOut)
{
    int reads = 0;
    const Takeover clock(clockGettimeSeam, [&](clockid_t, timespec* now) {
        *now = {10, 0};
        return reads++ == 0 ? 0 : -1;
    });
    const Takeover wait(condTimedwaitSeam,
                        [](pthread_cond_t*, pthread_mutex_t*, const timespec*) { return 0; });
    EXPECT_FALSE(m_semaphore.Try(1500));
    EXPECT_EQ(reads, 2);
}

TEST_F(SemaphoreDeadlineTest, TimeOutLeavesTheCountAlone)
{
    EXPECT_FALSE(Try({{10, 0}}, 1));
    EXPECT_FALSE(m_semaphore.Try(0));
    m_semaphore.Give();
    EXPECT_TRUE(m_semaphore.Try(0));
    EXPECT_FALSE(m_semaphore.Try(0));
}

TEST_F(SemaphoreDeadlineTest, TimeOutStandsEvenIfAUnitHasComeMeanwhile)
{
    const Takeover wait(condTimedwaitSeam,
                        [this](pthread_cond_t*, pthread_mutex_t* mutex, const timespec*) {
                            pthread_mutex_unlock(mutex);
                            m_semaphore.Give();
                            pthread_mutex_lock(mutex);
                            return ETIMEDOUT;
                        });
    EXPECT_FALSE(m_semaphore.Try(1));
    EXPECT_TRUE(m_semaphore.Try(0));
    EXPECT_FALSE(m_semaphore.Try(0));
}

TEST_F(SemaphoreDeadlineTest, AllSemaphoresOfTheProcessWaitOnOneMutex)
{
    EXPECT_FALSE(Try({{10, 0}}, 1));
    m_semaphore.Destroy();
    TCSemaphore other;
    ASSERT_TRUE(other.Create(0));
    ASSERT_TRUE(m_semaphore.Create(0));
    const Takeover wait(condTimedwaitSeam,
                        [&](pthread_cond_t*, pthread_mutex_t* mutex, const timespec*) {
                            m_mutexes.push_back(mutex);
                            return ETIMEDOUT;
                        });
    EXPECT_FALSE(other.Try(1));
    EXPECT_FALSE(m_semaphore.Try(1));
    EXPECT_THAT(m_mutexes, ElementsAre(m_mutexes.front(), m_mutexes.front(), m_mutexes.front()));
    other.Destroy();
}

TEST_F(SemaphoreDeadlineTest, TryOf1500WaitsAboutOneAndAHalfSeconds)
{
    using Clock = std::chrono::steady_clock;

    const Takeover clock(clockGettimeSeam, [](clockid_t id, timespec* now) {
        const int result = clockGettimeSeam.Real(id, now);
        if (now->tv_nsec / 1000 == 500000) {
            now->tv_nsec += 1000; // steps aside from the moment whose deadline is refused
        }
        return result;
    });
    const Clock::time_point begin = Clock::now();
    EXPECT_FALSE(m_semaphore.Try(1500));
    const Clock::duration waited = Clock::now() - begin;
    EXPECT_GE(waited, std::chrono::milliseconds(1499));
    EXPECT_LT(waited, std::chrono::milliseconds(1500) + std::chrono::seconds(10));
}

} // namespace
