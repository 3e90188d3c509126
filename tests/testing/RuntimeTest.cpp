#include "zor/testing/Runtime.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Main.h"
#include "Sync.h"
#include "TaskList.h"
#include "WatchdogNotifier.h"
#include "zor/testing/Testing.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using zor::testing::RecordingTask;
using zor::testing::Runtime;

TEST(RuntimeTest, IsUpInATest)
{
    EXPECT_TRUE(TCSyncDet::FlagCreate());
    EXPECT_TRUE(TCTaskList::FlagInitialize());
    EXPECT_NE(TCWatchdogNotifier::Instance(), nullptr);
}

TEST(RuntimeTest, TestsRunOnTheFirstThread)
{
    EXPECT_EQ(syscall(SYS_gettid), getpid());
}

TEST(RuntimeTest, ApplicationSeesTheArgumentsThatAreNotGoogleTests)
{
    ASSERT_GE(gArgc, 1);
    EXPECT_NE(gArgv, nullptr);
    for (int i = 1; i < gArgc; ++i) {
        EXPECT_THAT(gArgv[i], ::testing::Not(::testing::StartsWith("--gtest_")));
    }
}

TEST(RuntimeTest, NamesTheTasksThatAreThere)
{
    EXPECT_THAT(Runtime::Tasks(), IsEmpty());
    RecordingTask first;
    RecordingTask second;
    ASSERT_TRUE(first.Start("First"));
    ASSERT_TRUE(second.Start("Second"));
    EXPECT_THAT(Runtime::Tasks(), ElementsAre("First", "Second"));
    first.End();
    EXPECT_THAT(Runtime::Tasks(), ElementsAre("Second"));
}

} // namespace
