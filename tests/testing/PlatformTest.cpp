#include "zor/testing/Platform.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "ZorApiLite.h"
#include "ZorServiceDebugOverlay.h"
#include "brisk_deadlock.h"
#include "dlog.h"
#include "zor/testing/Testing.h"

namespace {

using ::testing::IsEmpty;
using zor::testing::BuildKind;
using zor::testing::Clock;
using zor::testing::PlatformLog;
using zor::testing::RecordingTask;
using zor::testing::Watchdog;
using ZorApiLite::LiteUtility;

/// The two tests are the same: each finds an empty record, in whichever order they run.
class PlatformLogTest : public ::testing::TestWithParam<int>
{};

TEST_P(PlatformLogTest, BeginsEmptyAndKeepsWhatIsLogged)
{
    EXPECT_THAT(PlatformLog::Lines(), IsEmpty());
    __dlog_print(LOG_ID_MAIN, DLOG_WARN, "METER", "strength %d of %s", GetParam(), "100");
    ASSERT_EQ(PlatformLog::Lines().size(), 1U);
    const PlatformLog::Line line = PlatformLog::Lines()[0];
    EXPECT_EQ(line.buffer, LOG_ID_MAIN);
    EXPECT_EQ(line.priority, DLOG_WARN);
    EXPECT_EQ(line.tag, "METER");
    EXPECT_TRUE(line.hasTag);
    EXPECT_EQ(line.format, "strength %d of %s");
    EXPECT_EQ(line.text, "strength " + std::to_string(GetParam()) + " of 100");
}

INSTANTIATE_TEST_SUITE_P(Twice, PlatformLogTest, ::testing::Values(1, 2));

TEST(PlatformLogTest, KeepsWhatTheRuntimeLogs)
{
    RecordingTask task;
    ASSERT_TRUE(task.Start("Meter"));
    EXPECT_TRUE(task.Pause());
    EXPECT_TRUE(task.ResumeAsync());
    EXPECT_GT(PlatformLog::Count("[pause_resume]"), 0U);
    EXPECT_EQ(PlatformLog::Count("never logged"), 0U);
    PlatformLog::Clear();
    EXPECT_THAT(PlatformLog::LinesWith("[pause_resume] Begin"), IsEmpty());
}

TEST(PlatformLogTest, StandsWithoutATag)
{
    __dlog_print(LOG_ID_MAIN, DLOG_INFO, nullptr, "no tag");
    ASSERT_EQ(PlatformLog::Lines().size(), 1U);
    EXPECT_FALSE(PlatformLog::Lines()[0].hasTag);
}

TEST(WatchdogTest, SeesSupervisedTasksRegisterAndNotify)
{
    Clock clock;
    RecordingTask task;
    ASSERT_TRUE(task.Start("Meter", RecordingTask::LONG_WAIT_MSEC, 7));
    clock.Settle();
    ASSERT_EQ(Watchdog::Registrations().size(), 1U);
    EXPECT_EQ(Watchdog::Registrations()[0].threadName, "Meter");
    EXPECT_EQ(Watchdog::Registrations()[0].seconds, 7U);
    const std::size_t before = Watchdog::Notifications("Meter");
    clock.Advance(std::chrono::seconds(10));
    EXPECT_EQ(Watchdog::Notifications("Meter"), before + 5) << "one for every two seconds";
    EXPECT_EQ(Watchdog::Notifications("Other"), 0U);
}

TEST(WatchdogTest, AnswersAsItIsTold)
{
    Watchdog::Answer(EPERM, ESRCH);
    EXPECT_EQ(brisk_deadlock_register_watchdog_service(5), EPERM);
    EXPECT_EQ(brisk_deadlock_watchdog_notify(), ESRCH);
    Clock clock;
    RecordingTask task;
    ASSERT_TRUE(task.Start("Meter", RecordingTask::LONG_WAIT_MSEC, 5));
    clock.Settle();
    EXPECT_EQ(PlatformLog::Count("Unable to register watchdog service"), 1U);
    Watchdog::Reset();
    EXPECT_EQ(brisk_deadlock_watchdog_notify(), 0);
}

TEST(BuildKindTest, AnswersAsItIsTold)
{
    EXPECT_FALSE(LiteUtility::IsRelease());
    EXPECT_TRUE(LiteUtility::IsDebug());
    BuildKind::AnswerIsRelease(true);
    EXPECT_TRUE(LiteUtility::IsRelease());
    EXPECT_FALSE(LiteUtility::IsDebug());
}

} // namespace
