#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "ZorApiLite.h"

using ZorApiLite::LiteUtility;

namespace {

/// How a sleep goes: for real, or interrupted a number of times and then over at once.
std::atomic<bool> g_sleepsForReal{true};
int g_interruptions = 0;
std::vector<struct timespec> g_sleepEnds;

} // namespace

/// Stands in for the C library's.
extern "C" int clock_nanosleep(clockid_t clock, int flags, const struct timespec* time,
                               struct timespec* left)
{
    if (g_sleepsForReal) {
        using TSleep = int (*)(clockid_t, int, const struct timespec*, struct timespec*);
        static const auto sleep = reinterpret_cast<TSleep>(dlsym(RTLD_NEXT, "clock_nanosleep"));
        return sleep(clock, flags, time, left);
    }
    EXPECT_EQ(clock, CLOCK_MONOTONIC);
    EXPECT_EQ(flags, TIMER_ABSTIME);
    g_sleepEnds.push_back(*time);
    return g_interruptions-- > 0 ? EINTR : 0;
}

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// Exits with whether the build counts as a release, or 9 if the two answers contradict.
[[noreturn]] void ExitWithRelease(const char* value)
{
    if (value != nullptr) {
        setenv("ZOR_RELEASE", value, 1);
    } else {
        unsetenv("ZOR_RELEASE");
    }
    const bool isRelease = LiteUtility::IsRelease();
    setenv("ZOR_RELEASE", isRelease ? "0" : "1", 1);
    if (LiteUtility::IsRelease() != isRelease || LiteUtility::IsDebug() == isRelease) {
        exit(9);
    }
    exit(isRelease ? 1 : 0);
}

TEST(LiteUtilityTest, ReleaseIsWhatTheEnvironmentSaysAtFirst)
{
    EXPECT_EXIT(ExitWithRelease("1"), ::testing::ExitedWithCode(1), "");
    EXPECT_EXIT(ExitWithRelease("0"), ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(ExitWithRelease(""), ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(ExitWithRelease("yes"), ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(ExitWithRelease(nullptr), ::testing::ExitedWithCode(0), "");
}

TEST(LiteUtilityTest, SleepLastsAtLeastItsTime)
{
    const steady_clock::time_point begin = steady_clock::now();
    LiteUtility::SleepMs(30);
    EXPECT_GE(steady_clock::now() - begin, milliseconds(30));
}

volatile sig_atomic_t g_signals = 0;

void CountSignal(int /*signal*/)
{
    g_signals = g_signals + 1;
}

TEST(LiteUtilityTest, SleepResumesAfterSignals)
{
    struct sigaction action = {};
    action.sa_handler = CountSignal;
    ASSERT_EQ(sigaction(SIGALRM, &action, nullptr), 0);
    g_signals = 0;
    const struct itimerval often = {{0, 5000}, {0, 5000}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &often, nullptr), 0);
    const steady_clock::time_point begin = steady_clock::now();
    LiteUtility::SleepMs(200);
    const steady_clock::duration slept = steady_clock::now() - begin;
    const struct itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_GE(slept, milliseconds(200));
    EXPECT_GE(g_signals, 2);
}

TEST(LiteUtilityTest, SignalsDoNotMoveTheEndOfTheSleep)
{
    g_sleepEnds.clear();
    g_interruptions = 3;
    g_sleepsForReal = false;
    LiteUtility::SleepMs(1999);
    g_sleepsForReal = true;
    ASSERT_EQ(g_sleepEnds.size(), 4u);
    for (const struct timespec& end : g_sleepEnds) {
        EXPECT_EQ(end.tv_sec, g_sleepEnds[0].tv_sec);
        EXPECT_EQ(end.tv_nsec, g_sleepEnds[0].tv_nsec);
        EXPECT_LT(end.tv_nsec, 1000000000);
    }
}

[[noreturn]] void ExitDuringLongestSleep()
{
    signal(SIGALRM, [](int) { _exit(0); });
    const struct itimerval soon = {{0, 0}, {0, 200000}};
    setitimer(ITIMER_REAL, &soon, nullptr);
    LiteUtility::SleepMs(ULONG_MAX);
    _exit(1);
}

TEST(LiteUtilityTest, LongestSleepDoesNotOverflow)
{
    EXPECT_EXIT(ExitDuringLongestSleep(), ::testing::ExitedWithCode(0), "");
}

} // namespace
